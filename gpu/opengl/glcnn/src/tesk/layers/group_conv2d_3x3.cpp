#include "group_conv2d_3x3.h"

#include "../tricks/tricks_group_conv2d_3x3_basic.h"

namespace tesk {

void Group_Conv2D_3x3::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_Group_Conv2d_3x3_Basic>(record);
}

}  // namespace tesk
