// Activations, sums, products, constants, and what joins channels.
#include <algorithm>
#include <cmath>

#include "modelkit/onnx/half_factors.h"
#include "modelkit/onnx/lowering.h"

namespace modelkit::onnx {

namespace {

constexpr double INFINITE = std::numeric_limits<double>::infinity();
constexpr double LARGEST_FLOAT = static_cast<double>(std::numeric_limits<float>::max());
constexpr double LARGEST_HALF = 65504.0;

}  // namespace

void Lowering::unary() {
    const Value& data = value(0);
    const int kind = activation_kind(graph, node());
    if (kind == ActivationType_Tanh) {
        note("the engine's Tanh gives NaN where its input is beyond 88.7");
    }
    give(data.dims, emitter.activation(data.blob, kind));
}

// relu(x) - slope * relu(-x): what is above 0 stays to the last bit.
Blob Lowering::leaked(const Blob& blob, const std::vector<double>& slopes,
                      std::vector<double>& used) {
    const Blob above = emitter.activation(blob, ActivationType_ReLU);
    Affine exact;
    const Blob below =
        emitter.activation(emitter.affine(blob, {{-1.0}, {0.0}}, exact), ActivationType_ReLU);
    std::vector<double> negated;
    for (const double slope : slopes) negated.push_back(-slope);
    Affine scaled;
    const Blob part = emitter.affine(below, {negated, {0.0}}, scaled);
    used.clear();
    for (const double scale : scaled.scale) used.push_back(-scale);
    return emitter.eltwise({above, part}, false);
}

void Lowering::absolute() {
    std::vector<double> used;
    give(value(0).dims, leaked(value(0).blob, {-1.0}, used));
}

void Lowering::leaky_relu() {
    const Value& data = value(0);
    if (node().op_type == "LeakyRelu") {
        if (activation_kind(graph, node()) != 0 && !emitter.for_gpu()) {
            give(data.dims, emitter.activation(data.blob, ActivationType_LeakyReLU));
            return;
        }
        std::vector<double> used;
        const double alpha = node().number("alpha", static_cast<double>(0.01f));
        const Blob blob = leaked(data.blob, {alpha}, used);
        show_number("alpha", used[0]);
        give(data.dims, blob);
        return;
    }
    const Tensor& slopes = required(1, "slopes");
    const Blob map = map_of(data);
    const auto channels = static_cast<size_t>(map.size.c);
    const size_t from_end = data.dims.size() >= 2 ? data.dims.size() - 2 : 0;
    const bool along_channels =
        slopes.size() == 1 ||
        (slopes.size() == channels && slopes.dims.size() > from_end &&
         slopes.dims[slopes.dims.size() - 1 - from_end] == static_cast<int64_t>(channels));
    require(along_channels, "one slope or one for each of " + std::to_string(channels) +
                                " channels expected, found " + text_of(slopes.dims));
    std::vector<double> used;
    const Blob blob = leaked(map, slopes.numbers(), used);
    if (slopes.size() == 1) used.resize(1);
    show_tensor(1, Tensor::of_doubles(slopes.dims, used));
    give(data.dims, blob);
}

// Factors that one layer holds only with few digits, or not at all, get others before them: powers
// of two, which are exact.
Blob Lowering::times(Blob blob, double factor, double& used) {
    constexpr double LARGE = 0x1p14;
    Affine last;
    double exact = 1.0;
    // Beyond a half the GPU engine has infinity, and a tap of zero times that is no number.
    require(!emitter.for_gpu() || std::fabs(factor) <= LARGE,
            "limits that take a factor of at most 16384, for the GPU engine, expected, found " +
                number_text(std::fabs(factor)));
    while (std::fabs(factor) > LARGE || std::fabs(factor) < 1.0 / LARGE) {
        const double step = std::fabs(factor) > LARGE ? LARGE : 1.0 / LARGE;
        blob = emitter.affine(blob, {{step}, {0.0}}, last);
        factor /= step;
        exact *= step;
    }
    blob = emitter.affine(blob, {{factor}, {0.0}}, last);
    used = exact * last.scale[0];
    return blob;
}

// sign * min(relu(sign * x), limit). The engine's clamp ends at 6, so a factor goes before it and
// one behind: each number comes out changed by a share of itself, however far away the limit is.
Blob Lowering::side_of(const Blob& blob, double sign, double& limit) {
    if (limit == INFINITE || limit == 6.0) {
        const int kind = limit == 6.0 ? ActivationType_ReLU6 : ActivationType_ReLU;
        if (sign > 0) return emitter.activation(blob, kind);
        return scaled(emitter.activation(scaled(blob, -1.0), kind), -1.0);
    }
    double before = 0;
    double behind = 0;
    const Blob inside =
        emitter.activation(times(blob, sign * 6.0 / limit, before), ActivationType_ReLU6);
    const Blob result = times(inside, sign * limit / 6.0, behind);
    InputChange& change = own_changes[at];
    (sign > 0 ? change.above : change.below) = before * behind;
    limit = 6.0 * std::fabs(behind);
    return result;
}

// A term is taken away and given back only where the limits lie on one side of 0: between limits on
// both sides it would take the last digits of small numbers, so what is above 0 and what is below
// are clamped apart. `low` and `high` become what the layers have.
Blob Lowering::clipped(const Blob& blob, double& low, double& high) {
    if (low <= -LARGEST_FLOAT) low = -INFINITE;
    if (high >= LARGEST_FLOAT) high = INFINITE;
    if (low == -INFINITE && high == INFINITE) return blob;
    const auto is_limit = [](double limit) { return std::fabs(limit) <= LARGEST_HALF; };
    require(
        (is_limit(low) || low == -INFINITE || low >= high) && (is_limit(high) || high == INFINITE),
        "limits of at most 65504, the largest half, or none expected, found " + number_text(low) +
            " and " + number_text(high));
    if (low >= high) {
        // The smaller of a number not below the minimum and the maximum is the maximum.
        const double coarse = as_half(high);
        const double fine = as_half(high - coarse);
        Affine exact;
        Blob all = emitter.affine(blob, {{0.0}, {coarse}}, exact);
        if (fine != 0) {
            all = emitter.eltwise({all, emitter.affine(blob, {{0.0}, {fine}}, exact)}, false);
        }
        low = high = coarse + fine;
        all.range = {low, high};
        return all;
    }
    if (low < 0 && high > 0) {
        double below = -low;
        const Blob upper = side_of(blob, 1.0, high);
        const Blob lower = side_of(blob, -1.0, below);
        low = -below;
        Blob both = emitter.eltwise({upper, lower}, false);
        both.range = {low, high};
        return both;
    }
    const double sign = low >= 0 ? 1.0 : -1.0;
    double near = low >= 0 ? low : -high;
    double far = low >= 0 ? high : -low;
    Blob result;
    if (near == 0) {
        result = side_of(blob, sign, far);
    } else {
        // A term keeps its digits down to the smallest half: a limit near 0 is one of 1 to 2 for a
        // power of two as a factor. Not for the GPU engine, where large numbers times it are no
        // halves. The smallest limit leaves numbers of up to 2^87 below infinity.
        double scale = 1.0;
        if (!emitter.for_gpu() && near < 0x1p-4) {
            require(near >= 0x1p-40,
                    "a limit nearest to 0 of at least 2^-40, or 0, expected, found " +
                        number_text(sign * near));
            int exponent = 0;
            std::frexp(near, &exponent);
            scale = std::ldexp(1.0, 1 - exponent);
        }
        double used = 1.0;
        double room = (far - near) * scale;
        Affine taken;
        Affine given;
        result = scale == 1.0 ? blob : times(blob, scale, used);
        result = emitter.affine(result, {{1.0}, {-sign * near * scale}}, taken);
        result = side_of(result, sign, room);
        result = emitter.affine(result, {{1.0}, {sign * near * scale}}, given);
        if (scale != 1.0) result = times(result, 1.0 / scale, used);
        const double kept = std::fabs(given.shift[0]) / scale;
        require(std::fabs(kept - near) <= 0x1p-11 * near,
                "a limit nearest to 0 that is a normal half, or 0, expected, found " +
                    number_text(sign * near));
        near = kept;
        // The factor goes for the distance from the nearer limit.
        InputChange& change = own_changes[at];
        const double factor = sign > 0 ? change.above : change.below;
        change = {factor, factor, sign * near * (1.0 - factor)};
        far = near + room / scale;
    }
    low = sign > 0 ? near : -far;
    high = sign > 0 ? far : -near;
    result.range = {low, high};
    return result;
}

void Lowering::clip() {
    const Value& data = value(0);
    double limits[2] = {-INFINITE, INFINITE};
    const bool in_attributes = graph.opset < 11;
    const char* const names[2] = {"min", "max"};
    for (size_t i = 0; i < 2; ++i) {
        if (in_attributes) {
            limits[i] = node().number(names[i], limits[i]);
        } else if (node().has_input(i + 1)) {
            const Tensor& limit = required(i + 1, "a limit");
            require(limit.size() == 1,
                    "one number for a limit expected, found " + text_of(limit.dims));
            limits[i] = limit.number(0);
        }
    }
    const Blob blob = clipped(data.blob, limits[0], limits[1]);
    for (size_t i = 0; i < 2; ++i) {
        if (in_attributes) {
            show_number(names[i], limits[i]);
        } else if (node().has_input(i + 1)) {
            show_tensor(i + 1, Tensor::of_doubles(required(i + 1, "a limit").dims, {limits[i]}));
        }
    }
    give(data.dims, blob);
}

void Lowering::hard_sigmoid() {
    const Value& data = value(0);
    const double alpha = node().number("alpha", static_cast<double>(0.2f));
    const double beta = node().number("beta", 0.5);
    // clip(alpha * x + beta, 0, 1) as a sixth of clip(6 * alpha * x + 6 * beta, 0, 6).
    Affine used;
    const Blob inside = emitter.activation(
        emitter.affine(data.blob, {{6.0 * alpha}, {6.0 * beta}}, used), ActivationType_ReLU6);
    show_number("alpha", used.scale[0] / 6.0);
    show_number("beta", used.shift[0] / 6.0);
    give(data.dims, scaled(inside, 1.0 / 6.0));
}

void Lowering::hard_swish() {
    const Value& data = value(0);
    Affine exact;
    const Blob inside =
        emitter.activation(emitter.affine(data.blob, {{1.0}, {3.0}}, exact), ActivationType_ReLU6);
    give(data.dims, emitter.eltwise({data.blob, scaled(inside, 1.0 / 6.0)}, true));
}

void Lowering::softmax() {
    const Value& data = value(0);
    const size_t rank = data.dims.size();
    require(rank >= 1, "a tensor with dimensions expected, found a single number");
    const bool whole_rest = graph.opset < 13;
    const size_t axis = axis_of(node().integer("axis", whole_rest ? 1 : -1), rank);
    const int64_t count = element_count(data.dims);
    int64_t together = data.dims[axis];
    if (whole_rest) {
        for (size_t i = axis + 1; i < rank; ++i) together *= data.dims[i];
    }
    if (together == count) {
        note("the engine's SoftMax subtracts no maximum: inputs above 88.7 give NaN");
        give(data.dims, emitter.activation(channels_of(data.blob), ActivationType_SoftMax));
        return;
    }
    const Blob map = map_of(data);
    // Of two numbers the larger's share is the sigmoid of their distance.
    require(axis == 1 && together == 2 && map.size.c == 2,
            "a softmax over all numbers, or over two channels, expected: the engine has none along "
            "the channels of " +
                text_of(map.size));
    const auto distance = [](size_t row, float* to) {
        to[row] = 1.0f;
        to[1 - row] = -1.0f;
    };
    give(data.dims, emitter.conv(map, 2, Window(), distance, {}, ActivationType_Sigmoid));
}

void Lowering::refuse_normalization() const {
    const std::string expected =
        "a batch normalisation of constants, not in training, expected, found ";
    const int64_t training = node().integer("training_mode", 0);
    if (training != 0) refuse(expected + "training_mode " + std::to_string(training));
    for (size_t i = 1; i < node().outputs.size(); ++i) {
        if (node().has_output(i)) {
            refuse(expected + "the statistics as the output " + in_quotes(node().outputs[i]));
        }
    }
    const char* const names[] = {"scale", "bias", "mean", "variance"};
    const Tensor* arrays[4];
    for (size_t i = 0; i < 4; ++i) {
        arrays[i] = constant(i + 1);
        if (arrays[i] == nullptr) refuse(expected + "a " + names[i] + " that is computed");
        require(arrays[i]->dims.size() == 1 && arrays[i]->dims == arrays[0]->dims,
                expected + "a " + names[i] + " of " + text_of(arrays[i]->dims));
        require(!is_integral(arrays[i]->type),
                expected + "a " + names[i] + " of " + name_of(arrays[i]->type));
    }
    const double epsilon = node().number("epsilon", static_cast<double>(1e-5f));
    for (size_t i = 0; i < arrays[0]->size(); ++i) {
        const double scale = arrays[0]->number(i);
        const double variance = arrays[3]->number(i);
        if (std::isfinite(scale / std::sqrt(variance + epsilon))) continue;
        refuse("a finite scale / sqrt(variance + epsilon) expected, found a scale of " +
               number_text(scale) + ", a variance of " + number_text(variance) +
               " and an epsilon of " + number_text(epsilon) + " in channel " + std::to_string(i));
    }
    refuse(expected + "no channels");
}

void Lowering::affine_node() {
    const size_t rank = value(constant(0) != nullptr ? 1 : 0).dims.size();
    if (node().op_type == "BatchNormalization") {
        require(node().integer("spatial", 1) != 0,
                "attribute \"spatial\" 1 expected, found 0: statistics for each pixel");
    }
    const std::optional<AffineNode> found = affine_of(graph, node(), rank);
    if (!found && node().op_type == "BatchNormalization") refuse_normalization();
    require(found.has_value(), "constants, one for all or one for each channel, expected");
    const Value& data = value(found->data_input);
    const bool norm = node().op_type == "BatchNormalization";
    Affine affine = found->affine;
    Blob blob = data.blob;
    if (found->per_channel) {
        const auto channel_axis = static_cast<int64_t>(rank) - 1 - found->channel_from_end;
        const bool flat = element_count(data.dims) == static_cast<int64_t>(affine.scale.size());
        require(channel_axis == 1 || flat, "constants for the channels expected, found " +
                                               std::to_string(affine.scale.size()) +
                                               " along axis " + std::to_string(channel_axis) +
                                               " of " + text_of(data.dims));
        blob = flat ? channels_of(blob) : map_of(data);
        require(static_cast<size_t>(blob.size.c) == affine.scale.size(),
                "a constant for each of " + std::to_string(blob.size.c) +
                    " channels expected, "
                    "found " +
                    std::to_string(affine.scale.size()));
    }
    Affine used;
    blob = emitter.affine(blob, affine, used);
    if (!found->per_channel) {
        used.scale.resize(1);
        used.shift.resize(1);
    }
    const auto count = static_cast<int64_t>(used.scale.size());
    const std::string& type = node().op_type;
    if (norm) {
        const double epsilon = node().number("epsilon", static_cast<double>(1e-5f));
        show_tensor(1, Tensor::of_doubles({count}, used.scale));
        show_tensor(2, Tensor::of_doubles({count}, used.shift));
        show_tensor(3, Tensor::of_doubles({count}, std::vector<double>(used.scale.size(), 0.0)));
        show_tensor(
            4, Tensor::of_doubles({count}, std::vector<double>(used.scale.size(), 1.0 - epsilon)));
    } else if (type != "Neg") {
        const size_t side = 1 - found->data_input;
        std::vector<double> shown;
        for (size_t i = 0; i < used.scale.size(); ++i) {
            double number = type == "Mul" || type == "Div" ? used.scale[i] : used.shift[i];
            if (type == "Div") number = 1.0 / number;
            if (type == "Sub" && side == 1) number = -number;
            shown.push_back(number);
        }
        show_tensor(side, Tensor::of_doubles(required(side, "a constant").dims, shown));
    }
    give(data.dims, blob);
}

namespace {

Dims broadcast_dims(const Dims& a, const Dims& b) {
    Dims result(std::max(a.size(), b.size()), 1);
    for (size_t i = 0; i < result.size(); ++i) {
        const auto at = [&](const Dims& dims) {
            const size_t missing = result.size() - dims.size();
            return i < missing ? 1 : dims[i - missing];
        };
        require(at(a) == at(b) || at(a) == 1 || at(b) == 1,
                "shapes that broadcast expected, found " + text_of(a) + " and " + text_of(b));
        result[i] = std::max(at(a), at(b));
    }
    return result;
}

}  // namespace

// A constant for each pixel has no layer of its own: a transposed convolution paints it from a
// single pixel that is always 1.
void Lowering::with_constant_map(size_t side) {
    const std::string& type = node().op_type;
    const Value& data = value(side);
    const Tensor& numbers = required(1 - side, "a constant");
    const Dims dims = broadcast_dims(data.dims, numbers.dims);
    require(dims == data.dims, "a constant that broadcasts to " + text_of(data.dims) +
                                   " expected, found " + text_of(numbers.dims));
    const Blob blob = map_of(data);
    const Extent& size = blob.size;
    require(size.elements() <= (int64_t{1} << 24),
            "at most 16777216 pixels with constants of their own, found " + text_of(size));
    const bool negative = type == "Sub" && side == 0;
    const auto used = [&](size_t i) {
        const double number = numbers.number(i);
        return type == "Div" ? 1.0 / number : negative ? -number : number;
    };
    if (rounded != nullptr) {
        std::vector<double> shown(numbers.size());
        for (size_t i = 0; i < shown.size(); ++i) {
            const double half = as_half(used(i));
            shown[i] = type == "Div" ? 1.0 / half : negative ? -half : half;
        }
        show_tensor(1 - side, Tensor::of_doubles(numbers.dims, std::move(shown)));
    }

    // The engine's kernel begins one pixel ahead of what it leaves.
    Window window;
    window.stride_h = size.h;
    window.stride_w = size.w;
    window.kernel_h = size.h + 1;
    window.kernel_w = size.w + 1;
    window.pad_h = window.pad_w = 1;
    const auto row = static_cast<size_t>(window.kernel_w);
    const size_t plane = row * static_cast<size_t>(window.kernel_h);
    Dims steps(dims.size(), 0);
    int64_t step = 1;
    for (size_t i = 0; i < numbers.dims.size(); ++i) {
        const int64_t own = numbers.dims[numbers.dims.size() - 1 - i];
        steps[dims.size() - 1 - i] = own == 1 ? 0 : step;
        step *= own;
    }
    const int64_t pixels = int64_t{size.h} * size.w;
    const auto painted = [&](size_t channel, float* to) {
        std::fill_n(to, plane, 0.0f);
        for (int64_t pixel = 0; pixel < pixels; ++pixel) {
            int64_t rest = static_cast<int64_t>(channel) * pixels + pixel;
            int64_t at = 0;
            for (size_t axis = dims.size(); axis-- > 0;) {
                at += rest % dims[axis] * steps[axis];
                rest /= dims[axis];
            }
            const auto y = static_cast<size_t>(pixel / size.w) + 1;
            const auto x = static_cast<size_t>(pixel % size.w) + 1;
            to[y * row + x] = static_cast<float>(used(static_cast<size_t>(at)));
        }
    };
    Affine exact;
    const Blob one =
        emitter.affine(pad_or_crop(blob, 0, 0, 1 - size.h, 1 - size.w), {{0.0}, {1.0}}, exact);
    const Blob map = emitter.depthwise_deconvolution(one, window, painted, {});
    Blob left = blob;
    if (type == "Sub" && side == 1) left = emitter.affine(left, {{-1.0}, {0.0}}, exact);
    const Fused fused = fuse(fusable({2, 8}));
    give(fused.output, dims,
         emitter.eltwise({left, map}, type == "Mul" || type == "Div", fused.activation));
}

void Lowering::binary() {
    const std::string& type = node().op_type;
    size_t constants = 0;
    for (size_t i = 0; i < node().inputs.size(); ++i) constants += constant(i) != nullptr ? 1 : 0;
    if (constants > 0) {
        require(constants == 1 && node().inputs.size() == 2 && type != "Sum",
                "one constant and one tensor expected, found " + std::to_string(constants) +
                    " constants among " + std::to_string(node().inputs.size()) + " inputs");
        const size_t side = constant(0) != nullptr ? 1 : 0;
        require(type != "Div" || side == 0,
                "a constant to divide by expected, found a constant that is divided");
        if (type == "Div") {
            const Tensor& divisor = *constant(1);
            for (size_t i = 0; i < divisor.size(); ++i) {
                require(divisor.number(i) != 0,
                        "a constant other than 0 to divide by expected, "
                        "found 0 at element " +
                            std::to_string(i));
            }
        }
        const Value& data = value(side);
        const Dims& numbers = constant(1 - side)->dims;
        require(broadcast_dims(data.dims, numbers) == data.dims,
                "a constant that does not enlarge the tensor of " + text_of(data.dims) +
                    " expected, found " + text_of(numbers));
        const std::optional<AffineNode> found = affine_of(graph, node(), data.dims.size());
        const int64_t count = element_count(data.dims);
        const auto channel = static_cast<int64_t>(data.dims.size()) - 2;
        const bool along_channels =
            found && (!found->per_channel || found->channel_from_end == channel ||
                      count == static_cast<int64_t>(found->affine.scale.size()));
        if (!along_channels) {
            with_constant_map(side);
            return;
        }
        affine_node();
        return;
    }
    require(type != "Div",
            "a constant to divide by expected, found a tensor: the engines have no quotient");
    require(type != "Sub" || node().inputs.size() == 2,
            "two inputs expected, found " + std::to_string(node().inputs.size()));
    Dims dims = value(0).dims;
    for (size_t i = 1; i < node().inputs.size(); ++i) {
        dims = broadcast_dims(dims, value(i).dims);
    }
    std::vector<Blob> blobs;
    bool one_shape = true;
    bool one_division = true;
    for (size_t i = 0; i < node().inputs.size(); ++i) {
        one_shape = one_shape && value(i).dims == dims;
        one_division = one_division && one_shape && value(i).blob.size == value(0).blob.size;
    }
    // Time steps come first of all, with the batch of 1 behind them.
    const bool steps = one_shape && dims.size() == 3 && dims[0] > 1 && dims[1] == 1;
    for (size_t i = 0; i < node().inputs.size(); ++i) {
        const Value& each = value(i);
        Blob blob = each.blob;
        if (!one_division && steps) {
            blob = in_rows(rows_of(blob, small(dims[0], "time steps")), 1);
        } else if (!one_division) {
            Value padded = each;
            padded.dims.insert(padded.dims.begin(), dims.size() - each.dims.size(), 1);
            blob = map_of(padded);
            if (padded.dims != dims) blob = broadcast(blob, extent_of(dims));
        }
        if (type == "Sub" && i == 1) {
            Affine exact;
            blob = emitter.affine(blob, {{-1.0}, {0.0}}, exact);
        }
        blobs.push_back(blob);
    }
    if (blobs.size() == 1) {
        give(dims, blobs[0]);
        return;
    }
    const Fused fused = fuse(fusable({2, 8}));
    give(fused.output, dims, emitter.eltwise(blobs, type == "Mul", fused.activation));
}

void Lowering::concat() {
    require(!node().inputs.empty(), "inputs expected");
    std::vector<const Value*> parts;
    for (size_t i = 0; i < node().inputs.size(); ++i) parts.push_back(&value(i));
    const size_t rank = parts[0]->dims.size();
    const size_t axis = axis_of(node().integer("axis", 1), rank);
    Dims dims = parts[0]->dims;
    dims[axis] = 0;
    for (const Value* part : parts) {
        require(part->dims.size() == rank, "tensors of one number of dimensions expected, found " +
                                               text_of(part->dims) + " beside " +
                                               std::to_string(rank) + " dimensions");
        for (size_t i = 0; i < rank; ++i) {
            require(i == axis || part->dims[i] == parts[0]->dims[i],
                    "tensors that differ along axis " + std::to_string(axis) +
                        " only expected, found " + text_of(parts[0]->dims) + " and " +
                        text_of(part->dims));
        }
        dims[axis] += part->dims[axis];
    }
    require(rank >= 2 && axis >= 1,
            "an axis behind the batch expected, found " + std::to_string(axis));
    std::vector<Blob> blobs;
    for (const Value* part : parts) blobs.push_back(map_of(*part));
    if (blobs.size() == 1) {
        give(dims, blobs[0]);
        return;
    }
    // In the engine's axes a tensor without rows lacks ONNX's third.
    const int engine_axis = axis == 1 ? 0 : rank == 4 ? static_cast<int>(axis) - 1 : 2;
    if (blobs[0].size.c > 1) {
        give(dims, join(blobs, engine_axis));
        return;
    }
    if (engine_axis != 0) {
        // One channel has no channel axis: two of them have, and one is taken out again.
        for (Blob& blob : blobs) blob = pick_channels(blob, {0, 0});
        give(dims, pick_channels(join(blobs, engine_axis), {0}));
        return;
    }
    // A first tensor of one channel would be joined by rows. The first two are put side by side by
    // convolutions that leave the other's channels at 0, and summed.
    const int both = blobs[0].size.c + blobs[1].size.c;
    std::vector<Blob> spread;
    int first = 0;
    for (size_t i = 0; i < 2; ++i) {
        const int channels = blobs[i].size.c;
        const auto weights = [=](size_t row, float* to) {
            const int channel = static_cast<int>(row) - first;
            std::fill_n(to, channels, 0.0f);
            if (channel >= 0 && channel < channels) to[channel] = 1.0f;
        };
        Blob blob = emitter.conv(blobs[i], both, Window(), weights, {}, 0);
        blob.range = blobs[i].range.with(0.0);
        spread.push_back(blob);
        first += channels;
    }
    Blob sum = emitter.eltwise(spread, false);
    sum.range = blobs[0].range.with(blobs[1].range);
    blobs.erase(blobs.begin(), blobs.begin() + 2);
    blobs.insert(blobs.begin(), sum);
    give(dims, blobs.size() == 1 ? blobs[0] : join(blobs, 0));
}

}  // namespace modelkit::onnx
