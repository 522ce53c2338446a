// Numbers that the reference scripts make, too: see tests/onnx/reference/fill.py.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace testing_support {

/// Scatters 32 bits.
inline uint32_t mix(uint32_t word) {
    word ^= word >> 16;
    word *= 0x7feb352du;
    word ^= word >> 15;
    word *= 0x846ca68bu;
    return word ^ word >> 16;
}

/// Element i is low + (high - low) * fraction of 24 bits, in double, rounded to float.
inline std::vector<float> uniform_fill(uint32_t seed, double low, double high, size_t count) {
    std::vector<float> values(count);
    const uint32_t start = mix(seed);
    for (size_t i = 0; i < count; ++i) {
        const uint32_t bits = mix(static_cast<uint32_t>(i) + start) >> 8;
        values[i] = static_cast<float>(low + (high - low) * (bits / 16777216.0));
    }
    return values;
}

/// By a rule, "uniform SEED LOW HIGH"; false when the text is none.
inline bool fill_by_rule(const std::string& rule, size_t count, std::vector<float>& values) {
    std::istringstream words(rule);
    std::string kind;
    uint32_t seed = 0;
    double low = 0;
    double high = 0;
    if (!(words >> kind >> seed >> low >> high) || kind != "uniform") return false;
    values = uniform_fill(seed, low, high, count);
    return true;
}

}  // namespace testing_support
