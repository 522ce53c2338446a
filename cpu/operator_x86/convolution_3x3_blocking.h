// What a 3x3 kernel is handed, and what sets the members of the family apart. Plain data.
#pragma once

#include <cstddef>

namespace TarnoCPU {

/// The sums of one tile of output channels: every group of input channels into every pixel. A group
/// is one input channel, or four that lie side by side. All strides count floats. Everything that a
/// kernel reaches lies inside its blocks.
struct Convolution3x3Task {
    const float* input;     ///< first group, with its border
    ptrdiff_t input_group;  ///< from a group to the next
    ptrdiff_t input_row;    ///< from a row to the next
    const float* weights;   ///< of the first output channel, first group; aligned to 16 if packed
    ptrdiff_t weights_output;  ///< from an output channel to the next
    float* top;                ///< first output channel, filled with the bias
    ptrdiff_t top_channel;     ///< from an output channel to the next
    ptrdiff_t top_row;         ///< from a row to the next
    int groups;
    int height;   ///< rows of top, whole tiles
    int columns;  ///< pixels in a row of top, whole tiles
};

/// How the weights lie. A block is what one step reads for one group: the nine taps.
enum class Convolution3x3Weights {
    AsStored,  ///< [n][c] blocks of [tap]
    NC4HW4,    ///< [n][c / 4] blocks of [tap][c % 4]: input channels in the lanes
    N4CHW4,    ///< [n / 4][c] blocks of [tap][n % 4]: output channels in the lanes
    N4C4HW44,  ///< [n / 4][c / 4] blocks of [tap][c % 4][n % 4]: both, on tensors in `C4HW4`
};

enum class Convolution3x3Border {
    AllSides,         ///< the padding of the parameters
    TopLeftWhenEven,  ///< a row above when the height is even, a column on the left when the width
                      ///< is
};

struct Convolution3x3Blocking {
    int stride;
    Convolution3x3Border border;
    Convolution3x3Weights weights;
    int outputs;  ///< output channels of one innermost step
    int rows;     ///< of top in one innermost step
    int columns;  ///< pixels of top in one innermost step
    void (*kernel)(const Convolution3x3Task& task);
};

}  // namespace TarnoCPU
