// The matrix product under the convolutions and dense layers: the one place that calls the BLAS.
#pragma once

#include <cstdint>

namespace TarnoCPU {

/// C = alpha * A * B + beta * C on row-major matrices without gaps: A is M x K, B is K x N, C is
/// M x N. With `beta` 0 the old C is not read. False, with C untouched, when a size is below 1 or
/// more than the BLAS counts (an int); A * B of such sizes is no work of a network.
bool sgemm(int64_t M, int64_t K, int64_t N, float alpha, const float* A, const float* B, float beta,
           float* C);

}  // namespace TarnoCPU
