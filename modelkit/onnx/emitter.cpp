#include "modelkit/onnx/emitter.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <type_traits>

#include "modelkit/onnx/graph.h"
#include "modelkit/onnx/half_factors.h"
#include "modelkit/onnx/refusal.h"
#include "modelkit/records.h"

namespace modelkit::onnx {

namespace {

// The CPU engine keeps (multiplier - 1) times the weights of a depthwise layer as zeros behind
// them, of no more floats than these in a net.
constexpr int64_t MOST_SPARE_FLOATS = int64_t{1} << 24;
constexpr double INFINITE = std::numeric_limits<double>::infinity();

Range of_activation(int type, const Range& range) {
    switch (type) {
        case ActivationType_ReLU:
            return {std::max(range.low, 0.0), std::max(range.high, 0.0)};
        case ActivationType_ReLU6:
            return {std::clamp(range.low, 0.0, 6.0), std::clamp(range.high, 0.0, 6.0)};
        case ActivationType_LeakyReLU:
            return {std::min(range.low, range.low * 0.1), std::max(range.high, range.high * 0.1)};
        case ActivationType_Sigmoid:
        case ActivationType_SoftMax:
            return {0.0, 1.0};
        case ActivationType_Tanh:
            return {-1.0, 1.0};
        default:
            return range;
    }
}

int bounded(int64_t value, const char* what) {
    require(value >= 0 && value <= 65535,
            std::string(what) + ": at most 65535 expected, found " + std::to_string(value));
    return static_cast<int>(value);
}

unsigned short word(int64_t value, const char* what) {
    return static_cast<unsigned short>(bounded(value, what));
}

int64_t extent_of(int kernel, int dilation) {
    return int64_t{kernel - 1} * dilation + 1;
}

std::string sides_of(const Window& w) {
    return std::to_string(w.kernel_h) + "x" + std::to_string(w.kernel_w);
}

// Nothing of a window without gaps.
std::string dilation_of(const Window& w) {
    if (w.dilation_h == 1 && w.dilation_w == 1) return {};
    return "dilated by " + std::to_string(w.dilation_h) + " and " + std::to_string(w.dilation_w) +
           ", ";
}

size_t taps_of(const Window& w) {
    return static_cast<size_t>(w.kernel_w) * static_cast<size_t>(w.kernel_h);
}

tensor28 tensor_of(const std::vector<int>& dims) {
    tensor28 tensor = {};
    tensor.rank = static_cast<unsigned short>(dims.size());
    for (size_t i = 0; i < dims.size(); ++i) tensor.dims[i] = word(dims[i], "a dimension");
    return tensor;
}

// How the records with sizes in numbers describe a tensor of the engine.
tensor28 tensor_of(const Extent& size) {
    if (size.c == 1 && size.h == 1) return tensor_of(std::vector<int>{1, size.w});
    if (size.h == 1) return tensor_of(std::vector<int>{size.c, size.w});
    return tensor_of(std::vector<int>{size.c, size.h, size.w});
}

}  // namespace

std::string text_of(const Extent& extent) {
    return std::to_string(extent.c) + "x" + std::to_string(extent.h) + "x" +
           std::to_string(extent.w);
}

Range Range::with(double value) const {
    return {std::min(low, value), std::max(high, value)};
}

Range Range::with(const Range& other) const {
    return {std::min(low, other.low), std::max(high, other.high)};
}

Emitter::Emitter(const ModelHeader& header, Engines engines, int64_t most_numbers)
    : header(header),
      chosen(engines),
      numbers_left(static_cast<uint64_t>(most_numbers)),
      most_numbers(most_numbers),
      spare_floats(MOST_SPARE_FLOATS),
      writer(header),
      gpu_rules(header.base_w, header.base_h) {}

shape3 Emitter::shape(const Extent& size) {
    const auto half = [](int pixels, unsigned int base) {
        const double factor = static_cast<double>(pixels) / static_cast<double>(base);
        const unsigned short pattern = Tarno::float_to_half(static_cast<float>(factor));
        require((pattern & 0x7c00u) != 0x7c00u, "a size of " + std::to_string(pixels) +
                                                    " is beyond what a half can relate to " +
                                                    std::to_string(base));
        return pattern;
    };
    return {half(size.w, header.base_w), half(size.h, header.base_h), word(size.c, "channels")};
}

void Emitter::take_numbers(uint64_t count) {
    require(count <= numbers_left,
            "at most " + std::to_string(most_numbers) +
                " weights in all layers of a file of this size expected, found " +
                std::to_string(static_cast<uint64_t>(most_numbers) - numbers_left + count));
    numbers_left -= count;
    // And a record's other fields.
    writer.reserve(static_cast<size_t>(count) * 2 + 1024);
}

template <typename Record>
void Emitter::read(Record& record, const Blob& bottom, const Extent& size) {
    record.bottoms[0] = static_cast<unsigned short>(bottom.layer);
    if constexpr (std::is_base_of_v<ZQFreezedLayerInfo, Record>) {
        record.in_tensors[0] = tensor_of(bottom.size);
        record.out_tensor = tensor_of(size);
    } else {
        *record.in_shape = shape(bottom.size);
        *record.out_shape = shape(size);
    }
}

template <typename Record>
void Emitter::set_window(Record& record, const Window& window) {
    record.kernel_w = word(window.kernel_w, "kernel width");
    record.kernel_h = word(window.kernel_h, "kernel height");
    record.pad_w = word(window.pad_w, "padding");
    record.pad_h = word(window.pad_h, "padding");
    record.stride_w = word(window.stride_w, "stride");
    record.stride_h = word(window.stride_h, "stride");
}

template <typename Record>
Blob Emitter::finish_weights(Record& record, const Extent& size, const Range& range, size_t rows,
                             size_t length, const WeightRows& weights,
                             const std::vector<float>& bias) {
    take_numbers(uint64_t{rows} * length + bias.size());
    record.weights_count = rows * length;
    record.bias_count = bias.size();
    return finish(record, size, range, [&](const std::string& array, size_t, const PutHalves& put) {
        Rounding rounding;
        if (array == "weights") {
            round_rows("weights", rows, length, weights, put, rounding);
            expect_kept(record.type, rounding.squares, rounding.squared_errors);
        } else {
            const auto all = [&](size_t, float* to) { std::copy(bias.begin(), bias.end(), to); };
            round_rows("bias", 1, bias.size(), all, put, rounding);
        }
        count_rounding(rounding);
    });
}

template <typename Record>
Blob Emitter::finish(Record& record, const Extent& size, const Range& range,
                     const ArraySource& source) {
    require(size.c > 0 && size.h > 0 && size.w > 0,
            "an output of at least 1x1x1 expected, found " + text_of(size));
    require(size.elements() <= (int64_t{1} << 30),
            "at most 2^30 numbers in a tensor expected, found " + text_of(size));
    const int id = bounded(static_cast<int64_t>(reports.size()), "the number of layers");
    record.id = static_cast<unsigned short>(id);
    if (for_gpu()) {
        const std::string fault = gpu_rules.fault(record);
        require(fault.empty(), fault);
    }
    const Status added = writer.add(record, source);
    require(added.ok(), added.message());
    current.id = id;
    current.type = record.type;
    current.elements = size.elements();
    current.node = node;
    if (squared_weights > 0) current.mean_error = std::sqrt(squared_errors / squared_weights);
    reports.push_back(current);
    current = LayerReport();
    squared_weights = squared_errors = 0;
    return {id, size, range};
}

Blob Emitter::input(const Extent& size) {
    ZQLayerInfo_Input record;
    *record.out_shape = shape(size);
    // The size of an input is the product cut off, not rounded: a factor may not be too small.
    const auto reach = [](unsigned short& factor, unsigned int base, int pixels) {
        while (static_cast<float>(base) * Tarno::half_to_float(factor) <
               static_cast<float>(pixels)) {
            ++factor;
        }
    };
    reach(record.out_shape->scale_x, header.base_w, size.w);
    reach(record.out_shape->scale_y, header.base_h, size.h);
    record.input_index = word(inputs++, "inputs");
    return finish(record, size, Range());
}

Blob Emitter::tensor_input(const std::vector<int>& dims) {
    ZQLayerInfo_TensorInput record;
    record.out_tensor = tensor_of(dims);
    record.input_index = word(inputs++, "inputs");
    Extent size = {1, 1, dims.back()};
    if (dims.size() == 2) size.c = dims[0];
    if (dims.size() == 3) size = {dims[0], dims[1], dims[2]};
    return finish(record, size, Range());
}

Blob Emitter::conv(const Blob& bottom, int out_channels, const Window& w, const WeightRows& weights,
                   const std::vector<float>& bias, int activation) {
    ZQLayerInfo_Conv2D record;
    // The engine's default rule gives the four frequent shapes to operators that keep the size, or
    // take the kernel's margin off where there is no padding; all others divide by the stride.
    Extent size = {out_channels, bottom.size.h / w.stride_h, bottom.size.w / w.stride_w};
    const bool plain = w.dilation_w == 1 && w.dilation_h == 1 && w.stride_w == 1 && w.stride_h == 1;
    if (plain && w.kernel_w == 3 && w.kernel_h == 3) {
        if (w.pad_w == 0) size.w -= 2;
        if (w.pad_h == 0) size.h -= 2;
    }
    read(record, bottom, size);
    set_window(record, w);
    record.dilation_w = word(w.dilation_w, "dilation");
    record.dilation_h = word(w.dilation_h, "dilation");
    record.has_bias = bias.empty() ? 0 : 1;
    record.activation = static_cast<unsigned short>(activation);
    record.groups = 1;
    std::vector<float> stored_bias = bias;
    stored_bias.resize(static_cast<size_t>(out_channels));
    return finish_weights(record, size, of_activation(activation, Range()),
                          static_cast<size_t>(out_channels) * taps_of(w),
                          static_cast<size_t>(bottom.size.c), weights, stored_bias);
}

Blob Emitter::depthwise(const Blob& bottom, int multiplier, const Window& w,
                        const WeightRows& weights, const std::vector<float>& bias, int activation) {
    ZQLayerInfo_DepthWiseConv2D record;
    const int64_t room_w = bottom.size.w + 2 * w.pad_w - extent_of(w.kernel_w, w.dilation_w);
    const int64_t room_h = bottom.size.h + 2 * w.pad_h - extent_of(w.kernel_h, w.dilation_h);
    require(room_w >= 0 && room_h >= 0,
            "a kernel no larger than its padded input expected, found " + sides_of(w) + ", " +
                dilation_of(w) + "padded by " + std::to_string(w.pad_h) + " and " +
                std::to_string(w.pad_w) + ", on " + text_of(bottom.size));
    const Extent size = {bounded(int64_t{bottom.size.c} * multiplier, "channels"),
                         static_cast<int>(room_h / w.stride_h + 1),
                         static_cast<int>(room_w / w.stride_w + 1)};
    const int64_t copies =
        int64_t{multiplier - 1} * size.c * static_cast<int64_t>(taps_of(w)) * (for_cpu() ? 1 : 0);
    require(copies <= spare_floats,
            "at most " + std::to_string(MOST_SPARE_FLOATS) +
                " floats of the CPU engine for depth multipliers in all layers expected, found " +
                std::to_string(MOST_SPARE_FLOATS - spare_floats + copies));
    spare_floats -= copies;
    read(record, bottom, size);
    record.depth_multiplier = word(multiplier, "the depth multiplier");
    set_window(record, w);
    record.dilation_w = word(w.dilation_w, "dilation");
    record.dilation_h = word(w.dilation_h, "dilation");
    record.has_bias = bias.empty() ? 0 : 1;
    record.activation = static_cast<unsigned short>(activation);
    std::vector<float> stored_bias = bias;
    stored_bias.resize(static_cast<size_t>(size.c));
    return finish_weights(record, size, of_activation(activation, Range()), taps_of(w),
                          static_cast<size_t>(size.c), weights, stored_bias);
}

namespace {

Extent deconvolved(const Extent& from, int channels, const Window& w) {
    require(w.kernel_w <= w.stride_w + 2 && w.kernel_h <= w.stride_h + 2 && w.dilation_w == 1 &&
                w.dilation_h == 1,
            "a transposed kernel of at most the stride plus 2, not dilated, expected, found " +
                sides_of(w) + ", " + dilation_of(w) + "of strides " + std::to_string(w.stride_h) +
                " and " + std::to_string(w.stride_w));
    const int64_t width = int64_t{from.w} * w.stride_w + 2 - 2 * w.pad_w;
    const int64_t height = int64_t{from.h} * w.stride_h + 2 - 2 * w.pad_h;
    return {channels, bounded(height, "height"), bounded(width, "width")};
}

}  // namespace

Blob Emitter::deconvolution(const Blob& bottom, int out_channels, const Window& w,
                            const WeightRows& weights, const std::vector<float>& bias,
                            int activation) {
    ZQLayerInfo_Conv2DTranspose record;
    const Extent size = deconvolved(bottom.size, out_channels, w);
    read(record, bottom, size);
    set_window(record, w);
    record.has_bias = bias.empty() ? 0 : 1;
    record.activation = static_cast<unsigned short>(activation);
    record.groups = 1;
    std::vector<float> stored_bias = bias;
    stored_bias.resize(static_cast<size_t>(out_channels));
    return finish_weights(record, size, of_activation(activation, Range()),
                          static_cast<size_t>(out_channels) * taps_of(w),
                          static_cast<size_t>(bottom.size.c), weights, stored_bias);
}

Blob Emitter::depthwise_deconvolution(const Blob& bottom, const Window& w,
                                      const WeightRows& weights, const std::vector<float>& bias,
                                      int activation) {
    ZQLayerInfo_DepthWiseConv2DTranspose record;
    const Extent size = deconvolved(bottom.size, bottom.size.c, w);
    read(record, bottom, size);
    record.depth_multiplier = 1;
    set_window(record, w);
    record.dilation_w = record.dilation_h = 1;
    record.has_bias = bias.empty() ? 0 : 1;
    record.activation = static_cast<unsigned short>(activation);
    std::vector<float> stored_bias = bias;
    stored_bias.resize(static_cast<size_t>(size.c));
    return finish_weights(record, size, of_activation(activation, Range()),
                          static_cast<size_t>(size.c), taps_of(w), weights, stored_bias);
}

Blob Emitter::pooling(const Blob& bottom, bool maximum, const Window& w) {
    ZQLayerInfo_Pooling record;
    // The CPU engine takes pad_w for the left and the top and pad_h for the right and the bottom.
    require(w.pad_w == w.pad_h || !for_gpu(),
            "a pooling of one padding on all sides expected, found " + std::to_string(w.pad_w) +
                " before and " + std::to_string(w.pad_h) + " behind");
    const int64_t room_w = int64_t{bottom.size.w} + w.pad_w + w.pad_h - w.kernel_w;
    const int64_t room_h = int64_t{bottom.size.h} + w.pad_w + w.pad_h - w.kernel_h;
    require(room_w >= 0 && room_h >= 0,
            "a window no larger than its padded input expected, found " + sides_of(w) +
                ", padded by " + std::to_string(w.pad_w) + " before and " +
                std::to_string(w.pad_h) + " behind, on " + text_of(bottom.size));
    const Extent size = {bottom.size.c, static_cast<int>(room_h / w.stride_h + 1),
                         static_cast<int>(room_w / w.stride_w + 1)};
    read(record, bottom, size);
    set_window(record, w);
    record.pool_type = maximum ? 1 : 0;
    const bool border = w.pad_w > 0 || w.pad_h > 0;
    return finish(record, size, border && maximum ? bottom.range.with(0.0) : bottom.range);
}

Blob Emitter::eltwise(const std::vector<Blob>& bottoms, bool product, int activation) {
    ZQLayerInfo_ElementWiseOperator record;
    require(bottoms.size() >= 2 && bottoms.size() <= ZQ_MAX_BOTTOMS,
            "2 to 10 tensors expected, found " + std::to_string(bottoms.size()));
    const Extent size = bottoms[0].size;
    record.bottom_count = static_cast<unsigned short>(bottoms.size());
    *record.out_shape = shape(size);
    Range range = bottoms[0].range;
    for (size_t i = 0; i < bottoms.size(); ++i) {
        require(bottoms[i].size == size, "tensors of one size expected, found " + text_of(size) +
                                             " and " + text_of(bottoms[i].size));
        record.bottoms[i] = static_cast<unsigned short>(bottoms[i].layer);
        record.in_shapes[i] = *record.out_shape;
        if (i == 0) continue;
        const Range& other = bottoms[i].range;
        if (!product) {
            range = {range.low + other.low, range.high + other.high};
        } else if (range.low >= 0 && other.low >= 0) {
            range = {0.0, range.high == 0 || other.high == 0 ? 0 : range.high * other.high};
        } else {
            range = Range();
        }
    }
    record.operator_type = product ? 2 : 0;
    record.activation = static_cast<unsigned short>(activation);
    return finish(record, size, of_activation(activation, range));
}

Blob Emitter::concat(const std::vector<Blob>& bottoms, int axis, const Extent& size) {
    ZQLayerInfo_Concatenate record;
    require(!bottoms.empty() && bottoms.size() <= ZQ_MAX_BOTTOMS,
            "1 to 10 tensors expected, found " + std::to_string(bottoms.size()));
    record.bottom_count = static_cast<unsigned short>(bottoms.size());
    *record.out_shape = shape(size);
    Range range = bottoms[0].range;
    for (size_t i = 0; i < bottoms.size(); ++i) {
        record.bottoms[i] = static_cast<unsigned short>(bottoms[i].layer);
        record.in_shapes[i] = shape(bottoms[i].size);
        range = range.with(bottoms[i].range);
    }
    record.axis = word(axis, "axis");
    return finish(record, size, range);
}

Blob Emitter::upsampling(const Blob& bottom, int scale, bool linear, bool align_corners) {
    ZQLayerInfo_Upsampling record;
    const Extent size = {bottom.size.c, bounded(int64_t{bottom.size.h} * scale, "height"),
                         bounded(int64_t{bottom.size.w} * scale, "width")};
    read(record, bottom, size);
    record.scale = Tarno::float_to_half(static_cast<float>(scale));
    record.mode = linear ? 1 : 0;
    record.align = align_corners ? 1 : 0;
    return finish(record, size, bottom.range);
}

Blob Emitter::pixel_shuffle(const Blob& bottom, int factor, bool to_space) {
    ZQLayerInfo_PixelShuffle record;
    const std::string found =
        " expected, found " + std::to_string(factor) + " for " + text_of(bottom.size);
    require(factor >= 1 && factor <= 255, "a block of 1 to 255" + found);
    const Extent& from = bottom.size;
    Extent size;
    if (to_space) {
        require(from.c % (factor * factor) == 0,
                "a block whose square divides the channels" + found);
        size = {from.c / (factor * factor), bounded(int64_t{from.h} * factor, "height"),
                bounded(int64_t{from.w} * factor, "width")};
        record.upscale_factor = Tarno::float_to_half(static_cast<float>(factor));
    } else {
        require(from.h % factor == 0 && from.w % factor == 0,
                "a block that divides the sides" + found);
        size = {bounded(int64_t{from.c} * factor * factor, "channels"), from.h / factor,
                from.w / factor};
        // The engine takes the integer part of the inverse: the next half below gives the block.
        record.upscale_factor = Tarno::float_to_half(1.0f / static_cast<float>(factor));
        while (static_cast<int>(1.0f / Tarno::half_to_float(record.upscale_factor)) < factor) {
            --record.upscale_factor;
        }
        require(static_cast<int>(1.0f / Tarno::half_to_float(record.upscale_factor)) == factor,
                "a block whose inverse a half can tell" + found);
    }
    read(record, bottom, size);
    return finish(record, size, bottom.range);
}

Blob Emitter::activation(const Blob& bottom, int type) {
    ZQLayerInfo_Activation record;
    if (type == ActivationType_SoftMax) {
        require(bottom.size.h == 1 && bottom.size.w == 1,
                "the engine's SoftMax expects a tensor of Cx1x1, found " + text_of(bottom.size));
    }
    read(record, bottom, bottom.size);
    record.activation_type = static_cast<unsigned short>(type);
    return finish(record, bottom.size, of_activation(type, bottom.range));
}

Blob Emitter::row(const Blob& bottom) {
    ZQLayerInfo_TensorReshape record;
    const Extent size = {1, 1, bounded(bottom.size.elements(), "the length of a row")};
    read(record, bottom, size);
    return finish(record, size, bottom.range);
}

Blob Emitter::full_connection(const Blob& bottom, int outputs, const WeightRows& weights,
                              const std::vector<float>& bias) {
    ZQLayerInfo_FullConnection record;
    const int64_t inputs_count = bottom.size.elements();
    require(inputs_count % 4 == 0 && outputs % 4 == 0,
            "counts divisible by 4 expected, found " + std::to_string(inputs_count) +
                " inputs and " + std::to_string(outputs) + " outputs");
    const Extent size = {1, 1, outputs};
    read(record, bottom, size);
    record.num_input = word(inputs_count, "inputs of a full connection");
    record.num_output = word(outputs, "outputs of a full connection");
    record.has_bias = bias.empty() ? 0 : 1;
    return finish_weights(record, size, Range(), static_cast<size_t>(outputs),
                          static_cast<size_t>(inputs_count), weights, bias);
}

Blob Emitter::lstm(const Blob& bottom, int input_size, int hidden_size, bool bidirectional,
                   const LstmRows& weights) {
    ZQLayerInfo_LSTM record;
    require(int64_t{bottom.size.h} * bottom.size.w == input_size,
            "time steps of " + std::to_string(input_size) + " values expected, found " +
                text_of(bottom.size));
    const Extent size = {bottom.size.c, 1, hidden_size * (bidirectional ? 2 : 1)};
    record.input_size = word(input_size, "the input size");
    record.hidden_size = word(hidden_size, "the hidden size");
    record.num_layers = 1;
    record.has_bias = 1;
    record.bidirectional = bidirectional ? 1 : 0;
    read(record, bottom, size);
    take_numbers(lstm_halves_count(record));
    const auto inner = static_cast<size_t>(input_size);
    const auto hidden = static_cast<size_t>(hidden_size);
    record.list_count = 1;
    record.w_ih_count = 4 * hidden * inner;
    record.w_hh_count = 4 * hidden * hidden;
    record.bias_count = 4 * hidden;
    Rounding weights_rounding;
    Rounding bias_rounding;
    size_t next = 0;
    const Blob blob =
        finish(record, size, {-1.0, 1.0}, [&](const std::string&, size_t, const PutHalves& put) {
            const size_t direction = next / 4;
            const size_t array = next % 4;
            ++next;
            const size_t length = array == 0 ? inner : array == 1 ? hidden : 1;
            round_rows(
                "weights", 4 * hidden, length,
                [&](size_t row, float* to) { weights(direction, array, row, to); }, put,
                array < 2 ? weights_rounding : bias_rounding);
            if (next != (bidirectional ? 8u : 4u)) return;
            expect_kept(record.type, weights_rounding.squares, weights_rounding.squared_errors);
            bias_rounding.add(weights_rounding);
            count_rounding(bias_rounding);
        });
    return blob;
}

Blob Emitter::linear(const Blob& bottom, double alpha, double beta) {
    ZQLayerInfo_Activation record;
    read(record, bottom, bottom.size);
    record.activation_type = ActivationType_Linear;
    const auto patterns =
        halves("constants", {static_cast<float>(alpha), static_cast<float>(beta)});
    record.alpha = patterns[0];
    record.beta = patterns[1];
    const double a = as_half(alpha);
    const double b = as_half(beta);
    Range range;
    if (a > 0) range = {bottom.range.low * a + b, bottom.range.high * a + b};
    if (a < 0) range = {bottom.range.high * a + b, bottom.range.low * a + b};
    if (a == 0) range = {b, b};
    return finish(record, bottom.size, range);
}

Blob Emitter::batchnorm(const Blob& bottom, const Affine& wanted, Affine& used) {
    ZQLayerInfo_BatchNormalization record;
    read(record, bottom, bottom.size);
    const size_t channels = static_cast<size_t>(bottom.size.c);
    std::vector<float> slopes(channels);
    std::vector<float> variances(channels);
    std::vector<float> means(channels);
    std::vector<float> shifts(channels);
    used.scale.resize(channels);
    used.shift.resize(channels);
    for (size_t i = 0; i < channels; ++i) {
        const Quotient quotient = quotient_for(wanted.scale[wanted.scale.size() == 1 ? 0 : i]);
        const double shift = wanted.shift[wanted.shift.size() == 1 ? 0 : i];
        const double coarse = as_half(shift);
        require(std::isfinite(coarse),
                "a term of at most 65504 expected, found " + std::to_string(shift));
        // The mean, times the factor, holds what the half of the term has lost.
        double mean = quotient.value == 0 ? 0.0 : as_half((coarse - shift) / quotient.value);
        if (!std::isfinite(mean)) mean = 0.0;
        slopes[i] = static_cast<float>(quotient.slope);
        variances[i] = static_cast<float>(quotient.variance);
        means[i] = static_cast<float>(mean);
        shifts[i] = static_cast<float>(coarse);
        used.scale[i] = quotient.value;
        used.shift[i] = coarse - mean * quotient.value;
    }
    if (!assign_batchnorm(record, halves("slopes", slopes), halves("terms", shifts),
                          halves("variances", variances), halves("means", means))) {
        throw std::bad_alloc();
    }
    // What counts as rounded is the pair that the four arrays stand for.
    squared_errors = squared_weights = 0;
    double largest = 0;
    double error = 0;
    for (size_t i = 0; i < channels; ++i) {
        const double scale = wanted.scale[wanted.scale.size() == 1 ? 0 : i];
        squared_weights += scale * scale;
        squared_errors += (used.scale[i] - scale) * (used.scale[i] - scale);
        largest = std::max(largest, std::fabs(scale));
        error = std::max(error, std::fabs(used.scale[i] - scale));
    }
    current.largest_error = largest > 0 ? error / largest : 0;
    expect_kept(record.type, squared_weights, squared_errors);
    return finish(record, bottom.size, Range());
}

Blob Emitter::affine(const Blob& bottom, const Affine& wanted, Affine& used) {
    const auto all_equal = [](const std::vector<double>& list) {
        return std::all_of(list.begin(), list.end(), [&](double v) { return v == list[0]; });
    };
    const bool one_pair = all_equal(wanted.scale) && all_equal(wanted.shift);
    const size_t channels = static_cast<size_t>(bottom.size.c);
    require((wanted.scale.size() == 1 || wanted.scale.size() == channels) &&
                (wanted.shift.size() == 1 || wanted.shift.size() == channels),
            "one number for each of " + std::to_string(channels) + " channels");
    const double scale = wanted.scale[0];
    const double shift = wanted.shift[0];
    const bool exact = one_pair && as_half(scale) == scale && as_half(shift) == shift;
    if (for_gpu()) {
        // A centre tap for each channel is the one form that both engines have.
        std::vector<float> bias(channels);
        used.scale.resize(channels);
        used.shift.resize(channels);
        for (size_t i = 0; i < channels; ++i) {
            const double a = wanted.scale[wanted.scale.size() == 1 ? 0 : i];
            const double b = wanted.shift[wanted.shift.size() == 1 ? 0 : i];
            bias[i] = static_cast<float>(b);
            used.scale[i] = as_half(a);
            used.shift[i] = as_half(b);
        }
        const auto weights = [&](size_t tap, float* to) {
            for (size_t i = 0; i < channels; ++i) {
                const double a = wanted.scale[wanted.scale.size() == 1 ? 0 : i];
                to[i] = tap == 4 ? static_cast<float>(a) : 0.0f;
            }
        };
        return depthwise(bottom, 1, Window::square(3, 1, 1), weights, bias);
    }
    if (exact) {
        used.scale.assign(channels, scale);
        used.shift.assign(channels, shift);
        return linear(bottom, scale, shift);
    }
    if (bottom.size.c > 1) {
        Blob result = batchnorm(bottom, wanted, used);
        if (one_pair && scale > 0) {
            result.range = {bottom.range.low * used.scale[0] + used.shift[0],
                            bottom.range.high * used.scale[0] + used.shift[0]};
        }
        return result;
    }
    double first = 0;
    double second = 0;
    product_for(scale, first, second);
    const double coarse = as_half(shift);
    require(std::isfinite(coarse) && std::isfinite(first) && std::isfinite(second),
            "constants of at most 65504 expected, found " + std::to_string(scale) + " and " +
                std::to_string(shift));
    double fine = second == 0 ? 0.0 : as_half((shift - coarse) / second);
    if (!std::isfinite(fine)) fine = 0.0;
    const double lost = first * second - scale;
    expect_kept(ZQLayerType_Activation, scale * scale, lost * lost);
    used.scale.assign(channels, first * second);
    used.shift.assign(channels, fine * second + coarse);
    return linear(linear(bottom, first, fine), second, coarse);
}

}  // namespace modelkit::onnx
