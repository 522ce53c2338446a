#include "tricks_tensorsqueeze.h"

#include <algorithm>

#include "../glutil/gl.h"
#include "platform/assertion.h"
#include "platform/tn_core.h"
#include "record_checks.h"

namespace tesk {

void Tricks_TensorSqueeze::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_TensorSqueeze>(info, ZQLayerType_TensorSqueeze);
    if (record == nullptr) return;
    const int squeeze_dim = record->axis;
    const int inchannels = frozenShape(record->in_tensors[0]).channels;
    TN_ASSERT(squeeze_dim == 0);
    TN_ASSERT(inchannels <= 4);
    if (squeeze_dim != 0 || inchannels > 4) return;

    // The net lays the longer side of the image along the longer side of its base size.
    int height = record->out_tensor.dims[1];
    int width = record->out_tensor.dims[2];
    const bool upright = manager->netWidth < manager->netHeight;
    const bool flat = manager->netHeight < manager->netWidth;
    if ((upright && height < width) || (flat && width < height)) std::swap(width, height);
    groups = groupsOver({width, height}, 1, 8, 8, 1);
    program = shareProgram("copy_16f_to_16f", [&] { return generateSource(); });
}

void Tricks_TensorSqueeze::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(program)) return;
    program->bindImageTexture(0, input->texture(), 0, 0, GL_READ_ONLY, GL_RGBA16F);
    program->bindImageTexture(1, output->texture(), 0, 0, GL_WRITE_ONLY, GL_RGBA16F);
    program->compute(groups.x, groups.y, groups.z);
}

void Tricks_TensorSqueeze::print() {
    Tarno::_LogVerbose("Tarno", "squeeze layer");
}

std::string Tricks_TensorSqueeze::generateSource() {
    return "#version 310 es\n"
           "layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;\n"
           "layout(rgba16f, binding = 0) readonly uniform highp image2D src;\n"
           "layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;\n"
           "void main(){ \n"
           "ivec2 pos = ivec2(gl_GlobalInvocationID.xy);\n"
           "vec4 srcValue = imageLoad(src, pos);\n"
           "imageStore(dst, pos, srcValue);\n"
           "} \n";
}

}  // namespace tesk
