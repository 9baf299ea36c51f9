// SPDX-License-Identifier: MIT
// vorta: the one owner of a file descriptor in the library and its platform pieces: closed exactly
// once, handed on by move, never copied.
#ifndef VORTA_INTERNAL_UNIQUE_FD_H
#define VORTA_INTERNAL_UNIQUE_FD_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace zev {
namespace detail {

class UniqueFd {
 public:
  UniqueFd() = default;
  /// Takes ownership of fd (a negative value owns nothing).
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  /// open(2) with O_CLOEXEC added, so that no descriptor of the library reaches a program the
  /// process runs. Owns nothing, with errno set, when the open fails.
  static UniqueFd open(const char* path, int flags, mode_t mode = 0) {
    return UniqueFd(::open(path, flags | O_CLOEXEC, mode));
  }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

  /// Gives the descriptor up without closing it.
  int release() { return std::exchange(fd_, -1); }
  /// Closes the owned descriptor (keeping errno as it was) and owns fd instead.
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      const int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }
  /// Closes the owned descriptor and says whether close(2) succeeded, for a writer that must know
  /// that its data reached the file. True when nothing was owned.
  bool close() {
    const int fd = release();
    return fd < 0 || ::close(fd) == 0;
  }

 private:
  int fd_ = -1;
};

}  // namespace detail
}  // namespace zev

#endif  // VORTA_INTERNAL_UNIQUE_FD_H
