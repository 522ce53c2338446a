// Direct convolutions of the kernels above 1x1. "1x3" is three wide and one high.
#pragma once

#include "tricks_basic.h"
#include "tricks_constant_index.h"

namespace tesk {

class TESK_TESTED Tricks_Conv2d_1x3_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_1x3_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_3x1_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_3x1_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_3x3_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_3x3_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_4x4_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_4x4_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_1x5_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_1x5_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_5x1_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_5x1_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_5x5_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_5x5_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_1x7_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_1x7_Basic(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_7x1_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_7x1_Basic(tesk::ComputeProgramManager* manager);
};

/// There is no such class for 4x4.
class TESK_TESTED Tricks_Conv2d_1x3_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Conv2d_1x3_CI(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_3x1_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Conv2d_3x1_CI(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_3x3_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Conv2d_3x3_CI(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_1x5_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Conv2d_1x5_CI(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_5x1_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Conv2d_5x1_CI(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_5x5_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Conv2d_5x5_CI(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_1x7_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Conv2d_1x7_CI(tesk::ComputeProgramManager* manager);
};

class TESK_TESTED Tricks_Conv2d_7x1_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Conv2d_7x1_CI(tesk::ComputeProgramManager* manager);
};

}  // namespace tesk
