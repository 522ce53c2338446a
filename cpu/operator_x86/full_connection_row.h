// What the dense kernels whose outputs make a row share.
#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// top[1][1][num_output] from all num_input elements of the bottom, whatever its three sizes are;
/// the reference makes channels instead. Weights as they stand in the model, weight[output][input].
///
/// Parameters: 0 `num_output` (0), 1 `num_input` (0), 9 `bias_term` (0), 10 `weight_data_size` (0).
class FullConnectionRow : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    /// `CHW` with exactly num_input elements.
    bool check_forward(const TensorShape& shape) override;

protected:
    /// {bottom's layout, 1, 1, num_output, bottom's elem_size and frac_bits} from
    /// `opt.blob_allocator`. False when it is empty, or when `load` failed.
    bool make_top(const Mat& bottom, Mat& top, const Option& opt) const;
    /// top[p] += bias[p], when there is one.
    void add_bias(Mat& top) const;

    /// `load` completes them with zeros to num_output * num_input.
    const float* weights() const { return weight_data.ptr<float>(); }

    int num_output = 0;
    int num_input = 0;

private:
    int bias_term = 0;
    Mat weight_data;
    Mat bias_data;
    bool loaded = false;
};

}  // namespace TarnoCPU
