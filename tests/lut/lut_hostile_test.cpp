// SPDX-License-Identifier: MIT
// LUT files a reviewer would try: too large, too many tokens, special files, a capped address space.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "lut_utils.h"
#include "test_support.h"

using zev::utils::LUT_Utils;

namespace {

struct Outcome {
  bool ok = false;
  int32_t count = -7;
  std::string message = "untouched";
};

Outcome parse(const std::string& path) {
  int16_t red[4] = {}, green[4] = {}, blue[4] = {};
  Outcome r;
  r.ok = LUT_Utils::parse(path, red, green, blue, 4, r.count, r.message);
  return r;
}

// A file of `bytes` bytes that takes no disk space: only its length is set.
void sparseFile(const std::string& path, long long bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(bytes)), 0) << path;
  ::close(fd);
}

// Runs fn in a child process and returns its exit status, or -1 when it
// was still running after `seconds` (it is then killed): a parse that
// blocks shows up as a failure instead of hanging the suite.
int inChildWithin(int seconds, const std::function<int()>& fn) { return vorta_test::inChild(fn, seconds); }

// ---- size bound

// One byte past the largest LUT file: refused before anything is read,
// as an error of the file (count 0, the message naming the file).
TEST(LutHostile, FileOneBytePastTheLimitIsRefusedUpFront) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("big.lut");
  sparseFile(path, static_cast<long long>(LUT_Utils::kMaxLutFileBytes) + 1);
  const Outcome r = parse(path);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.count, 0);
  EXPECT_EQ(r.message,
            "big.lut : 8388609 bytes is larger than a LUT file can be (at most 8388608 bytes) - nothing was "
            "read\n");
  EXPECT_EQ(g_error, 1u);
  EXPECT_EQ(g_error_message, r.message);
}

// A file of exactly the largest size is read: one entry, then a comment
// that fills the rest of the 8 MiB.
TEST(LutHostile, FileAtTheLimitIsRead) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("full.lut");
  std::string text = "1 2 3\n#";
  text.append(LUT_Utils::kMaxLutFileBytes - text.size() - 1, 'c');
  text += '\n';
  ASSERT_EQ(text.size(), LUT_Utils::kMaxLutFileBytes);
  vorta_test::writeFile(path, text);
  const Outcome r = parse(path);
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 1);
  EXPECT_EQ(r.message, "");
}

// The largest table the bound was chosen for: 65,536 lines of three 16-bit
// values with CR LF line ends, 1,245,184 bytes and 458,752 tokens.
TEST(LutHostile, LargestSixteenBitTableIsRead) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("table16.lut");
  std::string text;
  text.reserve(65536 * 19);
  for (int i = 0; i < 65536; ++i) text += "65535 65535 65535\r\n";
  ASSERT_EQ(text.size(), 1245184u);
  vorta_test::writeFile(path, text);
  std::vector<int16_t> red(65536), green(65536), blue(65536);
  int32_t count = 0;
  std::string message = "x";
  EXPECT_TRUE(LUT_Utils::parse(path, red.data(), green.data(), blue.data(), 65536, count, message));
  EXPECT_EQ(count, 65536);
  EXPECT_EQ(message, "");
  EXPECT_EQ(red[65535], -1);
}

// ---- token bound

// One token past the bound (1,048,577 blanks): refused whole with the count.
TEST(LutHostile, OneTokenPastTheLimitIsRefused) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("blanks.lut");
  vorta_test::writeFile(path, std::string(LUT_Utils::kMaxLutTokens + 1, ' '));
  const Outcome r = parse(path);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.count, 0);
  EXPECT_EQ(
      r.message,
      "blanks.lut : 1048577 blanks, line ends, numbers and comments are more than a LUT file can have (at "
      "most 1048576) - nothing was read\n");
}

// The count in the refusal is exact for every kind of token: a run of
// digits, a blank, tab, carriage return or line end, a "#" or "//" comment
// (with its line end, or to the end of the file), and nothing for other
// characters, for a "/" not followed by another, and for a "/" that is the
// file's last byte.
TEST(LutHostile, TheRefusalCountsEveryKindOfTokenExactly) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("kinds.lut");
  const std::string blanks(LUT_Utils::kMaxLutTokens, ' ');
  const auto refusal = [&](const std::string& tail) {
    vorta_test::writeFile(path, blanks + tail);
    const Outcome r = parse(path);
    EXPECT_FALSE(r.ok) << tail;
    const std::string head = "kinds.lut : ";
    const std::string rest =
        " blanks, line ends, numbers and comments are more than a LUT file can have (at most 1048576) - "
        "nothing "
        "was read\n";
    if (r.message.size() < head.size() + rest.size() || r.message.compare(0, head.size(), head) != 0 ||
        r.message.compare(r.message.size() - rest.size(), rest.size(), rest) != 0)
      return std::string("not a refusal: ") + r.message;
    return r.message.substr(head.size(), r.message.size() - head.size() - rest.size());
  };
  // 12, blank, 345, tab, CR, LF, "# note\n", "// note\n", blank: 9 tokens.
  EXPECT_EQ(refusal("12 345\t\r\n# note\n// note\n/x/y z/"), "1048585");
  // A comment that runs to the end of the file is one token too.
  EXPECT_EQ(refusal("//"), "1048577");
  EXPECT_EQ(refusal("#"), "1048577");
  // A lone "/" starts no comment: the number and line end after it are two tokens.
  EXPECT_EQ(refusal("/1\n"), "1048578");
}

