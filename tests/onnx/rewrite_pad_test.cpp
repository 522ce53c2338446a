// Pad: what is inside stays to the last bit, whatever is put around it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

constexpr float INFINITE = std::numeric_limits<float>::infinity();
constexpr float LARGEST_FLOAT = std::numeric_limits<float>::max();

MadeModel padded(const Ints& dims, const Ints& pads, float value, int opset = 13) {
    MadeModel model(opset);
    model.input("x", dims).output("y");
    if (opset < 11) {
        model.node("Pad", {"x"}, {"y"},
                   {{"mode", "constant"}, {"pads", pads}, {"value", static_cast<double>(value)}});
    } else {
        model.integers("p", pads).floats("v", {}, {value});
        model.node("Pad", {"x", "p", "v"}, {"y"});
    }
    return model;
}

// Of numbers like 1/3 a float has 24 digits; in the sum with 60000 all but 9 would go.
const std::vector<float> DIGITS = {1.0f / 3.0f, -1e-6f, 0.7071068f, -0.1f};

TEST(PadRewrite, ALargeConstantTakesNoDigitsFromWhatIsInside) {
    for (const int opset : {10, 13}) {
        for (const float value : {60000.0f, -60000.0f, 65504.0f, 1e4f}) {
            SCOPED_TRACE(std::to_string(opset) + " " + std::to_string(value));
            MadeModel model = padded({1, 1, 2, 2}, {0, 0, 1, 0, 0, 0, 0, 1}, value, opset);
            const Converted result =
                convert_and_prove(model.bytes(), {{"x", picture({1, 1, 2, 2}, DIGITS)}});
            expect_proof(result);
            const double v = value;
            expect_numbers(result, {v, v, v, DIGITS[0], DIGITS[1], v, DIGITS[2], DIGITS[3], v});
        }
    }
}

TEST(PadRewrite, AConstantBetweenHalvesHasTheDigitsOfTwo) {
    for (const float value : {0.1f, -1234.567f, 3e-3f}) {
        for (const int64_t channels : {1, 3}) {
            SCOPED_TRACE(value);
            MadeModel model = padded({1, channels, 2, 2}, {0, 0, 0, 2, 0, 0, 0, 0}, value);
            std::vector<float> inside;
            Numbers expected;
            for (int64_t c = 0; c < channels; ++c) {
                inside.insert(inside.end(), DIGITS.begin(), DIGITS.end());
                for (size_t i = 0; i < 4; ++i) {
                    if (i % 2 == 0) expected.insert(expected.end(), 2, static_cast<double>(value));
                    expected.push_back(static_cast<double>(DIGITS[i]));
                }
            }
            const Converted result =
                convert_and_prove(model.bytes(), {{"x", picture({1, channels, 2, 2}, inside)}});
            expect_proof(result);
            // The first half is off by 2^-11 of the constant at most, the second by 2^-11 of that,
            // and by 2^-25, since halves lie 2^-24 apart below 2^-14.
            const double most = std::max(0x1p-22 * std::abs(static_cast<double>(value)), 0x1p-25);
            expect_numbers(result, expected, most);
            for (size_t i = 0; i < expected.size(); ++i) {
                if (expected[i] != static_cast<double>(value)) {
                    EXPECT_EQ(result.numbers()[i], expected[i]);
                }
            }
        }
    }
}

TEST(PadRewrite, NegativePadsLeaveOutAndConstantsStandAtTheOtherEnd) {
    MadeModel zeros = padded({1, 1, 2, 3}, {0, 0, -1, 0, 0, 0, 0, -2}, 0.0f);
    const std::vector<float> six = {1, 2, 3, 4, 5, 6};
    expect_numbers(convert_and_prove(zeros.bytes(), {{"x", picture({1, 1, 2, 3}, six)}}), {4});
    MadeModel mixed = padded({1, 1, 2, 3}, {0, 0, -1, -1, 0, 0, 1, 1}, 7.0f);
    expect_numbers(convert_and_prove(mixed.bytes(), {{"x", picture({1, 1, 2, 3}, six)}}),
                   {5, 6, 7, 7, 7, 7});
    // Three dimensions are channels of one row; an input of that shape has to come from four.
    MadeModel reshaped;
    reshaped.input("x", {1, 2, 1, 3}).output("y").integers("s", {1, 2, 3});
    reshaped.integers("p", {0, 0, 1, 0, 0, -1}).floats("v", {}, {9.0f});
    reshaped.node("Reshape", {"x", "s"}, {"r"}).node("Pad", {"r", "p", "v"}, {"y"});
    expect_numbers(convert_and_prove(reshaped.bytes(), {{"x", picture({1, 2, 1, 3}, six)}}),
                   {9, 1, 2, 9, 4, 5});
    MadeModel nothing = padded({1, 1, 2, 3}, {0, 0, -2, 0, 0, 0, 0, 0}, 0.0f);
    expect_refusal(convert_only(nothing.bytes()), "node \"y\" (Pad)",
                   "at least one pixel to stay expected");
}

