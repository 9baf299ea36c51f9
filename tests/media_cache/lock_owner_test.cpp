// SPDX-License-Identifier: MIT
// Tests of how a cache lock tells a dead holder from a live one, with real processes: holders
// outside the library, recorded holders whose pid was reused, holders that ended half-way, fork
// children, descriptor exhaustion and the permissions of the lock objects.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <boost/interprocess/sync/named_mutex.hpp>
#include <list>
#include <string>
#include <thread>

#include "cache_test_support.h"
#include "lock_test_support.h"

namespace {

using namespace cache_test;
using namespace lock_test;
using zev::detail::LockOwnerRecord;

bool tookOver(const std::string& text) { return text.find("took over") != std::string::npos; }

// Makes sure a process that locks the named mutex directly, without the library, is waited for:
// the read waits about as long as the holder holds, takes nothing over, and the mutex is a free
// 0/1 mutex afterwards. Example failure: "took over the lock" at once and a semaphore value of 2.
TEST(LockOwner, HolderOutsideTheLibraryIsWaitedFor) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});

  Pipe holding;
  Child holder(holdsMutexDirectly(names.options.clipLock, holding, 1000 * 1000));
  ASSERT_TRUE(holding.await());
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 0);
  const MediaCache::LockState state = cache.ClipLockState();
  EXPECT_EQ(state.kind, MediaCache::LockState::Held);
  EXPECT_FALSE(state.recorded);
  EXPECT_EQ(state.pid, 0);

  Watchdog watchdog(30);
  const double start = now();
  testing::internal::CaptureStderr();
  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  const std::string err = testing::internal::GetCapturedStderr();
  const double waited = now() - start;
  EXPECT_FALSE(tookOver(err)) << err;
  EXPECT_GE(waited, 0.5) << "the read went in while the holder held the mutex";
  EXPECT_EQ(holder.wait(), 0);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  EXPECT_EQ(namesOf(clips), std::vector<std::string>{"A.mov"});
}

// Makes sure a long wait for a holder outside the library is named on standard error every few
// seconds, and never ends in a takeover.
TEST(LockOwner, LongWaitForAnOutsiderIsNamed) {
  ScopedNames names;
  MediaCache cache(names.options);
  Pipe holding;
  Child holder(holdsMutexDirectly(names.options.playlistLock, holding, 5600 * 1000));
  ASSERT_TRUE(holding.await());
  Watchdog watchdog(60);
  testing::internal::CaptureStderr();
  cache.InitializePlaylists();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "MediaCache: " + names.options.playlistSegment +
                     ": waiting 5 s for the lock, held by a process outside this library\n");
  EXPECT_EQ(holder.wait(), 0);
  EXPECT_EQ(semaphoreValue(names.options.playlistLock), 1);
}

// Makes sure a SIGKILLed holder is taken over within a second, with a message naming it, and
// that both mutexes are free 0/1 mutexes afterwards.
TEST(LockOwner, KilledHolderIsTakenOverWithinASecond) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  Pipe holding;
  Child holder(holdsCacheLockUntilKilled(names.options, holding));
  ASSERT_TRUE(holding.await());
  const MediaCache::LockState held = cache.ClipLockState();
  EXPECT_EQ(held.kind, MediaCache::LockState::Held);
  EXPECT_TRUE(held.recorded);
  EXPECT_TRUE(held.alive);
  EXPECT_EQ(held.pid, holder.pid());
  EXPECT_EQ(held.startTime, startTicks(holder.pid()));
  const pid_t pid = holder.pid();
  holder.killNow();

  const MediaCache::LockState left = cache.ClipLockState();
  EXPECT_EQ(left.kind, MediaCache::LockState::LeftHeld);
  EXPECT_TRUE(left.recorded);
  EXPECT_FALSE(left.alive);
  EXPECT_EQ(left.pid, pid);

  Watchdog watchdog(30);
  const double start = now();
  testing::internal::CaptureStderr();
  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "MediaCache: " + names.options.clipSegment +
                                                        ": took over the lock left held by process " +
                                                        std::to_string(pid) + ", which ended\n");
  EXPECT_LT(now() - start, 1.0);
  EXPECT_EQ(cache.ClipLockState().kind, MediaCache::LockState::Free);
  EXPECT_EQ(cache.ClipLockState().takeovers, 1u);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  EXPECT_EQ(semaphoreValue(names.options.playlistLock), 1);
}

