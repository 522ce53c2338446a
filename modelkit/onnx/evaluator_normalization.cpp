#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "modelkit/onnx/evaluator_operators.h"

namespace modelkit::onnx::evaluation {

namespace {

// One number for each channel.
std::vector<double> per_channel(const Call& call, size_t index, int64_t channels) {
    const Tensor& tensor = call.real(index);
    if (tensor.dims != Dims{channels}) {
        call.refuse("input " + std::to_string(index) + " has shape " + text_of(tensor.dims) +
                    ", expected " + text_of({channels}));
    }
    return tensor.numbers();
}

}  // namespace

// Y = (X - mean) / sqrt(var + epsilon) * scale + B, channel by channel.
void batch_normalization(Call& call) {
    for (size_t i = 1; i < call.node.outputs.size(); ++i)
        call.require(!call.node.has_output(i), "outputs of the training mode are not supported");
    call.require(call.node.integer("training_mode", 0) == 0,
                 "attribute \"training_mode\" is set: statistics of a batch are not supported");
    call.require(call.node.integer("spatial", 1) == 1,
                 "attribute \"spatial\" is 0: statistics of single pixels are not supported");
    const Tensor& x = call.real(0);
    call.require(x.dims.size() >= 2, "the input has shape " + text_of(x.dims) +
                                         ", expected at least batch and channels");
    const Cut at = cut(x.dims, 1);
    const std::vector<double> scale = per_channel(call, 1, at.size);
    const std::vector<double> bias = per_channel(call, 2, at.size);
    const std::vector<double> mean = per_channel(call, 3, at.size);
    const std::vector<double> variance = per_channel(call, 4, at.size);
    const double epsilon = call.node.number("epsilon", 1e-5f);
    std::vector<double> y = call.room<double>(x.dims);
    const Numbers input(x);
    for (size_t i = 0; i < y.size(); ++i) {
        const size_t c = i / static_cast<size_t>(at.inner) % static_cast<size_t>(at.size);
        y[i] = (input[i] - mean[c]) / std::sqrt(variance[c] + epsilon) * scale[c] + bias[c];
    }
    call.give(x.dims, std::move(y));
}

// The same with the mean and the variance of each plane itself.
void instance_normalization(Call& call) {
    const Tensor& x = call.real(0);
    call.require(x.dims.size() >= 3, "the input has shape " + text_of(x.dims) +
                                         ", expected batch, channels and spatial axes");
    const Cut at = cut(x.dims, 1);
    const std::vector<double> scale = per_channel(call, 1, at.size);
    const std::vector<double> bias = per_channel(call, 2, at.size);
    const double epsilon = call.node.number("epsilon", 1e-5f);
    std::vector<double> y = call.room<double>(x.dims);
    call.spend(2 * static_cast<int64_t>(y.size()));
    const Numbers input(x);
    const auto count = static_cast<size_t>(at.inner);
    for (size_t start = 0; start < y.size(); start += count) {
        const size_t c = start / count % static_cast<size_t>(at.size);
        double mean = 0;
        double variance = 0;
        for (size_t i = start; i < start + count; ++i) mean += input[i];
        mean /= static_cast<double>(count);
        for (size_t i = start; i < start + count; ++i)
            variance += (input[i] - mean) * (input[i] - mean);
        variance /= static_cast<double>(count);
        for (size_t i = start; i < start + count; ++i)
            y[i] = (input[i] - mean) / std::sqrt(variance + epsilon) * scale[c] + bias[c];
    }
    call.give(x.dims, std::move(y));
}

namespace {

void softmax_along(Call& call, const Cut& at) {
    const Tensor& x = call.real(0);
    std::vector<double> y = call.room<double>(x.dims);
    call.spend(2 * static_cast<int64_t>(y.size()));
    if (y.empty()) return call.give(x.dims, std::move(y));
    const Numbers input(x);
    for (int64_t outer = 0; outer < at.outer; ++outer) {
        for (int64_t inner = 0; inner < at.inner; ++inner) {
            const auto place = [&](int64_t i) {
                return static_cast<size_t>((outer * at.size + i) * at.inner + inner);
            };
            double most = -std::numeric_limits<double>::infinity();
            for (int64_t i = 0; i < at.size; ++i) most = std::max(most, input[place(i)]);
            double total = 0;
            for (int64_t i = 0; i < at.size; ++i)
                total += y[place(i)] = std::exp(input[place(i)] - most);
            for (int64_t i = 0; i < at.size; ++i) y[place(i)] /= total;
        }
    }
    call.give(x.dims, std::move(y));
}

}  // namespace

// Before set 13 all axes from `axis` on are one.
void softmax_of_rows(Call& call) {
    const Dims& dims = call.real(0).dims;
    Cut at;
    const size_t axis = call.axis(call.node.integer("axis", 1), dims.size());
    for (size_t i = 0; i < dims.size(); ++i) (i < axis ? at.outer : at.inner) *= dims[i];
    std::swap(at.size, at.inner);
    softmax_along(call, at);
}

void softmax(Call& call) {
    const Dims& dims = call.real(0).dims;
    softmax_along(call, cut(dims, call.axis(call.node.integer("axis", -1), dims.size())));
}

}  // namespace modelkit::onnx::evaluation
