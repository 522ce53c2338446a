// The layers of a model file, as read: one record class for each message type.
//
// Records hold what the file says, number for number. Nothing is checked here but that every array
// is as long as the members beside it claim (the `..._count` members tell the length to those that
// copy); whether the numbers make a sensible layer is for the engines to say.
//
// Numbers of type half are kept as their 16-bit patterns; half_float.h converts. Weights are kept
// twice, as floats and, with `_half` behind the name, as the patterns of the file. All arrays come
// from calloc or malloc and are freed by the record's destructor; an array of no elements is null.
#pragma once

#include <cstddef>

#include "../../../../platform/export.h"

/// Message types of a model file. 12, 13, 23 to 25 and everything above 26 are not in use.
enum ZQLayerType : unsigned short {
    ZQLayerType_Input = 0,
    ZQLayerType_Conv2D = 1,
    ZQLayerType_Conv2DTranspose = 2,
    ZQLayerType_DepthWiseConv2D = 3,
    ZQLayerType_PixelShuffle = 4,
    ZQLayerType_Pooling = 5,
    ZQLayerType_InstanceNormalization = 6,
    ZQLayerType_BatchNormalization = 7,
    ZQLayerType_Activation = 8,
    ZQLayerType_Region = 9,
    ZQLayerType_ElementWiseOperator = 10,
    ZQLayerType_Concatenate = 11,
    ZQLayerType_Upsampling = 14,
    ZQLayerType_ChannelShuffle = 15,
    ZQLayerType_DepthWiseConv2DTranspose = 16,
    ZQLayerType_TensorInput = 17,
    ZQLayerType_TensorReshape = 18,
    ZQLayerType_TensorTranspose = 19,
    ZQLayerType_TensorSqueeze = 20,
    ZQLayerType_FullConnection = 21,
    ZQLayerType_LSTM = 22,
    ZQLayerType_TensorActivation = 26,
};

/// The first file version that knows a message type, 10000 at the least; 0 for a number that is not
/// in use.
TN_API unsigned int zq_layer_type_since(unsigned int type);

/// "Conv2D" for 1 and so on, for messages; "unknown" for a number that is not in use.
TN_API const char* zq_layer_type_name(unsigned int type);

/// Activation kinds, fused ones and those of the activation records. 5 has no meaning.
enum ActivationType : unsigned short {
    ActivationType_None = 0,
    ActivationType_Linear = 1,
    ActivationType_ReLU = 2,
    ActivationType_Tanh = 3,
    ActivationType_Sigmoid = 4,
    ActivationType_LeakyReLU = 6,
    ActivationType_SoftMax = 7,
    ActivationType_ReLU6 = 8,
};

/// A shape that scales with the input. 6 bytes in the file.
struct shape3 {
    unsigned short scale_x;   ///< half: width as a factor of the base width
    unsigned short scale_y;   ///< half: height as a factor of the base height
    unsigned short channels;  ///< a plain number
};

/// A shape in absolute numbers. 28 bytes in the file.
struct tensor28 {
    unsigned int kind;        ///< stored and unread
    unsigned short rank;      ///< not checked: may be above 11
    unsigned short dims[11];  ///< the first `rank` count, the others hold what the file holds
};

/// How many bottoms and input shapes a record with several inputs has room for.
constexpr unsigned int ZQ_MAX_BOTTOMS = 10;

/// Base of all records. Members start at 0 where nothing else is said.
class TN_API ZQLayerInfo {
public:
    unsigned short id = 0xffff;   ///< the layer's identity in its file
    unsigned short type;          ///< the message type
    unsigned short bottom_count;  ///< how many of `bottoms` count
    unsigned short top_count = 1;
    unsigned short* bottoms;  ///< ids of the layers that this one reads; null without inputs
    shape3* in_shape;         ///< null in a ZQFreezedLayerInfo
    shape3* out_shape;        ///< null in a ZQFreezedLayerInfo

    virtual ~ZQLayerInfo();
    ZQLayerInfo(const ZQLayerInfo&) = delete;
    ZQLayerInfo& operator=(const ZQLayerInfo&) = delete;

protected:
    ZQLayerInfo(unsigned short type, unsigned short bottom_count, size_t bottom_room,
                size_t in_shape_room, size_t out_shape_room);
};

/// Type 0.
class TN_API ZQLayerInfo_Input : public ZQLayerInfo {
public:
    unsigned short input_index = 0;  ///< by which callers address this input

