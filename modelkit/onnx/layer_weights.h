// Weights of ONNX operators in the order of the engine's layers, a row at a time and without a
// copy.
#pragma once

#include <cstddef>

#include "modelkit/onnx/emitter.h"
#include "modelkit/onnx/graph.h"

namespace modelkit::onnx {

/// The kernels of a Conv or a ConvTranspose. Must not outlive the tensor.
struct KernelWeights {
    const Tensor* tensor = nullptr;
    size_t outputs = 0;
    size_t inputs = 0;
    size_t groups = 1;
    bool inputs_first = false;  ///< as ConvTranspose has them: [in][out of a group][y][x]
    size_t kernel_h = 1;
    size_t kernel_w = 1;
    size_t zeros_y = 0;  ///< rows of zeros ahead of each kernel
    size_t zeros_x = 0;
    bool turned = false;  ///< kernels by half a turn

    /// Rows `[out][y][x]` of all inputs, with zeros for those of other groups.
    WeightRows by_output() const;
    /// Rows `[y][x]` of all outputs, for one input in each group.
    WeightRows by_tap() const;
    /// A row for each output, of `[y][x]`, for one input in each group.
    WeightRows by_channel() const;

private:
    size_t taps() const { return kernel_h * kernel_w; }
    size_t wide_taps() const { return (kernel_h + zeros_y) * (kernel_w + zeros_x); }
    /// Which of the tensor's taps lies at one of the layer's; false where there are zeros.
    bool find_tap(size_t place, size_t& tap) const;
};

/// The second factor of a matrix product.
struct MatrixWeights {
    const Tensor* tensor = nullptr;
    size_t outputs = 0;
    size_t inputs = 0;
    bool outputs_first = false;  ///< [out][in], else [in][out]
    double factor = 1.0;

    /// The numbers of one output for `count` inputs: `first`, `first + step` and so on.
    void of_output(size_t output, size_t first, size_t step, size_t count, float* to) const;
    /// The numbers of one input for all outputs.
    void of_input(size_t input, float* to) const;

private:
    void scale(size_t count, float* to) const;
};

}  // namespace modelkit::onnx