// Makes sure a recorded holder whose pid now belongs to another, live process (one that started
// at another time) is taken over, and the live process is left alone.
TEST(LockOwner, RecordedHolderWhosePidWasReusedIsTakenOver) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  Pipe ready;
  Child bystander([&] {
    ready.post();
    for (;;) pause();
    return 0;
  });
  ASSERT_TRUE(ready.await());
  // The mutex taken and the record naming the bystander's pid with another start time: what a
  // holder that died, and whose pid was then given to the bystander, leaves behind.
  sem_t* sem = sem_open(("/" + names.options.clipLock).c_str(), 0);
  ASSERT_NE(sem, SEM_FAILED);
  ASSERT_EQ(sem_trywait(sem), 0);
  {
    RawRecord record(names.options.clipLock);
    record.setHolder(LockOwnerRecord::Holding, bystander.pid(), startTicks(bystander.pid()) + 12345);
  }
  Watchdog watchdog(30);
  const double start = now();
  testing::internal::CaptureStderr();
  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "MediaCache: " + names.options.clipSegment +
                                                        ": took over the lock left held by process " +
                                                        std::to_string(bystander.pid()) + ", which ended\n");
  EXPECT_LT(now() - start, 1.0);
  EXPECT_TRUE(bystander.running());
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  sem_close(sem);
}

// Makes sure a recorded holder that is alive, with its own start time, is never taken over even
// when the record is all there is to go by.
TEST(LockOwner, RecordedLiveHolderIsNeverTakenOver) {
  ScopedNames names;
  MediaCache cache(names.options);
  sem_t* sem = sem_open(("/" + names.options.clipLock).c_str(), 0);
  ASSERT_NE(sem, SEM_FAILED);
  Pipe ready;
  Child holder([&] {
    ready.post();
    for (;;) pause();
    return 0;
  });
  ASSERT_TRUE(ready.await());
  ASSERT_EQ(sem_trywait(sem), 0);
  {
    RawRecord record(names.options.clipLock);
    record.setHolder(LockOwnerRecord::Holding, holder.pid(), startTicks(holder.pid()));
  }
  const MediaCache::LockState state = cache.ClipLockState();
  EXPECT_EQ(state.kind, MediaCache::LockState::Held);
  EXPECT_TRUE(state.alive);
  EXPECT_EQ(state.pid, holder.pid());

  // Released by the test after a while: the read must have waited for it.
  std::thread releaser([sem] {
    usleep(700 * 1000);
    sem_post(sem);
  });
  Watchdog watchdog(30);
  const double start = now();
  testing::internal::CaptureStderr();
  std::list<Clip> clips;
  cache.ReadClipCacheFromSharedMemory(clips);
  const std::string err = testing::internal::GetCapturedStderr();
  releaser.join();
  EXPECT_FALSE(tookOver(err)) << err;
  EXPECT_GE(now() - start, 0.5);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  sem_close(sem);
}

// Makes sure a holder that ended half-way through releasing (record "releasing", mutex still
// taken) is taken over when no process outside the library maps the mutex.
TEST(LockOwner, HolderThatEndedWhileReleasingIsTakenOver) {
  ScopedNames names;
  MediaCache cache(names.options);
  sem_t* sem = sem_open(("/" + names.options.clipLock).c_str(), 0);
  ASSERT_NE(sem, SEM_FAILED);
  ASSERT_EQ(sem_trywait(sem), 0);
  const pid_t ended = endedPid();
  {
    RawRecord record(names.options.clipLock);
    record.setHolder(LockOwnerRecord::Releasing, ended, 1);
  }
  // This test process maps the semaphore itself but is the one looking, so it does not count.
  Watchdog watchdog(30);
  testing::internal::CaptureStderr();
  cache.FlushClips();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "MediaCache: " + names.options.clipSegment +
                                                        ": took over the lock left held by process " +
                                                        std::to_string(ended) + ", which ended\n");
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  sem_close(sem);
}

