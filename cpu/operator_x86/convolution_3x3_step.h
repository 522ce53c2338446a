// The tools that the 3x3 kernels of all lane schemes are written with.
//
// A unit may be compiled for more than the baseline, and none of its functions may become the copy
// that other units call: everything here has internal linkage, and a unit that wants fused
// multiply-add defines TN_CONVOLUTION_3X3_FMA before it includes a kernel header. Its kernels then
// carry the target, and a product and its sum become one instruction.
#pragma once

#include <immintrin.h>

#include "cpu/operator_x86/convolution_3x3_blocking.h"

#if defined(TN_CONVOLUTION_3X3_FMA)
#define TN_KERNEL __attribute__((target("fma")))
#else
#define TN_KERNEL
#endif
/// On functions and lambdas that must melt into the kernel around them.
#define TN_STEP TN_KERNEL __attribute__((always_inline))

namespace TarnoCPU {
namespace {

template <int I>
struct Index {
    static constexpr int value = I;
};

/// body(Index<0>()) to body(Index<Count - 1>()). Written out by the front end: in a loop that the
/// optimiser unrolls, an array of sums stays in memory.
template <int Count, int I = 0, class Body>
TN_STEP inline void unrolled(const Body& body) {
    if constexpr (I < Count) {
        body(Index<I>());
        unrolled<Count, I + 1>(body);
    }
}

/// sum + a * b
TN_STEP inline __m128 multiply_add(__m128 a, __m128 b, __m128 sum) {
#if defined(TN_CONVOLUTION_3X3_FMA)
    return _mm_fmadd_ps(a, b, sum);
#else
    return _mm_add_ps(sum, _mm_mul_ps(a, b));
#endif
}

/// Pins a value to this place in the order of the source. Left alone, the compiler puts off a chain
/// of sums until its store and keeps all that goes into it in registers, with none left for the
/// weights; and it works out the address of every load of a step beforehand and spills most of
/// them.
TN_STEP inline void settle(__m128& value) {
    __asm__("" : "+x"(value));
}
TN_STEP inline void settle(const float*& pointer) {
    __asm__("" : "+r"(pointer));
}
TN_STEP inline void settle(float*& pointer) {
    __asm__("" : "+r"(pointer));
}

}  // namespace
}  // namespace TarnoCPU
