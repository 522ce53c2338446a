#include "table_slots.h"

#include <crossplatform/src/common/src/half_float.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace tool {
namespace {

using TarnoCPU::OperatorInfo;

std::string pair_text(int64_t w, int64_t h) {
    return std::to_string(w) + "x" + std::to_string(h);
}

TableSlot activation_slot(const PlannedLayer& planned, int kind, bool fused) {
    TableSlot slot;
    slot.id = planned.id;
    slot.type = planned.type;
    slot.fused = fused;
    slot.layer = "Activation";
    slot.activation = kind;
    slot.in = slot.out = *planned.size;
    return slot;
}

/// Fills in what the row's kind has of its own; gives the fused activation, 0 for none.
int describe(const ZQLayerInfo* record, TableSlot& slot) {
    switch (record->type) {
        case ZQLayerType_Input:
        case ZQLayerType_TensorInput:
            slot.layer = "Input";
            return 0;
        case ZQLayerType_Conv2D: {
            const auto* conv = static_cast<const ZQLayerInfo_Conv2D*>(record);
            slot.layer = "Convolution";
            slot.groups = static_cast<int>(conv->effective_groups());
            slot.has_bias = conv->has_bias != 0;
            return conv->activation;
        }
        case ZQLayerType_Conv2DTranspose: {
            const auto* conv = static_cast<const ZQLayerInfo_Conv2DTranspose*>(record);
            slot.layer = "Deconvolution";
            slot.has_bias = conv->has_bias != 0;
            return conv->activation;
        }
        case ZQLayerType_DepthWiseConv2D: {
            const auto* conv = static_cast<const ZQLayerInfo_DepthWiseConv2D*>(record);
            slot.layer = "ConvolutionDepthWise";
            slot.has_bias = conv->has_bias != 0;
            return conv->activation;
        }
        case ZQLayerType_DepthWiseConv2DTranspose: {
            const auto* conv = static_cast<const ZQLayerInfo_DepthWiseConv2DTranspose*>(record);
            slot.layer = "DeconvolutionDepthWise";
            slot.has_bias = conv->has_bias != 0;
            return conv->activation;
        }
        case ZQLayerType_ElementWiseOperator:
            slot.layer = "Eltwise";
            return static_cast<const ZQLayerInfo_ElementWiseOperator*>(record)->activation;
        case ZQLayerType_PixelShuffle:
            slot.layer = "PixelShuffle";
            return 0;
        case ZQLayerType_Pooling:
            slot.layer = "Pooling";
            slot.mode = static_cast<const ZQLayerInfo_Pooling*>(record)->pool_type;
            return 0;
        case ZQLayerType_BatchNormalization:
            slot.layer = "BatchNormalization";
            return 0;
        case ZQLayerType_Activation:
            slot.layer = "Activation";
            slot.activation = static_cast<const ZQLayerInfo_Activation*>(record)->activation_type;
            return 0;
        case ZQLayerType_TensorActivation:
            slot.layer = "Activation";
            slot.activation =
                static_cast<const ZQLayerInfo_TensorActivation*>(record)->activation_type;
            return 0;
        case ZQLayerType_Upsampling: {
            const auto* upsampling = static_cast<const ZQLayerInfo_Upsampling*>(record);
            slot.layer = "Upsampling";
            slot.mode = upsampling->mode;
            slot.scale = static_cast<double>(Tarno::half_to_float(upsampling->scale));
            return 0;
        }
        case ZQLayerType_FullConnection: {
            // The sizes that count are the numbers in and out, however the tensors are shaped.
            const auto* dense = static_cast<const ZQLayerInfo_FullConnection*>(record);
            slot.layer = "FullConnection";
            slot.has_bias = dense->has_bias != 0;
            slot.in = {dense->num_input, 1, 1};
            slot.out = {dense->num_output, 1, 1};
            return 0;
        }
        case ZQLayerType_LSTM:
            slot.layer = "LSTM";
            return 0;
        case ZQLayerType_Concatenate:
            slot.layer = "Concat";
            slot.axis = static_cast<const ZQLayerInfo_Concatenate*>(record)->axis;
            slot.takes_operator = false;
            return 0;
        case ZQLayerType_Region:
            slot.layer = "Region";
            slot.takes_operator = false;
            return 0;
        default:
            slot.layer = "TensorReshape";
            slot.takes_operator = false;
            return 0;
    }
}

/// Whether an operator of the "Activation" layers computes the kind. Their names start with what
/// they compute.
bool computes(const std::string& name, int kind) {
    switch (kind) {
        case ActivationType_Linear:
            return name.rfind("Linear_", 0) == 0;
        case ActivationType_ReLU:
            return name.rfind("ReLU_", 0) == 0;
        case ActivationType_Tanh:
            return name.rfind("Tanh_", 0) == 0;
        case ActivationType_Sigmoid:
            return name.rfind("Sigmoid_", 0) == 0;
        case ActivationType_LeakyReLU:
            // The vector forms do not look at the slope.
            return name == "ReLU_Float_Fallback";
        case ActivationType_SoftMax:
            return name.rfind("Softmax_", 0) == 0;
        case ActivationType_ReLU6:
            return name.rfind("ReLU6_", 0) == 0;
        default:
            return false;
    }
}

/// Whether the class is one of the families that walk their tensors in blocks, by vectors.
bool is_hand_blocked(const OperatorInfo& info) {
    const std::string name = info.name;
    return info.kernel_w != 0 &&
           (name.find("_SSE_") != std::string::npos || name.find("_AVX2_") != std::string::npos);
}

bool is_depthwise(const OperatorInfo& info) {
    return std::strncmp(info.name, "Depthewise_", 11) == 0;
}

/// The borders with which a hand-blocked 3x3 member computes the layer.
std::string border_misfit(const OperatorInfo& info, const TableSlot& slot) {
    const Window& window = slot.window;
    const std::string padding = pair_text(window.pad_w, window.pad_h);
    if (is_depthwise(info)) {
        // Their top is as large as the bottom, or half of it: one pixel of border, no less.
        if (window.pad_w != 1 || window.pad_h != 1) {
            return "is for a padding of 1, the layer has one of " + padding;
        }
        if (info.stride == 2 && (slot.in.h % 2 != 0 || slot.in.w % 2 != 0)) {
            return "is for even sizes, the layer has " + size_text(slot.in);
        }
        return "";
    }
    if (info.stride == 1) return "";  // any padding; a top without has two pixels less
    const std::string name = info.name;
    // These look at the sizes for their border, and not at the padding.
    const bool by_size =
        name == "Convolution_3x3s2_Float_SSE_M1" || name == "Convolution_3x3s2_Float_SSE_M2";
    const bool only_even =
        name == "Convolution_3x3s2_Float_SSE_M3" || name == "Convolution_3x3s2_Float_SSE_M6";
    const std::pair<int64_t, int> directions[] = {{slot.in.h, window.pad_h},
                                                  {slot.in.w, window.pad_w}};
    for (const auto& [size, pad] : directions) {
        const bool even = size % 2 == 0;
        if (!even && only_even) return "is for even sizes, the layer has " + size_text(slot.in);
        if (by_size && pad != (even ? 1 : 0)) {
            return "is for a padding of 1 on even sizes and none on odd ones, the layer has one "
                   "of " +
                   padding + " on " + size_text(slot.in);
        }
        // The last taps of an even bottom lie behind it.
        if (even && pad == 0) {
            return "is for a padding of 1 on even sizes, the layer has one of " + padding + " on " +
                   size_text(slot.in);
        }
    }
    return "";
}

std::string window_misfit(const OperatorInfo& info, const TableSlot& slot) {
    const Window& window = slot.window;
    if (info.kernel_w != 0 &&
        (info.kernel_w != window.kernel_w || info.kernel_h != window.kernel_h)) {
        return "is for kernels of " + pair_text(info.kernel_w, info.kernel_h) +
               ", the layer has one of " + pair_text(window.kernel_w, window.kernel_h);
    }
    if (info.stride != 0 && (info.stride != window.stride_w || info.stride != window.stride_h)) {
        return "is for a stride of " + std::to_string(info.stride) + ", the layer has one of " +
               pair_text(window.stride_w, window.stride_h);
    }
    if (info.kernel_w != 0 && (window.dilation_w > 1 || window.dilation_h > 1)) {
        return "is for kernels without dilation, the layer has one of " +
               pair_text(window.dilation_w, window.dilation_h);
    }
    if (is_hand_blocked(info) && info.kernel_w == 3 && info.kernel_h == 3) {
        const std::string border = border_misfit(info, slot);
        if (!border.empty()) return border;
    }
    if (is_depthwise(info) && slot.in.c != slot.out.c) {
        return "is for one filter per channel, the layer makes " + std::to_string(slot.out.c) +
               " channels of " + std::to_string(slot.in.c);
    }
    return "";
}

/// Convolutions disagree on the size of their top: some take it from the bottom alone, some look at
/// whether there is padding, some at how much.
std::string size_misfit(const OperatorInfo& info, const TableSlot& slot) {
    const Window& window = slot.window;
    const std::string name = info.name;
    int64_t h = slot.in.h / std::max(1, window.stride_h);
    int64_t w = slot.in.w / std::max(1, window.stride_w);
    if (slot.layer == "Deconvolution") {
        const bool cuts = window.pad_h > 0 || window.pad_w > 0;
        h = window.stride_h * slot.in.h;
        w = window.stride_w * slot.in.w;
        if (name != "Deconvolution_Float_Blas") {
            h += 2 - (cuts ? 2 * window.pad_h : 0);
            w += 2 - (cuts ? 2 * window.pad_w : 0);
        }
    } else if (slot.layer != "Convolution" && slot.layer != "ConvolutionDepthWise") {
        return "";
    } else if (name == "ConvolutionDepthwise_Float_Fallback") {
        return "";  // the size of such layers is its own
    } else if (info.stride == 1 && info.kernel_h > 1 && info.kernel_w > 1) {
        if (window.pad_h == 0) h -= info.kernel_h - 1;
        if (window.pad_w == 0) w -= info.kernel_w - 1;
    }
    if (h == slot.out.h && w == slot.out.w) return "";
    return "makes " + pair_text(w, h) + " pixels of " + pair_text(slot.in.w, slot.in.h) +
           ", the layer has " + pair_text(slot.out.w, slot.out.h);
}

std::string multiple_misfit(const char* what, int multiple, int64_t number) {
    if (multiple <= 1 || number % multiple == 0) return "";
    return std::string("wants ") + what + " divisible by " + std::to_string(multiple) +
           ", the layer has " + std::to_string(number);
}

/// The list's divisors of rows and columns are those of the bottom. The tiles of the hand-blocked
/// 3x3 convolutions divide top, which is smaller without padding.
std::string tile_misfit(const OperatorInfo& info, const TableSlot& slot) {
    if (slot.layer == "Convolution" && is_hand_blocked(info) && info.kernel_h == 3 &&
        info.kernel_w == 3) {
        const std::string rows =
            multiple_misfit("rows in the result", info.height_multiple / info.stride, slot.out.h);
        if (!rows.empty()) return rows;
        return multiple_misfit("columns in the result", info.width_multiple / info.stride,
                               slot.out.w);
    }
    const std::string rows = multiple_misfit("rows", info.height_multiple, slot.in.h);
    if (!rows.empty()) return rows;
    return multiple_misfit("columns", info.width_multiple, slot.in.w);
}

}  // namespace

