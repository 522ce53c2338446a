// 1x1 convolutions: how many values one invocation makes is the trade between texture reads and
// parallelism.
#pragma once

#include "tricks_basic.h"
#include "tricks_constant_index.h"

namespace tesk {

/// One pixel of one slice.
class TESK_TESTED Tricks_Conv2d_1x1_Basic : public Tricks_Basic {
public:
    explicit Tricks_Conv2d_1x1_Basic(tesk::ComputeProgramManager* manager);
};

/// Two by two pixels of one or more slices; what the three classes below share. Padding is not
/// divided by the dilation here.
class TESK_TESTED Tricks_Conv2d_1x1_Points : public Tricks {
public:
    void setup(ZQLayerInfo* record) override;
    using Tricks::compute;
    void compute(tesk::Image* input, tesk::Image* output) override;
    void print() override;
    virtual std::string generateSource(TricksParams& params);
    virtual std::string programName(TricksParams& params, const char* prefix, int x, int y, int z);

protected:
    struct Form {
        const char* word;  ///< of the program's name
        const char* printed;
        int slices;        ///< of each invocation
        const char* (ShaderFormat::*source)(const TricksParams& params);
    };
    Tricks_Conv2d_1x1_Points(tesk::ComputeProgramManager* manager, const Form& form)
        : Tricks(manager), form(form) {}

private:
    Form form;
    PackedConvolution convolution;
};

/// ReLU6 does not compile here and leaky ReLU does nothing.
class TESK_TESTED Tricks_Conv2d_1x1_4PointsOut : public Tricks_Conv2d_1x1_Points {
public:
    explicit Tricks_Conv2d_1x1_4PointsOut(tesk::ComputeProgramManager* manager);
};

/// Leaky ReLU does nothing here.
class TESK_TESTED Tricks_Conv2d_1x1_4Points_2Slice : public Tricks_Conv2d_1x1_Points {
public:
    explicit Tricks_Conv2d_1x1_4Points_2Slice(tesk::ComputeProgramManager* manager);
};

/// No operator makes this class. Up to four input channels do not compile, ReLU6 and leaky ReLU do
/// nothing, and a stride of 2 reads the wrong neighbours.
class TESK_TESTED Tricks_Conv2d_1x1_4Points_4Slice : public Tricks_Conv2d_1x1_Points {
public:
    explicit Tricks_Conv2d_1x1_4Points_4Slice(tesk::ComputeProgramManager* manager);
};

/// No operator makes this class.
class TESK_TESTED Tricks_Conv2d_1x1_CI : public Tricks_Constant_index {
public:
    explicit Tricks_Conv2d_1x1_CI(tesk::ComputeProgramManager* manager);
};

}  // namespace tesk
