// Resizing of interleaved 8-bit images in integers: exact, the same on every machine. Where a size
// is below 1, nothing is written.
#pragma once

#include "../platform/export.h"

namespace TarnoCPU {

/// Bilinear, N interleaved channels (the number in the name), no gap between rows on either side:
/// `src` holds srch rows of srcw * N bytes, `dst` receives h rows of w * N bytes. A source of width
/// or height 1 is read as if its single column or row stood twice. The first rows and columns of an
/// enlargement extrapolate; what leaves the range of a byte there wraps.
TN_API void resize_bilinear_c1(const unsigned char* src, int srcw, int srch, unsigned char* dst,
                               int w, int h);
TN_API void resize_bilinear_c2(const unsigned char* src, int srcw, int srch, unsigned char* dst,
                               int w, int h);
/// Works on a finer scale than its sisters: results may differ from theirs in the last bit.
TN_API void resize_bilinear_c3(const unsigned char* src, int srcw, int srch, unsigned char* dst,
                               int w, int h);
TN_API void resize_bilinear_c4(const unsigned char* src, int srcw, int srch, unsigned char* dst,
                               int w, int h);

/// Nearest neighbour, one channel.
TN_API void resize_nearest_c1(const unsigned char* src, int srcw, int srch, unsigned char* dst,
                              int w, int h);

/// The rectangle from (x0, y0) to (x1, y1), both corners included, scaled to w x h by nearest
/// neighbour. The rectangle may stick out of the image: `dst` keeps what it held there.
TN_API void crop_resize_nearest_c1(const unsigned char* src, int srcw, int srch, unsigned char* dst,
                                   int w, int h, int x0, int y0, int x1, int y1);
TN_API void crop_resize_nearest_c3(const unsigned char* src, int srcw, int srch, unsigned char* dst,
                                   int w, int h, int x0, int y0, int x1, int y1);
TN_API void crop_resize_nearest_c4(const unsigned char* src, int srcw, int srch, unsigned char* dst,
                                   int w, int h, int x0, int y0, int x1, int y1);

}  // namespace TarnoCPU
