// Sum and product of two or three tensors of one shape.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

class ZQLayerInfo_ElementWiseOperator;

namespace tesk {

/// Base of the element-wise generators, for records of ZQLayerInfo_ElementWiseOperator. Two inputs,
/// or three of a sum: the source for three of any other operation has no value to store and does
/// not compile, which the log tells. Activations are ReLU and ReLU6, all others pass the value on.
class TESK_TESTED Tricks_ElementWise_Operator : public Tricks {
public:
    /// Operation codes of the source. Models use 0 and 2.
    enum Operation { Sum = 0, Difference = 1, Product = 2, Quotient = 3 };

    void setup(ZQLayerInfo* record) override;
    /// Another number of inputs than that of the record does nothing.
    void compute(std::vector<std::shared_ptr<tesk::Image>>& inputs, tesk::Image* output) override;
    using Tricks::compute;
    void print() override;

    virtual std::string generateSource(TricksParams& params, int operation, int inputCount);
    virtual std::string programName(TricksParams& params, const char* prefix, int inputCount, int x,
                                    int y, int z);

protected:
    /// An invocation makes `pixelsPerInvocation` pixels along each side of `slicesPerInvocation`
    /// slices.
    Tricks_ElementWise_Operator(tesk::ComputeProgramManager* manager, const char* prefix,
                                int pixelsPerInvocation = 1, int slicesPerInvocation = 1)
        : Tricks(manager),
          prefix(prefix),
          pixelsPerInvocation(pixelsPerInvocation),
          slicesPerInvocation(slicesPerInvocation) {}

    /// Whether the generator can run so many inputs.
    virtual bool takesInputs(int count) const { return count == 2 || count == 3; }

    const char* const prefix;
    const int pixelsPerInvocation;  ///< along each side
    const int slicesPerInvocation;
    int inputCount = 0;
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
};

class TESK_TESTED Tricks_ElementWise_Add : public Tricks_ElementWise_Operator {
public:
    explicit Tricks_ElementWise_Add(tesk::ComputeProgramManager* manager)
        : Tricks_ElementWise_Operator(manager, "Add") {}
};

class TESK_TESTED Tricks_ElementWise_Mul : public Tricks_ElementWise_Operator {
public:
    explicit Tricks_ElementWise_Mul(tesk::ComputeProgramManager* manager)
        : Tricks_ElementWise_Operator(manager, "Mul") {}
};

}  // namespace tesk
