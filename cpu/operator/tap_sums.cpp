#include "cpu/operator/tap_sums.h"

#include "cpu/operator/window_rows.h"

namespace TarnoCPU {
namespace {

struct SumTile {
    const int64_t* offsets;
    int64_t taps;
    int64_t channels;
    int64_t plane;
    const float* weights;
    float bias;

    template <int Columns, int Stride>
    void run(const float* window, int64_t stride, float* out) const {
        const int64_t step = Stride != 0 ? Stride : stride;
        float sums[Columns];
        for (int i = 0; i < Columns; ++i)
            sums[i] = bias;
        for (int64_t q = 0; q < channels; ++q) {
            const float* channel = window + q * plane;
            const float* weight = weights + q * taps;
            for (int64_t k = 0; k < taps; ++k) {
                const float* source = channel + offsets[k];
                const float w = weight[k];
                for (int i = 0; i < Columns; ++i)
                    sums[i] += source[i * step] * w;
            }
        }
        for (int i = 0; i < Columns; ++i)
            out[i] = sums[i];
    }
};

// One output whose windows may reach behind the end of the block.
float guarded_sum(const SumTile& tile, const float* data, int64_t window, int64_t total) {
    float sum = tile.bias;
    const float* weight = tile.weights;
    for (int64_t q = 0; q < tile.channels; ++q) {
        for (int64_t k = 0; k < tile.taps; ++k) {
            const int64_t at = window + tile.offsets[k];
            sum += (at < total ? data[at] : 0.0f) * weight[k];
        }
        window += tile.plane;
        weight += tile.taps;
    }
    return sum;
}

}  // namespace

int convolve(const ConvolutionData& data, int groups, const Mat& padded, Mat& top) {
    const ConvolutionParams& params = data.params;
    const int64_t channels = padded.shape.c / groups;
    const int64_t outputs = params.num_output / groups;
    const int64_t taps = params.kernel_taps();
    const Mat weights = data.weights(params.num_output * channels);
    TapOffsets offsets;
    if (weights.empty() || !offsets.build(params, padded.shape.w)) return -100;

    const int outw = top.shape.w, outh = top.shape.h;
    const int64_t row = padded.shape.w;
    const int64_t plane = row * padded.shape.h;
    const int64_t total = padded.shape.total();
    const float* source = padded.ptr<float>();
    float* out = top.ptr<float>();
    for (int64_t p = 0; p < params.num_output; ++p) {
        const SumTile tile{
            offsets.data(), taps, channels, plane, weights.ptr<float>() + p * channels * taps,
            data.bias(p)};
        const int64_t first_channel = p / outputs * channels;
        for (int y = 0; y < outh; ++y, out += outw) {
            const int64_t window = first_channel * plane + int64_t{y} * params.stride_h * row;
            const int64_t farthest = window + (channels - 1) * plane +
                                     int64_t{outw - 1} * params.stride_w + offsets.largest();
            if (farthest < total) {
                compute_window_row(tile, source + window, params.stride_w, outw, out);
                continue;
            }
            for (int x = 0; x < outw; ++x) {
                out[x] = guarded_sum(tile, source, window + int64_t{x} * params.stride_w, total);
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
