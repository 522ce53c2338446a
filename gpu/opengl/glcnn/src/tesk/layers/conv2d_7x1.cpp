#include "conv2d_7x1.h"

#include "../tricks/tricks_conv2d_kxk.h"

namespace tesk {

void Conv2D_7x1::setup(ZQLayerInfo* record) {
    if (take(record)) useByMode<Tricks_Conv2d_7x1_CI, Tricks_Conv2d_7x1_Basic>(record);
}

}  // namespace tesk
