#include "cpu/operator_x86/convolution_1x1s1_float_c8hw8_avx2_m1.h"

#include <immintrin.h>

#include <algorithm>
#include <climits>

#include "cpu/operator/kernel_support.h"
#include "cpu/operator_x86/bias.h"

#define TN_TARGET __attribute__((target("avx2,fma")))

namespace TarnoCPU {
namespace {

// Lane i: the sum of two lanes of a and of b, alternately.
TN_TARGET inline __m256 add_pairs(__m256 a, __m256 b) {
    return _mm256_add_ps(_mm256_unpacklo_ps(a, b), _mm256_unpackhi_ps(a, b));
}

TN_TARGET inline __m256 add_fours(__m256 ab, __m256 cd) {
    return _mm256_add_ps(_mm256_shuffle_ps(ab, cd, _MM_SHUFFLE(1, 0, 1, 0)),
                         _mm256_shuffle_ps(ab, cd, _MM_SHUFFLE(3, 2, 3, 2)));
}

// Lane i of the result is the sum of the lanes of sums[i].
TN_TARGET inline __m256 add_across(const __m256* sums) {
    const __m256 a = add_fours(add_pairs(sums[0], sums[1]), add_pairs(sums[2], sums[3]));
    const __m256 b = add_fours(add_pairs(sums[4], sums[5]), add_pairs(sums[6], sums[7]));
    return _mm256_add_ps(_mm256_permute2f128_ps(a, b, 0x20), _mm256_permute2f128_ps(a, b, 0x31));
}

// `count` pixels of eight channels, which lie `plane` apart, to [count][8].
TN_TARGET void interleave(const float* in, int64_t plane, int64_t count, float* out) {
    int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        // Pairs of channels, then fours; a lane half holds one pixel of four channels.
        __m256 fours[2][4];
        for (int half = 0; half < 2; ++half) {
            const float* const from = in + i + 4 * half * plane;
            const __m256 a = _mm256_loadu_ps(from);
            const __m256 b = _mm256_loadu_ps(from + plane);
            const __m256 c = _mm256_loadu_ps(from + 2 * plane);
            const __m256 d = _mm256_loadu_ps(from + 3 * plane);
            const __m256 ab_low = _mm256_unpacklo_ps(a, b);
            const __m256 ab_high = _mm256_unpackhi_ps(a, b);
            const __m256 cd_low = _mm256_unpacklo_ps(c, d);
            const __m256 cd_high = _mm256_unpackhi_ps(c, d);
            fours[half][0] = _mm256_shuffle_ps(ab_low, cd_low, _MM_SHUFFLE(1, 0, 1, 0));
            fours[half][1] = _mm256_shuffle_ps(ab_low, cd_low, _MM_SHUFFLE(3, 2, 3, 2));
            fours[half][2] = _mm256_shuffle_ps(ab_high, cd_high, _MM_SHUFFLE(1, 0, 1, 0));
            fours[half][3] = _mm256_shuffle_ps(ab_high, cd_high, _MM_SHUFFLE(3, 2, 3, 2));
        }
        for (int j = 0; j < 4; ++j) {
            float* const to = out + 8 * (i + j);
            _mm256_storeu_ps(to, _mm256_permute2f128_ps(fours[0][j], fours[1][j], 0x20));
            _mm256_storeu_ps(to + 32, _mm256_permute2f128_ps(fours[0][j], fours[1][j], 0x31));
        }
    }
    for (; i < count; ++i) {
        for (int k = 0; k < 8; ++k) out[8 * i + k] = in[i + k * plane];
    }
}

// `count` pixels of one output channel, from `in` [blocks][count][8]. Eight pixels are eight
// accumulators, which share the load of the weights. Nine loads for eight fused products on two
// load pipes bound it, then the 21 operations of `add_across`.
TN_TARGET void multiply(const float* in, int64_t count, int64_t blocks, const float* weights,
                        float* out) {
    int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        __m256 sums[8];
        for (int j = 0; j < 8; ++j) sums[j] = _mm256_setzero_ps();
        const float* from = in + 8 * i;
        for (int64_t b = 0; b < blocks; ++b, from += 8 * count) {
            const __m256 w = _mm256_loadu_ps(weights + 8 * b);
            for (int j = 0; j < 8; ++j)
                sums[j] = _mm256_fmadd_ps(_mm256_loadu_ps(from + 8 * j), w, sums[j]);
        }
        _mm256_storeu_ps(out + i, add_across(sums));
    }
    for (; i < count; ++i) {
        __m256 sums[8];
        for (int j = 0; j < 8; ++j) sums[j] = _mm256_setzero_ps();
        const float* from = in + 8 * i;
        for (int64_t b = 0; b < blocks; ++b, from += 8 * count) {
            sums[0] =
                _mm256_fmadd_ps(_mm256_loadu_ps(from), _mm256_loadu_ps(weights + 8 * b), sums[0]);
        }
        out[i] = _mm256_cvtss_f32(add_across(sums));
    }
}

