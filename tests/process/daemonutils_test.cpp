// SPDX-License-Identifier: MIT
// Tests of Daemonizer: pid file, termination, status and crash signals, detaching; in real child processes.
#include "daemonutils.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "child_process.h"
#include "fail_alloc.h"
#include "test_support.h"

// The C library's chdir and backtrace, failing on request: this binary's
// definitions come before the C library's for the daemon code's calls too.
namespace {
volatile int gFailChdir = 0;
// backtrace aborts, as an unwinder that cannot read a signal frame does.
volatile int gAbortBacktrace = 0;
}  // namespace

extern "C" int chdir(const char* path) {
  if (gFailChdir != 0) {
    errno = EACCES;
    return -1;
  }
  static const auto real = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "chdir"));
  return real(path);
}

extern "C" int backtrace(void** buffer, int size) {
  if (gAbortBacktrace != 0) abort();
  static const auto real = reinterpret_cast<int (*)(void**, int)>(dlsym(RTLD_NEXT, "backtrace"));
  return real(buffer, size);
}

namespace {

using namespace process_test;
using vorta_test::readFile;
using vorta_test::TempDir;
using vorta_test::uniqueName;

// Where a child's hooks report to, and where it reads the test's go-ahead
// from (set in the child only).
int gReportFd = -1;
int gCommandFd = -1;

// Blocks until the test writes a line to the child.
void awaitGo() { readLine(gCommandFd, patience()); }

void reportSignal(const char* what, int sig) {
  char line[64];
  const int n = std::snprintf(line, sizeof line, "%s %d\n", what, sig);
  if (n > 0) (void)!::write(gReportFd, line, static_cast<std::size_t>(n));
}

void onTermination(int sig) { reportSignal("hook", sig); }

std::string onStatus() {
  reportSignal("status", 0);
  return "running";
}

void report(const std::string& line) { writeAll(gReportFd, line + "\n"); }

std::string yesNo(bool value) { return value ? "yes" : "no"; }

// One child process running daemon code: its standard output and error go
// to files, its short invocation name (the pid file's stem) is unique, and
// it reports to the test over a pipe.
class DaemonChild {
 public:
  explicit DaemonChild(const std::string& shortName) : shortName_(shortName) {}
  ~DaemonChild() {
    if (pid_ > 0) waitForExit(pid_, 0);
    unlink(pidfile().c_str());
  }

