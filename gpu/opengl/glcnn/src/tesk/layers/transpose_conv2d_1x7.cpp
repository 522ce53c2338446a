#include "transpose_conv2d_1x7.h"

#include "../tricks/tricks_transpose_conv2d.h"

namespace tesk {

void Transpose_Conv2D_1x7::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_Transpose_Conv2d_1x7_Basic>(record);
}

}  // namespace tesk
