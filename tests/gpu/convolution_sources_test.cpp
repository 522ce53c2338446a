// Names and texts of the convolution programs, made without a context.
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <string>

#include "gpu/opengl/glcnn/src/tesk/shaderformat.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_1x1.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_kxk.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_transpose_conv2d.h"

namespace {

using tesk::ShaderFormat;
using tesk::TricksParams;

TricksParams params_of(int in_channels, int out_channels, int kernel_w, int kernel_h) {
    TricksParams params;
    params.localSizeX = 8;
    params.localSizeY = 8;
    params.localSizeZ = 1;
    params.inChannels = in_channels;
    params.outChannels = out_channels;
    params.kernelWidth = kernel_w;
    params.kernelHeight = kernel_h;
    params.inSlices = (in_channels + 3) / 4;
    params.inSliceStride = kernel_w * kernel_h * 2;
    params.outSliceStride = params.inSlices * params.inSliceStride;
    params.activation = 0;
    return params;
}

void expect_all(const std::string& source, std::initializer_list<const char*> pieces) {
    for (const char* piece : pieces)
        EXPECT_NE(source.find(piece), std::string::npos) << "missing: " << piece << "\n" << source;
}

bool holds(const std::string& source, const char* piece) {
    return source.find(piece) != std::string::npos;
}

TEST(ConvolutionSource, OfManyChannelsLoopsOverArraySlices) {
    const TricksParams params = params_of(5, 5, 3, 3);
    const std::string source = ShaderFormat::instance().conv2d_3x3_basic(params);
    expect_all(source,
               {"#version 310 es",
                "layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;",
                "uniform lowp sampler2DArray src;", "uniform lowp sampler2DArray dstIn;",
                "layout(rgba16f, binding = 1) writeonly uniform lowp image2DArray dst;",
                "//0; //do nothing just for spare",
                "layout(std430, binding = 2)  buffer weight_buffer{",
                "uvec4 weights[]; //o/4 x i/4 x h x w",
                "layout(std430, binding = 3)  buffer bias_buffer{", "uvec4 bias[];",
                "uniform int dstOutZOffset;", "uniform int layerId;", "uniform int inDepth;",
                "precision lowp float;",
                "tmp_w[0] = vec4(unpackHalf2x16(wt1.x), unpackHalf2x16(wt1.y));",
                "InverseTransform(in mat4 M)", "void main(){ ",
                "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xyz);",
                "ivec2 ipx0 = ivec2(out_pos.x * 1, out_pos.y * 1) + ivec2(1, 1);",
                "int offset_out_z = out_pos.z * 36;", "for (int i = 0; i < 2; i++)",
                "ivec3 in_pos = ivec3(ipx0.x, ipx0.y, i);", "int offset = offset_out_z + i * 18;",
                ";//conv2d_muti_in_imageData_body", ";//conv2d_cal_body", "vec4 data[9];",
                "data[0] = texelFetchOffset(src, in_pos, 0, ivec2(-1, -1));",
                "out_value += (unpack2Mat(weights[offset], weights[offset + 1])) * data[0];",
                "out_value += (unpack2Mat(weights[offset + 2], weights[offset + 3])) * data[1];",
                "out_value += vec4(unpackHalf2x16(bias[out_pos.z + dstOutZOffset].x),\t\t\n"
                "\t\t\t\t\t\tunpackHalf2x16(bias[out_pos.z + dstOutZOffset].y));\t\n",
                ";\t\t//add bias", ";\t\t//activation fun", ";\t\t//imagestore",
                "imageStore(dst, out_pos+ivec3(0,0,dstOutZOffset), out_value);\t\n"});
}

TEST(ConvolutionSource, OfFourChannelsHasNoLoop) {
    const TricksParams params = params_of(4, 4, 3, 3);
    const std::string source = ShaderFormat::instance().conv2d_3x3_basic(params);
    expect_all(source,
               {"uniform lowp sampler2D src;", "uniform lowp sampler2D dstIn;",
                "layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;",
                "ivec2 in_pos = ivec2(ipx0.x, ipx0.y);", "int offset = out_pos.z * 18;",
                "1;//do nothing for spare", "18;//do nothing for spare",
                ";//conv2d_4_in_imageData_body",
                "out_value += vec4(unpackHalf2x16(bias[0].x),\t\t\n"
                "\t\t\t\t\t\tunpackHalf2x16(bias[0].y));\t\n",
                "{imageStore(dst, out_pos.xy, out_value);}\t\n"});
    EXPECT_FALSE(holds(source, "for (int i"));
    EXPECT_FALSE(holds(source, "sampler2DArray"));
}

TEST(ConvolutionSource, OfManyIntoFewChannelsSparesTheOutputOffset) {
    const std::string source = ShaderFormat::instance().conv2d_1x1_basic(params_of(8, 3, 1, 1));
    expect_all(source, {"4;//do nothing for spare", "int offset = i * 2;",
                        "out_value += (unpack2Mat(weights[offset], weights[offset + 1]))\n"
                        "\t\t\t* texelFetchOffset(src, in_pos, 0, ivec2(0, 0));\t\n",
                        "uniform lowp sampler2D dstIn;",
                        "layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;",
                        "bias[0]"});
}

TEST(ConvolutionSource, WithoutBiasNamesNone) {
    TricksParams params = params_of(4, 4, 1, 1);
    params.hasBias = 0;
    EXPECT_FALSE(holds(ShaderFormat::instance().conv2d_1x1_basic(params), "bias[0]"));
}

TEST(ConvolutionSource, WithUniformBlocksDeclaresTheirLength) {
    TricksParams params = params_of(8, 8, 1, 1);
    params.uboWeightCount = 4096;
    expect_all(ShaderFormat::instance().conv2d_1x1_basic(params),
               {"layout(std140, binding = 2)  uniform weight_buffer{",
                "uvec4 weights[4096]; //o/4 x i/4 x h x w",
                "layout(std140, binding = 3)  uniform bias_buffer{", "uvec4 bias[256];"});
}

TEST(ConvolutionSource, HasTheTextOfEachActivation) {
    TricksParams params = params_of(4, 4, 1, 1);
    const auto source = [&](int code) {
        params.activation = static_cast<int16_t>(code);
        return std::string(ShaderFormat::instance().conv2d_1x1_basic(params));
    };
    expect_all(source(2), {"out_value = max(vec4(0.0, 0.0, 0.0, 0.0), out_value);"});
    expect_all(source(3), {"out_value = tanh(out_value);"});
    expect_all(source(4),
               {"out_value = 1.0 / (1.0 + exp(vec4(0.0, 0.0, 0.0, 0.0) - out_value));"});
    expect_all(source(6), {"vec4 leakyValue = out_value * 0.1;",
                           "out_value.x = out_value.x > 0.0 ? out_value.x : leakyValue.x;",
                           "out_value.w = out_value.w > 0.0 ? out_value.w : leakyValue.w;"});
    expect_all(source(7), {"out_value = exp(out_value / 100.0);"});
    expect_all(source(8),
               {"out_value = min(max(vec4(0.0, 0.0, 0.0, 0.0), out_value), 6.0);"});
    const std::string identity = source(0);
    for (const int code : {1, 5, 9, 100})
        EXPECT_EQ(source(code), identity);
}

TEST(ConvolutionSource, DilationSpreadsTheTapsOfThreeByThreeAlone) {
    TricksParams params = params_of(4, 4, 3, 3);
    params.dilationX = params.dilationY = 2;
    params.padX = params.padY = 2;
    expect_all(ShaderFormat::instance().conv2d_3x3_basic(params),
               {"ivec2(-2, -2)", "ivec2(0, 0)", "ivec2(2, 2)", "+ ivec2(0, 0);"});
    params.kernelHeight = 1;
    expect_all(ShaderFormat::instance().conv2d_1x3_basic(params),
               {"data[0] = texelFetchOffset(src, in_pos, 0, ivec2(-1,0));",
                "out_value += unpack2Mat(weights[offset+2], weights[offset+3]) * data[1];",
                "+ ivec2(0, -1);"});
}

TEST(ConvolutionSource, FourByFourBeginsTwoLeftOfItsCentre) {
    TricksParams params = params_of(4, 4, 4, 4);
    params.padX = params.padY = 1;
    expect_all(ShaderFormat::instance().conv2d_4x4_basic(params),
               {"+ ivec2(1, 1);", "vec4 data[16];", "ivec2(-2, -2)", "ivec2(1, 1)"});
}

TEST(ConvolutionSource, LongKernelsDropTheOuterBrackets) {
    for (const char* source : {ShaderFormat::instance().conv2d_1x5_basic(params_of(4, 4, 5, 1))}) {
        expect_all(source,
                   {"out_value += unpack2Mat(weights[offset + 2], weights[offset + 3]) * data[1];"});
    }
    expect_all(ShaderFormat::instance().conv2d_7x1_basic(params_of(4, 4, 1, 7)),
               {"data[6] = texelFetchOffset(src, in_pos, 0, ivec2(0,3));",
                "out_value += unpack2Mat(weights[offset + 12], weights[offset + 13]) * data[6];"});
}

TEST(ConvolutionSource, FourPointFormsHaveTheirPieces) {
    TricksParams params = params_of(8, 8, 1, 1);
    params.strideX = 2;
    expect_all(ShaderFormat::instance().conv2d_1x1_4PointsOut(params),
               {"vec4 out_value[4];",
                "ivec2 ipx0 = ivec2(out_pos.x * 4, out_pos.y * 2) + ivec2(0, 0);", "bias_tmp",
                "ivec2(2, 0)", "ivec2(2, 1)", "out_pos.xy *= 2;"});
    expect_all(ShaderFormat::instance().conv2d_1x1_4Points_2Slice(params),
               {"int offset_out_z_slice0 = out_pos.z * 2 * 4;",
                "int offset_out_z_slice1 = (out_pos.z * 2 + 1) * 4;", "inputValue3",
                "int offset_bias_slice0 = out_pos.z * 2 + dstOutZOffset;",
                "imageStore(dst, ivec3(out_pos.x * 2,     out_pos.y * 2,     out_pos.z * 2 + "
                "dstOutZOffset), out_value_slice0[0]);"});
    expect_all(ShaderFormat::instance().conv2d_1x1_4Points_4Slice(params),
               {"weights_tmp_slice3", "ivec2(1, 0)", "ivec2(0, 1)", "ivec2(1, 1)"});
    expect_all(ShaderFormat::instance().conv2d_1x1_4Points_4Slice(params_of(4, 8, 1, 1)),
               {"\xa3\xa8", "\xa3\xa9"});
}

TEST(ConvolutionSource, TransposedFormsHaveTheirPieces) {
    TricksParams params = params_of(8, 8, 3, 3);
    params.padX = params.padY = 1;
    expect_all(
        ShaderFormat::instance().transpose_conv2d_3x3_basic(params),
        {"ivec2 ipx0 = ivec2(out_pos.x, out_pos.y) + ivec2(0, 0);", "vec4 data[4];",
         "out_value_3 += (unpack2Mat(weights[offset], weights[offset + 1])) * data[3];",
         "out_value_0 += (unpack2Mat(weights[offset + 8], weights[offset + 9])) * data[0];",
         "out_value_3 += tmp_bias;", "out_pos.xy *= 2;",
         "imageStore(dst, out_pos + ivec3(0, 0, dstOutZOffset), out_value_0);"});
    params = params_of(4, 3, 2, 2);
    params.activation = 2;
    expect_all(ShaderFormat::instance().transpose_conv2d_2x2_basic(params),
               {"layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;",
                "vec4 data = texelFetchOffset(src, in_pos, 0, ivec2(0, 0));\t\n",
                "vec4 tmp_bias = vec4(unpackHalf2x16(bias[0].x),   \n"
                "    unpackHalf2x16(bias[0].y));",
                "out_value_0 = max(vec4(0.0, 0.0, 0.0, 0.0), out_value_0);\t\n",
                "imageStore(dst, out_pos.xy, out_value_0);",
                "imageStore(dst, out_pos.xy + ivec2(1, 0), out_value_1);"});
    EXPECT_FALSE(holds(ShaderFormat::instance().transpose_conv2d_1x7_basic(params_of(8, 8, 7, 1)),
                       "out_value_2);"));
}

TEST(ConvolutionSource, ConstantIndexFormsHaveTheirPieces) {
    TricksParams params = params_of(8, 8, 3, 3);
    params.slicesPerDispatch = 2;
    expect_all(ShaderFormat::instance().conv2d_3x3_ci(params),
               {"uniform int dstOutZOffset;", "uniform int layerId; precision mediump float;",
                "layout(std140, binding = 2) uniform weight_buffer{",
                "mat4 weights[18]; //o/4 x i/4 x h x w",
                "ivec3 in_pos = ivec3(gl_GlobalInvocationID.xy, layerId);",
                "in_pos = ivec3(in_pos.x * 1 + 1, in_pos.y * 1 + 1, in_pos.z);",
                "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xy, 0);",
                "out_value[0] += weights[0] * data[0];", "out_value[1] += weights[17] * data[8];",
                "imageStore(dst, out_pos + ivec3(0, 0, dstOutZOffset + 0), out_value[0] + "
                "texelFetch(dstIn, out_pos + ivec3(0, 0, dstOutZOffset + 0), 0));"});
    params = params_of(4, 4, 1, 1);
    params.slicesPerDispatch = 1;
    expect_all(ShaderFormat::instance().conv2d_1x1_ci(params),
               {"ivec2 in_pos = ivec2(gl_GlobalInvocationID.xy);",
                "vec4 data = texelFetchOffset(src, in_pos, 0, ivec2(0, 0));",
                "out_value[0] += weights[0] * data;",
                "imageStore(dst, ivec2(out_pos.x, out_pos.y), out_value[0] + texelFetch(dstIn, "
                "ivec2(out_pos.x, out_pos.y), 0));"});
    expect_all(ShaderFormat::instance().constant_index_pre(params),
               {"layout(rgba16f, binding = 0) writeonly uniform lowp image2D dst;",
                "precision lowp float;"});
    params = params_of(8, 8, 1, 1);
    // Weights at constant indices fill one uniform block at the least, whatever the manager asks
    // for, and the biases go with them: there is no form with a storage buffer.
    expect_all(ShaderFormat::instance().constant_index_post(params),
               {"layout(std140, binding = 2) uniform bias_buffer{", "uvec4 bias[256];",
                "vec4 val = texelFetch(src, out_pos, 0);",
                "vec4 out_value = val + vec4(unpackHalf2x16(bias[out_pos.z].x),\t\t\t\n"
                "\t\t\tunpackHalf2x16(bias[out_pos.z].y));\t\t\t\t\t\t\t\t\n",
                "imageStore(dst, out_pos, out_value);"});
    params = params_of(4, 8, 3, 3);
    params.slicesPerDispatch = 2;
    expect_all(ShaderFormat::instance().transpose_conv2d_3x3_ci(params),
               {"out_value_3_outSlice0 += weights[0] * data[3];",
                "out_value_3_outSlice1 += weights[9] * data[3];"});
}

TEST(ProgramName, TellsTheConstantsOfItsSource) {
    tesk::ComputeProgramManager manager(0, "");
    TricksParams params = params_of(5, 5, 3, 1);
    params.activation = 2;
    params.padX = 1;
    params.strideY = 2;
    params.dilationX = 3;
    EXPECT_EQ(tesk::Tricks_Conv2d_1x3_Basic(&manager).programName(params, "Conv2D", 8, 8, 1),
              "Conv2D_ssbo_basic_kernel_3_1_8_In_muti_Out_a2_padding_1_0_s1_2_dilation_3_1_bias1_"
              "localsize_8x8x1_program");
    params.uboWeightCount = 4096;
    params.outChannels = 4;
    EXPECT_EQ(tesk::Tricks_Conv2d_1x3_Basic(&manager).programName(params, "Conv2D", 8, 8, 1),
              "Conv2D_ubo_basic_kernel_3_1_8_In_4_Out_a2_padding_1_0_s1_2_dilation_3_1_bias1_"
              "localsize_8x8x1_program");
    EXPECT_EQ(
        tesk::Tricks_Conv2d_1x1_4PointsOut(&manager).programName(params, "Conv2D", 8, 8, 1),
        "Conv2D_ubo_4PointsOut_kernel_3_1_8_In_4_Out_a2_s1_2_bias1_localsize_8x8x1_program");
    EXPECT_EQ(
        tesk::Tricks_Conv2d_1x1_4Points_2Slice(&manager).programName(params, "Conv2D", 8, 8, 1),
        "Conv2D_ubo_4Points_2Slice_kernel_3_1_8_In_4_Out_a2_s1_2_bias1_localsize_8x8x1_program");
    EXPECT_EQ(
        tesk::Tricks_Conv2d_1x1_4Points_4Slice(&manager).programName(params, "Conv2D", 8, 8, 1),
        "Conv2D_ubo_4Points_4Slice_kernel_3_1_8_In_4_Out_a2_s1_2_bias1_localsize_8x8x1_program");
    tesk::Tricks_Conv2d_1x3_CI constant_index(&manager);
    EXPECT_EQ(constant_index.programName(params, "Conv2D", 8, 8, 1),
              "Conv2D_ubo_constant_index_kernel_3_1_muti_In_4_Out_padding_1_0_s1_2_dilation_3_1_"
              "localsize_8x8x1_program");
    EXPECT_EQ(constant_index.preProgramName(params, 8, 8, 1),
              "ubo_constant_index_4_Out_localsize_8x8x1_pre_program");
    EXPECT_EQ(constant_index.postProgramName(params, 8, 8, 1),
              "ubo_constant_index_4_Out_localsize_8x8x1_activation_2_bias_1_post_program");
}

}  // namespace
