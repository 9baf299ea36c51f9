// SPDX-License-Identifier: MIT
// Tests that kill a library process at every step of a cache lock's lock, unlock and query, and
// check what the next process finds: the lock at once or a takeover; and, with a program outside
// the library about, the two windows where the mutex may be that program's, which are waited on.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <string>

#include "cache_test_support.h"
#include "lock_test_support.h"

namespace {

using namespace cache_test;
using namespace lock_test;
using zev::detail::LockStep;

std::atomic<int> killAt{-1};
void killAtStep(LockStep step) {
  if (static_cast<int>(step) == killAt.load()) raise(SIGKILL);
}

// A child that stops the process with SIGKILL at `step`.
void armKill(LockStep step) {
  killAt = static_cast<int>(step);
  zev::detail::lockStepHook = killAtStep;
}

enum class Next { AtOnce, TakesOver };

struct StepCase {
  LockStep step;
  const char* name;
  Next next;
  bool query;  // the step is one of a query, not of an operation
};

void PrintTo(const StepCase& c, std::ostream* out) { *out << c.name; }

class LockKill : public testing::TestWithParam<StepCase> {};

// Makes sure that for every step of lock, unlock and a query, a process killed there (with no
// program outside the library about) leaves the lock to the next process within a second, taken
// over where the mutex was the dead one's, and the semaphore a free 0/1 mutex afterwards.
TEST_P(LockKill, NextProcessFindsWhatTheProtocolSays) {
  const StepCase c = GetParam();
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  Child victim([&] {
    armKill(c.step);
    MediaCache own(names.options);
    if (c.query)
      own.ClipLockState();
    else
      own.HoldClipLock([] {});
    return 7;  // the step was never reached
  });
  ASSERT_EQ(victim.wait(), 128 + SIGKILL) << c.name << " was never reached";

  Watchdog watchdog(30);
  MediaCacheOptions limited = names.options;
  limited.create = false;  // a cache being created takes both locks already in its constructor
  limited.lockTimeout = 1.5;
  MediaCache next(limited);
  std::list<Clip> clips;
  testing::internal::CaptureStderr();
  const double start = now();
  std::string what;
  try {
    next.ReadClipCacheFromSharedMemory(clips);
  } catch (const bip::interprocess_exception& e) {
    what = e.what();
  }
  const double waited = now() - start;
  const std::string err = testing::internal::GetCapturedStderr();
  switch (c.next) {
    case Next::AtOnce:
      EXPECT_EQ(what, "");
      EXPECT_EQ(err, "");
      EXPECT_LT(waited, 1.0);
      break;
    case Next::TakesOver:
      EXPECT_EQ(what, "");
      EXPECT_EQ(err, takeoverLine(names.options.clipSegment, victim.pid()));
      EXPECT_LT(waited, 1.0);
      break;
  }
  EXPECT_EQ(namesOf(clips), std::vector<std::string>{"A.mov"});
  EXPECT_EQ(cache.ClipLockState().kind, MediaCache::LockState::Free);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, LockKill,
    testing::Values(StepCase{LockStep::GateTaken, "GateTaken", Next::AtOnce, false},
                    StepCase{LockStep::Claimed, "Claimed", Next::AtOnce, false},
                    StepCase{LockStep::SemaphoreTaken, "SemaphoreTaken", Next::TakesOver, false},
                    StepCase{LockStep::Holding, "Holding", Next::TakesOver, false},
                    StepCase{LockStep::Releasing, "Releasing", Next::TakesOver, false},
                    StepCase{LockStep::Posted, "Posted", Next::AtOnce, false},
                    StepCase{LockStep::Freed, "Freed", Next::AtOnce, false},
                    StepCase{LockStep::StateGate, "StateGate", Next::AtOnce, true}),
    [](const testing::TestParamInfo<StepCase>& param) { return std::string(param.param.name); });

// Makes sure a library process killed right after taking the mutex from a program outside the
// library (the first of the two windows where the mutex may be that program's) leaves it taken:
// the next process waits and names a holder outside the library, with the dead one named as the
// one that ended midway.
TEST(LockKillWindow, KilledJustAfterTakingTheMutexFromAnOutsiderLeavesItTaken) {
  ScopedNames names;
  MediaCache cache(names.options);
  Pipe holding;
  Child outsider(holdsMutexDirectly(names.options.clipLock, holding, 300 * 1000));
  ASSERT_TRUE(holding.await());
  Child victim([&] {
    armKill(LockStep::SemaphoreTaken);
    MediaCache own(names.options);
    own.HoldClipLock([] {});
    return 7;
  });
  EXPECT_EQ(victim.wait(), 128 + SIGKILL);
  EXPECT_EQ(outsider.wait(), 0);
  const MediaCache::LockState state = cache.ClipLockState();
  EXPECT_EQ(state.kind, MediaCache::LockState::Held);
  EXPECT_EQ(state.endedMidway, victim.pid());
  Watchdog watchdog(30);
  MediaCacheOptions limited = names.options;
  limited.create = false;
  limited.lockTimeout = 1.0;
  MediaCache next(limited);
  EXPECT_THROW(next.FlushClips(), bip::interprocess_exception);
  postSemaphore(names.options.clipLock);
  EXPECT_NO_THROW(next.FlushClips());
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// A program outside the library that waits in sem_wait for the named mutex, posts `holding` once
// it has it, and holds it for `micros`.
std::function<int()> waitsForMutexDirectly(const std::string& mutexName, Pipe& holding, useconds_t micros) {
  return [mutexName, &holding, micros] {
    bip::named_mutex direct(bip::open_only, mutexName.c_str());
    direct.lock();
    holding.post();
    usleep(micros);
    direct.unlock();
    return 0;
  };
}

// Waits until a thread waits in sem_wait for the named mutex, by glibc's count of them beside the
// value (the upper half of the first 64-bit word on 64-bit machines, the word at 12 on 32-bit ones).
void awaitOutsiderWaiting(const std::string& mutexName) {
  sem_t* sem = sem_open(("/" + mutexName).c_str(), 0);
  ASSERT_NE(sem, SEM_FAILED);
  std::uint64_t waiters = 0;
  for (int i = 0; i < 300 && waiters == 0; ++i) {
    usleep(10 * 1000);
#if __SIZEOF_POINTER__ == 8
    waiters = __atomic_load_n(reinterpret_cast<std::uint64_t*>(sem), __ATOMIC_ACQUIRE) >> 32;
#else
    waiters = __atomic_load_n(reinterpret_cast<std::uint32_t*>(reinterpret_cast<char*>(sem) + 12),
                              __ATOMIC_ACQUIRE);
#endif
  }
  sem_close(sem);
  ASSERT_GT(waiters, 0u) << "no program outside the library ever waited for the mutex";
}

// Makes sure a holder killed at each step of a release that wakes a program outside the library
// waiting in sem_wait never has its mutex taken over: before the post it stays taken (the second
// window, the next process waits), after the post it is the program's, waited for.
TEST(LockKillWindow, ReleaseToAWaitingOutsiderIsNeverTakenOver) {
  for (const LockStep step : {LockStep::Releasing, LockStep::Posted}) {
    ScopedNames names;
    MediaCache cache(names.options);
    Pipe holding;
    Pipe release;
    Child holder([&] {
      MediaCache own(names.options);
      armKill(step);
      own.HoldClipLock([&] {
        holding.post();
        release.await();
      });
      return 7;
    });
    ASSERT_TRUE(holding.await());
    Pipe outsiderHolds;
    Child outsider(waitsForMutexDirectly(names.options.clipLock, outsiderHolds, 500 * 1000));
    awaitOutsiderWaiting(names.options.clipLock);
    release.post();
    EXPECT_EQ(holder.wait(), 128 + SIGKILL);
    Watchdog watchdog(30);
    MediaCacheOptions limited = names.options;
    limited.create = false;
    limited.lockTimeout = step == LockStep::Releasing ? 1.0 : 5.0;
    MediaCache next(limited);
    testing::internal::CaptureStderr();
    if (step == LockStep::Releasing) {
      const MediaCache::LockState left = cache.ClipLockState();
      EXPECT_EQ(left.kind, MediaCache::LockState::Held);
      EXPECT_EQ(left.endedMidway, holder.pid()) << "kind " << left.kind << " pid " << left.pid;
      EXPECT_THROW(next.FlushClips(), bip::interprocess_exception);
      postSemaphore(names.options.clipLock);  // the operator frees it: the outsider goes in
      ASSERT_TRUE(outsiderHolds.await());
    } else {
      ASSERT_TRUE(outsiderHolds.await());
      EXPECT_NO_THROW(next.FlushClips());  // after the outsider has released it
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(outsider.wait(), 0);
    EXPECT_NO_THROW(next.FlushClips());
    EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  }
}

// Makes sure a library process killed while it waits, inside the gate, for a program outside the
// library leaves the lock to that program, and the next library process gets it once the program
// releases it.
TEST(LockKillWindow, WaiterKilledWhileAnOutsiderHoldsLeavesItToTheOutsider) {
  ScopedNames names;
  MediaCache cache(names.options);
  Pipe holding;
  Pipe go;
  Child outsider(holdsMutexDirectly(names.options.clipLock, holding, 800 * 1000));
  ASSERT_TRUE(holding.await());
  Child waiter([&] {
    MediaCache own(names.options);
    own.HoldClipLock([] {});
    return 0;
  });
  for (int i = 0; i < 2000 && cache.ClipLockState().waiter != waiter.pid(); ++i) usleep(1000);
  EXPECT_EQ(cache.ClipLockState().waiter, waiter.pid());
  waiter.killNow();
  Watchdog watchdog(30);
  testing::internal::CaptureStderr();
  std::list<Clip> clips;
  cache.ReadClipCacheFromSharedMemory(clips);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(outsider.wait(), 0);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

}  // namespace
