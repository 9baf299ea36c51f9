// SPDX-License-Identifier: MIT
// Daemonizer's pid file against special files: a FIFO or directory under the pid file's name is
// neither blocked on nor written; a stale longer regular file is cut to the new pid.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "child_process.h"
#include "daemonutils.h"
#include "fail_alloc.h"
#include "test_support.h"

namespace {

using namespace process_test;

// Runs setupSignalHandler in a child whose short name is unique, after
// prepare has put something under its pid file's name; the child's exit
// code (-1 when it blocked and was killed).
int setUpWith(const std::string& shortName, const std::function<bool(const std::string&)>& prepare) {
  const std::string pidfile = "/var/run/" + shortName + ".pid";
  if (!prepare(pidfile)) return -3;
  const pid_t pid = forkChild([&] {
    program_invocation_short_name = strdup(shortName.c_str());
    Daemonizer::setupSignalHandler(shortName, nullptr, nullptr, true);
    _exit(0);
  });
  const int status = waitForExit(pid, patience());
  if (status == -1) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

TEST(DaemonizerHostile, AFifoOrDirectoryAsThePidFileIsNeitherBlockedOnNorWritten) {
  if (!canWritePidFiles()) GTEST_SKIP() << "needs write access to /var/run";
  const std::string fifoName = vorta_test::uniqueName("vorta_pidfifo");
  EXPECT_EQ(setUpWith(fifoName, [](const std::string& path) { return mkfifo(path.c_str(), 0644) == 0; }), 0)
      << "-1: blocked on the FIFO";
  struct stat info;
  const std::string fifo = "/var/run/" + fifoName + ".pid";
  ASSERT_EQ(lstat(fifo.c_str(), &info), 0);
  EXPECT_TRUE(S_ISFIFO(info.st_mode));
  unlink(fifo.c_str());

  const std::string dirName = vorta_test::uniqueName("vorta_piddir");
  EXPECT_EQ(setUpWith(dirName, [](const std::string& path) { return mkdir(path.c_str(), 0755) == 0; }), 0);
  const std::string dir = "/var/run/" + dirName + ".pid";
  ASSERT_EQ(lstat(dir.c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  rmdir(dir.c_str());
}

TEST(DaemonizerHostile, AStaleLongerPidFileIsCutToTheNewPid) {
  if (!canWritePidFiles()) GTEST_SKIP() << "needs write access to /var/run";
  const std::string name = vorta_test::uniqueName("vorta_pidstale");
  const std::string path = "/var/run/" + name + ".pid";
  EXPECT_EQ(setUpWith(name,
                      [](const std::string& file) {
                        vorta_test::writeFile(file, "123456789012345\nstale\n");
                        return true;
                      }),
            0);
  const std::string text = vorta_test::readFile(path);
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
  EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
  EXPECT_GT(std::atoi(text.c_str()), 0);
  unlink(path.c_str());
}

// With no descriptor left the pid file is skipped; set-up still finishes.
TEST(DaemonizerHostile, NoDescriptorLeftSkipsThePidFile) {
  if (!canWritePidFiles()) GTEST_SKIP() << "needs write access to /var/run";
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  const std::string name = vorta_test::uniqueName("vorta_pidnofd");
  const std::string path = "/var/run/" + name + ".pid";
  const pid_t pid = forkChild([&] {
    program_invocation_short_name = strdup(name.c_str());
    const int lowest = dup(0);
    if (lowest < 0) _exit(10);
    close(lowest);
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(11);
    limit.rlim_cur = static_cast<rlim_t>(lowest);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(12);
    Daemonizer::setupSignalHandler(name, nullptr, nullptr, true);
    _exit(0);
  });
  const int status = waitForExit(pid, patience());
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(fileExists(path));
  unlink(path.c_str());
}

// When the pid file's stream cannot be made (no memory for it), the file is
// left empty and its descriptor is closed, not leaked.
TEST(DaemonizerHostile, PidFileWithoutAStreamIsClosed) {
  if (!canWritePidFiles()) GTEST_SKIP() << "needs write access to /var/run";
  if (!vorta_test::allocationFailureAvailable()) GTEST_SKIP() << "allocations cannot be made to fail here";
  const std::string name = vorta_test::uniqueName("vorta_pidnostream");
  const std::string path = "/var/run/" + name + ".pid";
  const pid_t pid = forkChild([&] {
    program_invocation_short_name = strdup(name.c_str());
    // A first set-up loads what set-up loads once; the second one, with a
    // short daemon name, allocates nothing but the pid file's stream.
    Daemonizer::setupSignalHandler("d", nullptr, nullptr, true);
    const int before = dup(0);
    close(before);
    {
      vorta_test::FailAlloc failing;
      Daemonizer::setupSignalHandler("d", nullptr, nullptr, true);
      if (vorta_test::FailAlloc::failures() == 0) _exit(20);
    }
    const int after = dup(0);
    close(after);
    _exit(after == before ? 0 : 21);
  });
  const int status = waitForExit(pid, patience());
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0) << "20: nothing failed; 21: a descriptor left open";
  EXPECT_EQ(vorta_test::readFile(path), "");
  unlink(path.c_str());
}
