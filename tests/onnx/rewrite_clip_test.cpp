// Clip, HardSigmoid and HardSwish: clamps made of the engine's two.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

constexpr float INFINITE = std::numeric_limits<float>::infinity();
constexpr float LARGEST_FLOAT = std::numeric_limits<float>::max();

MadeModel clip(std::optional<float> low, std::optional<float> high, int64_t channels, int opset) {
    MadeModel model(opset);
    model.input("x", {1, channels, 3, 4}).output("y");
    if (opset < 11) {
        std::vector<With> attributes;
        if (low) attributes.emplace_back("min", static_cast<double>(*low));
        if (high) attributes.emplace_back("max", static_cast<double>(*high));
        model.node("Clip", {"x"}, {"y"}, attributes);
        return model;
    }
    if (low) model.floats("low", {}, {*low});
    if (high) model.floats("high", {}, {*high});
    model.node("Clip", {"x", low ? "low" : "", high ? "high" : ""}, {"y"});
    return model;
}

// Small and large, of both signs; 12 for each channel.
const std::vector<float> NUMBERS_AROUND = {1e-4f,  -1e-4f, 1.0f / 3, -1.0f / 3, 5.5f,    -5.5f,
                                           100.5f, -99.5f, 3e4f,     -3e4f,     9.99e4f, -9.99e4f};

struct Limits {
    const char* name;
    std::optional<float> low;
    std::optional<float> high;
};

const Limits LIMITS[] = {
    {"one", -1.0f, 1.0f},
    {"zero_to_one", 0.0f, 1.0f},
    {"thousands", -1e4f, 1e4f},
    {"the_largest_half", -65504.0f, 65504.0f},
    {"uneven", -20.5f, 30000.0f},
    {"six_both_ways", -6.0f, 6.0f},
    {"above_only", -1000.0f, {}},
    {"below_only", {}, 1000.0f},
    {"below_only_by_the_largest_float", -1000.0f, LARGEST_FLOAT},
    {"above_only_by_infinity", -INFINITE, 1000.0f},
    {"positive", 0.25f, 50.0f},
    {"positive_open", 0.25f, {}},
    {"negative", -50.0f, -0.25f},
    {"negative_open", {}, -0.25f},
    {"not_above_zero", {}, 0.0f},
    {"not_above_zero_and_not_far_below", -10.0f, 0.0f},
    {"two_tiny_ones", 1e-9f, 3e-9f},
    {"two_tiny_negative_ones", -3e-9f, -1e-9f},
    {"two_small_ones", 3e-6f, 1e-5f},
    {"not_below_a_tiny_one", 1e-12f, {}},
    {"tiny_to_large", 1e-6f, 65504.0f},
    {"tiny", -1e-7f, 1e-7f},
    {"zero_to_tiny", 0.0f, 2e-5f},
    {"below_a_tiny_one", {}, 1e-7f},
    {"no_limits", {}, {}},
    {"no_limits_by_floats", -LARGEST_FLOAT, LARGEST_FLOAT},
};

void PrintTo(const Limits& limits, std::ostream* out) {
    *out << limits.name;
}

class ClipLimits : public testing::TestWithParam<Limits> {};

