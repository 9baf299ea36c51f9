// SPDX-License-Identifier: MIT
// Tests of ShmString ownership and hostile cases: a second owner while the first is alive, names
// left by dead owners, special files in the name's place, exhausted descriptors and heap.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "child_process.h"
#include "fail_alloc.h"
#include "shmstring.h"
#include "test_support.h"

namespace {

using namespace process_test;
using vorta_test::uniqueName;

class OwnedName {
 public:
  OwnedName() : name_("/" + uniqueName("vorta_shmowner")) {}
  ~OwnedName() { shm_unlink(name_.c_str()); }
  const char* c_str() const { return name_.c_str(); }
  // Size of the object under the name now; -1 when there is none.
  long long size() const {
    const int fd = shm_open(name_.c_str(), O_RDONLY | O_NONBLOCK, 0);
    if (fd == -1) return -1;
    struct stat status;
    const long long result = fstat(fd, &status) == 0 ? static_cast<long long>(status.st_size) : -1;
    ::close(fd);
    return result;
  }

 private:
  std::string name_;
};

// An owner in a child process that answers commands over pipes: "get"
// answers with get()'s result and text, "set TEXT" stores, "close" closes.
// It stays until its command pipe closes.
class OwnerProcess {
 public:
  OwnerProcess(const char* name, int capacity, const char* text) {
    pid_ = forkChild([&] {
      toTest_.closeRead();
      toOwner_.closeWrite();
      ShmString shm(name);
      if (!shm.create(capacity) || !shm.set(text)) {
        writeAll(toTest_.write, "failed\n");
        _exit(1);
      }
      writeAll(toTest_.write, "ready\n");
      for (;;) {
        const std::string command = readLine(toOwner_.read, 3600);
        if (command == "get") {
          char buffer[256];
          const int n = shm.get(buffer, sizeof buffer);
          writeAll(toTest_.write, std::to_string(n) + " " + buffer + "\n");
        } else if (command.rfind("set ", 0) == 0) {
          writeAll(toTest_.write, shm.set(command.c_str() + 4) ? "set\n" : "not set\n");
        } else if (command == "close") {
          shm.close();
          writeAll(toTest_.write, "closed\n");
        } else {
          break;
        }
      }
    });
    toTest_.closeWrite();
    toOwner_.closeRead();
    ready_ = readLine(toTest_.read, patience()) == "ready";
  }
  ~OwnerProcess() { stop(); }

  bool ready() const { return ready_; }
  pid_t pid() const { return pid_; }
  std::string ask(const std::string& command) {
    writeAll(toOwner_.write, command + "\n");
    return readLine(toTest_.read, patience());
  }
  // Ends the owner normally (its destructor closes); the exit status.
  int stop() {
    if (pid_ <= 0) return -1;
    toOwner_.closeWrite();
    const int status = waitForExit(pid_, patience());
    pid_ = -1;
    return status;
  }
  void kill9() {
    kill(pid_, SIGKILL);
    waitForExit(pid_, patience());
    pid_ = -1;
  }

