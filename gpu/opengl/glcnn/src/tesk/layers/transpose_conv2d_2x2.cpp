#include "transpose_conv2d_2x2.h"

#include "../tricks/tricks_transpose_conv2d.h"

namespace tesk {

void Transpose_Conv2D_2x2::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_Transpose_Conv2d_2x2_Basic>(record);
}

}  // namespace tesk
