// SPDX-License-Identifier: MIT
// Tests of the emulation check that lets a test skip what user-mode emulation cannot do.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_support.h"

// The build knows whether ctest starts its binaries through an emulator; the
// check run inside the binary must come to the same answer on its own.
TEST(UnderEmulation, AgreesWithHowTheBuildRunsItsTests) {
  EXPECT_EQ(vorta_test::underEmulation(), VORTA_TEST_RUN_BY_EMULATOR == 1);
}

// A forked child is still the same emulated (or native) process image.
TEST(UnderEmulation, GivesTheSameAnswerInAForkedChild) {
  const bool parent = vorta_test::underEmulation();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(vorta_test::underEmulation() ? 1 : 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), parent ? 1 : 0);
}
