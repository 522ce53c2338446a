// Convolutions with three taps in a line, at stride 1.
#pragma once

#include "cpu/operator_x86/direct_convolution.h"

namespace TarnoCPU {

/// top[p][y][x] = bias[p] + sum over q and k of bordered[q][y + k * down][x + k * right] *
/// w[p][q][k]
///
/// `top` has bottom's height and width whatever the padding is, as the matrix forms of these
/// kernels have it: with the padding that keeps the size (1 along the line, 0 across) this is the
/// convolution; with less, a tap beyond a row is in the next row, one beyond a channel in the next
/// channel, and one beyond the block is 0. Any size.
class ConvolutionLine3 : public DirectConvolution {
public:
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

protected:
    enum class Line { Down, Right };
    explicit ConvolutionLine3(Line line) : DirectConvolution(nullptr), line(line) {}

private:
    const Line line;
};

}  // namespace TarnoCPU
