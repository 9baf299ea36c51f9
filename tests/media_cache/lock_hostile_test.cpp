// SPDX-License-Identifier: MIT
// Tests of cache locks against what other processes may do to them: hold the mutex as another
// user or from another pid namespace, fill, truncate or replace the mutex's file, fill
// /dev/shm, fork while caches are being opened, and exit while another thread holds a lock.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <list>
#include <map>
#include <string>
#include <thread>

#include "cache_test_support.h"
#include "lock_test_support.h"

namespace {

using namespace cache_test;
using namespace lock_test;
using zev::detail::LockOwnerRecord;

constexpr int kSkip = 77;

// Records a wait by a process that has ended, as a library process killed while it waited inside
// the gate for a program outside the library leaves it.
void recordStaleWait(const std::string& mutexName) {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  RawRecord record(mutexName);
  std::memcpy(record->magic, LockOwnerRecord::kMagic, sizeof record->magic);
  record->version = LockOwnerRecord::kVersion;
  record->size = sizeof(LockOwnerRecord);
  record->pid = pid;
  record->state = LockOwnerRecord::Waiting;
}

// A read limited to `seconds`: "" when it read, else the exception's text.
std::string tryRead(const MediaCacheOptions& options, double seconds) {
  MediaCacheOptions limited = options;
  limited.lockTimeout = seconds;
  std::list<Clip> clips;
  try {
    MediaCache cache(limited);  // which takes the lock too, to check the segment's size
    cache.ReadClipCacheFromSharedMemory(clips);
  } catch (const bip::interprocess_exception& e) {
    return e.what();
  }
  return "";
}

const char* const kOutsiderHolds = ": the lock is held by a process outside this library; gave up after 1 s";

// Runs `hold` (which posts `holding` once it holds and keeps it until `release`) in a child that
// first becomes another user, and checks that a stale wait never makes the library take the
// outsider's lock over. Example failure: the read goes in after a second, the semaphore at 2.
TEST(LockHostile, OutsiderOfAnotherUserIsNeverTakenOver) {
  if (geteuid() != 0) GTEST_SKIP() << "becoming another user needs root";
  ScopedNames names;
  names.options.permissions = 0666;
  { MediaCache cache(names.options); }
  Pipe holding;
  Pipe release;
  Child outsider([&] {
    if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
        setresuid(65534, 65534, 65534) != 0)
      return 20;
    bip::named_mutex direct(bip::open_only, names.options.clipLock.c_str());
    direct.lock();
    holding.post();
    release.await();
    direct.unlock();
    return 0;
  });
  ASSERT_TRUE(holding.await());
  recordStaleWait(names.options.clipLock);
  Watchdog watchdog(30);
  testing::internal::CaptureStderr();
  EXPECT_EQ(tryRead(names.options, 1.5), "MediaCache: " + names.options.clipSegment + kOutsiderHolds);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 0);
  release.post();
  EXPECT_EQ(outsider.wait(), 0);
  EXPECT_EQ(tryRead(names.options, 5), "");
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Runs body in a grandchild that is pid 1 of a new pid namespace (with its own /proc when
// ownProc); gives the grandchild's pid as this process sees it through `pidOut`, and the child's
// exit code (kSkip when namespaces cannot be made here).
std::function<int()> inPidNamespace(bool ownProc, Pipe& pidOut, std::function<int()> body) {
  return [ownProc, &pidOut, body] {
    if (unshare(CLONE_NEWPID) != 0) return kSkip;
    const pid_t inner = fork();
    if (inner == 0) {
      if (ownProc &&
          (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
           mount("proc", "/proc", "proc", 0, nullptr) != 0))
        _exit(kSkip);
      _exit(body());
    }
    if (inner < 0) return 21;
    const std::int32_t outer = inner;
    if (write(pidOut.fds[1], &outer, sizeof outer) != sizeof outer) return 22;
    int status = 0;
    waitpid(inner, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  };
}

// The pid the namespace's child sends; -1 when it sends none within 10 s (no namespaces here).
pid_t readPid(Pipe& pipe) {
  struct pollfd ready = {pipe.fds[0], POLLIN, 0};
  std::int32_t pid = -1;
  if (poll(&ready, 1, 10000) != 1 || read(pipe.fds[0], &pid, sizeof pid) != sizeof pid) return -1;
  return pid;
}

// Makes sure a program outside the library, holding the mutex from a pid namespace with its own
// /proc, is waited for even with a stale wait recorded.
TEST(LockHostile, OutsiderInItsOwnPidNamespaceIsNeverTakenOver) {
  if (geteuid() != 0) GTEST_SKIP() << "pid namespaces need root";
  ScopedNames names;
  { MediaCache cache(names.options); }
  Pipe pid;
  Pipe holding;
  Pipe release;
  Child outer(inPidNamespace(true, pid, [&] {
    bip::named_mutex direct(bip::open_only, names.options.clipLock.c_str());
    direct.lock();
    holding.post();
    release.await();
    direct.unlock();
    return 0;
  }));
  if (readPid(pid) < 0) {
    const int code = outer.running() ? (outer.killNow(), -1) : outer.wait();
    if (code == kSkip) GTEST_SKIP() << "this kernel makes no pid namespaces";
    FAIL() << "the namespace's child was not made: " << code;
  }
  if (!holding.awaitWithin(20)) GTEST_SKIP() << "this kernel makes no mount namespace with its own /proc";
  recordStaleWait(names.options.clipLock);
  Watchdog watchdog(30);
  testing::internal::CaptureStderr();
  EXPECT_EQ(tryRead(names.options, 1.5), "MediaCache: " + names.options.clipSegment + kOutsiderHolds);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  release.post();
  EXPECT_EQ(outer.wait(), 0);
  EXPECT_EQ(tryRead(names.options, 5), "");
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure a library holder in another pid namespace is waited for while it lives and taken
// over within a second once it is killed. Example failure: judged alive for ever after its death.
TEST(LockHostile, HolderInAPidNamespaceIsTakenOverOnceItDies) {
  if (geteuid() != 0) GTEST_SKIP() << "pid namespaces need root";
  ScopedNames names;
  MediaCache cache(names.options);
  Pipe pid;
  Pipe holding;
  Child outer(inPidNamespace(false, pid, holdsCacheLockUntilKilled(names.options, holding)));
  const pid_t inner = readPid(pid);
  if (inner < 0) {
    EXPECT_EQ(outer.wait(), kSkip);
    GTEST_SKIP() << "this kernel makes no pid namespaces";
  }
  ASSERT_TRUE(holding.awaitWithin(20));
  const MediaCache::LockState held = cache.ClipLockState();
  EXPECT_EQ(held.kind, MediaCache::LockState::Held);
  EXPECT_EQ(held.pid, 1) << "the holder names itself as its namespace sees it";
  Watchdog watchdog(30);
  EXPECT_EQ(tryRead(names.options, 1.0), "MediaCache: " + names.options.clipSegment +
                                             ": the lock is held by process 1 (" +
                                             zev::detail::lockProgramName() + "); gave up after 1 s");
  kill(inner, SIGKILL);
  EXPECT_EQ(outer.wait(), 128 + SIGKILL);
  testing::internal::CaptureStderr();
  const double start = now();
  EXPECT_EQ(tryRead(names.options, 5), "");
  EXPECT_LT(now() - start, 1.0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), takeoverLine(names.options.clipSegment, 1));
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure nothing written over the owner record makes a process take over: with a program
// outside the library holding the mutex, a record of all ones, of zeros, or with a holder's state
// but no valid header is waited on; once the program releases, the next process gets in and
// leaves a valid record.
TEST(LockHostile, GarbageInTheRecordIsNeverTakenOverFrom) {
  ScopedNames names;
  MediaCache cache(names.options);
  for (int variant = 0; variant < 3; ++variant) {
    Pipe holding;
    Pipe release;
    Child outsider(holdsMutexUntil(names.options.clipLock, holding, release));
    ASSERT_TRUE(holding.await());
    {
      RawRecord record(names.options.clipLock);
      if (variant == 0) record.fill(0xff);
      if (variant == 1) record.fill(0);
      if (variant == 2) {
        record.fill(0x5a);
        record->state = LockOwnerRecord::Holding;
        record->pid = 1;
      }
    }
    EXPECT_FALSE(cache.ClipLockState().recordValid);
    Watchdog watchdog(30);
    testing::internal::CaptureStderr();
    EXPECT_EQ(tryRead(names.options, 1.0), "MediaCache: " + names.options.clipSegment + kOutsiderHolds)
        << "variant " << variant;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    // The waiter wrote a valid record of its own, and withdrew its wait from it.
    const MediaCache::LockState state = cache.ClipLockState();
    EXPECT_TRUE(state.recordValid);
    EXPECT_EQ(state.kind, MediaCache::LockState::Held);
    EXPECT_EQ(state.pid, 0);
    release.post();
    EXPECT_EQ(outsider.wait(), 0);
    EXPECT_EQ(tryRead(names.options, 5), "");
    EXPECT_TRUE(cache.ClipLockState().recordValid);
    EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  }
}

// Makes sure garbage written over the record, or the mutex's file truncated to the semaphore
// alone, while a library process holds the lock, neither kills the holder (no SIGBUS) nor keeps
// the lock from the next process once the holder is done.
TEST(LockHostile, RecordSpoiledWhileHeldCostsNothingOnceTheHolderIsDone) {
  ScopedNames names;
  MediaCache cache(names.options);
  for (int variant = 0; variant < 2; ++variant) {
    Pipe holding;
    Pipe release;
    Child holder([&] {
      MediaCache own(names.options);
      own.HoldClipLock([&] {
        holding.post();
        release.await();
      });
      own.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
      return 0;
    });
    ASSERT_TRUE(holding.await());
    if (variant == 0) {
      RawRecord record(names.options.clipLock);
      record.fill(0xa5);
    } else {
      ASSERT_EQ(truncate(("/dev/shm/sem." + names.options.clipLock).c_str(), sizeof(sem_t)), 0);
    }
    release.post();
    EXPECT_EQ(holder.wait(), 0) << "variant " << variant;
    Watchdog watchdog(30);
    EXPECT_EQ(tryRead(names.options, 5), "") << "variant " << variant;
    EXPECT_EQ(cache.GetClips().size(), 1u);
    EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  }
}

// Makes sure a named mutex removed and made again under its name is the one every process uses
// from then on: a process that opened the old one takes the new one, and another process waits
// for it. Example failure: the two processes split onto two semaphores and are inside together.
TEST(LockHostile, MutexReplacedUnderItsNameIsOpenedAgain) {
  ScopedNames names;
  names.options.permissions = 0666;
  MediaCache old(names.options);
  ASSERT_TRUE(bip::named_mutex::remove(names.options.clipLock.c_str()));
  { bip::named_mutex fresh(bip::create_only, names.options.clipLock.c_str()); }
  Watchdog watchdog(30);
  old.HoldClipLock([&] {
    EXPECT_EQ(semaphoreValue(names.options.clipLock), 0) << "the old semaphore was taken, not the name's";
    EXPECT_NE(tryRead(names.options, 0.5), "") << "another process went in";
  });
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
  EXPECT_EQ(tryRead(names.options, 5), "");
}

// Fills a directory's file system with one file; false when it cannot.
bool fillUp(const std::string& dir) {
  const int fd = open((dir + "/filler").c_str(), O_WRONLY | O_CREAT, 0600);
  if (fd < 0) return false;
  static char block[65536];
  std::memset(block, 1, sizeof block);
  while (write(fd, block, sizeof block) > 0) {
  }
  const bool full = errno == ENOSPC;
  close(fd);
  return full;
}

// In a child: a /dev/shm of its own, a tmpfs of 1 MiB in a mount namespace of its own; false
// when it cannot have one.
bool sharedMemoryOfItsOwn() {
  return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=1m") == 0;
}

// Makes sure a full /dev/shm gives an exception, never SIGBUS: a cache made on it fails to open,
// and a write that needs more room than is left fails with the old image kept.
TEST(LockHostile, FullSharedMemoryIsAnExceptionNotASignal) {
  if (geteuid() != 0) GTEST_SKIP() << "a /dev/shm of its own needs root";
  ScopedNames names;
  const int code = vorta_test::inChild([&] {
    if (!sharedMemoryOfItsOwn()) return kSkip;
    if (!fillUp("/dev/shm")) return 10;
    try {
      MediaCache cache(names.options);
      return 11;
    } catch (const bip::interprocess_exception&) {
    }
    unlink("/dev/shm/filler");
    MediaCache cache(names.options);
    cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
    if (!fillUp("/dev/shm")) return 12;
    try {
      cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2), makeClip("C.mov", 3)});
      return 13;
    } catch (const bip::interprocess_exception&) {
    }
    if (cache.GetClips().size() != 1) return 14;
    cache.FlushClips();
    return 0;
  });
  if (code == kSkip) GTEST_SKIP() << "no mount namespace with a tmpfs of its own here";
  EXPECT_EQ(code, 0);
}

