// SPDX-License-Identifier: MIT
// The file parameter store against special files: a FIFO, socket or directory as the parameter
// file, its lock or its temporary file is refused without blocking and never written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <random>
#include <string>

#include "alloc_failure.h"
#include "fail_alloc.h"
#include "paramstore.h"
#include "test_support.h"

namespace {

using vorta_test::inChild;
using vorta_test::readFile;
using vorta_test::TempDir;
using vorta_test::writeFile;

}  // namespace

// A FIFO or directory as the parameter file: it reads as a bad file (no
// value), writes fail, nothing blocks and the FIFO stays a FIFO.
TEST(FileParamsHostile, AFifoOrDirectoryAsTheParameterFileIsRefusedWithoutBlocking) {
  TempDir dir;
  ASSERT_EQ(mkfifo(dir.file("fifo.json").c_str(), 0644), 0);
  ASSERT_EQ(mkdir(dir.file("dir.json").c_str(), 0755), 0);
  for (const char* name : {"fifo.json", "dir.json"}) {
    const std::string path = dir.file(name);
    EXPECT_EQ(inChild([&] {
                FileParamStore store(path);
                if (store.getParam(eParamTake) != 0u) return 1;  // what an unreadable file gives
                uint32_t value = 77;
                if (store.getParamValue(eParamEncodeType, value) != 0 || value != 77) return 2;
                if (store.setParam(eParamTake, 5) != 0) return 3;
                return 0;
              }),
              0)
        << name << " (-1: blocked)";
    struct stat info;
    ASSERT_EQ(lstat(path.c_str(), &info), 0);
    EXPECT_FALSE(S_ISREG(info.st_mode)) << name;
  }
}

// A FIFO in place of the lock file, or of the temporary file a write goes
// through, makes the write fail without blocking; the parameter file is
// left as it was.
TEST(FileParamsHostile, AFifoAsTheLockOrTemporaryFileFailsTheWriteWithoutBlocking) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  writeFile(path, "{\"take\": 3}\n");
  ASSERT_EQ(mkfifo((path + ".lock").c_str(), 0644), 0);
  EXPECT_EQ(inChild([&] {
              FileParamStore store(path);
              if (store.setParam(eParamTake, 9) != 0) return 1;
              return store.getParam(eParamTake) == 3u ? 0 : 2;
            }),
            0)
      << "-1: blocked on the lock";
  ASSERT_EQ(unlink((path + ".lock").c_str()), 0);

  EXPECT_EQ(inChild([&] {
              // The temporary name carries the writer's pid: put a FIFO there first.
              if (mkfifo((path + ".tmp." + std::to_string(getpid())).c_str(), 0644) != 0) return 10;
              FileParamStore store(path);
              if (store.setParam(eParamTake, 9) != 0) return 1;
              return store.getParam(eParamTake) == 3u ? 0 : 2;
            }),
            0)
      << "-1: blocked on the temporary file";
  EXPECT_EQ(readFile(path), "{\"take\": 3}\n");

  EXPECT_EQ(inChild([&] {
              // A device that opens for writing at once: neither written nor put in the file's place.
              if (symlink("/dev/null", (path + ".tmp." + std::to_string(getpid())).c_str()) != 0) return 10;
              FileParamStore store(path);
              if (store.setParam(eParamTake, 9) != 0) return 1;
              return store.getParam(eParamTake) == 3u ? 0 : 2;
            }),
            0);
  EXPECT_EQ(readFile(path), "{\"take\": 3}\n");
  struct stat info;
  ASSERT_EQ(lstat(path.c_str(), &info), 0);
  EXPECT_TRUE(S_ISREG(info.st_mode));

  EXPECT_EQ(inChild([&] {
              // The same for media-busy, which is written without fsync: no
              // failed flush stops the rename there, only the refusal itself.
              const std::string tmp = path + ".tmp." + std::to_string(getpid());
              unlink(tmp.c_str());
              if (symlink("/dev/null", tmp.c_str()) != 0) return 10;
              FileParamStore store(path);
              if (store.setParam(eParamMediaBusy, 1) != 0) return 1;
              return store.getParam(eParamTake) == 3u ? 0 : 2;
            }),
            0)
      << "1: the write went through the device";
  EXPECT_EQ(readFile(path), "{\"take\": 3}\n");
  ASSERT_EQ(lstat(path.c_str(), &info), 0);
  EXPECT_TRUE(S_ISREG(info.st_mode));
}

