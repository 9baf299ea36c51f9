// SPDX-License-Identifier: MIT
// Tests of file sizes beyond 2 GiB, which a 32-bit off_t cannot hold.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "test_support.h"

namespace {

// 3 GiB: past the largest value of a 32-bit off_t.
constexpr int64_t kBeyond2GiB = int64_t{3} << 30;

}  // namespace

// A movie on the medium may be larger than 2 GiB. The 64-bit stat family
// reports its size on every machine; the plain one cannot on the device,
// where it fails with EOVERFLOW instead of giving a wrong size.
TEST(LargeFiles, Stat64SizesAFileBeyond2GiBWherePlainStatCannot) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("big.mov");
  const int fd = open64(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  // Sparse: no data blocks are written.
  ASSERT_EQ(ftruncate64(fd, kBeyond2GiB), 0) << "errno " << errno;
  close(fd);

  struct stat64 big;
  ASSERT_EQ(stat64(path.c_str(), &big), 0);
  EXPECT_EQ(static_cast<int64_t>(big.st_size), 3221225472LL);

  struct stat plain;
  errno = 0;
  const int rc = stat(path.c_str(), &plain);
  if (sizeof(off_t) == 4) {
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(errno, EOVERFLOW);
  } else {
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(static_cast<int64_t>(plain.st_size), 3221225472LL);
  }
}