// The same for the playlist image: a write that needs more room than a full /dev/shm has left
// fails with an exception, never SIGBUS, and the old image is kept; so does a flush of an image
// that has no room yet.
TEST(LockHostile, FullSharedMemoryFailsAPlaylistWriteOrAFlushWithAnException) {
  if (geteuid() != 0) GTEST_SKIP() << "a /dev/shm of its own needs root";
  ScopedNames names;
  const int code = vorta_test::inChild([&] {
    if (!sharedMemoryOfItsOwn()) return kSkip;
    MediaCache cache(names.options);
    std::map<std::string, PlaylistCacheEntry> playlists;
    for (const char* name : {"/m/A.playlist", "/m/B.playlist", "/m/C.playlist"})
      playlists[name] = makeEntry(name, "{\"name\":\"n\",\"cliplist\":[]}", 1);
    cache.WritePlaylistCacheToSharedMemory({*playlists.begin()});
    if (!fillUp("/dev/shm")) return 12;
    try {
      cache.WritePlaylistCacheToSharedMemory(playlists);
      return 13;
    } catch (const bip::interprocess_exception&) {
    }
    std::map<std::string, PlaylistCacheEntry> kept;
    if (cache.ReadPlaylistCacheFromSharedMemory(kept) != 1) return 14;
    if (kept.size() != 1 || kept.count(MediaCache::PlaylistKey("/m/A.playlist")) != 1) return 15;
    // Flushing the clip image, never written and so without a page of its own, needs one.
    try {
      cache.FlushClips();
      return 16;
    } catch (const bip::interprocess_exception&) {
    }
    return 0;
  });
  if (code == kSkip) GTEST_SKIP() << "no mount namespace with a tmpfs of its own here";
  EXPECT_EQ(code, 0) << (code > 128 ? "ended by a signal" : "a step failed");
}

