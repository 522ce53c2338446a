// Transposed convolutions of stride 2, gathered: one invocation stands on an input pixel and writes
// the output pixels whose taps its window holds.
#include "platform/tn_core.h"
#include "shaderformat.h"
#include "shaderformat_pieces.h"

namespace tesk {

using shader::centreOffset;
using shader::line;

namespace {

const std::vector<std::string>& accumulators() {
    static const std::vector<std::string> names = {"out_value_0", "out_value_1", "out_value_2",
                                                   "out_value_3"};
    return names;
}

std::string position(const TricksParams& params) {
    std::string text = "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xyz);\n";
    for (int i = 3; i >= 0; --i)
        text += line("vec4 out_value_%d = vec4(0.0, 0.0, 0.0, 0.0);\n", i);
    return text + line("ivec2 ipx0 = ivec2(out_pos.x, out_pos.y) + ivec2(%d, %d);\n",
                       centreOffset(params.kernelWidth, params.padX, params.dilationX),
                       centreOffset(params.kernelHeight, params.padY, params.dilationY));
}

/// Which output and which input a tap joins.
struct Product {
    int tap;
    int output;
    const char* data;
};

std::string products(const std::vector<Product>& list) {
    std::string text;
    for (const Product& product : list) {
        text += product.tap == 0
                    ? line("out_value_%d += (unpack2Mat(weights[offset], weights[offset + 1])) * %s;\n",
                           product.output, product.data)
                    : line("out_value_%d += (unpack2Mat(weights[offset + %d], weights[offset + %d]))"
                           " * %s;\n",
                           product.output, 2 * product.tap, 2 * product.tap + 1, product.data);
    }
    return text;
}

std::string bias(const TricksParams& params) {
    if (params.hasBias == 0) return "";
    std::string text =
        params.outChannels <= 4
            ? "vec4 tmp_bias = vec4(unpackHalf2x16(bias[0].x),   \n"
              "    unpackHalf2x16(bias[0].y));\n"
            : "vec4 tmp_bias = vec4(unpackHalf2x16(bias[out_pos.z + dstOutZOffset].x),   \n"
              "    unpackHalf2x16(bias[out_pos.z + dstOutZOffset].y));\n";
    for (int i = 3; i >= 0; --i)
        text += line("out_value_%d += tmp_bias;\n", i);
    return text;
}

std::string activation(const TricksParams& params) {
    switch (params.activation) {
        case 0:
        case 1: return "";
        case 2:
        case 3:
        case 4:
        case 8: {
            std::string text = shader::activationLines(params.activation, accumulators());
            // These lines end in a tab.
            for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2))
                text.insert(at, 1, '\t');
            return text;
        }
        default: Tarno::ReportAssertion("NULL", "shaderformat", __LINE__); return "";
    }
}

std::string store(const TricksParams& params, int outputs) {
    static const char* const corners[] = {"0, 0", "1, 0", "0, 1", "1, 1"};
    std::string text = "out_pos.xy *= 2;\n";
    const bool many_out = params.outChannels > 4;
    text += many_out ? "imageStore(dst, out_pos + ivec3(0, 0, dstOutZOffset), out_value_0);\n"
                     : "imageStore(dst, out_pos.xy, out_value_0);\n";
    for (int i = 1; i < outputs; ++i) {
        text += many_out ? line("imageStore(dst, out_pos + ivec3(%s, dstOutZOffset), out_value_%d);\n",
                                corners[i], i)
                         : line("imageStore(dst, out_pos.xy + ivec2(%s), out_value_%d);\n",
                                corners[i], i);
    }
    return text;
}

}  // namespace

const char* ShaderFormat::transpose_conv2d_3x3_basic(const TricksParams& params) {
    return assemble(params, {position(params), shader::fetches(shader::taps(0, 1, 0, 1)),
                             products({{0, 3, "data[3]"},
                                       {1, 2, "data[2]"},
                                       {2, 3, "data[2]"},
                                       {3, 1, "data[1]"},
                                       {4, 0, "data[0]"},
                                       {5, 1, "data[0]"},
                                       {6, 3, "data[1]"},
                                       {7, 2, "data[0]"},
                                       {8, 3, "data[0]"}}),
                             bias(params), activation(params), store(params, 4)});
}

const char* ShaderFormat::transpose_conv2d_2x2_basic(const TricksParams& params) {
    return assemble(
        params, {position(params), "vec4 data = texelFetchOffset(src, in_pos, 0, ivec2(0, 0));\t\n",
                 products({{0, 0, "data"}, {1, 1, "data"}, {2, 2, "data"}, {3, 3, "data"}}),
                 bias(params), activation(params), store(params, 4)});
}

const char* ShaderFormat::transpose_conv2d_1x7_basic(const TricksParams& params) {
    return assemble(params, {position(params), shader::fetches(shader::taps(-1, 2, 0, 0)),
                             products({{0, 0, "data[3]"},
                                       {1, 1, "data[3]"},
                                       {2, 0, "data[2]"},
                                       {3, 1, "data[2]"},
                                       {4, 0, "data[1]"},
                                       {5, 1, "data[1]"},
                                       {6, 0, "data[0]"}}),
                             bias(params), activation(params), store(params, 2)});
}

}  // namespace tesk
