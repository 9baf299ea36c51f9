// SPDX-License-Identifier: MIT
// Tests of the cache locks with real processes: a holder killed while holding, a slow holder, signals while
// waiting.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <list>
#include <new>
#include <string>

#include "cache_test_support.h"
#include "daemonutils.h"
#include "lock_test_support.h"

namespace {

using namespace cache_test;
using namespace lock_test;

// A holder killed while it holds the clip lock does not block the others:
// the next reader takes the lock over and reads the last whole catalogue.
TEST(LockRecovery, KilledClipLockHolderIsTakenOver) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)});

  Pipe holding;
  Child holder(holdsCacheLockUntilKilled(names.options, holding));
  ASSERT_TRUE(holding.await());
  const MediaCache::LockState held = cache.ClipLockState();
  EXPECT_EQ(held.kind, MediaCache::LockState::Held);
  EXPECT_EQ(held.pid, holder.pid());
  EXPECT_EQ(cache.PlaylistLockState().kind, MediaCache::LockState::Free);

  holder.killNow();
  EXPECT_EQ(cache.ClipLockState().kind, MediaCache::LockState::LeftHeld);

  Watchdog watchdog(30);
  std::list<Clip> clips;
  testing::internal::CaptureStderr();
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), takeoverLine(names.options.clipSegment, holder.pid()));
  EXPECT_EQ(namesOf(clips), (std::vector<std::string>{"A.mov", "B.mov"}));

  // The lock works as before afterwards.
  EXPECT_EQ(cache.ClipLockState().kind, MediaCache::LockState::Free);
  testing::internal::CaptureStderr();
  EXPECT_EQ(cache.WriteClipCacheToSharedMemory({makeClip("C.mov", 3)}), 1);
  clips.clear();
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(namesOf(clips), std::vector<std::string>{"C.mov"});
}

// The same for the playlist lock, recovered by hand with RepairLocks.
TEST(LockRecovery, KilledPlaylistLockHolderIsRepaired) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.InitializePlaylists();

  Pipe holding;
  Child holder(holdsCacheLockUntilKilled(names.options, holding, true));
  ASSERT_TRUE(holding.await());
  holder.killNow();
  EXPECT_EQ(cache.PlaylistLockState().kind, MediaCache::LockState::LeftHeld);

  Watchdog watchdog(30);
  testing::internal::CaptureStderr();
  EXPECT_EQ(cache.RepairLocks(), 1);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(cache.PlaylistLockState().kind, MediaCache::LockState::Free);
  EXPECT_EQ(cache.RepairLocks(), 0);
  PlaylistMap playlists;
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(playlists), 1);
}

// A live holder that keeps the lock for a long time is waited for, never broken.
TEST(LockRecovery, LiveHolderIsWaitedFor) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});

  void* shared =
      mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  std::atomic<int>& released = *new (shared) std::atomic<int>(0);

  Pipe holding;
  Child holder([&] {
    MediaCache own(names.options);
    own.HoldClipLock([&] {
      holding.post();
      usleep(1500 * 1000);
      released.store(1);
    });
    return 0;
  });
  ASSERT_TRUE(holding.await());
  std::list<Clip> clips;
  testing::internal::CaptureStderr();
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(released.load(), 1) << "the read went in while the holder still held the lock";
  EXPECT_EQ(holder.wait(), 0);
  munmap(shared, sizeof(std::atomic<int>));
}