std::vector<TableSlot> table_slots(const ModelFile& model, const ModelPlan& plan) {
    const auto records = model.loader.getLayersInfo();
    std::vector<TableSlot> slots;
    for (const PlannedLayer& planned : plan.layers) {
        TableSlot slot;
        slot.id = planned.id;
        slot.type = planned.type;
        if (planned.window) slot.window = *planned.window;
        slot.out = *planned.size;
        slot.in =
            planned.bottoms.empty() ? slot.out : *plan.layers[*plan.find(planned.bottoms[0])].size;
        const int activation = describe(records.at(planned.id), slot);
        slots.push_back(slot);
        if (activation != 0) slots.push_back(activation_slot(planned, activation, true));
    }
    return slots;
}

std::string slot_text(const TableSlot& slot) {
    return layer_text(slot.id, slot.type) + (slot.fused ? ", its activation" : "");
}

std::string misfit(const OperatorInfo& info, const TableSlot& slot, Packing packing) {
    if (slot.layer != info.layer) {
        return std::string("is for layers of the kind ") + info.layer +
               ", the layer is of the kind " + slot.layer;
    }
    if (slot.layer == "Activation" && !computes(info.name, slot.activation)) {
        return "computes another activation than the layer's";
    }
    if (info.layout_in != OperatorInfo::Layout::Any) {
        const Packing wanted =
            info.layout_in == OperatorInfo::Layout::C4HW4 ? Packing::fours : Packing::planes;
        if (wanted != packing) {
            return std::string("takes ") + packing_text(wanted) + ", the layer gets " +
                   packing_text(packing);
        }
    }
    const std::string window = window_misfit(info, slot);
    if (!window.empty()) return window;
    // The default operators compute several groups as one, with the weights that the file does not
    // have as 0. So do their sisters; the packed forms of the families lay the weights out by one
    // group's numbers.
    if (slot.groups != 1 && is_hand_blocked(info)) {
        return "is for one group, the layer has " + std::to_string(slot.groups);
    }
    const std::string size = size_misfit(info, slot);
    if (!size.empty()) return size;
    for (const std::string& text :
         {multiple_misfit("output channels", info.output_multiple, slot.out.c),
          multiple_misfit("input channels", info.input_multiple, slot.in.c),
          tile_misfit(info, slot)}) {
        if (!text.empty()) return text;
    }
    if (info.bias == OperatorInfo::Bias::Needed && !slot.has_bias) {
        return "reads a bias, the layer has none";
    }
    if (packing == Packing::planes && packing_behind(info, packing) == Packing::fours &&
        slot.in.c % 4 != 0) {
        return "packs channels in fours, the layer has " + std::to_string(slot.in.c);
    }
    if (slot.layer == "Upsampling" && packing == Packing::fours && slot.scale != 2.0 &&
        !(slot.scale == 4.0 && slot.mode == 0)) {
        return "enlarges four channels side by side twice, or four times without interpolation";
    }
    if (slot.layer == "Pooling" && std::strstr(info.name, "Average") != nullptr && slot.mode != 0) {
        return "averages, the layer takes the maximum";
    }
    if (!machine_has(info.isa)) {
        return std::string("needs ") + instruction_set_text(info.isa) +
               ", which this machine does not have";
    }
    return "";
}

