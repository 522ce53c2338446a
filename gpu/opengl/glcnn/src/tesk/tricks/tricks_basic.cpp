#include "tricks_basic.h"

#include "platform/tn_core.h"

namespace tesk {

Extent ConvolutionForm::extent(const ConvolutionRecord& record,
                               const ComputeProgramManager& manager) const {
    const shape3& shape = coversInput ? *record.in_shape : *record.out_shape;
    return truncated ? truncatedExtent(shape, manager) : roundedExtent(shape, manager);
}

std::string ConvolutionForm::text(const TricksParams& params) const {
    return source != nullptr ? (ShaderFormat::instance().*source)(params) : "";
}

Tricks_Basic::Tricks_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic."}) {}

void Tricks_Basic::setup(ZQLayerInfo* layer) {
    ConvolutionRecord record;
    if (!record.read(layer, form.kernelWidth, form.kernelHeight)) return;
    addTime(manager->setupCosts.packing, [&] {
        PackedConvolution::Coverage coverage;
        coverage.extent = form.extent(record, *manager);
        coverage.split_when_large = form.splitWhenLarge;
        convolution.setup(record, coverage, *manager);
    });
    TricksParams& params = record.params;
    convolution.program = shareProgram(
        programName(params, form.prefix, params.localSizeX, params.localSizeY, params.localSizeZ),
        [&] { return generateSource(params); });
}

void Tricks_Basic::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(convolution.program)) return;
    convolution.run(input, output, *convolution.program);
}

void Tricks_Basic::print() {
    Tarno::_LogVerbose("Tarno", "%s", form.printed);
}

std::string Tricks_Basic::generateSource(TricksParams& params) {
    return form.text(params);
}

std::string Tricks_Basic::programName(TricksParams& params, const char* prefix, int x, int y,
                                      int z) {
    return formatSource(
        "%s_%s_basic_kernel_%d_%d_%d_In_%s_Out_a%d_padding_%d_%d_s%d_%d_dilation_%d_%d_bias%d_"
        "localsize_%dx%dx%d_program",
        prefix, params.uboWeightCount > 0 ? "ubo" : "ssbo", params.kernelWidth,
        params.kernelHeight, 4 * sliceCount(params.inChannels), channelWord(params.outChannels),
        params.activation, params.padX, params.padY, params.strideX, params.strideY,
        params.dilationX, params.dilationY, params.hasBias, x, y, z);
}

}  // namespace tesk
