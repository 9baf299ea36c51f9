// SPDX-License-Identifier: MIT
// Burn-in with no descriptor to spare: it opens nothing, so set-up and burns work as ever.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "rp188.h"

namespace {

// In a child with every descriptor taken: a set-up, a burn of each mode and
// the time code's text give what they give otherwise.
TEST(BurnInDescriptors, SetUpAndBurnsNeedNoDescriptor) {
  std::vector<char> expected(1440 * 486, 0x5A);
  CRP188 reference(1, 2, 3, 4, TCFormat30fps);
  ASSERT_TRUE(reference.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0));
  ASSERT_TRUE(reference.BurnTC(expected.data(), 1440, BurnTimecode, 0, true));
  std::fflush(nullptr);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(2);
    limit.rlim_cur = 64;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(2);
    while (::dup(2) >= 0) {
    }
    if (errno != EMFILE) _exit(2);
    std::vector<char> frame(1440 * 486, 0x5A);
    CRP188 tc(1, 2, 3, 4, TCFormat30fps);
    if (!tc.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0)) _exit(3);
    if (!tc.BurnTC(frame.data(), 1440, BurnTimecode, 0, true)) _exit(4);
    if (frame != expected) _exit(5);
    if (std::string(tc.GetRP188CString()) != "04:03:02:01") _exit(6);  // frames, seconds, minutes, hours
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
