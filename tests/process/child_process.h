// SPDX-License-Identifier: MIT
// vorta tests: running test code in forked child processes and talking to them over pipes.
#pragma once

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "test_support.h"

namespace process_test {

/// A pipe whose ends are closed when the object goes out of scope.
struct Pipe {
  Pipe();
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  void closeRead();
  void closeWrite();
  int read = -1;
  int write = -1;
};

/// Writes all of text to fd (for use in children; ignores errors).
void writeAll(int fd, const std::string& text);

/// Reads from fd until a newline, end of file or the time limit; returns the
/// text read without the newline.
std::string readLine(int fd, double seconds);

/// Reads from fd until end of file or the time limit.
std::string readUntilEof(int fd, double seconds);

/// Forks; the child runs body and then leaves with _exit(0) (body may leave
/// earlier on its own). Returns the child's pid; throws when fork fails.
pid_t forkChild(const std::function<void()>& body);

/// Waits for pid to end within the time limit and returns its raw wait
/// status; on time-out the child is killed with SIGKILL and -1 is returned.
int waitForExit(pid_t pid, double seconds);

/// True when this process may create files in /var/run (pid files).
bool canWritePidFiles();

/// True when path names an existing file.
bool fileExists(const std::string& path);

/// Seconds to allow for things that take milliseconds natively (generous,
/// and more so under emulation).
double patience();

// Definitions.

namespace detail {

inline double now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Reads what is available from fd, waiting at most until deadline. Returns
// false at end of file, on error or when the deadline has passed.
inline bool readSome(int fd, double deadline, std::string& into) {
  for (;;) {
    const double left = deadline - detail::now();
    if (left <= 0) return false;
    pollfd entry{fd, POLLIN, 0};
    const int ready = poll(&entry, 1, static_cast<int>(left * 1000) + 1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    char buffer[256];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    into.append(buffer, static_cast<std::size_t>(n));
    return true;
  }
}

}  // namespace detail

inline Pipe::Pipe() {
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
  read = fds[0];
  write = fds[1];
}

inline Pipe::~Pipe() {
  closeRead();
  closeWrite();
}

inline void Pipe::closeRead() {
  if (read != -1) ::close(read);
  read = -1;
}

inline void Pipe::closeWrite() {
  if (write != -1) ::close(write);
  write = -1;
}

inline void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

inline std::string readLine(int fd, double seconds) {
  const double deadline = detail::now() + seconds;
  std::string line;
  char c;
  for (;;) {
    // One byte at a time, so that nothing after the newline is consumed.
    const double left = deadline - detail::now();
    if (left <= 0) return line;
    pollfd entry{fd, POLLIN, 0};
    const int ready = poll(&entry, 1, static_cast<int>(left * 1000) + 1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return line;
    const ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || c == '\n') return line;
    line += c;
  }
}

inline std::string readUntilEof(int fd, double seconds) {
  const double deadline = detail::now() + seconds;
  std::string text;
  while (detail::readSome(fd, deadline, text)) {
  }
  return text;
}

inline pid_t forkChild(const std::function<void()>& body) {
  const pid_t pid = vorta_test::forkFlushed();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}

inline int waitForExit(pid_t pid, double seconds) {
  const double deadline = detail::now() + seconds;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return status;
    if (done < 0 && errno != EINTR) return -1;
    if (detail::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    usleep(5000);
  }
}

inline bool canWritePidFiles() { return access("/var/run", W_OK) == 0; }

inline bool fileExists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

inline double patience() { return vorta_test::underEmulation() ? 60.0 : 20.0; }

}  // namespace process_test
