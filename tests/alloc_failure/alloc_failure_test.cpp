// SPDX-License-Identifier: MIT
// Allocation failure: each unit, with the Nth allocation made to fail, returns its failure and does not
// abort.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "alloc_failure_each.h"
#include "lut_utils.h"
#include "rp188.h"
#include "test_support.h"

namespace {

using vorta_test::AllocationFailure;

class AllocFailure : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  }
};

// The helper itself: the nth allocation fails, the others do not.
TEST_F(AllocFailure, NthAllocationFails) {
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
TEST_F(AllocFailure, BurnInWithoutMemoryDrawsNothing) {
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
TEST_F(AllocFailure, CopyWithoutMemoryHasNoBurnIn) {
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

// Burn-in set-up, copy and assignment, each allocation failing in turn:
// each run either has glyphs and draws the time code, or has none, says
// so (GetBurnInGeometry false) and leaves the frame alone. Never a crash
// and never a frame touched by a set-up that failed.
TEST_F(AllocFailure, BurnInSetUpCopyAndAssignmentUnderEachFailure) {
  const alloc_test::EachAllocation r = alloc_test::failEachAllocationInTurn([](long n, long& failed) {
    std::vector<char> frame(1440 * 486, 0x5A);
    CRP188 source(1, 2, 3, 4, TCFormat30fps);
    if (!source.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0)) return 20;
    CRP188 assigned(0, 0, 0, 0, TCFormat30fps);
    bool init, copyHas, assignedHas, ownHas;
    BurnInGeometry g{};
    {
      AllocationFailure fail(n, false);
      CRP188 own(5, 6, 7, 8, TCFormat30fps);
      init = own.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0);
      ownHas = own.GetBurnInGeometry(g);
      if (!ownHas && own.BurnTC(frame.data(), 1440, BurnTimecode, 0, false)) return 21;
      CRP188 copy(source);
      copyHas = copy.GetBurnInGeometry(g);
      if (!copyHas && copy.BurnTC(frame.data(), 1440, BurnTimecode, 0, false)) return 22;
      assigned = source;
      assignedHas = assigned.GetBurnInGeometry(g);
      failed = fail.failed();
    }
    if (!init) return 23;  // a set-up that fits is accepted, glyphs or not
    for (char c : frame)
      if (c != 0x5A) return 24;
    if (assignedHas && !assigned.BurnTC(frame.data(), 1440, BurnTimecode, 0, false)) return 25;
    return ownHas && copyHas && assignedHas ? 0 : 1;
  });
  std::printf("[ alloc    ] burn-in: %d allocations failed in turn, %d absorbed, %d left without glyphs\n",
              r.runs - 1, r.absorbed, r.failedCleanly);
  EXPECT_GT(r.failedCleanly, 0);
  EXPECT_EQ(r.absorbed + r.failedCleanly, r.runs - 1) << "allocations whose failure went wrong:" << r.what;
}

// Time code values and their text need no allocation at all: with every
// allocation failing they still work.
TEST_F(AllocFailure, TimecodeTextNeedsNoAllocation) {
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

// The ANTLR runtime (a shared library of its own) does not check its own
// allocations: a null from malloc there is dereferenced. This library
// cannot change that, so the runtime's direct calls are left alone here;
// every allocation the parse entry, its hooks, the generated recognisers
// and the C++ library on their behalf make fails in turn.
const void* antlrRuntimeCode() { return dlsym(RTLD_DEFAULT, "antlr3StringStreamNew"); }

// A LUT parse with its nth allocation failing, for every n up to the
// number a parse makes. Each either succeeds (the failed allocation had a
// fallback) or returns false with a message; none may end the process.
void lutParseUnderEachFailure(const std::string& text, bool expectedResult, int32_t expectedCount) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("table.lut");
  vorta_test::writeFile(path, text);
  ASSERT_TRUE(vorta_test::exemptCallersIn(antlrRuntimeCode()));
  const alloc_test::EachAllocation r = alloc_test::failEachAllocationInTurn([&](long n, long& failed) {
    int16_t red[8], green[8], blue[8];
    int32_t count = -7;
    std::string message;
    message.reserve(1024);
    bool ok;
    {
      AllocationFailure fail(n, false);
      ok = zev::utils::LUT_Utils::parse(path, red, green, blue, 8, count, message);
      failed = fail.failed();
    }
    if (ok == expectedResult && count == expectedCount && (ok || !message.empty())) return 0;
    if (ok) return 12;
    return message.empty() ? 13 : 1;
  });
  vorta_test::exemptCallersIn(nullptr);
  std::printf(
      "[ alloc    ] LUT parse: %d allocations failed in turn, %d absorbed, %d returned false with a "
      "message, %zu crashed\n",
      r.runs - 1, r.absorbed, r.failedCleanly, r.crashed.size());
  EXPECT_GT(r.failedCleanly, 0);
  EXPECT_EQ(r.absorbed + r.failedCleanly, r.runs - 1) << "allocations whose failure went wrong:" << r.what;
}

TEST_F(AllocFailure, LutParseWithEachAllocationFailing) {
  lutParseUnderEachFailure("0 0 0\n1023 1023 1023\n", true, 2);
}

// The same with a lexer error and a parser error in the file: the error
// hooks compose their messages under failing allocations too.
TEST_F(AllocFailure, LutParseOfABadFileWithEachAllocationFailing) {
  lutParseUnderEachFailure("# two rows\n0 0 0\n1 2 x\n4 5\n6 7 8\n", false, 2);
}

}  // namespace
