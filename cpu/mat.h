// The tensor of the CPU engine.
#pragma once

#include <cstddef>
#include <cstdint>

#include "../platform/export.h"
#include "allocator.h"

namespace TarnoCPU {

/// Size and memory order of a tensor.
struct TN_API TensorShape {
    /// Memory order of the elements.
    enum Layout : int {
        /// A packed weight array: one dimension, `c` 1, `h` 1, `w` the number of elements.
        FLAT = 0,
        /// `c` planes of `h` rows of `w` columns: element [q][y][x] at (q * h + y) * w + x.
        CHW = 1,
        /// Four channels side by side. `c` counts blocks of four channels, `w` is four times the
        /// columns: channel q, row y, column x at ((q / 4) * h + y) * w + x * 4 + q % 4.
        C4HW4 = 3,
        /// Eight channels side by side. Taken by the element operators, which never look at an
        /// element's place; made by none.
        C8HW8 = 4,
    };

    Layout layout = CHW;
    int c = 0;
    int h = 0;
    int w = 0;
    int elem_size = 0;           ///< bytes of one element: 4 float, 2 int16, 1 int8
    unsigned int frac_bits = 0;  ///< fractional bits of a fixed-point tensor, 0 for float

    TensorShape() = default;
    TensorShape(Layout layout, int c, int h, int w, int elem_size, unsigned int frac_bits = 0)
        : layout(layout), c(c), h(h), w(w), elem_size(elem_size), frac_bits(frac_bits) {}

    bool operator==(const TensorShape& other) const;
    bool operator!=(const TensorShape& other) const { return !(*this == other); }

    /// 3 for more than one channel, 2 for one channel of several rows, 1 for one row, and 0 for
    /// everything that counts as empty.
    int dims() const;

    /// `c * h * w` in 64 bits. What does not fit is the largest number, or the lowest when the
    /// product is negative; no such tensor can be had.
    int64_t total() const {
        const int64_t plane = static_cast<int64_t>(h) * w;
        const int64_t limit = plane != 0 ? INT64_MAX / (plane < 0 ? -plane : plane) : INT64_MAX;
        if (c > limit || -static_cast<int64_t>(c) > limit) {
            return (c < 0) != (plane < 0) ? INT64_MIN : INT64_MAX;
        }
        return c * plane;
    }
};

/// A reference-counted block of memory with a shape header.
///
/// Channel q starts q * h * w * elem_size bytes after `data`; there is no padding between channels.
/// The block is one allocation: the payload rounded up to 4 bytes, then the 32-bit counter. Copies
/// share the block. The counter is atomic, the object is not: two threads may hold two copies of
/// one block, not share one `Mat`.
class TN_API Mat {
public:
    TensorShape shape;
    void* data;
    int* refcount;         ///< null for a view of memory that this `Mat` does not own
    Allocator* allocator;  ///< null for the plain aligned heap

    /// No block, layout `CHW`, everything else 0.
    Mat();
    /// Allocates; see `create`.
    Mat(const TensorShape& shape, Allocator* allocator);
    /// A view of `data`, which must outlive the `Mat` and is never freed by it.
    Mat(const TensorShape& shape, void* data, Allocator* allocator);
    Mat(const Mat& other);
    Mat& operator=(const Mat& other);
    ~Mat();

    /// Drops the share; the last share frees the block. `data`, `refcount` and the shape become 0
    /// but for `layout` and `allocator`, which stay.
    void release();

    /// Makes a block of `shape` with undefined contents. Keeps the present block when shape and
    /// allocator are the same already. `data` is null afterwards when the shape has no elements or
    /// when there is no memory.
    void create(const TensorShape& shape, Allocator* allocator);

    /// True when there is nothing to compute with: no block, or sizes of which one is below 1.
    bool empty() const { return data == nullptr || shape.dims() == 0; }

    /// A view of channel q. It holds no share and dangles when this `Mat` goes. q is not checked.
    /// Without a block the view has none either.
    Mat channel(int q);
    const Mat channel(int q) const;

    /// A copy with a block of its own from `allocator`; empty when this `Mat` is.
    Mat clone(Allocator* allocator) const;

    /// Elements of type T from the start of the block.
    template <typename T>
    T* ptr() {
        return static_cast<T*>(data);
    }
    template <typename T>
    const T* ptr() const {
        return static_cast<const T*>(data);
    }

    /// Copies `c * h * w` elements out of consecutive places of `data` into a new `Mat` of the
    /// shape {layout, c, h, w, size of an element, frac_bits}. A null `data` leaves them undefined.
    static Mat from_float_array(const float* data, int w, int h, int c, TensorShape::Layout layout,
                                Allocator* allocator);
    static Mat from_int16_array(const short* data, int w, int h, int c, TensorShape::Layout layout,
                                Allocator* allocator, unsigned int frac_bits);
    static Mat from_int8_array(const signed char* data, int w, int h, int c,
                               TensorShape::Layout layout, Allocator* allocator,
                               unsigned int frac_bits);

    /// Interleaved 8-bit pixels, `h` rows of `w` pixels without gaps, to float planes of the values
    /// 0 to 255. `type` holds the source order in its low 16 bits and the wanted order in its high
    /// 16 bits (0 for the same): 1 RGB, 2 BGR, 4 grey, 8 RGBA. Combinations other than 1, 2, 4, 8,
    /// 0x10002, 0x20001, 0x40001, 0x40002, 0x10004, 0x20004, 0x10008, 0x20008, 0x40008 give an
    /// empty `Mat`.
    static Mat from_pixels(const unsigned char* pixels, int type, int w, int h,
                           Allocator* allocator);
    /// The same after a bilinear resize to `target_w` x `target_h`. When the size is the same
    /// already the block comes from the plain heap and `allocator` is not used.
    static Mat from_pixels_resize(const unsigned char* pixels, int type, int w, int h, int target_w,
                                  int target_h, Allocator* allocator);

    /// In place, per channel q: x = (x - mean_vals[q]) * norm_vals[q], with one number for each
    /// channel; either pointer may be null. Only the first (h * w) / 4 * 4 elements of a channel
    /// are changed. Other tensors than floats are left alone. (The name is misspelt; hosts call it
    /// so.)
    void substract_mean_normalize(const float* mean_vals, const float* norm_vals);
};

/// `dst` becomes `src` with margins of `top` and `bottom` rows and `left` and `right` columns. With
/// no margin at all `dst` shares `src`. Elements are taken as 4 bytes wide. Every byte of a margin
/// is the low byte of (int)`v`, so the margin is a true constant only for 0. A negative margin
/// cuts. `dst` is empty when there is no memory or nothing is left. `type` and `num_threads` are
/// not looked at.
TN_API void copy_make_border(const Mat& src, Mat& dst, int top, int bottom, int left, int right,
                             int type, float v, Allocator* allocator, int num_threads);

/// `dst` becomes the inside of `src` less the four margins, none of them negative. With no margin
/// it shares `src`. A `src` of one row and one channel leaves `dst` as it was. Empty when nothing
/// is left.
TN_API void copy_cut_border(const Mat& src, Mat& dst, int top, int bottom, int left, int right,
                            Allocator* allocator, int num_threads);

}  // namespace TarnoCPU
