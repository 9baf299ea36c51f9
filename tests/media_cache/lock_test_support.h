// SPDX-License-Identifier: MIT
// vorta tests: child processes, pipes and a watchdog for the lock tests; the raw semaphore and
// owner record of a cache lock.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
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

/// A cache lock's owner record mapped read-write, as a broken or foreign process would see it.
class RawRecord {
 public:
  explicit RawRecord(const std::string& mutexName) {
    const int fd = shm_open(("/" + mutexName + ".owner").c_str(), O_RDWR, 0);
    EXPECT_GE(fd, 0) << "no owner record for " << mutexName;
    if (fd < 0) return;
    void* base =
        mmap(nullptr, sizeof(zev::detail::LockOwnerRecord), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (base != MAP_FAILED) record_ = static_cast<zev::detail::LockOwnerRecord*>(base);
  }
  ~RawRecord() {
    if (record_ != nullptr) munmap(record_, sizeof(zev::detail::LockOwnerRecord));
  }
  zev::detail::LockOwnerRecord* operator->() { return record_; }
  void setHolder(std::uint32_t state, pid_t pid, std::uint64_t start) {
    record_->holderState = state;
    record_->holderPid = pid;
    record_->holderStartHigh = static_cast<std::uint32_t>(start >> 32);
    record_->holderStartLow = static_cast<std::uint32_t>(start);
  }
  void setClaim(pid_t pid, std::uint64_t start) {
    record_->claimPid = pid;
    record_->claimStartHigh = static_cast<std::uint32_t>(start >> 32);
    record_->claimStartLow = static_cast<std::uint32_t>(start);
  }

 private:
  zev::detail::LockOwnerRecord* record_ = nullptr;
};

/// The start time of a process in clock ticks after boot, read from /proc (field 22 of its stat).
inline std::uint64_t startTicks(pid_t pid) {
  FILE* f = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
  if (f == nullptr) return 0;
  char text[1024] = {};
  const std::size_t n = fread(text, 1, sizeof text - 1, f);
  fclose(f);
  const char* p = strrchr(text, ')');
  if (n == 0 || p == nullptr) return 0;
  for (int field = 2; field < 22 && p != nullptr; ++field) {
    p = strchr(p + 1, ' ');
  }
  return p != nullptr ? strtoull(p + 1, nullptr, 10) : 0;
}

/// The pid of a process that has ended (forked, ended and reaped).
inline pid_t endedPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
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
