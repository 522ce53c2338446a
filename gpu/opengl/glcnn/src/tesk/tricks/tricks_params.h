// The record from which sources and names of generators are made.
#pragma once

#include <cstdint>

namespace tesk {

struct TricksParams {
    int localSizeX = 0;
    int localSizeY = 0;
    int localSizeZ = 0;
    int uboWeightCount = 0;  ///< length of `weights[]` in a uniform block; 0 with storage buffers
    int outSliceStride = 0;  ///< `uvec4` entries of one output slice: inSlices * inSliceStride
    int inSlices = 0;
    int inSliceStride = 0;  ///< `uvec4` entries of one input slice: width * height of the kernel * 2
    int padX = 0;
    int padY = 0;
    int strideX = 1;
    int strideY = 1;
    int kernelHeight = 3;
    int kernelWidth = 3;
    int hasBias = 1;
    int inChannels = 0;
    int outChannels = 0;
    int dilationX = 1;
    int dilationY = 1;
    int groups = 1;
    int reserved = 0;
    int slicesPerDispatch = 0;  ///< constant-index generators: output slices of a block
    int16_t activation = 2;     ///< a code of the model
};

}  // namespace tesk
