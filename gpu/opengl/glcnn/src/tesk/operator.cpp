#include "operator.h"

#include "crossplatform/src/common/src/zqlayerinfo.h"
#include "operator_rows.h"
#include "platform/assertion.h"

namespace tesk {

Operator::~Operator() = default;

void Operator::setup(ZQLayerInfo*) {}

void Operator::print() {}

void Operator::forward(Images&, Images&) {}

bool Operator::takes(const ZQLayerInfo& record) const {
    const OperatorRow* row = operatorRow(typeCode);
    return row != nullptr && row->recordType == record.type;
}

bool Operator::take(const ZQLayerInfo* record) {
    tricks.reset();
    setUp = false;
    if (record == nullptr) {
        Tarno::_LogError("Tarno", "operator of type %d: expected a layer, found none", typeCode);
        return false;
    }
    layerId = record->id;
    if (!takes(*record)) {
        const OperatorRow* row = operatorRow(typeCode);
        Tarno::_LogError("Tarno", "layer %d (%s): expected %s, found another", layerId,
                         zq_layer_type_name(record->type),
                         row != nullptr ? zq_layer_type_name(row->recordType) : "no layer");
        return false;
    }
    setUp = true;
    return true;
}

void Operator::refuse(const char* expected, int found) {
    setUp = false;
    Tarno::_LogError("Tarno", "layer %d (%s): expected %s, found %d", layerId,
                     zq_layer_type_name(operatorRow(typeCode)->recordType), expected, found);
}

void Operator::reportLackingProgram() const {
    if (!tricks->lacksProgram()) return;
    Tarno::_LogError("Tarno", "layer %d (%s): expected a program that links, found none", layerId,
                     zq_layer_type_name(operatorRow(typeCode)->recordType));
}

void Operator::forwardOneToOne(Images& inputs, Images& outputs) {
    const bool pairs = inputs.size() == outputs.size();
    TN_ASSERT(inputs.size() == outputs.size());
    if (!pairs) return;
    for (size_t i = 0; i < inputs.size(); ++i) {
        if (tricks != nullptr) tricks->compute(inputs[i].get(), outputs[i].get());
        inputs[i]->subReadCount();
    }
}

void Operator::forwardFirst(Images& inputs, Images& outputs) {
    if (inputs.empty() || outputs.empty()) return;
    if (tricks != nullptr) tricks->compute(inputs[0].get(), outputs[0].get());
    inputs[0]->subReadCount();
}

}  // namespace tesk
