#include "conv2d_3x3.h"

#include "../tricks/tricks_conv2d_kxk.h"
#include "crossplatform/src/common/src/zqlayerinfo.h"

namespace tesk {

void Conv2D_3x3::setup(ZQLayerInfo* record) {
    if (!take(record)) return;
    if (record->out_shape->channels % 4 == 0) {
        useByMode<Tricks_Conv2d_3x3_CI, Tricks_Conv2d_3x3_Basic>(record);
    } else {
        use<Tricks_Conv2d_3x3_Basic>(record);
    }
}

}  // namespace tesk
