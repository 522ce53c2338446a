// A node of the network: what a layer is, apart from how it is computed.
#pragma once

#include <string>
#include <vector>

#include "../platform/export.h"
#include "mat.h"
#include "modelbin.h"
#include "operator.h"
#include "option.h"
#include "paramdict.h"

namespace TarnoCPU {

/// Most layers own one operator and forward to it; `Concat`, `Region` and `TensorReshape` compute
/// by themselves. A layer is loaded once and lives as long as its net.
class TN_API Layer {
public:
    bool one_blob_only = false;    ///< one bottom and one top: the single-tensor path is taken
    bool support_inplace = false;  ///< may change its bottom in place
    LayerInferenceConfig inference_config = {nullptr, 0, 0};  ///< what `load` was given
    int id = -1;               ///< layer id of the model file; a fused activation has its layer's
    std::string type;          ///< display name, such as "Convolution3x3s2x2"
    std::string name;          ///< stays empty
    std::vector<int> bottoms;  ///< blob indices read
    std::vector<int> tops;     ///< blob indices written; one in a loaded net

    virtual ~Layer();

    /// Stores `config`; operator-backed layers make their operator from it and load it. 0 on
    /// success, -100 when there is no creator, when its operator has the wrong base, or when the
    /// operator's own `load` fails.
    virtual int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config);

    /// The operator with recurrent state, for the net's list; null for all layers but `LSTM`.
    virtual Operator* get_operator();

    /// Computes into a new `top`, or, for a layer that works in place, into a copy of `bottom`
    /// (`support_inplace` false) or into `bottom`'s own block (true). 0 on success, -100 on
    /// failure.
    virtual int forward(const Mat& bottom, Mat& top, const Option& opt);
    /// The same for layers of several bottoms; `tops` arrives with one empty `Mat`.
    virtual int forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops, const Option& opt);
    /// The base versions return -1.
    virtual int forward_inplace(Mat& bottom_top, const Option& opt);
    virtual int forward_inplace(std::vector<Mat>& bottom_tops, const Option& opt);

    /// Name of the operator class, "nullptr" for a layer that has none.
    virtual std::string operator_name() = 0;
};

/// A new layer of the kind `type`, one of "Activation", "Input", "Convolution",
/// "ConvolutionDepthWise", "Deconvolution", "DeconvolutionDepthWise", "Concat", "Eltwise",
/// "Pooling", "PixelShuffle", "Region", "Upsampling", "FullConnection", "TensorReshape",
/// "BatchNormalization", "LSTM". Null for any other text. The caller owns it.
TN_API Layer* create_layer(const char* type);

}  // namespace TarnoCPU