 private:
  Pipe toTest_, toOwner_;
  pid_t pid_ = -1;
  bool ready_ = false;
};

// Runs body in a child and gives its exit status; a child that does not end
// within the limit (a call that blocks) is killed and -1 comes back, so a
// hang fails the test instead of hanging the run.
int inChild(const std::function<int()>& body, double seconds = 10) {
  const pid_t pid = forkChild([&] {
    int code = 98;
    try {
      code = body();
    } catch (...) {
      code = 99;  // nothing may throw out of the code under test
    }
    _exit(code);
  });
  const int status = waitForExit(pid, seconds * (vorta_test::underEmulation() ? 4 : 1));
  if (status == -1) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The shared-memory directory of the C library, where a hostile process can
// put a FIFO under a segment's name.
const char* kShmDir = "/dev/shm";

}  // namespace

// A second create on a live owner's name is refused; the owner's segment
// keeps its size and the owner's reads and writes go on working.
TEST(ShmStringOwner, CreateOverALiveOwnerInAnotherProcessIsRefused) {
  OwnedName name;
  OwnerProcess first(name.c_str(), 64, "first text");
  ASSERT_TRUE(first.ready());
  const long long size = name.size();
  EXPECT_EQ(size, 64 + static_cast<long long>(ShmString::kOverhead));
  EXPECT_TRUE(ShmString::hasLiveOwner(name.c_str()));

  ShmString second(name.c_str());
  EXPECT_FALSE(second.create(8));
  EXPECT_FALSE(second.create(64));
  EXPECT_FALSE(second.create(1000));
  EXPECT_EQ(second.capacity(), 0);
  EXPECT_EQ(name.size(), size);
  // Used to die here with SIGBUS: the segment had been shrunk under it.
  EXPECT_EQ(first.ask("get"), "10 first text");
  EXPECT_EQ(first.ask("set still mine"), "set");
  EXPECT_EQ(first.ask("get"), "10 still mine");

  // A reader still reads the owner's text.
  ShmString reader(name.c_str());
  char text[64];
  EXPECT_EQ(reader.get(text, sizeof text), 10);
  EXPECT_STREQ(text, "still mine");
  reader.close();  // clears the pid (deliberately), but the owner's lock stays
  EXPECT_TRUE(ShmString::hasLiveOwner(name.c_str()));
  EXPECT_FALSE(second.create(8));
  EXPECT_EQ(first.ask("get"), "10 still mine");

  // Once the first has ended, the name can be created again.
  const int status = first.stop();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(ShmString::hasLiveOwner(name.c_str()));
  ASSERT_TRUE(second.create(8));
  EXPECT_TRUE(second.set("second"));
  EXPECT_EQ(second.get(text, sizeof text), 6);
  EXPECT_STREQ(text, "second");
}

// Two objects in one process: the second is refused as well (the lock
// belongs to the first object's descriptor, not to the process).
TEST(ShmStringOwner, SecondOwnerInTheSameProcessIsRefused) {
  OwnedName name;
  ShmString first(name.c_str());
  ASSERT_TRUE(first.create(16));
  ASSERT_TRUE(first.set("mine"));
  {
    ShmString second(name.c_str());
    EXPECT_FALSE(second.create(4));
  }  // its destructor must not remove the first's name
  char text[16];
  EXPECT_EQ(first.get(text, sizeof text), 4);
  EXPECT_EQ(name.size(), 16 + static_cast<long long>(ShmString::kOverhead));
  first.close();
  EXPECT_EQ(name.size(), -1);
  ShmString third(name.c_str());
  EXPECT_TRUE(third.create(4));
}

// A segment that cannot be sized (here a file size limit below it) fails
// the create and lets go of the name at once: no live owner is left behind,
// and the name can be created once the limit is gone.
TEST(ShmStringOwner, SegmentThatCannotBeSizedLeavesNoOwner) {
  OwnedName name;
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  struct rlimit small = saved;
  small.rlim_cur = 1024;
  void (*previous)(int) = signal(SIGXFSZ, SIG_IGN);  // EFBIG instead of the signal
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  ShmString first(name.c_str());
  const bool created = first.create(4096);
  const bool ownerAfterFailure = ShmString::hasLiveOwner(name.c_str());
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
  signal(SIGXFSZ, previous);
  EXPECT_FALSE(created);
  EXPECT_FALSE(ownerAfterFailure);
  EXPECT_EQ(first.capacity(), 0);
  ShmString second(name.c_str());
  EXPECT_TRUE(second.create(4096));
  EXPECT_TRUE(second.set("sized"));
}

// With standard input closed the segment's descriptor is 0; close() gives
// it back like any other, and the owner's mark with it.
TEST(ShmStringOwner, SegmentOnDescriptorZeroIsClosedToo) {
  OwnedName name;
  const pid_t pid = forkChild([&] {
    ::close(0);
    ShmString owner(name.c_str());
    if (!owner.create(8)) _exit(1);
    if (fcntl(0, F_GETFD) == -1) _exit(2);
    owner.close();
    if (fcntl(0, F_GETFD) != -1) _exit(3);
    if (ShmString::hasLiveOwner(name.c_str())) _exit(4);
    _exit(0);
  });
  const int status = waitForExit(pid, patience());
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: create, 2: not on descriptor 0, 3: descriptor kept, 4: mark kept";
}

// Makes this process's fcntl calls with the open-file-description lock
// commands fail with EINVAL, as a kernel before 3.15 has them; false where a
// filter cannot be installed.
bool refuseOpenFileDescriptionLocks() {
  std::vector<sock_filter> filter = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_fcntl, 3, 0),
#ifdef __NR_fcntl64
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_fcntl64, 2, 0),
#else
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_fcntl, 2, 0),
#endif
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      // The command: the low word of the second argument, which a
      // big-endian machine keeps in its second half.
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS,
               offsetof(struct seccomp_data, args[1]) + (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 4 : 0)),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, F_OFD_GETLK, 0, 2),
      BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, F_OFD_SETLKW, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

