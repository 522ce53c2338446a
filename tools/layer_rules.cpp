#include "layer_rules.h"

#include <crossplatform/src/common/src/half_float.h>

#include <algorithm>
#include <climits>
#include <cmath>

namespace tool {
namespace {

[[noreturn]] void refuse(const std::string& expected, const std::string& found) {
    throw LayerRefused{"expected " + expected + ", found " + found};
}

std::string text_of(int64_t number) {
    return std::to_string(number);
}

std::string pair_text(int64_t w, int64_t h) {
    return text_of(w) + "x" + text_of(h);
}

const char* activation_name(int kind) {
    switch (kind) {
        case ActivationType_None:
            return "";
        case ActivationType_Linear:
            return "Linear";
        case ActivationType_ReLU:
            return "ReLU";
        case ActivationType_Tanh:
            return "Tanh";
        case ActivationType_Sigmoid:
            return "Sigmoid";
        case ActivationType_LeakyReLU:
            return "LeakyReLU";
        case ActivationType_SoftMax:
            return "SoftMax";
        case ActivationType_ReLU6:
            return "ReLU6";
        default:
            return nullptr;
    }
}

std::string activation_text(int kind) {
    const char* name = activation_name(kind);
    return name != nullptr ? name : "kind " + text_of(kind);
}

/// The softmax kernel goes over channels and takes no other tensor.
void check_activation(int kind, const TensorSize& size) {
    if (activation_name(kind) == nullptr) {
        refuse("an activation of kind 0 to 4 or 6 to 8", "kind " + text_of(kind));
    }
    if (kind == ActivationType_SoftMax && (size.h != 1 || size.w != 1)) {
        refuse("a tensor of Cx1x1 for SoftMax", size_text(size));
    }
}

void check_input_channels(int64_t of_record, const TensorSize& bottom) {
    if (of_record != bottom.c) {
        refuse(text_of(of_record) + " input channels", text_of(bottom.c));
    }
}

/// A dense layer leaves its outputs as one row; the layers behind it still call them channels.
bool has_channels(const TensorSize& size, int64_t channels) {
    return size.c == channels || (size.c == 1 && size.h == 1 && size.w == channels);
}

void check_row_or_channels(int64_t of_record, const TensorSize& bottom) {
    if (!has_channels(bottom, of_record)) check_input_channels(of_record, bottom);
}

void check_output_channels(int64_t of_record, const TensorSize& top) {
    if (!has_channels(top, of_record)) {
        refuse(text_of(of_record) + " output channels", text_of(top.c) + " in " + size_text(top));
    }
}

/// Kernel, stride and dilation of a window, all in the record's own members.
void check_window(const Window& window) {
    if (window.kernel_w < 1 || window.kernel_h < 1) {
        refuse("a kernel of at least 1x1", pair_text(window.kernel_w, window.kernel_h));
    }
    if (window.stride_w < 1 || window.stride_h < 1) {
        refuse("a stride of at least 1x1", pair_text(window.stride_w, window.stride_h));
    }
    if (window.dilation_w < 1 || window.dilation_h < 1) {
        refuse("a dilation of at least 1x1", pair_text(window.dilation_w, window.dilation_h));
    }
}

struct Extent {
    int64_t w;
    int64_t h;
};

Extent kernel_extent(const Window& window) {
    return {(int64_t{window.kernel_w} - 1) * window.dilation_w + 1,
            (int64_t{window.kernel_h} - 1) * window.dilation_h + 1};
}

int64_t taps_of(const Window& window) {
    return int64_t{window.kernel_w} * window.kernel_h;
}

/// Bytes of a tensor with a border, 0 when there is none and no copy is made.
int64_t border_bytes(const TensorSize& size, int64_t more_w, int64_t more_h) {
    if (more_w == 0 && more_h == 0) return 0;
    return saturated_product({size.c, size.h + more_h, size.w + more_w, 4});
}

bool is_1_and_1(int w, int h) {
    return w == 1 && h == 1;
}
bool is_2_and_2(int w, int h) {
    return w == 2 && h == 2;
}

// Conv2D ----------------------------------------------------------------------------------------

void size_conv2d(const ZQLayerInfo_Conv2D& record, const TensorSize& bottom, PlannedLayer& layer) {
    const Window& window = *layer.window;
    check_window(window);
    check_input_channels(record.in_shape->channels, bottom);
    const int64_t in = bottom.c;
    const int64_t out = record.out_shape->channels;
    const int64_t taps = taps_of(window);
    const Extent extent = kernel_extent(window);
    const bool dense = is_1_and_1(window.dilation_w, window.dilation_h);
    const bool stride_1 = is_1_and_1(window.stride_w, window.stride_h);
    const bool stride_2 = is_2_and_2(window.stride_w, window.stride_h);
    const bool kernel_3 = window.kernel_w == 3 && window.kernel_h == 3;
    const bool kernel_1 = is_1_and_1(window.kernel_w, window.kernel_h);
    const bool as_matrix = dense && (kernel_3 || kernel_1) && (stride_1 || stride_2);

    TensorSize top{out, bottom.h / window.stride_h, bottom.w / window.stride_w};
    if (as_matrix && kernel_3 && stride_1) {
        if (window.pad_w == 0) top.w = bottom.w - 2;
        if (window.pad_h == 0) top.h = bottom.h - 2;
    }
    layer.scratch_bytes = border_bytes(bottom, 2 * window.pad_w, 2 * window.pad_h);
    if (as_matrix && !(kernel_1 && stride_1)) {
        const int64_t columns = saturated_product(
            {in, taps, std::max<int64_t>(top.h, 0), std::max<int64_t>(top.w, 0), 4});
        layer.scratch_bytes = saturated_sum(layer.scratch_bytes, columns);
    }
    layer.size = top;
    layer.weight_bytes = saturated_product({in, out, taps, 4});
    layer.multiply_adds = saturated_product(
        {in, out, taps, std::max<int64_t>(top.h, 0), std::max<int64_t>(top.w, 0)});
    check_activation(record.activation, top);

    if (record.effective_groups() != 1) {
        layer.notes.push_back("groups " + text_of(record.effective_groups()) +
                              ": the CPU engine computes it as one group, with weights that the "
                              "file does not have read as 0");
    }
    if (kernel_1 && dense && stride_2 && (bottom.w % 2 != 0 || bottom.h % 2 != 0)) {
        layer.notes.push_back("1x1 with stride 2 is made for even sizes, found " +
                              pair_text(bottom.w, bottom.h));
    }
    if (!as_matrix) {
        const int64_t needed_w = (top.w - 1) * window.stride_w + extent.w;
        const int64_t needed_h = (top.h - 1) * window.stride_h + extent.h;
        if (needed_w > bottom.w + 2 * window.pad_w || needed_h > bottom.h + 2 * window.pad_h) {
            layer.notes.push_back("the padding is too small for the output of " +
                                  pair_text(top.w, top.h) +
                                  ": windows at the border reach into the next row");
        }
    }
}

// Conv2DTranspose and DepthWiseConv2DTranspose ---------------------------------------------------

/// The kernels scatter into a tensor of stride * size + 2, whatever the kernel, and cut the padding
/// off it.
void size_transposed(const TensorSize& bottom, int64_t out, PlannedLayer& layer) {
    const Window& window = *layer.window;
    const TensorSize scattered{out, window.stride_h * bottom.h + 2, window.stride_w * bottom.w + 2};
    TensorSize top = scattered;
    if (window.pad_w > 0 || window.pad_h > 0) {
        top.h -= 2 * window.pad_h;
        top.w -= 2 * window.pad_w;
        layer.scratch_bytes = saturated_product({scattered.c, scattered.h, scattered.w, 4});
    }
    layer.size = top;
    const Extent extent = kernel_extent(window);
    if (extent.w > window.stride_w + 2 || extent.h > window.stride_h + 2) {
        layer.notes.push_back(
            "a kernel of more than the stride and 2 runs into the next row: kernel " +
            pair_text(extent.w, extent.h) + ", stride " +
            pair_text(window.stride_w, window.stride_h));
    }
}

void size_conv2d_transpose(const ZQLayerInfo_Conv2DTranspose& record, const TensorSize& bottom,
                           PlannedLayer& layer) {
    check_window(*layer.window);
    check_input_channels(record.in_shape->channels, bottom);
    const int64_t out = record.out_shape->channels;
    size_transposed(bottom, out, layer);
    check_activation(record.activation, *layer.size);
    const int64_t weights = saturated_product({bottom.c, out, taps_of(*layer.window)});
    layer.weight_bytes = saturated_product({weights, 4});
    layer.multiply_adds = saturated_product({weights, bottom.h, bottom.w});
    if (record.effective_groups() != 1) {
        layer.notes.push_back("groups " + text_of(record.effective_groups()) +
                              ": the CPU engine computes it as one group, with weights that the "
                              "file does not have read as 0");
    }
}

// DepthWiseConv2D and its transpose --------------------------------------------------------------

/// Both kinds have one record layout.
template <typename Record>
void check_depthwise(const Record& record, const TensorSize& bottom, PlannedLayer& layer) {
    check_window(*layer.window);
    check_input_channels(record.in_shape->channels, bottom);
    if (record.depth_multiplier < 1) {
        refuse("a depth multiplier of at least 1", text_of(record.depth_multiplier));
    }
    const int64_t filters = bottom.c * record.depth_multiplier;
    if (record.out_shape->channels != filters) {
        refuse(text_of(filters) + " output channels", text_of(record.out_shape->channels));
    }
    layer.weight_bytes =
        saturated_product({filters, record.depth_multiplier, taps_of(*layer.window), 4});
}

void size_depthwise(const ZQLayerInfo_DepthWiseConv2D& record, const TensorSize& bottom,
                    PlannedLayer& layer) {
    check_depthwise(record, bottom, layer);
    const Window& window = *layer.window;
    const Extent extent = kernel_extent(window);
    const int64_t w = bottom.w + 2 * window.pad_w;
    const int64_t h = bottom.h + 2 * window.pad_h;
    if (extent.w > w || extent.h > h) {
        refuse("a kernel of at most " + pair_text(w, h), pair_text(extent.w, extent.h));
    }
    const TensorSize top{record.out_shape->channels, (h - extent.h) / window.stride_h + 1,
                         (w - extent.w) / window.stride_w + 1};
    layer.size = top;
    layer.scratch_bytes = border_bytes(bottom, 2 * window.pad_w, 2 * window.pad_h);
    layer.multiply_adds = saturated_product({top.c, top.h, top.w, taps_of(window)});
    check_activation(record.activation, top);
}

void size_depthwise_transpose(const ZQLayerInfo_DepthWiseConv2DTranspose& record,
                              const TensorSize& bottom, PlannedLayer& layer) {
    check_depthwise(record, bottom, layer);
    const int64_t out = record.out_shape->channels;
    size_transposed(bottom, out, layer);
    layer.multiply_adds = saturated_product({out, bottom.h, bottom.w, taps_of(*layer.window)});
    check_activation(record.activation, *layer.size);
}

// Shape and element layers -----------------------------------------------------------------------

void size_pixel_shuffle(const ZQLayerInfo_PixelShuffle& record, const TensorSize& bottom,
                        PlannedLayer& layer) {
    const float scale = Tarno::half_to_float(record.upscale_factor);
    check_input_channels(record.in_shape->channels, bottom);
    if (!(scale > 0.0f) || !std::isfinite(scale)) {
        refuse("a factor above 0", fixed(scale, 6));
    }
    if (scale >= 1.0f) {
        const int64_t r = static_cast<int64_t>(scale);
        if (bottom.c % (r * r) != 0) {
            refuse("input channels divisible by " + text_of(r * r), text_of(bottom.c));
        }
        layer.size = TensorSize{bottom.c / (r * r), bottom.h * r, bottom.w * r};
    } else {
        const int64_t r = static_cast<int64_t>(1.0f / scale);
        if (bottom.h % r != 0 || bottom.w % r != 0) {
            refuse("sides divisible by " + text_of(r), pair_text(bottom.w, bottom.h));
        }
        layer.size = TensorSize{saturated_product({bottom.c, r, r}), bottom.h / r, bottom.w / r};
    }
    check_output_channels(record.out_shape->channels, *layer.size);
}

void size_pooling(const ZQLayerInfo_Pooling& record, const TensorSize& bottom,
                  PlannedLayer& layer) {
    const Window& window = *layer.window;
    check_window(window);
    if (record.pool_type > 1) {
        refuse("pooling of type 0 (average) or 1 (maximum)", "type " + text_of(record.pool_type));
    }
    check_input_channels(record.in_shape->channels, bottom);
    // The margins come to the operator as left, right, top, bottom, and the record's two numbers as
    // width, height, width, height: both directions get one of each.
    const int64_t margins = int64_t{window.pad_w} + window.pad_h;
    const int64_t w = bottom.w + margins;
    const int64_t h = bottom.h + margins;
    if (window.kernel_w > w || window.kernel_h > h) {
        refuse("a kernel of at most " + pair_text(w, h),
               pair_text(window.kernel_w, window.kernel_h));
    }
    layer.size = TensorSize{bottom.c, (h - window.kernel_h) / window.stride_h + 1,
                            (w - window.kernel_w) / window.stride_w + 1};
    layer.scratch_bytes = border_bytes(bottom, margins, margins);
    layer.work = saturated_product({layer.size->c, layer.size->h, layer.size->w, taps_of(window)});
    check_output_channels(record.out_shape->channels, *layer.size);
    if (window.pad_w != window.pad_h) {
        layer.notes.push_back("padding " + pair_text(window.pad_w, window.pad_h) +
                              ": the CPU engine "
                              "pads the left and the top by the first number, the right and the "
                              "bottom by the second");
    }
}

void size_batch_normalization(const ZQLayerInfo_BatchNormalization& record,
                              const TensorSize& bottom, PlannedLayer& layer) {
    // Channels, or with one channel the rows, or with one row the elements have a factor each.
    const int64_t factors = bottom.c > 1 ? bottom.c : bottom.h > 1 ? bottom.h : bottom.w;
    if (record.in_shape->channels != factors) {
        refuse(text_of(record.in_shape->channels) +
                   " channels (of one channel: rows, of one row: "
                   "elements)",
               text_of(factors) + " in " + size_text(bottom));
    }
    layer.size = bottom;
    layer.weight_bytes = saturated_product({factors, 6, 4});
    layer.multiply_adds = bottom.elements();
}

void size_activation(int kind, const TensorSize& bottom, PlannedLayer& layer) {
    if (kind == ActivationType_None) refuse("an activation", "kind 0, none");
    check_activation(kind, bottom);
    layer.size = bottom;
}

void size_region(const ZQLayerInfo_Region& record, const TensorSize& bottom, PlannedLayer& layer) {
    check_input_channels(record.in_shape->channels, bottom);
    layer.size = bottom;
    const int64_t entries = int64_t{record.region_b} + record.region_c + 1;
    // A table of offsets, on the heap for the length of the call.
    layer.scratch_bytes = saturated_product({entries, 8});
    const int64_t cells = 11 * 11;
    const int64_t anchors =
        std::min<int64_t>(record.region_a, bottom.elements() / entries / 124 + 1);
    layer.work = saturated_product({anchors, entries + 3, cells});
    const int64_t channels = record.region_a * entries;
    if (bottom.c != channels || bottom.h != 11 || bottom.w != 11) {
        layer.notes.push_back("made for a tensor of " + size_text({channels, 11, 11}) + ", found " +
                              size_text(bottom));
    }
}

void size_eltwise(const ZQLayerInfo_ElementWiseOperator& record,
                  const std::vector<TensorSize>& bottoms, PlannedLayer& layer) {
    if (record.operator_type != 0 && record.operator_type != 2) {
        refuse("an operation of type 0 (sum) or 2 (product)",
               "type " + text_of(record.operator_type));
    }
    if (bottoms.size() < 2) refuse("at least 2 bottoms", text_of(bottoms.size()));
    for (const TensorSize& bottom : bottoms) {
        if (bottom != bottoms[0]) {
            refuse("bottoms of one size, " + size_text(bottoms[0]), size_text(bottom));
        }
    }
    layer.size = bottoms[0];
    check_output_channels(record.out_shape->channels, bottoms[0]);
    check_activation(record.activation, bottoms[0]);
}

void size_concat(const ZQLayerInfo_Concatenate& record, const std::vector<TensorSize>& bottoms,
                 PlannedLayer& layer) {
    if (bottoms.empty()) refuse("at least 1 bottom", "none");
    const TensorSize& first = bottoms[0];
    for (size_t i = 0; i < bottoms.size(); ++i) {
        check_row_or_channels(record.in_shapes[i].channels, bottoms[i]);
    }
    // The axis counts from the first dimension that is more than 1.
    const int dims = first.c > 1 ? 3 : first.h > 1 ? 2 : 1;
    if (dims > 1 && record.axis >= dims) {
        refuse("an axis below " + text_of(dims) + " for bottoms of " + size_text(first),
               text_of(record.axis));
    }
    const int joined = dims == 1 ? 2 : record.axis + 3 - dims;  // 0 channels, 1 rows, 2 columns
    TensorSize sum = first;
    for (size_t i = 1; i < bottoms.size(); ++i) {
        const TensorSize& bottom = bottoms[i];
        const bool fits = (joined == 0 || bottom.c == first.c) &&
                          (joined == 1 || bottom.h == first.h) &&
                          (joined == 2 || bottom.w == first.w);
        if (!fits) {
            refuse("bottoms that differ only along axis " + text_of(record.axis) + " from " +
                       size_text(first),
                   size_text(bottom));
        }
        if (joined == 0) sum.c += bottom.c;
        if (joined == 1) sum.h += bottom.h;
        if (joined == 2) sum.w += bottom.w;
    }
    layer.size = sum;
    check_output_channels(record.out_shape->channels, sum);
}

void size_upsampling(const ZQLayerInfo_Upsampling& record, const TensorSize& bottom,
                     PlannedLayer& layer) {
    const float scale = Tarno::half_to_float(record.scale);
    check_input_channels(record.in_shape->channels, bottom);
    if (scale != 2.0f && scale != 4.0f && scale != 8.0f) {
        refuse("a scale of 2, 4 or 8", fixed(scale, 6));
    }
    if (record.mode > 1) {
        refuse("mode 0 (nearest) or 1 (bilinear)", "mode " + text_of(record.mode));
    }
    if (record.mode == 0 && scale == 8.0f) refuse("a scale of 2 or 4 for mode 0 (nearest)", "8");
    const int64_t factor = static_cast<int64_t>(scale);
    const TensorSize top{bottom.c, bottom.h * factor, bottom.w * factor};
    layer.size = top;
    check_output_channels(record.out_shape->channels, top);
    if (record.mode == 1 && factor == 2 && bottom.c % 4 == 0) {
        layer.scratch_bytes = saturated_sum(saturated_product({bottom.c, bottom.h, bottom.w, 4}),
                                            saturated_product({top.c, top.h, top.w, 4}));
    }
    if (record.mode == 1 && factor != 2 && record.align == 0) {
        layer.notes.push_back("bilinear by " + text_of(factor) +
                              " without aligned corners: the CPU "
                              "engine fills the whole output with the first element");
    }
}

// Layers of absolute sizes -----------------------------------------------------------------------

void size_tensor_reshape(const ZQLayerInfo_TensorReshape& record, const TensorSize& bottom,
                         PlannedLayer& layer) {
    const int rank = std::min<int>(record.out_tensor.rank, 11);
    int dims = 0;
    for (int i = 0; i < rank; ++i) dims += record.out_tensor.dims[i] != 0 ? 1 : 0;
    TensorSize top{1, 1, bottom.w};
    if (dims >= 2 && dims <= 4) {
        top.w = record.out_tensor.dims[dims - 1];
        if (top.w != bottom.elements()) {
            refuse("a last dimension of all " + text_of(bottom.elements()) + " elements of " +
                       size_text(bottom),
                   text_of(top.w));
        }
    } else if (top.w != bottom.elements()) {
        layer.notes.push_back("keeps the first row of " + size_text(bottom) +
                              " and drops the rest");
    }
    layer.size = top;
}

void size_full_connection(const ZQLayerInfo_FullConnection& record, const TensorSize& bottom,
                          PlannedLayer& layer) {
    if (record.num_input < 1 || record.num_output < 1) {
        refuse("at least 1 input and 1 output",
               text_of(record.num_input) + " and " + text_of(record.num_output));
    }
    if (bottom.elements() != record.num_input) {
        refuse(text_of(record.num_input) + " inputs",
               text_of(bottom.elements()) + " in " + size_text(bottom));
    }
    layer.size = TensorSize{1, 1, record.num_output};
    layer.multiply_adds = saturated_product({record.num_input, record.num_output});
    layer.weight_bytes = saturated_product({layer.multiply_adds, 4});
    if (record.num_input % 4 != 0) {
        layer.notes.push_back("the CPU engine leaves out the last " +
                              text_of(record.num_input % 4) + " of " + text_of(record.num_input) +
                              " inputs: it takes them in fours");
    }
}

void size_lstm(const ZQLayerInfo_LSTM& record, const TensorSize& bottom, PlannedLayer& layer) {
    if (record.hidden_size < 1 || record.input_size < 1 || record.num_layers < 1) {
        refuse("input size, hidden size and layers of at least 1",
               text_of(record.input_size) + ", " + text_of(record.hidden_size) + " and " +
                   text_of(record.num_layers));
    }
    if (bottom.h * bottom.w != record.input_size) {
        refuse(text_of(record.input_size) + " values for each time step",
               text_of(bottom.h * bottom.w) + " in " + size_text(bottom));
    }
    const int64_t directions = record.bidirectional != 0 ? 2 : 1;
    const int64_t hidden = record.hidden_size;
    layer.size = TensorSize{bottom.c, 1, directions * hidden};
    const int64_t step = saturated_product({4, directions, hidden, record.input_size + hidden});
    layer.multiply_adds = saturated_product({step, bottom.c});
    // The biases of both directions are there in any case.
    layer.weight_bytes =
        saturated_product({saturated_sum(step, 16 * hidden), record.num_layers, 4});
    layer.scratch_bytes = 2 * hidden * 4;
    if (record.num_layers > 1) {
        layer.notes.push_back(text_of(record.num_layers) +
                              " layers: the CPU engine runs the first alone");
    }
}

template <typename Record>
Window dilated_window_of(const Record& record) {
    Window window = window_of(record);
    window.dilation_w = record.dilation_w;
    window.dilation_h = record.dilation_h;
    return window;
}

/// Weights, and the bias where it is used: the file has one in any case.
template <typename Record>
int64_t parameters_of(const Record& record) {
    return static_cast<int64_t>(record.weights_count +
                                (record.has_bias != 0 ? record.bias_count : 0));
}

std::string groups_text(unsigned int groups) {
    return groups == 1 ? "" : "groups " + text_of(groups);
}

/// "2" of 2.0, else with its fraction.
std::string factor_text(unsigned short half) {
    const float factor = Tarno::half_to_float(half);
    const bool whole = std::isfinite(factor) && factor == std::floor(factor);
    return fixed(factor, whole ? 0 : 3);
}

std::string dims_text(const tensor28& tensor) {
    std::string text;
    for (int i = 0; i < std::min<int>(tensor.rank, 11); ++i) {
        text += (i > 0 ? "x" : "") + text_of(tensor.dims[i]);
    }
    return text;
}

}  // namespace

int64_t saturated_product(std::initializer_list<int64_t> factors) {
    int64_t product = 1;
    for (const int64_t factor : factors) {
        if (factor == 0) return 0;
        product = product > INT64_MAX / factor ? INT64_MAX : product * factor;
    }
    return product;
}

int64_t saturated_sum(int64_t a, int64_t b) {
    return a > INT64_MAX - b ? INT64_MAX : a + b;
}

int64_t checked_tensor_bytes(const TensorSize& size) {
    if (size.c < 1 || size.h < 1 || size.w < 1) {
        refuse("an output of at least 1x1x1", size_text(size));
    }
    // Allocators count in 32 bits, with the reference counter behind the elements.
    const int64_t bytes = saturated_product({size.c, size.h, size.w, 4});
    if (bytes > int64_t{UINT_MAX} - 7) {
        refuse("a tensor of less than 4 GiB", size_text(size));
    }
    return bytes;
}

std::string size_text(const TensorSize& size) {
    return text_of(size.c) + "x" + text_of(size.h) + "x" + text_of(size.w);
}

void describe_layer(const ZQLayerInfo& info, PlannedLayer& layer) {
    layer.id = info.id;
    layer.type = info.type;
    layer.kind = zq_layer_type_name(info.type);
    for (int i = 0; i < info.bottom_count; ++i) layer.bottoms.push_back(info.bottoms[i]);
    switch (info.type) {
        case ZQLayerType_Input:
            layer.detail =
                "input " + text_of(static_cast<const ZQLayerInfo_Input&>(info).input_index);
            break;
        case ZQLayerType_TensorInput:
            layer.detail =
                "input " + text_of(static_cast<const ZQLayerInfo_TensorInput&>(info).input_index);
            break;
        case ZQLayerType_Conv2D: {
            const auto& record = static_cast<const ZQLayerInfo_Conv2D&>(info);
            layer.window = dilated_window_of(record);
            layer.activation = activation_text(record.activation);
            layer.detail = groups_text(record.effective_groups());
            layer.parameters = parameters_of(record);
            break;
        }
        case ZQLayerType_Conv2DTranspose: {
            const auto& record = static_cast<const ZQLayerInfo_Conv2DTranspose&>(info);
            layer.window = window_of(record);
            layer.activation = activation_text(record.activation);
            layer.detail = groups_text(record.effective_groups());
            layer.parameters = parameters_of(record);
            break;
        }
        case ZQLayerType_DepthWiseConv2D: {
            const auto& record = static_cast<const ZQLayerInfo_DepthWiseConv2D&>(info);
            layer.window = dilated_window_of(record);
            layer.activation = activation_text(record.activation);
            if (record.depth_multiplier != 1) {
                layer.detail = "multiplier " + text_of(record.depth_multiplier);
            }
            layer.parameters = parameters_of(record);
            break;
        }
        case ZQLayerType_DepthWiseConv2DTranspose: {
            const auto& record = static_cast<const ZQLayerInfo_DepthWiseConv2DTranspose&>(info);
            layer.window = dilated_window_of(record);
            layer.activation = activation_text(record.activation);
            if (record.depth_multiplier != 1) {
                layer.detail = "multiplier " + text_of(record.depth_multiplier);
            }
            layer.parameters = parameters_of(record);
            break;
        }
        case ZQLayerType_PixelShuffle:
            layer.detail =
                "by " +
                factor_text(static_cast<const ZQLayerInfo_PixelShuffle&>(info).upscale_factor);
            break;
        case ZQLayerType_Pooling: {
            const auto& record = static_cast<const ZQLayerInfo_Pooling&>(info);
            layer.window = window_of(record);
            layer.detail = record.pool_type == 1   ? "maximum"
                           : record.pool_type == 0 ? "average"
                                                   : "type " + text_of(record.pool_type);
            break;
        }
        case ZQLayerType_BatchNormalization:
            layer.parameters =
                4 * static_cast<int64_t>(
                        static_cast<const ZQLayerInfo_BatchNormalization&>(info).bn_count);
            break;
        case ZQLayerType_Activation:
            layer.activation =
                activation_text(static_cast<const ZQLayerInfo_Activation&>(info).activation_type);
            break;
        case ZQLayerType_TensorActivation:
            layer.activation = activation_text(
                static_cast<const ZQLayerInfo_TensorActivation&>(info).activation_type);
            break;
        case ZQLayerType_Region: {
            const auto& record = static_cast<const ZQLayerInfo_Region&>(info);
            layer.detail = text_of(record.region_a) + " anchors, " + text_of(record.region_b) +
                           " coordinates, " + text_of(record.region_c) + " classes";
            break;
        }
        case ZQLayerType_ElementWiseOperator: {
            const auto& record = static_cast<const ZQLayerInfo_ElementWiseOperator&>(info);
            layer.activation = activation_text(record.activation);
            layer.detail = record.operator_type == 0   ? "sum"
                           : record.operator_type == 2 ? "product"
                                                       : "type " + text_of(record.operator_type);
            break;
        }
        case ZQLayerType_Concatenate:
            layer.detail =
                "axis " + text_of(static_cast<const ZQLayerInfo_Concatenate&>(info).axis);
            break;
        case ZQLayerType_Upsampling: {
            const auto& record = static_cast<const ZQLayerInfo_Upsampling&>(info);
            const std::string mode = record.mode == 0   ? "nearest"
                                     : record.mode == 1 ? "bilinear"
                                                        : "mode " + text_of(record.mode);
            layer.detail = mode + " by " + factor_text(record.scale) +
                           (record.align != 0 ? ", aligned corners" : "");
            break;
        }
        case ZQLayerType_TensorReshape:
            layer.detail =
                "to " + dims_text(static_cast<const ZQLayerInfo_TensorReshape&>(info).out_tensor);
            break;
        case ZQLayerType_FullConnection:
            layer.parameters = parameters_of(static_cast<const ZQLayerInfo_FullConnection&>(info));
            break;
        case ZQLayerType_LSTM: {
            const auto& record = static_cast<const ZQLayerInfo_LSTM&>(info);
            const int64_t directions = record.bidirectional != 0 ? 2 : 1;
            layer.detail = std::string(directions == 2 ? "both directions" : "forward") +
                           (record.num_layers != 1 ? ", layers " + text_of(record.num_layers) : "");
            const int64_t counts =
                static_cast<int64_t>(record.w_ih_count + record.w_hh_count + 2 * record.bias_count);
            layer.parameters = saturated_product({record.num_layers, directions, counts});
            break;
        }
        default:
            break;
    }
}

void size_layer(const ZQLayerInfo& info, const std::vector<TensorSize>& bottoms,
                PlannedLayer& layer) {
    // All but the first two have a place for exactly one bottom in their records.
    switch (info.type) {
        case ZQLayerType_ElementWiseOperator:
            size_eltwise(static_cast<const ZQLayerInfo_ElementWiseOperator&>(info), bottoms, layer);
            break;
        case ZQLayerType_Concatenate:
            size_concat(static_cast<const ZQLayerInfo_Concatenate&>(info), bottoms, layer);
            break;
        case ZQLayerType_Conv2D:
            size_conv2d(static_cast<const ZQLayerInfo_Conv2D&>(info), bottoms.at(0), layer);
            break;
        case ZQLayerType_Conv2DTranspose:
            size_conv2d_transpose(static_cast<const ZQLayerInfo_Conv2DTranspose&>(info),
                                  bottoms.at(0), layer);
            break;
        case ZQLayerType_DepthWiseConv2D:
            size_depthwise(static_cast<const ZQLayerInfo_DepthWiseConv2D&>(info), bottoms.at(0),
                           layer);
            break;
        case ZQLayerType_DepthWiseConv2DTranspose:
            size_depthwise_transpose(static_cast<const ZQLayerInfo_DepthWiseConv2DTranspose&>(info),
                                     bottoms.at(0), layer);
            break;
        case ZQLayerType_PixelShuffle:
            size_pixel_shuffle(static_cast<const ZQLayerInfo_PixelShuffle&>(info), bottoms.at(0),
                               layer);
            break;
        case ZQLayerType_Pooling:
            size_pooling(static_cast<const ZQLayerInfo_Pooling&>(info), bottoms.at(0), layer);
            break;
        case ZQLayerType_BatchNormalization:
            size_batch_normalization(static_cast<const ZQLayerInfo_BatchNormalization&>(info),
                                     bottoms.at(0), layer);
            break;
        case ZQLayerType_Activation:
            check_row_or_channels(info.in_shape->channels, bottoms.at(0));
            size_activation(static_cast<const ZQLayerInfo_Activation&>(info).activation_type,
                            bottoms.at(0), layer);
            break;
        case ZQLayerType_TensorActivation:
            size_activation(static_cast<const ZQLayerInfo_TensorActivation&>(info).activation_type,
                            bottoms.at(0), layer);
            break;
        case ZQLayerType_Region:
            size_region(static_cast<const ZQLayerInfo_Region&>(info), bottoms.at(0), layer);
            break;
        case ZQLayerType_Upsampling:
            size_upsampling(static_cast<const ZQLayerInfo_Upsampling&>(info), bottoms.at(0), layer);
            break;
        case ZQLayerType_TensorReshape:
            size_tensor_reshape(static_cast<const ZQLayerInfo_TensorReshape&>(info), bottoms.at(0),
                                layer);
            break;
        case ZQLayerType_FullConnection:
            size_full_connection(static_cast<const ZQLayerInfo_FullConnection&>(info),
                                 bottoms.at(0), layer);
            break;
        case ZQLayerType_LSTM:
            size_lstm(static_cast<const ZQLayerInfo_LSTM&>(info), bottoms.at(0), layer);
            break;
        default:
            refuse("a layer that the CPU engine has", layer.kind + ", which it has not");
    }
    layer.tensor_bytes = checked_tensor_bytes(*layer.size);
    layer.work = saturated_sum(std::max(layer.work, layer.multiply_adds), layer.size->elements());
}

}  // namespace tool
