// Convolutions of half weights, one pass.
#pragma once

#include <string>

#include "../shaderformat.h"
#include "packed_convolution.h"
#include "tricks.h"

namespace tesk {

/// What tells one convolution generator from another.
struct ConvolutionForm {
    const char* prefix;   ///< of the program's name
    const char* printed;  ///< what `print` logs
    int kernelWidth = 0;  ///< 0 by 0 in the base classes, which refuse every record
    int kernelHeight = 0;
    /// Dispatch size from the truncated rule instead of the rounded one.
    bool truncated = false;
    /// Uniform buffers are thought of only when one block does not hold all weights.
    bool splitWhenLarge = false;
    /// Sized by the input, as transposed convolutions are.
    bool coversInput = false;
    const char* (ShaderFormat::*source)(const TricksParams& params) = nullptr;

    /// Empty in the base classes.
    std::string text(const TricksParams& params) const;

    Extent extent(const ConvolutionRecord& record, const ComputeProgramManager& manager) const;
};

class TESK_TESTED Tricks_Basic : public Tricks {
public:
    explicit Tricks_Basic(tesk::ComputeProgramManager* manager);
    void setup(ZQLayerInfo* record) override;
    using Tricks::compute;
    void compute(tesk::Image* input, tesk::Image* output) override;
    void print() override;
    virtual std::string generateSource(TricksParams& params);
    virtual std::string programName(TricksParams& params, const char* prefix, int x, int y, int z);

protected:
    Tricks_Basic(tesk::ComputeProgramManager* manager, const ConvolutionForm& form)
        : Tricks(manager), form(form) {}

    ConvolutionForm form;
    PackedConvolution convolution;
};

}  // namespace tesk
