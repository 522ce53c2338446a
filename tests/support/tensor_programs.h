// Catalogue programs that work on tensors and buffers: dispatch over a size, and comparisons that
// know what a store into a texture of halves may do and what must stay untouched.
#pragma once

#include <algorithm>
#include <limits>

#include "gpu/opengl/glcnn/src/tesk/program_sources.h"
#include "support/gl_fixture.h"

namespace testing_support {

/// What no program has written: outputs are filled with it, references start with it.
constexpr double untouched = std::numeric_limits<double>::quiet_NaN();

/// Distance of neighbouring halves at `value`. A store may round either way (GL leaves it open), so
/// that this is the error of a store.
inline double half_unit(double value) {
    if (value == 0.0) return std::ldexp(1.0, -24);
    int exponent = 0;
    std::frexp(value, &exponent);  // |value| in [0.5, 1) * 2^exponent
    return std::ldexp(1.0, std::max(exponent - 1, -14) - 10);
}

/// Distance of neighbouring floats at 1.
constexpr double float_unit = 1.0 / (1 << 23);

class TensorProgramTest : public GpuTest {
protected:
    /// A failure names the seed of the test's random numbers.
    explicit TensorProgramTest(unsigned int seed)
        : trace(__FILE__, __LINE__, "seed " + std::to_string(seed)) {}

    /// A program of the catalogue, compiled and in use.
    std::shared_ptr<tesk::ComputeProgram> use_program(const std::string& name) {
        const char* source = tesk::programSource(name);
        EXPECT_NE(source, nullptr) << name;
        if (source == nullptr) return std::make_shared<tesk::ComputeProgram>();
        manager.addComputeProgramFromString(source, name);
        std::shared_ptr<tesk::ComputeProgram> program = manager.getComputeProgram(name);
        GLint linked = 0;
        glGetProgramiv(program->getProgramID(), GL_LINK_STATUS, &linked);
        EXPECT_EQ(linked, 1) << name;
        if (linked == 1) program->use();
        return program;
    }

    /// As many groups as cover width x height x depth invocations.
    static void dispatch(tesk::ComputeProgram& program, int width, int height, int depth) {
        GLint local[3] = {1, 1, 1};
        glGetProgramiv(program.getProgramID(), GL_COMPUTE_WORK_GROUP_SIZE, local);
        program.compute(groups(width, local[0]), groups(height, local[1]), groups(depth, local[2]));
    }
    static unsigned int groups(int size, int local) {
        return static_cast<unsigned int>((size + local - 1) / local);
    }

    template <class T>
    static std::unique_ptr<tesk::Buffer> make_buffer(
        const std::vector<T>& values, unsigned int target = GL_SHADER_STORAGE_BUFFER) {
        return std::make_unique<tesk::Buffer>(static_cast<int>(values.size() * sizeof(T)),
                                              values.data(), target);
    }
    /// A storage buffer of floats that no program has written.
    static std::unique_ptr<tesk::Buffer> make_untouched_buffer(size_t count) {
        return make_buffer(std::vector<float>(count, static_cast<float>(untouched)));
    }
    template <class T = float>
    static std::vector<T> read_buffer(tesk::Buffer& buffer) {
        std::vector<T> values(static_cast<size_t>(buffer.size()) / sizeof(T));
        buffer.getBufferData(buffer.size(), reinterpret_cast<char*>(values.data()),
                             GL_SHADER_STORAGE_BUFFER);
        return values;
    }

private:
    ::testing::ScopedTrace trace;
};

/// Whether `got` lies within `bound` of `want`; NaN for NaN alone, which is how a reference says
/// that a value stays as it was.
inline bool is_close(double got, double want, double bound) {
    if (want != want || got != got) return want != want && got != got;
    return got == want || std::fabs(got - want) <= bound;
}

/// A texture of halves against its reference: each value within the error of the store and
/// `relative` * |value| + `absolute`, which is the arithmetic's.
inline void expect_texture(const Tensor& got, const Tensor& want, double relative = 0.0,
                           double absolute = 0.0) {
    ASSERT_EQ(got.channels, want.channels);
    ASSERT_EQ(got.height, want.height);
    ASSERT_EQ(got.width, want.width);
    int reported = 0;
    for (int c = 0; c < want.channels; ++c) {
        for (int y = 0; y < want.height; ++y) {
            for (int x = 0; x < want.width; ++x) {
                const double value = want.at(c, y, x);
                const double bound = half_unit(value) + relative * std::fabs(value) + absolute;
                if (is_close(got.at(c, y, x), value, bound)) continue;
                ADD_FAILURE() << "channel " << c << ", row " << y << ", column " << x << ": "
                              << got.at(c, y, x) << " for " << value << ", bound " << bound;
                if (++reported == 5) return;
            }
        }
    }
}

/// A texture that must hold the reference to the bit.
inline void expect_same_texture(const Tensor& got, const Tensor& want) {
    ASSERT_EQ(got.values.size(), want.values.size());
    int reported = 0;
    for (size_t i = 0; i < want.values.size(); ++i) {
        if (is_close(got.values[i], want.values[i], 0.0)) continue;
        const size_t plane = static_cast<size_t>(want.height) * static_cast<size_t>(want.width);
        const size_t width = static_cast<size_t>(want.width);
        ADD_FAILURE() << "channel " << i / plane << ", row " << i % plane / width << ", column "
                      << i % width << ": " << got.values[i] << " for " << want.values[i];
        if (++reported == 5) return;
    }
}

/// A buffer of floats against its reference.
inline void expect_floats(const std::vector<float>& got, const std::vector<double>& want,
                          double relative = 0.0, double absolute = 0.0) {
    ASSERT_EQ(got.size(), want.size());
    int reported = 0;
    for (size_t i = 0; i < want.size(); ++i) {
        const double value = want[i];
        const double bound = relative * std::fabs(value) + absolute;
        if (is_close(static_cast<double>(got[i]), value, bound)) continue;
        ADD_FAILURE() << "float " << i << ": " << got[i] << " for " << value << ", bound " << bound;
        if (++reported == 5) return;
    }
}

/// The channels of a tensor, filled up to whole slices.
inline Tensor filled_slices(const Tensor& tensor, double fill) {
    Tensor whole((tensor.channels + 3) / 4 * 4, tensor.height, tensor.width, fill);
    std::copy(tensor.values.begin(), tensor.values.end(), whole.values.begin());
    return whole;
}

struct MapSize {
    int height;
    int width;
};

}  // namespace testing_support
