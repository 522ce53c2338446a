#include "modelkit/net_builder.h"

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <utility>

#include "modelkit/records.h"

namespace modelkit {
namespace {

// A size that no file can hold stays one, without overflowing on the way.
int bounded(double size) {
    return size > 0.0 ? static_cast<int>(std::min(size, 1e6)) : 0;
}

int scaled(int size, double factor) {
    return bounded(size * factor);
}

long long extent(int kernel, int dilation) {
    return (kernel - 1LL) * dilation + 1;
}

int windowed(int size, int kernel, int pad, int stride, int dilation) {
    const long long room = size + 2LL * pad - extent(kernel, dilation);
    return stride < 1 || room < 0 ? 0 : bounded(static_cast<double>(room / stride + 1));
}

int convolved(int size, int kernel, int pad, int stride, int dilation) {
    if (stride < 1) return 0;
    if (2LL * pad == extent(kernel, dilation) - 1) return size / stride;
    return windowed(size, kernel, pad, stride, dilation);
}

std::vector<unsigned short> to_halves(const std::vector<float>& values) {
    std::vector<unsigned short> halves(values.size());
    Tarno::floats_to_halves(values.data(), halves.data(), values.size());
    return halves;
}

}  // namespace

NetBuilder::NetBuilder(const ModelHeader& header, uint32_t seed)
    : header(header), state(uint64_t{seed} * 0x9e3779b97f4a7c15u + 1) {}

// A 64-bit linear congruential generator whose upper bits are taken: the same numbers everywhere,
// which the distributions of the standard library do not promise.
float NetBuilder::random(float limit) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    const double unit = static_cast<double>(state >> 40) / 16777216.0;
    return static_cast<float>((2.0 * unit - 1.0) * static_cast<double>(limit));
}

void NetBuilder::fail(const std::string& text) {
    fail_at(last(), text);
}

void NetBuilder::fail_next(const std::string& text) {
    fail_at(count(), text);
}

void NetBuilder::fail_at(int layer, const std::string& text) {
    if (problem.empty()) problem = "layer " + std::to_string(layer) + ": " + text;
}

unsigned short NetBuilder::number(const char* name, long long value) {
    if (value < 0 || value > 65535) {
        fail(std::string(name) + ": 0 to 65535 expected, found " + std::to_string(value));
        return 0;
    }
    return static_cast<unsigned short>(value);
}

unsigned short NetBuilder::half(const char* name, double value) {
    const unsigned short pattern = Tarno::float_to_half(static_cast<float>(value));
    if ((pattern & 0x7c00u) == 0x7c00u) {
        fail(std::string(name) + ": " + std::to_string(value) + " does not fit a half");
    }
    return pattern;
}

shape3 NetBuilder::shape(const Size& size) {
    const double base_w = header.base_w == 0 ? 1.0 : static_cast<double>(header.base_w);
    const double base_h = header.base_h == 0 ? 1.0 : static_cast<double>(header.base_h);
    return {half("width", size.width / base_w), half("height", size.height / base_h),
            number("channels", size.channels)};
}

tensor28 NetBuilder::tensor(const std::vector<int>& dims) {
    tensor28 tensor = {};
    if (dims.size() > 11) fail("dims: at most 11 expected, found " + std::to_string(dims.size()));
    const size_t rank = std::min<size_t>(dims.size(), 11);
    tensor.rank = static_cast<unsigned short>(rank);
    for (size_t i = 0; i < rank; ++i)
        tensor.dims[i] = number("dims", dims[i]);
    return tensor;
}

template <typename Record>
Record& NetBuilder::add(const Size& size, const std::vector<int>& dims) {
    auto record = std::make_unique<Record>();
    Record& added = *record;
    layers.push_back({std::move(record), size, dims});
    added.id = number("id", last());
    return added;
}

template <typename Record>
Record& NetBuilder::add_reading(int bottom, const Size& out, const std::vector<int>& dims) {
    if (bottom < 0 || bottom >= count()) {
        fail_next("bottom " + std::to_string(bottom) + " is not there");
        bottom = 0;
    }
    const Size in = size(bottom);
    const std::vector<int> in_dims = this->dims(bottom);
    Record& record = add<Record>(out, dims);
    record.bottoms[0] = number("bottom", bottom);
    if constexpr (std::is_base_of_v<ZQFreezedLayerInfo, Record>) {
        record.in_tensors[0] = tensor(in_dims);
        record.out_tensor = tensor(dims);
    } else {
        *record.in_shape = shape(in);
        *record.out_shape = shape(out);
    }
    return record;
}

