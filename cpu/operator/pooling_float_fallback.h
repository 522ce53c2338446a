#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// Maximum or average over windows.
///
/// Parameters: 0 `pooling_type` (0): 0 maximum, 1 average; 1 `kernel_w` (0), 2 `kernel_h`
/// (`kernel_w`), 3 `stride_w` (0), 4 `stride_h` (`stride_w`), 5 `pad_left` (0), 6 `pad_right`
/// (`pad_left`), 7 `pad_top` (0), 8 `pad_bottom` (`pad_top`), 9 `global_pooling` (0), 10 `pad_mode`
/// (2): 0 pads on until the last window is full, 1 pads as told, 2 pads to keep the size (divided
/// by the stride), any other value does not pad.
///
/// top[c][(h - kernel_h) / stride_h + 1][(w - kernel_w) / stride_w + 1] of the padded h and w; with
/// `global_pooling` one row of c values, in the plain heap. The border counts as 0 for both kinds,
/// so a maximum over negative values is 0 at a padded edge. The rows and columns of an average at
/// the edges are corrected for their padding, from the parameters as they were given.
class Pooling_Float_Fallback : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Pooling_Float_Fallback"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    /// What is padded behind `pad_right` and `pad_bottom` to fill the last windows.
    struct Tail {
        int64_t columns = 0;
        int64_t rows = 0;
    };

    int forward_global(const Mat& bottom, Mat& top) const;
    Tail tail_of(const TensorShape& bottom) const;
    int make_padded(const Mat& bottom, Tail tail, Mat& padded, const Option& opt) const;
    void correct_edges(float* plane, int outw, int outh, Tail tail) const;

    int pooling_type = 0;
    int kernel_w = 0;
    int kernel_h = 0;
    int stride_w = 0;
    int stride_h = 0;
    int pad_left = 0;
    int pad_right = 0;
    int pad_top = 0;
    int pad_bottom = 0;
    int global_pooling = 0;
    int pad_mode = 2;
};

}  // namespace TarnoCPU
