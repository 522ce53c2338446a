// Records for the shader generators, and the comparison of what they stored with a reference in
// double.
#pragma once

#include <gtest/gtest.h>
#include <tarno/model.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "modelkit/records.h"
#include "support/gl_fixture.h"

namespace testing_support {

/// The bit pattern of a number that a half holds exactly.
inline unsigned short half_pattern(double value) {
    if (value == 0.0) return std::signbit(value) ? 0x8000 : 0;
    int exponent = 0;
    const double fraction = std::frexp(std::fabs(value), &exponent);
    const unsigned int sign = value < 0 ? 0x8000u : 0u;
    if (exponent < -13) return static_cast<unsigned short>(sign + std::ldexp(std::fabs(value), 24));
    const auto mantissa = static_cast<unsigned int>(std::ldexp(fraction, 11)) - 1024u;
    return static_cast<unsigned short>(sign + (static_cast<unsigned int>(exponent + 14) << 10) +
                                       mantissa);
}

inline std::vector<unsigned short> half_patterns(const std::vector<double>& values) {
    std::vector<unsigned short> patterns;
    for (const double value : values) patterns.push_back(half_pattern(value));
    return patterns;
}

/// `count` numbers that halves hold, of a seed that a failing test prints.
inline std::vector<double> random_half_list(size_t count, unsigned int seed, double low = -1.0,
                                            double high = 1.0) {
    return random_halves(1, 1, static_cast<int>(count), seed, low, high).values;
}

struct LayerShape {
    int channels;
    int height;
    int width;
};

/// A relative shape for a net of 256 by 256 pixels. Exact up to 2048 pixels.
inline void set_shape(shape3& shape, const LayerShape& size) {
    shape.scale_x = half_pattern(size.width / 256.0);
    shape.scale_y = half_pattern(size.height / 256.0);
    shape.channels = static_cast<unsigned short>(size.channels);
}

inline void set_shapes(ZQLayerInfo& record, const LayerShape& in, const LayerShape& out) {
    set_shape(*record.in_shape, in);
    set_shape(*record.out_shape, out);
}

inline tensor28 absolute_shape(const std::vector<int>& dims) {
    tensor28 tensor = {};
    tensor.rank = static_cast<unsigned short>(dims.size());
    for (size_t i = 0; i < dims.size(); ++i) tensor.dims[i] = static_cast<unsigned short>(dims[i]);
    return tensor;
}

/// A value outside the tensor is 0, as texels outside a texture are.
inline double padded(const Tensor& tensor, int c, int y, int x) {
    if (c < 0 || c >= tensor.channels || y < 0 || y >= tensor.height || x < 0 || x >= tensor.width)
        return 0.0;
    return tensor.at(c, y, x);
}

/// A result in double, and how far the arithmetic in float may be from it.
struct Reference {
    Tensor values;
    Tensor errors;

    Reference(int channels, int height, int width)
        : values(channels, height, width), errors(channels, height, width) {}
};

/// The error of a sum of `terms` products in float, whose magnitudes sum up to `magnitude`: each
/// product is rounded once and goes through at most `terms` additions.
inline double sum_error(int terms, double magnitude) {
    return (terms + 1) * std::ldexp(magnitude, -24);
}

/// Compares all channels of an image with a reference: the error of the arithmetic, and one unit of
/// the last place of a half for the store, whose rounding GL leaves to the driver (llvmpipe cuts).
inline void expect_matches(const Tensor& stored, const Reference& reference) {
    ASSERT_GE(stored.channels, reference.values.channels);
    ASSERT_EQ(stored.height, reference.values.height);
    ASSERT_EQ(stored.width, reference.values.width);
    int failures = 0;
    for (int c = 0; c < reference.values.channels; ++c) {
        for (int y = 0; y < stored.height; ++y) {
            for (int x = 0; x < stored.width; ++x) {
                const double want = reference.values.at(c, y, x);
                const double error = reference.errors.at(c, y, x);
                const double found = stored.at(c, y, x);
                const double bound =
                    error + std::ldexp(std::fabs(want) + error, -11) + std::ldexp(1.0, -25);
                if (std::fabs(found - want) <= bound) continue;
                ADD_FAILURE() << "channel " << c << ", row " << y << ", column " << x << ": "
                              << found << ", expected " << want << " +- " << bound;
                if (++failures == 5) return;
            }
        }
    }
}

/// The same for results that are stored without arithmetic.
inline void expect_equals(const Tensor& stored, const Tensor& want) {
    ASSERT_GE(stored.channels, want.channels);
    ASSERT_EQ(stored.height, want.height);
    ASSERT_EQ(stored.width, want.width);
    int failures = 0;
    for (int c = 0; c < want.channels; ++c) {
        for (int y = 0; y < want.height; ++y) {
            for (int x = 0; x < want.width; ++x) {
                if (stored.at(c, y, x) == want.at(c, y, x)) continue;
                ADD_FAILURE() << "channel " << c << ", row " << y << ", column " << x << ": "
                              << stored.at(c, y, x) << ", expected " << want.at(c, y, x);
                if (++failures == 5) return;
            }
        }
    }
}

/// ReLU, ReLU6, and what passes: the activations that most generators have.
inline double clamped(int code, double value) {
    if (code == 2) return std::max(0.0, value);
    if (code == 8) return std::min(std::max(0.0, value), 6.0);
    return value;
}

inline bool contains(const std::string& text, const std::string& piece) {
    return text.find(piece) != std::string::npos;
}

inline size_t occurrences(const std::string& text, const std::string& piece) {
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++count;
    return count;
}

}  // namespace testing_support
