#include "cpu/operator/tap_scatter.h"

#include <algorithm>

#include "cpu/operator/small_array.h"
#include "cpu/operator/window_rows.h"

namespace TarnoCPU {
namespace {

// A column of taps, and the number of the first output of its phase that it reaches.
struct ColumnTap {
    int64_t kx;
    int64_t shift;
};

// A row of taps that reaches the outputs of one row from row `y` of the bottom.
struct TapRow {
    int64_t ky;
    int64_t y;
};

struct Scatter {
    const ConvolutionData& data;
    const float* bottom;
    const float* weights;
    float* out;
    int64_t channels;      // of one group of the bottom
    int64_t outputs;       // of one group of the output
    int64_t h, w;          // of the bottom
    int64_t out_h, out_w;  // before the cut

    const float* planes_of(int64_t p) const { return bottom + p / outputs * channels * h * w; }
    const float* weights_of(int64_t p) const {
        return weights + p * channels * data.params.kernel_taps();
    }
    float* plane_of(int64_t p) const { return out + p * out_h * out_w; }

    bool stays_in_its_row() const;
    bool scatter() const;
    bool gather() const;
    void sort_by_phase(SmallArray<ColumnTap, TapOffsets::inline_taps>& columns,
                       SmallArray<int64_t, TapOffsets::inline_taps>& ends, int64_t phases) const;
    int64_t tap_rows_of(int64_t oy, SmallArray<TapRow, TapOffsets::inline_taps>& tap_rows) const;
};

// Whether no contribution runs past the end of its row and no two taps meet in one place.
bool Scatter::stays_in_its_row() const {
    const ConvolutionParams& params = data.params;
    return (params.dilation_w > 0 || params.kernel_w == 1) &&
           (params.dilation_h > 0 || params.kernel_h == 1) &&
           params.kernel_extent_w() <= int64_t{params.stride_w} + 2;
}

// The definition, word for word.
bool Scatter::scatter() const {
    const ConvolutionParams& params = data.params;
    TapOffsets offsets;
    if (!offsets.build(params, out_w)) return false;
    const int64_t taps = offsets.count();
    const int64_t out_plane = out_h * out_w;
    for (int64_t p = 0; p < params.num_output; ++p) {
        const float* planes = planes_of(p);
        float* plane = plane_of(p);
        std::fill(plane, plane + out_plane, data.bias(p));
        for (int64_t y = 0; y < h; ++y) {
            for (int64_t x = 0; x < w; ++x) {
                const int64_t first = y * params.stride_h * out_w + x * params.stride_w;
                for (int64_t q = 0; q < channels; ++q) {
                    const float* weight = weights_of(p) + q * taps;
                    const float value = planes[(q * h + y) * w + x];
                    if (first + offsets.largest() < out_plane) {
                        float* target = plane + first;
                        for (int64_t k = 0; k < taps; ++k) target[offsets[k]] += value * weight[k];
                        continue;
                    }
                    for (int64_t k = 0; k < taps; ++k) {
                        // What lands behind the plane would lie in channels that are filled later.
                        const int64_t at = first + offsets[k];
                        if (at < out_plane) plane[at] += value * weight[k];
                    }
                }
            }
        }
    }
    return true;
}

// A tap that reaches the outputs of one row and one column phase.
struct RowTap {
    int64_t source;  // what output number 0 would read, from the start of a plane
    int64_t shift;   // number of the first output that it reaches
    int64_t k;       // its place in the kernel
};

// Neighbouring outputs of a phase. Each of them meets all the taps.
struct PhaseTile {
    const RowTap* row_taps;
    int64_t tap_count;
    const float* weights;
    int64_t taps;  // of the whole kernel
    int64_t channels;
    int64_t plane;
    float bias;
    int64_t out_step;

    // Not to be inlined: the compiler finds the vectors from the neighbouring stores at the end.
    template <int Columns>
    [[gnu::noinline]] void compute(const float* window, float* out) const {
        float sums[Columns];
        for (int i = 0; i < Columns; ++i) sums[i] = bias;
        for (int64_t t = 0; t < tap_count; ++t) {
            for (int64_t q = 0; q < channels; ++q) {
                const float* source = window + (q * plane + row_taps[t].source);
                const float weight = weights[q * taps + row_taps[t].k];
                for (int i = 0; i < Columns; ++i) sums[i] += source[i] * weight;
            }
        }
        for (int i = 0; i < Columns; ++i) out[i] = sums[i];
    }

