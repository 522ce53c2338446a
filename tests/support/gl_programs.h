// Single programs of the catalogue under test, and what their results may differ by.
#pragma once

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/program_sources.h"
#include "support/gl_fixture.h"

namespace testing_support {

/// Distance of neighbouring halves at a number.
inline double half_step(double value) {
    const double magnitude = std::fabs(value);
    int exponent = 0;
    std::frexp(magnitude, &exponent);
    return std::ldexp(1.0, std::max(exponent - 1, -14) - 10);
}

/// The most that storing a number as a half changes it. The library's programs store the nearest
/// half, on drivers that would cut off, too.
inline double store_error(double value) {
    return half_step(value) / 2.0;
}

/// Rounding error of a chain of `operations` float operations on numbers up to `magnitude`. GL asks
/// for half a step for sums and products and for two and a half for quotients.
inline double float_error(int operations, double magnitude) {
    return 2.5 * operations * std::ldexp(magnitude, -24);
}

/// Texels differ by the storing of a half and by `error`, of the arithmetic behind it. `tolerance`
/// holds what is to be added for each component, or nothing.
inline void expect_halves(const Tensor& expected, const Tensor& actual, double error,
                          const Tensor* tolerance = nullptr) {
    ASSERT_EQ(expected.channels, actual.channels);
    ASSERT_EQ(expected.height, actual.height);
    ASSERT_EQ(expected.width, actual.width);
    int wrong = 0;
    for (int c = 0; c < expected.channels; ++c) {
        for (int y = 0; y < expected.height; ++y) {
            for (int x = 0; x < expected.width; ++x) {
                const double value = expected.at(c, y, x);
                const double allowed = error + store_error(std::fabs(value) + error) +
                                       (tolerance ? tolerance->at(c, y, x) : 0.0);
                if (std::fabs(actual.at(c, y, x) - value) <= allowed) continue;
                if (++wrong <= 3) {
                    ADD_FAILURE() << "component " << c << ", row " << y << ", column " << x
                                  << ": expected " << value << " within " << allowed << ", found "
                                  << actual.at(c, y, x);
                }
            }
        }
    }
    EXPECT_EQ(wrong, 0) << "of " << expected.values.size() << " values";
}

/// Texels are the very same.
inline void expect_same(const Tensor& expected, const Tensor& actual) {
    ASSERT_EQ(expected.channels, actual.channels);
    ASSERT_EQ(expected.height, actual.height);
    ASSERT_EQ(expected.width, actual.width);
    EXPECT_EQ(expected.values, actual.values);
}

/// A value of a picture, 0 outside.
inline double value_or_zero(const Tensor& picture, int c, int y, int x) {
    const bool inside = y >= 0 && x >= 0 && y < picture.height && x < picture.width;
    return inside ? picture.at(c, y, x) : 0.0;
}

/// A value of a picture, with the edge pixel for what lies outside.
inline double value_clamped(const Tensor& picture, int c, int y, int x) {
    return picture.at(c, std::clamp(y, 0, picture.height - 1), std::clamp(x, 0, picture.width - 1));
}

/// What GL's linear filter gives at the coordinates (u, v) of 0 to 1, over a border of 0.
struct LinearSample {
    double value;
    /// The filter weights carry at least eight bits behind the point, so that each axis may move
    /// the result by 1 / 256 of the range of the four texels.
    double tolerance;
};
inline LinearSample linear_sample(const Tensor& picture, int c, double u, double v) {
    const double px = u * picture.width - 0.5, py = v * picture.height - 0.5;
    const int x = static_cast<int>(std::floor(px)), y = static_cast<int>(std::floor(py));
    const double fx = px - x, fy = py - y;
    const double p00 = value_or_zero(picture, c, y, x), p01 = value_or_zero(picture, c, y, x + 1);
    const double p10 = value_or_zero(picture, c, y + 1, x);
    const double p11 = value_or_zero(picture, c, y + 1, x + 1);
    const double range = std::max({p00, p01, p10, p11}) - std::min({p00, p01, p10, p11});
    return {(p00 * (1 - fx) + p01 * fx) * (1 - fy) + (p10 * (1 - fx) + p11 * fx) * fy,
            2.0 / 256.0 * range};
}

struct Size {
    int height;
    int width;
};

/// Tests of programs one by one. The sizes are no multiples of the local size, but for one.
class ProgramTest : public GpuTest {
protected:
    static std::vector<Size> sizes() { return {{1, 1}, {16, 8}, {5, 9}, {19, 33}}; }

    /// Registers the program alone, and makes it the one in use.
    tesk::ComputeProgram& use(const std::string& name) {
        const char* const source = tesk::programSource(name);
        EXPECT_NE(source, nullptr) << name;
        EXPECT_TRUE(manager.addComputeProgramFromString(source, name));
        tesk::ComputeProgram& program = *manager.getComputeProgram(name);
        program.use();
        return program;
    }
    void register_programs(const std::vector<std::string>& names) {
        for (const std::string& name : names)
            EXPECT_TRUE(manager.addComputeProgramFromString(tesk::programSource(name), name));
    }

    /// Threads over `dst`, rounded up to whole groups, then the result.
    static Tensor dispatched(tesk::ComputeProgram& program, tesk::Image& dst, int group_width = 8,
                             int group_height = 8) {
        const auto groups = [](int size, int group) {
            return static_cast<unsigned int>((size + group - 1) / group);
        };
        program.compute(groups(dst.width(), group_width), groups(dst.height(), group_height), 1);
        return read_back(dst);
    }

    /// A sampler on unit 0, the result on image unit 1, the uniforms set before.
    Tensor sampled(tesk::ComputeProgram& program, const Tensor& src, Size dst, int group_width = 8,
                   int group_height = 8) {
        const auto from = upload(src);
        const auto to = make_output(4, dst.height, dst.width);
        program.setUnifromTexture("src", 0, *from);
        program.bindImage(1, GL_WRITE_ONLY, *to);
        return dispatched(program, *to, group_width, group_height);
    }

    /// Images on the units from 0, the result on the unit behind them.
    Tensor loaded(tesk::ComputeProgram& program, const std::vector<Tensor>& sources, Size dst,
                  GLenum format = GL_RGBA16F) {
        std::vector<std::shared_ptr<tesk::Image>> images;
        for (const Tensor& source : sources) images.push_back(upload(source, format));
        const auto to = make_output(4, dst.height, dst.width, format);
        unsigned int unit = 0;
        for (const auto& image : images) program.bindImage(unit++, GL_READ_ONLY, *image);
        program.bindImage(unit, GL_WRITE_ONLY, *to);
        return dispatched(program, *to);
    }
};

/// A reference: `texel(y, x)` gives the four components.
template <typename Texel>
Tensor picture_of(int height, int width, const Texel& texel) {
    Tensor made(4, height, width);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const std::vector<double> values = texel(y, x);
            for (int c = 0; c < 4; ++c) made.at(c, y, x) = values[static_cast<size_t>(c)];
        }
    }
    return made;
}

}  // namespace testing_support