  void start(const std::function<void()>& body) {
    pid_ = forkChild([&] {
      report_.closeRead();
      command_.closeWrite();
      gReportFd = report_.write;
      gCommandFd = command_.read;
      const int out = open(dir_.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      const int err = open(dir_.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, STDOUT_FILENO);
      dup2(err, STDERR_FILENO);
      program_invocation_short_name = strdup(shortName_.c_str());
      body();
    });
    report_.closeWrite();
    command_.closeRead();
  }

  /// Lets the child go on from awaitGo(). A signal sent before this is
  /// handled by the child before it returns from awaitGo().
  void go() { writeAll(command_.write, "go\n"); }

  pid_t pid() const { return pid_; }
  std::string pidfile() const { return "/var/run/" + shortName_ + ".pid"; }
  std::string line() { return readLine(report_.read, patience()); }
  std::string rest() { return readUntilEof(report_.read, patience()); }
  int wait() {
    const int status = waitForExit(pid_, patience());
    pid_ = -1;
    return status;
  }
  std::string out() const { return readFile(dir_.file("out")); }
  std::string err() const { return readFile(dir_.file("err")); }

 private:
  std::string shortName_;
  TempDir dir_;
  Pipe report_;
  Pipe command_;
  pid_t pid_ = -1;
};

#define REQUIRE_PID_FILES()                                                                  \
  do {                                                                                       \
    if (!canWritePidFiles()) GTEST_SKIP() << "needs write access to /var/run (run as root)"; \
  } while (0)

std::string receivedLine(const std::string& name, int sig, pid_t pid) {
  return name + ":  Received SIGNAL " + std::to_string(sig) + ", shutting down (PID:" + std::to_string(pid) +
         ")\n";
}

// A program whose short invocation name is recorder... writes
// /var/run/recorder....pid holding its pid and a newline; SIGTERM calls the
// hook, counts the signal, prints the shutdown line and removes the file.
TEST(Daemonizer, PidFileHoldsPidAndNewlineAndSigtermRemovesIt) {
  REQUIRE_PID_FILES();
  DaemonChild child(uniqueName("recorder"));
  child.start([] {
    Daemonizer::setupSignalHandler("recorder", onTermination, nullptr, false);
    report(std::string("ready ") + Daemonizer::pidfile);
    Daemonizer::sleepUntilKilled();
    report("killed " + std::to_string(Daemonizer::killed) + " pidfile " +
           yesNo(access(Daemonizer::pidfile, F_OK) == 0));
  });
  ASSERT_EQ(child.line(), "ready " + child.pidfile());
  EXPECT_EQ(vorta_test::readFile(child.pidfile()), std::to_string(child.pid()) + "\n");

  ASSERT_EQ(kill(child.pid(), SIGTERM), 0);
  EXPECT_EQ(child.line(), "hook 15");
  EXPECT_EQ(child.line(), "killed 1 pidfile no");
  const pid_t pid = child.pid();
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(fileExists(child.pidfile()));
  EXPECT_EQ(child.err(), receivedLine("recorder", SIGTERM, pid));
  EXPECT_EQ(child.out(), "");
}

// The shutdown line is assembled in a fixed buffer of 512 bytes (no
// allocation in a signal handler): a daemon name that long is cut there,
// and the line is written whole up to that point.
TEST(Daemonizer, ShutdownLineOfAVeryLongNameIsCutAt512Bytes) {
  DaemonChild child(uniqueName("longname"));
  const std::string name(600, 'n');
  child.start([&] {
    Daemonizer::setupSignalHandler(name, nullptr, nullptr, true);
    report("ready");
    Daemonizer::sleepUntilKilled();
    report("killed");
  });
  ASSERT_EQ(child.line(), "ready");
  ASSERT_EQ(kill(child.pid(), SIGINT), 0);
  EXPECT_EQ(child.line(), "killed");
  const pid_t pid = child.pid();
  child.wait();
  EXPECT_EQ(child.err(), receivedLine(name, SIGINT, pid).substr(0, 512));
  // A short name, for the digits of the signal and the pid.
  DaemonChild other(uniqueName("short"));
  other.start([&] {
    Daemonizer::setupSignalHandler("d", nullptr, nullptr, true);
    report("ready");
    Daemonizer::sleepUntilKilled();
  });
  ASSERT_EQ(other.line(), "ready");
  const pid_t otherPid = other.pid();
  ASSERT_EQ(kill(otherPid, SIGTERM), 0);
  other.wait();
  EXPECT_EQ(other.err(), "d:  Received SIGNAL 15, shutting down (PID:" + std::to_string(otherPid) + ")\n");
}

// A daemon whose standard error is closed still handles the signal: the
// shutdown line that cannot be written is given up, not retried for ever.
TEST(Daemonizer, ClosedStandardErrorDoesNotHoldUpTheSignal) {
  DaemonChild child(uniqueName("noerr"));
  child.start([] {
    Daemonizer::setupSignalHandler("noerr", nullptr, nullptr, true);
    ::close(STDERR_FILENO);
    report("ready");
    Daemonizer::sleepUntilKilled();
    report("killed " + std::to_string(Daemonizer::killed));
  });
  ASSERT_EQ(child.line(), "ready");
  ASSERT_EQ(kill(child.pid(), SIGTERM), 0);
  EXPECT_EQ(child.line(), "killed 1");
  EXPECT_EQ(child.wait(), 0);
}

// A step of daemonize that fails is reported on the standard error the
// process had, with the daemon's name, the step and the system's reason,
// and the daemon still starts.
TEST(Daemonizer, AFailedStepIsReportedWithTheDaemonsName) {
  const bool subreaper = prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0;
  DaemonChild child(uniqueName("nochdir"));
  child.start([] {
    gFailChdir = 1;
    Daemonizer::daemonize("nochdir", nullptr, nullptr, true);
    report(std::to_string(getpid()));
  });
  EXPECT_EQ(child.wait(), 0);
  const std::string pid = child.line();
  ASSERT_FALSE(pid.empty());
  EXPECT_EQ(child.err(), "nochdir: chdir /tmp: Permission denied\n");
  if (subreaper) waitForExit(static_cast<pid_t>(std::stol(pid)), patience());
}

// With hasCleanupAfterKilled the pid file outlives the signal and goes with setDone.
TEST(Daemonizer, SigtermWithCleanupAfterKilledKeepsPidFileUntilSetDone) {
  REQUIRE_PID_FILES();
  DaemonChild child(uniqueName("keeper"));
  child.start([] {
    Daemonizer::setupSignalHandler("keeper", onTermination, nullptr, true);
    report("ready");
    Daemonizer::sleepUntilKilled();
    report("after signal: killed " + std::to_string(Daemonizer::killed) + " pidfile " +
           yesNo(access(Daemonizer::pidfile, F_OK) == 0));
    Daemonizer::setDone();
    report(std::string("after setDone: pidfile ") + yesNo(access(Daemonizer::pidfile, F_OK) == 0));
  });
  ASSERT_EQ(child.line(), "ready");
  EXPECT_TRUE(fileExists(child.pidfile()));
  ASSERT_EQ(kill(child.pid(), SIGTERM), 0);
  EXPECT_EQ(child.line(), "hook 15");
  EXPECT_EQ(child.line(), "after signal: killed 1 pidfile yes");
  EXPECT_EQ(child.line(), "after setDone: pidfile no");
  const pid_t pid = child.pid();
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  // No usage complaint: setDone is the expected way here.
  EXPECT_EQ(child.err(), receivedLine("keeper", SIGTERM, pid));
}

// setDone without hasCleanupAfterKilled prints the usage line and removes the file all the same.
TEST(Daemonizer, SetDoneWithoutCleanupAfterKilledPrintsUsageAndRemovesPidFile) {
  REQUIRE_PID_FILES();
  DaemonChild child(uniqueName("daemon"));
  child.start([] {
    Daemonizer::setupSignalHandler("daemon", nullptr, nullptr, false);
    report(std::string("before: pidfile ") + yesNo(access(Daemonizer::pidfile, F_OK) == 0));
    Daemonizer::setDone();
    report(std::string("after: pidfile ") + yesNo(access(Daemonizer::pidfile, F_OK) == 0));
  });
  EXPECT_EQ(child.line(), "before: pidfile yes");
  EXPECT_EQ(child.line(), "after: pidfile no");
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(child.err(), "daemon:  setDone usage: Call daemonize with hasCleanupAfterKilled=true\n");
  EXPECT_EQ(child.out(), "");
}

// SIGUSR1 with a status hook is caught and ignored: no count, no hook, no
// output, the pid file stays; the status hook itself is never called.
TEST(Daemonizer, Sigusr1WithStatusHookChangesNothingAndPrintsNothing) {
  REQUIRE_PID_FILES();
  DaemonChild child(uniqueName("status"));
  child.start([] {
    Daemonizer::setupSignalHandler("status", onTermination, onStatus, true);
    raise(SIGUSR1);
    report("ready");
    awaitGo();
    report("killed " + std::to_string(Daemonizer::killed) + " pidfile " +
           yesNo(access(Daemonizer::pidfile, F_OK) == 0));
    unlink(Daemonizer::pidfile);
  });
  ASSERT_EQ(child.line(), "ready");
  ASSERT_EQ(kill(child.pid(), SIGUSR1), 0);
  child.go();
  EXPECT_EQ(child.rest(), "killed 0 pidfile yes\n");
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(child.err(), "");
  EXPECT_EQ(child.out(), "");
}

// Without a status hook SIGUSR1 is left to its default action, which ends the process.
TEST(Daemonizer, Sigusr1WithoutStatusHookIsNotCaught) {
  DaemonChild child(uniqueName("nostatus"));
  child.start([] {
    Daemonizer::setupSignalHandler("nostatus", onTermination, nullptr, false);
    raise(SIGUSR1);
    report("survived");
  });
  EXPECT_EQ(child.rest(), "");
  const int status = child.wait();
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGUSR1);
}

// SIGINT is a termination signal like SIGTERM; every one is counted and reported.
TEST(Daemonizer, SigintCountsAsTerminationEachTime) {
  REQUIRE_PID_FILES();
  DaemonChild child(uniqueName("interrupted"));
  child.start([] {
    Daemonizer::setupSignalHandler("interrupted", onTermination, nullptr, false);
    raise(SIGINT);
    raise(SIGINT);
    report("killed " + std::to_string(Daemonizer::killed) + " pidfile " +
           yesNo(access(Daemonizer::pidfile, F_OK) == 0));
  });
  EXPECT_EQ(child.rest(), "hook 2\nhook 2\nkilled 2 pidfile no\n");
  const pid_t pid = child.pid();
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(child.err(), receivedLine("interrupted", SIGINT, pid) + receivedLine("interrupted", SIGINT, pid));
}

// A crash writes the back-trace to standard output, removes the pid file
// (even one the caller meant to keep) and ends with status -99, which the
// parent sees as 157.
TEST(Daemonizer, SigsegvWritesBacktraceAndExitsWithMinus99) {
  REQUIRE_PID_FILES();
  DaemonChild child(uniqueName("crasher"));
  child.start([] {
    Daemonizer::setupSignalHandler("crasher", onTermination, nullptr, true);
    report("ready");
    raise(SIGSEGV);
    report("survived");
  });
  EXPECT_EQ(child.line(), "ready");
  EXPECT_EQ(child.rest(), "");
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
  EXPECT_EQ(WEXITSTATUS(status), 157);
  EXPECT_EQ(WEXITSTATUS(status), -99 & 0xFF);
  EXPECT_FALSE(fileExists(child.pidfile()));
  const std::string trace = child.out();
  EXPECT_EQ(child.err(), "");
  if (trace.empty() && vorta_test::underEmulation()) {
    // qemu-user's signal frames cannot be unwound: the unwinder aborts and
    // the crash ends through the abort path, with the same status and clean-up.
    std::cout << "note: no back-trace under emulation (its signal frames cannot be unwound)\n";
    return;
  }
  ASSERT_FALSE(trace.empty());
  EXPECT_NE(trace.find("[0x"), std::string::npos) << trace;
  EXPECT_EQ(trace.back(), '\n');
}

// Calls itself depth times (each frame kept: the sum is taken after the
// call), then crashes.
__attribute__((noinline)) int crashAtDepth(int depth) {
  volatile int here = depth;
  if (depth == 0) {
    raise(SIGSEGV);
    return 0;
  }
  return crashAtDepth(depth - 1) + here;
}

// A crash deeper than 1024 calls writes the innermost 1024 frames, one line each.
TEST(Daemonizer, CrashTraceHoldsAtMost1024Frames) {
  DaemonChild child(uniqueName("no-such-dir") + "/deep");
  child.start([] {
    Daemonizer::setupSignalHandler("deep", nullptr, nullptr, true);
    report("ready");
    crashAtDepth(1100);
    report("survived");
  });
  EXPECT_EQ(child.line(), "ready");
  EXPECT_EQ(child.rest(), "");
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
  EXPECT_EQ(WEXITSTATUS(status), 157);
  const std::string trace = child.out();
  if (trace.empty() && vorta_test::underEmulation()) {
    std::cout << "note: no back-trace under emulation (its signal frames cannot be unwound)\n";
    return;
  }
  EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 1024);
}

