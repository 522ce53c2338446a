#include "tricks_conv2d_kxk.h"

namespace tesk {

Tricks_Conv2d_1x3_Basic::Tricks_Conv2d_1x3_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_1x3.", 3, 1, true, true, false,
                             &ShaderFormat::conv2d_1x3_basic}) {}

Tricks_Conv2d_3x1_Basic::Tricks_Conv2d_3x1_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_3x1.", 1, 3, true, false, false,
                             &ShaderFormat::conv2d_3x1_basic}) {}

Tricks_Conv2d_3x3_Basic::Tricks_Conv2d_3x3_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_3x3.", 3, 3, false, false, false,
                             &ShaderFormat::conv2d_3x3_basic}) {}

Tricks_Conv2d_4x4_Basic::Tricks_Conv2d_4x4_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_4x4.", 4, 4, false, false, false,
                             &ShaderFormat::conv2d_4x4_basic}) {}

Tricks_Conv2d_1x5_Basic::Tricks_Conv2d_1x5_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_1x5.", 5, 1, true, false, false,
                             &ShaderFormat::conv2d_1x5_basic}) {}

Tricks_Conv2d_5x1_Basic::Tricks_Conv2d_5x1_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_5x1.", 1, 5, true, false, false,
                             &ShaderFormat::conv2d_5x1_basic}) {}

Tricks_Conv2d_5x5_Basic::Tricks_Conv2d_5x5_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_5x5.", 5, 5, true, false, false,
                             &ShaderFormat::conv2d_5x5_basic}) {}

Tricks_Conv2d_1x7_Basic::Tricks_Conv2d_1x7_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_1x7.", 7, 1, true, false, false,
                             &ShaderFormat::conv2d_1x7_basic}) {}

Tricks_Conv2d_7x1_Basic::Tricks_Conv2d_7x1_Basic(tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Conv2D", "I am Tricks_Conv2d_Basic_7x1.", 1, 7, true, false, false,
                             &ShaderFormat::conv2d_7x1_basic}) {}

Tricks_Conv2d_1x3_CI::Tricks_Conv2d_1x3_CI(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI_1x3.", 3, 1, true, false,
                                      false, &ShaderFormat::conv2d_1x3_ci}) {}

Tricks_Conv2d_3x1_CI::Tricks_Conv2d_3x1_CI(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI_3x1.", 1, 3, true, false,
                                      false, &ShaderFormat::conv2d_3x1_ci}) {}

Tricks_Conv2d_3x3_CI::Tricks_Conv2d_3x3_CI(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI_3x3.", 3, 3, false, false,
                                      false, &ShaderFormat::conv2d_3x3_ci}) {}

Tricks_Conv2d_1x5_CI::Tricks_Conv2d_1x5_CI(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI_1x5.", 5, 1, true, false,
                                      false, &ShaderFormat::conv2d_1x5_ci}) {}

Tricks_Conv2d_5x1_CI::Tricks_Conv2d_5x1_CI(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI_5x1.", 1, 5, true, false,
                                      false, &ShaderFormat::conv2d_5x1_ci}) {}

Tricks_Conv2d_5x5_CI::Tricks_Conv2d_5x5_CI(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI_5x5.", 5, 5, true, false,
                                      false, &ShaderFormat::conv2d_5x5_ci}) {}

Tricks_Conv2d_1x7_CI::Tricks_Conv2d_1x7_CI(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI_1x7.", 7, 1, true, false,
                                      false, &ShaderFormat::conv2d_1x7_ci}) {}

Tricks_Conv2d_7x1_CI::Tricks_Conv2d_7x1_CI(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI_7x1.", 1, 7, true, false,
                                      false, &ShaderFormat::conv2d_7x1_ci}) {}

}  // namespace tesk
