// SPDX-License-Identifier: MIT
// vorta: non-blocking opens of regular files and the byte-0 lock range (see regular_file.h).
#include "internal/regular_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zev {
namespace detail {

UniqueFd openRegularFile(const char* path, int flags, mode_t mode, struct stat64* info) {
  return openRegularFileAt(AT_FDCWD, path, flags, mode, info);
}

UniqueFd openRegularFileAt(int dirFd, const char* path, int flags, mode_t mode, struct stat64* info) {
  UniqueFd fd(::openat(dirFd, path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, mode));
  if (!fd) return fd;
  struct stat64 seen;
  int error = 0;
  const int status = ::fcntl(fd.get(), F_GETFL);
  if (::fstat64(fd.get(), &seen) != 0 || status == -1)
    error = errno;
  else if (!S_ISREG(seen.st_mode))
    error = S_ISDIR(seen.st_mode) ? EISDIR : EINVAL;
  else if (::fcntl(fd.get(), F_SETFL, status & ~O_NONBLOCK) == -1)
    error = errno;
  if (error != 0) {
    fd.reset();
    errno = error;
    return fd;
  }
  if (info != nullptr) *info = seen;
  return fd;
}

struct flock byteZeroRange(short type) {
  struct flock range;
  std::memset(&range, 0, sizeof range);
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = 0;
  range.l_len = 1;
  return range;
}

}  // namespace detail
}  // namespace zev
