// Activation and change of layout in one operator: the family behind ReLU[6]_Float_SSE_*_To_*.
#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// What the four classes share. x becomes min(max(x, 0), ceiling) in place, then the tensor moves
/// into a new block of the other layout, from `opt.workspace_allocator` although it outlives the
/// operator: tables of memory use were made with this.
///
/// Both steps are those of the vector instructions: a NaN becomes 0 and -0 becomes +0, because
/// max(x, 0) gives its second operand when the two do not compare.
///
/// Parameter 0 `slope` is accepted and not used: a leaky ReLU cannot run here.
class ReluRelayout : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    /// Any layout: the one that came in is not looked at again, only `c`, `h` and `w` are.
    bool check_forward(const TensorShape& shape) override;

protected:
    static constexpr float no_ceiling = __builtin_inff();

    /// {CHW, c, h, w} to {C4HW4, c / 4, h, w * 4}. Of a c that 4 does not divide, the last c % 4
    /// channels have no room and are lost; the table never chooses the operator for such a tensor.
    /// 0, or -100 when the result is empty, with `bottom_top` activated in its old layout.
    static int chw_to_c4hw4(Mat& bottom_top, float ceiling, const Option& opt);
    /// {C4HW4, c, h, w} to {CHW, c * 4, h, w / 4}. Of a w that 4 does not divide, the pixels are
    /// counted as if the rows were w / 4 * 4 long. Results as above.
    static int c4hw4_to_chw(Mat& bottom_top, float ceiling, const Option& opt);
};

}  // namespace TarnoCPU
