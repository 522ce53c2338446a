#include "cpu/operator_x86/sgemm.h"

#include <cblas.h>

#include <climits>

namespace TarnoCPU {

bool sgemm(int64_t M, int64_t K, int64_t N, float alpha, const float* A, const float* B, float beta,
           float* C) {
    if (M < 1 || K < 1 || N < 1 || M > INT_MAX || K > INT_MAX || N > INT_MAX) return false;
    const int m = static_cast<int>(M), k = static_cast<int>(K), n = static_cast<int>(N);
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, alpha, A, k, B, n, beta, C, n);
    return true;
}

}  // namespace TarnoCPU
