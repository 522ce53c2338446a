#include "cpu/operator_registry.h"

#include <cstring>

#include "cpu/operator_creators.h"

namespace TarnoCPU {
namespace {

const OperatorInfo rows[] = {
#define TN_OPERATOR(name, layer, base, isa, layout_in, layout_out, kernel_h, kernel_w, stride, \
                    output_multiple, input_multiple, height_multiple, width_multiple, bias)    \
    {#name,                                                                                    \
     &name##_operator_creator,                                                                 \
     #layer,                                                                                   \
     OperatorInfo::Base::base,                                                                 \
     OperatorInfo::InstructionSet::isa,                                                        \
     OperatorInfo::Layout::layout_in,                                                          \
     OperatorInfo::Layout::layout_out,                                                         \
     kernel_h,                                                                                 \
     kernel_w,                                                                                 \
     stride,                                                                                   \
     output_multiple,                                                                          \
     input_multiple,                                                                           \
     height_multiple,                                                                          \
     width_multiple,                                                                           \
     OperatorInfo::Bias::bias},
#include "cpu/operators.def"
};

}  // namespace

const OperatorInfo* operator_list(size_t* count) {
    *count = sizeof(rows) / sizeof(rows[0]);
    return rows;
}

const OperatorInfo* find_operator(const char* name) {
    if (name == nullptr) return nullptr;
    for (const OperatorInfo& row : rows) {
        if (std::strcmp(row.name, name) == 0) return &row;
    }
    return nullptr;
}

const OperatorInfo* find_operator(OperatorCreator creator) {
    if (creator == nullptr) return nullptr;
    for (const OperatorInfo& row : rows) {
        if (row.creator == creator) return &row;
    }
    return nullptr;
}

}  // namespace TarnoCPU
