// SPDX-License-Identifier: MIT
// The movie reader against hostile files and an exhausted process: special files named like
// movies, no descriptor left, allocations failing at every point, the movie-atom cap.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "fail_alloc.h"
#include "mov_builder.h"
#include "qtstreaming.h"
#include "test_support.h"
#include "zevqtfileparams.h"

namespace {

using vorta_test::dataPath;
using vorta_test::inChild;
using vorta_test::TempDir;
using vorta_test::writeFile;

const char* kClip = "qt/hd1080_p25.mov";

// Reads of the movie reader that fail with EINTR before reading, as a read
// interrupted by a signal does.
std::atomic<int> gInterruptReads{0};

}  // namespace

// The reader's reads go through pread64 (64-bit offsets on every target).
extern "C" ssize_t pread64(int fd, void* buffer, size_t length, off64_t offset) {
  if (gInterruptReads.load() > 0) {
    gInterruptReads.fetch_sub(1);
    errno = EINTR;
    return -1;
  }
  using Read = ssize_t (*)(int, void*, size_t, off64_t);
  static const Read real = reinterpret_cast<Read>(dlsym(RTLD_NEXT, "pread64"));
  return real(fd, buffer, length, offset);
}

// FIFOs (with no writer), a socket, a directory, devices and links to them
// are refused at once; OpenError says the file was refused (0) or gives the
// open's own error, never a resource failure.
TEST(QtReaderHostile, SpecialFilesAreRefusedWithoutBlocking) {
  TempDir dir;
  ASSERT_EQ(mkfifo(dir.file("fifo.mov").c_str(), 0600), 0);
  ASSERT_EQ(mkdir(dir.file("dir.mov").c_str(), 0700), 0);
  ASSERT_EQ(symlink(dir.file("fifo.mov").c_str(), dir.file("tofifo.mov").c_str()), 0);
  ASSERT_EQ(symlink(dir.file("absent").c_str(), dir.file("dangling.mov").c_str()), 0);
  ASSERT_EQ(symlink("/dev/zero", dir.file("zero.mov").c_str()), 0);
  sockaddr_un address;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  const std::string socketPath = dir.file("socket.mov");
  ASSERT_LT(socketPath.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size());
  const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

  struct Case {
    std::string path;
    int error;
  };
  const Case cases[] = {{dir.file("fifo.mov"), 0},
                        {dir.file("tofifo.mov"), 0},
                        {dir.file("dir.mov"), 0},
                        {dir.file("zero.mov"), 0},
                        {"/dev/null", 0},
                        {socketPath, ENXIO},
                        {dir.file("dangling.mov"), ENOENT}};
  int code = 0;
  for (const Case& c : cases) {
    ++code;
    EXPECT_EQ(inChild([&] {
                CQTStreaming reader;
                if (reader.OpenForReading(c.path)) return 1;
                if (reader.OpenError() != c.error) return 2;
                if (reader.BytesRead() != 0) return 3;
                CZEVQTFileParams params(c.path.c_str());
                if (params.FileIsValid() || params.readError != c.error) return 4;
                return 0;
              }),
              0)
        << c.path << " (-1: blocked)";
  }
  close(sock);
}

// With no descriptor left the reader fails with EMFILE, which tells the
// scan that the process, not the file, failed.
TEST(QtReaderHostile, NoDescriptorLeftIsReportedAsEmfile) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  EXPECT_EQ(inChild([] {
              const std::string path = dataPath(kClip);
              const int lowest = dup(0);
              if (lowest < 0) return 10;
              close(lowest);
              struct rlimit limit;
              if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 11;
              limit.rlim_cur = static_cast<rlim_t>(lowest);
              if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 12;
              CQTStreaming reader;
              if (reader.OpenForReading(path)) return 1;
              if (reader.OpenError() != EMFILE) return 2;
              CZEVQTFileParams params(path.c_str());
              if (params.FileIsValid() || params.readError != EMFILE) return 3;
              // One descriptor more and the same file reads.
              limit.rlim_cur = static_cast<rlim_t>(lowest + 1);
              if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 13;
              if (!reader.OpenForReading(path) || reader.OpenError() != 0) return 4;
              return 0;
            }),
            0);
}