// The size bound of a parameter file: at 1 MiB it is read, one byte more
// and it is refused.
TEST(FileParamsHostile, ParameterFileAtAndJustPastTheSizeBound) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  const std::string head = "{\"take\": 4, \"pad\": \"";
  const std::string tail = "\"}";
  const std::size_t bound = 1 << 20;
  writeFile(path, head + std::string(bound - head.size() - tail.size(), 'x') + tail);
  EXPECT_EQ(FileParamStore(path).getParam(eParamTake), 4u);
  writeFile(path, head + std::string(bound + 1 - head.size() - tail.size(), 'x') + tail);
  EXPECT_EQ(FileParamStore(path).getParam(eParamTake), 0u);  // refused as a bad file
}

// Every allocation of a read and of a write made to fail in turn: nothing
// throws, a read gives the stored value or nothing, and the file always
// holds a whole parameter file with the old or the new value.
TEST(FileParamsHostile, AllocationFailureAtEveryPointNeverThrowsOrTearsTheFile) {
  if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  TempDir dir;
  const std::string path = dir.file("p.json");
  writeFile(path, "{\"take\": 3}\n");
  EXPECT_EQ(inChild([&]() -> int {
              FileParamStore store(path);
              for (long budget = 0; budget < 5000; ++budget) {
                uint32_t value = 0;
                int stored = -1, read = -1;
                long refused = 0;
                {
                  vorta_test::FailAlloc failing(budget);
                  read = store.getParamValue(eParamTake, value);
                  stored = store.setParam(eParamTake, static_cast<uint32_t>(4 + budget % 2));
                  refused = vorta_test::FailAlloc::failures();
                }
                if (read == 1 && value != 3 && value != 4 && value != 5) return 1;
                const uint32_t now = store.getParam(eParamTake);
                if (now != 3 && now != 4 && now != 5) return 2;
                if (stored == 1 && now != static_cast<uint32_t>(4 + budget % 2)) return 3;
                if (refused == 0) return stored == 1 && read == 1 ? 0 : 4;
              }
              return 5;
            }),
            0)
      << "99: an exception escaped";
}

// Memory running out at any point of a text's write or read gives 0 (the
// text left alone) or 1, nothing else, and the file holds the old text or
// the new one; a parameter never set is not there either way.
TEST(FileParamsHostile, AllocationFailureInATextsWriteOrReadGivesZeroOrOne) {
  if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  TempDir dir;
  const std::string path = dir.file("p.json");
  writeFile(path, "{\"media-dir\": \"/media/A\"}\n");
  EXPECT_EQ(inChild([&]() -> int {
              FileParamStore store(path);
              const std::string next = "/media/B";
              for (long budget = 0; budget < 5000; ++budget) {
                std::string text = "unchanged";
                int stored = -1, read = -1;
                bool has = true;
                long refused = 0;
                {
                  vorta_test::FailAlloc failing(budget);
                  stored = store.setParamString(eParamMediaDir, next);
                  read = store.getParamString(eParamMediaDir, text);
                  has = store.hasParam(static_cast<eParam_t>(0x0A0B0C0D));  // never set
                  refused = vorta_test::FailAlloc::failures();
                }
                if (has) return 7;
                if (stored != 0 && stored != 1) return 1;
                if (read != 0 && read != 1) return 2;
                if (read == 0 && text != "unchanged") return 3;
                if (read == 1 && text != "/media/A" && text != next) return 4;
                if (refused == 0) return stored == 1 && read == 1 && text == next ? 0 : 5;
              }
              return 6;
            }),
            0)
      << "1, 2: a result other than 0 or 1; 7: a parameter never set is there; 99: an exception escaped";
}

// Whether /proc/locks shows a process blocked waiting for a lock on the file
// with inode `inode`.
bool someoneWaitsForLockOn(ino_t inode) {
  std::ifstream locks("/proc/locks");
  const std::string mark = ":" + std::to_string(inode) + " ";
  for (std::string line; std::getline(locks, line);)
    if (line.find("-> ") != std::string::npos && line.find(mark) != std::string::npos) return true;
  return false;
}

