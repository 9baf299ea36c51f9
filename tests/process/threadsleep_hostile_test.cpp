// SPDX-License-Identifier: MIT
// ThreadSleep at the ends of its range and in an exhausted process: the largest and smallest
// intervals, no heap and no descriptor left.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <climits>

#include "child_process.h"
#include "fail_alloc.h"
#include "threadsleep.h"

namespace {

using namespace process_test;

double realtimeNow() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

}  // namespace

// The largest interval adds its whole seconds and its remainder, without
// overflowing the nanoseconds; the smallest adds its negative remainder only.
TEST(ThreadSleepHostile, LargestAndSmallestIntervals) {
  ThreadSleep sleeper;
  timespec ts{};
  ts.tv_sec = 100;
  ts.tv_nsec = 999999999L;
  sleeper.addNanosecondsToTimespec(LONG_MAX, &ts);
  const long remainder = LONG_MAX % 1000000000L;
  EXPECT_EQ(ts.tv_sec, 100 + LONG_MAX / 1000000000L + 1);
  EXPECT_EQ(ts.tv_nsec, 999999999L + remainder - 1000000000L);
  EXPECT_GE(ts.tv_nsec, 0);
  EXPECT_LT(ts.tv_nsec, 1000000000L);

  ts.tv_sec = 100;
  ts.tv_nsec = 0;
  sleeper.addNanosecondsToTimespec(LONG_MIN, &ts);
  EXPECT_EQ(ts.tv_sec, 100);
  EXPECT_EQ(ts.tv_nsec, LONG_MIN % 1000000000L);
}

// Intervals at and just past one second, and the smallest: sleep returns
// (at once for a negative one, whose deadline is invalid or past).
TEST(ThreadSleepHostile, SleepsAtTheSecondBoundAndReturnsAtOnceForTheSmallest) {
  ThreadSleep sleeper;
  double start = realtimeNow();
  sleeper.sleep(LONG_MIN);
  sleeper.sleep(-999999999L);
  EXPECT_LT(realtimeNow() - start, 1.0);
  start = realtimeNow();
  sleeper.sleep(999999L);  // 1 ms less one ns
  sleeper.sleep(1000000L);
  EXPECT_GE(realtimeNow() - start, 0.002);
}

// Sleeping needs neither heap nor descriptors.
TEST(ThreadSleepHostile, SleepsWithNoHeapAndNoDescriptorLeft) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  const pid_t pid = forkChild([] {
    const int lowest = dup(0);
    if (lowest < 0) _exit(10);
    close(lowest);
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(11);
    limit.rlim_cur = static_cast<rlim_t>(lowest);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(12);
    ThreadSleep sleeper;
    const double start = realtimeNow();
    long refused = 0;
    if (vorta_test::allocationFailureAvailable()) {
      vorta_test::FailAlloc failing;
      sleeper.sleep(20000000L);
      refused = vorta_test::FailAlloc::failures();
    } else {
      sleeper.sleep(20000000L);
    }
    const double slept = realtimeNow() - start;
    _exit(slept >= 0.020 && refused == 0 ? 0 : 1);
  });
  const int status = waitForExit(pid, patience());
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
}
