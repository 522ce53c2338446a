// Transposed convolutions of stride 2, sized by their input. "1x7" is seven wide and one high; it
// writes every other row of its output.
#pragma once

#include "tricks_basic.h"
#include "tricks_constant_index.h"

namespace tesk {

class TESK_TESTED Tricks_Transpose_Conv2d_3x3_Basic : public Tricks_Basic {
public:
    explicit Tricks_Transpose_Conv2d_3x3_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Transpose_Conv2d_2x2_Basic : public Tricks_Basic {
public:
    explicit Tricks_Transpose_Conv2d_2x2_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Transpose_Conv2d_1x7_Basic : public Tricks_Basic {
public:
    explicit Tricks_Transpose_Conv2d_1x7_Basic(tesk::ComputeProgramManager* manager);
};

/// No operator makes these.
class TESK_TESTED Tricks_Transpose_Conv2d_3x3_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Transpose_Conv2d_3x3_CI(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Transpose_Conv2d_2x2_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Transpose_Conv2d_2x2_CI(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Transpose_Conv2d_1x7_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Transpose_Conv2d_1x7_CI(tesk::ComputeProgramManager* manager);
};

}  // namespace tesk
