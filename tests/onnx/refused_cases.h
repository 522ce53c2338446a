// The cases of the reference folder that the converter refuses.
#pragma once

#include <map>
#include <string>

namespace onnx_reference {

// What no layers give, and a part of the reason. Everything else in the folder has to convert.
inline const std::map<std::string, std::string> REFUSED_CASES = {
    {"average_pool_ceil_with_padding", "has no one meaning"},
    {"conv_batch_of_2", "a batch of 1 expected"},
    {"div", "the engines have no quotient"},
    {"div_of_channels", "the engines have no quotient"},
    {"elu", "(Elu): the operator is not supported"},
    {"exp", "(Exp): the operator is not supported"},
    {"gemm_column_c", "a bias of 4 numbers expected, found [3, 1]"},
    {"gemm_transposed_input", "the engines do not transpose"},
    {"instance_normalization", "(InstanceNormalization): the operator is not supported"},
    {"log", "(Log): the operator is not supported"},
    {"lstm_batch_first", "a batch of 1 expected"},
    {"lstm_batch_of_2", "a batch of 1 expected"},
    {"lstm_initial_state", "an initial state of zeros expected"},
    {"lstm_sequence_lengths", "a batch of 1 expected"},
    {"lstm_states_out", "an initial state of zeros expected"},
    {"matmul_batches", "a batch of 1 expected"},
    {"matmul_of_inputs", "the second factor expected to be constant"},
    {"max", "(Max): the operator is not supported"},
    {"max_pool_dilated", "dilations of 1 expected"},
    {"min", "(Min): the operator is not supported"},
    {"resize_linear_sizes", "a whole factor expected, found 3 to 5 pixels"},
    {"resize_linear_sizes_corners", "a whole factor expected, found 3 to 5 pixels"},
    {"slice_10", "steps forward expected"},
    {"slice_13", "steps forward expected"},
    {"softmax_channels_13", "the engine has none along the channels of 3x4x5"},
    {"softmax_last_11", "the engine has none along the channels of 3x4x5"},
    {"sqrt", "(Sqrt): the operator is not supported"},
    {"transpose", "a permutation that leaves pixels where they are"},
};

}  // namespace onnx_reference
