#include "tricks_conv2d_1x1.h"

#include "platform/tn_core.h"

namespace tesk {

Tricks_Conv2d_1x1_Basic::Tricks_Conv2d_1x1_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_1x1.", 1, 1, false, false, false,
                             &ShaderFormat::conv2d_1x1_basic}) {}

Tricks_Conv2d_1x1_4PointsOut::Tricks_Conv2d_1x1_4PointsOut(tesk::ComputeProgramManager* manager)
    : Tricks_Conv2d_1x1_Points(manager, {"4PointsOut", "I am Tricks_Conv2d_1x1_4PointsOut.", 1,
                                         &ShaderFormat::conv2d_1x1_4PointsOut}) {}

Tricks_Conv2d_1x1_4Points_2Slice::Tricks_Conv2d_1x1_4Points_2Slice(
    tesk::ComputeProgramManager* manager)
    : Tricks_Conv2d_1x1_Points(manager,
                               {"4Points_2Slice", "I am Tricks_Conv2d_1x1_4Points_2Slice.", 2,
                                &ShaderFormat::conv2d_1x1_4Points_2Slice}) {}

Tricks_Conv2d_1x1_4Points_4Slice::Tricks_Conv2d_1x1_4Points_4Slice(
    tesk::ComputeProgramManager* manager)
    : Tricks_Conv2d_1x1_Points(manager,
                               {"4Points_4Slice", "I am Tricks_Conv2d_1x1_4Points_4Slice.", 4,
                                &ShaderFormat::conv2d_1x1_4Points_4Slice}) {}

Tricks_Conv2d_1x1_CI::Tricks_Conv2d_1x1_CI(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI_1x1.", 1, 1, false, false,
                                      false, &ShaderFormat::conv2d_1x1_ci}) {}

void Tricks_Conv2d_1x1_Points::setup(ZQLayerInfo* layer) {
    ConvolutionRecord record;
    if (!record.read(layer, 1, 1)) return;
    addTime(manager->setupCosts.packing, [&] {
        PackedConvolution::Coverage coverage;
        coverage.extent = roundedExtent(*record.out_shape, *manager);
        coverage.pixels = 2;
        coverage.slices = form.slices;
        convolution.setup(record, coverage, *manager);
    });
    TricksParams& params = record.params;
    convolution.program = shareProgram(
        programName(params, "Conv2D", params.localSizeX, params.localSizeY, params.localSizeZ),
        [&] { return generateSource(params); });
}

void Tricks_Conv2d_1x1_Points::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(convolution.program)) return;
    convolution.run(input, output, *convolution.program);
}

void Tricks_Conv2d_1x1_Points::print() {
    Tarno::_LogVerbose("Tarno", "%s", form.printed);
}

std::string Tricks_Conv2d_1x1_Points::generateSource(TricksParams& params) {
    return (ShaderFormat::instance().*form.source)(params);
}

/// Padding and dilation are not in the name.
std::string Tricks_Conv2d_1x1_Points::programName(TricksParams& params, const char* prefix, int x,
                                                  int y, int z) {
    return formatSource("%s_%s_%s_kernel_%d_%d_%d_In_%s_Out_a%d_s%d_%d_bias%d_localsize_%dx%dx%d_program",
                        prefix, params.uboWeightCount > 0 ? "ubo" : "ssbo", form.word,
                        params.kernelWidth, params.kernelHeight, 4 * sliceCount(params.inChannels),
                        channelWord(params.outChannels), params.activation, params.strideX,
                        params.strideY, params.hasBias, x, y, z);
}

}  // namespace tesk
