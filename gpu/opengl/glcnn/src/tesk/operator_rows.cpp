#include "operator_rows.h"

#include <cstdio>
#include <cstdlib>

#include "crossplatform/src/common/src/zqlayerinfo.h"
#include "operator.h"
#include "platform/tn_core.h"

namespace tesk {
namespace {

constexpr const char* dump_folder = "D:\\debug\\hairseg\\";
constexpr int last_named_code = 26;

// By type code. The texts grew with the layers and have gaps; 20 has texts and no operator.
constexpr OperatorRow rows[] = {
    {ZQLayerType_Conv2D, "_%d_conv2d_1x1", "conv2D_1x1", "conv2d_1x1_"},
    {ZQLayerType_Conv2D, "_%d_conv2d_1x3", "conv2D_1x3", "conv2d_1x3_"},
    {ZQLayerType_Conv2D, "_%d_conv2d_3x1", "conv2D_3x1", "conv2d_3x1_"},
    {ZQLayerType_Conv2D, "_%d_conv2d_3x3", "conv2D_3x3", "conv2d_3x3_"},
    {ZQLayerType_Conv2D, nullptr, nullptr, "conv2d_4x4_"},
    {ZQLayerType_Conv2D, "_%d_conv2d_1x5", "conv2D_1x5", "conv2d_1x5_"},
    {ZQLayerType_Conv2D, "_%d_conv2d_5x1", "conv2D_5x1", "conv2d_5x1_"},
    {ZQLayerType_Conv2D, "_%d_conv2d_5x5", "conv2D_5x5", "conv2d_5x5_"},
    {ZQLayerType_Conv2D, "_%d_conv2d_1x7", "conv2D_1x7", "conv2d_1x7_"},
    {ZQLayerType_Conv2D, "_%d_conv2d_7x1", "conv2D_7x1", "conv2d_7x1_"},
    {ZQLayerType_Conv2D, "_%d_group_conv2d_3x3", "group_conv2D_3x3", "group_conv2d_3x3_"},
    {ZQLayerType_Conv2DTranspose, "_%d_transpose_conv2d_3x3", "transpose_conv2D_3x3",
     "transpose_conv2d_3x3_"},
    {ZQLayerType_Conv2DTranspose, "_%d_transpose_conv2d_2x2", "transpose_conv2D_2x2",
     "transpose_conv2d_2x2_"},
    {ZQLayerType_Conv2DTranspose, "_%d_transpose_conv2d_1x7", nullptr, "transpose_conv2d_1x7_"},
    {ZQLayerType_DepthWiseConv2D, "_%d_depthwise_conv2d_3x3", "depthwise_conv2D_3x3",
     "depthwise_conv2d_3x3"},
    {ZQLayerType_DepthWiseConv2D, nullptr, nullptr, "depthwise_conv2d_5x5"},
    {ZQLayerType_DepthWiseConv2DTranspose, "_depthwise_transpose_conv2d_3x3",
     "depthwise_transpose_conv2D_3x3", "depthwise_transpose_conv2d_3x3"},
    {ZQLayerType_Pooling, "_%d_pooling", "pooling", "pooling_"},
    {ZQLayerType_ElementWiseOperator, "_elementwise_operator", "elementwise_operator",
     "elementwise_operator_"},
    {ZQLayerType_Concatenate, "_%d_concat", "concat", "concat_"},
    {-1, "_%d_trimap", nullptr, "trimap_"},
    {ZQLayerType_Region, "_%d_region", "region", "region_"},
    {ZQLayerType_PixelShuffle, "_%d_pixelshuffle", "pixelshuffle", "pixelshuffle_"},
    {ZQLayerType_TensorReshape, nullptr, nullptr, "tensor_reshape_"},
    {ZQLayerType_TensorSqueeze, nullptr, nullptr, "squeeze_"},
    {ZQLayerType_Upsampling, "_%d_upsampling", "upsampling", "upsampling_"},
    {ZQLayerType_Activation, "_%d_activation", "activation", "activation_"},
    {ZQLayerType_FullConnection, nullptr, "full_connection", "fullConnection_"},
    {-1, nullptr, "benchmark_single_layer", nullptr},
};

}  // namespace

const OperatorRow* operatorRow(int typeCode) {
    constexpr int count = sizeof(rows) / sizeof(rows[0]);
    return typeCode >= 0 && typeCode < count ? &rows[typeCode] : nullptr;
}

void Operator::setDebugSwitches(bool noDump, bool noName) {
    suppressDump = noDump;
    suppressName = noName;
}

void Operator::printName() const {
    if (suppressName) return;
    const OperatorRow* row = operatorRow(typeCode);
    if (row == nullptr || typeCode > last_named_code) {
        Tarno::_LogError("Tarno", "unknow type!");
        std::exit(1);
    }
    char name[1024] = {};
    if (row->name != nullptr) std::snprintf(name, sizeof(name), row->name, layerId);
    Tarno::_LogVerbose("Tarno", "%s : \n\n", name);
}

void Operator::printTime(int index, int microseconds) const {
    const OperatorRow* row = operatorRow(typeCode);
    if (row == nullptr || row->time == nullptr) {
        Tarno::_LogError("Tarno", "unknow type!");
        return;
    }
    Tarno::_LogVerbose("Tarno", "%d 'th layer: %s : %d us \n", index, row->time, microseconds);
}

std::string Operator::dumpFileName() const {
    const OperatorRow* row = operatorRow(typeCode);
    if (suppressDump || row == nullptr || row->dump == nullptr) return "";
    char name[1024];
    std::snprintf(name, sizeof(name), "%s_%d_%s.txt", dump_folder, layerId, row->dump);
    return name;
}

}  // namespace tesk
