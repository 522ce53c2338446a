// A convolution's input as a matrix: one number for every pair of a tap and an output pixel.
//
// Places are counted in the flat block: tap [q][ky][kx] of output pixel [y][x] is the float
//
//   q * plane + (y * stride_h + ky * dilation_h) * row + x * stride_w + kx * dilation_w
//
// Where the output is larger than what the kernel fits into, that place lies in the next row or
// the next channel, and its value is taken: models were trained and tuned with these values. Behind
// the end of the block it counts as 0.
#pragma once

#include <cstdint>

namespace TarnoCPU {

/// Source and geometry of one im2col. Strides, kernel and output are at least 1 in both directions.
struct Im2col {
    const float* source;
    int64_t size;   ///< floats from `source` to the end of its block
    int64_t plane;  ///< floats from one channel to the next
    int64_t row;    ///< floats from one row to the next
    int64_t channels;
    int kernel_h, kernel_w;
    int dilation_h, dilation_w;
    int stride_h, stride_w;
    int out_h, out_w;

    int64_t taps() const { return channels * kernel_h * kernel_w; }
    int64_t pixels() const { return int64_t{out_h} * out_w; }
};

/// col[(q * kernel_h + ky) * kernel_w + kx][y * out_w + x]: taps() rows of pixels() floats.
void im2col_channel_major(const Im2col& work, float* col);

/// col[y * out_w + x][(q * kernel_h + ky) * kernel_w + kx]: pixels() rows of taps() floats, `pitch`
/// floats from one row to the next. What lies between taps() and `pitch` is left alone.
void im2col_pixel_major(const Im2col& work, int64_t pitch, float* col);

/// Every second pixel of every second row of h x w planes that follow each other, `count` of them
/// per plane: a row gives (w + 1) / 2 pixels, also where an output row is w / 2 long.
void gather_every_second(const float* source, int64_t channels, int h, int w, int64_t count,
                         float* col);

/// target[c][r] = source[r][c] for `rows` x `columns` floats.
void transpose(const float* source, int64_t rows, int64_t columns, float* target);

}  // namespace TarnoCPU