    template <int Columns, int Stride>
    void run(const float* window, int64_t, float* out) const {
        float sums[Columns];
        compute<Columns>(window, sums);
        for (int i = 0; i < Columns; ++i) out[i * out_step] = sums[i];
    }
};

// One output near an edge, which not all taps reach.
float edge_output(const PhaseTile& tile, const float* planes, int64_t i, int64_t w) {
    float sum = tile.bias;
    for (int64_t t = 0; t < tile.tap_count; ++t) {
        const RowTap& tap = tile.row_taps[t];
        if (i < tap.shift || i >= tap.shift + w) continue;
        for (int64_t q = 0; q < tile.channels; ++q) {
            sum += planes[q * tile.plane + tap.source + i] * tile.weights[q * tile.taps + tap.k];
        }
    }
    return sum;
}

// The columns of the kernel by the phase that they reach, in each phase kx descending. A stride may
// be far larger than the kernel: the walk over phases then costs no look at the taps.
void Scatter::sort_by_phase(SmallArray<ColumnTap, TapOffsets::inline_taps>& columns,
                            SmallArray<int64_t, TapOffsets::inline_taps>& ends,
                            int64_t phases) const {
    const ConvolutionParams& params = data.params;
    const auto phase_of = [&](int64_t kx) { return kx * params.dilation_w % params.stride_w; };
    for (int64_t phase = 0; phase < phases; ++phase) ends[phase] = 0;
    for (int64_t kx = 0; kx < params.kernel_w; ++kx) {
        if (phase_of(kx) < phases) ++ends[phase_of(kx)];
    }
    int64_t start = 0;
    for (int64_t phase = 0; phase < phases; ++phase) {
        const int64_t count = ends[phase];
        ends[phase] = start;
        start += count;
    }
    for (int64_t kx = params.kernel_w - 1; kx >= 0; --kx) {
        const int64_t phase = phase_of(kx);
        if (phase >= phases) continue;
        columns[ends[phase]++] = {kx, kx * params.dilation_w / params.stride_w};
    }
}

// The rows of taps that reach output row `oy`, ky descending: from the first row of the bottom that
// does. Their number.
int64_t Scatter::tap_rows_of(int64_t oy,
                             SmallArray<TapRow, TapOffsets::inline_taps>& tap_rows) const {
    const ConvolutionParams& params = data.params;
    const int64_t below = oy - (params.kernel_extent_h() - 1);
    const int64_t first = below > 0 ? (below + params.stride_h - 1) / params.stride_h : 0;
    int64_t count = 0;
    for (int64_t y = first; y < h && y * params.stride_h <= oy; ++y) {
        const int64_t distance = oy - y * params.stride_h;
        // A kernel of one row has no use for its dilation.
        const int64_t step = params.kernel_h > 1 ? params.dilation_h : 1;
        if (distance % step != 0 || distance / step >= params.kernel_h) continue;
        tap_rows[count++] = {distance / step, y};
    }
    return count;
}

// The same from the side of the outputs. While every contribution stays in its row, the output in
// row oy and column ox meets the taps with ky * dilation_h = oy - y * stride_h, and the like for
// columns: y ascending is ky descending, x ascending is kx descending. The outputs of a row whose
// columns are equal modulo the stride, a phase, meet the same taps on neighbouring inputs.
bool Scatter::gather() const {
    const ConvolutionParams& params = data.params;
    const int64_t stride_w = params.stride_w;
    const int64_t phases = std::min(stride_w, out_w);
    SmallArray<RowTap, TapOffsets::inline_taps> row_taps;
    SmallArray<ColumnTap, TapOffsets::inline_taps> columns;
    SmallArray<int64_t, TapOffsets::inline_taps> column_ends;  // by phase, in `columns`
    SmallArray<TapRow, TapOffsets::inline_taps> tap_rows;
    if (!row_taps.resize(params.kernel_taps()) || !columns.resize(params.kernel_w) ||
        !column_ends.resize(phases) || !tap_rows.resize(params.kernel_h)) {
        return false;
    }
    sort_by_phase(columns, column_ends, phases);
    PhaseTile tile{row_taps.data(), 0,     nullptr, params.kernel_taps(),
                   channels,        h * w, 0.0f,    stride_w};
    for (int64_t oy = 0; oy < out_h; ++oy) {
        const int64_t row_count = tap_rows_of(oy, tap_rows);
        for (int64_t phase = 0; phase < phases; ++phase) {
            const int64_t count = (out_w - phase + stride_w - 1) / stride_w;
            int64_t reached_by_all = 0, reached_by_all_end = count;
            tile.tap_count = 0;
            for (int64_t r = 0; r < row_count; ++r) {
                for (int64_t c = phase > 0 ? column_ends[phase - 1] : 0; c < column_ends[phase];
                     ++c) {
                    const int64_t shift = columns[c].shift;
                    row_taps[tile.tap_count++] = {tap_rows[r].y * w - shift, shift,
                                                  tap_rows[r].ky * params.kernel_w + columns[c].kx};
                    reached_by_all = std::max(reached_by_all, shift);
                    reached_by_all_end = std::min(reached_by_all_end, shift + w);
                }
            }
            reached_by_all = std::min(reached_by_all, count);
            reached_by_all_end = std::max(reached_by_all_end, reached_by_all);

            for (int64_t p = 0; p < params.num_output; ++p) {
                const float* planes = planes_of(p);
                float* row = plane_of(p) + oy * out_w + phase;
                tile.weights = weights_of(p);
                tile.bias = data.bias(p);
                for (int64_t i = 0; i < reached_by_all; ++i) {
                    row[i * stride_w] = edge_output(tile, planes, i, w);
                }
                if (reached_by_all < reached_by_all_end) {
                    walk_window_row<1>(tile, planes + reached_by_all, 1,
                                       reached_by_all_end - reached_by_all,
                                       row + reached_by_all * stride_w, stride_w);
                }
                for (int64_t i = reached_by_all_end; i < count; ++i) {
                    row[i * stride_w] = edge_output(tile, planes, i, w);
                }
            }
        }
    }
    return true;
}

}  // namespace

int convolve_transposed(const ConvolutionData& data, int groups, const Mat& bottom, Mat& top) {
    const ConvolutionParams& params = data.params;
    const int64_t out_w = int64_t{params.stride_w} * bottom.shape.w + 2;
    const int64_t out_h = int64_t{params.stride_h} * bottom.shape.h + 2;
    if (out_w > INT_MAX || out_h > INT_MAX) return -100;
    const int64_t channels = bottom.shape.c / groups;
    const Mat weights = data.weights(params.num_output * channels);
    if (weights.empty()) return -100;

    // The blob allocator is not asked: the tops of these layers live in the plain heap.
    const TensorShape shape(bottom.shape.layout, params.num_output, static_cast<int>(out_h),
                            static_cast<int>(out_w), bottom.shape.elem_size);
    Mat uncut = top;
    if (uncut.shape != shape || uncut.allocator != nullptr || uncut.data == nullptr) {
        uncut.release();
        uncut.create(shape, nullptr);
    }
    if (uncut.empty()) return -100;

    const Scatter scatter{data,
                          bottom.ptr<float>(),
                          weights.ptr<float>(),
                          uncut.ptr<float>(),
                          channels,
                          params.num_output / groups,
                          bottom.shape.h,
                          bottom.shape.w,
                          out_h,
                          out_w};
    if (!(scatter.stays_in_its_row() ? scatter.gather() : scatter.scatter())) return -100;

    top = uncut;
    if (params.pad_w > 0 || params.pad_h > 0) {
        copy_cut_border(uncut, top, params.pad_h, params.pad_h, params.pad_w, params.pad_w, nullptr,
                        1);
    }
    return top.empty() ? -100 : 0;
}

}  // namespace TarnoCPU
