// Allocation failure: each unit, with the Nth allocation made to fail, returns its failure and does not abort.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "lut_utils.h"
#include "rp188.h"
#include "test_support.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace {

using vorta_test::AllocationFailure;

// The helper itself: the nth allocation fails, the others do not.
TEST(AllocFailure, NthAllocationFails) {
  void* a;
  void* b;
  void* c;
  {
    AllocationFailure fail(2, false);
    a = std::malloc(16);
    b = std::malloc(16);
    c = std::malloc(16);
  }
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(b, nullptr);
  EXPECT_NE(c, nullptr);
  std::free(a);
  std::free(c);
}

// Burn-in with no memory for the glyphs: InitBurnIn returns true and builds
// nothing; BurnTC returns false and leaves the frame alone.
TEST(AllocFailure, BurnInWithoutMemoryDrawsNothing) {
  CRP188 tc(1, 2, 3, 4, TCFormat30fps);
  std::vector<char> frame(1440 * 486, 0x5A);
  bool init, burnt, geometry;
  BurnInGeometry g{};
  {
    AllocationFailure fail(1);
    init = tc.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0);
    geometry = tc.GetBurnInGeometry(g);
    burnt = tc.BurnTC(frame.data(), 1440, BurnTimecode, 0, false);
  }
  EXPECT_TRUE(init);
  EXPECT_FALSE(geometry);
  EXPECT_FALSE(burnt);
  for (char c : frame) ASSERT_EQ(c, 0x5A);
  // Memory back: the same set-up builds.
  EXPECT_TRUE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0));
  EXPECT_TRUE(tc.BurnTC(frame.data(), 1440, BurnTimecode, 0, false));
}

// A copy that cannot get memory for its glyphs has no burn-in of its own.
TEST(AllocFailure, CopyWithoutMemoryHasNoBurnIn) {
  CRP188 tc(1, 2, 3, 4, TCFormat30fps);
  ASSERT_TRUE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0));
  bool copyGeometry;
  BurnInGeometry g{};
  {
    AllocationFailure fail(1);
    CRP188 copy(tc);
    copyGeometry = copy.GetBurnInGeometry(g);
  }
  EXPECT_FALSE(copyGeometry);
  EXPECT_TRUE(tc.GetBurnInGeometry(g));
}

// Time code values and their text need no allocation at all: with every
// allocation failing they still work.
TEST(AllocFailure, TimecodeTextNeedsNoAllocation) {
  char text[32] = {};
  unsigned int frames = 0;
  long failed;
  {
    AllocationFailure fail(1);
    CRP188 tc(23, 59, 59, 23, TCFormat30fps);
    std::strncpy(text, tc.GetRP188CString(), sizeof text - 1);
    tc.GetRP188Frms(frames);
    failed = fail.failed();
  }
  EXPECT_STREQ(text, "23:59:59:23");
  EXPECT_EQ(frames, 23u);
  EXPECT_EQ(failed, 0);
}

// A LUT parse with its nth allocation failing, for every n up to the
// number a parse makes: in a child process each time, so that a crash is
// seen as one. Each either succeeds (the failed allocation had a fallback)
// or returns false with a message; none may end the process.
TEST(AllocFailure, LutParseWithEachAllocationFailing) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("two.lut");
  vorta_test::writeFile(path, "0 0 0\n1023 1023 1023\n");
  int survived = 0, failedCleanly = 0;
  std::vector<int> crashed;
  for (long n = 1; n <= 200; ++n) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      int16_t r[4], g[4], b[4];
      int32_t count = -7;
      std::string message;
      message.reserve(256);
      long failed;
      bool ok;
      {
        AllocationFailure fail(n, false);
        ok = zev::utils::LUT_Utils::parse(path, r, g, b, 4, count, message);
        failed = fail.failed();
      }
      if (failed == 0) _exit(ok && count == 2 ? 10 : 11);  // n is past the parse's allocations
      if (ok) _exit(count == 2 ? 0 : 12);
      _exit(message.empty() ? 13 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (!WIFEXITED(status)) {
      crashed.push_back(static_cast<int>(n));
      continue;
    }
    const int code = WEXITSTATUS(status);
    if (code == 10) break;
    ASSERT_TRUE(code == 0 || code == 1) << "allocation " << n << ": exit " << code;
    if (code == 0) ++survived; else ++failedCleanly;
  }
  std::printf("[ alloc    ] LUT parse: %d failures absorbed, %d returned false with a message, %zu crashed\n",
              survived, failedCleanly, crashed.size());
  std::string which;
  for (int n : crashed) which += " " + std::to_string(n);
  EXPECT_TRUE(crashed.empty()) << "allocations whose failure ended the process:" << which;
}

}  // namespace
