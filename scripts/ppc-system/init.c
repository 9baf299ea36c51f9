// SPDX-License-Identifier: MIT
// The first and only program of the PowerPC test guest that
// scripts/ppc-system.sh boots under qemu-system-ppc.
//
// It mounts what the tests use (proc, sysfs, devtmpfs, tmpfs on /dev/shm),
// opens /tmp to everyone, runs every program listed in /etc/vorta-tests once
// (the GoogleTest binaries, then /tests/cli-cases, the runner of the tool's
// command-line cases, which reports the same way), copies their output to the
// serial console while counting passed, failed and skipped tests from
// GoogleTest's summary lines and host-only cases from the runner's
// "[ HOST ONLY ]" lines, prints a summary with one line per program and the
// host-only cases with their reasons, ending in
//
//   N skipped
//   N passed, N failed
//
// and powers the machine off. A program that ends without its summary (a
// crash, a signal, a time-out) counts as one failed test.
//
// Settings come from the kernel command line, which hands unknown name=value
// words to init as environment variables:
//   VORTA_EPOCH=SECONDS          sets the clock (the machine has no RTC)
//   VORTA_TEST_TIMEOUT=SECONDS   limit for one binary (default 1800)
//   GTEST_FILTER=PATTERN         read by GoogleTest itself
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define MAX_TESTS 64

static void say(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vdprintf(STDOUT_FILENO, format, args);
  va_end(args);
}

static void mountOrSay(const char* source, const char* target, const char* type, const char* data) {
  mkdir(target, 0755);
  if (mount(source, target, type, MS_NOSUID, data) != 0)
    say("init: cannot mount %s on %s: %s\n", type, target, strerror(errno));
}

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static void setUp(void) {
  // devtmpfs first: the console device lives there (the kernel's automatic
  // devtmpfs mount does not act for an initramfs).
  mountOrSay("devtmpfs", "/dev", "devtmpfs", NULL);
  const int console = open("/dev/console", O_RDWR | O_NOCTTY);
  if (console >= 0) {
    dup2(console, STDIN_FILENO);
    dup2(console, STDOUT_FILENO);
    dup2(console, STDERR_FILENO);
    if (console > STDERR_FILENO) close(console);
  }
  mountOrSay("proc", "/proc", "proc", NULL);
  // What a shell expects beside the devices: bash's process substitution
  // reads /dev/fd/N.
  symlink("/proc/self/fd", "/dev/fd");
  symlink("/proc/self/fd/0", "/dev/stdin");
  symlink("/proc/self/fd/1", "/dev/stdout");
  symlink("/proc/self/fd/2", "/dev/stderr");
  mountOrSay("sysfs", "/sys", "sysfs", NULL);
  mountOrSay("tmpfs", "/dev/shm", "tmpfs", "mode=1777");
  // /tmp stays the initramfs's own directory, already in memory: a checkout
  // under /tmp has its test data there, at the path compiled into the tests.
  mkdir("/tmp", 01777);
  chmod("/tmp", 01777);
  mkdir("/run", 0755);
  mkdir("/var", 0755);
  mkdir("/var/run", 0755);
  mkdir("/root", 0700);
  setenv("PATH", "/bin:/usr/bin:/sbin:/usr/sbin", 1);
  setenv("HOME", "/root", 1);
  setenv("TMPDIR", "/tmp", 1);
  setenv("TERM", "dumb", 1);
  // GoogleTest's colours would only garble the console log.
  setenv("GTEST_COLOR", "no", 1);
  // The cross build's tests expect to be started by qemu-user; here they run
  // on a real PowerPC kernel, and say so to the test that checks the answer.
  setenv("VORTA_TEST_RUN_BY_EMULATOR", "0", 1);
  const char* epoch = getenv("VORTA_EPOCH");
  if (epoch != NULL) {
    struct timespec t = {(time_t)strtoll(epoch, NULL, 10), 0};
    if (clock_settime(CLOCK_REALTIME, &t) != 0) say("init: cannot set the clock: %s\n", strerror(errno));
  }
}

