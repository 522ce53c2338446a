#include "modelkit/gpu_layers.h"

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <utility>
#include <vector>

namespace modelkit {

namespace {

using Kernel = std::pair<int, int>;

std::string pair_text(int64_t w, int64_t h) {
    return std::to_string(w) + "x" + std::to_string(h);
}

/// "1x1, 3x1 or 7x7"
std::string list_text(const std::vector<std::string>& items) {
    std::string text;
    for (size_t i = 0; i < items.size(); ++i) {
        text += (i == 0 ? "" : i + 1 == items.size() ? " or " : ", ") + items[i];
    }
    return text;
}

template <typename Record>
std::optional<GpuFault> kernel_fault(const Record& record, const char* of,
                                     std::initializer_list<Kernel> known) {
    if (record.stride_w < 1 || record.stride_h < 1) {
        return GpuFault{"a stride of at least 1x1", pair_text(record.stride_w, record.stride_h)};
    }
    std::vector<std::string> texts;
    for (const auto& [w, h] : known) {
        if (w == record.kernel_w && h == record.kernel_h) return std::nullopt;
        texts.push_back(pair_text(w, h));
    }
    return GpuFault{"a kernel of " + list_text(texts) + of,
                    pair_text(record.kernel_w, record.kernel_h)};
}

template <typename Record>
std::optional<GpuFault> dilation_fault(const Record& record, bool dilates, const char* of) {
    if (record.dilation_w < 1 || record.dilation_h < 1) {
        return GpuFault{"a dilation of at least 1x1",
                        pair_text(record.dilation_w, record.dilation_h)};
    }
    if (!dilates && (record.dilation_w != 1 || record.dilation_h != 1)) {
        return GpuFault{std::string("a dilation of 1x1 for ") + of,
                        pair_text(record.dilation_w, record.dilation_h)};
    }
    return std::nullopt;
}

const char* activation_name(int kind) {
    switch (kind) {
        case ActivationType_Linear:
            return " (Linear)";
        case ActivationType_ReLU:
            return " (ReLU)";
        case ActivationType_Tanh:
            return " (Tanh)";
        case ActivationType_Sigmoid:
            return " (Sigmoid)";
        case ActivationType_LeakyReLU:
            return " (LeakyReLU)";
        case ActivationType_SoftMax:
            return " (SoftMax)";
        case ActivationType_ReLU6:
            return " (ReLU6)";
        default:
            return "";
    }
}

std::optional<GpuFault> activation_fault(int kind, std::initializer_list<int> known) {
    std::vector<std::string> texts;
    for (const int each : known) {
        if (each == kind) return std::nullopt;
        texts.push_back(std::to_string(each));
    }
    return GpuFault{"an activation of kind " + list_text(texts),
                    "kind " + std::to_string(kind) + activation_name(kind)};
}

std::optional<GpuFault> conv_fault(const ZQLayerInfo_Conv2D& r) {
    std::optional<GpuFault> fault;
    const bool grouped = r.effective_groups() != 1;
    fault =
        grouped
            ? kernel_fault(r, " for a convolution in groups", {{3, 3}})
            : kernel_fault(
                  r, "",
                  {{1, 1}, {3, 1}, {1, 3}, {3, 3}, {4, 4}, {5, 1}, {1, 5}, {5, 5}, {7, 1}, {1, 7}});
    if (!fault) {
        fault = grouped ? activation_fault(r.activation, {0, 1, 2, 8})
                        : activation_fault(r.activation, {0, 1, 2, 3, 4, 6, 7, 8});
    }
    const bool dilates = !grouped && r.kernel_w == 3 && r.kernel_h == 3;
    if (!fault) fault = dilation_fault(r, dilates, "this kernel");
    // The padding is divided by the dilation and has to come out whole.
    if (!fault && dilates && (r.pad_w % r.dilation_w != 0 || r.pad_h % r.dilation_h != 0)) {
        fault = {"a padding in multiples of the dilation", pair_text(r.pad_w, r.pad_h)};
    }
    return fault;
}

std::optional<GpuFault> transposed_fault(const ZQLayerInfo_Conv2DTranspose& r) {
    // The 7-wide form leaves every second row unwritten.
    std::optional<GpuFault> fault =
        kernel_fault(r, " for a transposed convolution", {{3, 3}, {2, 2}});
    if (!fault) fault = activation_fault(r.activation, {0, 1, 2, 3, 4, 8});
    if (!fault && r.effective_groups() != 1) {
        fault = {"one group", std::to_string(r.effective_groups())};
    }
    if (!fault && (r.stride_w != 2 || r.stride_h != 2)) {
        fault = {"a stride of 2x2 for a transposed convolution", pair_text(r.stride_w, r.stride_h)};
    }
    return fault;
}

std::optional<GpuFault> depthwise_fault(const ZQLayerInfo_DepthWiseConv2D& r) {
    std::optional<GpuFault> fault =
        kernel_fault(r, " for a depthwise convolution", {{3, 3}, {5, 5}});
    if (!fault) fault = activation_fault(r.activation, {0, 1, 2, 8});
    if (!fault && r.depth_multiplier != 1) {
        fault = {"a depth multiplier of 1", std::to_string(r.depth_multiplier)};
    }
    if (!fault) fault = dilation_fault(r, false, "a depthwise convolution");
    return fault;
}

std::optional<GpuFault> pooling_fault(const ZQLayerInfo_Pooling& r) {
    if (r.pool_type > 1) {
        return GpuFault{"pooling of type 0 (average) or 1 (maximum)",
                        "type " + std::to_string(r.pool_type)};
    }
    if (r.pool_type == 1) {
        return kernel_fault(r, " for maximum pooling", {{2, 2}, {3, 3}, {1, 4}, {2, 4}});
    }
    return kernel_fault(r, " for average pooling", {{2, 2}, {3, 3}, {4, 4}, {7, 7}, {8, 8}});
}

std::optional<GpuFault> eltwise_fault(const ZQLayerInfo_ElementWiseOperator& r) {
    const bool sum = r.operator_type == 0;
    if (!sum && r.operator_type != 2) {
        return GpuFault{"an operation of type 0 (sum) or 2 (product)",
                        "type " + std::to_string(r.operator_type)};
    }
    if (r.bottom_count != 2 && !(sum && r.bottom_count == 3)) {
        return GpuFault{sum ? "2 or 3 bottoms" : "2 bottoms", std::to_string(r.bottom_count)};
    }
    return activation_fault(r.activation, {0, 1, 2, 8});
}

std::optional<GpuFault> concat_fault(const ZQLayerInfo_Concatenate& r) {
    if (r.bottom_count != 2 && r.bottom_count != 3 && r.bottom_count != 5) {
        return GpuFault{"2, 3 or 5 bottoms", std::to_string(r.bottom_count)};
    }
    if (r.axis != 0) {
        return GpuFault{"a concatenation along axis 0, the channels,", std::to_string(r.axis)};
    }
    for (int i = 0; i + 1 < r.bottom_count; ++i) {
        if (r.in_shapes[i].channels % 4 != 0) {
            return GpuFault{"channels in fours in all bottoms but the last",
                            std::to_string(r.in_shapes[i].channels)};
        }
    }
    return std::nullopt;
}

/// Of fused activations.
std::string unlike_fused(int kind) {
    if (kind == ActivationType_Linear) {
        return "a fused Linear, which gives 0 on the CPU engine and the value itself on the GPU "
               "engine";
    }
    if (kind == ActivationType_SoftMax) {
        return "activation SoftMax, which is exp(x / 100) on the GPU engine";
    }
    return std::string();
}

std::string unlike_conv(const ZQLayerInfo_Conv2D& r) {
    // The engine takes the dilation out of the padding.
    const auto shifted = [](int pad, int dilation) { return dilation > 1 && pad != dilation; };
    if (shifted(r.pad_w, r.dilation_w) || shifted(r.pad_h, r.dilation_h)) {
        return "a dilation that is not the padding, whose taps lie elsewhere on the GPU engine";
    }
    if (r.effective_groups() != 1) {
        return "a convolution in groups, which the CPU engine computes as one group";
    }
    return unlike_fused(r.activation);
}

template <typename Record>
const Record& as(const ZQLayerInfo& record) {
    return static_cast<const Record&>(record);
}

}  // namespace

std::optional<GpuFault> gpu_layer_fault(const ZQLayerInfo& record) {
    switch (record.type) {
        case ZQLayerType_Conv2D:
            return conv_fault(as<ZQLayerInfo_Conv2D>(record));
        case ZQLayerType_Conv2DTranspose:
            return transposed_fault(as<ZQLayerInfo_Conv2DTranspose>(record));
        case ZQLayerType_DepthWiseConv2D:
            return depthwise_fault(as<ZQLayerInfo_DepthWiseConv2D>(record));
        case ZQLayerType_Pooling:
            return pooling_fault(as<ZQLayerInfo_Pooling>(record));
        case ZQLayerType_Activation:
            return activation_fault(as<ZQLayerInfo_Activation>(record).activation_type,
                                    {2, 4, 8, 9});
        case ZQLayerType_ElementWiseOperator:
            return eltwise_fault(as<ZQLayerInfo_ElementWiseOperator>(record));
        case ZQLayerType_Concatenate:
            return concat_fault(as<ZQLayerInfo_Concatenate>(record));
        case ZQLayerType_PixelShuffle: {
            const float factor =
                Tarno::half_to_float(as<ZQLayerInfo_PixelShuffle>(record).upscale_factor);
            if (factor == 2.0f || factor == 0.5f) return std::nullopt;
            char text[32];
            std::snprintf(text, sizeof(text), "%.3f", static_cast<double>(factor));
            return GpuFault{"a factor of 2 or 1/2", text};
        }
        default:
            return std::nullopt;
    }
}

std::string unlike_on_gpu(const ZQLayerInfo& info) {
    switch (info.type) {
        case ZQLayerType_Conv2D:
            return unlike_conv(as<ZQLayerInfo_Conv2D>(info));
        case ZQLayerType_Conv2DTranspose: {
            const auto& record = as<ZQLayerInfo_Conv2DTranspose>(info);
            if (record.kernel_w != 3 || record.kernel_h != 3 || record.pad_w != 1 ||
                record.pad_h != 1) {
                return "a transposed convolution other than 3x3 with padding 1, whose output is "
                       "shifted on the GPU engine";
            }
            return unlike_fused(record.activation);
        }
        case ZQLayerType_DepthWiseConv2D:
            return unlike_fused(as<ZQLayerInfo_DepthWiseConv2D>(info).activation);
        case ZQLayerType_ElementWiseOperator:
            return unlike_fused(as<ZQLayerInfo_ElementWiseOperator>(info).activation);
        case ZQLayerType_Activation: {
            const int kind = as<ZQLayerInfo_Activation>(info).activation_type;
            return kind == ActivationType_Linear ? std::string() : unlike_fused(kind);
        }
        case ZQLayerType_Pooling: {
            const auto& record = as<ZQLayerInfo_Pooling>(info);
            if (record.pool_type == 0 && (record.pad_w != 0 || record.pad_h != 0)) {
                return "an average with padding, which the CPU engine takes over the pixels alone";
            }
            return std::string();
        }
        case ZQLayerType_Upsampling: {
            const auto& record = as<ZQLayerInfo_Upsampling>(info);
            if (record.mode == 1 && record.align == 0 &&
                Tarno::half_to_float(record.scale) != 2.0f) {
                return "bilinear upsampling by more than 2 without aligned corners, which the CPU "
                       "engine fills with one element";
            }
            return std::string();
        }
        case ZQLayerType_Region:
            return "a region layer, whose values the engines lay out in two ways";
        default:
            return std::string();
    }
}

GpuTruncatedWork gpu_truncated_work(const ZQLayerInfo& record) {
    switch (record.type) {
        case ZQLayerType_Conv2D: {
            const auto& r = as<ZQLayerInfo_Conv2D>(record);
            const bool by_image =
                r.effective_groups() != 1 || (r.kernel_w == r.kernel_h && r.kernel_w != 5);
            return {by_image ? nullptr : record.out_shape, 1};
        }
        case ZQLayerType_Conv2DTranspose:
            return {record.in_shape, 1};
        case ZQLayerType_DepthWiseConv2D: {
            const auto& r = as<ZQLayerInfo_DepthWiseConv2D>(record);
            const bool points = r.kernel_w == 3 && r.stride_w == 1 && r.stride_h == 1;
            return {record.out_shape, points ? 2 : 1};
        }
        case ZQLayerType_PixelShuffle: {
            const auto& r = as<ZQLayerInfo_PixelShuffle>(record);
            const bool up = Tarno::half_to_float(r.upscale_factor) >= 1.0f;
            return {up ? record.in_shape : record.out_shape, 1};
        }
        case ZQLayerType_Upsampling: {
            const bool nearest = as<ZQLayerInfo_Upsampling>(record).mode == 0;
            return {nearest ? record.in_shape : record.out_shape, 1};
        }
        case ZQLayerType_ElementWiseOperator:
        case ZQLayerType_Concatenate:
        case ZQLayerType_Activation:
            return {record.out_shape, 1};
        default:
            return {};
    }
}

bool gpu_work_covers(int64_t truncated, int64_t rounded, int step) {
    const int64_t group = int64_t{step} * 8;
    return (std::max<int64_t>(truncated, 0) + group - 1) / group * group >= rounded;
}

std::optional<GpuFault> gpu_texture_fault(int64_t c, int64_t h, int64_t w) {
    const auto text = [](int64_t channels, int64_t rows, int64_t columns) {
        return std::to_string(channels) + "x" + pair_text(rows, columns);
    };
    if (c < 1 || h < 1 || w < 1) return GpuFault{"an output of at least 1x1x1", text(c, h, w)};
    if (h > GPU_MOST_SIDE || w > GPU_MOST_SIDE || gpu_slices(c) > GPU_MOST_SLICES) {
        return GpuFault{
            "an output of at most " + text(4 * GPU_MOST_SLICES, GPU_MOST_SIDE, GPU_MOST_SIDE),
            text(c, h, w)};
    }
    return std::nullopt;
}

int64_t gpu_weight_bytes(const ZQLayerInfo& record) {
    const auto dense = [&](int64_t kernel_w, int64_t kernel_h, int64_t groups) {
        return gpu_slices(record.out_shape->channels) *
               gpu_slices(record.in_shape->channels / groups) * 16 * kernel_w * kernel_h * 2;
    };
    if (record.type == ZQLayerType_Conv2D) {
        const auto& r = as<ZQLayerInfo_Conv2D>(record);
        return dense(r.kernel_w, r.kernel_h, r.effective_groups());
    }
    if (record.type == ZQLayerType_Conv2DTranspose) {
        const auto& r = as<ZQLayerInfo_Conv2DTranspose>(record);
        return dense(r.kernel_w, r.kernel_h, 1);
    }
    if (record.type == ZQLayerType_DepthWiseConv2D) {
        const auto& r = as<ZQLayerInfo_DepthWiseConv2D>(record);
        return gpu_slices(record.out_shape->channels) * 16 * r.kernel_w * r.kernel_h;
    }
    return 0;
}

std::optional<GpuFault> GpuPaddings::add(const ZQLayerInfo& record, bool names_channels) {
    const int channels = record.out_shape != nullptr ? record.out_shape->channels : 0;
    const std::string form = channels <= 4 ? "plain " : "array ";
    const auto window = [](const auto& r) {
        return pair_text(r.kernel_w, r.kernel_h) + " " + pair_text(r.stride_w, r.stride_h);
    };
    if (record.type == ZQLayerType_DepthWiseConv2D) {
        const auto& r = as<ZQLayerInfo_DepthWiseConv2D>(record);
        return add("depthwise " + (names_channels ? std::to_string(channels) + " " : form) +
                       std::to_string(r.activation) + " " + std::to_string(r.has_bias) + " " +
                       window(r),
                   r.id, r.pad_w, r.pad_h);
    }
    if (record.type == ZQLayerType_Pooling) {
        const auto& r = as<ZQLayerInfo_Pooling>(record);
        return add((r.pool_type == 1 ? "maximum " : "average ") + form + window(r), r.id, r.pad_w,
                   r.pad_h);
    }
    return std::nullopt;
}

std::optional<GpuFault> GpuPaddings::add(const std::string& program, int id, int pad_w, int pad_h) {
    const First own = {id, pad_w, pad_h};
    const First& first = paddings.emplace(program, own).first->second;
    if (first.w == own.w && first.h == own.h) return std::nullopt;
    return GpuFault{"the padding of layer " + std::to_string(first.id) + ", " +
                        pair_text(first.w, first.h) + ", whose program it shares",
                    pair_text(own.w, own.h)};
}

}  // namespace modelkit
