// What the convolution generators read from a layer's record.
#pragma once

#include <string>

#include "tricks.h"
#include "tricks_params.h"

namespace tesk {

/// One view of plain and transposed convolutions. The arrays stay the record's.
struct ConvolutionRecord {
    int id = 0;
    TricksParams params;  ///< all but local sizes and buffers
    const shape3* in_shape = nullptr;
    const shape3* out_shape = nullptr;
    const unsigned short* weights_half = nullptr;  ///< [out][y][x][in]
    const unsigned short* bias_half = nullptr;     ///< null: no biases in the record
    const float* weights = nullptr;

    /// From a record of class ZQLayerInfo_Conv2D or ZQLayerInfo_Conv2DTranspose. False, with a log
    /// line, when it is another one, its kernel is not `kernelWidth` by `kernelHeight`, or its
    /// arrays are shorter than its numbers say.
    bool read(const ZQLayerInfo* record, int kernelWidth, int kernelHeight);
};

}  // namespace tesk
