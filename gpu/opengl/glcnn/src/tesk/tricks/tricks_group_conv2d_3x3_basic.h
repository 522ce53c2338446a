// Grouped 3x3 convolution of four input and four output channels to a group.
#pragma once

#include <string>

#include "../glutil/buffer.h"
#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

namespace tesk {

/// For records of ZQLayerInfo_Conv2D with more than one group. A group is a slice:
///
///   out[o][y][x] = activation(bias[o] + sum over i, ky and kx of weights[o][ky][kx][i] *
///                             in[4 * (o / 4) + i][top + ky][left + kx])
///
/// with top = y * strideY - padY, left = x * strideX - padX, and 0 outside the input. A dilation
/// acts on the offset of the window, padding / dilation, and not on its taps, which stay side by
/// side. Activations are ReLU and ReLU6, all others pass the sum on. Groups of another size are
/// refused: their weights do not fill the 4 by 4 blocks.
class TESK_TESTED Tricks_Group_Conv2d_3x3_Basic : public Tricks {
public:
    explicit Tricks_Group_Conv2d_3x3_Basic(tesk::ComputeProgramManager* manager)
        : Tricks(manager) {}
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;
    void print() override;

    /// Weights stand in a uniform block of `uboWeightCount` entries when that is above 0, else in a
    /// storage buffer.
    virtual std::string generateSource(TricksParams& params);
    virtual std::string programName(TricksParams& params, const char* prefix, int x, int y, int z);

private:
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
    tesk::Buffer weights;
    tesk::Buffer bias;
    TricksParams params;
};

}  // namespace tesk
