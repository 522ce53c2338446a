#include "shaderformat_pieces.h"

#include <cstdarg>
#include <cstdio>

namespace tesk {
namespace shader {

const char* const header =
    "#version 310 es\n"
    "layout(local_size_x = %d, local_size_y = %d, local_size_z = %d) in;\n";

const char* const prelude =
    "precision lowp float;\n"
    "mat4 unpack2Mat(in uvec4 wt1, in uvec4 wt2){\n"
    "    mat4 tmp_w;\n"
    "    tmp_w[0] = vec4(unpackHalf2x16(wt1.x), unpackHalf2x16(wt1.y));\n"
    "    tmp_w[1] = vec4(unpackHalf2x16(wt1.z), unpackHalf2x16(wt1.w));\n"
    "    tmp_w[2] = vec4(unpackHalf2x16(wt2.x), unpackHalf2x16(wt2.y));\n"
    "    tmp_w[3] = vec4(unpackHalf2x16(wt2.z), unpackHalf2x16(wt2.w));\n"
    "    return tmp_w;\n"
    "}\n"
    "mat2 InverseTransform(in mat4 M){\n"
    "    mat4 T = transpose(M);\n"
    "    mat2x4 rows = mat2x4(T[0] + T[1] + T[2], T[1] - T[2] - T[3]);\n"
    "    mat4x2 A = transpose(rows);\n"
    "    return mat2(A[0] + A[1] + A[2], A[1] - A[2] - A[3]);\n"
    "}\n";

std::string line(const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

std::vector<Tap> taps(int x0, int x1, int y0, int y1, int scaleX, int scaleY) {
    std::vector<Tap> result;
    for (int y = y0; y <= y1; ++y) {
        for (int x = x0; x <= x1; ++x)
            result.push_back({x * scaleX, y * scaleY});
    }
    return result;
}

std::string inputDeclaration(int inChannels) {
    return inChannels <= 4 ? "uniform lowp sampler2D src;\t\t\t\t\t\n"
                           : "uniform lowp sampler2DArray src;\t\t\t\t\t\n";
}

std::string outputDeclaration(int outChannels) {
    return outChannels <= 4
               ? "uniform lowp sampler2D dstIn;\n"
                 "layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;\n"
               : "uniform lowp sampler2DArray dstIn;\n"
                 "layout(rgba16f, binding = 1) writeonly uniform lowp image2DArray dst;\n";
}

std::string bufferDeclaration(const TricksParams& params) {
    static const char* const uniforms =
        "uniform int dstOutZOffset;\nuniform int layerId;\nuniform int inDepth;\n";
    if (params.uboWeightCount > 0) {
        return std::string("layout(std140, binding = 2)  uniform weight_buffer{\n"
                           "    uvec4 weights[%d]; //o/4 x i/4 x h x w\n"
                           "};\n"
                           "layout(std140, binding = 3)  uniform bias_buffer{\n"
                           "    uvec4 bias[256];\n"
                           "};\n") +
               uniforms;
    }
    return std::string("//%d; //do nothing just for spare\n"
                       "layout(std430, binding = 2)  buffer weight_buffer{\n"
                       "    uvec4 weights[]; //o/4 x i/4 x h x w\n"
                       "};\n"
                       "layout(std430, binding = 3)  buffer bias_buffer{\n"
                       "    uvec4 bias[];\n"
                       "};\n") +
           uniforms;
}

int centreOffset(int kernel, int pad, int dilation) {
    return (kernel >> 1) - pad / dilation;
}

namespace {

std::string fetchLines(const std::vector<Tap>& taps, const char* format) {
    std::string text = line("vec4 data[%d];\n", static_cast<int>(taps.size()));
    int i = 0;
    for (const Tap& tap : taps)
        text += line(format, i++, tap.x, tap.y);
    return text;
}

}  // namespace

std::string fetches(const std::vector<Tap>& taps) {
    return fetchLines(taps, "data[%d] = texelFetchOffset(src, in_pos, 0, ivec2(%d, %d));\n");
}

std::string literalFetches(const std::vector<Tap>& taps) {
    return fetchLines(taps, "data[%d] = texelFetchOffset(src, in_pos, 0, ivec2(%d,%d));\n");
}

std::string activation(int code) {
    if (code != 6) return activationLines(code, {"out_value"});
    std::string text = "vec4 leakyValue = out_value * 0.1;\n";
    for (const char c : {'x', 'y', 'z', 'w'}) {
        text += line("out_value.%c = out_value.%c > 0.0 ? out_value.%c : leakyValue.%c;\n", c, c, c,
                     c);
    }
    return text;
}

std::string activationLines(int code, const std::vector<std::string>& accumulators) {
    const char* format = nullptr;
    switch (code) {
        case 2: format = "%s = max(vec4(0.0, 0.0, 0.0, 0.0), %s);\n"; break;
        case 3: format = "%s = tanh(%s);\n"; break;
        case 4: format = "%s = 1.0 / (1.0 + exp(vec4(0.0, 0.0, 0.0, 0.0) - %s));\n"; break;
        case 7: format = "%s = exp(%s / 100.0);\n"; break;
        case 8: format = "%s = min(max(vec4(0.0, 0.0, 0.0, 0.0), %s), 6.0);\n"; break;
        default: return "";
    }
    std::string text;
    for (const std::string& accumulator : accumulators)
        text += line(format, accumulator.c_str(), accumulator.c_str());
    return text;
}

}  // namespace shader
}  // namespace tesk
