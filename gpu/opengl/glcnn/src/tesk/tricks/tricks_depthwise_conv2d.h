// What the depthwise convolutions share: an output slice reads the same slice of the input only, so
// that there is no channel loop.
#pragma once

#include <string>

#include "../glutil/buffer.h"
#include "group_counts.h"
#include "tricks.h"
#include "tricks_params.h"

class ZQLayerInfo_DepthWiseConv2D;

namespace tesk {

/// Base of the depthwise generators, for records of ZQLayerInfo_DepthWiseConv2D.
///
///   out[c][y][x] = activation(bias[c] + sum over ky and kx of weights[c][ky][kx] *
///                             in[c][y * strideY - padY + ky][x * strideX - padX + kx])
///
/// with 0 outside the input. The kernel is the class's own; the record's is not looked at, nor its
/// dilation. Activations are ReLU and ReLU6, all others pass the sum on.
///
/// Names hold no padding: of two layers that differ in nothing else, the one set up last runs with
/// the padding of the first. Models that need both do not exist, and the names are fixed.
class TESK_TESTED Tricks_Depthwise_Conv2d : public Tricks {
public:
    void setup(ZQLayerInfo* record) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
    using Tricks::compute;

    /// One pixel of one slice for each invocation. Weights stand in uniform blocks when
    /// `uboWeightCount` is above 0, else in storage buffers.
    virtual std::string generateSource(TricksParams& params);
    /// The cache key; `prefix` has no effect. x, y, z are the local size.
    virtual std::string programName(TricksParams& params, const char* prefix, int x, int y, int z);

protected:
    Tricks_Depthwise_Conv2d(tesk::ComputeProgramManager* manager, int kernel,
                            int pixelsPerInvocation)
        : Tricks(manager), kernel(kernel), pixelsPerInvocation(pixelsPerInvocation) {}

    /// Fills the two buffers with float weights and biases. The record holds all that they need.
    virtual void makeBuffers(const ZQLayerInfo_DepthWiseConv2D& record);
    /// GL's type of the two buffers.
    unsigned int bufferType() const;

    const int kernel;               ///< width and height
    const int pixelsPerInvocation;  ///< along each side
    GroupCounts groups;
    std::shared_ptr<tesk::ComputeProgram> program;
    tesk::Buffer weights;
    tesk::Buffer bias;
    TricksParams params;
};

}  // namespace tesk
