// Bilinear resampling.
#pragma once

#include <memory>
#include <string>

#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

namespace tesk {

/// For records of ZQLayerInfo_Upsampling with a mode other than 0. Output column x reads the input
/// between two columns at (x + 0.5) * factor - 0.5, but not below 0, with factor = input width /
/// output width; with corners aligned at x * (input width - 1) / (output width - 1). An output one
/// pixel wide reads column 0. Rows likewise. The factors are those of the shapes: the record's
/// scale is stored only.
class TESK_TESTED Tricks_UpSampling : public Tricks {
public:
    explicit Tricks_UpSampling(tesk::ComputeProgramManager* manager) : Tricks(manager) {}
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;

    /// `align` above 0 aligns the corners.
    virtual std::string generateSource(TricksParams& params, int align);
    virtual std::string programName(TricksParams& params, const char* prefix, int align, int x,
                                    int y, int z);

private:
    float scale = 0.0f;
    float _width_scale_factor = 0.0f;
    float _height_scale_factor = 0.0f;
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
};

}  // namespace tesk
