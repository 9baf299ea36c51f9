// SPDX-License-Identifier: MIT
// Tests of how a cache lock tells a holder that has lost its gate from one that has not, with real
// processes: holders outside the library, killed and exec'd holders, waits with limits and
// notices, queries, fork children, descriptor exhaustion and the permissions of the mutexes.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <boost/interprocess/sync/named_mutex.hpp>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "cache_test_support.h"
#include "lock_test_support.h"

namespace {

using namespace cache_test;
using namespace lock_test;
using zev::detail::LockOwnerRecord;
using zev::media::LockWait;

bool tookOver(const std::string& text) { return text.find("took over") != std::string::npos; }

// Reads the clip cache with a limit on the wait; the exception's text, or "" when it read.
std::string readWithin(MediaCacheOptions options, double seconds) {
  options.lockTimeout = seconds;
  std::list<Clip> clips;
  try {
    MediaCache cache(options);  // which takes the lock too, to check the segment's size
    cache.ReadClipCacheFromSharedMemory(clips);
  } catch (const bip::interprocess_exception& e) {
    return e.what();
  }
  return "";
}

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
  EXPECT_EQ(state.pid, 0);
  EXPECT_EQ(state.endedMidway, 0);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 0) << "the query touched the mutex";

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

// Makes sure a SIGKILLed holder is taken over within a second, with a message naming it and its
// program, and that both mutexes are free 0/1 mutexes afterwards.
TEST(LockOwner, KilledHolderIsTakenOverWithinASecond) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  Pipe holding;
  Child holder(holdsCacheLockUntilKilled(names.options, holding));
  ASSERT_TRUE(holding.await());
  const MediaCache::LockState held = cache.ClipLockState();
  EXPECT_EQ(held.kind, MediaCache::LockState::Held);
  EXPECT_EQ(held.pid, holder.pid());
  EXPECT_EQ(held.program, zev::detail::lockProgramName());
  EXPECT_GE(held.heldSeconds, 0.0);
  EXPECT_LT(held.heldSeconds, 30.0);
  EXPECT_TRUE(held.recordValid);
  const pid_t pid = holder.pid();
  holder.killNow();

  const MediaCache::LockState left = cache.ClipLockState();
  EXPECT_EQ(left.kind, MediaCache::LockState::LeftHeld);
  EXPECT_EQ(left.pid, pid);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 0) << "the query touched the mutex";

  Watchdog watchdog(30);
  const double start = now();
  testing::internal::CaptureStderr();
  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), takeoverLine(names.options.clipSegment, pid));
  EXPECT_LT(now() - start, 1.0);
  EXPECT_EQ(cache.ClipLockState().kind, MediaCache::LockState::Free);
  EXPECT_EQ(cache.ClipLockState().takeovers, 1u);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  EXPECT_EQ(semaphoreValue(names.options.playlistLock), 1);
}