    ZQLayerInfo_Input();
    ~ZQLayerInfo_Input() override;
};

/// Type 1. `weights[out][y][x][in]` for one group; for several in the order of the operators,
/// `weights[out][in in its group][y][x]`. `bias[out]` is there whatever `has_bias` says.
class TN_API ZQLayerInfo_Conv2D : public ZQLayerInfo {
public:
    unsigned short kernel_w = 0;
    unsigned short kernel_h = 0;
    unsigned short pad_w = 0;
    unsigned short pad_h = 0;
    unsigned short stride_w = 0;
    unsigned short stride_h = 0;
    unsigned short dilation_w = 0;
    unsigned short dilation_h = 0;
    unsigned short has_bias = 0;
    unsigned short activation = 0;
    unsigned short groups = 0;  ///< 0 in the files of version 10000, where it means 1
    float* weights = nullptr;
    float* bias = nullptr;
    unsigned short* weights_half = nullptr;
    unsigned short* bias_half = nullptr;
    size_t weights_count = 0;
    size_t bias_count = 0;
    unsigned short reserved[10] = {};  ///< carried from file to file, without a meaning

    ZQLayerInfo_Conv2D();
    ~ZQLayerInfo_Conv2D() override;
    /// `groups`, and 1 for the records that have none.
    unsigned int effective_groups() const { return groups == 0 ? 1u : groups; }
};

/// Type 2. `weights[out][y][x][in]`, `bias[out]`. The number of weights is divided by `groups`
/// where the file has that field.
class TN_API ZQLayerInfo_Conv2DTranspose : public ZQLayerInfo {
public:
    unsigned short kernel_w = 0;
    unsigned short kernel_h = 0;
    unsigned short pad_w = 0;
    unsigned short pad_h = 0;
    unsigned short stride_w = 0;
    unsigned short stride_h = 0;
    unsigned short has_bias = 0;
    unsigned short activation = 0;
    unsigned short groups = 0;  ///< 0 in the files before version 10003, where it means 1
    float* weights = nullptr;
    float* bias = nullptr;
    unsigned short* weights_half = nullptr;
    unsigned short* bias_half = nullptr;
    size_t weights_count = 0;
    size_t bias_count = 0;

    ZQLayerInfo_Conv2DTranspose();
    ~ZQLayerInfo_Conv2DTranspose() override;
    /// `groups`, and 1 for the records that have none.
    unsigned int effective_groups() const { return groups == 0 ? 1u : groups; }
};

/// Type 3. `weights[y][x][channel]` with `in_shape.channels * depth_multiplier` channels,
/// `bias[out]`.
class TN_API ZQLayerInfo_DepthWiseConv2D : public ZQLayerInfo {
public:
    unsigned short depth_multiplier = 0;
    unsigned short kernel_w = 0;
    unsigned short kernel_h = 0;
    unsigned short pad_w = 0;
    unsigned short pad_h = 0;
    unsigned short stride_w = 0;
    unsigned short stride_h = 0;
    unsigned short dilation_w = 0;
    unsigned short dilation_h = 0;
    unsigned short has_bias = 0;
    unsigned short activation = 0;
    float* weights = nullptr;
    float* bias = nullptr;
    unsigned short* weights_half = nullptr;
    unsigned short* bias_half = nullptr;
    size_t weights_count = 0;
    size_t bias_count = 0;

    ZQLayerInfo_DepthWiseConv2D();
    ~ZQLayerInfo_DepthWiseConv2D() override;
};

/// Type 16. `weights[in][y][x][multiplier]`, `bias[out]`.
class TN_API ZQLayerInfo_DepthWiseConv2DTranspose : public ZQLayerInfo {
public:
    unsigned short depth_multiplier = 0;
    unsigned short kernel_w = 0;
    unsigned short kernel_h = 0;
    unsigned short pad_w = 0;
    unsigned short pad_h = 0;
    unsigned short stride_w = 0;
    unsigned short stride_h = 0;
    unsigned short dilation_w = 0;
    unsigned short dilation_h = 0;
    unsigned short has_bias = 0;
    unsigned short activation = 0;
    float* weights = nullptr;
    float* bias = nullptr;
    unsigned short* weights_half = nullptr;
    unsigned short* bias_half = nullptr;
    size_t weights_count = 0;
    size_t bias_count = 0;

    ZQLayerInfo_DepthWiseConv2DTranspose();
    ~ZQLayerInfo_DepthWiseConv2DTranspose() override;
};

