#include "convolution_record.h"

#include <cstdint>

#include "crossplatform/src/common/src/zqlayerinfo.h"
#include "platform/tn_core.h"

namespace tesk {
namespace {

/// A dilation of 0 has no meaning; the padding is divided by it.
int at_least_one(int dilation) {
    return dilation < 1 ? 1 : dilation;
}

template <typename Record>
void read_common(const Record& record, ConvolutionRecord& result) {
    TricksParams& params = result.params;
    params.padX = record.pad_w;
    params.padY = record.pad_h;
    params.strideX = record.stride_w;
    params.strideY = record.stride_h;
    params.kernelWidth = record.kernel_w;
    params.kernelHeight = record.kernel_h;
    params.hasBias = record.has_bias;
    params.activation = static_cast<int16_t>(record.activation);
    params.groups = static_cast<int>(record.effective_groups());
    params.inChannels = record.in_shape->channels;
    params.outChannels = record.out_shape->channels;
    params.inSlices = (params.inChannels + 3) >> 2;
    params.inSliceStride = params.kernelWidth * params.kernelHeight * 2;
    params.outSliceStride = params.inSlices * params.inSliceStride;
    result.id = record.id;
    result.in_shape = record.in_shape;
    result.out_shape = record.out_shape;
    result.weights = record.weights;
    result.weights_half = record.weights_half;
    result.bias_half = record.bias_count >= record.out_shape->channels ? record.bias_half : nullptr;
}

bool refuse(const ZQLayerInfo& record, const std::string& expected, const std::string& found) {
    Tarno::_LogError("Tarno", "layer %d (%s): expected %s, found %s", record.id,
                     zq_layer_type_name(record.type), expected.c_str(), found.c_str());
    return false;
}

}  // namespace

bool ConvolutionRecord::read(const ZQLayerInfo* record, int kernelWidth, int kernelHeight) {
    if (record == nullptr) return false;
    size_t weights_count = 0;
    if (record->type == ZQLayerType_Conv2D) {
        const auto& conv = static_cast<const ZQLayerInfo_Conv2D&>(*record);
        read_common(conv, *this);
        params.dilationX = at_least_one(conv.dilation_w);
        params.dilationY = at_least_one(conv.dilation_h);
        weights_count = conv.weights_count;
    } else if (record->type == ZQLayerType_Conv2DTranspose) {
        const auto& conv = static_cast<const ZQLayerInfo_Conv2DTranspose&>(*record);
        read_common(conv, *this);
        weights_count = conv.weights_count;
    } else {
        return refuse(*record, "a convolution", "another kind");
    }
    if (params.kernelWidth != kernelWidth || params.kernelHeight != kernelHeight) {
        return refuse(*record,
                      "a kernel of " + std::to_string(kernelWidth) + " x " +
                          std::to_string(kernelHeight),
                      std::to_string(params.kernelWidth) + " x " +
                          std::to_string(params.kernelHeight));
    }
    const uint64_t needed = uint64_t{1} * static_cast<unsigned>(params.inChannels) *
                            static_cast<unsigned>(params.outChannels) *
                            static_cast<unsigned>(kernelWidth * kernelHeight);
    if (needed == 0 || weights_count < needed || weights_half == nullptr) {
        return refuse(*record, std::to_string(needed) + " weights", std::to_string(weights_count));
    }
    return true;
}

}  // namespace tesk
