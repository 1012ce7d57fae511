// Stopwatch: start discipline, conversions and the failure traces.
#include <gtest/gtest.h>

#include <stdio.h>

#include <string>

#include "liblinux/LxStopwatch.h"
#include "libposix/PxTimeUtils.h"
#include "libposix/PxTrace.h"

#include "support/test_support.h"

using ktest::CaptureTrace;

namespace {

class StopwatchTest : public ::testing::Test {
protected:
    void SetUp() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR); }
    void TearDown() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING); }
};

const clockid_t kBadClock = static_cast<clockid_t>(0x7FFF);

} // namespace

TEST_F(StopwatchTest, NeverStartedReadsZeroAndElapsedTimeIsNotInitialized)
{
    LxStopwatch sw;
    EXPECT_FALSE(sw.IsStarted());
    EXPECT_EQ(CLOCK_MONOTONIC, sw.ClockId());
    std::string out = CaptureTrace([&] {
        EXPECT_EQ(0, sw.ElapsedSeconds());
        EXPECT_EQ(0, sw.ElapsedMilliseconds());
        EXPECT_EQ(0, sw.ElapsedMicroseconds());
        EXPECT_EQ(0, sw.ElapsedNanoSeconds());
    });
    EXPECT_EQ("", out);
    timespec t = {5, 5};
    out = CaptureTrace([&] { EXPECT_EQ(TSTATUS_NOT_INITIALIZED, sw.ElapsedTime(t)); });
    EXPECT_EQ(0, t.tv_sec);
    EXPECT_EQ(0L, t.tv_nsec);
    EXPECT_EQ("TSTATUS LxStopwatch::ElapsedTime(timespec&) const: not started\n", out);
}

TEST_F(StopwatchTest, SecondStartIsRefusedAndConversionsTruncateConsistently)
{
    LxStopwatch sw;
    ASSERT_EQ(TSTATUS_SUCCESS, sw.Start());
    EXPECT_TRUE(sw.IsStarted());
    ASSERT_EQ(TSTATUS_SUCCESS, PxSleep(30));
    std::string out = CaptureTrace([&] { EXPECT_EQ(TSTATUS_ALREADY_DONE, sw.Start()); });
    EXPECT_EQ("TSTATUS LxStopwatch::Start(): already started\n", out);
    // Each later reading is at least the earlier one in the finer unit; had the
    // second Start restarted the measurement, less than 30 ms would show.
    long s = sw.ElapsedSeconds();
    long ms = sw.ElapsedMilliseconds();
    long us = sw.ElapsedMicroseconds();
    long ns = sw.ElapsedNanoSeconds();
    timespec t;
    ASSERT_EQ(TSTATUS_SUCCESS, sw.ElapsedTime(t));
    EXPECT_GE(ms, 30);
    EXPECT_LE(s, ms / 1000);
    EXPECT_LE(ms, us / 1000);
    EXPECT_LE(us, ns / 1000);
    EXPECT_LE(ns, t.tv_sec * 1000000000L + t.tv_nsec);
    EXPECT_GE(t.tv_nsec, 0L);
    EXPECT_LT(t.tv_nsec, 1000000000L);
}