std::string misfit_without_operator(const TableSlot& slot, Packing packing) {
    if (packing == Packing::planes) return "";
    // Whole channels one behind the other: blocks of four do as well, as long as the first bottom
    // has more than one. A single block counts as two-dimensional, and its rows would be joined.
    if (slot.layer == "Concat" && slot.axis == 0 && slot.in.c > 4) return "";
    return "takes CHW, the layer gets C4HW4";
}

Packing packing_behind(const OperatorInfo& info, Packing packing) {
    switch (info.layout_out) {
        case OperatorInfo::Layout::CHW:
            return Packing::planes;
        case OperatorInfo::Layout::C4HW4:
            return Packing::fours;
        default:
            return packing;
    }
}

const char* packing_text(Packing packing) {
    return packing == Packing::planes ? "CHW" : "C4HW4";
}

bool machine_has(OperatorInfo::InstructionSet set) {
    switch (set) {
        case OperatorInfo::InstructionSet::Baseline:
            return true;
        case OperatorInfo::InstructionSet::SSE41:
            return __builtin_cpu_supports("sse4.1") != 0;
        case OperatorInfo::InstructionSet::AVX:
            return __builtin_cpu_supports("avx") != 0;
        case OperatorInfo::InstructionSet::FMA:
            return __builtin_cpu_supports("fma") != 0;
        default:
            return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0;
    }
}

const char* instruction_set_text(OperatorInfo::InstructionSet set) {
    switch (set) {
        case OperatorInfo::InstructionSet::Baseline:
            return "SSE2";
        case OperatorInfo::InstructionSet::SSE41:
            return "SSE4.1";
        case OperatorInfo::InstructionSet::AVX:
            return "AVX";
        case OperatorInfo::InstructionSet::FMA:
            return "FMA";
        default:
            return "AVX2";
    }
}

}  // namespace tool
