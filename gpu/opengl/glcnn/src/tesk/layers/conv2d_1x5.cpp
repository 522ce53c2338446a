#include "conv2d_1x5.h"

#include "../tricks/tricks_conv2d_kxk.h"

namespace tesk {

void Conv2D_1x5::setup(ZQLayerInfo* record) {
    if (take(record)) useByMode<Tricks_Conv2d_1x5_CI, Tricks_Conv2d_1x5_Basic>(record);
}

}  // namespace tesk