// Reading an image whose first page was never written, on a full /dev/shm, gives no image and a
// message, never SIGBUS (that page would be allocated by the read); the playlists beside it,
// written before, are read whole.
TEST(LockHostile, FullSharedMemoryReadOfAnImageNeverWrittenGivesNoImage) {
  if (geteuid() != 0) GTEST_SKIP() << "a /dev/shm of its own needs root";
  if (vorta_test::underEmulation())
    GTEST_SKIP() << "qemu-user takes MADV_POPULATE_READ without filling page tables, so the read still "
                    "faults there; the PowerPC kernel runs this test";
  ScopedNames names;
  const int code = vorta_test::inChild([&] {
    if (!sharedMemoryOfItsOwn()) return kSkip;
    MediaCache cache(names.options);
    cache.WritePlaylistCacheToSharedMemory(
        {{"/m/A.playlist", makeEntry("/m/A.playlist", "{\"name\":\"n\",\"cliplist\":[]}", 1)}});
    if (!fillUp("/dev/shm")) return 12;
    std::list<Clip> clips;
    testing::internal::CaptureStderr();
    const int read = cache.ReadClipCacheFromSharedMemory(clips);
    const std::string said = testing::internal::GetCapturedStderr();
    if (read != 0 || !clips.empty()) return 17;
    if (said !=
        "ReadClipCacheFromSharedMemory: the segment's pages cannot be read (no room left in shared "
        "memory); image ignored\n")
      return 18;
    testing::internal::CaptureStderr();
    const std::map<std::string, PlaylistCacheEntry> listed = cache.GetPlaylists();
    testing::internal::GetCapturedStderr();
    if (listed.size() != 2 || listed.count(MediaCache::PlaylistKey("/m/A.playlist")) != 1) return 19;
    if (cache.VisitClips([](Clip&) {}) != 0) return 20;
    return 0;
  });
  if (code == kSkip) GTEST_SKIP() << "no mount namespace with a tmpfs of its own here";
  EXPECT_EQ(code, 0) << (code > 128 ? "ended by a signal" : "a step failed");
}