// Where the kernel has no open-file-description locks (EINVAL), the owner's
// mark is an flock lock with the same effect: the owner is seen live, a
// second creator is refused, and the mark goes with the owner's close.
TEST(ShmStringOwner, OwnerMarkFallsBackToFlockWithoutOpenFileDescriptionLocks) {
  OwnedName name;
  const pid_t pid = forkChild([&] {
    if (!refuseOpenFileDescriptionLocks()) _exit(77);
    struct flock range = {};
    range.l_type = F_RDLCK;
    if (fcntl(0, F_OFD_GETLK, &range) != -1 || errno != EINVAL) _exit(78);
    ShmString first(name.c_str());
    if (!first.create(16) || !first.set("mine")) _exit(1);
    if (!ShmString::hasLiveOwner(name.c_str())) _exit(2);
    ShmString second(name.c_str());
    if (second.create(4)) _exit(3);
    char text[16];
    if (first.get(text, sizeof text) != 4 || std::strcmp(text, "mine") != 0) _exit(4);
    first.close();
    if (ShmString::hasLiveOwner(name.c_str())) _exit(5);
    _exit(0);
  });
  const int status = waitForExit(pid, patience());
  ASSERT_TRUE(WIFEXITED(status)) << status;
  if (WEXITSTATUS(status) == 77 || WEXITSTATUS(status) == 78) {
    std::printf("skipped: no seccomp filter can make fcntl refuse the lock commands here (%d)\n",
                WEXITSTATUS(status));
    GTEST_SKIP() << "no seccomp filter for fcntl here";
  }
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: create, 2: owner not seen, 3: second owner, 4: get, 5: mark kept";
}

// An owner killed while a reader maps its segment: a new owner with a
// smaller capacity makes a new segment; the old one keeps its size, so the
// reader's mapping stays valid, and the reader moves to the new owner.
TEST(ShmStringOwner, DeadOwnersNameIsReusedWithoutShrinkingWhatReadersMap) {
  OwnedName name;
  OwnerProcess first(name.c_str(), 4096, "big");
  ASSERT_TRUE(first.ready());
  ShmString reader(name.c_str());
  ASSERT_TRUE(reader.attach(false, 0));
  EXPECT_EQ(reader.capacity(), 4096);
  first.kill9();
  EXPECT_FALSE(ShmString::hasLiveOwner(name.c_str()));

  ShmString successor(name.c_str());
  ASSERT_TRUE(successor.create(8));
  EXPECT_EQ(name.size(), 8 + static_cast<long long>(ShmString::kOverhead));
  ASSERT_TRUE(successor.set("new"));
  char text[16];
  EXPECT_EQ(reader.get(text, sizeof text), 3);
  EXPECT_STREQ(text, "new");
  EXPECT_EQ(reader.capacity(), 8);
}

// The owner killed at a random moment while it keeps rewriting its text:
// the name is taken over afterwards and reads work.
TEST(ShmStringOwner, OwnerKilledAtRandomMomentsLeavesANameThatCanBeTakenOver) {
  std::mt19937 random(12345);
  const int rounds = vorta_test::underEmulation() ? 3 : 10;
  for (int round = 0; round < rounds; ++round) {
    OwnedName name;
    Pipe ready;
    const pid_t owner = forkChild([&] {
      ready.closeRead();
      ShmString shm(name.c_str());
      if (!shm.create(128)) _exit(1);
      writeAll(ready.write, "ready\n");
      for (unsigned i = 0;; ++i) shm.set(std::string(i % 100, static_cast<char>('a' + i % 26)).c_str());
    });
    ready.closeWrite();
    ASSERT_EQ(readLine(ready.read, patience()), "ready");
    usleep(std::uniform_int_distribution<unsigned>(0, 20000)(random));
    kill(owner, SIGKILL);
    waitForExit(owner, patience());

    ShmString successor(name.c_str());
    ASSERT_TRUE(successor.create(32)) << round;
    ASSERT_TRUE(successor.set("after"));
    ShmString reader(name.c_str());
    char text[32];
    EXPECT_EQ(reader.get(text, sizeof text), 5);
    EXPECT_STREQ(text, "after");
  }
}

