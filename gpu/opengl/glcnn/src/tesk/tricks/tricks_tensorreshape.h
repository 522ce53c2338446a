// Flattening of a tensor to one pixel.
#pragma once

#include <memory>

#include "../glutil/buffer.h"
#include "group_counts.h"
#include "tricks.h"

namespace tesk {

/// For records of ZQLayerInfo_TensorReshape: out[(c * H + y) * W + x][0][0] = in[c][y][x], with the
/// padding channels of the input's last slice behind its channels. Two programs of the catalogue
/// and a buffer of floats between them.
class TESK_TESTED Tricks_TensorReshape : public Tricks {
public:
    explicit Tricks_TensorReshape(tesk::ComputeProgramManager* manager) : Tricks(manager) {}
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;
    void print() override;

private:
    GroupCounts flattenGroups;
    GroupCounts storeGroups;
    std::shared_ptr<tesk::ComputeProgram> flattenProgram;
    std::shared_ptr<tesk::ComputeProgram> storeProgram;
    tesk::Buffer floats;
};

}  // namespace tesk
