// 1x1 convolutions on tensors with four channels side by side.
//
//   top[4 * ob + n][y][x] += sum over ib and k of bottom[4 * ib + k][y][x] * w[ob][ib][k][n]
//
// For an output block ob and an input block ib the weights are four vectors, one for each input
// channel k, over the four output channels n. A pixel's step broadcasts the four numbers of the
// input block and adds the sum of the four products to the output block. The sums start from what
// top holds: the bias, or, in a layer without one, whatever was there.
//
// What bounds the steps: four shuffles, four products and four sums a pixel are three cycles on
// four vector pipes, where products and sums alone would take two. The member with the sums in a
// register loads the weights for every pixel, and reads all input blocks of it: where a block is a
// multiple of 4 KiB these fall into the same set of the first cache and push each other out.
#pragma once

#include <emmintrin.h>

#include <cstdint>

#include "cpu/operator_x86/direct_convolution.h"

namespace TarnoCPU {

/// One product over a whole tensor. A plane is one block of four channels: rows without gaps.
struct C4HW4Product {
    const float* in;
    float* out;
    const float* weights;  ///< aligned to 16
    int64_t plane;         ///< floats of a block, a multiple of 4
    int64_t in_blocks;
    int64_t out_blocks;
    int64_t weight_row;  ///< floats of the weights of one output block
};

struct C4HW4Weights {
    __m128 w0, w1, w2, w3;

    explicit C4HW4Weights(const float* w)
        : w0(_mm_load_ps(w)),
          w1(_mm_load_ps(w + 4)),
          w2(_mm_load_ps(w + 8)),
          w3(_mm_load_ps(w + 12)) {}

    /// The share of one input block in one pixel.
    __m128 apply(__m128 in) const {
        __m128 sum = _mm_mul_ps(_mm_shuffle_ps(in, in, _MM_SHUFFLE(0, 0, 0, 0)), w0);
        sum = _mm_add_ps(sum, _mm_mul_ps(_mm_shuffle_ps(in, in, _MM_SHUFFLE(1, 1, 1, 1)), w1));
        sum = _mm_add_ps(sum, _mm_mul_ps(_mm_shuffle_ps(in, in, _MM_SHUFFLE(2, 2, 2, 2)), w2));
        return _mm_add_ps(sum, _mm_mul_ps(_mm_shuffle_ps(in, in, _MM_SHUFFLE(3, 3, 3, 3)), w3));
    }
};

struct UnalignedAccess {
    static __m128 load(const float* p) { return _mm_loadu_ps(p); }
    static void store(float* p, __m128 v) { _mm_storeu_ps(p, v); }
};

struct AlignedAccess {
    static __m128 load(const float* p) { return _mm_load_ps(p); }
    static void store(float* p, __m128 v) { _mm_store_ps(p, v); }
};

/// Output block, input block, pixels in steps of `Pixels`: the weights stay in registers, top is
/// read and written for each input block. What is left of a plane behind the last whole step goes
/// pixel by pixel.
template <int Pixels, typename Access>
void multiply_c4hw4_in_memory(C4HW4Product product) {
    const int64_t plane = product.plane;
    for (int64_t ob = 0; ob < product.out_blocks; ++ob) {
        float* const out = product.out + ob * plane;
        for (int64_t ib = 0; ib < product.in_blocks; ++ib) {
            const float* const in = product.in + ib * plane;
            const C4HW4Weights w(product.weights + ob * product.weight_row + ib * 16);
            int64_t i = 0;
            for (; i + 4 * Pixels <= plane; i += 4 * Pixels) {
#pragma GCC unroll 16
                for (int j = 0; j < 4 * Pixels; j += 4) {
                    const __m128 sum = w.apply(Access::load(in + i + j));
                    Access::store(out + i + j, _mm_add_ps(Access::load(out + i + j), sum));
                }
            }
            for (; i < plane; i += 4) {
                const __m128 sum = w.apply(Access::load(in + i));
                Access::store(out + i, _mm_add_ps(Access::load(out + i), sum));
            }
        }
    }
}

/// Output block, pixel, input block: the accumulator stays in a register and is stored once, the
/// weights come from the cache for every pixel.
void multiply_c4hw4_in_register(C4HW4Product product);

/// How a member walks.
struct C4HW4Blocking {
    using Kernel = void (*)(C4HW4Product product);
    int pixels;  ///< of a row in one step
    Kernel kernel;
    Kernel kernel_aligned;  ///< for tensors aligned to 16; may be the same
    bool steps_cross_rows;  ///< a step may hold the end of a row and the start of the next
};

template <int Pixels>
constexpr C4HW4Blocking c4hw4_in_memory() {
    return {Pixels, &multiply_c4hw4_in_memory<Pixels, UnalignedAccess>,
            &multiply_c4hw4_in_memory<Pixels, UnalignedAccess>, false};
}

/// For classes whose check admits rows that hold only a part of a step.
template <int Pixels, typename Access>
constexpr C4HW4Blocking c4hw4_in_memory_across_rows() {
    return {Pixels, &multiply_c4hw4_in_memory<Pixels, UnalignedAccess>,
            &multiply_c4hw4_in_memory<Pixels, Access>, true};
}

constexpr C4HW4Blocking c4hw4_in_register() {
    return {1, &multiply_c4hw4_in_register, &multiply_c4hw4_in_register, false};
}

class C4HW4Convolution1x1 : public DirectConvolution {
public:
    bool check_forward(const TensorShape& shape) override;

protected:
    C4HW4Convolution1x1();

    /// Whether rows are whole numbers of `floats`; else a debug line.
    static bool allows_rows_of(const TensorShape& shape, int floats);

    /// The run behind the check. 0 or -100.
    int convolve(const Mat& bottom, Mat& top, const Option& opt,
                 const C4HW4Blocking& blocking) const;
};

}  // namespace TarnoCPU