// get with size 0 reads nothing and returns min(0, capacity) = 0.
TEST(ShmStringOwner, GetWithSizeZeroReturnsZeroAndTouchesNothing) {
  OwnedName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(8));
  ASSERT_TRUE(owner.set("abc"));
  char dest[4] = {'q', 'q', 'q', 0};
  EXPECT_EQ(owner.get(dest, 0), 0);
  EXPECT_STREQ(dest, "qqq");
  EXPECT_EQ(owner.get(nullptr, 0), 0);
  // Size 1 and the capacity bounds.
  EXPECT_EQ(owner.get(dest, 1), 1);
  EXPECT_STREQ(dest, "");
  char wide[16];
  EXPECT_EQ(owner.get(wide, 8), 3);
  EXPECT_EQ(owner.get(wide, 9), 3);
  // Not attachable: -1, and with size 0 nothing is written either.
  ShmString none(("/" + uniqueName("vorta_shmnone")).c_str());
  dest[0] = 'q';
  EXPECT_EQ(none.get(dest, 0), -1);
  EXPECT_EQ(dest[0], 'q');
  EXPECT_EQ(none.get(dest, 1), -1);
  EXPECT_EQ(dest[0], '\0');
}

// Capacity bounds: the largest capacity is accepted, one more is refused.
TEST(ShmStringOwner, CapacityAtAndPastTheLargest) {
  OwnedName name;
  ShmString owner(name.c_str());
  EXPECT_FALSE(owner.create(ShmString::kMaxCapacity + 1));
  ASSERT_TRUE(owner.create(ShmString::kMaxCapacity));
  EXPECT_EQ(owner.capacity(), ShmString::kMaxCapacity);
  const std::string longText(ShmString::kMaxCapacity + 10, 'x');
  ASSERT_TRUE(owner.set(longText.c_str()));
  ShmString reader(name.c_str());
  std::string into(ShmString::kMaxCapacity, '\0');
  EXPECT_EQ(reader.get(&into[0], ShmString::kMaxCapacity), ShmString::kMaxCapacity - 1);
  EXPECT_EQ(std::strlen(into.c_str()), static_cast<std::size_t>(ShmString::kMaxCapacity - 1));
}

// A FIFO, a directory or a symbolic link put in a segment's place is
// refused at once: nothing blocks on it.
TEST(ShmStringOwner, SpecialFilesUnderTheNameAreRefusedWithoutBlocking) {
  struct stat dir;
  if (stat(kShmDir, &dir) != 0 || !S_ISDIR(dir.st_mode) || access(kShmDir, W_OK) != 0) {
    GTEST_SKIP() << "no writable " << kShmDir << " to put special files in";
  }
  const std::string base = uniqueName("vorta_shmspecial");
  const std::string path = std::string(kShmDir) + "/" + base;
  const std::string name = "/" + base;
  for (const char* kind : {"fifo", "directory", "dangling link"}) {
    int made = -1;
    if (std::strcmp(kind, "fifo") == 0) made = mkfifo(path.c_str(), 0666);
    if (std::strcmp(kind, "directory") == 0) made = mkdir(path.c_str(), 0777);
    if (std::strcmp(kind, "dangling link") == 0) made = symlink("/nonexistent/vorta", path.c_str());
    ASSERT_EQ(made, 0) << kind;
    EXPECT_EQ(inChild([&] {
                ShmString shm(name.c_str());
                char text[8] = "x";
                if (shm.attach(false, 0)) return 1;
                if (shm.get(text, sizeof text) != -1 || text[0] != '\0') return 2;
                if (shm.set("text")) return 3;
                if (shm.create(8)) return 4;
                if (ShmString::hasLiveOwner(name.c_str())) return 5;
                return 0;
              }),
              0)
        << kind;
    struct stat after;
    EXPECT_EQ(lstat(path.c_str(), &after), 0) << kind << " must be left where it is";
    if (std::strcmp(kind, "directory") == 0)
      rmdir(path.c_str());
    else
      unlink(path.c_str());
  }
}

// With no descriptor left, create and attach fail cleanly; the owner
// already attached keeps working.
TEST(ShmStringOwner, DescriptorExhaustionFailsCleanly) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  OwnedName name;
  OwnedName other;
  EXPECT_EQ(inChild([&] {
              ShmString owner(name.c_str());
              if (!owner.create(16) || !owner.set("held")) return 1;
              // Use up every descriptor below a limit just above what is open.
              const int probe = dup(0);
              if (probe < 0) return 2;
              ::close(probe);
              struct rlimit limit;
              if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 3;
              limit.rlim_cur = static_cast<rlim_t>(probe);
              if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 3;
              ShmString second(other.c_str());
              if (second.create(16)) return 4;
              ShmString reader(name.c_str());
              char text[16];
              if (reader.get(text, sizeof text) != -1) return 5;
              if (owner.get(text, sizeof text) != 4 || std::strcmp(text, "held") != 0) return 6;
              if (!owner.set("still")) return 7;
              return 0;
            }),
            0);
  EXPECT_EQ(other.size(), -1);
}

