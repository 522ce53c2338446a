// Fully connected layer, with programs of the catalogue.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "../glutil/buffer.h"
#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

namespace tesk {

/// For records of ZQLayerInfo_FullConnection, on tensors of one pixel. Up to four inputs are
/// refused:
///
///   out[o] = bias[o] + sum over i of weights[o][i] * in[i]
///
/// Weights are packed without a look at where their rows end: they come out right only where the
/// inputs fill their slices, or there is one output. Without bias numbers the sums start from 0.
class TESK_TESTED Tricks_FullConnection : public Tricks {
public:
    explicit Tricks_FullConnection(tesk::ComputeProgramManager* manager) : Tricks(manager) {}
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;

    /// A name that no program is kept under: the catalogue's programs serve all layers.
    virtual std::string programName(TricksParams& params, const char* prefix, int x, int y, int z);

private:
    uint16_t inputChannels = 0;
    uint16_t outputChannels = 0;
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
    tesk::Buffer weights;
    tesk::Buffer bias;
};

}  // namespace tesk
