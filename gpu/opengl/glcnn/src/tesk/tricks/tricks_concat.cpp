#include "tricks_concat.h"

#include "../glutil/gl.h"
#include "platform/assertion.h"
#include "platform/tn_core.h"
#include "record_checks.h"
#include "source_pieces.h"

namespace tesk {
namespace {

bool is_supported(size_t inputs) {
    return inputs == 2 || inputs == 3 || inputs == 5;
}

}  // namespace

void Tricks_Concat::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_Concatenate>(info, ZQLayerType_Concatenate);
    if (record == nullptr) return;
    _concat_Num = record->bottom_count;
    if (!is_supported(_concat_Num)) {
        reportLayer(*record, "2, 3 or 5 inputs", record->bottom_count);
        return;
    }
    std::vector<int> channels;
    for (size_t i = 0; i < _concat_Num; ++i) channels.push_back(record->in_shapes[i].channels);

    TricksParams params;
    params.outChannels = record->out_shape->channels;
    const int slices = sliceCount(params.outChannels);
    const Extent extent = truncatedExtent(*record->out_shape, *manager);
    int x = extent.width, y = extent.height, z = slices;
    chooseLocalSize(x, y, z, manager);
    params.localSizeX = x;
    params.localSizeY = y;
    params.localSizeZ = z;
    groups = groupsOver(extent, slices, x, y, z);
    program = shareProgram(programName(params, channels, x, y, z),
                           [&] { return generateSource(params, channels); });
}

void Tricks_Concat::compute(std::vector<std::shared_ptr<tesk::Image>>& inputs,
                            tesk::Image* output) {
    TN_ASSERT(inputs.size() == _concat_Num);
    if (inputs.size() != _concat_Num) return;
    if (!is_supported(_concat_Num)) {
        Tarno::_LogVerbose("Tarno",
                           "concat only support 2_input and 3+1+1 and 3_input and 5_input");
        return;
    }
    if (useProgram(program)) {
        unsigned int unit = 0;
        for (const std::shared_ptr<tesk::Image>& input : inputs)
            program->bindImage(unit++, GL_READ_ONLY, *input);
        program->bindImage(unit, GL_WRITE_ONLY, *output);
        program->compute(groups.x, groups.y, groups.z);
    }
    for (const std::shared_ptr<tesk::Image>& input : inputs) input->subReadCount();
}

void Tricks_Concat::print() {
    Tarno::_LogVerbose("Tarno", "Concat layer");
}

std::string Tricks_Concat::programName(TricksParams&, const std::vector<int>& channels, int x,
                                       int y, int z) {
    if (!is_supported(channels.size())) return "";
    std::string name =
        formatSource("Concatenate_inputNum_%d_inChannels", static_cast<int>(channels.size()));
    for (const int count : channels) name += formatSource("_%d", count);
    return name + formatSource("_localsize_%dx%dx%d_program", x, y, z);
}

std::string Tricks_Concat::generateSource(TricksParams& params, const std::vector<int>& channels) {
    if (!is_supported(channels.size())) return "";
    const int inputs = static_cast<int>(channels.size());
    std::string text = sourceHead(params);
    for (int i = 0; i < inputs; ++i) {
        text += formatSource(
            "layout(rgba16f, binding = %d) readonly uniform lowp image2DArray src%d;\n", i, i);
    }
    text += formatSource("layout(rgba16f, binding = %d) writeonly uniform lowp image2DArray dst;\n",
                         inputs);
    text +=
        "void main(){ \n"
        "ivec3 pos = ivec3(gl_GlobalInvocationID.xyz);\n"
        "vec4 srcValue;\n"
        "ivec3 src_pos;\n";

    // The first slice of each input counts the channels before it, not their slices.
    std::vector<int> first_slices;
    int channels_before = 0;
    for (const int count : channels) {
        first_slices.push_back(sliceCount(channels_before));
        channels_before += count;
    }
    for (int i = inputs - 1; i > 0; --i) {
        const int first = first_slices[static_cast<size_t>(i)];
        text += formatSource(
            "%sif (pos.z >= %d)\n"
            "{\n"
            "src_pos = ivec3(pos.x, pos.y, pos.z - %d);\n"
            "srcValue = imageLoad(src%d, src_pos);\n"
            "}\n",
            i == inputs - 1 ? "" : "else ", first, first, i);
    }
    text +=
        "else\n"
        "{\n"
        "src_pos = pos;\n"
        "srcValue = imageLoad(src0, src_pos);\n"
        "}\n"
        "imageStore(dst, pos, srcValue);\n"
        "} \n";
    return formatSource("%s", text.c_str());
}

}  // namespace tesk
