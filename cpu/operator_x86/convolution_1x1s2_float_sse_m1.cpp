#include "cpu/operator_x86/convolution_1x1s2_float_sse_m1.h"

#include <emmintrin.h>

#include <algorithm>
#include <cstring>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {
namespace {

// Eight sampled pixels of all input channels, [inputs][8], are a panel; four output channels are a
// tile.
constexpr int64_t panel_pixels = 8;
constexpr int64_t tile_channels = 4;

__m128 even_of_eight(const float* in) {
    return _mm_shuffle_ps(_mm_loadu_ps(in), _mm_loadu_ps(in + 4), _MM_SHUFFLE(2, 0, 2, 0));
}

// Every second pixel of every second row, cut into panels. `panels` is zero, and stays so behind
// the last pixel.
void sample(const Mat& bottom, int64_t rows, int64_t columns, float* panels) {
    const int64_t inputs = bottom.shape.c;
    const float* plane = bottom.ptr<float>();
    for (int64_t q = 0; q < inputs; ++q) {
        float* panel = panels + q * panel_pixels;
        int64_t lane = 0;
        for (int64_t y = 0; y < rows; ++y) {
            const float* from = plane + 2 * y * bottom.shape.w;
            for (int64_t left = columns; left > 0;) {
                const int64_t count = std::min(left, panel_pixels - lane);
                if (count == panel_pixels) {
                    _mm_storeu_ps(panel, even_of_eight(from));
                    _mm_storeu_ps(panel + 4, even_of_eight(from + 8));
                } else {
                    for (int64_t i = 0; i < count; ++i) panel[lane + i] = from[2 * i];
                }
                from += 2 * count;
                left -= count;
                lane += count;
                if (lane == panel_pixels) {
                    lane = 0;
                    panel += inputs * panel_pixels;
                }
            }
        }
        plane += int64_t{bottom.shape.h} * bottom.shape.w;
    }
}

// The weights of `channels` output channels from [p][inputs] to [inputs][tile_channels], each in
// four lanes. Channels behind the last one get zeros.
void spread(const float* weights, int64_t inputs, int64_t channels, __m128* tile) {
    for (int64_t q = 0; q < inputs; ++q) {
        for (int64_t t = 0; t < tile_channels; ++t)
            *tile++ = _mm_set1_ps(t < channels ? weights[t * inputs + q] : 0.0f);
    }
}

// A tile of channels times a panel, summed in registers over all input channels: eight
// accumulators. What bounds it: a product and its sum are three instructions in SSE, with the copy
// that multiplying in place needs; eight of them and two loads are five cycles where the pipes
// would take four.
void multiply(const float* panel, int64_t inputs, const __m128* tile, const float* bias,
              float* result) {
    __m128 left[tile_channels], right[tile_channels];
    for (int t = 0; t < tile_channels; ++t) left[t] = right[t] = _mm_set1_ps(bias[t]);
    for (int64_t q = 0; q < inputs; ++q) {
        const __m128 a = _mm_load_ps(panel + q * panel_pixels);
        const __m128 b = _mm_load_ps(panel + q * panel_pixels + 4);
        for (int t = 0; t < tile_channels; ++t) {
            const __m128 w = tile[q * tile_channels + t];
            left[t] = _mm_add_ps(left[t], _mm_mul_ps(w, a));
            right[t] = _mm_add_ps(right[t], _mm_mul_ps(w, b));
        }
    }
    for (int t = 0; t < tile_channels; ++t) {
        _mm_storeu_ps(result + t * panel_pixels, left[t]);
        _mm_storeu_ps(result + t * panel_pixels + 4, right[t]);
    }
}

}  // namespace

TN_DEFINE_OPERATOR_CREATOR(Convolution_1x1s2_Float_SSE_M1)

bool Convolution_1x1s2_Float_SSE_M1::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int Convolution_1x1s2_Float_SSE_M1::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    if (!ready_for(bottom) || !make_top(bottom, params.num_output, 2, top, opt)) return -100;

    const int inputs = bottom.shape.c;
    const int64_t plane = int64_t{top.shape.h} * top.shape.w;
    const int panels = static_cast<int>((plane + panel_pixels - 1) / panel_pixels);
    Mat samples(TensorShape(TensorShape::CHW, panels, inputs, panel_pixels, 4),
                opt.workspace_allocator);
    Mat tile(TensorShape(TensorShape::CHW, inputs, tile_channels, 4, 4), opt.workspace_allocator);
    // Weights made for fewer channels than there are end in zeros.
    const Mat weights = extended_with_zeros(kernel_weights(), int64_t{params.num_output} * inputs);
    if (samples.empty() || tile.empty() || weights.empty()) return -100;

    std::memset(samples.data, 0, static_cast<size_t>(samples.shape.total()) * sizeof(float));
    sample(bottom, top.shape.h, top.shape.w, samples.ptr<float>());
    const ReadableFloats bias = this->bias();
    for (int64_t p = 0; p < params.num_output; p += tile_channels) {
        const int64_t channels = std::min<int64_t>(tile_channels, params.num_output - p);
        spread(weights.ptr<float>() + p * inputs, inputs, channels, tile.ptr<__m128>());
        const float biases[tile_channels] = {bias[p], bias[p + 1], bias[p + 2], bias[p + 3]};
        const float* panel = samples.ptr<float>();
        for (int64_t i = 0; i < plane; i += panel_pixels, panel += inputs * panel_pixels) {
            float result[tile_channels * panel_pixels];
            multiply(panel, inputs, tile.ptr<__m128>(), biases, result);
            const int64_t pixels = std::min<int64_t>(panel_pixels, plane - i);
            for (int64_t t = 0; t < channels; ++t) {
                std::memcpy(top.ptr<float>() + (p + t) * plane + i, result + t * panel_pixels,
                            static_cast<size_t>(pixels) * sizeof(float));
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
