// 1x1 convolutions that update a tile of output channels in memory.
//
//   top[p][y][x] = bias[p] + sum over q of bottom[q][y][x] * w[p][q]
//
// For a tile of T output channels: each channel is filled with its bias; then for q, y and x in
// steps of 4 a block of 4x4 pixels of four input channels is added to the T channels.
//
// All planes of a tile are open at once. When a plane is a multiple of 4 KiB their rows fall into
// the same sets of the first cache, and from T = 16 on they push each other out.
#pragma once

#include <emmintrin.h>

#include <cstdint>

#include "cpu/operator_x86/direct_convolution.h"

namespace TarnoCPU {

struct TileProduct {
    const float* in;
    float* out;
    const float* weights;  ///< [p][q]
    ReadableFloats bias;
    int64_t inputs;   ///< channels, a multiple of 4
    int64_t outputs;  ///< a multiple of the tile
    int64_t rows;     ///< a multiple of 4
    int64_t columns;  ///< a multiple of 4
};

/// Two rows of the 4x4 block. Eight vectors of input stay in registers while the tile goes by. `w`
/// holds [t][k], each weight in all four lanes: 4 * T vectors, in registers only for T = 1.
///
/// What bounds it: a product and its sum are three instructions, since SSE multiplies in place and
/// first needs a copy (of a weight, which its load is; for T = 1 of the input). With two loads, two
/// stores and a step of the address the eight products of an output channel take 29 instructions,
/// five cycles at six a cycle, where the pipes would do them in four.
template <int T>
inline void add_two_rows(const float* in, float* out, int64_t plane, int64_t row, const __m128* w) {
    __m128 upper[4], lower[4];
    for (int k = 0; k < 4; ++k) {
        upper[k] = _mm_loadu_ps(in);
        lower[k] = _mm_loadu_ps(in + row);
        in += plane;
    }
#pragma GCC unroll 16
    for (int t = 0; t < T; ++t) {
        __m128 first = _mm_loadu_ps(out);
        __m128 second = _mm_loadu_ps(out + row);
#pragma GCC unroll 4
        for (int k = 0; k < 4; ++k) first = _mm_add_ps(first, _mm_mul_ps(w[4 * t + k], upper[k]));
#pragma GCC unroll 4
        for (int k = 0; k < 4; ++k) second = _mm_add_ps(second, _mm_mul_ps(w[4 * t + k], lower[k]));
        _mm_storeu_ps(out, first);
        _mm_storeu_ps(out + row, second);
        out += plane;
        // One moving address: the compiler would rather keep one for each channel, on the stack.
        if (T > 1) asm("" : "+r"(out));
    }
}

template <int T>
void multiply_tiles(TileProduct product) {
    const int64_t row = product.columns;
    const int64_t plane = product.rows * row;
    for (int64_t p = 0; p < product.outputs; p += T) {
        for (int64_t t = p; t < p + T; ++t) {
            float* const out = product.out + t * plane;
            const __m128 bias = _mm_set1_ps(product.bias[t]);
            for (int64_t i = 0; i < plane; i += 4) _mm_storeu_ps(out + i, bias);
        }
        for (int64_t q = 0; q < product.inputs; q += 4) {
            __m128 w[4 * T];
            for (int t = 0; t < T; ++t) {
                const float* const weight = product.weights + (p + t) * product.inputs + q;
                for (int k = 0; k < 4; ++k) w[4 * t + k] = _mm_set1_ps(weight[k]);
            }
            for (int64_t y = 0; y < product.rows; y += 4) {
                const float* in = product.in + q * plane + y * row;
                float* out = product.out + p * plane + y * row;
                for (int64_t x = 0; x < row; x += 4) {
                    add_two_rows<T>(in + x, out + x, plane, row, w);
                    add_two_rows<T>(in + x + 2 * row, out + x + 2 * row, plane, row, w);
                }
            }
        }
    }
}

class TileConvolution1x1 : public DirectConvolution {
public:
    bool check_forward(const TensorShape& shape) override;

protected:
    TileConvolution1x1() : DirectConvolution(nullptr) {}

    /// The run behind the check, with tiles of `T` output channels. 0 or -100.
    template <int T>
    int convolve(const Mat& bottom, Mat& top, const Option& opt) const {
        return convolve(bottom, top, opt, T, &multiply_tiles<T>);
    }

private:
    int convolve(const Mat& bottom, Mat& top, const Option& opt, int tile,
                 void (*kernel)(TileProduct product)) const;
};

}  // namespace TarnoCPU