template <typename Record>
int NetBuilder::add_many(const std::vector<int>& bottoms, const Size& out, int word,
                         int activation) {
    const size_t used = std::min<size_t>(bottoms.size(), ZQ_MAX_BOTTOMS);
    Record& record = add<Record>(out, {});
    record.bottom_count = static_cast<unsigned short>(used);
    *record.out_shape = shape(out);
    for (size_t i = 0; i < used; ++i) {
        record.bottoms[i] = number("bottom", bottoms[i]);
        record.in_shapes[i] = shape(size(bottoms[i]));
    }
    if constexpr (std::is_same_v<Record, ZQLayerInfo_ElementWiseOperator>) {
        record.operator_type = number("operator_type", word);
        record.activation = number("activation", activation);
    } else {
        record.axis = number("axis", word);
    }
    return last();
}

template <typename Record>
void NetBuilder::set_window(Record& record, const Window& window) {
    record.kernel_w = number("kernel_w", window.kernel_w);
    record.kernel_h = number("kernel_h", window.kernel_h);
    record.pad_w = number("pad_w", window.pad_w);
    record.pad_h = number("pad_h", window.pad_h);
    record.stride_w = number("stride_w", window.stride_w);
    record.stride_h = number("stride_h", window.stride_h);
}

std::vector<unsigned short> NetBuilder::halves(const char* name, const std::vector<float>& given,
                                               size_t count, float center, float limit) {
    if (!given.empty() && given.size() != count) {
        fail(std::string(name) + ": " + std::to_string(count) + " numbers expected, found " +
             std::to_string(given.size()));
    }
    std::vector<float> values = given;
    if (values.size() != count) {
        values.resize(count);
        for (float& value : values)
            value = center + random(limit);
    }
    return to_halves(values);
}

// Generated weights have a variance of 1 / fan_in, so that values neither grow nor fade from layer
// to layer.
template <typename Record>
void NetBuilder::set_weights(Record& record, size_t weights, size_t bias, int fan_in,
                             const Weights& given) {
    const float limit = std::sqrt(3.0f / static_cast<float>(std::max(1, fan_in)));
    const bool stored =
        assign_weights(record, halves("weights", given.weights, weights, 0.0f, limit)) &&
        assign_bias(record, halves("bias", given.bias, bias, 0.0f, 0.1f));
    if (!stored) fail("out of memory");
}

NetBuilder::Size NetBuilder::size(int id) const {
    return id < 0 || id >= count() ? Size() : layers[static_cast<size_t>(id)].size;
}

std::vector<int> NetBuilder::dims(int id) const {
    return id < 0 || id >= count() ? std::vector<int>() : layers[static_cast<size_t>(id)].dims;
}

ZQLayerInfo* NetBuilder::record(int id) {
    return id < 0 || id >= count() ? nullptr : layers[static_cast<size_t>(id)].record.get();
}

int NetBuilder::input(int channels, double factor_x, double factor_y) {
    const Size size = {bounded(std::round(factor_x * header.base_w)),
                       bounded(std::round(factor_y * header.base_h)), channels};
    auto& record = add<ZQLayerInfo_Input>(size, {});
    *record.out_shape = shape(size);
    record.input_index = number("input_index", inputs++);
    return last();
}

int NetBuilder::conv(int bottom, int out_channels, const Window& w, int activation, int groups,
                     const Weights& weights) {
    const Size in = size(bottom);
    const Size out = {convolved(in.width, w.kernel_w, w.pad_w, w.stride_w, w.dilation_w),
                      convolved(in.height, w.kernel_h, w.pad_h, w.stride_h, w.dilation_h),
                      out_channels};
    if (groups < 1 || in.channels % groups != 0 || out_channels % groups != 0) {
        fail_next("groups: a divisor of the channels expected, found " + std::to_string(groups));
        groups = 1;
    }
    auto& record = add_reading<ZQLayerInfo_Conv2D>(bottom, out);
    set_window(record, w);
    record.dilation_w = number("dilation_w", w.dilation_w);
    record.dilation_h = number("dilation_h", w.dilation_h);
    record.has_bias = 1;
    record.activation = number("activation", activation);
    if (header.version > 10000) {
        record.groups = number("groups", groups);
    } else if (groups != 1) {
        fail("groups: 1 expected in a file of version 10000, found " + std::to_string(groups));
    }
    const int fan_in = record.in_shape->channels / groups * record.kernel_w * record.kernel_h;
    set_weights(record, size_t{record.out_shape->channels} * static_cast<size_t>(fan_in),
                record.out_shape->channels, fan_in, weights);
    return last();
}

