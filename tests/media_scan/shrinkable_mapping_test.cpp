// SPDX-License-Identifier: MIT
// Tests of the watched mappings: a fault in a mapping whose file was cut short gives zero pages and marks it
// lost.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "internal/shrinkable_mapping.h"
#include "test_support.h"

namespace {

using zev::detail::kMaxWatched;
using zev::detail::mappingKept;
using zev::detail::mappingLost;
using zev::detail::unwatchMapping;
using zev::detail::watchMapping;

const char* const kNoSigbusFromCutsUnderQemu =
    "qemu-user ends the process on a SIGBUS from a mapping cut short (uncaught target signal 7) instead of "
    "handing it to the program's handler; make test-ppc-system runs this on a PowerPC kernel";

// A new file of three pages at path, mapped shared whole: the mapping, its
// descriptor in fd; null when it cannot be made.
void* mapThreePages(const std::string& path, int& fd) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(3 * page)) != 0) return nullptr;
  void* mapped = mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return mapped == MAP_FAILED ? nullptr : mapped;
}

// A file of three pages cut short under its watched mapping, step by step:
// the pages still in the file keep their bytes; a read past the new end
// gives 0 instead of SIGBUS and loses the mapping from that page on; a cut
// to nothing loses it all, down to its first byte.
TEST(ShrinkableMapping, ReadsPastACutGiveZerosAndLoseTheRest) {
  if (vorta_test::underEmulation()) GTEST_SKIP() << kNoSigbusFromCutsUnderQemu;
  vorta_test::TempDir dir;
  const std::string path = dir.file("cut");
  const int code = vorta_test::inChild([&] {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    int fd = -1;
    void* mapped = mapThreePages(path, fd);
    if (mapped == nullptr) return 90;
    volatile char* bytes = static_cast<volatile char*>(mapped);
    for (std::size_t i = 0; i < 3; ++i) bytes[i * page] = static_cast<char>('a' + i);
    if (!watchMapping(mapped, 3 * page)) return 1;
    if (mappingLost(mapped) || mappingKept(mapped) != 3 * page) return 2;

    if (ftruncate(fd, static_cast<off_t>(page)) != 0) return 92;
    if (bytes[0] != 'a' || mappingLost(mapped)) return 3;  // the first page is still the file's
    if (bytes[2 * page + 5] != 0 || !mappingLost(mapped) || mappingKept(mapped) != 2 * page) return 4;
    if (bytes[page] != 0 || mappingKept(mapped) != page) return 5;
    if (bytes[0] != 'a') return 6;

    if (ftruncate(fd, 0) != 0) return 93;
    if (bytes[0] != 0 || mappingKept(mapped) != 0) return 7;
    bytes[1] = 'z';  // writes land in the zero pages
    if (bytes[1] != 'z') return 8;
    unwatchMapping(mapped);
    munmap(mapped, 3 * page);
    close(fd);
    return 0;
  });
  EXPECT_EQ(code, 0) << (code > 128 ? "ended by a signal" : "a step failed");
}

// A fault at the first byte past a watched range (in its last page, the
// range not being a whole number of pages) is not the range's: the process
// gets the SIGBUS as it would have.
TEST(ShrinkableMapping, AFaultJustPastAWatchedRangeIsNotTheRanges) {
  if (vorta_test::underEmulation()) GTEST_SKIP() << kNoSigbusFromCutsUnderQemu;
  vorta_test::TempDir dir;
  const std::string path = dir.file("cut");
  const int code = vorta_test::inChild([&] {
    const struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    // The default action is what the fault is handed on to (a sanitizer's
    // own SIGBUS handler would report it and exit with 1 instead).
    if (signal(SIGBUS, SIG_DFL) == SIG_ERR) return 91;
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    int fd = -1;
    void* mapped = mapThreePages(path, fd);
    if (mapped == nullptr) return 90;
    volatile char* bytes = static_cast<volatile char*>(mapped);
    if (!watchMapping(mapped, 2 * page + 100)) return 1;
    if (ftruncate(fd, static_cast<off_t>(page)) != 0) return 92;
    if (bytes[2 * page + 100] != 0) return 2;  // faults: ends the process
    return 3;
  });
  EXPECT_EQ(code, 128 + SIGBUS) << "3: the fault was taken as the watched range's";
}

// What is not watched is not found: lost never, all of it kept; nothing and
// an empty range cannot be watched.
TEST(ShrinkableMapping, UnwatchedMappingsAreWholeAndNothingIsWatchable) {
  static char notMapped[64];
  EXPECT_FALSE(mappingLost(notMapped));
  EXPECT_EQ(mappingKept(notMapped), static_cast<std::size_t>(-1));
  EXPECT_FALSE(mappingLost(nullptr));
  EXPECT_FALSE(watchMapping(nullptr, 4096));
  EXPECT_FALSE(watchMapping(notMapped, 0));
}

