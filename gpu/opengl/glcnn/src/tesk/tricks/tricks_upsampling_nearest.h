// Enlarging by repeating pixels.
#pragma once

#include <memory>
#include <string>

#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

namespace tesk {

/// For records of ZQLayerInfo_Upsampling with mode 0: one invocation for each input pixel, which it
/// stores 4 by 4 times when the scale is 4, 2 by 2 times with any other scale. Where the shapes
/// say four times the width at the same height, a program of the catalogue repeats along x alone.
class TESK_TESTED Tricks_UpSampling_Nearest : public Tricks {
public:
    explicit Tricks_UpSampling_Nearest(tesk::ComputeProgramManager* manager) : Tricks(manager) {}
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;

    virtual std::string generateSource(TricksParams& params, float scale);
    virtual std::string programName(TricksParams& params, const char* prefix, float scale, int x,
                                    int y, int z);

private:
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
};

}  // namespace tesk
