// Numbers of more digits than a half has, made of several halves.
#pragma once

namespace modelkit::onnx {

/// The number that rounding to a half leaves; infinite beyond 65504.
double as_half(double value);

/// slope / sqrt(variance), with both halves: thousands of variances to choose from carry the digits
/// that one half has not.
struct Quotient {
    double slope = 0;
    double variance = 1;
    double value = 0;
};

/// The nearest to `wanted`, which must be below 30000: throws Refusal otherwise.
Quotient quotient_for(double wanted);

/// Two factors, both halves, whose product is as near to `wanted` as can be.
void product_for(double wanted, double& first, double& second);

}  // namespace modelkit::onnx
