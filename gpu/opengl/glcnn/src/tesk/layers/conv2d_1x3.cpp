#include "conv2d_1x3.h"

#include "../tricks/tricks_conv2d_kxk.h"

namespace tesk {

void Conv2D_1x3::setup(ZQLayerInfo* record) {
    if (take(record)) useByMode<Tricks_Conv2d_1x3_CI, Tricks_Conv2d_1x3_Basic>(record);
}

}  // namespace tesk
