#include "depthwise_conv2d_5x5.h"

#include "../tricks/tricks_depthwise_conv2d_5x5.h"

namespace tesk {

void Depthwise_Conv2D_5x5::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_Depthwise_Conv2d_5x5>(record);
}

}  // namespace tesk