// Makes sure a claimer that ended half-way through taking the mutex is not taken over while a
// process outside the library that maps the mutex holds it: the read waits for that holder.
TEST(LockOwner, EndedClaimerIsNotTakenOverWhileAnOutsiderMapsTheMutex) {
  ScopedNames names;
  { MediaCache creator(names.options); }
  // The outsider starts before this process maps the lock's record, so it maps only the mutex,
  // as a program that does not use the library would.
  Pipe go;
  Pipe holding;
  Child outsider(holdsMutexDirectly(names.options.clipLock, holding, 1200 * 1000, &go));
  MediaCache cache(names.options);
  go.post();
  ASSERT_TRUE(holding.await());
  const pid_t ended = endedPid();
  {
    RawRecord record(names.options.clipLock);
    record.setClaim(ended, 1);
  }
  Watchdog watchdog(30);
  const double start = now();
  testing::internal::CaptureStderr();
  cache.FlushClips();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(tookOver(err)) << err;
  EXPECT_GE(now() - start, 0.8);
  EXPECT_EQ(outsider.wait(), 0);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure a child forked by one thread while another thread is inside a cache operation does
// not keep the lock: another process's read goes in as soon as the parent's operation ends, while
// the child still runs. Example failure: the read waits until the child exits.
TEST(LockOwner, ForkChildDoesNotKeepTheLock) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});

  Pipe inside;
  Pipe release;
  std::thread worker([&] {
    cache.HoldClipLock([&] {
      inside.post();
      release.await();
    });
  });
  ASSERT_TRUE(inside.await());
  Child child([] {
    sleep(20);
    return 0;
  });
  release.post();
  worker.join();

  Watchdog watchdog(60);
  Child reader([&] {
    MediaCache own(names.options);
    std::list<Clip> clips;
    return own.ReadClipCacheFromSharedMemory(clips) == 1 && clips.size() == 1 ? 0 : 3;
  });
  EXPECT_EQ(reader.wait(), 0);
  EXPECT_TRUE(child.running()) << "the read waited for the fork child to end";
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure a fork child of a process inside an operation never releases the parent's lock: the
// child returning from the same operation leaves the lock held until the parent releases it.
TEST(LockOwner, ForkChildInsideAnOperationLeavesTheLockToItsParent) {
  ScopedNames names;
  MediaCache cache(names.options);
  Pipe childDone;
  pid_t child = -1;
  cache.HoldClipLock([&] {
    child = fork();
    if (child == 0) _exit(0);  // the child leaves the operation at once
    waitpid(child, nullptr, 0);
    EXPECT_EQ(semaphoreValue(names.options.clipLock), 0);
    EXPECT_EQ(cache.ClipLockState().kind, MediaCache::LockState::Held);
  });
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);

  // A child that leaves the operation through the library's own unlock.
  cache.HoldClipLock([&] {
    child = fork();
    if (child != 0) {
      int status = 0;
      waitpid(child, &status, 0);
      EXPECT_EQ(WEXITSTATUS(status), 0);
      EXPECT_EQ(semaphoreValue(names.options.clipLock), 0) << "the child released its parent's lock";
    }
  });
  if (child == 0) _exit(semaphoreValue(names.options.clipLock) == 0 ? 0 : 4);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure a process with no descriptor to spare still reads and writes both caches: an
// operation opens nothing.
TEST(LockOwner, NoSpareDescriptorIsNeeded) {
  ScopedNames names;
  { MediaCache cache(names.options); }
  Child child([&] {
    MediaCache own(names.options);
    // Use up every descriptor.
    struct rlimit limit = {64, 64};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 10;
    while (dup(0) >= 0) {
    }
    if (errno != EMFILE) return 11;
    if (own.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)}) != 1) return 12;
    std::list<Clip> clips;
    if (own.ReadClipCacheFromSharedMemory(clips) != 1 || clips.size() != 2) return 13;
    std::map<std::string, PlaylistCacheEntry> map;
    map["P"] = makeEntry("/m/P.playlist", "{\"name\":\"P\",\"cliplist\":[]}", 1);
    if (own.WritePlaylistCacheToSharedMemory(map) != 1) return 14;
    std::map<std::string, PlaylistCacheEntry> back;
    if (own.ReadPlaylistCacheFromSharedMemory(back) != 1 || back.size() != 1) return 15;
    own.Flush();
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
}

