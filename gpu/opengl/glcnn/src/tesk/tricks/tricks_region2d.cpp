#include "tricks_region2d.h"

#include <algorithm>

#include "../glutil/gl.h"
#include "platform/tn_core.h"
#include "record_checks.h"

namespace tesk {
namespace {

/// Layers that every array texture can have.
constexpr int max_slices = 2048;

}  // namespace

void Tricks_Region2D::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_Region>(info, ZQLayerType_Region);
    if (record == nullptr) return;
    anchorCount = record->region_a;
    coordCount = record->region_b;
    classCount = record->region_c;
    const long long values = (static_cast<long long>(classCount) + coordCount + 1) * anchorCount;
    if (values > 4 * max_slices) {
        const std::string expected = formatSource("at most %d values of a pixel", 4 * max_slices);
        reportLayer(*record, expected.c_str(), values);
        return;
    }
    const int slices = sliceCount(static_cast<int>(values));
    const Extent extent = truncatedExtent(*record->in_shape, *manager);
    // A group of the size of the input covers all of it, and the groups beyond return at once:
    // their number comes from the size that groups have elsewhere.
    groups = {groupCount(extent.width, std::max(manager->tuningWord2, 1)),
              groupCount(extent.height, std::max(manager->tuningWord3, 1)), 1};
    TricksParams params;
    params.localSizeX = extent.width;
    params.localSizeY = extent.height;
    params.localSizeZ = 1;
    program = shareProgram(
        programName(extent.width, extent.height, slices, anchorCount, classCount, coordCount),
        [&] { return generateSource(params, slices); });
}

void Tricks_Region2D::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(program)) return;
    program->bindImage(0, GL_READ_ONLY, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->setUniform1i("anchor_num", anchorCount);
    program->setUniform1i("class_num", classCount);
    program->setUniform1i("coord_num", coordCount);
    program->compute(groups.x, groups.y, groups.z);
}

void Tricks_Region2D::print() {
    Tarno::_LogVerbose("Tarno", "I am Tricks_Region2D.");
}

std::string Tricks_Region2D::programName(int width, int height, int slices, int anchors,
                                         int classes, int coords) {
    return formatSource("format_region2d_image_%dx%dx%d_in_4_out_para_%d_%d_%d_program", width,
                        height, slices * 4, anchors, classes, coords);
}

std::string Tricks_Region2D::generateSource(TricksParams& params, int slices) {
    // Values 0, 1 and 4 pass the logistic function however many coordinates there are. With fewer
    // than four the last anchor's value 4 may lie behind all data. The largest class value is taken
    // off before the exponential: the quotients stay the same, and none overflows.
    return formatSource(
        "#version 310 es\n"
        "layout(local_size_x = %d, local_size_y = %d, local_size_z = 1) in;\n"
        "layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;\n"
        "layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;\n"
        "uniform int anchor_num;\n"
        "uniform int class_num;\n"
        "uniform int coord_num;\n"
        "float logistic(float v){\n"
        "return 1.0 / (1.0 + exp(-v));\n"
        "}\n"
        "void main(){ \n"
        "ivec2 out_pos = ivec2(gl_GlobalInvocationID.xy);\n"
        "if (any(greaterThanEqual(out_pos, imageSize(src).xy))) return;\n"
        "float data[%d];\n"
        "for (int s = 0; s < %d; s++)\n"
        "{\n"
        "vec4 value = imageLoad(src, ivec3(out_pos, s));\n"
        "data[s * 4] = value.x;\n"
        "data[s * 4 + 1] = value.y;\n"
        "data[s * 4 + 2] = value.z;\n"
        "data[s * 4 + 3] = value.w;\n"
        "}\n"
        "for (int i = 0; i < anchor_num; i++)\n"
        "{\n"
        "int offset = i * (class_num + coord_num + 1);\n"
        "data[offset] = logistic(data[offset]);\n"
        "if (offset + 1 < data.length()) data[offset + 1] = logistic(data[offset + 1]);\n"
        "if (offset + 4 < data.length()) data[offset + 4] = logistic(data[offset + 4]);\n"
        "int first = offset + coord_num + 1;\n"
        "float largest = class_num > 0 ? data[first] : 0.0;\n"
        "for (int k = 1; k < class_num; k++) largest = max(largest, data[first + k]);\n"
        "float sum = 0.0;\n"
        "for (int k = 0; k < class_num; k++)\n"
        "{\n"
        "data[first + k] = exp(data[first + k] - largest);\n"
        "sum += data[first + k];\n"
        "}\n"
        "for (int k = 0; k < class_num; k++) data[first + k] /= sum;\n"
        "}\n"
        "int column = out_pos.x * %d;\n"
        "for (int t = 0; t < %d; t++)\n"
        "{\n"
        "vec4 value = vec4(data[t * 4], data[t * 4 + 1], data[t * 4 + 2], data[t * 4 + 3]);\n"
        "imageStore(dst, ivec2(column + t, out_pos.y), value);\n"
        "}\n"
        "} \n",
        params.localSizeX, params.localSizeY, slices * 4, slices, slices, slices);
}

}  // namespace tesk
