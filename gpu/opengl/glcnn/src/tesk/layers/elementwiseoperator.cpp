#include "elementwiseoperator.h"

#include "../tricks/tricks_elementwise_operator.h"
#include "crossplatform/src/common/src/zqlayerinfo.h"
#include "platform/assertion.h"

namespace tesk {

void ElementWiseOperator::setup(ZQLayerInfo* record) {
    if (!take(record)) return;
    operationCode = static_cast<const ZQLayerInfo_ElementWiseOperator&>(*record).operator_type;
    if (operationCode == 0) {
        use<Tricks_ElementWise_Add>(record);
    } else if (operationCode == 2) {
        use<Tricks_ElementWise_Mul>(record);
    } else {
        refuse("an operation of type 0 (sum) or 2 (product)", operationCode);
    }
}

void ElementWiseOperator::forward(Images& inputs, Images& outputs) {
    const bool counted = inputs.size() == outputs.size() * 2 || inputs.size() == outputs.size() * 3;
    TN_ASSERT(inputs.size() == outputs.size() * 2 || inputs.size() == outputs.size() * 3);
    if (!counted || outputs.empty()) return;
    if (tricks != nullptr) tricks->compute(inputs, outputs[0].get());
    for (const std::shared_ptr<tesk::Image>& input : inputs) input->subReadCount();
}

}  // namespace tesk
