// SPDX-License-Identifier: MIT
// vorta: a thread sleep that waits on a private condition variable until an absolute deadline.
#include "threadsleep.h"

#include <iostream>

#include "daemonutils.h"

namespace {
const long kNanosecondsPerSecond = 1000000000L;
}  // namespace

ThreadSleep::ThreadSleep() {
  pthread_mutex_init(&mutex_, nullptr);
  pthread_cond_init(&condition_, nullptr);
}

ThreadSleep::~ThreadSleep() {
  pthread_cond_destroy(&condition_);
  pthread_mutex_destroy(&mutex_);
}

void ThreadSleep::sleep(long nanoseconds) {
  pthread_mutex_lock(&mutex_);
  timespec deadline{};
  const int result = clock_gettime(CLOCK_REALTIME, &deadline);
  if (result != 0)
    std::cerr << Daemonizer::name << "sleep"
              << ": Error getting time! " << result << std::endl;
  addNanosecondsToTimespec(nanoseconds, &deadline);
  // Nothing signals the condition: the wait ends at the deadline, or earlier
  // on a spurious wake-up, which is accepted.
  pthread_cond_timedwait(&condition_, &mutex_, &deadline);
  pthread_mutex_unlock(&mutex_);
}

void ThreadSleep::addNanosecondsToTimespec(long nanoseconds, timespec* ts) {
  if (nanoseconds > kNanosecondsPerSecond - 1) ts->tv_sec += nanoseconds / kNanosecondsPerSecond;
  const long remainder = nanoseconds % kNanosecondsPerSecond;
  if (remainder == 0) return;
  const long sum = ts->tv_nsec + remainder;
  if (sum > kNanosecondsPerSecond - 1) {
    ts->tv_nsec = sum - kNanosecondsPerSecond;
    ts->tv_sec += 1;
  } else {
    ts->tv_nsec = sum;
  }
}
