// An activation that is a layer of its own.
#pragma once

#include <memory>
#include <string>

#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

namespace tesk {

/// For records of ZQLayerInfo_Activation: ReLU (2), the logistic function (4), ReLU6 (8), and a
/// clamp to 0 .. 8 (9), a code that exists here only. Any other code is logged, and its source has
/// no value to store and does not compile.
class TESK_TESTED Tricks_Activation : public Tricks {
public:
    explicit Tricks_Activation(tesk::ComputeProgramManager* manager) : Tricks(manager) {}
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;
    void print() override;

    virtual std::string generateSource(TricksParams& params);
    virtual std::string programName(TricksParams& params, const char* prefix, int x, int y, int z);

private:
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
};

}  // namespace tesk
