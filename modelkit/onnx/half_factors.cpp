#include "modelkit/onnx/half_factors.h"

#include <cmath>
#include <limits>
#include <string>

#include <tarno/model.h>

#include "modelkit/onnx/refusal.h"

namespace modelkit::onnx {

double as_half(double value) {
    return static_cast<double>(
        Tarno::half_to_float(Tarno::float_to_half(static_cast<float>(value))));
}

Quotient quotient_for(double wanted) {
    Quotient best;
    if (wanted == 0) return best;
    require(std::fabs(wanted) < 30000.0,
            "a factor below 30000 expected, found " + std::to_string(wanted));
    // Small factors get large variances, so that the slope stays among the normal halves.
    const double start = std::fabs(wanted) < 0x1p-9 ? 0x1p14 : 1.0;
    double least = std::numeric_limits<double>::infinity();
    for (int i = 0; i < 2048 && least > 0; ++i) {
        const double variance = as_half(start * (1.0 + (i % 1024) / 1024.0) * (i < 1024 ? 1 : 2));
        const double root = static_cast<double>(static_cast<float>(std::sqrt(variance)));
        const double slope = as_half(wanted * root);
        const double value =
            static_cast<double>(static_cast<float>(slope) / static_cast<float>(root));
        if (std::fabs(value - wanted) < least) {
            least = std::fabs(value - wanted);
            best = {slope, variance, value};
        }
    }
    return best;
}

void product_for(double wanted, double& first, double& second) {
    first = as_half(wanted);
    second = 1.0;
    double least = std::fabs(first - wanted);
    for (int i = 0; i < 1024 && least > 0; ++i) {
        const double candidate = 1.0 + i / 1024.0;
        const double other = as_half(wanted / candidate);
        if (std::fabs(other * candidate - wanted) < least) {
            least = std::fabs(other * candidate - wanted);
            first = candidate;
            second = other;
        }
    }
}

}  // namespace modelkit::onnx