// Whether any of this process's descriptors on `path` shares the open file description of a gate
// another process holds: locking through it would succeed, as it does for the holder itself.
bool sharesAHeldGate(const std::string& path) {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return true;
  bool shares = false;
  while (struct dirent* entry = readdir(dir)) {
    char target[4096];
    const ssize_t n = readlinkat(dirfd(dir), entry->d_name, target, sizeof target - 1);
    if (n <= 0 || std::string(target, static_cast<std::size_t>(n)) != path) continue;
    struct flock range;
    std::memset(&range, 0, sizeof range);
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_len = 1;
    if (fcntl(std::atoi(entry->d_name), F_OFD_SETLK, &range) == 0) shares = true;
  }
  closedir(dir);
  return shares;
}

// Makes sure no fork child shares the gate of a lock its parent holds, even while other threads
// are opening and closing caches at that moment: a child sharing it would keep the gate of a
// parent that died inside. Example failure: a child forked mid-open keeps an unregistered copy.
TEST(LockHostile, ForkWhileCachesAreOpenedNeverHandsAChildAGate) {
  ScopedNames names;
  { MediaCache cache(names.options); }
  const std::string path = "/dev/shm/sem." + names.options.clipLock;
  MediaCacheOptions openOnly = names.options;
  openOnly.create = false;
  std::atomic<bool> stop{false};
  std::thread opener([&] {
    while (!stop) {
      MediaCache cache(openOnly);
      cache.PlaylistLockState();
    }
  });
  MediaCache mine(names.options);
  int forks = 0;
  mine.HoldClipLock([&] {
    for (int i = 0; i < (vorta_test::underEmulation() ? 50 : 300); ++i, ++forks) {
      std::fflush(nullptr);
      const pid_t child = fork();
      if (child == 0) _exit(sharesAHeldGate(path) ? 1 : 0);
      int status = 0;
      waitpid(child, &status, 0);
      EXPECT_TRUE(WIFEXITED(status));
      EXPECT_EQ(WEXITSTATUS(status), 0) << "fork " << i;
      if (HasFailure()) break;
    }
  });
  stop = true;
  opener.join();
  EXPECT_GT(forks, 0);
}