// Makes sure a live library holder is never taken over however long it holds: a read with a
// limit gives up with the holder named, and the mutex is whole afterwards.
TEST(LockOwner, LiveHolderIsWaitedForAndNamedWhenTheWaitRunsOut) {
  ScopedNames names;
  { MediaCache cache(names.options); }
  Pipe holding;
  Child holder(holdsCacheLockUntilKilled(names.options, holding));
  ASSERT_TRUE(holding.await());
  Watchdog watchdog(30);
  const double start = now();
  testing::internal::CaptureStderr();
  const std::string what = readWithin(names.options, 1.0);
  EXPECT_FALSE(tookOver(testing::internal::GetCapturedStderr()));
  EXPECT_GE(now() - start, 0.9);
  EXPECT_EQ(what, "MediaCache: " + names.options.clipSegment + ": the lock is held by process " +
                      std::to_string(holder.pid()) + " (" + zev::detail::lockProgramName() +
                      "); gave up after 1 s");
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 0);
  holder.killNow();
  testing::internal::CaptureStderr();
  EXPECT_EQ(readWithin(names.options, 1.0), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), takeoverLine(names.options.clipSegment, holder.pid()));
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure a wait with notices tells who holds the lock about a second into the wait, and once
// more when the wait runs out, and that a limit of 0 gives up at once.
TEST(LockOwner, WaitNoticesNameTheHolderAndTheLimitEndsTheWait) {
  ScopedNames names;
  { MediaCache cache(names.options); }
  Pipe holding;
  Child holder(holdsCacheLockUntilKilled(names.options, holding, true));
  ASSERT_TRUE(holding.await());

  std::vector<LockWait> notices;
  MediaCacheOptions options = names.options;
  options.create = false;  // a cache being created takes both locks already in its constructor
  options.lockTimeout = 1.6;
  options.onLockWait = [&notices](const LockWait& wait) { notices.push_back(wait); };
  MediaCache cache(options);
  Watchdog watchdog(30);
  EXPECT_THROW(cache.InitializePlaylists(), bip::interprocess_exception);
  ASSERT_EQ(notices.size(), 2u);
  EXPECT_EQ(notices[0].cache, names.options.playlistSegment);
  EXPECT_TRUE(notices[0].playlist);
  EXPECT_EQ(notices[0].pid, holder.pid());
  EXPECT_EQ(notices[0].program, zev::detail::lockProgramName());
  EXPECT_GE(notices[0].waitedSeconds, 1.0);
  EXPECT_LT(notices[0].waitedSeconds, 1.5);
  EXPECT_GE(notices[0].heldSeconds, notices[0].waitedSeconds);
  EXPECT_FALSE(notices[0].timedOut);
  EXPECT_TRUE(notices[1].timedOut);
  EXPECT_GE(notices[1].waitedSeconds, 1.6);

  // Not waiting at all.
  MediaCacheOptions now0 = names.options;
  now0.create = false;
  now0.lockTimeout = 0;
  MediaCache impatient(now0);
  const double start = now();
  EXPECT_THROW(impatient.InitializePlaylists(), bip::interprocess_exception);
  EXPECT_LT(now() - start, 0.5);
  // The clip lock is free and is taken at once with a limit of 0.
  EXPECT_EQ(impatient.WriteClipCacheToSharedMemory({}), 1);
  EXPECT_EQ(semaphoreValue(names.options.playlistLock), 0);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Sleeps, as the program a holder starts: run by exec'ing this test binary where there is no
// /bin/sleep (as in a small system's initramfs).
TEST(LockSleeper, DISABLED_ThirtySeconds) { sleep(30); }

// The words of a program that runs for 30 s: /bin/sleep, else this test binary sleeping.
std::vector<std::string> sleeperWords() {
  if (access("/bin/sleep", X_OK) == 0) return {"/bin/sleep", "30"};
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return {};
  return {std::string(self, static_cast<std::size_t>(n)), "--gtest_filter=LockSleeper.DISABLED_ThirtySeconds",
          "--gtest_also_run_disabled_tests"};
}

// argv for execv from words that outlive it.
std::vector<char*> argvOf(std::vector<std::string>& words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  return argv;
}

// Makes sure a holder that execs another program is taken over at once: exec closes the gate's
// descriptor, while the process, with the same pid, runs on. Example failure: the read waits for
// as long as the new program runs.
TEST(LockOwner, HolderThatExecsIsTakenOverWhileTheNewProgramRuns) {
  std::vector<std::string> words = sleeperWords();
  ASSERT_FALSE(words.empty());
  const std::vector<char*> argv = argvOf(words);
  ScopedNames names;
  { MediaCache cache(names.options); }
  Pipe holding;
  std::fflush(nullptr);
  Child holder([&] {
    MediaCache own(names.options);
    own.HoldClipLock([&] {
      holding.post();
      execv(argv[0], argv.data());
    });
    return 5;
  });
  ASSERT_TRUE(holding.await());
  Watchdog watchdog(30);
  testing::internal::CaptureStderr();
  const double start = now();
  std::string what;
  // The exec itself takes a moment; then the next read goes in at once.
  for (int i = 0; i < 50 && (what = readWithin(names.options, 0.1)) != ""; ++i) {
  }
  EXPECT_EQ(what, "");
  EXPECT_LT(now() - start, 1.0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), takeoverLine(names.options.clipSegment, holder.pid()));
  EXPECT_TRUE(holder.running()) << "the exec'd program has ended";
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure programs a holder starts from inside an operation, through posix_spawn and through
// vfork and exec, never keep its gate: once the holder is killed, the next process takes the lock
// over at once while those programs still run.
TEST(LockOwner, ProgramsSpawnedByAHolderNeverKeepItsGate) {
  std::vector<std::string> words = sleeperWords();
  ASSERT_FALSE(words.empty());
  const std::vector<char*> argv = argvOf(words);
  ScopedNames names;
  { MediaCache cache(names.options); }
  Pipe holding;
  Pipe started;
  std::fflush(nullptr);
  Child holder([&] {
    MediaCache own(names.options);
    own.HoldClipLock([&] {
      pid_t spawned = -1;
      if (posix_spawn(&spawned, argv[0], nullptr, nullptr, argv.data(), environ) != 0) _exit(20);
      const pid_t forked = vfork();
      if (forked == 0) {
        execv(argv[0], argv.data());
        _exit(21);
      }
      if (forked < 0) _exit(22);
      const std::int32_t pids[2] = {spawned, forked};
      if (write(started.fds[1], pids, sizeof pids) != sizeof pids) _exit(23);
      holding.post();
      for (;;) pause();
    });
    return 5;
  });
  ASSERT_TRUE(holding.await());
  std::int32_t programs[2] = {-1, -1};
  ASSERT_EQ(read(started.fds[0], programs, sizeof programs), static_cast<ssize_t>(sizeof programs));
  holder.killNow();
  Watchdog watchdog(30);
  testing::internal::CaptureStderr();
  const double start = now();
  EXPECT_EQ(readWithin(names.options, 5.0), "");
  EXPECT_LT(now() - start, 1.0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), takeoverLine(names.options.clipSegment, holder.pid()));
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  for (const pid_t program : programs) {
    EXPECT_EQ(kill(program, 0), 0) << "a spawned program ended before the lock was taken over";
    kill(program, SIGKILL);
  }
}

