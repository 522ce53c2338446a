// Sums of two tensors with several slices or pixels for each invocation. Bound to nothing so far:
// the operators choose Tricks_ElementWise_Add.
#pragma once

#include "tricks_elementwise_operator.h"

namespace tesk {

/// Base of the three. Two inputs; the activation is ReLU or none. A tensor of up to four channels
/// is one slice in a plain texture, of which the forms with two slices make the first.
class TESK_TESTED Tricks_ElementWise_Add_Points : public Tricks_ElementWise_Operator {
public:
    /// The operation is the sum, whatever `operation` says; `inputCount` has no effect.
    std::string generateSource(TricksParams& params, int operation, int inputCount) override;
    std::string programName(TricksParams& params, const char* prefix, int inputCount, int x, int y,
                            int z) override;

protected:
    Tricks_ElementWise_Add_Points(tesk::ComputeProgramManager* manager, int pixelsPerInvocation,
                                  int slicesPerInvocation)
        : Tricks_ElementWise_Operator(manager, "ElementWise_Add", pixelsPerInvocation,
                                      slicesPerInvocation) {}
    bool takesInputs(int count) const override { return count == 2; }
};

class TESK_TESTED Tricks_ElementWise_Add_1Points_2Slice : public Tricks_ElementWise_Add_Points {
public:
    explicit Tricks_ElementWise_Add_1Points_2Slice(tesk::ComputeProgramManager* manager)
        : Tricks_ElementWise_Add_Points(manager, 1, 2) {}
};

class TESK_TESTED Tricks_ElementWise_Add_4Points_1Slice : public Tricks_ElementWise_Add_Points {
public:
    explicit Tricks_ElementWise_Add_4Points_1Slice(tesk::ComputeProgramManager* manager)
        : Tricks_ElementWise_Add_Points(manager, 2, 1) {}
};

class TESK_TESTED Tricks_ElementWise_Add_4Points_2Slice : public Tricks_ElementWise_Add_Points {
public:
    explicit Tricks_ElementWise_Add_4Points_2Slice(tesk::ComputeProgramManager* manager)
        : Tricks_ElementWise_Add_Points(manager, 2, 2) {}
};

}  // namespace tesk
