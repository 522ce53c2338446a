// A context for the tests of the GPU side, and uploads and read-backs in plain numbers.
#pragma once

#include <GL/glew.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>
#include <tarno/log.h>

#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace testing_support {

/// A tensor in index notation at(c, y, x), for references.
struct Tensor {
    int channels = 0;
    int height = 0;
    int width = 0;
    std::vector<double> values;

    Tensor() = default;
    Tensor(int channels, int height, int width, double fill = 0.0)
        : channels(channels),
          height(height),
          width(width),
          values(static_cast<size_t>(channels) * static_cast<size_t>(height) *
                     static_cast<size_t>(width),
                 fill) {}

    size_t index(int c, int y, int x) const {
        return (static_cast<size_t>(c) * static_cast<size_t>(height) + static_cast<size_t>(y)) *
                   static_cast<size_t>(width) +
               static_cast<size_t>(x);
    }
    double& at(int c, int y, int x) { return values[index(c, y, x)]; }
    double at(int c, int y, int x) const { return values[index(c, y, x)]; }
};

/// The nearest half to a number, as a double; ties to even. Numbers beyond the range become
/// infinite. Written with integers and ldexp, apart from the library's conversion.
inline double nearest_half(double value) {
    if (value != value || value == 0.0) return value;
    int exponent = 0;
    std::frexp(value, &exponent);  // |value| in [0.5, 1) * 2^exponent
    const int lowest = exponent - 1 < -14 ? -14 : exponent - 1;
    const double unit = std::ldexp(1.0, lowest - 10);
    const double rounded = std::nearbyint(value / unit) * unit;
    if (std::fabs(rounded) > 65504.0) return value > 0 ? HUGE_VAL : -HUGE_VAL;
    return rounded;
}

/// Numbers that halves hold exactly, from a seed that a failing test prints.
inline Tensor random_halves(int channels, int height, int width, unsigned int seed,
                            double low = -1.0, double high = 1.0) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<double> numbers(low, high);
    Tensor tensor(channels, height, width);
    for (double& value : tensor.values)
        value = nearest_half(numbers(generator));
    return tensor;
}

/// One context for the process, made with the first test and torn down after the last. A pool and a
/// manager for each test. No GL error may be pending when a test ends.
class GpuTest : public ::testing::Test {
protected:
    GpuTest() : pool(0), manager(0, "test") {}

    void SetUp() override {
        ASSERT_EQ(context_result(), TN_Result_Success) << "no context with OpenGL 4.3";
        Tarno::SetLogLevel(Tarno::LogLevel::Error);
        manager.initOpenglParameters();
        Tarno::SetLogLevel(Tarno::LogLevel::Info);
        ASSERT_EQ(glGetError(), GLenum{GL_NO_ERROR});
    }
    void TearDown() override {
        EXPECT_EQ(glGetError(), GLenum{GL_NO_ERROR}) << "a GL error is pending after the test";
        manager.release();
        pool.release();
    }

    static _TN_Result context_result() {
        // Software drivers take half the time to compile when they don't optimise; what is computed
        // stays the same.
        static const int environment = setenv("GALLIVM_PERF", "nopt", 0);
        static_cast<void>(environment);
        static unsigned int id = 0;
        static const _TN_Result result = tesk_Init(&id);
        return result;
    }

    /// The error that a test provoked on purpose.
    static GLenum take_gl_error() { return glGetError(); }

    std::shared_ptr<tesk::Image> make_image(int channels, int height, int width,
                                            GLenum format = GL_RGBA16F) {
        return std::make_shared<tesk::Image>(height, width, channels, format, &pool);
    }

    /// Uploads a tensor; the components beyond its channels get `padding`. The image holds one read
    /// more than nothing, so that it keeps its texture while the test reads it.
    std::shared_ptr<tesk::Image> upload(const Tensor& tensor, GLenum format = GL_RGBA16F,
                                        float padding = 0.0f) {
        const std::shared_ptr<tesk::Image> image =
            make_image(tensor.channels, tensor.height, tensor.width, format);
        const int slices = (tensor.channels + 3) / 4;
        std::vector<float> texels;
        texels.reserve(static_cast<size_t>(slices) * 4 * static_cast<size_t>(tensor.height) *
                       static_cast<size_t>(tensor.width));
        for (int slice = 0; slice < slices; ++slice) {
            for (int y = 0; y < tensor.height; ++y) {
                for (int x = 0; x < tensor.width; ++x) {
                    for (int c = 4 * slice; c < 4 * slice + 4; ++c) {
                        texels.push_back(c < tensor.channels
                                             ? static_cast<float>(tensor.at(c, y, x))
                                             : padding);
                    }
                }
            }
        }
        image->addReadCount();
        image->update(reinterpret_cast<const char*>(texels.data()), 0);
        return image;
    }

    /// An image that holds NaN everywhere, for outputs.
    std::shared_ptr<tesk::Image> make_output(int channels, int height, int width,
                                             GLenum format = GL_RGBA16F) {
        return upload(Tensor(channels, height, width, std::nan("")), format, NAN);
    }

    /// All components of all slices, those beyond the channels too.
    static Tensor read_back(tesk::Image& image) {
        const int slices = (image.channels() + 3) / 4;
        Tensor tensor(4 * slices, image.height(), image.width());
        std::vector<float> texels(4 * static_cast<size_t>(image.height()) *
                                  static_cast<size_t>(image.width()));
        for (int slice = 0; slice < slices; ++slice) {
            image.copyTexToMemry(texels.data(), slice);
            size_t i = 0;
            for (int y = 0; y < tensor.height; ++y) {
                for (int x = 0; x < tensor.width; ++x) {
                    for (int c = 0; c < 4; ++c)
                        tensor.at(4 * slice + c, y, x) = texels[i++];
                }
            }
        }
        return tensor;
    }

    tesk::TexturePool pool;
    tesk::ComputeProgramManager manager;
};

}  // namespace testing_support