struct Counts {
  int ran, passed, failed, skipped, hostOnly;
  int sawSummary;
  double seconds;
};

// The host-only cases' lines, kept for the summary.
#define HOST_ONLY_TEXT 16384
static char hostOnlyLines[HOST_ONLY_TEXT];
static size_t hostOnlyUsed;

static void keepHostOnlyLine(const char* line) {
  const size_t length = strlen(line);
  if (hostOnlyUsed + length + 2 > sizeof hostOnlyLines) return;
  memcpy(hostOnlyLines + hostOnlyUsed, line, length);
  hostOnlyUsed += length;
  hostOnlyLines[hostOnlyUsed++] = '\n';
  hostOnlyLines[hostOnlyUsed] = '\0';
}

// Reads GoogleTest's summary lines:
//   [==========] 12 tests from 3 test suites ran. (40 ms total)
//   [  PASSED  ] 10 tests.
//   [  SKIPPED ] 1 test, listed below:
//   [  FAILED  ] 1 test, listed below:
// and the CLI runner's
//   [ HOST ONLY ] 2 cases, listed below:
//   [ HOST ONLY ] cli.name: reason
// Per-test lines ("[  FAILED  ] Suite.Name") carry no number and are ignored.
static void readLine(const char* line, struct Counts* counts) {
  int n = 0;
  if (sscanf(line, "[==========] %d test", &n) == 1 && strstr(line, " ran.") != NULL) {
    counts->ran = n;
    counts->sawSummary = 1;
  } else if (sscanf(line, "[  PASSED  ] %d test", &n) == 1) {
    counts->passed = n;
  } else if (sscanf(line, "[  SKIPPED ] %d test", &n) == 1) {
    counts->skipped = n;
  } else if (sscanf(line, "[  FAILED  ] %d test", &n) == 1) {
    counts->failed = n;
  } else if (sscanf(line, "[ HOST ONLY ] %d case", &n) == 1) {
    counts->hostOnly = n;
  } else if (counts->sawSummary && strncmp(line, "[ HOST ONLY ] ", 14) == 0) {
    keepHostOnlyLine(line);
  }
}

// Runs one test program in its own process group with its output on a pipe,
// copied to the console and scanned line by line.
static struct Counts runBinary(const char* path, double limit) {
  struct Counts counts = {0, 0, 0, 0, 0, 0, 0.0};
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) {
    say("init: pipe: %s\n", strerror(errno));
    counts.failed = 1;
    return counts;
  }
  const pid_t child = fork();
  if (child < 0) {
    say("init: fork: %s\n", strerror(errno));
    counts.failed = 1;
    return counts;
  }
  if (child == 0) {
    setpgid(0, 0);
    dup2(out[1], STDOUT_FILENO);
    dup2(out[1], STDERR_FILENO);
    char* const argv[] = {(char*)path, NULL};
    execv(path, argv);
    dprintf(STDERR_FILENO, "init: cannot run %s: %s\n", path, strerror(errno));
    _exit(127);
  }
  setpgid(child, child);
  close(out[1]);

  const double start = now();
  char line[8192];
  size_t used = 0;
  int status = 0, exited = 0, timedOut = 0, ended = 0;
  double quietSince = 0;
  for (;;) {
    // Reap the binary and any orphan handed to init meanwhile.
    for (;;) {
      int s = 0;
      const pid_t done = waitpid(-1, &s, WNOHANG);
      if (done <= 0) break;
      if (done == child) {
        status = s;
        exited = 1;
        quietSince = now();
      }
    }
    // A process the binary left behind may hold the pipe open: once the
    // binary is gone, two quiet seconds end the listening.
    if (exited && (ended || now() - quietSince > 2.0)) break;
    if (!exited && !timedOut && now() - start > limit) {
      say("\ninit: %s still running after %.0f s: killed\n", path, limit);
      kill(-child, SIGKILL);
      timedOut = 1;
    }
    if (ended) {
      usleep(100000);
      continue;
    }
    struct pollfd p = {out[0], POLLIN, 0};
    if (poll(&p, 1, 200) <= 0) continue;
    char buffer[4096];
    const ssize_t n = read(out[0], buffer, sizeof buffer);
    if (n <= 0) {
      ended = 1;
      continue;
    }
    (void)!write(STDOUT_FILENO, buffer, (size_t)n);
    for (ssize_t i = 0; i < n; ++i) {
      if (buffer[i] == '\n' || used + 1 == sizeof line) {
        line[used] = '\0';
        readLine(line, &counts);
        used = 0;
      } else {
        line[used++] = buffer[i];
      }
    }
    if (exited) quietSince = now();
  }
  close(out[0]);
  kill(-child, SIGKILL);
  while (waitpid(-1, NULL, WNOHANG) > 0) {
  }

  counts.seconds = now() - start;
  if (timedOut) {
    counts.failed += 1;
  } else if (!counts.sawSummary || !WIFEXITED(status) || (WEXITSTATUS(status) != 0 && counts.failed == 0)) {
    if (WIFSIGNALED(status))
      say("init: %s ended by signal %d without its summary: counted as one failed test\n", path,
          WTERMSIG(status));
    else
      say("init: %s ended with status %d (summary %s): counted as one failed test\n", path,
          WIFEXITED(status) ? WEXITSTATUS(status) : -1, counts.sawSummary ? "seen" : "missing");
    counts.failed += 1;
  }
  say("init: %s: %d passed, %d failed, %d skipped in %.1f s\n", path, counts.passed, counts.failed,
      counts.skipped, counts.seconds);
  return counts;
}