// The back-trace of a crash needs no heap: the unwinder was loaded at
// set-up, so a crash where allocation fails still gets its trace.
TEST(Daemonizer, CrashTraceIsTakenWithoutTheHeap) {
  if (!vorta_test::allocationFailureAvailable()) GTEST_SKIP() << "allocations cannot be made to fail here";
  DaemonChild child(uniqueName("no-such-dir") + "/noheap");
  child.start([] {
    Daemonizer::setupSignalHandler("noheap", nullptr, nullptr, true);
    report("ready");
    vorta_test::FailAlloc noHeap;
    raise(SIGSEGV);
  });
  EXPECT_EQ(child.line(), "ready");
  EXPECT_EQ(child.rest(), "");
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
  EXPECT_EQ(WEXITSTATUS(status), 157);
  const std::string trace = child.out();
  if (trace.empty() && vorta_test::underEmulation()) {
    std::cout << "note: no back-trace under emulation (its signal frames cannot be unwound)\n";
    return;
  }
  EXPECT_NE(trace.find("[0x"), std::string::npos) << trace;
}

// When taking the back-trace aborts (an unwinder that cannot read the
// signal frame gives up so), the crash still removes the pid file and ends
// with status -99.
TEST(Daemonizer, AbortWhileTakingTheCrashTraceStillEndsWithMinus99) {
  REQUIRE_PID_FILES();
  DaemonChild child(uniqueName("unwound"));
  child.start([] {
    Daemonizer::setupSignalHandler("unwound", onTermination, nullptr, true);
    gAbortBacktrace = 1;
    report("ready");
    awaitGo();
    raise(SIGSEGV);
    report("survived");
  });
  EXPECT_EQ(child.line(), "ready");
  EXPECT_TRUE(fileExists(child.pidfile()));
  child.go();
  EXPECT_EQ(child.rest(), "");
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
  EXPECT_EQ(WEXITSTATUS(status), 157);
  EXPECT_FALSE(fileExists(child.pidfile()));
  EXPECT_EQ(child.out(), "");
  EXPECT_EQ(child.err(), "");
}

