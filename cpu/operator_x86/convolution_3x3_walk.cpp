#include "cpu/operator_x86/convolution_3x3_walk.h"

namespace TarnoCPU {

using Weights = Convolution3x3Weights;

namespace {

bool input_in_lanes(const Convolution3x3Blocking& blocking) {
    return blocking.weights == Weights::NC4HW4 || blocking.weights == Weights::N4C4HW44;
}

// Floats of a pixel of top.
int depth_of_top(const Convolution3x3Blocking& blocking) {
    return blocking.weights == Weights::N4C4HW44 ? 4 : 1;
}

}  // namespace

Convolution3x3Walk::Convolution3x3Walk(const Convolution3x3Blocking& blocking, const Mat& input,
                                       const Mat& weights, int weight_channels, Mat& top)
    : blocking(blocking),
      lanes(input_in_lanes(blocking) ? 4 : 1),
      input(input),
      input_group(int64_t{input.shape.h} * input.shape.w),
      input_row(input.shape.w),
      groups(input.shape.c),
      weights(weights),
      weight_channels(weight_channels),
      top(top),
      old_top(top),
      top_channel(int64_t{top.shape.h} * top.shape.w),
      top_row(top.shape.w),
      outputs(int64_t{top.shape.c} * depth_of_top(blocking)),
      height(top.shape.h),
      columns(top.shape.w / depth_of_top(blocking)) {}

int64_t Convolution3x3Walk::weight_block_size() const {
    switch (blocking.weights) {
        case Weights::AsStored:
            return 9;
        case Weights::N4C4HW44:
            return 144;
        default:
            return 36;
    }
}

// Where the channels are no multiple of 4 the divisions are those of the packing: each output
// channel keeps its whole blocks of four, and the channels behind them take no part.
int64_t Convolution3x3Walk::weight_block(int64_t output, int64_t group) const {
    switch (blocking.weights) {
        case Weights::NC4HW4:
            return output * weight_channels / 4 + group;
        case Weights::N4CHW4:
            return output / 4 * weight_channels + group;
        case Weights::N4C4HW44:
            return output / 4 * (weight_channels / 4) + group;
        default:
            return output * weight_channels + group;
    }
}

float Convolution3x3Walk::weight(int64_t output, int64_t group, int tap, int lane) const {
    const int64_t block = weight_block(output, group);
    // Counts of channels come from a file: a block far outside may have no place in 64 bits.
    if (block < 0 || block > weights.count / weight_block_size()) return 0.0f;
    int64_t place = block * weight_block_size();
    switch (blocking.weights) {
        case Weights::AsStored:
            place += tap;
            break;
        case Weights::NC4HW4:
            place += 4 * tap + lane;
            break;
        case Weights::N4CHW4:
            place += 4 * tap + output % 4;
            break;
        case Weights::N4C4HW44:
            place += 16 * tap + 4 * lane + output % 4;
            break;
    }
    return weights[place];
}

int64_t Convolution3x3Walk::top_place(int64_t output, int64_t y, int64_t x) const {
    if (blocking.weights == Weights::N4C4HW44)
        return output / 4 * top_channel + y * top_row + 4 * x + output % 4;
    return output * top_channel + y * top_row + x;
}

bool Convolution3x3Walk::stays_inside() const {
    if (height % blocking.rows != 0 || columns % blocking.columns != 0) return false;
    if (outputs % blocking.outputs != 0 || weight_channels % lanes != 0) return false;
    const int64_t last_y = (int64_t{height} - 1) * blocking.stride + 2;
    const int64_t last_x = (int64_t{columns} - 1) * blocking.stride + 2;
    const int64_t last_input = (groups - 1) * input_group + last_y * input_row + last_x * lanes;
    if (last_input + lanes > input.count) return false;
    const int64_t last_block = weight_block(outputs - 1, groups - 1);
    return weight_channels >= 0 && last_block < weights.count / weight_block_size();
}

void Convolution3x3Walk::run_kernel(int64_t output) const {
    Convolution3x3Task task;
    task.input = input.data;
    task.input_group = static_cast<ptrdiff_t>(input_group);
    task.input_row = static_cast<ptrdiff_t>(input_row);
    task.weights = weights.data + weight_block(output, 0) * weight_block_size();
    task.weights_output = static_cast<ptrdiff_t>(weight_block(1, 0) * weight_block_size());
    task.top = top.data + top_place(output, 0, 0);
    task.top_channel = static_cast<ptrdiff_t>(top_channel);
    task.top_row = static_cast<ptrdiff_t>(top_row);
    task.groups = groups;
    task.height = height;
    task.columns = columns;
    blocking.kernel(task);
}

void Convolution3x3Walk::run_guarded(int64_t output) const {
    constexpr int largest_tile = 64;
    float tile[largest_tile];
    float w[4][9][4];
    for (int64_t g = 0; g < groups; ++g) {
        for (int o = 0; o < blocking.outputs; ++o) {
            for (int k = 0; k < 9; ++k) {
                for (int c = 0; c < lanes; ++c)
                    w[o][k][c] = weight(output + o, g, k, c);
            }
        }
        // Calls body(number of the tile, output channel, row, column) for all of a step.
        const auto for_tile = [&](const auto& body) {
            int i = 0;
            for (int o = 0; o < blocking.outputs; ++o) {
                for (int row = 0; row < blocking.rows; ++row) {
                    for (int column = 0; column < blocking.columns; ++column, ++i)
                        body(i, o, row, column);
                }
            }
        };
        for (int64_t y = 0; y < height; y += blocking.rows) {
            for (int64_t x = 0; x < columns; x += blocking.columns) {
                for_tile([&](int i, int o, int row, int column) {
                    float sum = old_top[top_place(output + o, y + row, x + column)];
                    const int64_t corner = g * input_group +
                                           (y + row) * blocking.stride * input_row +
                                           (x + column) * blocking.stride * lanes;
                    for (int k = 0; k < 9; ++k) {
                        const int64_t pixel = corner + k / 3 * input_row + k % 3 * lanes;
                        for (int c = 0; c < lanes; ++c)
                            sum += input[pixel + c] * w[o][k][c];
                    }
                    tile[i] = sum;
                });
                for_tile([&](int i, int o, int row, int column) {
                    top.write(top_place(output + o, y + row, x + column), tile[i]);
                });
            }
        }
    }
}

}  // namespace TarnoCPU
