#include "depthwise_transpose_conv2d_3x3.h"

namespace tesk {

void Depthwise_Transpose_Conv2D_3x3::setup(ZQLayerInfo* record) {
    take(record);
}

}  // namespace tesk
