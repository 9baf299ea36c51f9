// SPDX-License-Identifier: MIT
// vorta: opening a medium's or the system's file without ever blocking on a FIFO, socket or
// device put under its name, and the byte-0 record lock the library's owner marks use.
#ifndef VORTA_INTERNAL_REGULAR_FILE_H
#define VORTA_INTERNAL_REGULAR_FILE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "internal/unique_fd.h"

namespace zev {
namespace detail {

/// open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, mode), then only a regular file is kept
/// and put back in blocking mode. Owns nothing, with errno set, when the open fails, and with
/// errno EISDIR for a directory or EINVAL for any other file that is not regular. `info`, when
/// given, gets what fstat said of the open file. Nothing is truncated or written.
UniqueFd openRegularFile(const char* path, int flags, mode_t mode = 0, struct stat64* info = nullptr);
/// openRegularFile for a path relative to the directory open as dirFd (or AT_FDCWD).
UniqueFd openRegularFileAt(int dirFd, const char* path, int flags, mode_t mode = 0,
                           struct stat64* info = nullptr);

/// A record-lock range of the single byte 0 with the given lock type.
struct flock byteZeroRange(short type);

}  // namespace detail
}  // namespace zev

#endif  // VORTA_INTERNAL_REGULAR_FILE_H