// ShmString takes nothing from the heap: with every allocation failing it
// creates, writes, reads and closes as usual.
TEST(ShmStringOwner, WorksWithEveryAllocationFailing) {
  if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  OwnedName name;
  bool created = false, stored = false;
  int got = 0;
  long refused = 0;
  char text[16] = {};
  {
    vorta_test::FailAlloc failing;
    ShmString owner(name.c_str());
    created = owner.create(16);
    stored = owner.set("no heap");
    ShmString reader(name.c_str());
    got = reader.get(text, sizeof text);
    refused = vorta_test::FailAlloc::failures();
  }
  EXPECT_TRUE(created);
  EXPECT_TRUE(stored);
  EXPECT_EQ(got, 7);
  EXPECT_STREQ(text, "no heap");
  EXPECT_EQ(refused, 0);
}

namespace {

// Cuts the object under the name to size bytes, as any process that may
// open it can.
bool cutSegment(const char* name, off_t size) {
  const int fd = shm_open(name, O_RDWR, 0);
  if (fd == -1) return false;
  const bool done = ftruncate(fd, size) == 0;
  ::close(fd);
  return done;
}

// The sizes a segment of capacity 1 MiB is cut to: nothing, 3 bytes (the
// first page stays, the header and text do not), and the size of a smaller
// capacity.
class ShmStringCut : public ::testing::TestWithParam<off_t> {
 protected:
  // An owner in its own process holding 1 MiB with "hello"; the owner is
  // made after the check, so that a skipped test starts no process.
  void startOwner() {
    owner_.reset(new OwnerProcess(name_.c_str(), 1 << 20, "hello"));
    ASSERT_TRUE(owner_->ready());
  }
  // A cut to nothing can land between a read's size check and its access,
  // which needs a SIGBUS handed to the program.
  bool cutToNothingUnderEmulation() const { return vorta_test::underEmulation() && GetParam() == 0; }
  OwnedName name_;
  std::unique_ptr<OwnerProcess> owner_;
};

INSTANTIATE_TEST_SUITE_P(Sizes, ShmStringCut,
                         ::testing::Values(off_t{0}, off_t{3},
                                           static_cast<off_t>(100 + ShmString::kOverhead)),
                         [](const ::testing::TestParamInfo<off_t>& param) {
                           return param.param == 0   ? std::string("ToNothing")
                                  : param.param == 3 ? std::string("ToThreeBytes")
                                                     : std::string("ToASmallerCapacity");
                         });

constexpr int kMegabyte = 1 << 20;

// Why the tests that need a SIGBUS handed to the program skip under
// user-mode emulation.
const char* const kNoSigbusUnderEmulation =
    "qemu-user ends the process on a SIGBUS from a mapping cut short (uncaught target signal 7) instead of "
    "handing it to the program's handler; make test-ppc-system runs this on a PowerPC kernel";

}  // namespace

