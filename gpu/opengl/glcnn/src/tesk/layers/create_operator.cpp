#include "create_operator.h"

#include <cstdlib>

#include "activation.h"
#include "benchmark_single_layer.h"
#include "concat.h"
#include "conv2d_1x1.h"
#include "conv2d_1x3.h"
#include "conv2d_1x5.h"
#include "conv2d_1x7.h"
#include "conv2d_3x1.h"
#include "conv2d_3x3.h"
#include "conv2d_4x4.h"
#include "conv2d_5x1.h"
#include "conv2d_5x5.h"
#include "conv2d_7x1.h"
#include "depthwise_conv2d_3x3.h"
#include "depthwise_conv2d_5x5.h"
#include "depthwise_transpose_conv2d_3x3.h"
#include "elementwiseoperator.h"
#include "fullconnection.h"
#include "group_conv2d_3x3.h"
#include "pixelshuffle.h"
#include "platform/tn_core.h"
#include "pooling.h"
#include "region2d.h"
#include "tensorreshape.h"
#include "tensorsqueeze.h"
#include "transpose_conv2d_1x7.h"
#include "transpose_conv2d_2x2.h"
#include "transpose_conv2d_3x3.h"
#include "upsampling.h"

namespace tesk {

std::shared_ptr<tesk::Operator> createOperator(int code, tesk::ComputeProgramManager* manager) {
    switch (code) {
        case 0:
            return std::make_shared<Conv2D_1x1>(manager);
        case 1:
            return std::make_shared<Conv2D_1x3>(manager);
        case 2:
            return std::make_shared<Conv2D_3x1>(manager);
        case 3:
            return std::make_shared<Conv2D_3x3>(manager);
        case 4:
            return std::make_shared<Conv2D_4x4>(manager);
        case 5:
            return std::make_shared<Conv2D_1x5>(manager);
        case 6:
            return std::make_shared<Conv2D_5x1>(manager);
        case 7:
            return std::make_shared<Conv2D_5x5>(manager);
        case 8:
            return std::make_shared<Conv2D_1x7>(manager);
        case 9:
            return std::make_shared<Conv2D_7x1>(manager);
        case 10:
            return std::make_shared<Group_Conv2D_3x3>(manager);
        case 11:
            return std::make_shared<Transpose_Conv2D_3x3>(manager);
        case 12:
            return std::make_shared<Transpose_Conv2D_2x2>(manager);
        case 13:
            return std::make_shared<Transpose_Conv2D_1x7>(manager);
        case 14:
            return std::make_shared<Depthwise_Conv2D_3x3>(manager);
        case 15:
            return std::make_shared<Depthwise_Conv2D_5x5>(manager);
        case 16:
            return std::make_shared<Depthwise_Transpose_Conv2D_3x3>(manager);
        case 17:
            return std::make_shared<Pooling>(manager);
        case 18:
            return std::make_shared<ElementWiseOperator>(manager);
        case 19:
            return std::make_shared<Concat>(manager);
        case 20:
            return nullptr;
        case 21:
            return std::make_shared<Region2D>(manager);
        case 22:
            return std::make_shared<PixelShuffle>(manager);
        case 23:
            return std::make_shared<TensorReshape>(manager);
        case 24:
            return std::make_shared<TensorSqueeze>(manager);
        case 25:
            return std::make_shared<UpSampling>(manager);
        case 26:
            return std::make_shared<Activation>(manager);
        case 27:
            return std::make_shared<FullConnection>(manager);
        case 28:
            return std::make_shared<Benchmark_Single_Layer>(manager);
        default:
            Tarno::_LogError("Tarno", "unknow type!");
            std::exit(1);
    }
}

}  // namespace tesk
