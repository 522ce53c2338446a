#include "modelkit/onnx/gpu_rules.h"

#include <cmath>
#include <initializer_list>

namespace modelkit::onnx {

namespace {

std::string pair_text(int w, int h) {
    return std::to_string(w) + "x" + std::to_string(h);
}

bool one_of(int value, std::initializer_list<int> list) {
    for (const int each : list) {
        if (each == value) return true;
    }
    return false;
}

struct Kernel {
    int w;
    int h;
};

template <size_t count>
bool one_of(int w, int h, const Kernel (&list)[count]) {
    for (const Kernel& each : list) {
        if (each.w == w && each.h == h) return true;
    }
    return false;
}

constexpr Kernel conv_kernels[] = {{1, 1}, {3, 1}, {1, 3}, {3, 3}, {4, 4},
                                   {5, 1}, {1, 5}, {5, 5}, {7, 1}, {1, 7}};
constexpr Kernel average_windows[] = {{2, 2}, {3, 3}, {4, 4}, {7, 7}, {8, 8}};
constexpr Kernel maximum_windows[] = {{2, 2}, {3, 3}, {1, 4}, {2, 4}};

std::string activation_fault(int kind, std::initializer_list<int> known) {
    if (kind == ActivationType_None || one_of(kind, known)) return std::string();
    return "the GPU engine expects another activation for this kind of layer, found kind " +
           std::to_string(kind);
}

// The engine takes the dilation out of the padding by an integer division, and puts the window's
// middle at half the kernel: right where that is where the dilated kernel has its middle.
bool middle_is_right(int kernel, int pad, int dilation) {
    return kernel / 2 - pad / dilation == kernel / 2 * dilation - pad;
}

std::string conv_fault(const ZQLayerInfo_Conv2D& r) {
    if (r.effective_groups() != 1) {
        return "the GPU engine expects one group where the CPU engine shall agree";
    }
    if (!one_of(r.kernel_w, r.kernel_h, conv_kernels)) {
        return "the GPU engine has no convolution of kernel " + pair_text(r.kernel_w, r.kernel_h);
    }
    const bool dilated = r.dilation_w != 1 || r.dilation_h != 1;
    if (dilated && (r.kernel_w != 3 || r.kernel_h != 3)) {
        return "the GPU engine dilates kernels of 3x3 only, found " +
               pair_text(r.kernel_w, r.kernel_h);
    }
    if (!middle_is_right(r.kernel_w, r.pad_w, r.dilation_w) ||
        !middle_is_right(r.kernel_h, r.pad_h, r.dilation_h)) {
        return "the GPU engine expects a padding equal to the dilation, found " +
               pair_text(r.pad_w, r.pad_h);
    }
    return activation_fault(r.activation, {2, 3, 4, 6, 8});
}

std::string transposed_fault(const ZQLayerInfo_Conv2DTranspose& r) {
    if (r.kernel_w != 3 || r.kernel_h != 3 || r.stride_w != 2 || r.stride_h != 2 || r.pad_w != 1 ||
        r.pad_h != 1 || r.effective_groups() != 1) {
        return "the GPU engine expects a transposed convolution of kernel 3x3, stride 2, padding 1 "
               "and one group, found kernel " +
               pair_text(r.kernel_w, r.kernel_h) + ", stride " + pair_text(r.stride_w, r.stride_h) +
               ", padding " + pair_text(r.pad_w, r.pad_h);
    }
    return activation_fault(r.activation, {2, 3, 4, 8});
}

std::string depthwise_fault(const ZQLayerInfo_DepthWiseConv2D& r) {
    if (r.kernel_w != 3 || r.kernel_h != 3) {
        return "the GPU engine expects a depthwise kernel of 3x3, found " +
               pair_text(r.kernel_w, r.kernel_h);
    }
    if (r.depth_multiplier != 1) return "the GPU engine expects a depth multiplier of 1";
    if (r.dilation_w != 1 || r.dilation_h != 1) {
        return "the GPU engine does not dilate depthwise convolutions";
    }
    return activation_fault(r.activation, {2, 8});
}

std::string pooling_fault(const ZQLayerInfo_Pooling& r) {
    const bool maximum = r.pool_type == 1;
    const bool known = maximum ? one_of(r.kernel_w, r.kernel_h, maximum_windows)
                               : one_of(r.kernel_w, r.kernel_h, average_windows);
    if (!known) {
        return std::string("the GPU engine has no ") + (maximum ? "maximum" : "average") +
               " pooling of window " + pair_text(r.kernel_w, r.kernel_h);
    }
    if (!maximum && (r.pad_w != 0 || r.pad_h != 0)) {
        return "the GPU engine counts the padding of an average";
    }
    return std::string();
}

std::string eltwise_fault(const ZQLayerInfo_ElementWiseOperator& r) {
    const bool sum = r.operator_type == 0;
    if (r.bottom_count != 2 && !(sum && r.bottom_count == 3)) {
        return std::string("the GPU engine expects ") + (sum ? "2 or 3 bottoms" : "2 bottoms") +
               ", found " + std::to_string(r.bottom_count);
    }
    return activation_fault(r.activation, {2, 8});
}

std::string concat_fault(const ZQLayerInfo_Concatenate& r) {
    if (r.axis != 0) return "the GPU engine joins along the channels only";
    if (!one_of(r.bottom_count, {2, 3, 5})) {
        return "the GPU engine joins 2, 3 or 5 tensors, found " + std::to_string(r.bottom_count);
    }
    for (int i = 0; i + 1 < r.bottom_count; ++i) {
        if (r.in_shapes[i].channels % 4 != 0) {
            return "the GPU engine joins whole slices of four channels, found a tensor of " +
                   std::to_string(r.in_shapes[i].channels);
        }
    }
    return std::string();
}

std::string upsampling_fault(const ZQLayerInfo_Upsampling& r) {
    const float scale = Tarno::half_to_float(r.scale);
    if (r.mode == 0 && scale != 2.0f && scale != 4.0f) {
        return "the GPU engine repeats pixels 2 or 4 times";
    }
    return std::string();
}

std::string shuffle_fault(const ZQLayerInfo_PixelShuffle& r) {
    const float factor = Tarno::half_to_float(r.upscale_factor);
    if (factor != 2.0f && factor != 0.5f) return "the GPU engine shuffles pixels by 2 only";
    return std::string();
}

}  // namespace

// An image has the rounded size; some layers size their dispatch by truncation, in groups of 8.
std::string GpuRules::shape_fault(const shape3& shape, bool truncates) const {
    const struct {
        const char* name;
        unsigned int base;
        unsigned short scale;
    } sides[] = {{"width", base_w, shape.scale_x}, {"height", base_h, shape.scale_y}};
    for (const auto& side : sides) {
        const float size = static_cast<float>(side.base) * Tarno::half_to_float(side.scale);
        const long rounded = static_cast<long>(static_cast<double>(size) + 0.5);
        const long truncated = static_cast<long>(size);
        const bool exact = std::fabs(size - static_cast<float>(rounded)) < 0.25f;
        if (!exact || (truncates && (truncated + 7) / 8 != (rounded + 7) / 8)) {
            return std::string("a half holds no factor of the base size for this ") + side.name;
        }
    }
    return std::string();
}

std::string GpuRules::fault(const ZQLayerInfo& record) const {
    std::string text;
    switch (record.type) {
        case ZQLayerType_Input:
            break;
        case ZQLayerType_Conv2D:
            text = conv_fault(static_cast<const ZQLayerInfo_Conv2D&>(record));
            break;
        case ZQLayerType_Conv2DTranspose:
            text = transposed_fault(static_cast<const ZQLayerInfo_Conv2DTranspose&>(record));
            break;
        case ZQLayerType_DepthWiseConv2D:
            text = depthwise_fault(static_cast<const ZQLayerInfo_DepthWiseConv2D&>(record));
            break;
        case ZQLayerType_PixelShuffle:
            text = shuffle_fault(static_cast<const ZQLayerInfo_PixelShuffle&>(record));
            break;
        case ZQLayerType_Pooling:
            text = pooling_fault(static_cast<const ZQLayerInfo_Pooling&>(record));
            break;
        case ZQLayerType_Activation:
            text = activation_fault(
                static_cast<const ZQLayerInfo_Activation&>(record).activation_type, {2, 4, 8});
            break;
        case ZQLayerType_ElementWiseOperator:
            text = eltwise_fault(static_cast<const ZQLayerInfo_ElementWiseOperator&>(record));
            break;
        case ZQLayerType_Concatenate:
            text = concat_fault(static_cast<const ZQLayerInfo_Concatenate&>(record));
            break;
        case ZQLayerType_Upsampling:
            text = upsampling_fault(static_cast<const ZQLayerInfo_Upsampling&>(record));
            break;
        default:
            return std::string("the GPU engine has no layer that gives what ") +
                   zq_layer_type_name(record.type) + " gives";
    }
    if (!text.empty()) return text;
    const bool rounds = record.type == ZQLayerType_Pooling;
    const bool input = record.type == ZQLayerType_Input;
    if (!input) text = shape_fault(*record.in_shape, !rounds);
    return text.empty() ? shape_fault(*record.out_shape, !rounds) : text;
}

}  // namespace modelkit::onnx
