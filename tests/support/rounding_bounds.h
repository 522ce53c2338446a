// How far the outputs of two correct nets of one model may lie apart when they differ in nothing
// but the order of their float operations: worked out layer by layer from the records and from the
// sizes of the tensors.
//
// Of each layer there is, channel by channel, a bound on the difference from the exact result. A
// sum of n products carries the errors of its inputs on with the sizes of its weights, and adds
// gamma(n + 1) = (n + 1) u / (1 - (n + 1) u) times the sum of the sizes of its products, u = 2^-24:
// n sums with the bias, and a rounding of the product (N. J. Higham, "Accuracy and Stability of
// Numerical Algorithms", section 3.1; in any order of the sum). Two nets are twice the bound apart.
#pragma once

#include <gtest/gtest.h>
#include <tarno/model.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace testing_support {

inline double gamma_of(double roundings) {
    const double u = std::ldexp(1.0, -24);
    return roundings * u / (1.0 - roundings * u);
}

class RoundingBounds {
public:
    /// The largest absolute values of each layer's output, channel by channel, by layer id. Dense
    /// tensors, [1][1][w], have one channel.
    using Magnitudes = std::map<unsigned short, std::vector<double>>;

    RoundingBounds(const std::string& model, Magnitudes magnitudes)
        : magnitudes(std::move(magnitudes)) {
        ZQNetLoader loader;
        EXPECT_TRUE(loader.LoadFile(model.c_str(), false)) << loader.failure();
        const auto records = loader.getLayersInfo();
        for (const unsigned short id : loader.getSequentialLayers()) walk(*records.at(id));
    }

    /// Of the last layer: how far outputs of two nets may be apart in a channel.
    double apart(size_t channel) const { return 2.0 * errors.at(last).at(channel); }

private:
    using Channels = std::vector<double>;

    static double largest(const Channels& values) {
        return *std::max_element(values.begin(), values.end());
    }

    const Channels& size_of(unsigned short id) const { return magnitudes.at(id); }

    /// What is known of an input's numbers when they carry errors already.
    double size_with_error(unsigned short id, size_t channel) const {
        return size_of(id).at(channel) + errors.at(id).at(channel);
    }

    /// The errors and sizes of the sum over `inputs` of weights[p][input] and a bias. `terms` is
    /// the number of products.
    static double of_sum(double carried, double sizes, double terms) {
        return carried + gamma_of(terms + 1) * sizes;
    }

    void convolution(const ZQLayerInfo_Conv2D& record) {
        const size_t in = record.in_shape->channels, out = record.out_shape->channels;
        const size_t taps = size_t{record.kernel_w} * record.kernel_h;
        const unsigned short bottom = record.bottoms[0];
        const bool one_group = record.effective_groups() == 1;
        Channels result(out);
        for (size_t p = 0; p < out; ++p) {
            double carried = 0.0, sizes = record.has_bias ? std::fabs(record.bias[p]) : 0.0;
            for (size_t q = 0; q < in; ++q) {
                for (size_t k = 0; k < taps; ++k) {
                    // Several groups are computed as one; what the file does not have is 0.
                    const size_t at = one_group ? (p * taps + k) * in + q : (p * in + q) * taps + k;
                    if (at >= record.weights_count) continue;
                    const double weight = std::fabs(record.weights[at]);
                    carried += weight * errors.at(bottom).at(q);
                    sizes += weight * size_with_error(bottom, q);
                }
            }
            result[p] = of_sum(carried, sizes, static_cast<double>(in * taps));
        }
        finish(record, result, record.activation);
    }

    void depthwise(const ZQLayerInfo_DepthWiseConv2D& record) {
        const size_t out = record.out_shape->channels;
        const size_t taps = size_t{record.kernel_w} * record.kernel_h;
        const unsigned short bottom = record.bottoms[0];
        Channels result(out);
        for (size_t p = 0; p < out; ++p) {
            const size_t q = p / record.depth_multiplier;
            double weights = 0.0;
            for (size_t k = 0; k < taps; ++k) weights += std::fabs(record.weights[k * out + p]);
            const double bias = record.has_bias ? std::fabs(record.bias[p]) : 0.0;
            result[p] =
                of_sum(weights * errors.at(bottom).at(q),
                       weights * size_with_error(bottom, q) + bias, static_cast<double>(taps));
        }
        finish(record, result, record.activation);
    }

    void sum(const ZQLayerInfo_ElementWiseOperator& record) {
        EXPECT_EQ(0, record.operator_type) << "no bound for products";
        Channels result(errors.at(record.bottoms[0]).size(), 0.0);
        for (size_t p = 0; p < result.size(); ++p) {
            double carried = 0.0, sizes = 0.0;
            for (unsigned int i = 0; i < record.bottom_count; ++i) {
                carried += errors.at(record.bottoms[i]).at(p);
                sizes += size_with_error(record.bottoms[i], p);
            }
            result[p] = carried + gamma_of(record.bottom_count - 1.0) * sizes;
        }
        finish(record, result, record.activation);
    }

