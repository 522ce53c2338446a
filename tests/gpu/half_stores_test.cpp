// Stores as halves round to the nearest, whatever the driver does by itself.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/glutil/half_stores.h"
#include "support/gl_fixture.h"
#include "support/recorders.h"

namespace {

using testing_support::GpuTest;
using testing_support::LogRecorder;
using testing_support::nearest_half;
using testing_support::random_halves;
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
        0.0,           0x1p-14,           2048.5,  65520.0, -65520.0, 70000.0,  -70000.0,
        // Below 2^-14 the step stays 2^-24; half of it is a tie with 0.
        0x1p-15 + 0x1p-25,     0x1p-15 + 3 * 0x1p-25,  0x1p-14 - 0x1p-25,  0x1p-14 - 0x1p-26,
        0x1p-24,       0x1p-25,           -0x1p-25, 0x1.8p-25, 0x1p-26, -3.7 * 0x1p-24};
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

TEST_F(HalfStores, TheTrialLeavesBindingsInPlace) {
    const auto image = upload(Tensor(4, 2, 2, 1.0));
    ASSERT_TRUE(manager.addComputeProgramFromString(copy_source, "half_stores_copy"));
    const auto program = manager.getComputeProgram("half_stores_copy");
    program->use();
    glBindTexture(GL_TEXTURE_2D, image->texture());
    glBindImageTexture(0, image->texture(), 0, GL_FALSE, 0, GL_READ_WRITE, GL_RGBA16F);
    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, buffer);
    const bool once = tesk::tryHalfStores();
    EXPECT_EQ(tesk::tryHalfStores(), once);
    EXPECT_EQ(tesk::halfStoresCutOff(), once);
    const auto integer = [](GLenum name) {
        GLint value = -1;
        glGetIntegerv(name, &value);
        return static_cast<unsigned int>(value);
    };
    const auto of_unit_0 = [](GLenum name) {
        GLint value = -1;
        glGetIntegeri_v(name, 0, &value);
        return static_cast<unsigned int>(value);
    };
    EXPECT_EQ(integer(GL_CURRENT_PROGRAM), program->getProgramID());
    EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D), image->texture());
    EXPECT_EQ(integer(GL_PIXEL_PACK_BUFFER_BINDING), buffer);
    EXPECT_EQ(of_unit_0(GL_IMAGE_BINDING_NAME), image->texture());
    EXPECT_EQ(of_unit_0(GL_IMAGE_BINDING_ACCESS), unsigned{GL_READ_WRITE});
    EXPECT_EQ(of_unit_0(GL_IMAGE_BINDING_FORMAT), unsigned{GL_RGBA16F});
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    glDeleteBuffers(1, &buffer);
    for (const double value : read_back(*image).values) EXPECT_EQ(value, 1.0);
}

/// A copy whose source has other lines before `main` and other words in it.
std::string copy_with(const std::string& before, const std::string& within) {
    return "#version 310 es\n" + before +
           "layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;\n"
           "precision highp float;\n"
           "uniform highp sampler2D src;\n"
           "layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;\n"
           "void main() {\n"
           "ivec2 pos = ivec2(gl_GlobalInvocationID.xy);\n" +
           within + "}\n";
}