// A termination hook that leaves errno at EINTR does not keep the handler
// writing: the shutdown line is written once and the handler returns.
void leaveEintr(int) { errno = EINTR; }

TEST(Daemonizer, HookLeavingEintrDoesNotHoldUpTheShutdownLine) {
  DaemonChild child(uniqueName("no-such-dir") + "/eintr");
  child.start([] {
    Daemonizer::setupSignalHandler("eintr", leaveEintr, nullptr, true);
    report("ready");
    Daemonizer::sleepUntilKilled();
    report("killed " + std::to_string(Daemonizer::killed));
  });
  ASSERT_EQ(child.line(), "ready");
  ASSERT_EQ(kill(child.pid(), SIGTERM), 0);
  EXPECT_EQ(child.line(), "killed 1");
  const pid_t pid = child.pid();
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(child.err(), receivedLine("eintr", SIGTERM, pid));
}

// With standard input closed the pid file takes descriptor 0, and is
// written all the same.
TEST(Daemonizer, PidFileOnDescriptorZeroIsWritten) {
  REQUIRE_PID_FILES();
  DaemonChild child(uniqueName("nostdin"));
  child.start([] {
    ::close(STDIN_FILENO);
    Daemonizer::setupSignalHandler("nostdin", nullptr, nullptr, true);
    report("ready");
    awaitGo();
    unlink(Daemonizer::pidfile);
  });
  ASSERT_EQ(child.line(), "ready");
  EXPECT_EQ(readFile(child.pidfile()), std::to_string(child.pid()) + "\n");
  child.go();
  EXPECT_EQ(child.wait(), 0);
}

