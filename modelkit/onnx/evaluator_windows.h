// Windows of convolutions and poolings that slide over one or two axes. Part of the evaluator.
#pragma once

#include <array>
#include <cstdint>

#include "modelkit/onnx/evaluator_call.h"

namespace modelkit::onnx::evaluation {

/// The largest size, kernel, stride, padding or dilation, so that none of their sums overflow.
constexpr int64_t MOST_PIXELS = int64_t(1) << 40;

/// How windows lie along one axis: output position o, tap k reads the input at
/// o * stride - pad_begin + k * dilation.
struct WindowAxis {
    int64_t in = 1;
    int64_t kernel = 1;
    int64_t stride = 1;
    int64_t dilation = 1;
    int64_t pad_begin = 0;
    int64_t pad_end = 0;
    int64_t out = 1;

    /// From a window's first tap to its last, both counted.
    int64_t extent() const { return (kernel - 1) * dilation + 1; }
    int64_t first(int64_t o) const { return o * stride - pad_begin; }
};

/// Rows, then columns. A tensor with one spatial axis has one row.
using Windows = std::array<WindowAxis, 2>;

/// The taps of the windows by the attributes `kernel_shape` (or `kernel`, a weight's spatial
/// dimensions, where it is not empty), `strides` and `dilations`, over `spatial`, one or two sizes.
/// Padding and output sizes are still to be set.
Windows taps(const Call& call, const Dims& spatial, const Dims& kernel);

/// Padding and output sizes by `auto_pad`, `pads` and, where `may_ceil`, `ceil_mode`.
void place_windows(const Call& call, Windows& windows, size_t axes, bool may_ceil);

/// The explicit paddings of the attribute `pads`.
void read_pads(const Call& call, Windows& windows, size_t axes);

/// Sizes of a tensor with batch, channels and one or two spatial axes.
struct Planes {
    int64_t batch = 0;
    int64_t channels = 0;
    Dims spatial;
};
Planes planes(const Call& call, const Tensor& tensor);

/// The output's dimensions.
Dims dims_of(int64_t batch, int64_t channels, const Windows& windows, size_t axes);

}  // namespace modelkit::onnx::evaluation
