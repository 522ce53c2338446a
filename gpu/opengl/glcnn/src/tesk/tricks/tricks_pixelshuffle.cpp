#include "tricks_pixelshuffle.h"

#include "../glutil/gl.h"
#include "platform/tn_core.h"
#include "record_checks.h"
#include "source_pieces.h"

namespace tesk {

void Tricks_PixelShuffle::useCatalogue(const char* name, const Extent& extent, int channels) {
    groups = groupsOver(extent, sliceCount(channels), 8, 8, 1);
    program = shareProgram(name, [&] { return catalogueSource(name); });
}

void Tricks_PixelShuffle::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(program)) return;
    program->setUnifromTexture("src", 0, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->compute(groups.x, groups.y, groups.z);
}

void Tricks_PixelShuffle::print() {
    Tarno::_LogVerbose("Tarno", "PixelShuffle layer");
}

void Tricks_PixelShuffle_DownSampling::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_PixelShuffle>(info, ZQLayerType_PixelShuffle);
    if (record == nullptr) return;
    const int channels = record->in_shape->channels;
    useCatalogue(channels == 1   ? "pixelShuffle_downSample_1_in_4_out_program"
                 : channels <= 4 ? "pixelShuffle_downSample_4_in_16_out_program"
                                 : "pixelShuffle_downSample_muti_in_muti_out_program",
                 truncatedExtent(*record->out_shape, *manager), channels);
}

void Tricks_PixelShuffle_UpSampling::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_PixelShuffle>(info, ZQLayerType_PixelShuffle);
    if (record == nullptr) return;
    const int channels = record->out_shape->channels;
    useCatalogue(channels == 1   ? "pixelShuffle_upSample_4_in_1_out_program"
                 : channels <= 4 ? "pixelShuffle_upSample_16_in_4_out_program"
                                 : "pixelShuffle_upSample_muti_in_muti_out_program",
                 truncatedExtent(*record->in_shape, *manager), channels);
}

}  // namespace tesk
