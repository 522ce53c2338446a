#include "tricks_transpose_conv2d.h"

namespace tesk {

Tricks_Transpose_Conv2d_3x3_Basic::Tricks_Transpose_Conv2d_3x3_Basic(
    tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Transpose_Conv2D", "I am Tricks_Transpose_Conv2d_Basic_3x3.", 3, 3,
                             true, false, true, &ShaderFormat::transpose_conv2d_3x3_basic}) {}

Tricks_Transpose_Conv2d_2x2_Basic::Tricks_Transpose_Conv2d_2x2_Basic(
    tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Transpose_Conv2D", "I am Tricks_Transpose_Conv2d_Basic_2x2.", 2, 2,
                             true, false, true, &ShaderFormat::transpose_conv2d_2x2_basic}) {}

Tricks_Transpose_Conv2d_1x7_Basic::Tricks_Transpose_Conv2d_1x7_Basic(
    tesk::ComputeProgramManager* manager)
    : Tricks_Basic(manager, {"Transpose_Conv2D", "I am Tricks_Transpose_Conv2d_Basic_1x7.", 7, 1,
                             true, false, true, &ShaderFormat::transpose_conv2d_1x7_basic}) {}

Tricks_Transpose_Conv2d_3x3_CI::Tricks_Transpose_Conv2d_3x3_CI(
    tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager,
                            {"Transpose_Conv2D", "I am Tricks_Transpose_Conv2d_CI_3x3.", 3, 3,
                             true, false, true, &ShaderFormat::transpose_conv2d_3x3_ci}) {}

Tricks_Transpose_Conv2d_2x2_CI::Tricks_Transpose_Conv2d_2x2_CI(
    tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager,
                            {"Transpose_Conv2D", "I am Tricks_Transpose_Conv2d_CI_2x2.", 2, 2,
                             true, false, true, &ShaderFormat::transpose_conv2d_2x2_ci}) {}

Tricks_Transpose_Conv2d_1x7_CI::Tricks_Transpose_Conv2d_1x7_CI(
    tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager,
                            {"Transpose_Conv2D", "I am Tricks_Transpose_Conv2d_CI_1x7.", 7, 1,
                             true, false, true, &ShaderFormat::transpose_conv2d_1x7_ci}) {}

}  // namespace tesk