// Prints the name a holder's record carries for this process, between markers: run by exec'ing
// this test binary with the words chosen by programNameRunAs.
TEST(LockProgramName, DISABLED_Print) {
  std::printf("program=[%s]\n", zev::detail::lockProgramName().c_str());
  std::fflush(stdout);
}

// The name lockProgramName gives in this test binary exec'd with argv0 as its first word; empty
// when it cannot be run.
std::string programNameRunAs(const std::string& argv0) {
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) return "";
  self[length] = '\0';
  std::vector<std::string> words = {argv0, "--gtest_filter=LockProgramName.DISABLED_Print",
                                    "--gtest_also_run_disabled_tests"};
  std::vector<char*> argv = argvOf(words);
  int out[2];
  if (pipe(out) != 0) return "";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, self, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  std::string text;
  char chunk[512];
  ssize_t got;
  while (spawned == 0 && (got = read(out[0], chunk, sizeof chunk)) != 0) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) break;
    text.append(chunk, static_cast<std::size_t>(got));
  }
  close(out[0]);
  if (spawned == 0) waitpid(pid, nullptr, 0);
  const std::size_t start = text.find("program=[");
  const std::size_t end = text.find("]\n", start);
  if (start == std::string::npos || end == std::string::npos) return "";
  return text.substr(start + 9, end - start - 9);
}

// Makes sure a holder is named by its program's base name and its first argument, cut to the
// record's 47 characters, read from the first 255 bytes of its command line.
TEST(LockProgramName, BaseNameAndFirstArgumentFromTheCommandLine) {
  const std::string whole = "recorderd --gtest_filter=LockProgramName.DISABLED_Print";
  const std::string first = programNameRunAs("/usr/local/bin/recorderd");
  if (first.empty() && vorta_test::underEmulation())
    GTEST_SKIP() << "qemu-user runs this PowerPC test binary, but the host kernel cannot exec it again "
                    "(no binfmt_misc entry for PowerPC); make test-ppc-system runs it on a PowerPC kernel";
  EXPECT_EQ(first, whole.substr(0, 47));
  EXPECT_EQ(programNameRunAs("recorderd"), whole.substr(0, 47));
  EXPECT_EQ(programNameRunAs("./"), " --gtest_filter=LockProgramName.DISABLED_Print");
  // 253 bytes of program path and its terminator leave one byte of the argument in the 255
  // bytes read.
  EXPECT_EQ(programNameRunAs("/" + std::string(250, 'd') + "/p"), "p -");
}

