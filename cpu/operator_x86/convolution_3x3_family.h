// The hand-blocked direct 3x3 convolutions: the family behind Convolution_3x3s1_Float_SSE_* and
// Convolution_3x3s2_Float_SSE_*.
//
//   top[p][y][x] = bias[p] + sum over q, ky and kx of
//                  bordered[q][y * stride + ky][x * stride + kx] * weights[p][q][ky][kx]
//
// A class names its blocking, which is a row of one of the kernel headers, one for each scheme of
// lanes, and checks its bottom. The sums lie in top in memory: each input channel, or each four of
// them, reads a tile, adds to it and writes it back.
#pragma once

#include "cpu/operator/kernel_support.h"
#include "cpu/operator_x86/convolution_3x3_blocking.h"
#include "cpu/operator_x86/direct_convolution.h"

namespace TarnoCPU {

class Convolution3x3 : public DirectConvolution {
protected:
    explicit Convolution3x3(const Convolution3x3Blocking& blocking);

    bool outputs_in_fours() const { return params.num_output % 4 == 0; }
    static bool is_even(const TensorShape& shape) { return shape.h % 2 == 0 && shape.w % 2 == 0; }

    /// The run behind the check. 0 or -100.
    ///
    /// The border is from `opt.workspace_allocator`, and so is the scratch of the members with
    /// input channels in the lanes, which holds whole blocks of four channels: those behind the
    /// last one take no part, and with fewer than four there is no scratch, which gives -100.
    /// Without bias numbers the sums start from 0.
    int convolve(const Mat& bottom, Mat& top, const Option& opt) const;

private:
    bool blocks() const { return blocking.weights == Convolution3x3Weights::N4C4HW44; }
    Mat make_bordered(const Mat& bottom, const Option& opt) const;
    TensorShape top_shape(const TensorShape& bottom) const;
    void fill_with_bias(int64_t output, Mat& top) const;

    const Convolution3x3Blocking blocking;
};

}  // namespace TarnoCPU
