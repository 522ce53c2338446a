// Dropping the batch dimension.
#pragma once

#include <memory>
#include <string>

#include "group_counts.h"
#include "tricks.h"

namespace tesk {

/// For records of ZQLayerInfo_TensorSqueeze: a copy of a tensor of up to four channels into an
/// image of another declared shape. Fails the assertions "squeeze_dim == 0" and "inchannels <= 4",
/// and stays without a program, on others.
class TESK_TESTED Tricks_TensorSqueeze : public Tricks {
public:
    explicit Tricks_TensorSqueeze(tesk::ComputeProgramManager* manager) : Tricks(manager) {}
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;
    void print() override;

    virtual std::string generateSource();

private:
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
};

}  // namespace tesk
