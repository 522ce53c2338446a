// Decoding of a detection head.
#pragma once

#include <memory>
#include <string>

#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

namespace tesk {

/// For records of ZQLayerInfo_Region, whose numbers are anchors, coordinates and classes. A pixel
/// holds for each anchor its coordinates, one score, its class values. Values 0, 1 and 4 of an
/// anchor go through the logistic function, the class values through a softmax. The S slices of
/// pixel (x, y) are stored side by side in a plain texture, at columns S * x to S * x + S - 1 of
/// row y.
///
/// The input is one work group: a shape of more pixels than a group may have invocations does not
/// link.
class TESK_TESTED Tricks_Region2D : public Tricks {
public:
    explicit Tricks_Region2D(tesk::ComputeProgramManager* manager) : Tricks(manager) {}
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;
    void print() override;

    /// The local size of `params` is the input's width and height. `slices` are those of a pixel.
    virtual std::string generateSource(TricksParams& params, int slices);
    virtual std::string programName(int width, int height, int slices, int anchors, int classes,
                                    int coords);

private:
    int classCount = 0;
    int coordCount = 0;
    int anchorCount = 0;
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
};

}  // namespace tesk