int main(void) {
  setUp();
  struct utsname u;
  if (uname(&u) == 0)
    say("init: %s %s %s, %ld processors online\n", u.sysname, u.release, u.machine,
        sysconf(_SC_NPROCESSORS_ONLN));

  const char* limitText = getenv("VORTA_TEST_TIMEOUT");
  const double limit = limitText != NULL ? strtod(limitText, NULL) : 1800.0;

  char* tests[MAX_TESTS];
  int count = 0;
  FILE* list = fopen("/etc/vorta-tests", "r");
  if (list == NULL) {
    say("init: cannot read /etc/vorta-tests: %s\n", strerror(errno));
  } else {
    char entry[512];
    while (count < MAX_TESTS && fgets(entry, sizeof entry, list) != NULL) {
      entry[strcspn(entry, "\r\n")] = '\0';
      if (entry[0] != '\0' && entry[0] != '#') tests[count++] = strdup(entry);
    }
    fclose(list);
  }

  struct Counts total = {0, 0, 0, 0, 0, 0, 0.0};
  static struct Counts each[MAX_TESTS];
  const double start = now();
  if (count == 0) total.failed = 1;
  for (int i = 0; i < count; ++i) {
    say("\ninit: === %s\n", tests[i]);
    each[i] = runBinary(tests[i], limit);
    total.passed += each[i].passed;
    total.failed += each[i].failed;
    total.skipped += each[i].skipped;
    total.hostOnly += each[i].hostOnly;
  }
  say("\ninit: summary, %d programs in %.1f s\n", count, now() - start);
  for (int i = 0; i < count; ++i) {
    const char* slash = strrchr(tests[i], '/');
    say("  %s: %d passed, %d failed, %d skipped", slash != NULL ? slash + 1 : tests[i], each[i].passed,
        each[i].failed, each[i].skipped);
    if (each[i].hostOnly > 0) say(", %d host only", each[i].hostOnly);
    say(" (%.1f s)\n", each[i].seconds);
  }
  if (total.hostOnly > 0) {
    say("init: %d cases keep their host runs only:\n", total.hostOnly);
    say("%s", hostOnlyLines);
  }
  say("%d skipped\n", total.skipped);
  say("%d passed, %d failed\n", total.passed, total.failed);
  sync();
  reboot(RB_POWER_OFF);
  // Should power-off fail, the kernel panics when init exits, and panic=-1
  // with qemu's -no-reboot ends the machine.
  return 0;
}