// Exactly at the bound (1,048,575 line ends after one entry, 1,048,576
// tokens with its five): read, one entry.
TEST(LutHostile, TokensAtTheLimitAreRead) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("lines.lut");
  std::string text = "4 5 6";
  text.append(LUT_Utils::kMaxLutTokens - 5, '\n');
  vorta_test::writeFile(path, text);
  const Outcome r = parse(path);
  EXPECT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.count, 1);
}

// ---- special files

// With standard input closed, the file opened gets descriptor 0, which is
// as good as any other: the file is read and closed.
TEST(LutHostile, ReadsItsFileAsDescriptorZero) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("one.lut");
  vorta_test::writeFile(path, "1 2 3\n");
  const int status = inChildWithin(20, [&] {
    ::close(STDIN_FILENO);
    const Outcome r = parse(path);
    const bool closedAgain = fcntl(STDIN_FILENO, F_GETFD) == -1;
    return r.ok && r.count == 1 && closedAgain ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
}

// A FIFO with no writer: opening it for reading would block for ever. It
// is opened without blocking and refused as not a regular file, at once.
TEST(LutHostile, FifoIsRefusedWithoutBlocking) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("pipe.lut");
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  const int status = inChildWithin(20, [&] {
    const Outcome r = parse(path);
    return !r.ok && r.message == "Unable to open file" && r.count == -7 ? 0 : 1;
  });
  EXPECT_EQ(status, 0) << (status == -1 ? "the parse blocked on the FIFO" : "wrong result");
}

// A FIFO that a writer holds open and fills: still refused, nothing read.
TEST(LutHostile, FifoWithAWriterIsRefused) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("fed.lut");
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  const int status = inChildWithin(20, [&] {
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    const int writer = ::open(path.c_str(), O_WRONLY | O_NONBLOCK);
    if (reader < 0 || writer < 0) return 2;
    if (::write(writer, "1 2 3\n", 6) != 6) return 3;
    const Outcome r = parse(path);
    return !r.ok && r.message == "Unable to open file" ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
}

TEST(LutHostile, SocketIsRefused) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("sock.lut");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::strcpy(address.sun_path, path.c_str());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(fd, 1), 0);
  const int status = inChildWithin(20, [&] {
    testing::internal::CaptureStderr();
    const Outcome r = parse(path);
    const std::string err = testing::internal::GetCapturedStderr();
    return !r.ok && r.message == "Unable to open file" && err == "Failed to open file " + path + "\n" ? 0 : 1;
  });
  ::close(fd);
  EXPECT_EQ(status, 0);
}

TEST(LutHostile, DirectoryNamedLikeALutIsRefused) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("dir.lut");
  ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
  const Outcome r = parse(path);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message, "Unable to open file");
}

TEST(LutHostile, CharacterDeviceIsRefused) {
  const int status = inChildWithin(20, [] {
    const Outcome r = parse("/dev/zero");
    return !r.ok && r.message == "Unable to open file" ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
}

TEST(LutHostile, DanglingLinkIsRefused) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("gone.lut");
  ASSERT_EQ(::symlink(dir.file("nothing-here").c_str(), path.c_str()), 0);
  const Outcome r = parse(path);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message, "Unable to open file");
}

// A link to a regular file is read as the file.
TEST(LutHostile, LinkToARegularFileIsRead) {
  vorta_test::TempDir dir;
  vorta_test::writeFile(dir.file("real.lut"), "7 8 9\n");
  ASSERT_EQ(::symlink(dir.file("real.lut").c_str(), dir.file("link.lut").c_str()), 0);
  const Outcome r = parse(dir.file("link.lut"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 1);
}

// ---- descriptors

// The number of descriptors the process has open.
int openDescriptors() {
  int n = 0;
  for (int fd = 0; fd < 4096; ++fd)
    if (::fcntl(fd, F_GETFD) != -1) ++n;
  return n;
}

// With no descriptor to spare the file cannot be opened: false with the
// open message, nothing stored. One descriptor free is all a parse needs.
TEST(LutHostile, NoDescriptorToSpareReturnsFalseAndOneIsEnough) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("two.lut");
  vorta_test::writeFile(path, "1 2 3\n4 5 6\n");
  const int status = inChildWithin(20, [&] {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
    limit.rlim_cur = 64;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
    // Takes every descriptor left; gives the last one taken.
    const auto takeAll = [] {
      int last = -1;
      for (int fd; (fd = ::dup(2)) >= 0;) last = fd;
      return errno == EMFILE ? last : -1;
    };
    testing::internal::CaptureStderr();  // before: capturing needs descriptors of its own
    int last = takeAll();
    if (last < 0) return 2;
    const Outcome none = parse(path);
    ::close(last);  // reading the capture back opens its file again
    const std::string err = testing::internal::GetCapturedStderr();
    if (none.ok || none.message != "Unable to open file" || none.count != -7) return 3;
    if (err != "Failed to open file " + path + "\n") return 4;
    last = takeAll();
    if (last < 0) return 2;
    ::close(last);
    const Outcome one = parse(path);
    return one.ok && one.count == 2 ? 0 : 5;
  });
  EXPECT_EQ(status, 0);
}