// Every allocation of an intake made to fail in turn: the reader and the
// factory either read the movie whole or fail with ENOMEM; nothing throws.
TEST(QtReaderHostile, AllocationFailureAtEveryPointFailsWithEnomem) {
  if (!vorta_test::allocationFailureAvailable()) GTEST_SKIP() << "a sanitizer owns malloc in this build";
  EXPECT_EQ(inChild([]() -> int {
              const std::string path = dataPath(kClip);
              int failed = 0;
              for (long budget = 0; budget < 10000; ++budget) {
                std::unique_ptr<CFileParams> params;
                long refused = 0;
                int error = 0;
                try {
                  vorta_test::FailAlloc failing(budget);
                  errno = 0;
                  params.reset(CFileParams::create(path.c_str()));
                  error = errno;
                  refused = vorta_test::FailAlloc::failures();
                } catch (...) {
                  return 1;
                }
                if (!params) {
                  if (error != ENOMEM) return 2;
                  ++failed;
                  continue;
                }
                auto* scanner = dynamic_cast<CZEVQTFileParams*>(params.get());
                if (scanner == nullptr) return 3;
                if (!scanner->FileIsValid()) {
                  if (scanner->readError != ENOMEM) return 4;
                  ++failed;
                  continue;
                }
                if (params->width != 1920 || params->height != 1080) return 5;
                if (refused == 0) return failed > 0 ? 0 : 6;
              }
              return 7;
            }),
            0);
  // The reader alone: no memory at all for the movie atom.
  EXPECT_EQ(inChild([] {
              CQTStreaming reader;
              const std::string path = dataPath(kClip);
              bool opened = true;
              {
                vorta_test::FailAlloc failing;
                opened = reader.OpenForReading(path);
              }
              if (opened || reader.OpenError() != ENOMEM) return 1;
              return reader.OpenForReading(path) ? 0 : 2;
            }),
            0);
}

// The movie-atom cap: an atom of exactly kMaxMovieAtomSize bytes is read,
// one byte more is refused before anything of it is read.
TEST(QtReaderHostile, MovieAtomAtAndJustPastTheCap) {
  TempDir dir;
  const uint64_t cap = CQTStreaming::kMaxMovieAtomSize;
  for (uint64_t body : {cap, cap + 1}) {
    const std::string path = dir.file("cap.mov");
    const std::string head =
        movbuild::atom("ftyp", "qt  ") + movbuild::be32(static_cast<uint32_t>(body + 8)) + "moov";
    writeFile(path, head);
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(head.size() + body)), 0);
    CQTStreaming reader;
    EXPECT_FALSE(reader.OpenForReading(path));  // zeros are no movie either way
    EXPECT_EQ(reader.OpenError(), 0);
    if (body == cap)
      EXPECT_GE(reader.BytesRead(), cap) << "an atom at the cap is read";
    else
      EXPECT_LT(reader.BytesRead(), 1024u) << "an atom past the cap is refused unread";
  }
}

// A regular file that ends before its stated size (a sysfs attribute says
// 4096 bytes and holds a line): the read that meets the end is no system
// error, so the file is refused with OpenError 0.
TEST(QtReaderHostile, FileShorterThanItsSizeIsRefusedWithoutError) {
  const char* path = "/sys/class/net/lo/address";
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 512)
    GTEST_SKIP() << path << " is not a sysfs file longer than its contents here";
  CQTStreaming reader;
  EXPECT_FALSE(reader.OpenForReading(path));
  EXPECT_EQ(reader.OpenError(), 0);
  EXPECT_GT(reader.BytesRead(), 0u);
  EXPECT_LT(reader.BytesRead(), 512u);
}

// A read interrupted by a signal before it read anything is made again:
// the movie reads as it does uninterrupted.
TEST(QtReaderHostile, InterruptedReadsAreMadeAgain) {
  CQTStreaming plain;
  ASSERT_TRUE(plain.OpenForReading(dataPath("qt/tc_df_2997.mov")));
  uint32_t expected = 0;
  ASSERT_TRUE(plain.GetStartingTimecode(expected));

  CQTStreaming reader;
  gInterruptReads.store(3);
  const bool opened = reader.OpenForReading(dataPath("qt/tc_df_2997.mov"));
  const int left = gInterruptReads.exchange(0);
  ASSERT_TRUE(opened);
  EXPECT_EQ(left, 0);
  EXPECT_EQ(reader.OpenError(), 0);
  EXPECT_EQ(reader.BytesRead(), plain.BytesRead());
  uint32_t start = 0;
  ASSERT_TRUE(reader.GetStartingTimecode(start));
  EXPECT_EQ(start, expected);
}