// Makes sure the mutexes and owner records get the cache's permissions whatever the umask, so a
// process of another user that can open the segments can also lock them.
TEST(LockOwner, MutexesFollowTheCachePermissionsWhateverTheUmask) {
  ScopedNames names;
  names.options.permissions = 0666;
  const mode_t old = umask(022);
  MediaCache cache(names.options);
  umask(old);
  auto mode = [](const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<unsigned>(info.st_mode & 0777) : 0u;
  };
  EXPECT_EQ(mode("/dev/shm/" + names.options.clipSegment), 0666u);
  EXPECT_EQ(mode("/dev/shm/sem." + names.options.clipLock), 0666u);
  EXPECT_EQ(mode("/dev/shm/sem." + names.options.playlistLock), 0666u);
  EXPECT_EQ(mode("/dev/shm/" + names.options.clipLock + ".owner"), 0666u);
  EXPECT_EQ(mode("/dev/shm/" + names.options.playlistLock + ".owner"), 0666u);
  const MediaCache::LockState state = cache.ClipLockState();
  EXPECT_EQ(state.mutexMode, 0666u);
  EXPECT_EQ(state.recordMode, 0666u);
  EXPECT_EQ(cache.PlaylistLockState().mutexMode, 0666u);

  // Opening without creating leaves the modes as they are.
  MediaCacheOptions openOnly = names.options;
  openOnly.create = false;
  openOnly.permissions = 0600;
  MediaCache second(openOnly);
  EXPECT_EQ(mode("/dev/shm/sem." + names.options.clipLock), 0666u);
}

// Makes sure the owner record goes with the cache when it is removed.
TEST(LockOwner, RemoveTakesTheOwnerRecordsToo) {
  MediaCacheOptions options = MediaCacheOptions::named(vorta_test::uniqueName("vorta_test_owner"));
  options.maxClips = 2;
  options.maxPlaylists = 2;
  { MediaCache cache(options); }
  struct stat info;
  EXPECT_EQ(stat(("/dev/shm/" + options.clipLock + ".owner").c_str(), &info), 0);
  EXPECT_EQ(MediaCache::Remove(options), 4);
  EXPECT_NE(stat(("/dev/shm/" + options.clipLock + ".owner").c_str(), &info), 0);
  EXPECT_NE(stat(("/dev/shm/" + options.playlistLock + ".owner").c_str(), &info), 0);
}

// Makes sure a thread that uses the cache from inside its own operation gets an exception
// instead of waiting for itself for ever, and the lock works afterwards.
TEST(LockOwner, SameThreadReentryThrowsInsteadOfDeadlocking) {
  ScopedNames names;
  MediaCache cache(names.options);
  Watchdog watchdog(30);
  EXPECT_THROW(cache.HoldClipLock([&] { cache.GetClips(); }), bip::interprocess_exception);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  EXPECT_EQ(cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)}), 1);
  EXPECT_EQ(cache.GetClips().size(), 1u);
}

// Makes sure opening an existing cache without creating it never creates a missing mutex.
TEST(LockOwner, OpeningOnlyLeavesAMissingMutexMissing) {
  ScopedNames names;
  { MediaCache cache(names.options); }
  bip::named_mutex::remove(names.options.clipLock.c_str());
  MediaCacheOptions openOnly = names.options;
  openOnly.create = false;
  EXPECT_THROW(MediaCache cache(openOnly), bip::interprocess_exception);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), -1);
}

// Many processes killed at random moments inside and outside operations, while others keep
// using both caches: no one ever waits for good, and the mutexes end as free 0/1 mutexes.
TEST(LockOwner, RandomKillsAmongManyUsersNeverBreakTheMutex) {
  ScopedNames names(8, 4);
  MediaCache cache(names.options);
  Random random(static_cast<std::uint32_t>(getpid()));
  const int rounds = vorta_test::underEmulation() ? 40 : 150;
  if (vorta_test::underEmulation())
    std::printf("40 rounds instead of 150: every process starts slowly under qemu-user\n");
  int takeovers = 0;
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::unique_ptr<Child>> users;
    for (int u = 0; u < 3; ++u)
      users.emplace_back(new Child([&] {
        MediaCache own(names.options);
        for (int g = 0;; ++g) {
          own.WriteClipCacheToSharedMemory({makeClip("A.mov", g)});
          std::list<Clip> clips;
          own.ReadClipCacheFromSharedMemory(clips);
          own.InitializePlaylists();
        }
        return 0;
      }));
    usleep(static_cast<useconds_t>(500 + random.below(3000)));
    for (auto& user : users) user->killNow();
    Watchdog watchdog(30);
    testing::internal::CaptureStderr();
    takeovers += cache.RepairLocks();
    testing::internal::GetCapturedStderr();
    ASSERT_EQ(semaphoreValue(names.options.clipLock), 1) << "round " << round;
    ASSERT_EQ(semaphoreValue(names.options.playlistLock), 1) << "round " << round;
  }
  std::printf("%d rounds of 3 killed users: %d locks taken over\n", rounds, takeovers);
}

}  // namespace
