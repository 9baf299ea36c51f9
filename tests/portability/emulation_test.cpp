// SPDX-License-Identifier: MIT
// Tests of the emulation check that lets a test skip what user-mode emulation cannot do.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "test_support.h"

// The build knows whether ctest starts its binaries through an emulator; the
// check run inside the binary must come to the same answer on its own. A
// runner that starts the cross-built binaries another way (the PowerPC
// guest's init, on a real PowerPC kernel) states its own answer in the
// environment variable of the same name.
TEST(UnderEmulation, AgreesWithHowTheBuildRunsItsTests) {
  const char* runner = std::getenv("VORTA_TEST_RUN_BY_EMULATOR");
  const bool expected =
      runner != nullptr && *runner != '\0' ? std::strcmp(runner, "1") == 0 : VORTA_TEST_RUN_BY_EMULATOR == 1;
  EXPECT_EQ(vorta_test::underEmulation(), expected);
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