// A pid file that cannot be opened is skipped; the handlers work all the same.
TEST(Daemonizer, UnopenablePidFileIsSkipped) {
  const std::string shortName = uniqueName("no-such-dir") + "/daemon";
  DaemonChild child(shortName);
  child.start([] {
    Daemonizer::setupSignalHandler("nodir", nullptr, nullptr, false);
    report(Daemonizer::pidfile);
    raise(SIGTERM);
    report("killed " + std::to_string(Daemonizer::killed));
  });
  EXPECT_EQ(child.line(), "/var/run/" + shortName + ".pid");
  EXPECT_EQ(child.line(), "killed 1");
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(fileExists(child.pidfile()));
}

// The pid file path is cut to 127 characters and its terminator.
TEST(Daemonizer, PidFilePathIsCutTo127Characters) {
  std::string shortName = uniqueName("long");
  shortName += std::string(150 - shortName.size(), 'n');
  DaemonChild child(shortName);
  child.start([] {
    Daemonizer::setupSignalHandler("long", nullptr, nullptr, true);
    report(Daemonizer::pidfile);
    unlink(Daemonizer::pidfile);
  });
  const std::string path = child.line();
  EXPECT_EQ(path.size(), 127u);
  EXPECT_EQ(path, ("/var/run/" + shortName + ".pid").substr(0, 127));
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// Set-up stores the hooks and the prefixed name and starts counting from 0.
TEST(Daemonizer, SetupStoresHooksAndResetsKilled) {
  DaemonChild child(uniqueName("no-such-dir") + "/setup");
  child.start([] {
    // Before any set-up: not killed, no frames, no hooks, the pid file not kept.
    report("before " + std::to_string(Daemonizer::killed) + " " + std::to_string(Daemonizer::size) +
           " hooks " + yesNo(Daemonizer::_handleTermOrKillSignal != nullptr) +
           yesNo(Daemonizer::_getStatus != nullptr) + " keep " + yesNo(Daemonizer::_hasCleanupAfterKilled));
    Daemonizer::killed = 5;
    Daemonizer::setupSignalHandler("setup", onTermination, onStatus, true);
    report("killed " + std::to_string(Daemonizer::killed) + " name [" + Daemonizer::name + "] hooks " +
           yesNo(Daemonizer::_handleTermOrKillSignal == onTermination) +
           yesNo(Daemonizer::_getStatus == onStatus) + " keep " + yesNo(Daemonizer::_hasCleanupAfterKilled) +
           " frames " + std::to_string(Daemonizer::size));
  });
  EXPECT_EQ(child.rest(),
            "before 0 0 hooks nono keep no\nkilled 0 name [setup: ] hooks yesyes keep yes frames 0\n");
  EXPECT_EQ(child.wait(), 0);
}

TEST(Daemonizer, SleepUntilKilledReturnsAtOnceWhenAlreadyKilled) {
  Daemonizer::killed = 1;
  Daemonizer::sleepUntilKilled();
  Daemonizer::printStatus();  // does nothing
  EXPECT_EQ(Daemonizer::killed, 1);
  Daemonizer::killed = 0;
}

// daemonize detaches: the caller's process exits 0, the daemon is a
// grandchild in a new session (not its leader), works in /tmp with umask 0,
// reads /dev/null, writes its pid file and stops cleanly on SIGTERM.
TEST(Daemonizer, DaemonizeDetachesIntoANewSession) {
  // Become the daemon's parent once it is orphaned, to reap it at the end.
  const bool subreaper = prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0;
  DaemonChild child(uniqueName("detached"));
  const pid_t testSession = getsid(0);
  child.start([] {
    Daemonizer::daemonize("detached", onTermination, nullptr, false);
    char cwd[PATH_MAX] = "";
    if (getcwd(cwd, sizeof cwd) == nullptr) cwd[0] = '\0';
    const mode_t mask = umask(0);
    char in[PATH_MAX] = "";
    const ssize_t n = readlink("/proc/self/fd/0", in, sizeof in - 1);
    if (n > 0) in[n] = '\0';
    char out[PATH_MAX] = "";
    const ssize_t m = readlink("/proc/self/fd/1", out, sizeof out - 1);
    if (m > 0) out[m] = '\0';
    // Standard error is the console when it can be opened, else /dev/null.
    const char* errOn = "closed";
    struct stat err, device;
    if (fstat(STDERR_FILENO, &err) == 0 && S_ISCHR(err.st_mode)) {
      if (stat("/dev/console", &device) == 0 && device.st_rdev == err.st_rdev)
        errOn = "console";
      else if (stat("/dev/null", &device) == 0 && device.st_rdev == err.st_rdev)
        errOn = "null";
    }
    report(std::to_string(getpid()) + " " + std::to_string(getsid(0)) + " " + cwd + " " +
           std::to_string(mask) + " " + in + " " + Daemonizer::pidfile + " " + out + " " + errOn);
    Daemonizer::sleepUntilKilled();
    report("killed " + std::to_string(Daemonizer::killed) + " pidfile " +
           yesNo(access(Daemonizer::pidfile, F_OK) == 0));
  });
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);

  const std::string line = child.line();
  long daemonPid = 0, session = 0, mask = -1;
  char cwd[256] = "", in[256] = "", pidfile[256] = "", out[256] = "", err[256] = "";
  ASSERT_EQ(std::sscanf(line.c_str(), "%ld %ld %255s %ld %255s %255s %255s %255s", &daemonPid, &session, cwd,
                        &mask, in, pidfile, out, err),
            8)
      << line;
  // Stops the daemon should a check below fail before it is told to.
  struct DaemonStopper {
    pid_t pid;
    ~DaemonStopper() {
      if (pid > 0) kill(pid, SIGKILL);
    }
  } stopper{static_cast<pid_t>(daemonPid)};
  EXPECT_NE(daemonPid, child.pid());
  EXPECT_NE(session, testSession);
  EXPECT_NE(session, daemonPid);  // not the session leader: cannot take a terminal
  // The caller's process left at the first fork: a child of it made the session.
  EXPECT_NE(session, child.pid());
  EXPECT_STREQ(cwd, "/tmp");
  EXPECT_EQ(mask, 0);
  EXPECT_STREQ(in, "/dev/null");
  EXPECT_STREQ(out, "/dev/null");
  const int console = open("/dev/console", O_WRONLY | O_NOCTTY);
  if (console >= 0) close(console);
  EXPECT_STREQ(err, console >= 0 ? "console" : "null");
  // Nothing failed on the way, so nothing was said on the standard error it had.
  EXPECT_EQ(child.err(), "");
  EXPECT_EQ(pidfile, child.pidfile());
  if (canWritePidFiles()) {
    EXPECT_EQ(readFile(child.pidfile()), std::to_string(daemonPid) + "\n");
    struct stat info;
    ASSERT_EQ(stat(child.pidfile().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0666u);  // created with 0666 under the daemon's mask 0
  }

  ASSERT_EQ(kill(static_cast<pid_t>(daemonPid), SIGTERM), 0);
  const std::string rest = child.rest();
  EXPECT_EQ(rest, "hook 15\nkilled 1 pidfile no\n");
  // The report pipe reached its end: the daemon has exited.
  if (rest == "hook 15\nkilled 1 pidfile no\n") stopper.pid = 0;
  EXPECT_FALSE(fileExists(child.pidfile()));
  if (subreaper) {
    const int daemonStatus = waitForExit(static_cast<pid_t>(daemonPid), patience());
    ASSERT_TRUE(WIFEXITED(daemonStatus));
    EXPECT_EQ(WEXITSTATUS(daemonStatus), 0);
    // The session's leader, the daemon's parent, also left with status 0.
    const int leaderStatus = waitForExit(static_cast<pid_t>(session), patience());
    ASSERT_TRUE(WIFEXITED(leaderStatus)) << leaderStatus;
    EXPECT_EQ(WEXITSTATUS(leaderStatus), 0);
  }
}

// When fork fails, each failure is reported with the daemon's name, and the
// daemon runs on in the calling process. Fork is made to fail by a process
// limit of 0 on a user id of its own (no privilege to go past it).
TEST(Daemonizer, AFailedForkIsReportedAndTheDaemonRunsInTheCaller) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to take a user id of its own";
  DaemonChild child(uniqueName("nofork"));
  child.start([] {
    const uid_t unused = 3000000000u + static_cast<uid_t>(getpid() % 100000);
    struct rlimit none = {0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || setgid(unused) != 0 || setuid(unused) != 0) {
      report("no user id of its own");
      return;
    }
    Daemonizer::daemonize("nofork", nullptr, nullptr, true);
    report(std::to_string(getpid()));
  });
  const std::string line = child.line();
  EXPECT_EQ(line, std::to_string(child.pid()));
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(child.err(),
            "nofork: fork: Resource temporarily unavailable\n"
            "nofork: fork: Resource temporarily unavailable\n");
}

}  // namespace
