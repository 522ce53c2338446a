#pragma once

#include "cpu/layer.h"

namespace TarnoCPU {

/// Output decoder of a detection network, in place on floats. The channels of a cell are, for each
/// of `num` anchors, `coords` box values, one score, `classes` class values: box values 0 and 1 and
/// the score go through the logistic function, the class values through a softmax without a maximum
/// subtracted.
///
/// Entry k of an anchor lies k * stride floats behind its first entry, with the stride w * h
/// rounded up to a multiple of 4: 124 for the 11 x 11 grid that every model has. Tensors without
/// that padding are walked all the same; what lies behind their end reads as 0 and is not written.
class Region : public Layer {
public:
    int num = 0;
    int coords = 0;
    int classes = 0;
    int w = 0;
    int h = 0;

    using Layer::forward_inplace;
    int forward_inplace(Mat& bottom_top, const Option& opt) override;
    std::string operator_name() override { return "nullptr"; }
};

}  // namespace TarnoCPU
