// SPDX-License-Identifier: MIT
// Opening a cache whose mutexes exist never asks the C library to create a semaphore.
//
// This test binary puts its own sem_open in front of the C library's, counts
// the calls that ask for creation, and passes every call on.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <string>

#include "media_cache.h"
#include "test_support.h"

namespace {
std::atomic<int> g_creating{0};
std::atomic<int> g_opening{0};
}  // namespace

extern "C" sem_t* sem_open(const char* name, int oflag, ...) {
  using Real = sem_t* (*)(const char*, int, ...);
  static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "sem_open"));
  if ((oflag & O_CREAT) == 0) {
    ++g_opening;
    return real(name, oflag);
  }
  ++g_creating;
  va_list args;
  va_start(args, oflag);
  const mode_t mode = va_arg(args, mode_t);
  const unsigned value = va_arg(args, unsigned);
  va_end(args);
  return real(name, oflag, mode, value);
}

namespace {

using zev::media::MediaCache;
using zev::media::MediaCacheOptions;

struct Names {
  Names() : options(MediaCacheOptions::named(vorta_test::uniqueName("vorta_open"))) {
    options.maxClips = 4;
    options.maxPlaylists = 2;
  }
  ~Names() { MediaCache::Remove(options); }
  MediaCacheOptions options;
};

TEST(MutexOpen, TheFirstCacheCreatesBothMutexes) {
  Names names;
  const int before = g_creating.load();
  MediaCache cache(names.options);
  EXPECT_GE(g_creating.load() - before, 2);
  EXPECT_EQ(cache.WriteClipCacheToSharedMemory({}), 1);
}

TEST(MutexOpen, LaterCachesOnlyOpenThem) {
  Names names;
  { MediaCache first(names.options); }
  const int creating = g_creating.load();
  const int opening = g_opening.load();
  MediaCache second(names.options);
  MediaCacheOptions openOnly = names.options;
  openOnly.create = false;
  MediaCache third(openOnly);
  EXPECT_EQ(g_creating.load(), creating);
  EXPECT_GE(g_opening.load() - opening, 4);
  EXPECT_EQ(second.WriteClipCacheToSharedMemory({}), 1);
  std::list<Clip> clips;
  EXPECT_EQ(third.ReadClipCacheFromSharedMemory(clips), 1);
}

// Processes on the same names, started together: each either creates the
// mutexes or opens them, and all of them use the same ones.
TEST(MutexOpen, ProcessesStartedTogetherShareTheMutexes) {
  Names names;
  constexpr int kProcesses = 6;
  pid_t children[kProcesses];
  for (pid_t& child : children) {
    child = fork();
    if (child == 0) {
      int status = 0;
      try {
        MediaCache cache(names.options);
        for (int i = 0; i < 50; ++i) {
          std::list<Clip> clips(2);
          cache.WriteClipCacheToSharedMemory(clips);
          std::list<Clip> read;
          if (cache.ReadClipCacheFromSharedMemory(read) != 1 || read.size() != 2) status = 1;
        }
      } catch (...) {
        status = 2;
      }
      _exit(status);
    }
  }
  for (pid_t child : children) {
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
}

}  // namespace
