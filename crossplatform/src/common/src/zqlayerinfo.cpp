#include "crossplatform/src/common/src/zqlayerinfo.h"

#include <cstdlib>
#include <initializer_list>

unsigned int zq_layer_type_since(unsigned int type) {
    switch (type) {
        case ZQLayerType_Input:
        case ZQLayerType_Conv2D:
        case ZQLayerType_Conv2DTranspose:
        case ZQLayerType_DepthWiseConv2D:
        case ZQLayerType_PixelShuffle:
        case ZQLayerType_Pooling:
        case ZQLayerType_InstanceNormalization:
        case ZQLayerType_BatchNormalization:
        case ZQLayerType_Activation:
        case ZQLayerType_Region:
        case ZQLayerType_ElementWiseOperator:
        case ZQLayerType_Concatenate:
        case ZQLayerType_Upsampling:
        case ZQLayerType_ChannelShuffle:
            return 10000;
        case ZQLayerType_DepthWiseConv2DTranspose:
            return 10003;
        case ZQLayerType_TensorInput:
        case ZQLayerType_TensorReshape:
        case ZQLayerType_TensorTranspose:
        case ZQLayerType_TensorSqueeze:
        case ZQLayerType_FullConnection:
        case ZQLayerType_LSTM:
            return 10008;
        case ZQLayerType_TensorActivation:
            return 10011;
        default:
            return 0;
    }
}

const char* zq_layer_type_name(unsigned int type) {
    switch (type) {
        case ZQLayerType_Input:
            return "Input";
        case ZQLayerType_Conv2D:
            return "Conv2D";
        case ZQLayerType_Conv2DTranspose:
            return "Conv2DTranspose";
        case ZQLayerType_DepthWiseConv2D:
            return "DepthWiseConv2D";
        case ZQLayerType_PixelShuffle:
            return "PixelShuffle";
        case ZQLayerType_Pooling:
            return "Pooling";
        case ZQLayerType_InstanceNormalization:
            return "InstanceNormalization";
        case ZQLayerType_BatchNormalization:
            return "BatchNormalization";
        case ZQLayerType_Activation:
            return "Activation";
        case ZQLayerType_Region:
            return "Region";
        case ZQLayerType_ElementWiseOperator:
            return "ElementWiseOperator";
        case ZQLayerType_Concatenate:
            return "Concatenate";
        case ZQLayerType_Upsampling:
            return "Upsampling";
        case ZQLayerType_ChannelShuffle:
            return "ChannelShuffle";
        case ZQLayerType_DepthWiseConv2DTranspose:
            return "DepthWiseConv2DTranspose";
        case ZQLayerType_TensorInput:
            return "TensorInput";
        case ZQLayerType_TensorReshape:
            return "TensorReshape";
        case ZQLayerType_TensorTranspose:
            return "TensorTranspose";
        case ZQLayerType_TensorSqueeze:
            return "TensorSqueeze";
        case ZQLayerType_FullConnection:
            return "FullConnection";
        case ZQLayerType_LSTM:
            return "LSTM";
        case ZQLayerType_TensorActivation:
            return "TensorActivation";
        default:
            return "unknown";
    }
}

namespace {

template <typename T>
T* zeroed(size_t count) {
    return count == 0 ? nullptr : static_cast<T*>(std::calloc(count, sizeof(T)));
}

template <typename T>
void free_list(T** list, size_t count) {
    if (list == nullptr) return;
    for (size_t i = 0; i < count; ++i)
        std::free(list[i]);
    std::free(list);
}

}  // namespace

ZQLayerInfo::ZQLayerInfo(unsigned short type, unsigned short bottom_count, size_t bottom_room,
                         size_t in_shape_room, size_t out_shape_room)
    : type(type),
      bottom_count(bottom_count),
      bottoms(zeroed<unsigned short>(bottom_room)),
      in_shape(zeroed<shape3>(in_shape_room)),
      out_shape(zeroed<shape3>(out_shape_room)) {}

ZQLayerInfo::~ZQLayerInfo() {
    std::free(in_shape);
    std::free(out_shape);
    std::free(bottoms);
}

