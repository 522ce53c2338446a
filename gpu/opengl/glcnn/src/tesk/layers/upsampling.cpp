#include "upsampling.h"

#include "../tricks/tricks_upsampling.h"
#include "../tricks/tricks_upsampling_nearest.h"
#include "crossplatform/src/common/src/zqlayerinfo.h"

namespace tesk {

void UpSampling::setup(ZQLayerInfo* record) {
    if (!take(record)) return;
    if (static_cast<const ZQLayerInfo_Upsampling&>(*record).mode == 0) {
        use<Tricks_UpSampling_Nearest>(record);
    } else {
        use<Tricks_UpSampling>(record);
    }
}

}  // namespace tesk
