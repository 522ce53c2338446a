// What the processor can do. The library never asks: whoever picks an operator does.
#pragma once

#include <tarno/cpu.h>

namespace testing_support {

/// Whether this machine runs code of the instruction set.
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

}  // namespace testing_support
