#include "transpose_conv2d_3x3.h"

#include "../tricks/tricks_transpose_conv2d.h"

namespace tesk {

void Transpose_Conv2D_3x3::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_Transpose_Conv2d_3x3_Basic>(record);
}

}  // namespace tesk
