#include "tricks_elementwise_operator.h"

#include "../glutil/gl.h"
#include "platform/tn_core.h"
#include "record_checks.h"
#include "source_pieces.h"

namespace tesk {

void Tricks_ElementWise_Operator::setup(ZQLayerInfo* info) {
    const auto* const record =
        recordAs<ZQLayerInfo_ElementWiseOperator>(info, ZQLayerType_ElementWiseOperator);
    if (record == nullptr) return;
    if (!takesInputs(record->bottom_count)) {
        reportLayer(*record, takesInputs(3) ? "2 or 3 inputs" : "2 inputs", record->bottom_count);
        return;
    }
    inputCount = record->bottom_count;

    TricksParams params;
    params.inChannels = record->in_shapes[0].channels;
    params.outChannels = record->out_shape->channels;
    params.activation = static_cast<int16_t>(record->activation);
    const Extent extent = truncatedExtent(*record->out_shape, *manager);
    const Extent invocations = {groupCount(extent.width, pixelsPerInvocation),
                                groupCount(extent.height, pixelsPerInvocation)};
    const int slices = groupCount(sliceCount(params.inChannels), slicesPerInvocation);
    int x = invocations.width, y = invocations.height, z = slices;
    chooseLocalSize(x, y, z, manager);
    params.localSizeX = x;
    params.localSizeY = y;
    params.localSizeZ = z;
    groups = groupsOver(invocations, slices, x, y, z);
    program = shareProgram(programName(params, prefix, inputCount, x, y, z), [&] {
        return generateSource(params, record->operator_type, inputCount);
    });
}

void Tricks_ElementWise_Operator::compute(std::vector<std::shared_ptr<tesk::Image>>& inputs,
                                          tesk::Image* output) {
    if (inputs.size() != static_cast<size_t>(inputCount) || inputs.empty()) return;
    if (!useProgram(program)) return;
    program->setUnifromTexture("src0", 0, *inputs[0]);
    program->setUnifromTexture("src1", 1, *inputs[1]);
    if (inputCount == 3) program->setUnifromTexture("src2", 2, *inputs[2]);
    program->bindImage(static_cast<unsigned int>(inputCount), GL_WRITE_ONLY, *output);
    program->compute(groups.x, groups.y, groups.z);
}

void Tricks_ElementWise_Operator::print() {
    Tarno::_LogVerbose("Tarno", "ElementWise_Operator layer");
}

std::string Tricks_ElementWise_Operator::programName(TricksParams& params, const char* name_prefix,
                                                     int input_count, int x, int y, int z) {
    return formatSource("%s_elementwise_%s_out_a%d_inputNum_%d_localsize_%dx%dx%d_program",
                        name_prefix, channelWord(params.inChannels), params.activation, input_count,
                        x, y, z);
}

std::string Tricks_ElementWise_Operator::generateSource(TricksParams& params, int operation,
                                                        int input_count) {
    const int channels = params.inChannels;
    std::string text = sourceHead(params);
    for (int i = 0; i < input_count; ++i) {
        text += samplerLine(channels, formatSource("src%d", i).c_str());
    }
    text += outputLine(channels, input_count);
    text += "void main(){ \n";
    text += channels <= 4 ? "ivec2 pos = ivec2(gl_GlobalInvocationID.xy);\n"
                          : "ivec3 pos = ivec3(gl_GlobalInvocationID.xyz);\n";

    const bool known = operation >= Sum && operation <= Quotient;
    if (input_count == 2 && known) {
        text += formatSource(
            "vec4 out_value = texelFetchOffset(src0, pos, 0, ivec2(0, 0)) %c "
            "texelFetchOffset(src1, pos, 0, ivec2(0, 0)); \n",
            "+-*/"[operation]);
    } else if (input_count == 3 && operation == Sum) {
        text +=
            "vec4 out_value = texelFetchOffset(src0, pos, 0, ivec2(0, 0)) + "
            "texelFetchOffset(src1, pos, 0, ivec2(0, 0)) + "
            "texelFetchOffset(src2, pos, 0, ivec2(0, 0)); \n";
    }

    if (params.activation == 2) {
        text += "out_value = max(vec4(0.0,0.0,0.0,0.0), out_value);\n";
    } else if (params.activation == 8) {
        text += "out_value = min(max(vec4(0.0, 0.0, 0.0, 0.0), out_value), 6.0); \n";
    }
    text += "imageStore(dst, pos, out_value); \n} \n";
    return formatSource("%s", text.c_str());
}

}  // namespace tesk
