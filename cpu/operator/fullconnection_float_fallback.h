#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// Dense layer on the channels of a tensor of one row and one column:
/// top[p] = bias[p] + sum of weight[p][i] * bottom[i], the bias first, then i ascending.
///
/// top[num_output][1][1]: channels, where the other dense operators make a row. A bottom of several
/// rows or columns is not refused: as many elements as it has channels are read from its start.
///
/// Parameters: 0 `num_output` (0), 1 `num_input` (0, not looked at), 9 `bias_term` (0),
/// 10 `weight_data_size` (0).
class FullConnection_Float_Fallback : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "FullConnection_Float_Fallback"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    int num_output = 0;
    int num_input = 0;
    int bias_term = 0;
    int weight_data_size = 0;
    Mat weight_data;
    Mat bias_data;
    bool loaded = false;
};

}  // namespace TarnoCPU
