// SPDX-License-Identifier: MIT
// Burn-in glyph memory: without it InitBurnIn still succeeds and BurnTC draws nothing; a destroyed
// timecode gives it back.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "rp188.h"
#include "test_support.h"

#if defined(__SANITIZE_ADDRESS__)
// The allocator must report a failed allocation with a null pointer, as the
// system allocator does, instead of ending the process.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace {

// Bytes of address space the process uses now.
long long addressSpace() {
  FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  long long pages = -1;
  if (std::fscanf(f, "%lld", &pages) != 1) pages = -1;
  std::fclose(f);
  return pages < 0 ? -1 : pages * sysconf(_SC_PAGESIZE);
}

// In a child whose address space is capped just above what it uses: a UHD
// set-up cannot get its 466,560-byte glyph buffer. InitBurnIn still returns
// true, as the device's callers expect, and leaves burnInReady as it was;
// with no glyphs BurnTC then draws nothing and returns false. Once memory is
// back the same call builds the glyphs.
TEST(BurnInAllocation, FailedAllocationStillReturnsTrueAndDrawsNothing) {
  if (vorta_test::underEmulation())
    GTEST_SKIP() << "the emulator maps its own memory inside the address-space limit";
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    CRP188 tc(1, 2, 3, 4, TCFormat30fps);
    if (!tc.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0)) _exit(10);
    std::vector<char> frame(15408 * 2160, 0x5A);
    rlimit old{};
    getrlimit(RLIMIT_AS, &old);
    const long long used = addressSpace();
    if (used <= 0) _exit(11);
    rlimit capped = old;
    capped.rlim_cur = static_cast<rlim_t>(used + 128 * 1024);
    if (setrlimit(RLIMIT_AS, &capped) != 0) _exit(12);
    const bool init = tc.InitBurnIn(FBF10BitRGB, SIZE{3840, 2160}, 0);
    setrlimit(RLIMIT_AS, &old);
    if (!init) _exit(13);
    BurnInGeometry g{};
    if (tc.GetBurnInGeometry(g)) _exit(14);
    if (tc.BurnTC(frame.data(), 15360, BurnTimecode, 0, false)) _exit(15);
    for (char c : frame)
      if (c != 0x5A) _exit(16);
    // Memory is back: the same arguments now build the glyphs.
    if (!tc.InitBurnIn(FBF10BitRGB, SIZE{3840, 2160}, 0)) _exit(17);
    if (!tc.BurnTC(frame.data(), 15360, BurnTimecode, 0, false)) _exit(18);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// A timecode whose burn-in glyphs were built gives them back when it is
// destroyed: 200 that each build an SD set (25,920 bytes) leave the heap as
// they found it.
TEST(BurnInAllocation, DestroyingATimecodeGivesBackItsGlyphs) {
  const auto withGlyphs = [] {
    CRP188 tc(1, 2, 3, 4, TCFormat30fps);
    BurnInGeometry g{};
    return tc.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0) && tc.GetBurnInGeometry(g);
  };
  ASSERT_TRUE(withGlyphs());  // whatever the C library sets up once is set up
  const std::size_t before = vorta_test::heapInUse();
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(withGlyphs());
  const std::size_t after = vorta_test::heapInUse();
  EXPECT_LT(after, before + 4096) << "200 timecodes kept " << static_cast<long long>(after - before)
                                  << " bytes";
}

}  // namespace