int NetBuilder::depthwise(int bottom, const Window& w, int activation, int multiplier,
                          const Weights& weights) {
    const Size in = size(bottom);
    const Size out = {windowed(in.width, w.kernel_w, w.pad_w, w.stride_w, w.dilation_w),
                      windowed(in.height, w.kernel_h, w.pad_h, w.stride_h, w.dilation_h),
                      scaled(in.channels, multiplier)};
    auto& record = add_reading<ZQLayerInfo_DepthWiseConv2D>(bottom, out);
    record.depth_multiplier = number("depth_multiplier", multiplier);
    set_window(record, w);
    record.dilation_w = number("dilation_w", w.dilation_w);
    record.dilation_h = number("dilation_h", w.dilation_h);
    record.has_bias = 1;
    record.activation = number("activation", activation);
    const int fan_in = record.kernel_w * record.kernel_h;
    set_weights(
        record,
        size_t{record.in_shape->channels} * record.depth_multiplier * static_cast<size_t>(fan_in),
        record.out_shape->channels, fan_in, weights);
    return last();
}

int NetBuilder::deconvolution(int bottom, int out_channels, const Window& w, int activation,
                              int groups, const Weights& weights) {
    const Size in = size(bottom);
    const Size out = {scaled(in.width, w.stride_w), scaled(in.height, w.stride_h), out_channels};
    if (groups < 1 || in.channels % groups != 0 || out_channels % groups != 0) {
        fail_next("groups: a divisor of the channels expected, found " + std::to_string(groups));
        groups = 1;
    }
    auto& record = add_reading<ZQLayerInfo_Conv2DTranspose>(bottom, out);
    set_window(record, w);
    record.has_bias = 1;
    record.activation = number("activation", activation);
    if (header.version >= 10003) {
        record.groups = number("groups", groups);
    } else if (groups != 1) {
        fail("groups: 1 expected before version 10003, found " + std::to_string(groups));
    }
    const int fan_in = record.in_shape->channels / groups * record.kernel_w * record.kernel_h;
    set_weights(record, size_t{record.out_shape->channels} * static_cast<size_t>(fan_in),
                record.out_shape->channels, fan_in, weights);
    return last();
}

int NetBuilder::depthwise_deconvolution(int bottom, const Window& w, int activation, int multiplier,
                                        const Weights& weights) {
    const Size in = size(bottom);
    const Size out = {scaled(in.width, w.stride_w), scaled(in.height, w.stride_h),
                      scaled(in.channels, multiplier)};
    auto& record = add_reading<ZQLayerInfo_DepthWiseConv2DTranspose>(bottom, out);
    record.depth_multiplier = number("depth_multiplier", multiplier);
    set_window(record, w);
    record.dilation_w = number("dilation_w", w.dilation_w);
    record.dilation_h = number("dilation_h", w.dilation_h);
    record.has_bias = 1;
    record.activation = number("activation", activation);
    const int fan_in = record.kernel_w * record.kernel_h;
    set_weights(
        record,
        size_t{record.in_shape->channels} * record.depth_multiplier * static_cast<size_t>(fan_in),
        record.out_shape->channels, fan_in, weights);
    return last();
}

void NetBuilder::check_bottoms(const std::vector<int>& bottoms) {
    if (bottoms.empty() || bottoms.size() > ZQ_MAX_BOTTOMS) {
        fail_next("1 to 10 bottoms expected, found " + std::to_string(bottoms.size()));
    }
    for (const int bottom : bottoms) {
        if (bottom < 0 || bottom >= count()) {
            fail_next("bottom " + std::to_string(bottom) + " is not there");
        }
    }
}

