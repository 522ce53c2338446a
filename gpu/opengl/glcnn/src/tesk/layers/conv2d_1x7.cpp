#include "conv2d_1x7.h"

#include "../tricks/tricks_conv2d_kxk.h"

namespace tesk {

void Conv2D_1x7::setup(ZQLayerInfo* record) {
    if (take(record)) useByMode<Tricks_Conv2d_1x7_CI, Tricks_Conv2d_1x7_Basic>(record);
}

}  // namespace tesk
