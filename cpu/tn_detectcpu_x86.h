// The base of the CPU detectors: camera frame in, network output to a subclass.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "../platform/export.h"
#include "allocator.h"
#include "mat.h"
#include "tarnonet.h"

/// A camera frame. `format` 1 and 8: a luma plane of `width` x `height` bytes, then a plane of
/// chroma pairs of half the size in both directions; 4, 5 and 10: four bytes a pixel. Rows follow
/// each other without a gap. The pixels stay the caller's.
struct _TN_Image {
    int reserved_0;  ///< not read
    int format;
    int width;
    int height;
    int reserved_1;  ///< not read
    void* data;
};

namespace TarnoCPU {

/// Turns frames into an input tensor, runs the first net and leaves the meaning to a subclass: it
/// implements `load`, which builds `nets` and sets `loaded`, `preprocess` and `postprocess`.
/// One thread per object.
class TN_API TnDetectedCpu {
public:
    /// `models` are `model_count` NUL-terminated paths.
    TnDetectedCpu(int model_count, const void* const* models);
    /// The last four are stored for the subclass.
    TnDetectedCpu(int model_count, const void* const* models, int input_count,
                  const char** input_names, const long* input_sizes, int flags);
    TnDetectedCpu(const TnDetectedCpu&) = delete;
    TnDetectedCpu& operator=(const TnDetectedCpu&) = delete;
    virtual ~TnDetectedCpu();

    /// Loads when needed, converts, runs, hands the output to `postprocess`. False when `load` or
    /// the run failed.
    ///
    /// Width and height are read from the third and fourth 32-bit word at `image`, and the pixels
    /// (format 1) are taken from `image` itself, not from `data`: `image` must point at a raw frame
    /// of width * height * 3 / 2 bytes whose first bytes double as the header. A subclass that
    /// receives a `_TN_Image` overrides this and calls `getInMat`.
    virtual bool detect(const void* image, void* result);
    virtual void reset_lstm_state();
    virtual bool load();
    virtual void preprocess(Mat& in);
    /// Runs `nets[0]` from its input 0 to its last layer, in light mode.
    virtual bool forward(const Mat& in, Mat& out);
    virtual void postprocess(const Mat& out, void* result);

protected:
    void init(int model_count, const void* const* models);

    /// The frame as float planes 0 to 255 of the size of `nets[0]`, in `out`. `width` and `height`
    /// tell only whether the frame stands upright: for a frame that does not, the two net numbers
    /// change places. `flags`: bit 0 and bit 1 quarter turns, bit 2 and bit 6 a half turn, bit 3 a
    /// row flip; see the unit for what each does on the luma and chroma formats. `swap` exchanges
    /// red and blue there. An unknown format logs an error and leaves `out` alone.
    void getInMat(int width, int height, const _TN_Image* image, Mat& out, unsigned int flags,
                  int swap);

    /// Resizes luma and chroma of a w x h frame and converts them to RGB of `target_w` x `target_h`
    /// (expected even) in `pixel_buffer_a`. Results outside 0 to 255 wrap.
    void yuv2rgb(int w, int h, const void* data, int target_w, int target_h);

    /// The same at the size of `nets[0]` (tw its height, th its width), turned into `out`:
    /// `rotate` 0 a transposed half turn, 1 and 2 what `pixel_buffer_b` holds, 3 a row flip, 4 as
    /// it is; anything else leaves `out` alone.
    void yuv2rgb(int w, int h, const void* data, Mat& out, int rotate, int swap);

    std::vector<std::string> model_paths;
    std::vector<TarnoNet> nets;
    const char** input_names;
    const long* input_sizes;
    int input_count;
    int flags;
    unsigned char* yuv_buffer;
    unsigned char* pixel_buffer_a;
    unsigned char* pixel_buffer_b;
    bool loaded;
    UnlockedPoolAllocator* blob_allocator;
    PoolAllocator* workspace_allocator;

private:
    size_t yuv_buffer_size;
    size_t pixel_buffer_a_size;
    size_t pixel_buffer_b_size;
};

}  // namespace TarnoCPU