// The owner creates 1 MiB, a reader in another process reads it, a third
// process cuts the segment short; the reader's next get fails (-1, dest
// empty) instead of dying of SIGBUS, and so does every later one, and the
// owner's own get fails the same way while the owner lives on.
TEST_P(ShmStringCut, ReaderAndOwnerFailInsteadOfDying) {
  startOwner();
  const OwnedName& name = name_;
  OwnerProcess& owner = *owner_;
  Pipe toReader, fromReader;
  const pid_t reader = forkChild([&] {
    toReader.closeWrite();
    fromReader.closeRead();
    ShmString shm(name.c_str());
    char text[64];
    if (shm.get(text, sizeof text) != 5 || std::strcmp(text, "hello") != 0) _exit(1);
    writeAll(fromReader.write, "read\n");
    if (readLine(toReader.read, patience()) != "cut") _exit(2);
    // Still mapped, but no longer a valid string: its capacity is 0.
    if (shm.capacity() != 0) _exit(6);
    for (int i = 0; i < 3; ++i) {
      std::memset(text, 'x', sizeof text);
      if (shm.get(text, sizeof text) != -1 || text[0] != '\0') _exit(3);
      if (shm.set("again")) _exit(4);
    }
    if (shm.capacity() != 0 || shm.isAttached() || shm.isOwnerAlive()) _exit(5);
    _exit(0);
  });
  toReader.closeRead();
  fromReader.closeWrite();
  ASSERT_EQ(readLine(fromReader.read, patience()), "read");
  ASSERT_TRUE(cutSegment(name.c_str(), GetParam()));
  writeAll(toReader.write, "cut\n");
  const int status = waitForExit(reader, patience());
  ASSERT_TRUE(WIFEXITED(status)) << "reader ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);

  EXPECT_EQ(owner.ask("get"), "-1 ");
  EXPECT_EQ(owner.ask("set x"), "not set");
  const int ownerStatus = owner.stop();
  ASSERT_TRUE(WIFEXITED(ownerStatus)) << "owner ended by signal " << WTERMSIG(ownerStatus);
  EXPECT_EQ(WEXITSTATUS(ownerStatus), 0);
}

// A reader that keeps reading while the segment is cut under it: every get
// returns the text or fails, none kills the reader, and once the cut is
// seen no later get succeeds.
TEST_P(ShmStringCut, ReaderInALoopSurvivesTheCut) {
  if (cutToNothingUnderEmulation()) GTEST_SKIP() << kNoSigbusUnderEmulation;
  startOwner();
  const OwnedName& name = name_;
  Pipe fromReader;
  const int reads = vorta_test::underEmulation() ? 20000 : 200000;
  const pid_t reader = forkChild([&] {
    fromReader.closeRead();
    ShmString shm(name.c_str());
    char text[64];
    // Reads on until a thousand reads after the first that failed.
    int failed = 0;
    for (int i = 0; i < reads && failed < 1000; ++i) {
      const int n = shm.get(text, sizeof text);
      if (i == 100) writeAll(fromReader.write, "reading\n");
      if (n == 5 && failed == 0 && std::strcmp(text, "hello") == 0) continue;
      if (n != -1 || text[0] != '\0') _exit(1);
      ++failed;
    }
    _exit(failed > 0 ? 0 : 2);
  });
  fromReader.closeWrite();
  ASSERT_EQ(readLine(fromReader.read, patience()), "reading");
  ASSERT_TRUE(cutSegment(name.c_str(), GetParam()));
  const int status = waitForExit(reader, 4 * patience());
  ASSERT_TRUE(WIFEXITED(status)) << "reader ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: a read neither the text nor a failure; 2: the cut never seen";
}

