// SPDX-License-Identifier: MIT
// A stress test of a cache lock with an overlap detector: library processes of two threads each,
// and a program outside the library locking the named mutex itself, all taking the lock over and
// over while the test kills, stops and resumes them at random.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <cstdint>
#include <list>
#include <memory>
#include <thread>
#include <vector>

#include "cache_test_support.h"
#include "lock_test_support.h"

namespace {

using namespace cache_test;
using namespace lock_test;

// Microseconds since the test began: the shared counters are 32-bit, since a 32-bit machine has
// no lock-free 64-bit atomics to share between processes.
const double kStart = now();
std::uint32_t nowUs() { return static_cast<std::uint32_t>((now() - kStart) * 1e6); }

// What every process of the test shares, in a mapping made before the first fork.
struct Shared {
  std::atomic<std::uint32_t> inside{0};  // who is inside: pid * 2 + thread, 0 for nobody
  std::atomic<std::uint32_t> sections{0};
  std::atomic<std::uint32_t> outsiderSections{0};
  std::atomic<std::uint32_t> overlaps{0};
  std::atomic<std::uint32_t> overlapSeen{0};  // who was inside at the first overlap, and who came in
  std::atomic<std::uint32_t> overlapBy{0};
  std::atomic<std::uint32_t> slowestRecoveryUs{0};
  std::atomic<std::uint32_t> recoveries{0};
  std::atomic<bool> outsiderStop{false};
  std::atomic<std::uint32_t> killCount{0};
  struct Kill {
    std::atomic<std::int32_t> pid;
    std::atomic<std::uint32_t> atUs;
  } kills[16384];

  // Notes that the test is about to kill `pid`.
  void noteKill(std::int32_t pid) {
    const std::uint32_t slot = killCount.load();
    if (slot >= 16384) return;
    kills[slot].pid = pid;
    kills[slot].atUs = nowUs();
    killCount = slot + 1;
  }

  // When `pid` was killed by the test; 0 when it was not.
  std::uint32_t killedAt(std::int32_t pid) {
    const std::uint32_t n = std::min<std::uint32_t>(killCount.load(), 16384);
    for (std::uint32_t i = 0; i < n; ++i)
      if (kills[i].pid.load() == pid) return kills[i].atUs.load();
    return 0;
  }

