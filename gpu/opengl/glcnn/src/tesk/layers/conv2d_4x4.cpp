#include "conv2d_4x4.h"

#include "../tricks/tricks_conv2d_kxk.h"

namespace tesk {

void Conv2D_4x4::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_Conv2d_4x4_Basic>(record);
}

}  // namespace tesk
