// Sources that make one pixel of one slice for each invocation, and what all sources share.
#include "shaderformat.h"

#include <cstdio>

#include "shaderformat_pieces.h"

namespace tesk {

using shader::centreOffset;
using shader::line;
using shader::Tap;

namespace {

std::string position(const TricksParams& params) {
    return "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xyz);\n"
           "vec4 out_value = vec4(0.0, 0.0, 0.0, 0.0);\n" +
           line("ivec2 ipx0 = ivec2(out_pos.x * %d, out_pos.y * %d) + ivec2(%d, %d);\n",
                params.strideX, params.strideY,
                centreOffset(params.kernelWidth, params.padX, params.dilationX),
                centreOffset(params.kernelHeight, params.padY, params.dilationY));
}

/// The numbers of output slice stride, input slices and input slice stride go in here, in this
/// order; where a form has no use for one, an expression statement takes it.
std::string channelLoop(const TricksParams& params) {
    if (params.inChannels <= 4) {
        return "ivec2 in_pos = ivec2(ipx0.x, ipx0.y);\n"
               "int offset = out_pos.z * %d;\n"
               "%d;//do nothing for spare\n"
               "%d;//do nothing for spare\n"
               "%s;//conv2d_4_in_imageData_body\n"
               "%s;//conv2d_cal_body\n";
    }
    const bool many_out = params.outChannels > 4;
    return std::string(many_out ? "int offset_out_z = out_pos.z * %d;\n"
                                : "%d;//do nothing for spare\n") +
           "for (int i = 0; i < %d; i++)\n"
           "{\n"
           "ivec3 in_pos = ivec3(ipx0.x, ipx0.y, i);\n" +
           (many_out ? "int offset = offset_out_z + i * %d;\n" : "int offset = i * %d;\n") +
           "%s;//conv2d_muti_in_imageData_body\n"
           "%s;//conv2d_cal_body\n"
           "}\n";
}

std::string bias(const TricksParams& params) {
    if (params.hasBias == 0) return "";
    return params.outChannels <= 4
               ? "out_value += vec4(unpackHalf2x16(bias[0].x),\t\t\n"
                 "\t\t\t\t\t\tunpackHalf2x16(bias[0].y));\t\n"
               : "out_value += vec4(unpackHalf2x16(bias[out_pos.z + dstOutZOffset].x),\t\t\n"
                 "\t\t\t\t\t\tunpackHalf2x16(bias[out_pos.z + dstOutZOffset].y));\t\n";
}

std::string store(const TricksParams& params) {
    return params.outChannels <= 4
               ? "{imageStore(dst, out_pos.xy, out_value);}\t\n"
               : "imageStore(dst, out_pos+ivec3(0,0,dstOutZOffset), out_value);\t\n";
}

/// How a kernel's text spells its products.
enum class Spelling {
    Brackets,         ///< (unpack2Mat(weights[offset + 2], weights[offset + 3])) * data[1]
    NoBrackets,       ///< unpack2Mat(weights[offset + 2], weights[offset + 3]) * data[1]
    NoBracketsTight,  ///< unpack2Mat(weights[offset+2], weights[offset+3]) * data[1]
};

std::string products(int taps, Spelling spelling, bool plain_first) {
    std::string text;
    for (int tap = 0; tap < taps; ++tap) {
        if (tap == 0 && plain_first) {
            text += "out_value += (unpack2Mat(weights[offset], weights[offset + 1])) * data[0];\n";
            continue;
        }
        const char* const format =
            spelling == Spelling::Brackets
                ? "out_value += (unpack2Mat(weights[offset + %d], weights[offset + %d])) * "
                  "data[%d];\n"
                : spelling == Spelling::NoBrackets
                      ? "out_value += unpack2Mat(weights[offset + %d], weights[offset + %d]) * "
                        "data[%d];\n"
                      : "out_value += unpack2Mat(weights[offset+%d], weights[offset+%d]) * "
                        "data[%d];\n";
        text += line(format, 2 * tap, 2 * tap + 1, tap);
    }
    return text;
}

}  // namespace

ShaderFormat& ShaderFormat::instance() {
    static ShaderFormat format;
    return format;
}

const char* ShaderFormat::keep(const std::string& source) {
    std::snprintf(text, sizeof(text), "%s", source.c_str());
    return text;
}

const char* ShaderFormat::assemble(const TricksParams& params, const Pieces& pieces) {
    const std::string format = shader::header + shader::inputDeclaration(params.inChannels) +
                               shader::outputDeclaration(params.outChannels) +
                               shader::bufferDeclaration(params) + shader::prelude +
                               "void main(){ \n" + pieces.position + channelLoop(params) +
                               "%s;\t\t//add bias\n"
                               "%s;\t\t//activation fun\n"
                               "%s;\t\t//imagestore\n"
                               "} \n";
    std::snprintf(text, sizeof(text), format.c_str(), params.localSizeX, params.localSizeY,
                  params.localSizeZ, params.uboWeightCount, params.outSliceStride, params.inSlices,
                  params.inSliceStride, pieces.image_data.c_str(), pieces.body.c_str(),
                  pieces.bias.c_str(), pieces.activation.c_str(), pieces.store.c_str());
    return text;
}

const char* ShaderFormat::direct(const TricksParams& params, const std::string& image_data,
                                 const std::string& body) {
    return assemble(params, {position(params), image_data, body, bias(params),
                             shader::activation(params.activation), store(params)});
}

const char* ShaderFormat::conv2d_1x1_basic(const TricksParams& params) {
    return direct(params, "",
                  "out_value += (unpack2Mat(weights[offset], weights[offset + 1]))\n"
                  "\t\t\t* texelFetchOffset(src, in_pos, 0, ivec2(0, 0));\t\n");
}

const char* ShaderFormat::conv2d_1x3_basic(const TricksParams& params) {
    return direct(params, shader::literalFetches(shader::taps(-1, 1, 0, 0)),
                  products(3, Spelling::NoBracketsTight, false));
}

const char* ShaderFormat::conv2d_3x1_basic(const TricksParams& params) {
    return direct(params, shader::literalFetches(shader::taps(0, 0, -1, 1)),
                  products(3, Spelling::NoBracketsTight, false));
}

const char* ShaderFormat::conv2d_3x3_basic(const TricksParams& params) {
    // The only kernel whose taps spread with the dilation.
    return direct(params,
                  shader::fetches(shader::taps(-1, 1, -1, 1, params.dilationX, params.dilationY)),
                  products(9, Spelling::Brackets, true));
}

const char* ShaderFormat::conv2d_4x4_basic(const TricksParams& params) {
    return direct(params, shader::fetches(shader::taps(-2, 1, -2, 1)),
                  products(16, Spelling::Brackets, true));
}

const char* ShaderFormat::conv2d_1x5_basic(const TricksParams& params) {
    return direct(params, shader::literalFetches(shader::taps(-2, 2, 0, 0)),
                  products(5, Spelling::NoBrackets, false));
}

const char* ShaderFormat::conv2d_5x1_basic(const TricksParams& params) {
    return direct(params, shader::literalFetches(shader::taps(0, 0, -2, 2)),
                  products(5, Spelling::NoBrackets, false));
}

const char* ShaderFormat::conv2d_5x5_basic(const TricksParams& params) {
    return direct(params, shader::literalFetches(shader::taps(-2, 2, -2, 2)),
                  products(25, Spelling::Brackets, false));
}

const char* ShaderFormat::conv2d_1x7_basic(const TricksParams& params) {
    return direct(params, shader::literalFetches(shader::taps(-3, 3, 0, 0)),
                  products(7, Spelling::NoBrackets, false));
}

const char* ShaderFormat::conv2d_7x1_basic(const TricksParams& params) {
    return direct(params, shader::literalFetches(shader::taps(0, 0, -3, 3)),
                  products(7, Spelling::NoBrackets, false));
}

}  // namespace tesk
