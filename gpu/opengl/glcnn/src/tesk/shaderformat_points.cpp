// 1x1 convolutions that make two by two pixels of one, two or four slices for each invocation.
#include "shaderformat.h"
#include "shaderformat_pieces.h"

namespace tesk {

using shader::line;

namespace {

/// The kernel's centre of the first of the four pixels.
std::string position(const TricksParams& params) {
    return line("ivec2 ipx0 = ivec2(out_pos.x * %d, out_pos.y * %d) + ivec2(%d, %d);\n",
                2 * params.strideX, 2 * params.strideY, (params.kernelWidth >> 1) - params.padX,
                (params.kernelHeight >> 1) - params.padY);
}

/// Everything up to the accumulators.
std::string head(const TricksParams& params) {
    return line(shader::header, params.localSizeX, params.localSizeY, params.localSizeZ) +
           shader::inputDeclaration(params.inChannels) +
           shader::outputDeclaration(params.outChannels) +
           line(shader::bufferDeclaration(params).c_str(), params.uboWeightCount) +
           shader::prelude +
           "void main(){ \n"
           "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xyz);\n";
}

std::vector<std::string> elements(const std::string& array) {
    std::vector<std::string> names;
    for (int i = 0; i < 4; ++i)
        names.push_back(array + line("[%d]", i));
    return names;
}

std::string declareZero(const std::string& array) {
    std::string text = "vec4 " + array + "[4];\n";
    for (const std::string& name : elements(array))
        text += name + " = vec4(0.0, 0.0, 0.0, 0.0);\n";
    return text;
}

/// Leaky ReLU does nothing here: the slope's product is made and not used.
std::string leakyNothing(const std::string& array) {
    std::string text = "vec4 leakyValue_" + array + "[4];\n";
    int i = 0;
    for (const std::string& name : elements(array)) {
        text += line("leakyValue_%s[%d] = %s * 0.1;\n", array.c_str(), i++, name.c_str());
        for (const char c : {'x', 'y', 'z', 'w'}) {
            text += line("%s.%c = %s.%c > 0.0 ? %s.%c : %s.%c;\n", name.c_str(), c, name.c_str(), c,
                         name.c_str(), c, name.c_str(), c);
        }
    }
    return text;
}

std::string addBias(const std::string& array, const std::string& name, const std::string& index) {
    std::string text = line("vec4 %s = vec4(unpackHalf2x16(bias[%s].x), unpackHalf2x16(bias[%s].y));\n",
                            name.c_str(), index.c_str(), index.c_str());
    for (const std::string& element : elements(array))
        text += element + " += " + name + ";\n";
    return text;
}

/// `slices` accumulators of four, `sliceExpression` the output slice of each.
std::string sliceName(int slice) {
    return line("out_value_slice%d", slice);
}

std::string sliceOffsets(const TricksParams& params, int slices) {
    std::string text;
    for (int slice = 0; slice < slices; ++slice) {
        text += slice == 0 ? line("int offset_out_z_slice0 = out_pos.z * %d * %d;\n", slices,
                                  params.outSliceStride)
                           : line("int offset_out_z_slice%d = (out_pos.z * %d + %d) * %d;\n", slice,
                                  slices, slice, params.outSliceStride);
    }
    return text;
}

/// Inputs fetched once feed all slices.
std::string sliceBody(int slices, int stepX, int stepY, bool keep_weights) {
    std::string text;
    const int steps[4][2] = {{0, 0}, {stepX, 0}, {0, stepY}, {stepX, stepY}};
    for (int i = 0; i < 4; ++i) {
        text += line("vec4 inputValue%d = texelFetchOffset(src, in_pos, 0, ivec2(%d, %d));\n", i,
                     steps[i][0], steps[i][1]);
    }
    for (int slice = 0; slice < slices; ++slice) {
        std::string matrix = line("(unpack2Mat(weights[offset_slice%d], weights[offset_slice%d + 1]))",
                                  slice, slice);
        if (keep_weights) {
            text += line("mat4 weights_tmp_slice%d = %s;\n", slice, matrix.c_str());
            matrix = line("weights_tmp_slice%d", slice);
        }
        for (int i = 0; i < 4; ++i) {
            text += line("%s[%d] += %s * inputValue%d;\n", sliceName(slice).c_str(), i,
                         matrix.c_str(), i);
        }
    }
    return text;
}

/// In the one-slice form of the four-slice text, brackets of another character set stand where
/// plain ones belong: that source does not compile. No operator makes the class.
std::string sliceLoop(const TricksParams& params, int slices, const std::string& body) {
    if (params.inChannels <= 4) {
        std::string text = "ivec2 in_pos = ivec2(ipx0.x, ipx0.y);\n";
        for (int slice = 0; slice < slices; ++slice) {
            const bool wide = slices == 4 && slice > 0;
            text += line(wide ? "int offset_slice%d = \xa3\xa8offset_out_z_slice%d\xa3\xa9;\n"
                              : "int offset_slice%d = offset_out_z_slice%d;\n",
                         slice, slice);
        }
        return text + body;
    }
    std::string text = line("for (int i = 0; i < %d; i++)\n{\n", params.inSlices) +
                       "ivec3 in_pos = ivec3(ipx0.x, ipx0.y, i);\n";
    for (int slice = 0; slice < slices; ++slice) {
        text += line("int offset_slice%d = offset_out_z_slice%d + i * %d;\n", slice, slice,
                     params.inSliceStride);
    }
    return text + body + "}\n";
}

std::string sliceStores(const TricksParams& params, int slices) {
    if (params.outChannels <= 4) {
        return "imageStore(dst, ivec2(out_pos.x * 2,     out_pos.y * 2), out_value_slice0[0]);\n"
               "imageStore(dst, ivec2(out_pos.x * 2 + 1, out_pos.y * 2), out_value_slice0[1]);\n"
               "imageStore(dst, ivec2(out_pos.x * 2,     out_pos.y * 2 + 1), out_value_slice0[2]);\n"
               "imageStore(dst, ivec2(out_pos.x * 2 + 1, out_pos.y * 2 + 1), out_value_slice0[3]);\n";
    }
    static const char* const corners[] = {
        "out_pos.x * 2,     out_pos.y * 2,     ", "out_pos.x * 2 + 1, out_pos.y * 2,     ",
        "out_pos.x * 2,     out_pos.y * 2 + 1, ", "out_pos.x * 2 + 1, out_pos.y * 2 + 1, "};
    std::string text;
    for (int slice = 0; slice < slices; ++slice) {
        const std::string z = slice == 0
                                  ? line("out_pos.z * %d + dstOutZOffset", slices)
                                  : line("out_pos.z * %d + %d + dstOutZOffset", slices, slice);
        for (int i = 0; i < 4; ++i) {
            text += line("imageStore(dst, ivec3(%s%s), %s[%d]);\n", corners[i], z.c_str(),
                         sliceName(slice).c_str(), i);
        }
    }
    return text;
}

std::string sliceSource(const TricksParams& params, int slices, int stepX, int stepY) {
    std::string text = head(params);
    for (int slice = 0; slice < slices; ++slice)
        text += declareZero(sliceName(slice));
    text += position(params) + sliceOffsets(params, slices) +
            sliceLoop(params, slices, sliceBody(slices, stepX, stepY, slices == 4));
    for (int slice = 0; slice < slices && params.hasBias != 0; ++slice) {
        text += slice == 0
                    ? line("int offset_bias_slice0 = out_pos.z * %d + dstOutZOffset;\n", slices)
                    : line("int offset_bias_slice%d = out_pos.z * %d + %d + dstOutZOffset;\n",
                           slice, slices, slice);
        text += addBias(sliceName(slice), line("bias_tmp_slice%d", slice),
                        line("offset_bias_slice%d", slice));
    }
    for (int slice = 0; slice < slices; ++slice) {
        const std::string name = sliceName(slice);
        if (params.activation == 6) {
            text += leakyNothing(name);
        } else if (params.activation != 8 || slices != 4) {
            // The four-slice form has no clamp to 6.
            text += shader::activationLines(params.activation, elements(name));
        }
    }
    return text + sliceStores(params, slices) + "} \n";
}

}  // namespace

const char* ShaderFormat::conv2d_1x1_4PointsOut(const TricksParams& params) {
    const bool many_out = params.outChannels > 4;
    std::string body = "mat4 weights_tmp = unpack2Mat(weights[offset], weights[offset + 1]);\n";
    const int steps[4][2] = {
        {0, 0}, {params.strideX, 0}, {0, params.strideY}, {params.strideX, params.strideY}};
    for (int i = 0; i < 4; ++i) {
        body += line(
            "out_value[%d] += weights_tmp * texelFetchOffset(src, in_pos, 0, ivec2(%d, %d));\n", i,
            steps[i][0], steps[i][1]);
    }

    std::string text = head(params) + declareZero("out_value") + position(params);
    if (params.inChannels <= 4) {
        text += "ivec2 in_pos = ivec2(ipx0.x, ipx0.y);\n" +
                line("int offset = out_pos.z * %d;\n", params.outSliceStride) + body;
    } else {
        text += (many_out ? line("int offset_out_z = out_pos.z * %d;\n", params.outSliceStride)
                          : std::string()) +
                line("for (int i = 0; i < %d; i++)\n{\n", params.inSlices) +
                "ivec3 in_pos = ivec3(ipx0.x, ipx0.y, i);\n" +
                line(many_out ? "int offset = offset_out_z + i * %d;\n" : "int offset = i * %d;\n",
                     params.inSliceStride) +
                body + "}\n";
    }
    if (params.hasBias != 0) {
        text += addBias("out_value", "bias_tmp", many_out ? "out_pos.z + dstOutZOffset" : "0");
    }
    if (params.activation == 6) {
        text += leakyNothing("out_value");
    } else if (params.activation == 8) {
        // The text of the single value: an array does not compile against it.
        text += shader::activation(8);
    } else {
        text += shader::activationLines(params.activation, elements("out_value"));
    }
    text += "out_pos.xy *= 2;\n";
    static const char* const corners[] = {"0, 0", "1, 0", "0, 1", "1, 1"};
    for (int i = 0; i < 4; ++i) {
        text += many_out
                    ? line("imageStore(dst, out_pos + ivec3(%s, dstOutZOffset), out_value[%d]);\n",
                           corners[i], i)
                    : line("imageStore(dst, out_pos.xy + ivec2(%s), out_value[%d]);\n", corners[i],
                           i);
    }
    return keep(text + "} \n");
}

const char* ShaderFormat::conv2d_1x1_4Points_2Slice(const TricksParams& params) {
    return keep(sliceSource(params, 2, params.strideX, params.strideY));
}

const char* ShaderFormat::conv2d_1x1_4Points_4Slice(const TricksParams& params) {
    // The steps between the four pixels are 1, whatever the stride.
    return keep(sliceSource(params, 4, 1, 1));
}

}  // namespace tesk
