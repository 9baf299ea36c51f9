// SPDX-License-Identifier: MIT
// Tests of ThreadSleep: timed sleeps and adding intervals to absolute times.
#include "threadsleep.h"

#include <gtest/gtest.h>
#include <time.h>

#include <thread>

namespace {

double realtimeNow() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

timespec at(time_t seconds, long nanoseconds) {
  timespec ts{};
  ts.tv_sec = seconds;
  ts.tv_nsec = nanoseconds;
  return ts;
}

// Generous bound for "at once" and "about this long": the machine may be
// loaded or emulated; only the lower bounds are exact.
const double kUpperBoundSeconds = 5.0;

TEST(ThreadSleep, ZeroReturnsAtOnce) {
  ThreadSleep sleeper;
  const double start = realtimeNow();
  sleeper.sleep(0);
  EXPECT_LT(realtimeNow() - start, kUpperBoundSeconds);
}

TEST(ThreadSleep, FiftyMillisecondsSleepsAtLeastThatLong) {
  ThreadSleep sleeper;
  // The deadline is on the real-time clock, so the elapsed time is measured there.
  const double start = realtimeNow();
  testing::internal::CaptureStderr();
  sleeper.sleep(50000000L);
  const double elapsed = realtimeNow() - start;
  // A sleep that could read the clock has nothing to say.
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_GE(elapsed, 0.050);
  EXPECT_LT(elapsed, kUpperBoundSeconds);
}

// A negative interval is added as it is; the wait then ends at once.
TEST(ThreadSleep, NegativeIntervalReturnsAtOnce) {
  ThreadSleep sleeper;
  const double start = realtimeNow();
  sleeper.sleep(-1);
  sleeper.sleep(-1500000000L);
  EXPECT_LT(realtimeNow() - start, kUpperBoundSeconds);
}

// Threads sharing one object each get their whole sleep.
TEST(ThreadSleep, SharedObjectSleepsEachThread) {
  ThreadSleep sleeper;
  const double start = realtimeNow();
  double ends[2] = {0, 0};
  std::thread first([&] {
    sleeper.sleep(50000000L);
    ends[0] = realtimeNow();
  });
  std::thread second([&] {
    sleeper.sleep(50000000L);
    ends[1] = realtimeNow();
  });
  first.join();
  second.join();
  EXPECT_GE(ends[0] - start, 0.050);
  EXPECT_GE(ends[1] - start, 0.050);
  EXPECT_LT(ends[0] - start, kUpperBoundSeconds);
  EXPECT_LT(ends[1] - start, kUpperBoundSeconds);
}

TEST(AddNanosecondsToTimespec, CarriesWholeSecondsAndRemainder) {
  ThreadSleep sleeper;
  timespec ts = at(10, 600000000L);
  sleeper.addNanosecondsToTimespec(1500000000L, &ts);
  EXPECT_EQ(ts.tv_sec, 12);
  EXPECT_EQ(ts.tv_nsec, 100000000L);
}

TEST(AddNanosecondsToTimespec, ExactSecondsLeaveNanosecondsUnchanged) {
  ThreadSleep sleeper;
  timespec ts = at(10, 600000000L);
  sleeper.addNanosecondsToTimespec(2000000000L, &ts);
  EXPECT_EQ(ts.tv_sec, 12);
  EXPECT_EQ(ts.tv_nsec, 600000000L);
}

// The boundary of whole seconds: one second exactly carries one second,
// one nanosecond less carries none; a single nanosecond is added too.
TEST(AddNanosecondsToTimespec, OneSecondExactlyAndJustBelow) {
  const struct {
    timespec start;
    long interval;
    timespec end;
  } cases[] = {{at(10, 600000000L), 1000000000L, at(11, 600000000L)},
               {at(10, 0), 999999999L, at(10, 999999999L)},
               {at(10, 5), 1L, at(10, 6)}};
  ThreadSleep sleeper;
  for (const auto& c : cases) {
    timespec ts = c.start;
    sleeper.addNanosecondsToTimespec(c.interval, &ts);
    EXPECT_EQ(ts.tv_sec, c.end.tv_sec) << c.interval;
    EXPECT_EQ(ts.tv_nsec, c.end.tv_nsec) << c.interval;
  }
}

TEST(AddNanosecondsToTimespec, ZeroChangesNothing) {
  ThreadSleep sleeper;
  timespec ts = at(7, 123456789L);
  sleeper.addNanosecondsToTimespec(0, &ts);
  EXPECT_EQ(ts.tv_sec, 7);
  EXPECT_EQ(ts.tv_nsec, 123456789L);
}

TEST(AddNanosecondsToTimespec, SumOfExactlyOneSecondCarries) {
  ThreadSleep sleeper;
  timespec ts = at(5, 500000000L);
  sleeper.addNanosecondsToTimespec(500000000L, &ts);
  EXPECT_EQ(ts.tv_sec, 6);
  EXPECT_EQ(ts.tv_nsec, 0L);

  ts = at(0, 1);
  sleeper.addNanosecondsToTimespec(999999999L, &ts);
  EXPECT_EQ(ts.tv_sec, 1);
  EXPECT_EQ(ts.tv_nsec, 0L);
}

TEST(AddNanosecondsToTimespec, SumBelowOneSecondStaysInNanoseconds) {
  ThreadSleep sleeper;
  timespec ts = at(5, 499999999L);
  sleeper.addNanosecondsToTimespec(500000000L, &ts);
  EXPECT_EQ(ts.tv_sec, 5);
  EXPECT_EQ(ts.tv_nsec, 999999999L);
}

// Negative intervals are not treated specially: the negative remainder is
// added as it is, and no whole seconds are taken away.
TEST(AddNanosecondsToTimespec, NegativeRemainderIsAddedAsItIs) {
  ThreadSleep sleeper;
  timespec ts = at(10, 500L);
  sleeper.addNanosecondsToTimespec(-1, &ts);
  EXPECT_EQ(ts.tv_sec, 10);
  EXPECT_EQ(ts.tv_nsec, 499L);

  ts = at(10, 0);
  sleeper.addNanosecondsToTimespec(-1500000000L, &ts);
  EXPECT_EQ(ts.tv_sec, 10);
  EXPECT_EQ(ts.tv_nsec, -500000000L);
}

}  // namespace