// The scratch takes the form strip by strip, so that a strip is one piece of memory: it stays in
// the first cache while all output channels pass over it.
void multiply_strips(const float* in, int64_t plane, int64_t inputs, float* scratch,
                     const float* weights, int64_t outputs, float* out) {
    constexpr int64_t strip_floats = 16 * 1024 / sizeof(float);
    const int64_t strip = std::max<int64_t>(8, strip_floats / inputs / 8 * 8);
    for (int64_t i = 0; i < plane; i += strip) {
        const int64_t count = std::min(strip, plane - i);
        for (int64_t q = 0; q < inputs; q += 8)
            interleave(in + q * plane + i, plane, count, scratch + q * count);
        for (int64_t p = 0; p < outputs; ++p)
            multiply(scratch, count, inputs / 8, weights + p * inputs, out + p * plane + i);
        scratch += count * inputs;
    }
}

// The scratch holds as many floats as bottom. When the input channels are no multiple of 8, the
// last block of the form is cut off at its end, in the midst of the pixels; what is missing counts
// as 0.
void multiply_guarded(const Mat& bottom, Mat& top, const ReadableFloats& weights, int num_input) {
    const ReadableFloats in(bottom);
    const int64_t plane = int64_t{bottom.shape.h} * bottom.shape.w;
    const int64_t blocks = (int64_t{num_input} - 1) / 8 + 1;
    // Blocks that lie behind the end of the scratch as a whole read as 0.
    const int64_t channels = 8 * std::min(blocks, in.count / (8 * plane) + 1);
    float* out = top.ptr<float>();
    for (int64_t p = 0; p < top.shape.c; ++p) {
        for (int64_t i = 0; i < plane; ++i) {
            float sum = 0.0f;
            for (int64_t q = 0; q < channels; ++q) {
                const int64_t place = (q / 8 * plane + i) * 8 + q % 8;
                if (place < in.count) sum += in[q * plane + i] * weights[p * num_input + q];
            }
            *out++ = sum;
        }
    }
}

}  // namespace

TN_DEFINE_OPERATOR_CREATOR(Convolution_1x1s1_Float_C8HW8_AVX2_M1)

bool Convolution_1x1s1_Float_C8HW8_AVX2_M1::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int Convolution_1x1s1_Float_C8HW8_AVX2_M1::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS_NO_HYPHEN(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    if (!ready_for(bottom) || !make_top(bottom, params.num_output, 1, top, opt)) return -100;
    // Bottom's shape in one row, with room to start at a multiple of 32: a vector that crosses a
    // line of the cache costs a second load.
    TensorShape shape(TensorShape::FLAT, 1, 1, 0, 4);
    if (bottom.shape.total() > INT_MAX - 4) return -100;
    shape.w = static_cast<int>(bottom.shape.total()) + 4;
    Mat scratch(shape, nullptr);
    if (scratch.empty()) return -100;

    const ReadableFloats weights(kernel_weights());
    const int64_t plane = int64_t{bottom.shape.h} * bottom.shape.w;
    const int64_t inputs = params.num_input;
    if (inputs > 0 && inputs % 8 == 0 && inputs <= bottom.shape.c &&
        inputs * params.num_output <= weights.count) {
        float* in = scratch.ptr<float>();
        if (reinterpret_cast<uintptr_t>(in) % 32 != 0) in += 4;
        multiply_strips(bottom.ptr<float>(), plane, inputs, in, weights.data, params.num_output,
                        top.ptr<float>());
    } else {
        multiply_guarded(bottom, top, weights, params.num_input);
    }
    if (params.bias_term != 0) {
        const ReadableFloats numbers = bias();
        add_bias(top.ptr<float>(), top.shape.c, plane, numbers.data, numbers.count);
    }
    return 0;
}

}  // namespace TarnoCPU