  // One critical section: checks and sets the inside mark, works a little, clears it.
  void section(std::uint32_t me, unsigned spinMicros) {
    const std::uint32_t before = inside.exchange(me);
    if (before != 0) {
      const std::uint32_t killed = killedAt(static_cast<std::int32_t>(before >> 1));
      if (killed == 0) {
        if (overlaps++ == 0) {
          overlapSeen = before;
          overlapBy = me;
        }
      } else {
        ++recoveries;
        const std::uint32_t took = nowUs() - killed;
        std::uint32_t slowest = slowestRecoveryUs.load();
        while (took > slowest && !slowestRecoveryUs.compare_exchange_weak(slowest, took)) {
        }
      }
    }
    const double until = now() + spinMicros / 1e6;
    while (now() < until) {
    }
    std::uint32_t expected = me;
    if (!inside.compare_exchange_strong(expected, 0)) ++overlaps;
  }
};

// Makes sure that under random SIGKILL, SIGSTOP and SIGCONT of library processes with two
// threads each, and a program outside the library using the named mutex directly, no two are
// ever inside together, nothing wedges, every killed holder is recovered, and the semaphore is
// never outside 0/1.
TEST(LockStress, RandomKillsAndStopsNeverAdmitTwoOrWedge) {
  const bool emulated = vorta_test::underEmulation();
  const double seconds = emulated ? 12.0 : 10.0;
  const int processes = 8;
  ScopedNames names(4, 2);
  names.options.permissions = 0666;
  { MediaCache cache(names.options); }
  void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  Shared& shared = *new (memory) Shared;

  auto worker = [&] {
    // Each takeover is said on standard error; the count of them is what the test reports.
    if (FILE* quiet = std::freopen("/dev/null", "w", stderr)) (void)quiet;
    MediaCache own(names.options);
    auto loop = [&](std::uint32_t thread) {
      const std::uint32_t me = static_cast<std::uint32_t>(getpid()) * 2 + thread;
      Random random(me);
      for (unsigned i = 0;; ++i) {
        own.HoldClipLock([&] { shared.section(me, static_cast<unsigned>(random.below(40))); });
        ++shared.sections;
        if (i % 16 == 0) own.WriteClipCacheToSharedMemory({makeClip("A.mov", static_cast<int>(i))});
      }
    };
    std::thread second([&] { loop(1); });
    loop(0);
    return 0;
  };
  std::fflush(nullptr);
  std::vector<std::unique_ptr<Child>> workers;
  for (int p = 0; p < processes; ++p) workers.emplace_back(new Child(worker));
  Child outsider([&] {
    bip::named_mutex direct(bip::open_only, names.options.clipLock.c_str());
    const std::uint32_t me = static_cast<std::uint32_t>(getpid()) * 2;
    while (!shared.outsiderStop) {
      direct.lock();
      shared.section(me, 20);
      ++shared.outsiderSections;
      direct.unlock();
      usleep(2000);
    }
    return 0;
  });

  sem_t* sem = sem_open(("/" + names.options.clipLock).c_str(), 0);
  ASSERT_NE(sem, SEM_FAILED);
  Random random(static_cast<std::uint32_t>(getpid()));
  int kills = 0, stops = 0, lowest = 1, highest = 0;
  std::uint32_t lastProgress = 0;
  double progressAt = now();
  bool wedged = false;
  const double end = now() + seconds;
  while (now() < end && !wedged) {
    usleep(static_cast<useconds_t>(2000 + random.below(15000)));
    Child& victim = *workers[static_cast<std::size_t>(random.below(processes))];
    if (random.below(4) != 0) {
      shared.noteKill(victim.pid());
      victim.killNow();
      ++kills;
      std::fflush(nullptr);
      for (auto& w : workers)
        if (w.get() == &victim) w.reset(new Child(worker));
    } else {
      const pid_t pid = random.below(8) == 0 ? outsider.pid() : victim.pid();
      kill(pid, SIGSTOP);
      usleep(static_cast<useconds_t>(1000 + random.below(20000)));
      kill(pid, SIGCONT);
      ++stops;
    }
    int value = -1;
    sem_getvalue(sem, &value);
    lowest = std::min(lowest, value);
    highest = std::max(highest, value);
    const std::uint32_t progress = shared.sections.load() + shared.outsiderSections.load();
    if (progress != lastProgress) {
      lastProgress = progress;
      progressAt = now();
    } else if (now() - progressAt > (emulated ? 15.0 : 5.0)) {
      wedged = true;
    }
  }
  MediaCache cache(names.options);
  const MediaCache::LockState state = cache.ClipLockState();
  shared.outsiderStop = true;
  EXPECT_EQ(outsider.wait(), 0);
  for (auto& w : workers) {
    shared.noteKill(w->pid());
    w->killNow();
  }
  EXPECT_FALSE(wedged) << "no section for seconds; lock state " << state.kind << ", pid " << state.pid
                       << ", ended midway " << state.endedMidway << ", semaphore "
                       << semaphoreValue(names.options.clipLock);

  Watchdog watchdog(60);
  testing::internal::CaptureStderr();
  MediaCacheOptions limited = names.options;
  limited.lockTimeout = 5;
  MediaCache last(limited);
  EXPECT_NO_THROW(last.RepairLocks());
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(shared.overlaps.load(), 0u);
  EXPECT_GE(lowest, 0);
  EXPECT_LE(highest, 1);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  EXPECT_GT(shared.outsiderSections.load(), 0u) << "the program outside the library never got in";
  std::printf(
      "lock stress: %.0f s, %d processes x 2 threads and one program outside the library: %llu sections "
      "(%llu outside), %d kills, %d stops, %u overlaps, %u holders recovered, slowest recovery %.0f ms, "
      "semaphore between %d and %d\n",
      seconds, processes, static_cast<unsigned long long>(shared.sections.load()),
      static_cast<unsigned long long>(shared.outsiderSections.load()), kills, stops, shared.overlaps.load(),
      shared.recoveries.load(), shared.slowestRecoveryUs.load() / 1e3, lowest, highest);
  if (shared.overlaps.load() > 0)
    std::printf(
        "first overlap: process %u (thread %u) was inside when process %u (thread %u) came in; the program "
        "outside the library is process %d\n",
        shared.overlapSeen.load() / 2, shared.overlapSeen.load() % 2, shared.overlapBy.load() / 2,
        shared.overlapBy.load() % 2, static_cast<int>(outsider.pid()));
  sem_close(sem);
  munmap(memory, sizeof(Shared));
}

}  // namespace