/// Type 4.
class TN_API ZQLayerInfo_PixelShuffle : public ZQLayerInfo {
public:
    unsigned short upscale_factor = 0;  ///< half

    ZQLayerInfo_PixelShuffle();
    ~ZQLayerInfo_PixelShuffle() override;
};

/// Type 5.
class TN_API ZQLayerInfo_Pooling : public ZQLayerInfo {
public:
    unsigned short kernel_w = 0;
    unsigned short kernel_h = 0;
    unsigned short pad_w = 0;
    unsigned short pad_h = 0;
    unsigned short stride_w = 0;
    unsigned short stride_h = 0;
    unsigned short pool_type = 0;  ///< 1 maximum, 0 average

    ZQLayerInfo_Pooling();
    ~ZQLayerInfo_Pooling() override;
};

/// Type 6. `out_shape` is a copy of `in_shape`.
class TN_API ZQLayerInfo_InstanceNormalization : public ZQLayerInfo {
public:
    ZQLayerInfo_InstanceNormalization();
    ~ZQLayerInfo_InstanceNormalization() override;
};

/// Type 7. `out_shape` is a copy of `in_shape`.
class TN_API ZQLayerInfo_BatchNormalization : public ZQLayerInfo {
public:
    float* bn_a = nullptr;  ///< slope
    float* bn_b = nullptr;  ///< bias
    float* bn_c = nullptr;  ///< variance
    float* bn_d = nullptr;  ///< mean
    unsigned short* bn_a_half = nullptr;
    unsigned short* bn_b_half = nullptr;
    unsigned short* bn_c_half = nullptr;
    unsigned short* bn_d_half = nullptr;
    size_t bn_count = 0;  ///< length of each of the arrays

    ZQLayerInfo_BatchNormalization();
    ~ZQLayerInfo_BatchNormalization() override;
};

/// Type 8. `out_shape` is a copy of `in_shape`.
class TN_API ZQLayerInfo_Activation : public ZQLayerInfo {
public:
    unsigned short activation_type = 0;  ///< an ActivationType, or any other number
    unsigned short alpha = 0;            ///< half: slope of Linear
    unsigned short beta = 0;             ///< half: offset of Linear

    ZQLayerInfo_Activation();
    ~ZQLayerInfo_Activation() override;
};

/// Type 9. `out_shape` is a copy of `in_shape`.
class TN_API ZQLayerInfo_Region : public ZQLayerInfo {
public:
    unsigned short region_a = 0;
    unsigned short region_b = 0;
    unsigned short region_c = 0;

    ZQLayerInfo_Region();
    ~ZQLayerInfo_Region() override;
};

/// Type 10. `bottoms` has room for ten ids.
class TN_API ZQLayerInfo_ElementWiseOperator : public ZQLayerInfo {
public:
    /// Ten shapes, the block that `in_shape` points at. The first `bottom_count` are copies of
    /// `out_shape`.
    shape3* in_shapes;
    unsigned short operator_type = 0;  ///< 0 sum, 2 product
    unsigned short activation = 0;

    ZQLayerInfo_ElementWiseOperator();
    ~ZQLayerInfo_ElementWiseOperator() override;
};

/// Type 11. `bottoms` has room for ten ids.
class TN_API ZQLayerInfo_Concatenate : public ZQLayerInfo {
public:
    shape3* in_shapes;  ///< ten shapes, the block that `in_shape` points at
    unsigned short axis = 0;

    ZQLayerInfo_Concatenate();
    ~ZQLayerInfo_Concatenate() override;
};

/// Type 14.
class TN_API ZQLayerInfo_Upsampling : public ZQLayerInfo {
public:
    unsigned short scale = 0;  ///< half
    unsigned short mode = 0;
    unsigned short align = 0;  ///< 0 in the files before version 10007

    ZQLayerInfo_Upsampling();
    ~ZQLayerInfo_Upsampling() override;
};

/// Type 15. `out_shape` is a copy of `in_shape`.
class TN_API ZQLayerInfo_ChannelShuffle : public ZQLayerInfo {
public:
    unsigned short* permutation = nullptr;  ///< one number for each channel of `in_shape`
    size_t permutation_count = 0;
    unsigned short reserved[10] = {};  ///< carried from file to file, without a meaning

    ZQLayerInfo_ChannelShuffle();
    ~ZQLayerInfo_ChannelShuffle() override;
};

