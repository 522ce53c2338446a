#include "tools/rates.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

namespace {

using namespace tool;

constexpr double infinity = std::numeric_limits<double>::infinity();

TEST(Rates, AreWorkByTime) {
    EXPECT_EQ(rate_text(1000000000, 1000.0), "1.0");
    EXPECT_EQ(rate_text(115605504, 0.5, shortest_dispatch_ms), "231.2");
    EXPECT_EQ(runs_text(4.0), "250.0");
}

TEST(Rates, OfNoTimeAndOfNoWorkAreNone) {
    for (const double time : {0.0, -0.0, -1.0, std::nan(""), infinity, -infinity}) {
        EXPECT_EQ(rate_text(1000000, time), "-") << time;
        EXPECT_EQ(rate_text(1000000, time, shortest_dispatch_ms), "-") << time;
        EXPECT_EQ(runs_text(time), "-") << time;
    }
    EXPECT_EQ(rate_text(0, 1.0), "-");
}

TEST(Rates, OfTimesThatNoDispatchTakesAreNone) {
    // What timer queries of software drivers say of a dispatch: 0, or some nanoseconds.
    for (const double nanoseconds : {0.0, 1.0, 80.0, 1000.0})
        EXPECT_EQ(rate_text(INT64_MAX, nanoseconds * 1e-6, shortest_dispatch_ms), "-");
    EXPECT_NE(rate_text(1000, 1001e-6, shortest_dispatch_ms), "-");
    EXPECT_EQ(rate_text(64, 1e-6), "64.0") << "the CPU's clock sees nanoseconds";
}

TEST(Rates, QueriesThatSawNextToNothingAreNotBelieved) {
    EXPECT_FALSE(queries_saw_dispatches(0.0, 0.0));
    EXPECT_FALSE(queries_saw_dispatches(0.0, 5.0));
    EXPECT_FALSE(queries_saw_dispatches(81e-6, 5.0)) << "a nanosecond for each of 81 layers";
    EXPECT_FALSE(queries_saw_dispatches(std::nan(""), 5.0));
    EXPECT_TRUE(queries_saw_dispatches(0.25, 5.0));
    EXPECT_TRUE(queries_saw_dispatches(5.5, 5.0));
}

}  // namespace
