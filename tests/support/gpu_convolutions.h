// Convolution records with random halves, and what the GPU generators must make of them, in double.
#pragma once

#include <tarno/model.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "modelkit/records.h"
#include "support/gl_fixture.h"

namespace testing_support {

/// A plain or transposed convolution at a base size of 256 pixels.
struct ConvolutionCase {
    int in_channels = 4;
    int out_channels = 4;
    int kernel_w = 1;
    int kernel_h = 1;
    int in_width = 9;
    int in_height = 7;
    int out_width = 9;
    int out_height = 7;
    int pad_x = 0;
    int pad_y = 0;
    int stride_x = 1;
    int stride_y = 1;
    int dilation_x = 1;
    int dilation_y = 1;
    int activation = 0;
    bool has_bias = true;
    unsigned int seed = 1;

    std::string text() const {
        return std::to_string(in_channels) + " to " + std::to_string(out_channels) +
               " channels, kernel " + std::to_string(kernel_w) + "x" + std::to_string(kernel_h) +
               ", " + std::to_string(in_width) + "x" + std::to_string(in_height) + " to " +
               std::to_string(out_width) + "x" + std::to_string(out_height) + ", pad " +
               std::to_string(pad_x) + "," + std::to_string(pad_y) + ", stride " +
               std::to_string(stride_x) + "," + std::to_string(stride_y) + ", dilation " +
               std::to_string(dilation_x) + "," + std::to_string(dilation_y) + ", activation " +
               std::to_string(activation) + (has_bias ? "" : ", no bias") + ", seed " +
               std::to_string(seed);
    }
};

/// The half nearest to pixels / 256, whose product with 256 is `pixels` for all sizes of the tests.
inline unsigned short factor_of(int pixels) {
    return Tarno::float_to_half(static_cast<float>(pixels) / 256.0f);
}

/// The record and its numbers as doubles, weights as at(o, y, x, i).
template <typename Record>
struct ConvolutionLayer {
    Record record;
    std::vector<double> weights;
    std::vector<double> bias;
    int kernel_w;
    int kernel_h;
    int in_channels;

    explicit ConvolutionLayer(const ConvolutionCase& tested)
        : kernel_w(tested.kernel_w), kernel_h(tested.kernel_h), in_channels(tested.in_channels) {
        record.id = 7;
        *record.in_shape = {factor_of(tested.in_width), factor_of(tested.in_height),
                            static_cast<unsigned short>(tested.in_channels)};
        *record.out_shape = {factor_of(tested.out_width), factor_of(tested.out_height),
                             static_cast<unsigned short>(tested.out_channels)};
        record.kernel_w = static_cast<unsigned short>(tested.kernel_w);
        record.kernel_h = static_cast<unsigned short>(tested.kernel_h);
        record.pad_w = static_cast<unsigned short>(tested.pad_x);
        record.pad_h = static_cast<unsigned short>(tested.pad_y);
        record.stride_w = static_cast<unsigned short>(tested.stride_x);
        record.stride_h = static_cast<unsigned short>(tested.stride_y);
        record.has_bias = tested.has_bias ? 1 : 0;
        record.activation = static_cast<unsigned short>(tested.activation);
        record.groups = 1;
        std::mt19937 generator(tested.seed);
        std::uniform_real_distribution<float> numbers(-1.0f, 1.0f);
        const auto fill = [&](size_t count, std::vector<double>& values) {
            std::vector<unsigned short> patterns(count);
            for (unsigned short& pattern : patterns) {
                const float value = static_cast<float>(nearest_half(numbers(generator)));
                values.push_back(value);
                pattern = Tarno::float_to_half(value);
            }
            return patterns;
        };
        modelkit::assign_weights(record,
                                 fill(static_cast<size_t>(tested.out_channels * tested.in_channels *
                                                          tested.kernel_w * tested.kernel_h),
                                      weights));
        modelkit::assign_bias(record, fill(static_cast<size_t>(tested.out_channels), bias));
    }

    double weight(int o, int y, int x, int i) const {
        return weights[static_cast<size_t>(((o * kernel_h + y) * kernel_w + x) * in_channels + i)];
    }
};

/// A result and how far the shader's number may be from it.
struct Expected {
    double value = 0.0;
    double bound = 0.0;
};

/// A sum of products in float: each of its n roundings, of products and of partial sums, is at most
/// 2^-24 of the sum of magnitudes.
class FloatSum {
public:
    void add(double product) {
        sum += product;
        magnitude += std::fabs(product);
        ++terms;
    }
    Expected result() const { return {sum, (terms + 1) * 2.0 * std::ldexp(1.0, -24) * magnitude}; }

private:
    double sum = 0.0;
    double magnitude = 0.0;
    int terms = 0;
};

/// The value after storing it in a texture as the nearest half: at most half a unit in the last
/// place from it, which is 2^-11 of it, or half the smallest subnormal.
inline Expected stored(const Expected& before) {
    const double reach = std::fabs(before.value) + before.bound;
    return {before.value, before.bound + std::ldexp(reach, -11) + std::ldexp(1.0, -25)};
}

/// The activation codes of the convolution sources. GLSL promises exp to (3 + 2 |x|) units in the
/// last place; arguments here stay below 60, so that is 123 units, below 2^-16 of the value. tanh
/// may be made of two such exp and a division.
inline Expected activated(const Expected& before, int code) {
    const double x = before.value;
    const double e = before.bound;
    switch (code) {
        case 2:
            return {std::fmax(0.0, x), e};
        case 3:
            return {std::tanh(x), e + std::ldexp(1.0, -14)};
        case 4:
            return {1.0 / (1.0 + std::exp(-x)), e / 4.0 + std::ldexp(1.0, -15)};
        case 6:
            return {x > 0.0 ? x : 0.1 * x, e + std::ldexp(std::fabs(x), -24)};
        case 7: {
            const double value = std::exp(x / 100.0);
            return {value, value * (e / 100.0 * 1.01 + std::ldexp(1.0, -20))};
        }
        case 8:
            return {std::fmin(std::fmax(0.0, x), 6.0), e};
        default:
            return before;
    }
}

/// Counts the numbers beyond their bounds and reports the first three.
class Mismatches {
public:
    void compare(int channel, int y, int x, const Expected& expected, double found) {
        if (std::fabs(found - expected.value) <= expected.bound) return;
        if (++wrong > 3) return;
        ADD_FAILURE() << "at (" << channel << ", " << y << ", " << x << "): expected "
                      << expected.value << " +- " << expected.bound << ", found " << found;
    }
    int count() const { return wrong; }

private:
    int wrong = 0;
};

}  // namespace testing_support
