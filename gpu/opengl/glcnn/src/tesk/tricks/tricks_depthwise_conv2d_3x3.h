// Depthwise 3x3, one pixel of one slice for each invocation.
#pragma once

#include "tricks_depthwise_conv2d.h"

namespace tesk {

/// For every stride.
class TESK_TESTED Tricks_Depthwise_Conv2d_3x3 : public Tricks_Depthwise_Conv2d {
public:
    explicit Tricks_Depthwise_Conv2d_3x3(tesk::ComputeProgramManager* manager)
        : Tricks_Depthwise_Conv2d(manager, 3, 1) {}
    void print() override;
};

}  // namespace tesk
