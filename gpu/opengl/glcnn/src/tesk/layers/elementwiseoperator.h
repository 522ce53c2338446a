// Sum and product of two or three tensors.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED ElementWiseOperator : public Operator {
public:
    explicit ElementWiseOperator(tesk::ComputeProgramManager* manager) : Operator(18, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override;
    /// The record's code: 0 sum, 2 product.
    int operation() const { return operationCode; }

private:
    int operationCode = 0;
};

}  // namespace tesk
