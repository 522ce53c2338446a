#include "cpu/operator_x86/convolution_line3.h"

#include <emmintrin.h>

#include <algorithm>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {
namespace {

constexpr int taps = 3;
constexpr int tile_outputs = 4;
constexpr int tile_columns = 8;

// Where the taps of all channels lie behind the place of an output.
struct Source {
    const float* first;
    int64_t channels;
    int64_t plane;
    int64_t step;  // from tap to tap
};

// Four output channels times eight columns, summed in registers: eight accumulators. A tap is two
// loads and four weights; a product and its sum are three instructions with the copy that
// multiplying in place needs, so the adds and multiplies bound it, not the loads.
// `weights` is [q][tap][output], `out` receives rows of eight.
void compute_tile(const Source& source, const float* weights, const float* bias,
                  float out[tile_outputs][tile_columns]) {
    __m128 left[tile_outputs], right[tile_outputs];
    for (int o = 0; o < tile_outputs; ++o) left[o] = right[o] = _mm_set1_ps(bias[o]);
    for (int64_t q = 0; q < source.channels; ++q) {
        const float* in = source.first + q * source.plane;
        for (int k = 0; k < taps; ++k, in += source.step, weights += tile_outputs) {
            const __m128 a = _mm_loadu_ps(in);
            const __m128 b = _mm_loadu_ps(in + 4);
            for (int o = 0; o < tile_outputs; ++o) {
                const __m128 w = _mm_set1_ps(weights[o]);
                left[o] = _mm_add_ps(left[o], _mm_mul_ps(a, w));
                right[o] = _mm_add_ps(right[o], _mm_mul_ps(b, w));
            }
        }
    }
    for (int o = 0; o < tile_outputs; ++o) {
        _mm_storeu_ps(out[o], left[o]);
        _mm_storeu_ps(out[o] + 4, right[o]);
    }
}

// One column of a tile, with a look at the end of the block: `room` elements are left of it.
void compute_column(const Source& source, int64_t room, const float* weights, const float* bias,
                    float out[tile_outputs]) {
    for (int o = 0; o < tile_outputs; ++o) out[o] = bias[o];
    for (int64_t q = 0; q < source.channels; ++q) {
        for (int k = 0; k < taps; ++k, weights += tile_outputs) {
            const int64_t at = q * source.plane + k * source.step;
            const float value = at < room ? source.first[at] : 0.0f;
            for (int o = 0; o < tile_outputs; ++o) out[o] += value * weights[o];
        }
    }
}

// Weights of four output channels from [p][q][tap] to [q][tap][output]; outputs that are not there
// get zeros.
void interleave(const float* weights, int64_t row, int outputs, float* to) {
    for (int64_t i = 0; i < row; ++i) {
        for (int o = 0; o < tile_outputs; ++o) *to++ = o < outputs ? weights[o * row + i] : 0.0f;
    }
}

}  // namespace

bool ConvolutionLine3::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int ConvolutionLine3::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    if (!ready_for(bottom) || params.pad_h < 0 || params.pad_w < 0) return -100;
    Mat bordered;
    copy_make_border(bottom, bordered, params.pad_h, params.pad_h, params.pad_w, params.pad_w, 0,
                     0.0f, opt.workspace_allocator, 1);
    if (bordered.empty() || !make_top(bottom, params.num_output, 1, top, opt)) return -100;

    const int64_t row = int64_t{bottom.shape.c} * taps;
    const Mat weights = extended_with_zeros(kernel_weights(), params.num_output * row);
    Mat tile(TensorShape(TensorShape::CHW, bottom.shape.c, taps, tile_outputs, 4),
             opt.workspace_allocator);
    if (weights.empty() || tile.empty()) return -100;

    const int w = top.shape.w, h = top.shape.h;
    const int64_t top_plane = int64_t{h} * w;
    Source source{nullptr, bottom.shape.c, int64_t{bordered.shape.h} * bordered.shape.w,
                  line == Line::Right ? 1 : bordered.shape.w};
    const int64_t total = bordered.shape.total();
    const int64_t reach = (source.channels - 1) * source.plane + (taps - 1) * source.step;
    const ReadableFloats biases = bias();
    for (int p = 0; p < params.num_output; p += tile_outputs) {
        const int outputs = std::min(tile_outputs, params.num_output - p);
        interleave(weights.ptr<float>() + p * row, row, outputs, tile.ptr<float>());
        const float bias[tile_outputs] = {biases[p], biases[p + 1], biases[p + 2], biases[p + 3]};
        for (int64_t y = 0; y < h; ++y) {
            const int64_t start = y * bordered.shape.w;
            float* out = top.ptr<float>() + p * top_plane + y * w;
            const bool inside = w >= tile_columns && start + w - 1 + reach < total;
            for (int64_t x = 0; x < w;) {
                if (!inside) {
                    float column[tile_outputs];
                    source.first = bordered.ptr<float>() + start + x;
                    compute_column(source, total - start - x, tile.ptr<float>(), bias, column);
                    for (int o = 0; o < outputs; ++o) out[o * top_plane + x] = column[o];
                    ++x;
                    continue;
                }
                // The last tile ends with the row: some columns are computed twice, to the same.
                x = std::min<int64_t>(x, w - tile_columns);
                float block[tile_outputs][tile_columns];
                source.first = bordered.ptr<float>() + start + x;
                compute_tile(source, tile.ptr<float>(), bias, block);
                for (int o = 0; o < outputs; ++o) {
                    std::copy(block[o], block[o] + tile_columns, out + o * top_plane + x);
                }
                x += tile_columns;
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
