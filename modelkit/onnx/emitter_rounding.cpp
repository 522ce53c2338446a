// Emitter: numbers become halves, and what that costs is counted.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "modelkit/onnx/emitter.h"
#include "modelkit/onnx/refusal.h"
#include "modelkit/records.h"

namespace modelkit::onnx {

namespace {

// How much of a layer's weights rounding may take: the root of the summed squared changes over that
// of the weights. Normal halves change by 2^-11 of themselves at most. Below 2^-14 halves lie 2^-24
// apart whatever their size: weights are off by up to 2^-25, evenly spread, and the root of the
// mean square of that is 2^-25 / sqrt(3). To be a sixteenth of the weights, theirs has to be
// 16 * 2^-25 / sqrt(3), about 2^-21.8; of weights of 2^-25 and less nothing is left. The proof
// cannot tell: noise of that step explains any change of such weights, zeros included.
constexpr double MOST_LOST = 1.0 / 16;

}  // namespace

void Emitter::round(const char* what, const float* values, size_t count, unsigned short* halves,
                    Rounding& rounding) {
    Tarno::floats_to_halves(values, halves, count);
    for (size_t i = 0; i < count; ++i) {
        const double value = values[i];
        if (!std::isfinite(value)) refuse(std::string(what) + " are expected to be finite");
        if ((halves[i] & 0x7c00u) == 0x7c00u) {
            refuse(std::string(what) + ": " + std::to_string(value) +
                   " is beyond 65504, the largest half");
        }
        const double error = value - static_cast<double>(Tarno::half_to_float(halves[i]));
        rounding.squares += value * value;
        rounding.squared_errors += error * error;
        squared_weights += value * value;
        squared_errors += error * error;
        rounding.largest = std::max(rounding.largest, std::fabs(value));
        rounding.largest_error = std::max(rounding.largest_error, std::fabs(error));
    }
    current.weights += static_cast<int64_t>(count);
}

void Emitter::Rounding::add(const Rounding& other) {
    largest = std::max(largest, other.largest);
    largest_error = std::max(largest_error, other.largest_error);
    squares += other.squares;
    squared_errors += other.squared_errors;
}

void Emitter::expect_kept(unsigned short type, double squares, double squared_errors) const {
    if (squared_errors <= MOST_LOST * MOST_LOST * squares) return;
    char lost[32];
    std::snprintf(lost, sizeof(lost), "%.4f %%", 100.0 * std::sqrt(squared_errors / squares));
    char most[32];
    std::snprintf(most, sizeof(most), "%.4f %%", 100.0 * MOST_LOST);
    refuse("layer " + std::to_string(reports.size()) + " (" + zq_layer_type_name(type) +
           "): weights that halves change by at most " + most + " expected, found " + lost +
           ": halves lie 2^-24 apart below 2^-14, so scale the weights up and what follows down");
}

void Emitter::count_rounding(const Rounding& rounding) {
    if (rounding.largest == 0) return;
    current.largest_error =
        std::max(current.largest_error, rounding.largest_error / rounding.largest);
}

std::vector<unsigned short> Emitter::halves(const char* what, const std::vector<float>& values) {
    take_numbers(values.size());
    std::vector<unsigned short> patterns(values.size());
    Rounding rounding;
    round(what, values.data(), values.size(), patterns.data(), rounding);
    count_rounding(rounding);
    return patterns;
}

void Emitter::round_rows(const char* what, size_t rows, size_t length, const WeightRows& fill,
                         const PutHalves& put, Rounding& rounding) {
    constexpr size_t PIECE = 16384;
    if (length == 0) return;
    const size_t together = std::min(rows, std::max<size_t>(1, PIECE / length));
    std::vector<float> values(together * length);
    std::vector<unsigned short> patterns(values.size());
    for (size_t row = 0; row < rows; row += together) {
        const size_t now = std::min(together, rows - row);
        for (size_t i = 0; i < now; ++i) fill(row + i, &values[i * length]);
        round(what, values.data(), now * length, patterns.data(), rounding);
        put(patterns.data(), now * length);
    }
}

}  // namespace modelkit::onnx
