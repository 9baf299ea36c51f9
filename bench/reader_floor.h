// SPDX-License-Identifier: MIT
// Benchmarks: the least a scan's intake must do for one clip, exactly the movie reader's reads.
#pragma once

#define _FILE_OFFSET_BITS 64

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "qtstreaming.h"

namespace bench_support {

/// What the scan's intake must do for one clip at the least: stat it, open
/// it, make exactly the reads the movie reader makes of it (the atom
/// headers, the moov, the moofs of a fragmented movie, the timecode sample)
/// and close it. Bytes read.
inline std::size_t readerFloor(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  std::size_t got = 0;
  CQTReadSequence reads(static_cast<uint64_t>(st.st_size));
  uint64_t offset;
  std::size_t length;
  while (reads.NextRead(offset, length)) {
    unsigned char* buffer = reads.ReadBuffer();
    if (buffer == nullptr) break;
    const ssize_t n = pread(fd, buffer, length, static_cast<off_t>(offset));
    if (n > 0) got += static_cast<std::size_t>(n);
    reads.ReadDone(n == static_cast<ssize_t>(length), n < 0 ? errno : 0);
  }
  close(fd);
  return got;
}

}  // namespace bench_support
