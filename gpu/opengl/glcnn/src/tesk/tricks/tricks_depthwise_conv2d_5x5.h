// Depthwise 5x5, one pixel of one slice for each invocation.
#pragma once

#include "tricks_depthwise_conv2d.h"

namespace tesk {

/// For every stride.
class TESK_TESTED Tricks_Depthwise_Conv2d_5x5 : public Tricks_Depthwise_Conv2d {
public:
    explicit Tricks_Depthwise_Conv2d_5x5(tesk::ComputeProgramManager* manager)
        : Tricks_Depthwise_Conv2d(manager, 5, 1) {}
};

}  // namespace tesk
