// Convolutions of float weights that the source indexes with constants: three passes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tricks_basic.h"

namespace tesk {

/// Clears the output, adds one input slice after the other to what the output holds (it is read
/// back through a sampler, rounded to halves each time), then adds the bias and applies the
/// activation.
class TESK_TESTED Tricks_Constant_index : public Tricks {
public:
    explicit Tricks_Constant_index(tesk::ComputeProgramManager* manager);
    void setup(ZQLayerInfo* record) override;
    using Tricks::compute;
    void compute(tesk::Image* input, tesk::Image* output) override;
    void print() override;
    virtual std::string generateSource(TricksParams& params);
    virtual std::string programName(TricksParams& params, const char* prefix, int x, int y, int z);
    virtual std::string preProgramName(TricksParams& params, int x, int y, int z);
    virtual std::string postProgramName(TricksParams& params, int x, int y, int z);

protected:
    Tricks_Constant_index(tesk::ComputeProgramManager* manager, const ConvolutionForm& form)
        : Tricks(manager), form(form) {}

    ConvolutionForm form;

private:
    struct Pass {
        int groupsX = 0;
        int groupsY = 0;
        int groupsZ = 0;
        std::shared_ptr<tesk::ComputeProgram> program;
        void dispatch() const;
    };
    void makeBuffers(const ConvolutionRecord& record, TricksParams& params);

    Pass pre;
    Pass main;
    Pass post;
    int blockBytes = 0;
    std::vector<std::unique_ptr<tesk::Buffer>> weightBuffers;
    tesk::Buffer biasBuffer;
    int inSlices = 0;
    int outSlices = 0;
    int slicesPerBlock = 1;
    int blockStride = 0;
};

}  // namespace tesk