int NetBuilder::eltwise(const std::vector<int>& bottoms, int operator_type, int activation) {
    check_bottoms(bottoms);
    const Size out = bottoms.empty() ? Size() : size(bottoms[0]);
    for (const int bottom : bottoms) {
        const Size in = size(bottom);
        if (in.width != out.width || in.height != out.height || in.channels != out.channels) {
            fail_next("bottoms of one size expected");
        }
    }
    return add_many<ZQLayerInfo_ElementWiseOperator>(bottoms, out, operator_type, activation);
}

int NetBuilder::concat(const std::vector<int>& bottoms, int axis) {
    check_bottoms(bottoms);
    Size out = bottoms.empty() ? Size() : size(bottoms[0]);
    out.channels = 0;
    for (const int bottom : bottoms) {
        const Size in = size(bottom);
        if (in.width != out.width || in.height != out.height) {
            fail_next("bottoms of one width and height expected");
        }
        out.channels = bounded(static_cast<double>(out.channels) + in.channels);
    }
    return add_many<ZQLayerInfo_Concatenate>(bottoms, out, axis, 0);
}

int NetBuilder::pooling(int bottom, int pool_type, const Window& w) {
    const Size in = size(bottom);
    const Size out = {windowed(in.width, w.kernel_w, w.pad_w, w.stride_w, 1),
                      windowed(in.height, w.kernel_h, w.pad_h, w.stride_h, 1), in.channels};
    auto& record = add_reading<ZQLayerInfo_Pooling>(bottom, out);
    set_window(record, w);
    record.pool_type = number("pool_type", pool_type);
    return last();
}

int NetBuilder::upsampling(int bottom, double scale, int mode, int align) {
    const Size in = size(bottom);
    const Size out = {scaled(in.width, scale), scaled(in.height, scale), in.channels};
    auto& record = add_reading<ZQLayerInfo_Upsampling>(bottom, out);
    record.scale = half("scale", scale);
    record.mode = number("mode", mode);
    record.align = number("align", align);
    return last();
}

int NetBuilder::pixel_shuffle(int bottom, double factor) {
    const Size in = size(bottom);
    Size out = in;
    if (factor >= 1.0) {
        const int r = bounded(std::min(factor, 255.0));
        out = {scaled(in.width, r), scaled(in.height, r), in.channels / (r * r)};
    } else if (factor > 0.0) {
        const int r = bounded(std::min(1.0 / factor, 255.0));
        out = {in.width / r, in.height / r, scaled(in.channels, r * r)};
    } else {
        fail_next("a factor above 0 expected");
    }
    auto& record = add_reading<ZQLayerInfo_PixelShuffle>(bottom, out);
    record.upscale_factor = half("upscale_factor", factor);
    return last();
}

int NetBuilder::batchnorm(int bottom, const std::vector<float>& slope,
                          const std::vector<float>& bias, const std::vector<float>& variance,
                          const std::vector<float>& mean) {
    auto& record = add_reading<ZQLayerInfo_BatchNormalization>(bottom, size(bottom));
    const size_t channels = record.in_shape->channels;
    const auto a = halves("slope", slope, channels, 1.0f, 0.5f);
    const auto b = halves("bias", bias, channels, 0.0f, 0.5f);
    const auto c = halves("variance", variance, channels, 1.0f, 0.5f);
    const auto d = halves("mean", mean, channels, 0.0f, 0.5f);
    if (!assign_batchnorm(record, a, b, c, d)) fail("out of memory");
    return last();
}

int NetBuilder::instance_normalization(int bottom) {
    add_reading<ZQLayerInfo_InstanceNormalization>(bottom, size(bottom));
    return last();
}

int NetBuilder::activation(int bottom, int type, double alpha, double beta) {
    auto& record = add_reading<ZQLayerInfo_Activation>(bottom, size(bottom));
    record.activation_type = number("activation_type", type);
    record.alpha = half("alpha", alpha);
    record.beta = half("beta", beta);
    return last();
}

int NetBuilder::region(int bottom, int a, int b, int c) {
    auto& record = add_reading<ZQLayerInfo_Region>(bottom, size(bottom));
    record.region_a = number("region_a", a);
    record.region_b = number("region_b", b);
    record.region_c = number("region_c", c);
    return last();
}

