#include "pixelshuffle.h"

#include "../tricks/tricks_pixelshuffle.h"
#include "crossplatform/src/common/src/half_float.h"
#include "crossplatform/src/common/src/zqlayerinfo.h"

namespace tesk {

void PixelShuffle::setup(ZQLayerInfo* record) {
    if (!take(record)) return;
    const auto& shuffle = static_cast<const ZQLayerInfo_PixelShuffle&>(*record);
    if (Tarno::half_to_float(shuffle.upscale_factor) >= 1.0f) {
        use<Tricks_PixelShuffle_UpSampling>(record);
    } else {
        use<Tricks_PixelShuffle_DownSampling>(record);
    }
}

}  // namespace tesk