/// Base of the records whose shapes are absolute numbers: they do not scale with the input.
/// `in_shape` and `out_shape` are null.
class TN_API ZQFreezedLayerInfo : public ZQLayerInfo {
public:
    tensor28 in_tensors[10] = {};  ///< the first is filled
    tensor28 out_tensor = {};

    ~ZQFreezedLayerInfo() override;

protected:
    ZQFreezedLayerInfo(unsigned short type, unsigned short bottom_count);
};

/// Type 17. No bottoms.
class TN_API ZQLayerInfo_TensorInput : public ZQFreezedLayerInfo {
public:
    unsigned short input_index = 0;  ///< by which callers address this input

    ZQLayerInfo_TensorInput();
    ~ZQLayerInfo_TensorInput() override;
};

/// Type 18.
class TN_API ZQLayerInfo_TensorReshape : public ZQFreezedLayerInfo {
public:
    ZQLayerInfo_TensorReshape();
    ~ZQLayerInfo_TensorReshape() override;
};

/// Type 19.
class TN_API ZQLayerInfo_TensorTranspose : public ZQFreezedLayerInfo {
public:
    unsigned short axes[10] = {};

    ZQLayerInfo_TensorTranspose();
    ~ZQLayerInfo_TensorTranspose() override;
};

/// Type 20.
class TN_API ZQLayerInfo_TensorSqueeze : public ZQFreezedLayerInfo {
public:
    unsigned short axis = 0;

    ZQLayerInfo_TensorSqueeze();
    ~ZQLayerInfo_TensorSqueeze() override;
};

/// Type 21. `bias[out]` is null when `has_bias` is 0.
class TN_API ZQLayerInfo_FullConnection : public ZQFreezedLayerInfo {
public:
    unsigned short num_input = 0;
    unsigned short num_output = 0;
    unsigned short has_bias = 0;
    float* weights = nullptr;
    float* bias = nullptr;
    unsigned short* weights_half = nullptr;
    unsigned short* bias_half = nullptr;
    size_t weights_count = 0;
    size_t bias_count = 0;

    ZQLayerInfo_FullConnection();
    ~ZQLayerInfo_FullConnection() override;
};

/// Type 22. Each of the eight arrays is a list with one array for each stacked layer. A list is
/// null when the file has no such arrays (no bias, one direction, or a `hidden_size` or
/// `num_layers` of 0); the entries of `w_ih` are null when `input_size` is 0.
class TN_API ZQLayerInfo_LSTM : public ZQFreezedLayerInfo {
public:
    unsigned short input_size = 0;
    unsigned short hidden_size = 0;
    unsigned short num_layers = 0;
    unsigned short has_bias = 0;
    unsigned short bidirectional = 0;
    unsigned short lstm_flag = 0;  ///< 0 in the files before version 10009
    float** w_ih = nullptr;
    float** w_hh = nullptr;
    float** b_ih = nullptr;
    float** b_hh = nullptr;
    float** w_ih_reverse = nullptr;
    float** w_hh_reverse = nullptr;
    float** b_ih_reverse = nullptr;
    float** b_hh_reverse = nullptr;
    unsigned short** w_ih_half = nullptr;
    unsigned short** w_hh_half = nullptr;
    unsigned short** b_ih_half = nullptr;
    unsigned short** b_hh_half = nullptr;
    unsigned short** w_ih_reverse_half = nullptr;
    unsigned short** w_hh_reverse_half = nullptr;
    unsigned short** b_ih_reverse_half = nullptr;
    unsigned short** b_hh_reverse_half = nullptr;
    size_t list_count = 0;  ///< length of each list that is not null: `num_layers`, or 0
    size_t w_ih_count = 0;  ///< length of one array of `w_ih` and `w_ih_reverse`
    size_t w_hh_count = 0;  ///< length of one array of `w_hh` and `w_hh_reverse`
    size_t bias_count = 0;  ///< length of one array of the four biases, 0 when `has_bias` is 0

    ZQLayerInfo_LSTM();
    ~ZQLayerInfo_LSTM() override;
};

/// Type 26. `out_tensor` is a copy of `in_tensors[0]`.
class TN_API ZQLayerInfo_TensorActivation : public ZQFreezedLayerInfo {
public:
    unsigned short activation_type = 0;  ///< an ActivationType, or any other number
    unsigned short alpha = 0;            ///< a plain number: slope of Linear
    unsigned short beta = 0;             ///< a plain number: offset of Linear

    ZQLayerInfo_TensorActivation();
    ~ZQLayerInfo_TensorActivation() override;
};