int ticks = 0;
void countTick(int) { ++ticks; }

// Signals that interrupt a writer waiting for another writer's lock do not
// end its write: it waits on, and stores its value once the lock is free.
TEST(FileParamsHostile, SignalsDuringTheWaitForTheLockDoNotFailTheWrite) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  writeFile(path, "{\"take\": 3}\n");
  EXPECT_EQ(inChild([&]() -> int {
              const int lockFd = open((path + ".lock").c_str(), O_RDWR | O_CREAT, 0644);
              struct stat info;
              if (lockFd < 0 || fstat(lockFd, &info) != 0) return 10;
              struct flock whole = {};
              whole.l_type = F_WRLCK;
              whole.l_whence = SEEK_SET;
              if (fcntl(lockFd, F_SETLK, &whole) != 0) return 11;
              const pid_t writer = vorta_test::forkFlushed();
              if (writer < 0) return 12;
              if (writer == 0) {
                close(lockFd);  // the lock stays with the parent
                struct sigaction tick = {};
                tick.sa_handler = countTick;  // no SA_RESTART: the wait is interrupted
                sigemptyset(&tick.sa_mask);
                sigaction(SIGALRM, &tick, nullptr);
                const struct itimerval every20ms = {{0, 20000}, {0, 20000}};
                setitimer(ITIMER_REAL, &every20ms, nullptr);
                const int stored = FileParamStore(path).setParam(eParamTake, 9);
                const struct itimerval off = {};
                setitimer(ITIMER_REAL, &off, nullptr);
                _exit(stored == 1 ? (ticks > 0 ? 0 : 21) : 20);
              }
              // Released once the writer has waited through several ticks.
              for (int i = 0; i < 3000 && !someoneWaitsForLockOn(info.st_ino); ++i) usleep(1000);
              usleep(200000);
              close(lockFd);
              int status = 0;
              if (waitpid(writer, &status, 0) != writer || !WIFEXITED(status)) return 13;
              return WEXITSTATUS(status);
            }),
            0)
      << "20: the write failed";
  EXPECT_EQ(FileParamStore(path).getParam(eParamTake), 9u);
}

// With no descriptor left, reads give nothing and writes fail; nothing is
// written and nothing crashes.
TEST(FileParamsHostile, NoDescriptorLeftFailsReadsAndWrites) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  TempDir dir;
  const std::string path = dir.file("p.json");
  writeFile(path, "{\"take\": 3}\n");
  EXPECT_EQ(inChild([&]() -> int {
              FileParamStore store(path);
              const int lowest = dup(0);
              if (lowest < 0) return 10;
              close(lowest);
              struct rlimit limit;
              if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 11;
              limit.rlim_cur = static_cast<rlim_t>(lowest);
              if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 12;
              uint32_t value = 77;
              if (store.getParamValue(eParamTake, value) != 0 || value != 77) return 1;
              if (store.setParam(eParamTake, 9) != 0) return 2;
              return 0;
            }),
            0);
  EXPECT_EQ(readFile(path), "{\"take\": 3}\n");
}

// A writer killed at random moments leaves a whole parameter file holding
// one of the values it wrote.
TEST(FileParamsHostile, AWriterKilledAtRandomMomentsLeavesAWholeFile) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  FileParamStore(path).setParam(eParamTake, 1);
  std::mt19937 random(777);
  const int rounds = vorta_test::underEmulation() ? 3 : 10;
  for (int round = 0; round < rounds; ++round) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      FileParamStore store(path);
      for (uint32_t i = 0;; ++i) store.setParam(eParamTake, 1 + i % 999);
    }
    usleep(std::uniform_int_distribution<unsigned>(500, 30000)(random));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    FileParamStore store(path);
    uint32_t value = 0;
    ASSERT_EQ(store.getParamValue(eParamTake, value), 1) << "round " << round << ": " << readFile(path);
    EXPECT_GE(value, 1u);
    EXPECT_LE(value, 999u);
    // The store goes on working.
    EXPECT_EQ(store.setParam(eParamTake, 5), 1);
    EXPECT_EQ(store.getParam(eParamTake), 5u);
  }
}
