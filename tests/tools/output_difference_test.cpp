#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "../../tools/output_difference.h"

namespace {

using tool::output_difference;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

TEST(OutputDifference, IsMeasuredOnTheLargestNumberWhetherOrNotItDiffers) {
    // The largest stands where both are equal, or where both have another one.
    EXPECT_TRUE(output_difference({-8.0f, 0.5f}, {-8.0f, 0.75f}, 0.03125).same);
    EXPECT_FALSE(output_difference({-8.0f, 0.5f}, {-8.0f, 0.75f}, 0.03124).same);
    EXPECT_EQ(8.0, output_difference({-8.0f, 0.5f}, {-8.0f, 0.75f}, 0.0).magnitude);
    EXPECT_EQ(0.25, output_difference({-8.0f, 0.5f}, {-8.0f, 0.75f}, 0.0).largest);
}

TEST(OutputDifference, EqualOutputsAreTheSameWhateverTheBound) {
    EXPECT_TRUE(output_difference({1.0f, nan, infinity}, {1.0f, nan, infinity}, 0.0).same);
    EXPECT_TRUE(output_difference({0.0f, 0.0f}, {0.0f, -0.0f}, 0.0).same);
    EXPECT_TRUE(output_difference({}, {}, 0.0).same);
}

TEST(OutputDifference, NothingExplainsWhatIsNotFiniteInOneOfThem) {
    EXPECT_FALSE(output_difference({1.0f, nan}, {1.0f, 1.0f}, 1e9).same);
    EXPECT_FALSE(output_difference({1.0f, 1.0f}, {1.0f, nan}, 1e9).same);
    EXPECT_FALSE(output_difference({1.0f, infinity}, {1.0f, 1.0f}, 1e9).same);
    EXPECT_FALSE(output_difference({1.0f, infinity}, {1.0f, -infinity}, 1e9).same);
}

TEST(OutputDifference, NothingExplainsOutputsOfDifferentLengthsOrADifferenceFromZeros) {
    EXPECT_FALSE(output_difference({1.0f}, {1.0f, 1.0f}, 1.0).same);
    EXPECT_FALSE(output_difference({0.0f}, {1e-30f}, 1.0).same);
}

}  // namespace