ZQLayerInfo_Input::ZQLayerInfo_Input() : ZQLayerInfo(ZQLayerType_Input, 0, 0, 1, 1) {}
ZQLayerInfo_Input::~ZQLayerInfo_Input() = default;

ZQLayerInfo_Conv2D::ZQLayerInfo_Conv2D() : ZQLayerInfo(ZQLayerType_Conv2D, 1, 1, 1, 1) {}
ZQLayerInfo_Conv2D::~ZQLayerInfo_Conv2D() {
    std::free(weights);
    std::free(bias);
    std::free(weights_half);
    std::free(bias_half);
}

ZQLayerInfo_Conv2DTranspose::ZQLayerInfo_Conv2DTranspose()
    : ZQLayerInfo(ZQLayerType_Conv2DTranspose, 1, 1, 1, 1) {}
ZQLayerInfo_Conv2DTranspose::~ZQLayerInfo_Conv2DTranspose() {
    std::free(weights);
    std::free(bias);
    std::free(weights_half);
    std::free(bias_half);
}

ZQLayerInfo_DepthWiseConv2D::ZQLayerInfo_DepthWiseConv2D()
    : ZQLayerInfo(ZQLayerType_DepthWiseConv2D, 1, 1, 1, 1) {}
ZQLayerInfo_DepthWiseConv2D::~ZQLayerInfo_DepthWiseConv2D() {
    std::free(weights);
    std::free(bias);
    std::free(weights_half);
    std::free(bias_half);
}

ZQLayerInfo_DepthWiseConv2DTranspose::ZQLayerInfo_DepthWiseConv2DTranspose()
    : ZQLayerInfo(ZQLayerType_DepthWiseConv2DTranspose, 1, 1, 1, 1) {}
ZQLayerInfo_DepthWiseConv2DTranspose::~ZQLayerInfo_DepthWiseConv2DTranspose() {
    std::free(weights);
    std::free(bias);
    std::free(weights_half);
    std::free(bias_half);
}

ZQLayerInfo_PixelShuffle::ZQLayerInfo_PixelShuffle()
    : ZQLayerInfo(ZQLayerType_PixelShuffle, 1, 1, 1, 1) {}
ZQLayerInfo_PixelShuffle::~ZQLayerInfo_PixelShuffle() = default;

ZQLayerInfo_Pooling::ZQLayerInfo_Pooling() : ZQLayerInfo(ZQLayerType_Pooling, 1, 1, 1, 1) {}
ZQLayerInfo_Pooling::~ZQLayerInfo_Pooling() = default;

ZQLayerInfo_InstanceNormalization::ZQLayerInfo_InstanceNormalization()
    : ZQLayerInfo(ZQLayerType_InstanceNormalization, 1, 1, 1, 1) {}
ZQLayerInfo_InstanceNormalization::~ZQLayerInfo_InstanceNormalization() = default;

ZQLayerInfo_BatchNormalization::ZQLayerInfo_BatchNormalization()
    : ZQLayerInfo(ZQLayerType_BatchNormalization, 1, 1, 1, 1) {}
ZQLayerInfo_BatchNormalization::~ZQLayerInfo_BatchNormalization() {
    std::free(bn_a);
    std::free(bn_b);
    std::free(bn_c);
    std::free(bn_d);
    std::free(bn_a_half);
    std::free(bn_b_half);
    std::free(bn_c_half);
    std::free(bn_d_half);
}

ZQLayerInfo_Activation::ZQLayerInfo_Activation()
    : ZQLayerInfo(ZQLayerType_Activation, 1, 1, 1, 1) {}
ZQLayerInfo_Activation::~ZQLayerInfo_Activation() = default;

ZQLayerInfo_Region::ZQLayerInfo_Region() : ZQLayerInfo(ZQLayerType_Region, 1, 1, 1, 1) {}
ZQLayerInfo_Region::~ZQLayerInfo_Region() = default;

ZQLayerInfo_ElementWiseOperator::ZQLayerInfo_ElementWiseOperator()
    : ZQLayerInfo(ZQLayerType_ElementWiseOperator, 0, ZQ_MAX_BOTTOMS, ZQ_MAX_BOTTOMS, 1),
      in_shapes(in_shape) {}