TEST_P(ClipLimits, ChangeEachNumberByAShareOfItself) {
    const Limits& limits = GetParam();
    const double low = limits.low ? *limits.low : -INFINITE;
    const double high = limits.high ? *limits.high : INFINITE;
    for (const int opset : {10, 13}) {
        for (const int64_t channels : {1, 2}) {
            SCOPED_TRACE(std::to_string(opset) + ", channels " + std::to_string(channels));
            std::vector<float> values;
            for (int64_t c = 0; c < channels; ++c) {
                values.insert(values.end(), NUMBERS_AROUND.begin(), NUMBERS_AROUND.end());
            }
            MadeModel model = clip(limits.low, limits.high, channels, opset);
            const Converted result =
                convert_and_prove(model.bytes(), {{"x", picture({1, channels, 3, 4}, values)}});
            expect_proof(result);
            ASSERT_EQ(result.numbers().size(), values.size());
            for (size_t i = 0; i < values.size(); ++i) {
                const double expected = std::clamp<double>(values[i], low, high);
                // Two factors of about 20 bits each, and limits of as many.
                EXPECT_NEAR(result.numbers()[i], expected, 3 * 0x1p-19 * std::abs(expected))
                    << "of " << values[i];
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Pairs, ClipLimits, testing::ValuesIn(LIMITS),
                         [](const auto& info) { return std::string(info.param.name); });

// The proof's random numbers are from -1 to 1: whatever the limits cost, it costs it of those.
TEST(ClipRewrite, LimitsFarAwayLeaveSmallNumbersTheirDigits) {
    for (const float limit : {30.0f, 1000.0f, 65504.0f}) {
        MadeModel model = clip(-limit, limit, 2, 13);
        const Converted result = convert_and_prove(model.bytes());
        expect_proof(result);
        EXPECT_LE(result.proof.outputs[0].from_graph.maximum, 0x1p-18);
    }
}

TEST(ClipRewrite, ALimitThatAlmostVanishesDoesNotExcuseAnything) {
    // 1e-9 is 0 as a half.
    MadeModel model = clip(1e-9f, {}, 2, 13);
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_LE(result.proof.outputs[0].from_graph.maximum, 2e-9);
    EXPECT_LE(result.proof.outputs[0].bound, 1e-5);
}

// Steps of factors would leave the range of halves, and a limit below the normal ones its digits.
TEST(ClipRewrite, SmallLimitsAreRefusedForTheGpuEngine) {
    ConvertOptions both;
    both.engines = Engines::Both;
    const auto refusal = [&](float low, float high, const std::string& reason) {
        expect_refusal(convert_only(clip(low, high, 2, 13).bytes(), both), "node \"y\" (Clip)",
                       reason);
    };
    refusal(-1e-5f, 1e-5f, "a factor of at most 16384, for the GPU engine, expected, found 6");
    refusal(1e-6f, 3.0f, "a limit nearest to 0 that is a normal half, or 0, expected, found 1");
    EXPECT_TRUE(convert_only(clip(-1e-3f, 1e-3f, 2, 13).bytes(), both).status);
    EXPECT_TRUE(convert_only(clip(1e-3f, 3.0f, 2, 13).bytes(), both).status);
}

TEST(ClipRewrite, LimitsThatAreTooSmallToScaleAreRefused) {
    for (const float sign : {1.0f, -1.0f}) {
        MadeModel model = sign > 0 ? clip(1e-13f, {}, 2, 13) : clip({}, -1e-13f, 2, 13);
        expect_refusal(convert_only(model.bytes()), "node \"y\" (Clip)",
                       "a limit nearest to 0 of at least 2^-40, or 0, expected, found ");
    }
}

TEST(ClipRewrite, LimitsThatHalvesLackAreRefusedAtTheNode) {
    for (const float limit : {70000.0f, 1e6f, 1e30f}) {
        for (const int opset : {10, 13}) {
            expect_refusal(convert_only(clip(-limit, limit, 2, opset).bytes()), "node \"y\" (Clip)",
                           "limits of at most 65504, the largest half, or none expected");
            expect_refusal(convert_only(clip({}, limit, 2, opset).bytes()), "node \"y\" (Clip)",
                           "limits of at most 65504");
        }
    }
}

TEST(ClipRewrite, AMinimumNotBelowTheMaximumLeavesTheMaximum) {
    const std::pair<float, float> limits[] = {
        {3.0f, 3.0f}, {5.0f, 0.1f}, {7.0f, 6.0f}, {0.0f, -1234.5f}, {1e30f, 1.0f / 3}};
    for (const auto& [low, high] : limits) {
        for (const int opset : {10, 13}) {
            for (const int64_t channels : {1, 2}) {
                SCOPED_TRACE(std::to_string(low) + " " + std::to_string(high));
                const Converted result =
                    convert_and_prove(clip(low, high, channels, opset).bytes());
                expect_proof(result);
                // Two halves carry 22 bits.
                expect_numbers(result, Numbers(static_cast<size_t>(12 * channels), high),
                               std::fabs(high) * 0x1p-22);
            }
        }
    }
    expect_refusal(convert_only(clip(80000.0f, 70000.0f, 2, 13).bytes()), "node \"y\" (Clip)",
                   "limits of at most 65504");
}

TEST(ClipRewrite, AHardSigmoidOfAnySlopeAndTerm) {
    const std::vector<float> values = {-9, -2.5f, -1, 0, 0.5f, 2, 3, 9};
    for (const double alpha : {0.2, 0.1666667, 1e-3, 2.0}) {
        for (const double beta : {0.5, 0.3, 1e-6}) {
            SCOPED_TRACE(std::to_string(alpha) + " " + std::to_string(beta));
            MadeModel model =
                one_node("HardSigmoid", {1, 2, 2, 2}, {{"alpha", alpha}, {"beta", beta}});
            const Converted result =
                convert_and_prove(model.bytes(), {{"x", picture({1, 2, 2, 2}, values)}});
            expect_proof(result);
            for (size_t i = 0; i < values.size(); ++i) {
                const double expected =
                    std::clamp(static_cast<double>(static_cast<float>(alpha)) * values[i] +
                                   static_cast<double>(static_cast<float>(beta)),
                               0.0, 1.0);
                EXPECT_NEAR(result.numbers()[i], expected, 0x1p-18);
            }
        }
    }
}

}  // namespace
