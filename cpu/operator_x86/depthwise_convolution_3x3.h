// 3x3 depthwise convolutions: the frame of the family.
//
//   top[g][y][x] = sum over ky, kx of bordered[g][y * stride + ky][x * stride + kx] * w[g][ky][kx]
//                  + bias[g]
//
// A plane is one channel, or one block of four channels side by side. Its nine weights stay in
// registers while a tile of outputs walks over it; every output is written once, with its bias.
#pragma once

#include <cstdint>

#include "cpu/operator_x86/direct_convolution.h"

namespace TarnoCPU {

/// One plane for a kernel. A pixel is `unit` floats: 1 in `CHW`, 4 in `C4HW4`.
struct DepthwisePlane {
    const float* in;
    int64_t in_row;        ///< floats of a row of `in`
    const float* weights;  ///< [tap][unit]
    const float* bias;     ///< [unit], -0 without a bias: adding it changes nothing
    float* out;
    int64_t rows;
    int64_t row;  ///< floats of a row of `out`
};

/// How a member walks over a plane.
struct DepthwiseBlocking {
    int unit;
    int stride;
    int rows;      ///< of top in one step
    int columns;   ///< pixels of top in one step
    int block;     ///< columns that are done in all rows before the next ones, 0 for all
    int overread;  ///< floats that the last step reads behind its last tap
    void (*kernel)(DepthwisePlane plane);
};

class DepthwiseConvolution3x3 : public DirectConvolution {
public:
    bool check_forward(const TensorShape& shape) override;

protected:
    explicit DepthwiseConvolution3x3(TensorShape::Layout layout);

    /// The run behind the check. 0 or -100.
    int convolve(const Mat& bottom, Mat& top, const Option& opt,
                 const DepthwiseBlocking& blocking) const;

private:
    int make_bordered(const Mat& bottom, Mat& bordered, const Option& opt) const;

    TensorShape::Layout layout;
};

/// On planes of one channel.
class DepthwiseConvolution3x3_CHW : public DepthwiseConvolution3x3 {
protected:
    DepthwiseConvolution3x3_CHW() : DepthwiseConvolution3x3(TensorShape::CHW) {}
};

/// On blocks of four channels. The border is one pixel all round, whatever the parameters say.
class DepthwiseConvolution3x3_C4HW4 : public DepthwiseConvolution3x3 {
protected:
    DepthwiseConvolution3x3_C4HW4() : DepthwiseConvolution3x3(TensorShape::C4HW4) {}
};

}  // namespace TarnoCPU