// The cut and the regrowth of the segment, over and over, under a reader
// and a writer that never stop: whatever each call returns, neither process
// dies nor hangs, and a read gives the text, a part of it or a failure.
TEST_P(ShmStringCut, ReaderAndWriterSurviveRepeatedCuts) {
  if (cutToNothingUnderEmulation()) GTEST_SKIP() << kNoSigbusUnderEmulation;
  startOwner();
  const OwnedName& name = name_;
  Pipe stop;
  auto loop = [&](bool writing) {
    return forkChild([&, writing] {
      stop.closeWrite();
      ShmString shm(name.c_str());
      char text[64];
      for (;;) {
        pollfd entry{stop.read, POLLIN, 0};
        if (poll(&entry, 1, 0) != 0) _exit(0);
        if (writing) {
          shm.set("hello");
          continue;
        }
        // A cut zeroes the lock too, so a read may overlap a write and
        // see the text being written: a prefix of it, still terminated.
        const int n = shm.get(text, sizeof text);
        const bool expected = n >= -1 && n <= 5 &&
                              std::strlen(text) == static_cast<std::size_t>(n < 0 ? 0 : n) &&
                              std::strncmp(text, "hello", std::strlen(text)) == 0;
        if (!expected) _exit(1);
      }
    });
  };
  const pid_t reader = loop(false);
  const pid_t writer = loop(true);
  stop.closeRead();
  const off_t whole = static_cast<off_t>(kMegabyte + ShmString::kOverhead);
  const int rounds = vorta_test::underEmulation() ? 50 : 300;
  for (int i = 0; i < rounds; ++i) {
    ASSERT_TRUE(cutSegment(name.c_str(), GetParam()));
    usleep(200);
    ASSERT_TRUE(cutSegment(name.c_str(), whole));
    usleep(200);
  }
  stop.closeWrite();
  for (const pid_t child : {reader, writer}) {
    const int status = waitForExit(child, patience());
    ASSERT_TRUE(WIFEXITED(status)) << (child == reader ? "reader" : "writer") << " ended by signal "
                                   << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
}

// More strings than the process watches for cuts (256): those past that
// are not protected against a cut, but read and write as any other, their
// lock taken and given back each time.
TEST(ShmStringCutOthers, StringsPastTheWatchedOnesWorkAsAnyOther) {
  std::vector<std::string> names;
  for (int i = 0; i < 300; ++i) names.push_back("/" + uniqueName("vorta_shmmany"));
  const int code = inChild([&] {
    std::vector<std::unique_ptr<ShmString>> strings;
    for (const std::string& name : names) {
      strings.emplace_back(new ShmString(name.c_str()));
      if (!strings.back()->create(16)) return 1;
    }
    char text[16];
    for (int round = 0; round < 2; ++round)
      for (auto& shm : strings) {
        if (!shm->set(round == 0 ? "first" : "second")) return 2;
        if (shm->get(text, sizeof text) != (round == 0 ? 5 : 6)) return 3;
      }
    return 0;
  });
  for (const std::string& name : names) shm_unlink(name.c_str());
  EXPECT_EQ(code, 0) << "-1: a string past the watched ones hung on its lock";
}

// Only the strings' own mappings are spared: any other SIGBUS of the process
// (here a file mapping cut short) still ends it, and a handler the program
// had installed before still gets it.
TEST(ShmStringCutOthers, OtherBusErrorsKeepTheirEffect) {
  if (vorta_test::underEmulation()) GTEST_SKIP() << kNoSigbusUnderEmulation;
  vorta_test::TempDir dir;
  const std::string path = dir.file("mapped");
  auto faultOnCutFile = [&] {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd == -1 || ftruncate(fd, 4096) != 0) _exit(90);
    volatile char* map =
        static_cast<volatile char*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    if (map == MAP_FAILED || ftruncate(fd, 0) != 0) _exit(91);
    return map[10];
  };
  OwnedName name;
  const int defaultAction = inChild([&] {
    ShmString shm(name.c_str());
    if (!shm.create(16)) return 92;
    // A reader too: every mapping watched after the first leaves the
    // handler chain as it was.
    ShmString reader(name.c_str());
    if (!reader.attach(false, 0)) return 93;
    faultOnCutFile();
    return 0;
  });
  // A sanitizer's runtime handles SIGBUS itself: it reports and aborts.
  const int busEnd = vorta_test::builtWithSanitizer() ? 128 + SIGABRT : 128 + SIGBUS;
  EXPECT_EQ(defaultAction, busEnd);

  const int programHandler = inChild([&] {
    struct sigaction action = {};
    action.sa_handler = [](int) { _exit(77); };
    sigaction(SIGBUS, &action, nullptr);
    ShmString shm(name.c_str());
    if (!shm.create(16)) return 92;
    faultOnCutFile();
    return 0;
  });
  EXPECT_EQ(programHandler, 77);

  // Ignoring SIGBUS does not ignore a fault: the process still ends.
  const int ignored = inChild([&] {
    signal(SIGBUS, SIG_IGN);
    ShmString shm(name.c_str());
    if (!shm.create(16)) return 92;
    faultOnCutFile();
    return 0;
  });
  EXPECT_EQ(ignored, 128 + SIGBUS);  // a sanitizer's handler too was put aside

  // A SIGBUS that another process sends (not a fault) ends the process too.
  const int sent = inChild([&] {
    ShmString shm(name.c_str());
    if (!shm.create(16)) return 92;
    kill(getpid(), SIGBUS);
    return 0;
  });
  EXPECT_EQ(sent, busEnd);
}