// Makes sure exit() destroying a static cache while another thread holds its lock keeps the lock
// held until the process has ended, and the next process then takes it over. Example failure:
// the destructor posts the semaphore and another process goes in while the thread is inside.
TEST(LockHostile, ExitWithAStaticCacheWhileAThreadHoldsKeepsTheLock) {
  ScopedNames names;
  { MediaCache cache(names.options); }
  Pipe exiting;
  std::fflush(nullptr);
  Child process([&] {
    atexit([] { usleep(1500 * 1000); });  // runs after the cache's destructor
    static MediaCache cache(names.options);
    Pipe inside;
    std::thread([&] {
      cache.HoldClipLock([&] {
        inside.post();
        for (;;) pause();
      });
    }).detach();
    inside.await();
    exiting.post();
    exit(0);
    return 0;
  });
  ASSERT_TRUE(exiting.await());
  usleep(300 * 1000);  // the destructor has run; the process still lives
  Watchdog watchdog(30);
  EXPECT_NE(tryRead(names.options, 0.5), "") << "another process went in while the thread was inside";
  EXPECT_EQ(process.wait(), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(tryRead(names.options, 5), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), takeoverLine(names.options.clipSegment, process.pid()));
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure a process that finds the mutex held outside the library records a wait and never a
// claim, so that killed while it waits it leaves nothing a later process would take over. Example
// failure: the waiter records a claim first, and is killed at that step.
TEST(LockHostile, WaiterForAnOutsiderNeverClaims) {
  ScopedNames names;
  MediaCache cache(names.options);
  Pipe holding;
  Pipe release;
  Child outsider(holdsMutexUntil(names.options.clipLock, holding, release));
  ASSERT_TRUE(holding.await());
  Child waiter([&] {
    zev::detail::lockStepHook = [](zev::detail::LockStep step) {
      if (step == zev::detail::LockStep::Claimed) raise(SIGKILL);
    };
    return tryRead(names.options, 0.5) == "MediaCache: " + names.options.clipSegment +
                                              ": the lock is held by a process outside this library; gave up "
                                              "after 0 s"
               ? 0
               : 1;
  });
  EXPECT_EQ(waiter.wait(), 0) << "1: not the time-out's message; 137: killed at a claim";
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 0);
  release.post();
  EXPECT_EQ(outsider.wait(), 0);
  EXPECT_EQ(tryRead(names.options, 5), "");
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

// Makes sure a lock that times out gives its gate back at once: another cache object, in the
// same process, gets the lock once the outsider is done, while the first object lives on.
TEST(LockHostile, ATimedOutLockGivesItsGateBack) {
  ScopedNames names;
  MediaCacheOptions impatient = names.options;
  impatient.lockTimeout = 0.2;
  MediaCache first(impatient);
  Pipe holding;
  Pipe release;
  Child outsider(holdsMutexUntil(names.options.clipLock, holding, release));
  ASSERT_TRUE(holding.await());
  std::list<Clip> clips;
  EXPECT_THROW(first.ReadClipCacheFromSharedMemory(clips), bip::interprocess_exception);
  release.post();
  EXPECT_EQ(outsider.wait(), 0);
  EXPECT_EQ(tryRead(names.options, 2), "");
  EXPECT_EQ(first.ReadClipCacheFromSharedMemory(clips), 0);
}

// Makes sure a holder whose record names no process (its pid and program torn, its state still
// Holding) is taken over with the line that names no process.
TEST(LockHostile, HolderRecordedWithoutItsNameIsTakenOverAsALibraryProcess) {
  ScopedNames names;
  MediaCache cache(names.options);
  {
    sem_t* sem = sem_open(("/" + names.options.clipLock).c_str(), 0);
    ASSERT_NE(sem, SEM_FAILED);
    ASSERT_EQ(sem_trywait(sem), 0);
    sem_close(sem);
    RawRecord record(names.options.clipLock);
    record.fill(0);
    std::memcpy(record->magic, LockOwnerRecord::kMagic, sizeof record->magic);
    record->version = LockOwnerRecord::kVersion;
    record->size = sizeof(LockOwnerRecord);
    record->state = LockOwnerRecord::Holding;
    record->pid = 4242;
    record->check = 0;  // not the check of pid 4242: the name is torn
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(tryRead(names.options, 2), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "MediaCache: " + names.options.clipSegment +
                ": took over the lock left held by a library process, which ended\n");
  EXPECT_EQ(semaphoreValue(names.options.clipLock), 1);
}

}  // namespace