// No parse leaves a descriptor open, whichever way it ends: a table, a
// syntax error, a file too large, not UTF-8, a FIFO, a missing file.
TEST(LutHostile, NoParseLeavesADescriptorOpen) {
  vorta_test::TempDir dir;
  vorta_test::writeFile(dir.file("good.lut"), "1 2 3\n");
  vorta_test::writeFile(dir.file("bad.lut"), "1 2 x\n");
  vorta_test::writeFile(dir.file("latin1.lut"), "# caf\xE9\n1 2 3\n");
  sparseFile(dir.file("big.lut"), static_cast<long long>(LUT_Utils::kMaxLutFileBytes) + 1);
  ASSERT_EQ(mkfifo(dir.file("pipe.lut").c_str(), 0644), 0);
  const int before = openDescriptors();
  for (const char* name : {"good.lut", "bad.lut", "latin1.lut", "big.lut", "pipe.lut", "missing.lut"}) {
    testing::internal::CaptureStderr();
    parse(dir.file(name));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(openDescriptors(), before) << name;
  }
}

// ---- address space

// Under a 1.2 GB address-space limit, a 1.5 GB (sparse) file: the parse
// returns false with the size message instead of ending the process.
TEST(LutHostile, HugeFileUnderAnAddressSpaceLimitReturnsFalse) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "AddressSanitizer reserves terabytes of address space and cannot run under RLIMIT_AS";
#endif
  if (vorta_test::underEmulation())
    GTEST_SKIP() << "the emulator maps its own memory inside the address-space limit";
  vorta_test::TempDir dir;
  const std::string path = dir.file("huge.lut");
  sparseFile(path, 1500LL * 1000 * 1000);
  const int status = inChildWithin(60, [&] {
    rlimit limit{};
    limit.rlim_cur = limit.rlim_max = 1200ull * 1000 * 1000;
    if (setrlimit(RLIMIT_AS, &limit) != 0) return 2;
    const Outcome r = parse(path);
    if (r.ok) return 3;
    if (r.message !=
        "huge.lut : 1500000000 bytes is larger than a LUT file can be (at most 8388608 bytes) - "
        "nothing was read\n")
      return 4;
    return 0;
  });
  EXPECT_EQ(status, 0);
}

// A file within both bounds whose 655,360 tokens (173 MB on a 64-bit
// machine) do not fit in the 48 MB the address space leaves: the parse
// returns false with the out-of-memory message, having stored nothing,
// instead of failing inside the recogniser and ending the process.
TEST(LutHostile, TokensThatDoNotFitInTheAddressSpaceReturnFalse) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "AddressSanitizer reserves terabytes of address space and cannot run under RLIMIT_AS";
#endif
  if (vorta_test::underEmulation())
    GTEST_SKIP() << "the emulator maps its own memory inside the address-space limit";
  vorta_test::TempDir dir;
  const std::string path = dir.file("many.lut");
  std::string text;
  for (int i = 0; i < 65536; ++i) text += "1023\t 1023\t 1023 \r\n";
  vorta_test::writeFile(path, text);
  const int status = inChildWithin(60, [&] {
    FILE* f = std::fopen("/proc/self/statm", "r");
    long long pages = 0;
    if (f == nullptr || std::fscanf(f, "%lld", &pages) != 1) return 2;
    std::fclose(f);
    std::vector<int16_t> red(65536), green(65536), blue(65536);
    int32_t count = -7;
    std::string message;
    message.reserve(128);
    rlimit limit{};
    limit.rlim_cur = limit.rlim_max = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE) + (48 << 20));
    if (setrlimit(RLIMIT_AS, &limit) != 0) return 2;
    testing::internal::CaptureStderr();
    const bool ok = LUT_Utils::parse(path, red.data(), green.data(), blue.data(), 65536, count, message);
    const std::string err = testing::internal::GetCapturedStderr();
    if (ok) return 3;
    if (message != "Internal error - out of memory reading file") return 4;
    if (err != "Out of memory reading file " + path + "\n") return 5;
    return count == 0 ? 0 : 6;
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