TEST_F(HalfStores, ValidSourcesCompileWhateverTheyHold) {
    const std::string store = "imageStore(dst, pos, texelFetch(src, pos, 0));\n";
    const std::string sources[] = {
        copy_with("#extension GL_ARB_gpu_shader5 : enable\n", store),
        copy_with("layout(r32ui, binding = 2) writeonly uniform highp uimage2D counts;\n",
                  store + "imageStore(counts, pos, uvec4(1u));\n"),
        // A store whose arguments a macro gives does not fit the added macro.
        copy_with("#define ARGUMENTS dst, pos, texelFetch(src, pos, 0)\n",
                  "imageStore(ARGUMENTS);\n"),
        // The added function's name is the source's own.
        copy_with("vec4 tesk_nearest_half(vec4 v) { return v; }\n",
                  "imageStore(dst, pos, tesk_nearest_half(texelFetch(src, pos, 0)));\n"),
    };
    const Tensor values = random_halves(4, 8, 8, 77);
    const auto input = upload(values);
    int number = 0;
    for (const std::string& source : sources) {
        SCOPED_TRACE(source);
        const std::string name = "valid_source_" + std::to_string(number++);
        const auto output = make_output(4, 8, 8);
        LogRecorder log;
        ASSERT_TRUE(manager.addComputeProgramFromString(source.c_str(), name));
        const auto program = manager.getComputeProgram(name);
        ASSERT_TRUE(program->isLinked());
        for (const LogRecorder::Line& line : log.lines)
            EXPECT_NE(line.level, Tarno::LogLevel::Error) << line.text;
        program->use();
        program->setUnifromTexture("src", 0, *input);
        program->bindImage(1, GL_WRITE_ONLY, *output);
        program->compute(1, 1, 1);
        EXPECT_EQ(read_back(*output).values, values.values);
    }
}

TEST_F(HalfStores, ACommentNamesNoFormat) {
    const char* const source =
        "#version 310 es\n"
        "layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;\n"
        "// once layout(rgba16f) image2D\n"
        "layout(r32ui, binding = 0) writeonly uniform highp uimage2D dst;\n"
        "void main() { imageStore(dst, ivec2(0), uvec4(7u)); }\n";
    ASSERT_TRUE(manager.addComputeProgramFromString(source, "counts_only"));
    EXPECT_TRUE(manager.getComputeProgram("counts_only")->isLinked());
}

TEST(HalfStoreTexts, OnlySourcesWithNothingButHalvesChange) {
    const std::string half =
        "layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;\n"
        "void main() { imageStore(dst, p, v); }\n";
    const auto changes = [](const std::string& text) {
        const std::string rewritten = tesk::withNearestHalfStores(text);
        // The source itself stays whole behind what is added.
        EXPECT_EQ(rewritten.substr(rewritten.size() - text.size()), text);
        return rewritten != text;
    };
    EXPECT_TRUE(changes(half));
    EXPECT_TRUE(changes("// layout(r32ui) uniform uimage2D x; #extension y : enable\n" + half));
    EXPECT_TRUE(changes("/* rgba32f\n r8 */" + half));
    EXPECT_TRUE(changes("// carried on \\\nlayout(r8) uniform image2D x;\n" + half));
    // Names that hold a format's letters, and formats outside layouts, are no formats.
    EXPECT_TRUE(changes("float r8 = 1.0; float rgba8_scale;\n" + half));
    EXPECT_TRUE(changes("layout ( binding = 2 , rgba16f ) uniform image2DArray other;\n" + half));

    for (const char* format : {"rgba32f", "rgba8", "r32f", "r16f", "rg16f", "r11f_g11f_b10f",
                               "rgba16", "rgb10_a2", "rgba8_snorm"}) {
        EXPECT_FALSE(changes("layout(" + std::string(format) + ") uniform image2D x;\n" + half))
            << format;
    }
    EXPECT_FALSE(changes("layout(r32ui) uniform uimage2D x;\n" + half));
    EXPECT_FALSE(changes("layout(rgba16i) uniform iimage2DArray x;\n" + half));
    EXPECT_FALSE(changes("writeonly uniform image2D x;\n" + half)) << "an image without a format";
    EXPECT_FALSE(changes("layout(rgba16f) uniform image2DMS x;\n" + half));
    EXPECT_FALSE(changes("#define FORMAT r32f\nlayout(FORMAT) uniform image2D x;\n" + half));
    EXPECT_FALSE(changes("#extension GL_ARB_gpu_shader5 : enable\n" + half));
    EXPECT_FALSE(changes("#  extension GL_ARB_gpu_shader5 : enable\n" + half));
    EXPECT_FALSE(changes("layout(rgba16f, binding = 0) readonly uniform image2D src;\n"));
    EXPECT_FALSE(changes("// layout(rgba16f) uniform image2D dst; imageStore(dst, p, v);\n"));
    EXPECT_FALSE(changes(""));
}

}  // namespace
