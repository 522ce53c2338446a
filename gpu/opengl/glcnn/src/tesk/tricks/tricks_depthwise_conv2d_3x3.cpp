#include "tricks_depthwise_conv2d_3x3.h"

#include "platform/tn_core.h"

namespace tesk {

void Tricks_Depthwise_Conv2d_3x3::print() {
    Tarno::_LogVerbose("Tarno", "Depthwise convolution 3x3 layer.");
}

}  // namespace tesk
