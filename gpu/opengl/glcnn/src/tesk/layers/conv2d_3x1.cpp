#include "conv2d_3x1.h"

#include "../tricks/tricks_conv2d_kxk.h"

namespace tesk {

void Conv2D_3x1::setup(ZQLayerInfo* record) {
    if (take(record)) useByMode<Tricks_Conv2d_3x1_CI, Tricks_Conv2d_3x1_Basic>(record);
}

}  // namespace tesk
