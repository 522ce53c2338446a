// What the processor's vector units can do at best: products and sums on registers alone, measured
// in the same run as the kernels that are compared with it.
#pragma once

#include <immintrin.h>
#include <tarno/cpu.h>

#include <algorithm>
#include <ctime>

namespace benchmark_support {

inline double cpu_seconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

/// Floating-point operations a second of `loop`, which does `operations` of them a round.
inline double best_rate(void (*loop)(int rounds), double operations) {
    constexpr int rounds = 200000;
    double best = 0.0;
    loop(rounds);
    for (int trial = 0; trial < 20; ++trial) {
        const double start = cpu_seconds();
        loop(rounds);
        const double seconds = cpu_seconds() - start;
        if (seconds > 0.0) best = std::max(best, operations * rounds / seconds);
    }
    return best;
}

// Twelve sums that are independent of each other: more than the latency of a sum or of a fused
// product times the number of pipes. The empty assembler statements keep the products in the loop.
inline constexpr int arithmetic_chains = 12;

inline void multiply_add_sse(int rounds) {
    __m128 sums[arithmetic_chains];
    for (__m128& sum : sums) sum = _mm_setzero_ps();
    __m128 a = _mm_set1_ps(1.0f), b = _mm_set1_ps(0.5f);
    for (int i = 0; i < rounds; ++i) {
#pragma GCC unroll 12
        for (int j = 0; j < arithmetic_chains; ++j) {
            asm volatile("" : "+x"(a));
            sums[j] = _mm_add_ps(sums[j], _mm_mul_ps(a, b));
        }
    }
    for (__m128& sum : sums) asm volatile("" ::"x"(sum));
}

__attribute__((target("fma"))) inline void multiply_add_fma128(int rounds) {
    __m128 sums[arithmetic_chains];
    for (__m128& sum : sums) sum = _mm_setzero_ps();
    __m128 a = _mm_set1_ps(1.0f), b = _mm_set1_ps(0.5f);
    for (int i = 0; i < rounds; ++i) {
#pragma GCC unroll 12
        for (int j = 0; j < arithmetic_chains; ++j) {
            asm volatile("" : "+x"(a));
            sums[j] = _mm_fmadd_ps(a, b, sums[j]);
        }
    }
    for (__m128& sum : sums) asm volatile("" ::"x"(sum));
}

__attribute__((target("avx"))) inline void multiply_add_avx(int rounds) {
    __m256 sums[arithmetic_chains];
    for (__m256& sum : sums) sum = _mm256_setzero_ps();
    __m256 a = _mm256_set1_ps(1.0f), b = _mm256_set1_ps(0.5f);
    for (int i = 0; i < rounds; ++i) {
#pragma GCC unroll 12
        for (int j = 0; j < arithmetic_chains; ++j) {
            asm volatile("" : "+x"(a));
            sums[j] = _mm256_add_ps(sums[j], _mm256_mul_ps(a, b));
        }
    }
    for (__m256& sum : sums) asm volatile("" ::"x"(sum));
}

__attribute__((target("avx,fma"))) inline void multiply_add_fma256(int rounds) {
    __m256 sums[arithmetic_chains];
    for (__m256& sum : sums) sum = _mm256_setzero_ps();
    __m256 a = _mm256_set1_ps(1.0f), b = _mm256_set1_ps(0.5f);
    for (int i = 0; i < rounds; ++i) {
#pragma GCC unroll 12
        for (int j = 0; j < arithmetic_chains; ++j) {
            asm volatile("" : "+x"(a));
            sums[j] = _mm256_fmadd_ps(a, b, sums[j]);
        }
    }
    for (__m256& sum : sums) asm volatile("" ::"x"(sum));
}

/// Floating-point operations a second that kernels of this instruction set are measured against: a
/// product and a sum count as two, fused or not.
inline double arithmetic_limit(TarnoCPU::OperatorInfo::InstructionSet isa) {
    using Set = TarnoCPU::OperatorInfo::InstructionSet;
    static const double sse = best_rate(&multiply_add_sse, 2.0 * 4 * arithmetic_chains);
    if (isa == Set::Baseline || isa == Set::SSE41) return sse;
    static const double avx = best_rate(&multiply_add_avx, 2.0 * 8 * arithmetic_chains);
    if (isa == Set::AVX) return avx;
    static const double narrow = best_rate(&multiply_add_fma128, 2.0 * 4 * arithmetic_chains);
    if (isa == Set::FMA) return std::max(narrow, sse);
    static const double wide = best_rate(&multiply_add_fma256, 2.0 * 8 * arithmetic_chains);
    return std::max(wide, avx);
}

/// Whether this machine has the instruction set.
inline bool machine_has(TarnoCPU::OperatorInfo::InstructionSet isa) {
    using Set = TarnoCPU::OperatorInfo::InstructionSet;
    switch (isa) {
        case Set::Baseline:
            return true;
        case Set::SSE41:
            return __builtin_cpu_supports("sse4.1");
        case Set::AVX:
            return __builtin_cpu_supports("avx");
        case Set::FMA:
            return __builtin_cpu_supports("fma");
        case Set::AVX2:
            return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    }
    return false;
}

}  // namespace benchmark_support
