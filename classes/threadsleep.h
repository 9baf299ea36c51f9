// SPDX-License-Identifier: MIT
// vorta: a thread sleep that waits on a private condition variable until an absolute deadline.
#pragma once

#include <pthread.h>
#include <time.h>

/// Puts the calling thread to sleep by a timed wait on the object's own
/// condition variable, with a deadline on the real-time clock.
class ThreadSleep {
 public:
  /// Initialises the mutex and the condition variable with default attributes.
  ThreadSleep();
  /// Destroys the mutex and the condition variable.
  virtual ~ThreadSleep();
  ThreadSleep(const ThreadSleep&) = delete;
  ThreadSleep& operator=(const ThreadSleep&) = delete;

  /// Sleeps for about nanoseconds; a spurious wake-up ends the sleep early.
  void sleep(long nanoseconds);
  /// Adds nanoseconds to the absolute time *ts, carrying into the seconds.
  /// A negative interval is not treated specially: its remainder is added as it is.
  void addNanosecondsToTimespec(long nanoseconds, timespec* ts);

 private:
  pthread_mutex_t mutex_;
  pthread_cond_t condition_;
};
