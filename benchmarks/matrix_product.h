// Speed of the bare matrix product of the BLAS, on all the vectors that the processor has.
#pragma once

#include <benchmark/benchmark.h>
#include <cblas.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <vector>

#include "arithmetic_limit.h"

namespace benchmark_support {

/// Floating-point operations a second of a product of m x k by k x n, the best of several rounds;
/// measured once per size.
inline double product_rate(int m, int k, int n) {
    static std::map<std::tuple<int, int, int>, double> known;
    double& rate = known[{m, k, n}];
    if (rate > 0.0) return rate;
    const std::vector<float> a(static_cast<size_t>(m) * k, 0.01f);
    const std::vector<float> b(static_cast<size_t>(k) * n, 0.5f);
    std::vector<float> product(static_cast<size_t>(m) * n);
    const double operations = 2.0 * m * k * n;
    const int repeats = static_cast<int>(5e8 / operations) + 1;
    for (int round = 0; round < 20; ++round) {
        const double start = cpu_seconds();
        for (int i = 0; i < repeats; ++i) {
            cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1.0f, a.data(), k,
                        b.data(), n, 0.0f, product.data(), n);
            benchmark::ClobberMemory();
        }
        const double seconds = cpu_seconds() - start;
        if (seconds > 0.0) rate = std::max(rate, operations * repeats / seconds);
    }
    return rate;
}

/// The same of a size that suits it: what the machine's BLAS can do.
inline double product_peak() {
    return product_rate(768, 768, 768);
}

}  // namespace benchmark_support