TEST(PadRewrite, AConstantThatHalvesLackIsRefusedAtTheNode) {
    for (const float value : {70000.0f, -1e9f, INFINITE, -INFINITE, -LARGEST_FLOAT,
                              std::numeric_limits<float>::quiet_NaN()}) {
        MadeModel model = padded({1, 1, 2, 2}, {0, 0, 1, 1, 0, 0, 1, 1}, value);
        expect_refusal(convert_only(model.bytes()), "node \"y\" (Pad)",
                       "a constant of at most 65504");
    }
}

MadeModel padded_maximum(float value, const std::vector<With>& pooling) {
    MadeModel model;
    model.input("x", {1, 2, 5, 5}).output("y");
    model.integers("p", {0, 0, 1, 1, 0, 0, 1, 1}).floats("v", {}, {value});
    model.node("Pad", {"x", "p", "v"}, {"padded"});
    model.node("MaxPool", {"padded"}, {"y"}, pooling);
    return model;
}

TEST(PadRewrite, WhatIsBelowEveryNumberIsThePaddingOfTheMaximumBehind) {
    const std::vector<With> window = {{"kernel_shape", Ints{3, 3}}, {"strides", Ints{2, 2}}};
    std::vector<float> negative(50);
    Numbers expected;
    // Falling numbers below 0: the largest of a window is its first.
    for (size_t i = 0; i < 50; ++i) negative[i] = -1.0f - static_cast<float>(i);
    for (const double plane : {-1.0, -26.0}) {
        for (const double first : {0, 1, 3, 5, 6, 8, 15, 16, 18}) expected.push_back(plane - first);
    }
    for (const float value : {-INFINITE, -LARGEST_FLOAT}) {
        MadeModel model = padded_maximum(value, window);
        const Converted result =
            convert_and_prove(model.bytes(), {{"x", picture({1, 2, 5, 5}, negative)}});
        expect_proof(result);
        expect_numbers(result, expected);
    }
    // As high as numbers may be, the constant is a number of its own.
    MadeModel finite = padded_maximum(-3.0f, window);
    for (double& number : expected) number = std::max(number, -3.0);
    expected[4] = -7;  // the one window without border
    expected[13] = -32;
    expect_numbers(convert_and_prove(finite.bytes(), {{"x", picture({1, 2, 5, 5}, negative)}}),
                   expected);
}

TEST(PadRewrite, AMaximumWithAPaddingOfItsOwnTakesBoth) {
    MadeModel model =
        padded_maximum(-INFINITE, {{"kernel_shape", Ints{5, 5}}, {"pads", Ints{1, 0, 0, 1}}});
    expect_proof(convert_and_prove(model.bytes()));
}

TEST(PadRewrite, LowestPadsThatAMaximumCannotTakeAreRefusedWithTheReason) {
    const auto refused = [](const MadeModel& model) {
        expect_refusal(convert_only(model.bytes()), "node \"padded\" (Pad)",
                       "-inf for a MaxPool behind that has no other reader and no ceil_mode");
    };
    refused(padded_maximum(
        -INFINITE, {{"kernel_shape", Ints{3, 3}}, {"strides", Ints{2, 2}}, {"ceil_mode", 1}}));
    MadeModel twice = padded_maximum(-INFINITE, {{"kernel_shape", Ints{3, 3}}});
    twice.output("padded");
    refused(twice);
    // A window of nothing but padding has no maximum.
    MadeModel empty = padded_maximum(-INFINITE, {{"kernel_shape", Ints{1, 1}}});
    expect_refusal(convert_only(empty.bytes()), "node \"y\" (MaxPool)",
                   "windows that each see a pixel expected");
}

}  // namespace
