#include "tricks_tensorreshape.h"

#include <climits>

#include "../glutil/gl.h"
#include "platform/tn_core.h"
#include "record_checks.h"
#include "source_pieces.h"

namespace tesk {

void Tricks_TensorReshape::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_TensorReshape>(info, ZQLayerType_TensorReshape);
    if (record == nullptr) return;
    const FrozenShape in = frozenShape(record->in_tensors[0]);
    const int out_channels = record->out_tensor.dims[1];
    const int slices = sliceCount(in.channels);
    constexpr int texel_bytes = 16;
    const long long bytes = 1LL * slices * in.width * in.height * texel_bytes;
    if (bytes == 0 || bytes > INT_MAX) {
        const std::string found = formatSource("%d x %d x %d (channels, height, width)",
                                               in.channels, in.height, in.width);
        reportLayer(*record, "an input of 1 to 2147483647 bytes", found.c_str());
        return;
    }
    floats.create(static_cast<int>(bytes), nullptr, GL_SHADER_STORAGE_BUFFER);

    constexpr const char* flatten = "tensor_reshape_step0_program";
    constexpr const char* store = "tensor_reshape_step1_program";
    flattenGroups = groupsOver({in.width, in.height}, slices, 8, 8, 1);
    storeGroups = {1, 1, groupCount(sliceCount(out_channels), 4)};
    flattenProgram = shareProgram(flatten, [&] { return catalogueSource(flatten); });
    storeProgram = shareProgram(store, [&] { return catalogueSource(store); });
}

void Tricks_TensorReshape::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(flattenProgram)) return;
    flattenProgram->bindImage(0, GL_READ_ONLY, *input);
    flattenProgram->bindBuffer(1, floats);
    flattenProgram->compute(flattenGroups.x, flattenGroups.y, flattenGroups.z);

    if (!useProgram(storeProgram)) return;
    storeProgram->bindBuffer(0, floats);
    storeProgram->bindImage(1, GL_WRITE_ONLY, *output);
    storeProgram->compute(storeGroups.x, storeGroups.y, storeGroups.z);
}

void Tricks_TensorReshape::print() {
    Tarno::_LogVerbose("Tarno", "reshape layer");
}

}  // namespace tesk
