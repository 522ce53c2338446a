#include "conv2d_1x1.h"

#include "../tricks/tricks_conv2d_1x1.h"
#include "crossplatform/src/common/src/zqlayerinfo.h"

namespace tesk {

void Conv2D_1x1::setup(ZQLayerInfo* record) {
    if (!take(record)) return;
    const Extent output = roundedExtent(*record->out_shape, *manager);
    if (manager->tricksMode != 0 || output.width < 2 || output.height < 2) {
        use<Tricks_Conv2d_1x1_Basic>(record);
    } else if (record->out_shape->channels > 4) {
        use<Tricks_Conv2d_1x1_4Points_2Slice>(record);
    } else {
        use<Tricks_Conv2d_1x1_4PointsOut>(record);
    }
}

}  // namespace tesk
