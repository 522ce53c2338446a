#include "modelkit/onnx/gpu_rules.h"

#include <cmath>
#include <optional>

namespace modelkit::onnx {

namespace {

std::string text_of(const GpuFault& fault) {
    return "expected " + fault.expected + " on the GPU engine, found " + fault.found;
}

/// What the converter makes layers of for both engines. Of the others the CPU engine has rows where
/// the GPU engine has channels, or the GPU engine has none.
bool is_for_both(unsigned short type) {
    switch (type) {
        case ZQLayerType_Input:
        case ZQLayerType_Conv2D:
        case ZQLayerType_Conv2DTranspose:
        case ZQLayerType_DepthWiseConv2D:
        case ZQLayerType_PixelShuffle:
        case ZQLayerType_Pooling:
        case ZQLayerType_Activation:
        case ZQLayerType_ElementWiseOperator:
        case ZQLayerType_Concatenate:
        case ZQLayerType_Upsampling:
            return true;
        default:
            return false;
    }
}

std::string upsampling_fault(const ZQLayerInfo_Upsampling& record) {
    const float scale = Tarno::half_to_float(record.scale);
    if (record.mode != 0 || scale == 2.0f || scale == 4.0f) return std::string();
    return text_of({"nearest upsampling by 2 or 4", std::to_string(scale)});
}

}  // namespace

std::string GpuRules::shape_fault(const shape3& shape, const GpuTruncatedWork& work) const {
    const struct {
        const char* name;
        unsigned int base;
        unsigned short scale;
    } sides[] = {{"width", base_w, shape.scale_x}, {"height", base_h, shape.scale_y}};
    int64_t pixels[2] = {};
    for (size_t i = 0; i < 2; ++i) {
        const float size = static_cast<float>(sides[i].base) * Tarno::half_to_float(sides[i].scale);
        const auto rounded = static_cast<int64_t>(static_cast<double>(size) + 0.5);
        const auto truncated = static_cast<int64_t>(size);
        pixels[i] = rounded;
        const bool exact = std::fabs(size - static_cast<float>(rounded)) < 0.25f;
        if (!exact || (work.shape == &shape && !gpu_work_covers(truncated, rounded, work.step))) {
            return std::string("a half holds no factor of the base size for this ") + sides[i].name;
        }
    }
    const std::optional<GpuFault> fault = gpu_texture_fault(shape.channels, pixels[1], pixels[0]);
    return fault ? text_of(*fault) : std::string();
}

std::string GpuRules::fault(const ZQLayerInfo& record) {
    if (!is_for_both(record.type)) {
        return std::string("the GPU engine has no layer that gives what ") +
               zq_layer_type_name(record.type) + " gives";
    }
    const std::optional<GpuFault> fault = gpu_layer_fault(record);
    if (fault) return text_of(*fault);
    const std::string unlike = unlike_on_gpu(record);
    if (!unlike.empty()) return "expected what both engines compute alike, found " + unlike;
    if (record.type == ZQLayerType_Upsampling) {
        const std::string text =
            upsampling_fault(static_cast<const ZQLayerInfo_Upsampling&>(record));
        if (!text.empty()) return text;
    }
    if (gpu_weight_bytes(record) > GPU_MOST_WEIGHT_BYTES) {
        return text_of(
            {"at most 128 MiB of weights", std::to_string(gpu_weight_bytes(record)) + " bytes"});
    }
    const GpuTruncatedWork work = gpu_truncated_work(record);
    std::string text;
    if (record.type != ZQLayerType_Input) text = shape_fault(*record.in_shape, work);
    if (text.empty()) text = shape_fault(*record.out_shape, work);
    if (!text.empty()) return text;
    const std::optional<GpuFault> padding = paddings.add(record, false);
    return padding ? text_of(*padding) : std::string();
}

}  // namespace modelkit::onnx