ZQLayerInfo_ElementWiseOperator::~ZQLayerInfo_ElementWiseOperator() = default;

ZQLayerInfo_Concatenate::ZQLayerInfo_Concatenate()
    : ZQLayerInfo(ZQLayerType_Concatenate, 0, ZQ_MAX_BOTTOMS, ZQ_MAX_BOTTOMS, 1),
      in_shapes(in_shape) {}
ZQLayerInfo_Concatenate::~ZQLayerInfo_Concatenate() = default;

ZQLayerInfo_Upsampling::ZQLayerInfo_Upsampling()
    : ZQLayerInfo(ZQLayerType_Upsampling, 1, 1, 1, 1) {}
ZQLayerInfo_Upsampling::~ZQLayerInfo_Upsampling() = default;

ZQLayerInfo_ChannelShuffle::ZQLayerInfo_ChannelShuffle()
    : ZQLayerInfo(ZQLayerType_ChannelShuffle, 1, 1, 1, 1) {}
ZQLayerInfo_ChannelShuffle::~ZQLayerInfo_ChannelShuffle() {
    std::free(permutation);
}

ZQFreezedLayerInfo::ZQFreezedLayerInfo(unsigned short type, unsigned short bottom_count)
    : ZQLayerInfo(type, bottom_count, bottom_count, 0, 0) {}
ZQFreezedLayerInfo::~ZQFreezedLayerInfo() = default;

ZQLayerInfo_TensorInput::ZQLayerInfo_TensorInput()
    : ZQFreezedLayerInfo(ZQLayerType_TensorInput, 0) {}
ZQLayerInfo_TensorInput::~ZQLayerInfo_TensorInput() = default;

ZQLayerInfo_TensorReshape::ZQLayerInfo_TensorReshape()
    : ZQFreezedLayerInfo(ZQLayerType_TensorReshape, 1) {}
ZQLayerInfo_TensorReshape::~ZQLayerInfo_TensorReshape() = default;

ZQLayerInfo_TensorTranspose::ZQLayerInfo_TensorTranspose()
    : ZQFreezedLayerInfo(ZQLayerType_TensorTranspose, 1) {}
ZQLayerInfo_TensorTranspose::~ZQLayerInfo_TensorTranspose() = default;

ZQLayerInfo_TensorSqueeze::ZQLayerInfo_TensorSqueeze()
    : ZQFreezedLayerInfo(ZQLayerType_TensorSqueeze, 1) {}
ZQLayerInfo_TensorSqueeze::~ZQLayerInfo_TensorSqueeze() = default;

ZQLayerInfo_FullConnection::ZQLayerInfo_FullConnection()
    : ZQFreezedLayerInfo(ZQLayerType_FullConnection, 1) {}
ZQLayerInfo_FullConnection::~ZQLayerInfo_FullConnection() {
    std::free(weights);
    std::free(bias);
    std::free(weights_half);
    std::free(bias_half);
}

ZQLayerInfo_LSTM::ZQLayerInfo_LSTM() : ZQFreezedLayerInfo(ZQLayerType_LSTM, 1) {}
ZQLayerInfo_LSTM::~ZQLayerInfo_LSTM() {
    for (float** list :
         {w_ih, w_hh, b_ih, b_hh, w_ih_reverse, w_hh_reverse, b_ih_reverse, b_hh_reverse}) {
        free_list(list, list_count);
    }
    for (unsigned short** list : {w_ih_half, w_hh_half, b_ih_half, b_hh_half, w_ih_reverse_half,
                                  w_hh_reverse_half, b_ih_reverse_half, b_hh_reverse_half}) {
        free_list(list, list_count);
    }
}

ZQLayerInfo_TensorActivation::ZQLayerInfo_TensorActivation()
    : ZQFreezedLayerInfo(ZQLayerType_TensorActivation, 1) {}
ZQLayerInfo_TensorActivation::~ZQLayerInfo_TensorActivation() = default;
