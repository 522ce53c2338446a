// What the operator-backed layers share: owning one operator and forwarding to it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cpu/layer.h"
#include "cpu/operator.h"

namespace TarnoCPU {

/// A layer that owns an operator of the base `OperatorBase`.
template <typename OperatorBase>
class OperatorLayer : public Layer {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override {
        Layer::load(pd, mb, config);
        op.reset();
        if (config.op_creator == nullptr) return -100;
        std::unique_ptr<Operator> made(config.op_creator());
        OperatorBase* cast = dynamic_cast<OperatorBase*>(made.get());
        // A table that names an operator of another base. Its author is trusted, memory is not.
        if (cast == nullptr) return -100;
        made.release();
        op.reset(cast);
        return op->load(pd, mb, config);
    }

    std::string operator_name() override { return op != nullptr ? op->name() : "nullptr"; }

protected:
    std::unique_ptr<OperatorBase> op;
};

/// One tensor in, one out.
class SISOLayer : public OperatorLayer<OperatorSISO> {
public:
    using Layer::forward;
    int forward(const Mat& bottom, Mat& top, const Option& opt) override {
        return op != nullptr ? op->forward(bottom, top, opt) : -100;
    }
};

/// One tensor, changed in place; `Layer::forward` makes the copy.
class InplaceLayer : public OperatorLayer<OperatorSISOInplace> {
public:
    using Layer::forward_inplace;
    int forward_inplace(Mat& bottom_top, const Option& opt) override {
        return op != nullptr ? op->forward(bottom_top, opt) : -100;
    }
};

/// Several tensors in, one out.
class MIMOLayer : public OperatorLayer<OperatorMIMO> {
public:
    using Layer::forward;
    int forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops,
                const Option& opt) override {
        return op != nullptr ? op->forward(bottoms, tops, opt) : -100;
    }
};

}  // namespace TarnoCPU
