#include "cpu/operator/pixel_shuffle.h"

#include <climits>
#include <cstdint>

namespace TarnoCPU {
namespace {

// (int)v, 0 for what is no positive int.
int64_t positive_int(float v) {
    return v >= 1.0f && v < 2147483648.0f ? static_cast<int64_t>(v) : 0;
}

}  // namespace

int pixel_shuffle(const Mat& bottom, Mat& top, float scale, const Option& opt) {
    if (top.data != nullptr && top.data == bottom.data) {
        const Mat source = bottom;  // one block for both would be read while it is written
        top.release();
        return pixel_shuffle(source, top, scale, opt);
    }
    if (bottom.empty() || bottom.shape.dims() == 0) return -100;
    const int64_t c = bottom.shape.c, h = bottom.shape.h, w = bottom.shape.w;
    const bool to_space = scale >= 1.0f;
    const int64_t r = positive_int(to_space ? scale : 1.0f / scale);
    // The top must have as many elements as the bottom.
    if (r == 0 || (to_space ? c % (r * r) != 0 : h % r != 0 || w % r != 0)) return -100;
    const int64_t outc = to_space ? c / (r * r) : c * r * r;
    const int64_t outh = to_space ? h * r : h / r;
    const int64_t outw = to_space ? w * r : w / r;
    if (outc > INT_MAX || outh > INT_MAX || outw > INT_MAX) return -100;
    top.create(TensorShape(bottom.shape.layout, static_cast<int>(outc), static_cast<int>(outh),
                           static_cast<int>(outw), bottom.shape.elem_size),
               opt.blob_allocator);
    if (top.empty()) return -100;

    // Either way a deep tensor of few pixels stands against a flat one of many: row y of the deep
    // tensor's channel (o * r + ry) * r + rx is every r-th element of row y * r + ry of the flat
    // one's channel o.
    const int64_t flat_channels = to_space ? outc : c;
    const int64_t deep_h = to_space ? h : outh, deep_w = to_space ? w : outw;
    const float* from = bottom.ptr<float>();
    float* to = top.ptr<float>();
    for (int64_t o = 0; o < flat_channels; ++o) {
        for (int64_t y = 0; y < deep_h; ++y) {
            for (int64_t ry = 0; ry < r; ++ry) {
                const int64_t flat_row = ((o * deep_h + y) * r + ry) * deep_w * r;
                for (int64_t rx = 0; rx < r; ++rx) {
                    const int64_t flat = flat_row + rx;
                    const int64_t deep = (((o * r + ry) * r + rx) * deep_h + y) * deep_w;
                    if (to_space) {
                        for (int64_t x = 0; x < deep_w; ++x)
                            to[flat + x * r] = from[deep + x];
                    } else {
                        for (int64_t x = 0; x < deep_w; ++x)
                            to[deep + x] = from[flat + x * r];
                    }
                }
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