namespace {

// The segment's lock as another process sees it: the first page of the
// segment mapped on its own.
class LockPage {
 public:
  explicit LockPage(const char* name) {
    const int fd = shm_open(name, O_RDWR, 0);
    if (fd == -1) return;
    void* at = mmap(nullptr, ShmString::kLockSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (at != MAP_FAILED) page_ = static_cast<unsigned char*>(at);
  }
  ~LockPage() {
    if (page_ != nullptr) munmap(page_, ShmString::kLockSize);
  }
  bool mapped() const { return page_ != nullptr; }
  pthread_rwlock_t* lock() const { return reinterpret_cast<pthread_rwlock_t*>(page_); }
  // The lock's first 32-bit word in native order (glibc's reader count and
  // phase bits, on every target).
  void setFirstWord(std::uint32_t value) const { std::memcpy(page_, &value, sizeof value); }

 private:
  unsigned char* page_ = nullptr;
};

// A reader in a child: get and set once each. 0 when get gave -1 with dest
// empty and set false; 1 when both worked ("hello" read); 2 when get read
// "hello" and set failed; 3 for anything else.
int getAndSetOnce(const char* name) {
  return inChild(
      [&] {
        ShmString shm(name);
        char text[16];
        std::memset(text, 'x', sizeof text);
        const int n = shm.get(text, sizeof text);
        const bool stored = shm.set("hello");
        if (n == -1 && text[0] == '\0' && !stored) return 0;
        const bool read = n == 5 && std::strcmp(text, "hello") == 0;
        if (read && stored) return 1;
        if (read) return 2;
        return 3;
      },
      4 * ShmString::kLockWaitSeconds + 10);
}

}  // namespace

// A process that dies holding the lock for writing never gives it back: get
// and set in every other process fail after waiting kLockWaitSeconds,
// instead of waiting for ever, and work again once the lock is made anew.
TEST(ShmStringLock, AWriterThatDiedHoldingTheLockMakesCallsFailNotHang) {
  OwnedName name;
  OwnerProcess owner(name.c_str(), 64, "hello");
  ASSERT_TRUE(owner.ready());
  {
    LockPage page(name.c_str());
    ASSERT_TRUE(page.mapped());
    const int died = inChild([&] { return pthread_rwlock_wrlock(page.lock()) == 0 ? 0 : 1; });
    ASSERT_EQ(died, 0);
    EXPECT_EQ(getAndSetOnce(name.c_str()), 0);
    EXPECT_EQ(owner.ask("get"), "-1 ");
    // Made anew (as an owner that creates the name again would).
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_rwlock_init(page.lock(), &attributes);
    pthread_rwlockattr_destroy(&attributes);
  }
  EXPECT_EQ(getAndSetOnce(name.c_str()), 1);
  EXPECT_EQ(owner.ask("get"), "5 hello");
}

// The lock's words written over with states glibc's own blocking and timed
// calls spin or sleep on without end (a writer bit with no writer, phase
// bits with no one in the phase, every bit set): set fails within its wait,
// get reads the text (where the state still lets readers in) or fails within
// its wait, and the process lives on.
class ShmStringLockWord : public ::testing::TestWithParam<std::uint32_t> {};

INSTANTIATE_TEST_SUITE_P(States, ShmStringLockWord,
                         ::testing::Values(std::uint32_t{0x2}, std::uint32_t{0x3},
                                           std::uint32_t{0xffffffff}));

TEST_P(ShmStringLockWord, WrittenOverLockFailsWithinTheWait) {
  OwnedName name;
  OwnerProcess owner(name.c_str(), 64, "hello");
  ASSERT_TRUE(owner.ready());
  LockPage page(name.c_str());
  ASSERT_TRUE(page.mapped());
  page.setFirstWord(GetParam());
  const int code = getAndSetOnce(name.c_str());
  ASSERT_NE(code, -1) << "get or set hung on the lock";
  // 0: get -1 and set false; 2: get read the text, set false.
  EXPECT_TRUE(code == 0 || code == 2) << code;
  page.setFirstWord(0);
  EXPECT_EQ(getAndSetOnce(name.c_str()), 1);
}

// A holder that keeps the lock for a moment is waited for: get and set in
// another process succeed once it gives the lock back.
TEST(ShmStringLock, AHolderThatGivesTheLockBackIsWaitedFor) {
  OwnedName name;
  OwnerProcess owner(name.c_str(), 64, "hello");
  ASSERT_TRUE(owner.ready());
  LockPage page(name.c_str());
  ASSERT_TRUE(page.mapped());
  Pipe held;
  const pid_t holder = forkChild([&] {
    held.closeRead();
    if (pthread_rwlock_wrlock(page.lock()) != 0) _exit(1);
    writeAll(held.write, "held\n");
    usleep(300 * 1000);
    pthread_rwlock_unlock(page.lock());
    _exit(0);
  });
  held.closeWrite();
  ASSERT_EQ(readLine(held.read, patience()), "held");
  EXPECT_EQ(getAndSetOnce(name.c_str()), 1);
  EXPECT_EQ(waitForExit(holder, patience()), 0);
}
