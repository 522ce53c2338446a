#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

#include "platform/assertion.h"
#include "platform/clock.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;
using Tarno::LogLevel;

void log_on_all_channels() {
    Tarno::_LogVerbose("Tarno", "v %d", 1);
    Tarno::_LogDebug("Tarno", "d %s", "two");
    Tarno::_LogInfo("Other", "i %.1f", 3.0);
    Tarno::_LogError("Tarno", "plain");
}

TEST(Log, TheSinkGetsLevelTagAndFormattedText) {
    LogRecorder log;
    log_on_all_channels();
    ASSERT_EQ(4u, log.lines.size());
    EXPECT_EQ(LogLevel::Verbose, log.lines[0].level);
    EXPECT_EQ("v 1", log.lines[0].text);
    EXPECT_EQ(LogLevel::Debug, log.lines[1].level);
    EXPECT_EQ("d two", log.lines[1].text);
    EXPECT_EQ(LogLevel::Info, log.lines[2].level);
    EXPECT_EQ("Other", log.lines[2].tag);
    EXPECT_EQ("i 3.0", log.lines[2].text);
    EXPECT_EQ(LogLevel::Error, log.lines[3].level);
    EXPECT_EQ("plain", log.lines[3].text);
}

TEST(Log, ByDefaultInfoAndErrorsGoToStandardErrorAndTheRestNowhere) {
    testing::internal::CaptureStderr();
    log_on_all_channels();
    EXPECT_EQ("[Other] info: i 3.0\n[Tarno] error: plain\n",
              testing::internal::GetCapturedStderr());
}

TEST(Log, TheThresholdDropsWhatIsBelowIt) {
    LogRecorder log;
    Tarno::SetLogLevel(LogLevel::Error);
    log_on_all_channels();
    EXPECT_EQ(1u, log.lines.size());
    Tarno::SetLogLevel(LogLevel::Silent);
    log_on_all_channels();
    EXPECT_EQ(1u, log.lines.size());
}

TEST(Log, LongMessagesAreWhole) {
    LogRecorder log;
    const std::string text(100000, 'x');
    Tarno::_LogError("Tarno", "%s", text.c_str());
    EXPECT_EQ(text, log.lines[0].text);
}

TEST(Assertions, TheHandlerGetsTextSourceAndLineAndTheCodeGoesOn) {
    AssertRecorder assertions;
    TN_ASSERT_AT(1 + 1 == 3, "arithmetic", 77);
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("1 + 1 == 3", assertions.last().condition);
    EXPECT_EQ("arithmetic", assertions.last().source);
    EXPECT_EQ(77, assertions.last().line);
    const int line = __LINE__ + 1;
    TN_ASSERT(false && "text");
    EXPECT_EQ("false && \"text\"", assertions.last().condition);
    EXPECT_EQ("tn_core_test", assertions.last().source);
    EXPECT_EQ(line, assertions.last().line);
}

TEST(Assertions, ATrueConditionIsSilent) {
    AssertRecorder assertions;
    TN_ASSERT(true);
    TN_ASSERT_AT(true, "x", 1);
    EXPECT_EQ(0u, assertions.count());
}

TEST(Assertions, TheDefaultHandlerLogsOneErrorLineAndReturns) {
    LogRecorder log;
    TN_ASSERT_AT(false, "source", 5);
    ASSERT_EQ(1u, log.lines.size());
    EXPECT_EQ(LogLevel::Error, log.lines[0].level);
    EXPECT_EQ("assertion failed: false, source source, line 5", log.lines[0].text);
}

TEST(Assertions, SetAssertHandlerReturnsTheOneBefore) {
    const auto first = [](const char*, const char*, int) {};
    const Tarno::AssertHandler handler = first;
    EXPECT_EQ(nullptr, Tarno::SetAssertHandler(handler));
    EXPECT_EQ(handler, Tarno::SetAssertHandler(nullptr));
}

TEST(Clock, CountsWholeMillisecondsSince1970) {
    const double now = Tarno::wall_clock_milliseconds();
    const double reference = std::chrono::duration<double, std::milli>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    EXPECT_EQ(now, std::floor(now));
    EXPECT_NEAR(reference, now, 5000.0);
}

}  // namespace
