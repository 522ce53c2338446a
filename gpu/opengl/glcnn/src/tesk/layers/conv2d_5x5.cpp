#include "conv2d_5x5.h"

#include "../tricks/tricks_conv2d_kxk.h"

namespace tesk {

void Conv2D_5x5::setup(ZQLayerInfo* record) {
    if (take(record)) useByMode<Tricks_Conv2d_5x5_CI, Tricks_Conv2d_5x5_Basic>(record);
}

}  // namespace tesk
