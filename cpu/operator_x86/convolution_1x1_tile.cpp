#include "cpu/operator_x86/convolution_1x1_tile.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {
namespace {

// The walk where the shape does not divide by its steps. A tile's channels are filled together
// before the first of them is added to, so what sticks out of a channel stays in the next one of
// the same tile and is lost in the next tile.
void multiply_guarded(const Mat& bottom, Mat& top, const ReadableFloats& weights,
                      const ReadableFloats& bias, int tile) {
    const ReadableFloats in(bottom);
    const WritableFloats out(top);
    const int64_t inputs = bottom.shape.c;
    const int64_t rows = bottom.shape.h;
    const int64_t row = bottom.shape.w;
    const int64_t plane = rows * row;
    for (int64_t p = 0; p < top.shape.c; p += tile) {
        for (int64_t i = 0; i < tile * plane; ++i) out.write(p * plane + i, bias[p + i / plane]);
        for (int64_t q = 0; q < inputs; q += 4) {
            for (int64_t y = 0; y < rows; y += 4) {
                for (int64_t x = 0; x < row; x += 4) {
                    for (int64_t i = 0; i < tile * 16; ++i) {
                        const int64_t t = p + i / 16;
                        const int64_t at = (y + i / 4 % 4) * row + x + i % 4;
                        for (int64_t k = q; k < q + 4; ++k)
                            out.add(t * plane + at, in[k * plane + at] * weights[t * inputs + k]);
                    }
                }
            }
        }
    }
}

}  // namespace

bool TileConvolution1x1::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int TileConvolution1x1::convolve(const Mat& bottom, Mat& top, const Option& opt, int tile,
                                 void (*kernel)(TileProduct product)) const {
    if (!ready_for(bottom) || !make_top(bottom, params.num_output, 1, top, opt)) return -100;

    const ReadableFloats weights(kernel_weights());
    const TensorShape& shape = bottom.shape;
    const bool divides =
        top.shape.c % tile == 0 && shape.c % 4 == 0 && shape.h % 4 == 0 && shape.w % 4 == 0;
    if (!divides || int64_t{top.shape.c} * shape.c > weights.count) {
        multiply_guarded(bottom, top, weights, bias(), tile);
        return 0;
    }
    kernel({bottom.ptr<float>(), top.ptr<float>(), weights.data, bias(), shape.c, top.shape.c,
            shape.h, shape.w});
    return 0;
}

}  // namespace TarnoCPU
