// SPDX-License-Identifier: MIT
// vorta tests: temporary directories, unique names and small file helpers.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>

namespace vorta_test {

/// A directory under the system's temporary directory, removed with its
/// contents when the object goes out of scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  /// path() + "/" + name
  std::string file(const std::string& name) const;

 private:
  std::string path_;
};

/// A name no other test process uses at the same time (pid, time and a
/// counter), with the given prefix; for shared-memory segments and mutexes.
std::string uniqueName(const std::string& prefix);

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);

/// Path of a committed test fixture under tests/data.
std::string dataPath(const std::string& relative);

/// True when the process runs under user-mode emulation (qemu-user), where
/// a few kernel features behave differently: a robust mutex whose owner dies
/// is not recovered (EOWNERDEAD never comes), and a target binary cannot
/// execute another target binary (its own /proc/self/exe included); host
/// programs such as /bin/sh do run.
bool underEmulation();

/// Seconds on the monotonic clock.
double monotonicSeconds();

/// Runs body in a forked child and gives its exit code (128 + the signal for a child killed by
/// one, 99 when body throws). A child still running after `seconds` (0: 30 s, 120 s under
/// emulation), blocked on a FIFO say, is killed and -1 comes back, so a hang fails the test
/// instead of hanging the run; -2 when the child cannot be made or waited for.
int inChild(const std::function<int()>& body, double seconds = 0);

/// fork() with nothing left in the C library's stream buffers: a line
/// buffered before the fork (standard output to a file or pipe is fully
/// buffered) would otherwise be written by both processes.
pid_t forkFlushed();

/// Descriptors the process has open now, from /proc/self/fd (the one that
/// reads the directory included, the same every time).
int openDescriptors();

/// Bytes of heap the C library's allocator has handed out and not had back
/// (mallinfo2: blocks in use in the arenas plus blocks mapped on their own).
/// Compared before and after many repetitions of an operation it shows what
/// the operation keeps. AddressSanitizer's allocator replaces the C
/// library's, so under it the figure says nothing.
std::size_t heapInUse();

/// Lowers the soft RLIMIT_NOFILE so that exactly `spare` more descriptors
/// can be opened (descriptors are numbered from the lowest free one). False
/// when the limit could not be set.
bool limitDescriptors(int spare);

}  // namespace vorta_test
