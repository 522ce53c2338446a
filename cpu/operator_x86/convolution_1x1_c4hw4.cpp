#include "cpu/operator_x86/convolution_1x1_c4hw4.h"

#include "cpu/quantitation.h"
#include "platform/tn_core.h"

namespace TarnoCPU {
namespace {

void pack(const ConvolutionParams& params, const Mat& weight_data, Mat& packed) {
    transform_nchw_to_n4c4hw44(weight_data, packed, params.num_output, params.num_input,
                               params.kernel_h, params.kernel_w);
}

bool is_aligned(const void* p) {
    return reinterpret_cast<uintptr_t>(p) % 16 == 0;
}

// Each block of `plane` floats starts with the four numbers of its channels over and over.
void fill_with_bias(float* out, int64_t plane, int64_t blocks, const ReadableFloats& bias) {
    for (int64_t b = 0; b < blocks; ++b, out += plane) {
        const float numbers[4] = {bias[4 * b], bias[4 * b + 1], bias[4 * b + 2], bias[4 * b + 3]};
        const __m128 vector = _mm_loadu_ps(numbers);
        int64_t i = 0;
        for (; i + 4 <= plane; i += 4) _mm_storeu_ps(out + i, vector);
        for (; i < plane; ++i) out[i] = numbers[i % 4];
    }
}

// The same product where steps of `step` floats stick out of the rows: the walk with its bounds.
void multiply_guarded(const C4HW4Product& product, const Mat& bottom, Mat& top,
                      const ReadableFloats& weights, int64_t step) {
    const ReadableFloats in(bottom);
    const WritableFloats out(top);
    const int64_t row = bottom.shape.w;
    for (int64_t ob = 0; ob < product.out_blocks; ++ob) {
        for (int64_t ib = 0; ib < product.in_blocks; ++ib) {
            const int64_t w = ob * product.weight_row + ib * 16;
            for (int64_t y = 0; y < product.plane; y += row) {
                for (int64_t x = 0; x < row; x += step) {
                    for (int64_t i = y + x; i < y + x + step; ++i) {
                        // A pixel starts where its step does, not where the block says.
                        const int64_t n = (i - y - x) % 4;
                        const int64_t pixel = ib * product.plane + i - n;
                        float sum = in[pixel] * weights[w + n];
                        for (int k = 1; k < 4; ++k) sum += in[pixel + k] * weights[w + 4 * k + n];
                        out.add(ob * product.plane + i, sum);
                    }
                }
            }
        }
    }
}

}  // namespace

void multiply_c4hw4_in_register(C4HW4Product product) {
    const int64_t plane = product.plane;
    for (int64_t ob = 0; ob < product.out_blocks; ++ob) {
        const float* const weights = product.weights + ob * product.weight_row;
        float* const out = product.out + ob * plane;
        for (int64_t i = 0; i < plane; i += 4) {
            const float* in = product.in + i;
            __m128 sum = _mm_loadu_ps(out + i);
            for (int64_t ib = 0; ib < product.in_blocks; ++ib, in += plane) {
                const C4HW4Weights w(weights + ib * 16);
                sum = _mm_add_ps(sum, w.apply(_mm_loadu_ps(in)));
            }
            _mm_storeu_ps(out + i, sum);
        }
    }
}

C4HW4Convolution1x1::C4HW4Convolution1x1() : DirectConvolution(&pack) {}

bool C4HW4Convolution1x1::check_forward(const TensorShape& shape) {
    return shape.elem_size == 4 && shape.layout == TensorShape::C4HW4;
}

bool C4HW4Convolution1x1::allows_rows_of(const TensorShape& shape, int floats) {
    if (shape.w >= floats && shape.w % floats == 0) return true;
    Tarno::_LogDebug("Tarno", "tensor shape is not allowed !!!");
    return false;
}

int C4HW4Convolution1x1::convolve(const Mat& bottom, Mat& top, const Option& opt,
                                  const C4HW4Blocking& blocking) const {
    if (!ready_for(bottom) || !make_top(bottom, params.num_output / 4, 1, top, opt)) return -100;

    const ReadableFloats weights(kernel_weights());
    C4HW4Product product;
    product.in = bottom.ptr<float>();
    product.out = top.ptr<float>();
    product.weights = weights.data;
    product.plane = int64_t{bottom.shape.h} * bottom.shape.w;
    product.in_blocks = bottom.shape.c;
    product.out_blocks = top.shape.c;
    product.weight_row = int64_t{params.num_input / 4} * 16;

    // Without a bias nothing clears top. Such layers add to what an earlier run left there.
    if (params.bias_term != 0) {
        fill_with_bias(product.out, product.plane, product.out_blocks, bias());
    }

    const int64_t step = 4 * (blocking.steps_cross_rows ? 1 : blocking.pixels);
    const int64_t weights_read =
        (product.out_blocks - 1) * product.weight_row + product.in_blocks * 16;
    if (bottom.shape.w % step != 0 || product.weight_row < 0 || weights_read > weights.count) {
        multiply_guarded(product, bottom, top, weights, step);
    } else if (is_aligned(product.in) && is_aligned(product.out) && product.plane % 4 == 0) {
        blocking.kernel_aligned(product);
    } else {
        blocking.kernel(product);
    }
    return 0;
}

}  // namespace TarnoCPU
