// What the processor's vector units can do at best: products and sums on registers alone, measured
// in the same run as the kernels that are compared with it.
#pragma once

#include <immintrin.h>
#include <tarno/cpu.h>

#include <algorithm>
#include <ctime>

#include "tests/support/processor.h"

namespace benchmark_support {

using testing_support::machine_has;

inline double cpu_seconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

/// Seconds of `rounds` of a loop on registers.
inline double loop_seconds(void (*loop)(int rounds), int rounds) {
    const double start = cpu_seconds();
    loop(rounds);
    return cpu_seconds() - start;
}

// Twelve sums that are independent of each other: more than the latency of a sum or of a fused
// product times the number of pipes. The empty assembler statements keep the products in the loop.
inline constexpr int arithmetic_chains = 12;

#define DEFINE_ARITHMETIC_LOOP(name, instructions, vector, zero, set1, step)       \
    __attribute__((target(instructions))) inline void name(int rounds) {           \
        vector sums[arithmetic_chains];                                            \
        for (vector & sum : sums) sum = zero();                                    \
        vector a = set1(1.0f), b = set1(0.5f);                                     \
        for (int i = 0; i < rounds; ++i) {                                         \
            _Pragma("GCC unroll 12") for (int j = 0; j < arithmetic_chains; ++j) { \
                asm volatile("" : "+x"(a));                                        \
                sums[j] = step;                                                    \
            }                                                                      \
        }                                                                          \
        for (vector & sum : sums) asm volatile("" ::"x"(sum));                     \
    }

DEFINE_ARITHMETIC_LOOP(multiply_add_sse, "sse2", __m128, _mm_setzero_ps, _mm_set1_ps,
                       _mm_add_ps(sums[j], _mm_mul_ps(a, b)))
DEFINE_ARITHMETIC_LOOP(multiply_add_avx, "avx", __m256, _mm256_setzero_ps, _mm256_set1_ps,
                       _mm256_add_ps(sums[j], _mm256_mul_ps(a, b)))
DEFINE_ARITHMETIC_LOOP(multiply_add_fma128, "fma", __m128, _mm_setzero_ps, _mm_set1_ps,
                       _mm_fmadd_ps(a, b, sums[j]))
DEFINE_ARITHMETIC_LOOP(multiply_add_fma256, "fma", __m256, _mm256_setzero_ps, _mm256_set1_ps,
                       _mm256_fmadd_ps(a, b, sums[j]))

#undef DEFINE_ARITHMETIC_LOOP

/// Floating-point operations a second that kernels of this instruction set are measured against: a
/// product and a sum count as two, fused or not. Each call measures for some milliseconds; what it
/// gives is the best of the run so far, since another process on the core only ever takes away.
inline double arithmetic_limit(TarnoCPU::OperatorInfo::InstructionSet isa) {
    using Set = TarnoCPU::OperatorInfo::InstructionSet;
    struct Loop {
        void (*run)(int rounds);
        int lanes;
        double best;
    };
    static Loop sse = {&multiply_add_sse, 4, 0.0}, avx = {&multiply_add_avx, 8, 0.0},
                narrow = {&multiply_add_fma128, 4, 0.0}, wide = {&multiply_add_fma256, 8, 0.0};
    const auto rate = [](Loop& loop) {
        constexpr int rounds = 100000;
        for (int trial = 0; trial < 5; ++trial) {
            const double seconds = loop_seconds(loop.run, rounds);
            const double operations = 2.0 * loop.lanes * arithmetic_chains * rounds;
            if (seconds > 0.0) loop.best = std::max(loop.best, operations / seconds);
        }
        return loop.best;
    };
    switch (isa) {
        case Set::Baseline:
        case Set::SSE41:
            return rate(sse);
        case Set::AVX:
            return rate(avx);
        case Set::FMA:
            return std::max(rate(narrow), rate(sse));
        default:
            return std::max(rate(wide), rate(avx));
    }
}

}  // namespace benchmark_support
