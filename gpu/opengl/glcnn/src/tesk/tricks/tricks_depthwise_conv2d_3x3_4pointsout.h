// Depthwise 3x3, 2 by 2 pixels of one slice for each invocation: one window of 4 by 4 texels is
// fetched for four pixels, in place of four windows of 3 by 3.
#pragma once

#include "tricks_depthwise_conv2d.h"

namespace tesk {

/// For strides of 1, 1: the four windows lie 1 apart.
class TESK_TESTED Tricks_Depthwise_conv2d_3x3_4PointsOut : public Tricks_Depthwise_Conv2d {
public:
    explicit Tricks_Depthwise_conv2d_3x3_4PointsOut(tesk::ComputeProgramManager* manager)
        : Tricks_Depthwise_Conv2d(manager, 3, 2) {}
    std::string generateSource(TricksParams& params) override;
    std::string programName(TricksParams& params, const char* prefix, int x, int y, int z) override;
    void print() override;
};

/// The same from half weights and half biases, for more than four channels. Bound to nothing so
/// far: `createOperator` never chooses it.
class TESK_TESTED Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2
    : public Tricks_Depthwise_conv2d_3x3_4PointsOut {
public:
    explicit Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2(
        tesk::ComputeProgramManager* manager)
        : Tricks_Depthwise_conv2d_3x3_4PointsOut(manager) {}
    /// A record of up to four channels is refused: there is no source for plain textures.
    void setup(ZQLayerInfo* record) override;
    std::string generateSource(TricksParams& params) override;

protected:
    void makeBuffers(const ZQLayerInfo_DepthWiseConv2D& record) override;
};

}  // namespace tesk