    /// Weights that are not negative and add up to 1, as a maximum or a mix of neighbours has them.
    void mix(const ZQLayerInfo& record, double roundings) {
        Channels result = errors.at(record.bottoms[0]);
        for (size_t p = 0; p < result.size(); ++p) {
            result[p] += gamma_of(roundings) * size_with_error(record.bottoms[0], p);
        }
        finish(record, result, ActivationType_None);
    }

    void concat(const ZQLayerInfo& record) {
        Channels result;
        for (unsigned int i = 0; i < record.bottom_count; ++i) {
            const Channels& part = errors.at(record.bottoms[i]);
            result.insert(result.end(), part.begin(), part.end());
        }
        finish(record, result, ActivationType_None);
    }

    void dense(const ZQLayerInfo_FullConnection& record) {
        const unsigned short bottom = record.bottoms[0];
        const double error = largest(errors.at(bottom)), size = largest(size_of(bottom)) + error;
        double most = 0.0;
        for (size_t p = 0; p < record.num_output; ++p) {
            double weights = 0.0;
            for (size_t q = 0; q < record.num_input; ++q) {
                weights += std::fabs(record.weights[p * record.num_input + q]);
            }
            const double bias = record.has_bias ? std::fabs(record.bias[p]) : 0.0;
            most = std::max(most, of_sum(weights * error, weights * size + bias, record.num_input));
        }
        finish(record, {most}, ActivationType_None);
    }

    /// One step from a state of zeros. A gate changes by a quarter of its sum, a tanh by all of it:
    /// c = i * g by 1 / 4 + 1, h = o * tanh(c) by 1 / 4 more. Exponentials and products of numbers
    /// of at most 1 add less than 16 roundings.
    void lstm_step(const ZQLayerInfo_LSTM& record) {
        const unsigned short bottom = record.bottoms[0];
        const double error = largest(errors.at(bottom)), size = largest(size_of(bottom)) + error;
        const size_t rows = size_t{4} * record.hidden_size;
        double most = 0.0;
        for (size_t p = 0; p < rows; ++p) {
            double weights = 0.0;
            for (size_t q = 0; q < record.input_size; ++q) {
                weights += std::fabs(record.w_ih[0][p * record.input_size + q]);
            }
            const double bias =
                record.has_bias ? std::fabs(record.b_ih[0][p]) + std::fabs(record.b_hh[0][p]) : 0.0;
            most = std::max(most, of_sum(weights * error, weights * size + bias,
                                         record.input_size + record.hidden_size + 1.0));
        }
        finish(record, {1.5 * most + gamma_of(16)}, ActivationType_None);
    }

    void finish(const ZQLayerInfo& record, Channels result, int activation) {
        switch (activation) {
            case ActivationType_None:
            case ActivationType_ReLU:
            case ActivationType_ReLU6:
                break;
            case ActivationType_LeakyReLU:
                // One product with a slope below 1.
                for (size_t p = 0; p < result.size(); ++p) {
                    result[p] += gamma_of(1) * (size_of(record.id).at(p) + result[p]);
                }
                break;
            case ActivationType_Sigmoid:
                for (double& error : result) error = error / 4.0 + gamma_of(4);
                break;
            case ActivationType_Tanh:
                for (double& error : result) error += gamma_of(4);
                break;
            default:
                ADD_FAILURE() << "no bound for activation " << activation;
        }
        errors[record.id] = std::move(result);
        last = record.id;
    }

    void walk(const ZQLayerInfo& record) {
        switch (record.type) {
            case ZQLayerType_Input:
            case ZQLayerType_TensorInput:
                finish(record, Channels(size_of(record.id).size(), 0.0), ActivationType_None);
                break;
            case ZQLayerType_Conv2D:
                convolution(static_cast<const ZQLayerInfo_Conv2D&>(record));
                break;
            case ZQLayerType_DepthWiseConv2D:
                depthwise(static_cast<const ZQLayerInfo_DepthWiseConv2D&>(record));
                break;
            case ZQLayerType_ElementWiseOperator:
                sum(static_cast<const ZQLayerInfo_ElementWiseOperator&>(record));
                break;
            case ZQLayerType_Activation:
                finish(record, errors.at(record.bottoms[0]),
                       static_cast<const ZQLayerInfo_Activation&>(record).activation_type);
                break;
            case ZQLayerType_Pooling:
                EXPECT_EQ(1, static_cast<const ZQLayerInfo_Pooling&>(record).pool_type);
                mix(record, 0.0);
                break;
            case ZQLayerType_Upsampling:
                mix(record, 8.0);  // two positions, four weights, their products and sums
                break;
            case ZQLayerType_Concatenate:
                concat(record);
                break;
            case ZQLayerType_TensorReshape:
                finish(record, {largest(errors.at(record.bottoms[0]))}, ActivationType_None);
                break;
            case ZQLayerType_FullConnection:
                dense(static_cast<const ZQLayerInfo_FullConnection&>(record));
                break;
            case ZQLayerType_LSTM:
                lstm_step(static_cast<const ZQLayerInfo_LSTM&>(record));
                break;
            default:
                ADD_FAILURE() << "no bound for layers of type " << record.type;
        }
    }

    Magnitudes magnitudes;
    std::map<unsigned short, Channels> errors;
    unsigned short last = 0;
};

}  // namespace testing_support
