// Stores as halves round to the nearest, whatever the driver does by itself.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/glutil/half_stores.h"
#include "support/gl_fixture.h"

namespace {

using testing_support::GpuTest;
using testing_support::nearest_half;
using testing_support::Tensor;

using HalfStores = GpuTest;

/// Copies a texture of floats into one of halves.
const char* const copy_source =
    "#version 310 es\n"
    "layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;\n"
    "precision highp float;\n"
    "uniform highp sampler2D src;\n"
    "layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;\n"
    "void main() {\n"
    "ivec2 pos = ivec2(gl_GlobalInvocationID.xy);\n"
    "imageStore(dst, pos, texelFetch(src, pos, 0));\n"
    "}\n";

TEST_F(HalfStores, TakeTheNearestHalf) {
    constexpr int side = 16;
    Tensor values(4, side, side);
    std::mt19937 generator(5);
    std::uniform_real_distribution<double> mantissas(1.0, 2.0);
    for (size_t i = 0; i < values.values.size(); ++i) {
        const double sign = i % 2 == 0 ? 1.0 : -1.0;
        const int exponent = static_cast<int>(i % 29) - 13;
        const float value = static_cast<float>(std::ldexp(sign * mantissas(generator), exponent));
        values.values[i] = static_cast<double>(value);
    }
    // Ties, the largest half and what rounds to it, infinities, 0.
    const double special[] = {
        1.0 + 0x1p-11, 1.0 + 3 * 0x1p-11, -1.0 - 0x1p-11, 65504.0, 65519.0, HUGE_VAL, -HUGE_VAL,
        0.0,           0x1p-14,           2048.5};
    std::copy(std::begin(special), std::end(special), values.values.begin());
    const auto input = upload(values, GL_RGBA32F);
    const auto output = make_output(4, side, side);
    ASSERT_TRUE(manager.addComputeProgramFromString(copy_source, "half_stores_copy"));
    const auto program = manager.getComputeProgram("half_stores_copy");
    ASSERT_TRUE(program->isLinked());
    program->use();
    program->setUnifromTexture("src", 0, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->compute(2, 2, 1);
    const Tensor stored = read_back(*output);
    for (size_t i = 0; i < values.values.size(); ++i) {
        ASSERT_EQ(stored.values[i], nearest_half(values.values[i])) << values.values[i];
    }
}

TEST_F(HalfStores, WhatIsNoNumberStaysNone) {
    const auto input = upload(Tensor(4, 8, 8, std::nan("")), GL_RGBA32F);
    const auto output = upload(Tensor(4, 8, 8, 1.0));
    ASSERT_TRUE(manager.addComputeProgramFromString(copy_source, "half_stores_copy"));
    const auto program = manager.getComputeProgram("half_stores_copy");
    program->use();
    program->setUnifromTexture("src", 0, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->compute(1, 1, 1);
    for (const double value : read_back(*output).values) ASSERT_TRUE(std::isnan(value));
}

TEST_F(HalfStores, TheTrialLeavesProgramAndTextureInPlace) {
    const auto image = upload(Tensor(4, 2, 2, 1.0));
    glBindTexture(GL_TEXTURE_2D, image->texture());
    tesk::halfStoresCutOff();
    GLint bound = 0;
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &bound);
    EXPECT_EQ(static_cast<unsigned int>(bound), image->texture());
}

TEST(HalfStoreTexts, SourcesWithOtherFormatsOrWithoutStoresStay) {
    const std::string half =
        "layout(rgba16f, binding = 1) uniform image2D dst; imageStore(dst, p, v);";
    EXPECT_NE(tesk::withNearestHalfStores(half), half);
    EXPECT_NE(tesk::withNearestHalfStores(half).find(half), std::string::npos);
    for (const char* other : {"rgba32f", "rgba8", "r32f"}) {
        const std::string mixed = half + " layout(" + other + ") uniform image2D other;";
        EXPECT_EQ(tesk::withNearestHalfStores(mixed), mixed);
    }
    const std::string reads = "layout(rgba16f, binding = 0) readonly uniform image2D src;";
    EXPECT_EQ(tesk::withNearestHalfStores(reads), reads);
}

}  // namespace
