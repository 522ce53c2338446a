// The three passes of the generators that index weights with constants: clear, add one input slice,
// finish.
#include "shaderformat.h"
#include "shaderformat_pieces.h"

namespace tesk {

using shader::centreOffset;
using shader::line;
using shader::Tap;

namespace {

std::string mainHead(const TricksParams& params) {
    return line(shader::header, params.localSizeX, params.localSizeY, params.localSizeZ) +
           shader::inputDeclaration(params.inChannels) +
           shader::outputDeclaration(params.outChannels) +
           "uniform int dstOutZOffset;\n"
           "uniform int layerId; precision mediump float;\n"
           "layout(std140, binding = 2) uniform weight_buffer{\n" +
           line("mat4 weights[%d]; //o/4 x i/4 x h x w\n};\n",
                params.slicesPerDispatch * params.kernelWidth * params.kernelHeight) +
           "void main(){ \n";
}

std::string convolutionPosition(const TricksParams& params) {
    const int x = centreOffset(params.kernelWidth, params.padX, params.dilationX);
    const int y = centreOffset(params.kernelHeight, params.padY, params.dilationY);
    const std::string in =
        params.inChannels > 4
            ? "ivec3 in_pos = ivec3(gl_GlobalInvocationID.xy, layerId);\n" +
                  line("in_pos = ivec3(in_pos.x * %d + %d, in_pos.y * %d + %d, in_pos.z);\n",
                       params.strideX, x, params.strideY, y)
            : "ivec2 in_pos = ivec2(gl_GlobalInvocationID.xy);\n" +
                  line("in_pos = ivec2(in_pos.x * %d + %d, in_pos.y * %d + %d);\n", params.strideX,
                       x, params.strideY, y);
    return in + "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xy, 0);\n";
}

/// Adds to what the dispatches of earlier input slices have stored.
std::string convolutionStore(const TricksParams& params) {
    if (params.outChannels <= 4) {
        return "imageStore(dst, ivec2(out_pos.x, out_pos.y), out_value[0] + texelFetch(dstIn, "
               "ivec2(out_pos.x, out_pos.y), 0));\n";
    }
    std::string text;
    for (int slice = 0; slice < params.slicesPerDispatch; ++slice) {
        text += line("imageStore(dst, out_pos + ivec3(0, 0, dstOutZOffset + %d), out_value[%d] + "
                     "texelFetch(dstIn, out_pos + ivec3(0, 0, dstOutZOffset + %d), 0));\n",
                     slice, slice, slice);
    }
    return text;
}

std::string convolutionSource(const TricksParams& params, const std::string& fetches, int taps) {
    std::string text = mainHead(params) + convolutionPosition(params) +
                       line("vec4 out_value[%d];\n", params.slicesPerDispatch);
    for (int slice = 0; slice < params.slicesPerDispatch; ++slice)
        text += line("out_value[%d] = vec4(0.0, 0.0, 0.0, 0.0);\n", slice);
    text += fetches;
    for (int slice = 0; slice < params.slicesPerDispatch; ++slice) {
        for (int tap = 0; tap < taps; ++tap) {
            text += taps == 1 ? line("out_value[%d] += weights[%d] * data;\n", slice, slice)
                              : line("out_value[%d] += weights[%d] * data[%d];\n", slice,
                                     slice * taps + tap, tap);
        }
    }
    return text + convolutionStore(params) + "} \n";
}

std::string transposePosition(const TricksParams& params) {
    const int x = centreOffset(params.kernelWidth, params.padX, params.dilationX);
    const int y = centreOffset(params.kernelHeight, params.padY, params.dilationY);
    const std::string in = params.inChannels > 4
                               ? "ivec3 in_pos = ivec3(gl_GlobalInvocationID.xy, layerId);\n"
                               : "ivec2 in_pos = ivec2(gl_GlobalInvocationID.xy);\n";
    return in + line(params.outChannels > 4
                         ? "ivec3 out_pos = ivec3(in_pos.x * %d + %d ,in_pos.y * %d + %d, 0);\n"
                         : "ivec2 out_pos = ivec2(in_pos.x * %d + %d ,in_pos.y * %d + %d);\n",
                     params.strideX, x, params.strideY, y);
}

std::string transposeStore(const TricksParams& params, int outputs) {
    static const char* const corners[] = {"0, 0", "1, 0", "0, 1", "1, 1"};
    std::string text;
    for (int slice = 0; slice < params.slicesPerDispatch; ++slice) {
        for (int i = 0; i < outputs; ++i) {
            const std::string at =
                params.outChannels > 4
                    ? line("out_pos + ivec3(%s, dstOutZOffset + %d)", corners[i], slice)
                    : line("out_pos + ivec2(%s)", corners[i]);
            text += line("imageStore(dst, %s, out_value_%d_outSlice%d + texelFetch(dstIn, %s, 0));\n",
                         at.c_str(), i, slice, at.c_str());
        }
    }
    return text;
}

/// Which output and which input a tap joins.
struct Product {
    int output;
    const char* data;
};

std::string transposeSource(const TricksParams& params, const std::string& fetches,
                            const std::vector<Product>& products, int outputs) {
    std::string text = mainHead(params) + transposePosition(params);
    for (int slice = 0; slice < params.slicesPerDispatch; ++slice) {
        for (int i = 3; i >= 0; --i)
            text += line("vec4 out_value_%d_outSlice%d = vec4(0.0, 0.0, 0.0, 0.0);\n", i, slice);
    }
    text += fetches;
    for (int slice = 0; slice < params.slicesPerDispatch; ++slice) {
        int weight = slice * static_cast<int>(products.size());
        for (const Product& product : products) {
            text += line("out_value_%d_outSlice%d += weights[%d] * %s;\n", product.output, slice,
                         weight++, product.data);
        }
    }
    return text + transposeStore(params, outputs) + "} \n";
}

}  // namespace

const char* ShaderFormat::conv2d_1x1_ci(const TricksParams& params) {
    return keep(convolutionSource(
        params, "vec4 data = texelFetchOffset(src, in_pos, 0, ivec2(0, 0));\n", 1));
}

const char* ShaderFormat::conv2d_1x3_ci(const TricksParams& params) {
    return keep(convolutionSource(params, shader::fetches(shader::taps(-1, 1, 0, 0)), 3));
}

const char* ShaderFormat::conv2d_3x1_ci(const TricksParams& params) {
    return keep(convolutionSource(params, shader::fetches(shader::taps(0, 0, -1, 1)), 3));
}

const char* ShaderFormat::conv2d_3x3_ci(const TricksParams& params) {
    const std::vector<Tap> taps = shader::taps(-1, 1, -1, 1, params.dilationX, params.dilationY);
    return keep(convolutionSource(params, shader::fetches(taps), 9));
}

const char* ShaderFormat::conv2d_1x5_ci(const TricksParams& params) {
    return keep(convolutionSource(params, shader::literalFetches(shader::taps(-2, 2, 0, 0)), 5));
}

const char* ShaderFormat::conv2d_5x1_ci(const TricksParams& params) {
    return keep(convolutionSource(params, shader::literalFetches(shader::taps(0, 0, -2, 2)), 5));
}

const char* ShaderFormat::conv2d_5x5_ci(const TricksParams& params) {
    return keep(convolutionSource(params, shader::fetches(shader::taps(-2, 2, -2, 2)), 25));
}

const char* ShaderFormat::conv2d_1x7_ci(const TricksParams& params) {
    return keep(convolutionSource(params, shader::literalFetches(shader::taps(-3, 3, 0, 0)), 7));
}

const char* ShaderFormat::conv2d_7x1_ci(const TricksParams& params) {
    return keep(convolutionSource(params, shader::literalFetches(shader::taps(0, 0, -3, 3)), 7));
}

const char* ShaderFormat::transpose_conv2d_3x3_ci(const TricksParams& params) {
    return keep(transposeSource(params, shader::fetches(shader::taps(0, 1, 0, 1)),
                                {{3, "data[3]"},
                                 {2, "data[2]"},
                                 {3, "data[2]"},
                                 {1, "data[1]"},
                                 {0, "data[0]"},
                                 {1, "data[0]"},
                                 {3, "data[1]"},
                                 {2, "data[0]"},
                                 {3, "data[0]"}},
                                4));
}

const char* ShaderFormat::transpose_conv2d_2x2_ci(const TricksParams& params) {
    return keep(transposeSource(params,
                                "vec4 data = texelFetchOffset(src, in_pos, 0, ivec2(0, 0));\t\n",
                                {{0, "data"}, {1, "data"}, {2, "data"}, {3, "data"}}, 4));
}

const char* ShaderFormat::transpose_conv2d_1x7_ci(const TricksParams& params) {
    return keep(transposeSource(params, shader::fetches(shader::taps(-1, 2, 0, 0)),
                                {{0, "data[3]"},
                                 {1, "data[3]"},
                                 {0, "data[2]"},
                                 {1, "data[2]"},
                                 {0, "data[1]"},
                                 {1, "data[1]"},
                                 {0, "data[0]"}},
                                2));
}

const char* ShaderFormat::constant_index_pre(const TricksParams& params) {
    const bool array = params.outChannels > 4;
    return keep(line(shader::header, params.localSizeX, params.localSizeY, params.localSizeZ) +
                (array ? "layout(rgba16f, binding = 0) writeonly uniform lowp image2DArray dst;\n"
                       : "layout(rgba16f, binding = 0) writeonly uniform lowp image2D dst;\n") +
                "precision lowp float;\n"
                "void main(){ \n" +
                (array ? "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xyz);\n"
                       : "ivec2 out_pos = ivec2(gl_GlobalInvocationID.xy);\n") +
                "imageStore(dst, out_pos, vec4(0.0, 0.0, 0.0, 0.0));\n"
                "} \n");
}

const char* ShaderFormat::constant_index_post(const TricksParams& params) {
    const bool array = params.outChannels > 4;
    std::string value = "vec4 out_value = val;\n";
    if (params.hasBias != 0) {
        value = array ? "vec4 out_value = val + vec4(unpackHalf2x16(bias[out_pos.z].x),\t\t\t\n"
                        "\t\t\tunpackHalf2x16(bias[out_pos.z].y));\t\t\t\t\t\t\t\t\n"
                      : "vec4 out_value = val + vec4(unpackHalf2x16(bias[0].x),\t\t\t\n"
                        "\t\t\tunpackHalf2x16(bias[0].y));\t\t\t\t\t\t\t\t\n";
    }
    return keep(line(shader::header, params.localSizeX, params.localSizeY, params.localSizeZ) +
                shader::inputDeclaration(params.outChannels) +
                shader::outputDeclaration(params.outChannels) +
                "layout(std140, binding = 2) uniform bias_buffer{\n"
                "uvec4 bias[256];\n"
                "};\n"
                "precision lowp float;\n"
                "void main(){ \n" +
                (array ? "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xyz);\n"
                       : "ivec2 out_pos = ivec2(gl_GlobalInvocationID.xy);\n") +
                "vec4 val = texelFetch(src, out_pos, 0);\n" + value +
                shader::activation(params.activation) +
                "imageStore(dst, out_pos, out_value);\n"
                "} \n");
}

}  // namespace tesk
