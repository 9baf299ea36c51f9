// SPDX-License-Identifier: MIT
// Tests of the library's one way of opening a file that must be regular, and of its byte-0 lock range.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "internal/regular_file.h"
#include "test_support.h"

namespace {

using zev::detail::byteZeroRange;
using zev::detail::openRegularFile;

// A regular file opens in blocking mode, close-on-exec, and fstat's view of
// it is handed back.
TEST(RegularFile, ARegularFileOpensBlockingAndCloseOnExec) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("f");
  vorta_test::writeFile(path, "12345");
  struct stat64 info {};
  const int fd = openRegularFile(path.c_str(), O_RDONLY, 0, &info).release();
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(info.st_size, 5);
  EXPECT_TRUE(S_ISREG(info.st_mode));
  ::close(fd);
  // Created with the mode given, when asked to create.
  const int created = openRegularFile(dir.file("new").c_str(), O_WRONLY | O_CREAT, 0600).release();
  ASSERT_GE(created, 0);
  ::close(created);
  struct stat status;
  ASSERT_EQ(stat(dir.file("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

// Anything else fails with -1 and says why in errno, without blocking and
// without a descriptor left open: a missing file (ENOENT), a directory
// (EISDIR), a FIFO with no writer (EINVAL).
TEST(RegularFile, OtherFilesAreRefusedWithTheirReason) {
  vorta_test::TempDir dir;
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
  const int before = open("/dev/null", O_RDONLY);
  ASSERT_GE(before, 0);
  ::close(before);
  struct {
    std::string path;
    int error;
  } const cases[] = {{dir.file("missing"), ENOENT}, {dir.path(), EISDIR}, {dir.file("fifo"), EINVAL}};
  for (const auto& c : cases) {
    errno = 0;
    EXPECT_EQ(openRegularFile(c.path.c_str(), O_RDONLY).get(), -1) << c.path;
    EXPECT_EQ(errno, c.error) << c.path;
  }
  const int after = open("/dev/null", O_RDONLY);
  EXPECT_EQ(after, before);  // nothing left open
  ::close(after);
}

// The lock range is the single byte 0 of the file, of the type asked for.
TEST(RegularFile, ByteZeroRange) {
  for (short type : {static_cast<short>(F_WRLCK), static_cast<short>(F_RDLCK), static_cast<short>(F_UNLCK)}) {
    const struct flock range = byteZeroRange(type);
    EXPECT_EQ(range.l_type, type);
    EXPECT_EQ(range.l_whence, SEEK_SET);
    EXPECT_EQ(range.l_start, 0);
    EXPECT_EQ(range.l_len, 1);
    EXPECT_EQ(range.l_pid, 0);
  }
}

}  // namespace
