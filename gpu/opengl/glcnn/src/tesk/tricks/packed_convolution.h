// Buffers, program and dispatches that the convolution generators with half weights share.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "convolution_record.h"
#include "tricks.h"

namespace tesk {

/// Weights in one storage buffer, or split by output slices over several uniform buffers, one
/// dispatch for each.
class PackedConvolution {
public:
    /// How a generator's invocations cover the output.
    struct Coverage {
        Extent extent;                 ///< pixels to cover
        int pixels = 1;                ///< of each invocation, in each direction
        int slices = 1;                ///< of each invocation
        bool split_when_large = false; ///< uniform buffers only when one block does not hold all
    };

    /// Packs the record's halves, makes the buffers, completes `record.params` (local size,
    /// uniform-block length) and works out the group counts.
    void setup(ConvolutionRecord& record, const Coverage& coverage,
               const ComputeProgramManager& manager);

    /// Binds and dispatches; the program is in use.
    void run(tesk::Image* input, tesk::Image* output, tesk::ComputeProgram& program);

    int groupsX = 0;
    int groupsY = 0;
    int groupsZ = 0;
    std::shared_ptr<tesk::ComputeProgram> program;
    int blockCount = 0;  ///< 0: one storage buffer
    std::vector<std::unique_ptr<tesk::Buffer>> weightBuffers;
    tesk::Buffer biasBuffer;

private:
    void makeBuffers(ConvolutionRecord& record, const Coverage& coverage,
                     const unsigned char* weights, int bytes,
                     const ComputeProgramManager& manager);
};

/// Into how many uniform blocks `bytes` of weights of `slices` output slices go; 0 when they belong
/// in a storage buffer.
TESK_TESTED int uniformBlockCount(long long bytes, int slices, const ComputeProgramManager& manager);

}  // namespace tesk
