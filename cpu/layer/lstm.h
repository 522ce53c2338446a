#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Long short-term memory over the channels of its bottom. The recurrent state lives in the
/// operator, which the net lists to be able to reset it.
class LSTM : public SISOLayer {
public:
    Operator* get_operator() override { return op.get(); }
};

}  // namespace TarnoCPU
