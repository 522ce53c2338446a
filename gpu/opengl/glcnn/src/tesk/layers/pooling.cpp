#include "pooling.h"

#include "../tricks/tricks_pooling.h"
#include "crossplatform/src/common/src/zqlayerinfo.h"

namespace tesk {

void Pooling::setup(ZQLayerInfo* record) {
    if (!take(record)) return;
    const int type = static_cast<const ZQLayerInfo_Pooling&>(*record).pool_type;
    if (type == 1) {
        use<Tricks_Pooling_Max>(record);
    } else if (type == 0) {
        use<Tricks_Pooling_Avg>(record);
    } else {
        refuse("pooling of type 0 (average) or 1 (maximum)", type);
    }
}

}  // namespace tesk