// A writer killed at any moment leaves the old image, the new one, or an
// invalid one, never a mixed one; and never a lock that blocks the next reader.
TEST(LockRecovery, CrashLoopNeverLeavesATornImage) {
  ScopedNames names(16, 8);
  MediaCache cache(names.options);
  PlaylistMap files;
  for (int i = 0; i < 8; ++i) {
    const std::string key = "P" + std::to_string(i);
    files[key] = makeEntry("/m/" + key + ".playlist", "{\"name\":\"" + key + "\",\"cliplist\":[]}", 0);
  }
  Random random(getpid());
  int invalidClips = 0;
  int invalidPlaylists = 0;
  for (int round = 0; round < 200; ++round) {
    Child writer([&] {
      MediaCache own(names.options);
      Random r(static_cast<std::uint32_t>(getpid()));
      for (std::uint32_t g = 1;; ++g) {
        // Every record of a catalogue carries the catalogue's size, position and generation.
        std::list<Clip> clips;
        const int n = 1 + r.below(16);
        for (int i = 0; i < n; ++i) {
          Clip c = makeClip("C" + std::to_string(i) + ".mov", i);
          c.width = n;
          c.height = static_cast<int32_t>(g);
          c.scanMode = i;
          clips.push_back(c);
        }
        own.WriteClipCacheToSharedMemory(clips);
        // Every entry of a playlist map carries the map's size and generation in its time.
        PlaylistMap map;
        const int m = 1 + r.below(8);
        for (const auto& element : files)
          if (static_cast<int>(map.size()) < m) map.insert(element);
        for (auto& element : map) element.second.modTime = static_cast<int32_t>(g * 100 + map.size());
        own.WritePlaylistCacheToSharedMemory(map);
      }
      return 0;
    });
    usleep(static_cast<useconds_t>(random.below(4000)));
    writer.killNow();

    Watchdog watchdog(30);
    testing::internal::CaptureStderr();
    std::list<Clip> clips;
    if (cache.ReadClipCacheFromSharedMemory(clips) == 0) {
      ++invalidClips;
      EXPECT_TRUE(clips.empty());
    } else if (!clips.empty()) {
      const int32_t n = static_cast<int32_t>(clips.size());
      const int32_t g = clips.front().height;
      int32_t i = 0;
      for (const Clip& c : clips) {
        EXPECT_EQ(c.width, n) << "round " << round;
        EXPECT_EQ(c.height, g) << "round " << round;
        EXPECT_EQ(c.scanMode, i) << "round " << round;
        EXPECT_EQ(std::string(c.name), "C" + std::to_string(i) + ".mov");
        ++i;
      }
    }
    PlaylistMap map;
    if (cache.ReadPlaylistCacheFromSharedMemory(map) == 0) {
      ++invalidPlaylists;
      EXPECT_TRUE(map.empty());
    } else if (!map.empty()) {
      const int32_t stamp = map.begin()->second.modTime;
      EXPECT_EQ(static_cast<std::size_t>(stamp % 100), map.size()) << "round " << round;
      for (const auto& element : map) {
        EXPECT_EQ(element.second.modTime, stamp) << "round " << round;
        EXPECT_TRUE(sameBytes(&element.second, &files[element.first], offsetof(PlaylistCacheEntry, modTime)));
      }
    }
    testing::internal::GetCapturedStderr();
    if (HasFailure()) break;
  }
  // Every recovery handed the semaphores on: each is a free 0/1 mutex again.
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  EXPECT_EQ(semaphoreValue(names.options.playlistLock), 1);
  std::printf("200 writers killed: %d invalid clip images, %d invalid playlist images\n", invalidClips,
              invalidPlaylists);
}

// A process with the daemon's signal handlers (installed without restart)
// keeps waiting for a cache lock through SIGUSR1 and SIGTERM, and reads
// normally once the lock is released.
TEST(LockRecovery, SignalsDoNotCutTheWaitShort) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)});

  Pipe holding;
  Pipe release;
  Child holder([&] {
    MediaCache own(names.options);
    own.HoldClipLock([&] {
      holding.post();
      release.await();
    });
    return 0;
  });
  ASSERT_TRUE(holding.await());

  Pipe waiting;
  Child reader([&] {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = Daemonizer::signalHandler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART, as the daemon installs them
    sigaction(SIGUSR1, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    waiting.post();
    // Opening the cache already waits for the lock (it checks the segment's size under it).
    MediaCache own(names.options);
    std::list<Clip> clips;
    const int valid = own.ReadClipCacheFromSharedMemory(clips);
    return valid == 1 && clips.size() == 2 ? 0 : 3;
  });
  ASSERT_TRUE(waiting.await());
  for (int i = 0; i < 20; ++i) {
    usleep(20000);
    kill(reader.pid(), i % 2 == 0 ? SIGUSR1 : SIGTERM);
  }
  release.post();
  EXPECT_EQ(holder.wait(), 0);
  EXPECT_EQ(reader.wait(), 0);
}

}  // namespace