// Makes sure queries never take or post the semaphore: with a program outside the library
// holding it, the state is read without changing its value.
TEST(LockOwner, QueriesNeverTouchTheSemaphore) {
  ScopedNames names;
  MediaCache cache(names.options);
  Pipe holding;
  Pipe go;
  Child holder(holdsMutexDirectly(names.options.clipLock, holding, 400 * 1000));
  ASSERT_TRUE(holding.await());
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(cache.ClipLockState().kind, MediaCache::LockState::Held);
    ASSERT_EQ(semaphoreValue(names.options.clipLock), 0);
  }
  EXPECT_EQ(holder.wait(), 0);
  EXPECT_EQ(cache.ClipLockState().kind, MediaCache::LockState::Free);
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

// Uses up every descriptor of the process (under a limit of 64).
bool exhaustDescriptors() {
  struct rlimit limit = {64, 64};
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  while (dup(0) >= 0) {
  }
  return errno == EMFILE;
}

// Makes sure a process with no descriptor to spare still reads and writes both caches: an
// operation opens nothing.
TEST(LockOwner, NoSpareDescriptorIsNeeded) {
  ScopedNames names;
  { MediaCache cache(names.options); }
  Child child([&] {
    MediaCache own(names.options);
    if (!exhaustDescriptors()) return 11;
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

// Makes sure a cache that cannot open its gate fails loudly instead of guarding with the
// semaphore alone: the constructor throws, the mutex untouched. Example failure: the process takes
// the semaphore without a gate and is later taken over while alive.
TEST(LockOwner, NoDescriptorForTheGateFailsLoudly) {
  ScopedNames names;
  MediaCache cache(names.options);
  Child constructing([&] {
    if (!exhaustDescriptors()) return 11;
    try {
      MediaCache own(names.options);
    } catch (const bip::interprocess_exception&) {
      return 0;
    }
    return 12;
  });
  EXPECT_EQ(constructing.wait(), 0);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  EXPECT_EQ(cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)}), 1);
}

// Makes sure a fork child of a process with no descriptor to spare still has a gate of its own:
// it opens it in the place of the parent's, which it closes.
TEST(LockOwner, ForkChildNeedsNoDescriptorToSpare) {
  ScopedNames names;
  { MediaCache cache(names.options); }
  Child parent([&] {
    MediaCache own(names.options);
    if (!exhaustDescriptors()) return 11;
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) _exit(own.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)}) == 1 ? 0 : 12);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return 13;
    return own.GetClips().size() == 1 ? 0 : 14;
  });
  EXPECT_EQ(parent.wait(), 0);
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure the mutexes get the cache's permissions whatever the umask, so a process of another
// user that can open the segments can also lock them.
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
  EXPECT_EQ(cache.ClipLockState().mutexMode, 0666u);
  EXPECT_EQ(cache.PlaylistLockState().mutexMode, 0666u);

  // Opening without creating leaves the modes as they are.
  MediaCacheOptions openOnly = names.options;
  openOnly.create = false;
  openOnly.permissions = 0600;
  MediaCache second(openOnly);
  EXPECT_EQ(mode("/dev/shm/sem." + names.options.clipLock), 0666u);
}

// Makes sure the lock leaves nothing of its own in /dev/shm: removing the cache removes all.
TEST(LockOwner, RemoveLeavesNothingBehind) {
  MediaCacheOptions options = MediaCacheOptions::named(vorta_test::uniqueName("vorta_test_owner"));
  options.maxClips = 2;
  options.maxPlaylists = 2;
  {
    MediaCache cache(options);
    cache.WriteClipCacheToSharedMemory({});
  }
  EXPECT_EQ(MediaCache::Remove(options), 4);
  for (const std::string& name : {options.clipSegment, options.playlistSegment, "sem." + options.clipLock,
                                  "sem." + options.playlistLock, options.clipLock + ".owner"}) {
    struct stat info;
    EXPECT_NE(stat(("/dev/shm/" + name).c_str(), &info), 0) << name;
  }
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
