// The contract of a kernel: what a layer calls to compute.
#pragma once

#include <string>
#include <vector>

#include "../platform/export.h"
#include "mat.h"
#include "modelbin.h"
#include "option.h"
#include "paramdict.h"

namespace TarnoCPU {

class Operator;

/// Makes one operator; the caller owns it. Null when there is no memory.
using OperatorCreator = Operator* (*)();

/// One row of a tuning table: which operator a layer gets, and its fixed-point positions (0 for
/// float). Layers that compute by themselves have a null `op_creator`.
struct LayerInferenceConfig {
    OperatorCreator op_creator;
    int top_frac_bits;
    int weight_frac_bits;
};

/// One algorithm on one tensor layout. `load` once, then `forward` any number of times. All but the
/// LSTM are unchanged by `forward` and may run in several extractors at once.
class TN_API Operator {
public:
    virtual ~Operator();
    /// Reads parameters, takes weights and repacks them. 0 on success, -100 on failure. An operator
    /// whose `load` failed answers every `forward` with -100.
    virtual int load(const ParamDict& pd, const ModelBin& mb,
                     const LayerInferenceConfig& config) = 0;
    /// Clears recurrent state; nothing to do but for the LSTM.
    virtual void reset_lstm_state();
    /// The class name, such as "Convolution_Float_Fallback".
    virtual std::string name() const = 0;
};

/// One tensor in, one out. `bottom` and `top` may be one object; a `top` that has the right shape and
/// allocator already may be written in place of a new block.
class TN_API OperatorSISO : public Operator {
public:
    /// 0 on success; -100 when the check fails, after an assertion, when `load` failed or was never
    /// called, when there is no memory, and for shapes that leave nothing to compute.
    virtual int forward(const Mat& bottom, Mat& top, const Option& opt) = 0;
    /// Whether this kernel runs on a bottom of this shape.
    virtual bool check_forward(const TensorShape& shape) = 0;
};

/// One tensor, changed in place.
class TN_API OperatorSISOInplace : public Operator {
public:
    /// As above.
    virtual int forward(Mat& bottom_top, const Option& opt) = 0;
    virtual bool check_forward(const TensorShape& shape) = 0;
};

/// Several tensors in, `tops[0]` out; `tops` arrives with one empty `Mat`. An empty list of bottoms
/// passes the check and gives -100.
class TN_API OperatorMIMO : public Operator {
public:
    /// As above.
    virtual int forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops,
                        const Option& opt) = 0;
    virtual bool check_forward(const std::vector<TensorShape>& shapes) = 0;
};

}  // namespace TarnoCPU
