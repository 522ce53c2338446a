#include "depthwise_conv2d_3x3.h"

#include "../tricks/tricks_depthwise_conv2d_3x3.h"
#include "../tricks/tricks_depthwise_conv2d_3x3_4pointsout.h"
#include "crossplatform/src/common/src/zqlayerinfo.h"

namespace tesk {

void Depthwise_Conv2D_3x3::setup(ZQLayerInfo* record) {
    if (!take(record)) return;
    const auto& depthwise = static_cast<const ZQLayerInfo_DepthWiseConv2D&>(*record);
    if (depthwise.stride_w == 1 && depthwise.stride_h == 1) {
        use<Tricks_Depthwise_conv2d_3x3_4PointsOut>(record);
    } else {
        use<Tricks_Depthwise_Conv2d_3x3>(record);
    }
}

}  // namespace tesk