TEST_F(StopwatchTest, ClockReadingBeforeTheStartIsNotPossible)
{
    // Started on the real-time clock, read on the monotonic one, which is far
    // behind it: the difference is negative.
    LxStopwatch sw;
    sw.SetClockId(CLOCK_REALTIME);
    ASSERT_EQ(TSTATUS_SUCCESS, sw.Start());
    sw.SetClockId(CLOCK_MONOTONIC);
    timespec t = {1, 1};
    const std::string before =
        "TSTATUS LxStopwatch::ElapsedTime(timespec&) const: current time lies before start time\n";
    EXPECT_EQ(before, CaptureTrace([&] { EXPECT_EQ(TSTATUS_NOT_POSSIBLE, sw.ElapsedTime(t)); }));
    EXPECT_EQ(0, t.tv_sec);
    EXPECT_EQ(0L, t.tv_nsec);

    // Every unit reads 0 and says why.
    const std::pair<const char*, long (LxStopwatch::*)() const> readings[] = {
        {"Seconds", &LxStopwatch::ElapsedSeconds},
        {"Milliseconds", &LxStopwatch::ElapsedMilliseconds},
        {"Microseconds", &LxStopwatch::ElapsedMicroseconds},
        {"NanoSeconds", &LxStopwatch::ElapsedNanoSeconds},
    };
    for (const auto& r : readings)
        EXPECT_EQ(before + "long int LxStopwatch::Elapsed" + r.first +
                      "() const: ElapsedTime failed, err = 0xE0000031\n",
                  CaptureTrace([&] { EXPECT_EQ(0, (sw.*r.second)()); }));

    // With the error class off, the failure is silent but still 0.
    TPosixSetTraceMask(0);
    EXPECT_EQ("", CaptureTrace([&] { EXPECT_EQ(0, sw.ElapsedMilliseconds()); }));
}

TEST_F(StopwatchTest, ClockFailuresBecomeLinuxStatusCodes)
{
    LxStopwatch sw;
    sw.SetClockId(kBadClock);
    std::string out = CaptureTrace([&] { EXPECT_EQ(TSTATUS_LINUX_EINVAL, sw.Start()); });
    EXPECT_EQ("TSTATUS LxStopwatch::Start(): clock_gettime failed (22)\n", out);
    EXPECT_FALSE(sw.IsStarted());

    timespec res = {9, 9};
    out = CaptureTrace([&] { EXPECT_EQ(TSTATUS_LINUX_EINVAL, sw.ClockResolution(res)); });
    EXPECT_EQ("TSTATUS LxStopwatch::ClockResolution(timespec&): clock_getres failed (22)\n", out);
    EXPECT_EQ(0, res.tv_sec);
    EXPECT_EQ(0L, res.tv_nsec);

    // Started on a good clock, then read on a bad one.
    LxStopwatch sw2;
    ASSERT_EQ(TSTATUS_SUCCESS, sw2.Start());
    sw2.SetClockId(kBadClock);
    timespec t;
    out = CaptureTrace([&] { EXPECT_EQ(TSTATUS_LINUX_EINVAL, sw2.ElapsedTime(t)); });
    EXPECT_EQ("TSTATUS LxStopwatch::ElapsedTime(timespec&) const: clock_gettime failed (22)\n", out);
    out = CaptureTrace([&] { EXPECT_EQ(0, sw2.ElapsedMilliseconds()); });
    EXPECT_EQ("TSTATUS LxStopwatch::ElapsedTime(timespec&) const: clock_gettime failed (22)\n"
              "long int LxStopwatch::ElapsedMilliseconds() const: ElapsedTime failed, err = 0xE0010016\n",
              out);
}

TEST_F(StopwatchTest, ClockResolutionWorksWithoutStartAndStopReturnsToNotStarted)
{
    LxStopwatch sw;
    timespec res = {9, 9};
    EXPECT_EQ(TSTATUS_SUCCESS, sw.ClockResolution(res));
    timespec expected;
    ASSERT_EQ(0, clock_getres(CLOCK_MONOTONIC, &expected));
    EXPECT_EQ(expected.tv_sec, res.tv_sec);
    EXPECT_EQ(expected.tv_nsec, res.tv_nsec);
    EXPECT_FALSE(sw.IsStarted());

    ASSERT_EQ(TSTATUS_SUCCESS, sw.Start());
    sw.Stop();
    EXPECT_FALSE(sw.IsStarted());
    EXPECT_EQ(0, sw.ElapsedMilliseconds());
    EXPECT_EQ(TSTATUS_SUCCESS, sw.Start());
}