// At most kMaxWatched mappings are watched at once; a slot given back is
// taken by the next.
TEST(ShrinkableMapping, AtMostTheLimitAreWatchedAtOnce) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t count = static_cast<std::size_t>(kMaxWatched) + 1;
  void* mapped = mmap(nullptr, count * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  unsigned char* base = static_cast<unsigned char*>(mapped);
  int watched = 0;
  for (std::size_t i = 0; i < count; ++i) watched += watchMapping(base + i * page, page) ? 1 : 0;
  // Other watches of this process (none in this test binary) would take slots too.
  EXPECT_EQ(watched, kMaxWatched);
  EXPECT_EQ(mappingKept(base + (count - 1) * page), static_cast<std::size_t>(-1));
  unwatchMapping(base);
  EXPECT_EQ(mappingKept(base), static_cast<std::size_t>(-1));
  EXPECT_TRUE(watchMapping(base + (count - 1) * page, page));
  EXPECT_EQ(mappingKept(base + (count - 1) * page), page);
  for (std::size_t i = 0; i < count; ++i) unwatchMapping(base + i * page);
  munmap(mapped, count * page);
}

// The SIGBUS handler the program had before, one that takes the signal's
// details, gets a SIGBUS that is no access to a watched mapping (here: one
// sent by the process), with its details.
void previousHandler(int signal, siginfo_t* info, void*) {
  _exit(signal == SIGBUS && info != nullptr && info->si_signo == SIGBUS && info->si_code <= 0 ? 40 : 41);
}

// In a child: puts `handler` in place for SIGBUS as an SA_SIGINFO action,
// watches a page, and sends the process a SIGBUS; 12 when it returns from
// that, 10 or 11 when the setting up failed.
int sendSigbusAfterSiginfoAction(void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction before = {};
  before.sa_sigaction = handler;
  before.sa_flags = SA_SIGINFO;
  sigemptyset(&before.sa_mask);
  if (sigaction(SIGBUS, &before, nullptr) != 0) return 10;
  void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED || !watchMapping(page, 4096)) return 11;
  raise(SIGBUS);
  return 12;
}

TEST(ShrinkableMapping, ASigbusNotForAWatchedMappingGoesToTheHandlerBeforeWithItsDetails) {
  const int code = vorta_test::inChild([] { return sendSigbusAfterSiginfoAction(previousHandler); });
  EXPECT_EQ(code, 40) << "41: it ran without the details, 12: the handler before never ran";
}

// The default action set with SA_SIGINFO (no function) stays the default
// action once a mapping is watched: a SIGBUS sent to the process ends it.
TEST(ShrinkableMapping, ADefaultActionSetWithSiginfoStaysTheDefault) {
  const int code = vorta_test::inChild([] {
    const struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    return sendSigbusAfterSiginfoAction(nullptr);  // SIG_DFL
  });
  EXPECT_EQ(code, 128 + SIGBUS) << "12: the process survived a SIGBUS it did not handle";
}

// A program that ignores SIGBUS still ignores one sent to it once a mapping
// is watched: only a fault, which cannot be ignored, takes the default action.
TEST(ShrinkableMapping, AnIgnoredSigbusSentByAProcessStaysIgnored) {
  const int code = vorta_test::inChild([] {
    if (signal(SIGBUS, SIG_IGN) == SIG_ERR) return 10;
    void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED || !watchMapping(page, 4096)) return 11;
    raise(SIGBUS);
    kill(getpid(), SIGBUS);
    return 40;
  });
  EXPECT_EQ(code, 40) << "the process did not survive a SIGBUS it ignores";
}

// A SIGBUS with a fault's code (BUS_ADRALN, as a misaligned access gives)
// for no watched mapping, in a program that ignores SIGBUS, puts the default
// action back: a fault cannot be ignored. (The process queues the signal to
// itself, which only it may do with a fault's code.)
TEST(ShrinkableMapping, AFaultForNoWatchedMappingRestoresTheDefaultWhereSigbusWasIgnored) {
  if (vorta_test::underEmulation())
    GTEST_SKIP() << "qemu-user takes a SIGBUS with a fault's code for a fault of its own and stops "
                    "(rcu_read_unlock assertion); make test-ppc-system runs this on a PowerPC kernel";
  const int code = vorta_test::inChild([] {
    if (signal(SIGBUS, SIG_IGN) == SIG_ERR) return 10;
    void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED || !watchMapping(page, 4096)) return 11;
    siginfo_t info;
    std::memset(&info, 0, sizeof info);
    info.si_signo = SIGBUS;
    info.si_code = BUS_ADRALN;
    if (syscall(SYS_rt_sigqueueinfo, getpid(), SIGBUS, &info) != 0) return 12;
    struct sigaction now;
    if (sigaction(SIGBUS, nullptr, &now) != 0) return 13;
    return now.sa_handler == SIG_DFL && (now.sa_flags & SA_SIGINFO) == 0 ? 0 : 1;
  });
  EXPECT_EQ(code, 0) << "1: the fault was taken as ignored";
}

}  // namespace
