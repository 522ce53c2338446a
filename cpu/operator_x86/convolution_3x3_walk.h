// One run of a 3x3 convolution over its flat blocks: by the kernel where everything that the kernel
// touches lies inside them, else number by number.
#pragma once

#include <cstdint>

#include "cpu/operator_x86/convolution_3x3_blocking.h"
#include "cpu/operator_x86/guarded_floats.h"

namespace TarnoCPU {

/// Tiles have no tails. A tile that sticks out of top goes on in memory: a row of it that runs past
/// the end of a row of top lands in the next row, past the end of a channel in the next channel,
/// which is filled with its bias later unless it belongs to the same tile. Input and weights run on
/// in the same way. Within a step the whole tile is read first and written last. What would be read
/// outside a block is 0, what would be written there is dropped. So a height that the tile does not
/// divide does no harm where a step has one output channel; a width spoils the rows.
class Convolution3x3Walk {
public:
    /// `input` has its border and the layout that the blocking reads. `weights` has the form that
    /// the blocking reads, for `weight_channels` input channels.
    Convolution3x3Walk(const Convolution3x3Blocking& blocking, const Mat& input, const Mat& weights,
                       int weight_channels, Mat& top);

    /// Whether whole tiles cover top, and input and weights hold all that is read for them.
    bool stays_inside() const;

    /// Adds to the tile of output channels that starts with `output`, by the kernel. Only where
    /// the walk stays inside.
    void run_kernel(int64_t output) const;

    /// The same for all shapes, with each place looked at.
    void run_guarded(int64_t output) const;

private:
    int64_t weight_block_size() const;
    int64_t weight_block(int64_t output, int64_t group) const;
    float weight(int64_t output, int64_t group, int tap, int lane) const;
    int64_t top_place(int64_t output, int64_t y, int64_t x) const;

    const Convolution3x3Blocking blocking;
    const int lanes;  ///< input channels side by side

    const ReadableFloats input;
    const int64_t input_group;
    const int64_t input_row;
    const int groups;

    const ReadableFloats weights;
    const int64_t weight_channels;

    const WritableFloats top;
    const ReadableFloats old_top;  ///< the same block
    const int64_t top_channel;
    const int64_t top_row;
    const int64_t outputs;
    const int height;
    const int columns;
};

}  // namespace TarnoCPU
