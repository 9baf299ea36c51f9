// SPDX-License-Identifier: MIT
// vorta tests: child processes, pipes and a watchdog for the lock tests; the raw semaphore and
// owner record of a cache lock.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include <boost/interprocess/sync/named_mutex.hpp>

#include "internal/cache_lock.h"
#include "media_cache.h"
#include "test_support.h"

namespace lock_test {

struct Random {
  explicit Random(std::uint32_t seed) : state(seed * 2654435761u + 1) {}
  int below(int n) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return static_cast<int>(state % static_cast<std::uint32_t>(n));
  }
  std::uint32_t state;
};

// A child process that runs fn and ends with its result; killed and reaped
// by the destructor if still running.
class Child {
 public:
  template <class Fn>
  explicit Child(Fn fn) {
    pid_ = fork();
    if (pid_ == 0) {
      int status = 1;
      try {
        status = fn();
      } catch (...) {
      }
      _exit(status);
    }
  }
  ~Child() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  // Kills with SIGKILL and reaps.
  void killNow() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    reaped_ = true;
  }
  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    reaped_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  // Whether the child is still running (not reaped, not ended).
  bool running() {
    if (reaped_) return false;
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) reaped_ = true;
    return r == 0;
  }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
};

// One byte through a pipe, as a signal between processes.
struct Pipe {
  Pipe() { EXPECT_EQ(pipe(fds), 0); }
  ~Pipe() {
    close(fds[0]);
    close(fds[1]);
  }
  void post() {
    const char byte = 1;
    while (write(fds[1], &byte, 1) != 1) {
    }
  }
  bool await() {
    char byte;
    ssize_t n;
    while ((n = read(fds[0], &byte, 1)) < 0 && errno == EINTR) {
    }
    return n == 1;
  }
  /// await(), but false when nothing comes within `seconds` (the other end may have ended
  /// without a word, while this process still holds the pipe's writing end).
  bool awaitWithin(double seconds) {
    struct pollfd ready = {fds[0], POLLIN, 0};
    int n;
    while ((n = poll(&ready, 1, static_cast<int>(seconds * 1000))) < 0 && errno == EINTR) {
    }
    return n == 1 && await();
  }
  int fds[2];
};

// Ends the test process if a cache call blocks for good, instead of hanging until the suite's timeout.
struct Watchdog {
  explicit Watchdog(unsigned seconds) { alarm(seconds); }
  ~Watchdog() { alarm(0); }
};

inline double now() { return vorta_test::monotonicSeconds(); }

/// The value of a cache's named mutex (1 free, 0 taken); -1 when it cannot be opened.
inline int semaphoreValue(const std::string& mutexName) {
  sem_t* sem = sem_open(("/" + mutexName).c_str(), 0);
  if (sem == SEM_FAILED) return -1;
  int value = -1;
  sem_getvalue(sem, &value);
  sem_close(sem);
  return value;
}

/// Posts a cache's named mutex, as the operator would after choosing to free a lock left taken.
inline void postSemaphore(const std::string& mutexName) {
  sem_t* sem = sem_open(("/" + mutexName).c_str(), 0);
  ASSERT_NE(sem, SEM_FAILED);
  sem_post(sem);
  sem_close(sem);
}

/// A cache lock's owner record (in the first page of the named mutex's file) mapped read-write,
/// as a broken or foreign process would see it.
class RawRecord {
 public:
  explicit RawRecord(const std::string& mutexName) {
    const int fd = open(("/dev/shm/sem." + mutexName).c_str(), O_RDWR);
    EXPECT_GE(fd, 0) << "no named mutex " << mutexName;
    if (fd < 0) return;
    base_ = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (base_ == MAP_FAILED) base_ = nullptr;
  }
  ~RawRecord() {
    if (base_ != nullptr) munmap(base_, kBytes);
  }
  zev::detail::LockOwnerRecord* operator->() { return record(); }
  zev::detail::LockOwnerRecord* record() {
    return reinterpret_cast<zev::detail::LockOwnerRecord*>(static_cast<char*>(base_) +
                                                           zev::detail::LockOwnerRecord::kOffset);
  }
  /// Fills the record's bytes with one value.
  void fill(unsigned char value) { std::memset(record(), value, sizeof(zev::detail::LockOwnerRecord)); }

 private:
  static constexpr std::size_t kBytes =
      zev::detail::LockOwnerRecord::kOffset + sizeof(zev::detail::LockOwnerRecord);
  void* base_ = nullptr;
};

/// The message of a takeover of a lock left by `pid` running this test program.
inline std::string takeoverLine(const std::string& segment, pid_t pid) {
  return "MediaCache: " + segment + ": took over the lock left held by process " + std::to_string(pid) +
         " (" + zev::detail::lockProgramName() + "), which ended\n";
}

/// The body of a process outside the library: it waits for `go` (when given), locks the named
/// mutex itself, posts `holding`, keeps it for `micros` and releases it.
inline std::function<int()> holdsMutexDirectly(const std::string& mutexName, Pipe& holding, useconds_t micros,
                                               Pipe* go = nullptr) {
  return [mutexName, &holding, micros, go] {
    if (go != nullptr) go->await();
    boost::interprocess::named_mutex direct(boost::interprocess::open_only, mutexName.c_str());
    direct.lock();
    holding.post();
    usleep(micros);
    direct.unlock();
    return 0;
  };
}

/// The body of a process outside the library: it locks the named mutex itself, posts `holding`,
/// keeps it until `release` and gives it back.
inline std::function<int()> holdsMutexUntil(const std::string& mutexName, Pipe& holding, Pipe& release) {
  return [mutexName, &holding, &release] {
    boost::interprocess::named_mutex direct(boost::interprocess::open_only, mutexName.c_str());
    direct.lock();
    holding.post();
    release.await();
    direct.unlock();
    return 0;
  };
}

/// The body of a library process that takes one of the cache's locks as every operation does,
/// posts `holding` and keeps it until it is killed.
inline std::function<int()> holdsCacheLockUntilKilled(const zev::media::MediaCacheOptions& options,
                                                      Pipe& holding, bool playlistLock = false) {
  return [options, &holding, playlistLock] {
    zev::media::MediaCache own(options);
    auto hold = [&holding] {
      holding.post();
      for (;;) pause();
    };
    if (playlistLock)
      own.HoldPlaylistLock(hold);
    else
      own.HoldClipLock(hold);
    return 0;
  };
}

}  // namespace lock_test