int NetBuilder::channel_shuffle(int bottom, const std::vector<int>& permutation) {
    auto& record = add_reading<ZQLayerInfo_ChannelShuffle>(bottom, size(bottom));
    std::vector<unsigned short> numbers(record.in_shape->channels);
    if (!permutation.empty() && permutation.size() != numbers.size()) {
        fail("permutation: " + std::to_string(numbers.size()) + " numbers expected, found " +
             std::to_string(permutation.size()));
    }
    for (size_t i = 0; i < numbers.size(); ++i) {
        numbers[i] = permutation.size() == numbers.size()
                         ? number("permutation", permutation[i])
                         : static_cast<unsigned short>(numbers.size() - 1 - i);
    }
    if (!assign_permutation(record, numbers)) fail("out of memory");
    return last();
}

int NetBuilder::tensor_input(const std::vector<int>& dims) {
    auto& record = add<ZQLayerInfo_TensorInput>({}, dims);
    record.out_tensor = tensor(dims);
    record.input_index = number("input_index", inputs++);
    return last();
}

int NetBuilder::reshape(int bottom, const std::vector<int>& dims) {
    add_reading<ZQLayerInfo_TensorReshape>(bottom, {}, dims);
    return last();
}

int NetBuilder::transpose(int bottom, const std::vector<int>& axes, const std::vector<int>& dims) {
    auto& record = add_reading<ZQLayerInfo_TensorTranspose>(bottom, {}, dims);
    if (axes.size() > 10) fail("axes: at most 10 expected, found " + std::to_string(axes.size()));
    for (size_t i = 0; i < axes.size() && i < 10; ++i)
        record.axes[i] = number("axes", axes[i]);
    return last();
}

int NetBuilder::squeeze(int bottom, int axis, const std::vector<int>& dims) {
    auto& record = add_reading<ZQLayerInfo_TensorSqueeze>(bottom, {}, dims);
    record.axis = number("axis", axis);
    return last();
}

int NetBuilder::tensor_activation(int bottom, int type, int alpha, int beta) {
    auto& record = add_reading<ZQLayerInfo_TensorActivation>(bottom, size(bottom), dims(bottom));
    record.activation_type = number("activation_type", type);
    record.alpha = number("alpha", alpha);
    record.beta = number("beta", beta);
    return last();
}

int NetBuilder::fully_connected(int bottom, int num_input, int num_output, bool has_bias,
                                const Weights& weights, const std::vector<int>& dims) {
    auto& record = add_reading<ZQLayerInfo_FullConnection>(
        bottom, {}, dims.empty() ? std::vector<int>{1, num_output} : dims);
    record.num_input = number("num_input", num_input);
    record.num_output = number("num_output", num_output);
    record.has_bias = has_bias ? 1 : 0;
    set_weights(record, size_t{record.num_input} * record.num_output,
                has_bias ? record.num_output : 0, record.num_input, weights);
    return last();
}

int NetBuilder::lstm(int bottom, int input_size, int hidden_size, bool has_bias, bool bidirectional,
                     int num_layers, const std::vector<int>& dims) {
    const std::vector<int> out = {1, hidden_size * (bidirectional ? 2 : 1)};
    auto& record = add_reading<ZQLayerInfo_LSTM>(bottom, {}, dims.empty() ? out : dims);
    record.input_size = number("input_size", input_size);
    record.hidden_size = number("hidden_size", hidden_size);
    record.num_layers = number("num_layers", num_layers);
    record.has_bias = has_bias ? 1 : 0;
    record.bidirectional = bidirectional ? 1 : 0;
    const float limit = std::sqrt(3.0f / static_cast<float>(std::max(1, hidden_size)));
    if (!assign_lstm(record, halves("weights", {}, lstm_halves_count(record), 0.0f, limit))) {
        fail("out of memory");
    }
    return last();
}

Status NetBuilder::status() const {
    return problem.empty() ? Status::success() : Status::failure(problem);
}

Status NetBuilder::write(std::vector<unsigned char>& bytes) const {
    if (!problem.empty()) return Status::failure(problem);
    ModelWriter writer(header);
    for (const Layer& layer : layers) {
        const Status status = writer.add(*layer.record);
        if (!status) return status;
    }
    bytes = writer.bytes();
    return Status::success();
}

Status NetBuilder::save(const std::string& path) const {
    std::vector<unsigned char> bytes;
    const Status status = write(bytes);
    return status ? save_bytes(path, bytes) : status;
}

}  // namespace modelkit
