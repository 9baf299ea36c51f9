// SPDX-License-Identifier: MIT
// Tests of ShmString: segment layout, bounded text, owner and readers in real processes.
#include "shmstring.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "test_support.h"

namespace {

using namespace process_test;
using vorta_test::uniqueName;

// A unique segment name, unlinked when the test ends whatever happened.
class SegmentName {
 public:
  SegmentName() : name_("/" + uniqueName("vorta_shmstring")) {}
  ~SegmentName() { shm_unlink(name_.c_str()); }
  const char* c_str() const { return name_.c_str(); }
  bool exists() const {
    const int fd = shm_open(name_.c_str(), O_RDONLY, 0);
    if (fd == -1) return false;
    ::close(fd);
    return true;
  }

 private:
  std::string name_;
};

// The raw bytes of a segment, read through a separate mapping.
std::vector<unsigned char> rawSegment(const char* name) {
  const int fd = shm_open(name, O_RDONLY, 0);
  if (fd == -1) return {};
  struct stat status;
  fstat(fd, &status);
  std::vector<unsigned char> bytes(static_cast<std::size_t>(status.st_size));
  if (!bytes.empty()) {
    void* map = mmap(nullptr, bytes.size(), PROT_READ, MAP_SHARED, fd, 0);
    if (map != MAP_FAILED) {
      std::memcpy(bytes.data(), map, bytes.size());
      munmap(map, bytes.size());
    }
  }
  ::close(fd);
  return bytes;
}

uint32_t nativeU32(const std::vector<unsigned char>& bytes, std::size_t offset) {
  uint32_t value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

int32_t nativeI32(const std::vector<unsigned char>& bytes, std::size_t offset) {
  int32_t value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

// Makes a segment by hand: size bytes, with capacity stored in the header.
void makeRawSegment(const char* name, std::size_t size, uint32_t capacity, const char* text) {
  const int fd = shm_open(name, O_RDWR | O_CREAT, 0600);
  ASSERT_NE(fd, -1);
  ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
  if (size >= ShmString::kOverhead) {
    void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(map, MAP_FAILED);
    unsigned char* bytes = static_cast<unsigned char*>(map);
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_rwlock_init(reinterpret_cast<pthread_rwlock_t*>(bytes), &attributes);
    std::memcpy(bytes + ShmString::kCapacityOffset, &capacity, sizeof capacity);
    if (text != nullptr) std::memcpy(bytes + ShmString::kTextOffset, text, std::strlen(text) + 1);
    munmap(map, size);
  }
  ::close(fd);
}

TEST(ShmStringLayout, HeaderOffsets) {
  if (sizeof(void*) == 4) {
    // The recorder's layout: lock 32 bytes, capacity at 32, pid at 36, text at 40.
    EXPECT_EQ(sizeof(pthread_rwlock_t), 32u);
    EXPECT_EQ(ShmString::kLockSize, 32u);
    EXPECT_EQ(ShmString::kCapacityOffset, 32u);
    EXPECT_EQ(ShmString::kPidOffset, 36u);
    EXPECT_EQ(ShmString::kTextOffset, 40u);
    EXPECT_EQ(ShmString::kOverhead, 44u);
  } else {
    // A larger host lock: the fields follow it, 8-aligned, in the same order.
    EXPECT_GE(ShmString::kLockSize, sizeof(pthread_rwlock_t));
    EXPECT_EQ(ShmString::kLockSize % 8, 0u);
    EXPECT_EQ(ShmString::kPidOffset, ShmString::kCapacityOffset + 4);
    EXPECT_EQ(ShmString::kTextOffset, ShmString::kCapacityOffset + 8);
    EXPECT_EQ(ShmString::kOverhead, ShmString::kTextOffset + 4);
  }
}

// The segment is capacity + overhead bytes: header, text and 4 zero bytes.
TEST(ShmStringLayout, CreatedSegmentHoldsCapacityPidAndText) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(8));
  ASSERT_TRUE(owner.set("abc"));
  const std::vector<unsigned char> bytes = rawSegment(name.c_str());
  ASSERT_EQ(bytes.size(), 8 + ShmString::kOverhead);
  EXPECT_EQ(nativeU32(bytes, ShmString::kCapacityOffset), 8u);
  EXPECT_EQ(nativeI32(bytes, ShmString::kPidOffset), getpid());
  const std::vector<unsigned char> text(bytes.begin() + ShmString::kTextOffset, bytes.end());
  const std::vector<unsigned char> expected = {'a', 'b', 'c', 0, 0, 0, 0, 0, /* unused */ 0, 0, 0, 0};
  EXPECT_EQ(text, expected);
}

TEST(ShmString, GetOfNameNoProcessCreatedReturnsMinusOneAndEmptiesDest) {
  SegmentName name;
  ShmString reader(name.c_str());
  char dest[16] = "leftover";
  EXPECT_EQ(reader.get(dest, sizeof dest), -1);
  EXPECT_EQ(dest[0], '\0');
  EXPECT_FALSE(reader.isAttached());
  EXPECT_FALSE(name.exists());
}

// Texts longer than the capacity are cut to capacity - 1 characters.
TEST(ShmString, CapacityEightStoresFirstSevenOfTenLetters) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(8));
  EXPECT_EQ(owner.capacity(), 8);
  ASSERT_TRUE(owner.set("abcdefghij"));
  char dest[32];
  std::memset(dest, 'x', sizeof dest);
  EXPECT_EQ(owner.get(dest, sizeof dest), 7);
  EXPECT_STREQ(dest, "abcdefg");
  const std::vector<unsigned char> bytes = rawSegment(name.c_str());
  const std::vector<unsigned char> text(bytes.begin() + ShmString::kTextOffset,
                                        bytes.begin() + ShmString::kTextOffset + 8);
  const std::vector<unsigned char> expected = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 0};
  EXPECT_EQ(text, expected);
}

// get returns the count before the forced terminator: one more than what dest keeps.
TEST(ShmString, GetIntoFourBytesKeepsThreeLettersAndReturnsFour) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(8));
  ASSERT_TRUE(owner.set("abcdefghij"));
  char dest[8];
  std::memset(dest, 'x', sizeof dest);
  EXPECT_EQ(owner.get(dest, 4), 4);
  EXPECT_STREQ(dest, "abc");
  EXPECT_EQ(dest[4], 'x');  // nothing written past size
}

TEST(ShmString, GetOfShortTextReturnsItsLength) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(8));
  ASSERT_TRUE(owner.set("abc"));
  char dest[16];
  EXPECT_EQ(owner.get(dest, sizeof dest), 3);
  EXPECT_STREQ(dest, "abc");
  ASSERT_TRUE(owner.set(""));
  EXPECT_EQ(owner.get(dest, sizeof dest), 0);
  EXPECT_STREQ(dest, "");
  // A text of exactly capacity - 1 characters fits whole.
  ASSERT_TRUE(owner.set("1234567"));
  EXPECT_EQ(owner.get(dest, sizeof dest), 7);
  EXPECT_STREQ(dest, "1234567");
}

TEST(ShmString, CapacityOfUnattachedObjectIsZero) {
  SegmentName name;
  ShmString unattached(name.c_str());
  EXPECT_EQ(unattached.capacity(), 0);
  EXPECT_FALSE(unattached.isAttached());
  EXPECT_FALSE(unattached.isOwnerAlive());
}

TEST(ShmString, AfterOwnerCloseReaderSeesNoOwnerAndGetFails) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(16));
  ASSERT_TRUE(owner.set("hello"));
  ShmString reader(name.c_str());
  char dest[16];
  ASSERT_EQ(reader.get(dest, sizeof dest), 5);
  EXPECT_TRUE(reader.isOwnerAlive());
  owner.close();
  EXPECT_FALSE(name.exists());
  EXPECT_FALSE(reader.isOwnerAlive());
  EXPECT_FALSE(reader.isAttached());
  EXPECT_EQ(reader.get(dest, sizeof dest), -1);
  EXPECT_STREQ(dest, "");
  EXPECT_FALSE(reader.set("again"));
}

// Mappings of the process whose file is the segment named name, from
// /proc/self/maps.
int mappingsOf(const char* name) {
  std::ifstream maps("/proc/self/maps");
  const std::string file = std::string("/dev/shm") + name;
  int count = 0;
  for (std::string line; std::getline(maps, line);)
    if (line.size() >= file.size() && line.compare(line.size() - file.size(), file.size(), file) == 0)
      ++count;
  return count;
}

// close() gives back the segment's descriptor and mapping, the owner's and
// a reader's, and so does the destructor; the objects can be used again
// after it.
TEST(ShmString, CloseGivesBackTheDescriptorAndTheMapping) {
  SegmentName name;
  const int before = vorta_test::openDescriptors();
  ShmString owner(name.c_str());
  ShmString reader(name.c_str());
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(owner.create(16)) << round;
    ASSERT_TRUE(reader.attach(false, 0)) << round;
    EXPECT_GT(vorta_test::openDescriptors(), before);
    EXPECT_EQ(mappingsOf(name.c_str()), 2);
    EXPECT_TRUE(ShmString::hasLiveOwner(name.c_str()));  // opens and closes the name itself
    reader.close();
    EXPECT_EQ(mappingsOf(name.c_str()), 1);
    owner.close();
    EXPECT_EQ(mappingsOf(name.c_str()), 0);
    EXPECT_EQ(vorta_test::openDescriptors(), before) << round;
  }
  {
    ShmString scoped(name.c_str());
    ASSERT_TRUE(scoped.create(16));
  }
  EXPECT_EQ(vorta_test::openDescriptors(), before);
  EXPECT_FALSE(name.exists());
}

// The segment is made readable and writable by every user (mode 0666,
// whatever the process's file-creation mask), so that the recorder's
// processes of other users can read and write the text; the mask is put
// back afterwards.
TEST(ShmString, SegmentIsMadeForEveryUserWhateverTheMask) {
  SegmentName name;
  const mode_t previous = umask(077);
  ShmString owner(name.c_str());
  const bool created = owner.create(16);
  const mode_t during = umask(previous);
  ASSERT_TRUE(created);
  EXPECT_EQ(during, 077u);
  struct stat status;
  ASSERT_EQ(stat((std::string("/dev/shm") + name.c_str()).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666u);
}

// The lock in the segment is made for processes: a process that waits on it
// with the plain blocking call (as any of the recorder's programs may) is
// woken when another process releases it.
TEST(ShmString, TheLockWakesAWaiterInAnotherProcess) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(16));
  const int fd = shm_open(name.c_str(), O_RDWR, 0);
  ASSERT_NE(fd, -1);
  void* map = mmap(nullptr, 16 + ShmString::kOverhead, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  ASSERT_NE(map, MAP_FAILED);
  pthread_rwlock_t* lock = static_cast<pthread_rwlock_t*>(map);
  ASSERT_EQ(pthread_rwlock_wrlock(lock), 0);
  Pipe started;
  const pid_t waiter = forkChild([&] {
    started.closeRead();
    writeAll(started.write, "waiting\n");
    _exit(pthread_rwlock_rdlock(lock) == 0 && pthread_rwlock_unlock(lock) == 0 ? 0 : 1);
  });
  started.closeWrite();
  EXPECT_EQ(readLine(started.read, patience()), "waiting");
  usleep(100000);  // the waiter is asleep on the lock by now, as a rule
  ASSERT_EQ(pthread_rwlock_unlock(lock), 0);
  const int status = waitForExit(waiter, patience());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the waiter was never woken";
  munmap(map, 16 + ShmString::kOverhead);
}

// Deliberate: a reader that closes clears the owner pid too, so every other
// reader finds the owner gone and re-attaches on its next get or set.
TEST(ShmString, ReaderCloseClearsOwnerPid) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(16));
  ASSERT_TRUE(owner.set("shared"));
  ShmString first(name.c_str());
  ShmString second(name.c_str());
  ASSERT_TRUE(first.attach(false, 0));
  ASSERT_TRUE(second.attach(false, 0));
  EXPECT_TRUE(second.isAttached());

  first.close();
  EXPECT_EQ(nativeI32(rawSegment(name.c_str()), ShmString::kPidOffset), 0);
  EXPECT_FALSE(owner.isOwnerAlive());
  EXPECT_TRUE(owner.isAttached());  // the owner stays attached
  EXPECT_FALSE(second.isAttached());
  EXPECT_TRUE(name.exists());  // a reader never unlinks

  // The other reader re-attaches and still reads the text.
  char dest[16];
  EXPECT_EQ(second.get(dest, sizeof dest), 6);
  EXPECT_STREQ(dest, "shared");
  ASSERT_TRUE(second.set("changed"));
  EXPECT_EQ(owner.get(dest, sizeof dest), 7);
  EXPECT_STREQ(dest, "changed");
}

TEST(ShmString, ReaderAttachesToExistingSegmentAndSeesCapacity) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(32));
  ShmString reader(name.c_str());
  EXPECT_TRUE(reader.attach(false, 0));
  EXPECT_TRUE(reader.isAttached());
  EXPECT_TRUE(reader.isOwnerAlive());
  EXPECT_EQ(reader.capacity(), 32);
  // Attaching again while attached changes nothing.
  EXPECT_TRUE(reader.attach(false, 0));
  EXPECT_EQ(reader.capacity(), 32);
}

TEST(ShmString, CreateRefusesBadCapacity) {
  SegmentName name;
  ShmString owner(name.c_str());
  EXPECT_FALSE(owner.create(0));
  EXPECT_FALSE(owner.create(-1));
  EXPECT_FALSE(owner.create(INT_MIN));
  EXPECT_FALSE(owner.create(ShmString::kMaxCapacity + 1));
  EXPECT_FALSE(owner.create(INT_MAX));
  EXPECT_FALSE(name.exists());
  EXPECT_EQ(owner.capacity(), 0);
  EXPECT_TRUE(owner.create(1));
  // Capacity 1 holds only the terminator.
  EXPECT_TRUE(owner.set("x"));
  char dest[4];
  EXPECT_EQ(owner.get(dest, sizeof dest), 0);
  EXPECT_STREQ(dest, "");
}

TEST(ShmString, NullEmptyAndOverlongNamesAreRefused) {
  char dest[8] = "x";
  for (const std::string& bad : {std::string(), std::string(256, 'n'), std::string(300, 'n')}) {
    ShmString shm(bad.c_str());
    EXPECT_FALSE(shm.create(8)) << bad.size();
    EXPECT_FALSE(shm.attach(false, 0));
    EXPECT_FALSE(shm.set("text"));
    EXPECT_EQ(shm.get(dest, sizeof dest), -1);
    EXPECT_STREQ(dest, "");
  }
  ShmString null(nullptr);
  EXPECT_FALSE(null.create(8));
  EXPECT_FALSE(null.set("text"));
  dest[0] = 'x';
  EXPECT_EQ(null.get(dest, sizeof dest), -1);
  EXPECT_STREQ(dest, "");
  null.close();
}

TEST(ShmString, GetRefusesNullDestAndNegativeSize) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(8));
  ASSERT_TRUE(owner.set("abc"));
  char dest[4] = {'q', 'q', 'q', 0};
  EXPECT_EQ(owner.get(nullptr, 4), -1);
  EXPECT_EQ(owner.get(dest, 0), 0);  // min(0, capacity): nothing read
  EXPECT_EQ(owner.get(dest, -5), -1);
  EXPECT_EQ(owner.get(dest, -1), -1);
  EXPECT_STREQ(dest, "qqq");  // untouched
  EXPECT_FALSE(owner.set(nullptr));
  EXPECT_EQ(owner.get(dest, 4), 3);
  EXPECT_STREQ(dest, "abc");
}

// A reader refuses a segment whose stored capacity does not describe its real size.
TEST(ShmString, AttachRefusesSegmentWhoseCapacityDisagreesWithItsSize) {
  struct Case {
    std::size_t size;
    uint32_t capacity;
  };
  const Case cases[] = {
      {0, 0},                                   // created, not yet sized
      {ShmString::kOverhead - 1, 0},            // shorter than the header
      {ShmString::kOverhead, 0},                // no room for a terminator
      {ShmString::kOverhead + 8, 0},            // capacity not yet stored
      {ShmString::kOverhead + 8, 64},           // claims more than is there
      {ShmString::kOverhead + 64, 8},           // claims less than is there
      {ShmString::kOverhead + 8, 0xFFFFFFF8u},  // would wrap around
  };
  for (const Case& c : cases) {
    SegmentName name;
    makeRawSegment(name.c_str(), c.size, c.capacity, nullptr);
    ShmString reader(name.c_str());
    EXPECT_FALSE(reader.attach(false, 0)) << c.size << " " << c.capacity;
    char dest[8] = "x";
    EXPECT_EQ(reader.get(dest, sizeof dest), -1);
    EXPECT_STREQ(dest, "");
    EXPECT_FALSE(reader.set("text"));
    EXPECT_EQ(reader.capacity(), 0);
  }
}

// A segment laid out by hand with the documented header is read like one
// created here; without an owner pid the reader re-attaches on each call.
TEST(ShmString, ReadsSegmentWithDocumentedLayout) {
  SegmentName name;
  makeRawSegment(name.c_str(), ShmString::kOverhead + 8, 8, "hi");
  ShmString reader(name.c_str());
  char dest[8];
  EXPECT_EQ(reader.get(dest, sizeof dest), 2);
  EXPECT_STREQ(dest, "hi");
  EXPECT_EQ(reader.capacity(), 8);
  EXPECT_FALSE(reader.isOwnerAlive());
  EXPECT_FALSE(reader.isAttached());
  EXPECT_TRUE(reader.set("abcdefghij"));
  EXPECT_EQ(reader.get(dest, sizeof dest), 7);
  EXPECT_STREQ(dest, "abcdefg");
  reader.close();
  EXPECT_TRUE(name.exists());  // only an owner unlinks
}

// The owner in one process, a reader in another: the reader sees the text,
// writes a new one that the owner sees, and after the owner closes finds the
// name gone.
TEST(ShmStringProcesses, OwnerAndReaderInSeparateProcesses) {
  SegmentName name;
  Pipe toTest, toOwner;
  const pid_t owner = forkChild([&] {
    toTest.closeRead();
    toOwner.closeWrite();
    ShmString shm(name.c_str());
    if (!shm.create(16) || !shm.set("hello")) _exit(1);
    writeAll(toTest.write, "ready\n");
    // Commands: "read" answers with the text, "close" closes and answers.
    for (;;) {
      const std::string command = readLine(toOwner.read, patience());
      char text[16];
      if (command == "read") {
        const int n = shm.get(text, sizeof text);
        writeAll(toTest.write, std::to_string(n) + " " + text + "\n");
      } else if (command == "close") {
        shm.close();
        writeAll(toTest.write, "closed\n");
      } else {
        break;
      }
    }
  });
  toTest.closeWrite();
  toOwner.closeRead();
  ASSERT_EQ(readLine(toTest.read, patience()), "ready");

  ShmString reader(name.c_str());
  char dest[16];
  EXPECT_EQ(reader.get(dest, sizeof dest), 5);
  EXPECT_STREQ(dest, "hello");
  EXPECT_TRUE(reader.isOwnerAlive());
  EXPECT_TRUE(reader.isAttached());
  EXPECT_EQ(reader.capacity(), 16);

  ASSERT_TRUE(reader.set("a longer text than sixteen"));
  writeAll(toOwner.write, "read\n");
  EXPECT_EQ(readLine(toTest.read, patience()), "15 a longer text t");

  writeAll(toOwner.write, "close\n");
  EXPECT_EQ(readLine(toTest.read, patience()), "closed");
  EXPECT_FALSE(reader.isOwnerAlive());
  EXPECT_EQ(reader.get(dest, sizeof dest), -1);
  EXPECT_STREQ(dest, "");

  toOwner.closeWrite();
  const int status = waitForExit(owner, patience());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// An owner killed without closing leaves the name behind with its pid: the
// reader sees the owner dead, re-attaches to the same name and reads the
// last text; its own close then clears the stale pid.
TEST(ShmStringProcesses, OwnerKilledReaderSeesOwnerDeadAndReattaches) {
  SegmentName name;
  Pipe toTest;
  const pid_t owner = forkChild([&] {
    toTest.closeRead();
    ShmString shm(name.c_str());
    if (!shm.create(16) || !shm.set("last words")) _exit(1);
    writeAll(toTest.write, "ready\n");
    for (;;) pause();
  });
  toTest.closeWrite();
  ASSERT_EQ(readLine(toTest.read, patience()), "ready");

  ShmString reader(name.c_str());
  ASSERT_TRUE(reader.attach(false, 0));
  EXPECT_TRUE(reader.isOwnerAlive());
  EXPECT_EQ(nativeI32(rawSegment(name.c_str()), ShmString::kPidOffset), owner);

  ASSERT_EQ(kill(owner, SIGKILL), 0);
  const int status = waitForExit(owner, patience());
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_FALSE(reader.isOwnerAlive());
  EXPECT_FALSE(reader.isAttached());
  EXPECT_TRUE(name.exists());

  char dest[16];
  EXPECT_EQ(reader.get(dest, sizeof dest), 10);
  EXPECT_STREQ(dest, "last words");
  EXPECT_EQ(nativeI32(rawSegment(name.c_str()), ShmString::kPidOffset), 0);
  EXPECT_FALSE(reader.isOwnerAlive());
  // A new owner takes the name over.
  ShmString successor(name.c_str());
  ASSERT_TRUE(successor.create(16));
  ASSERT_TRUE(successor.set("new owner"));
  EXPECT_EQ(reader.get(dest, sizeof dest), 9);
  EXPECT_STREQ(dest, "new owner");
  EXPECT_TRUE(reader.isOwnerAlive());
}

// Readers in several processes never see a half-written text while the
// owner keeps replacing it.
TEST(ShmStringProcesses, ReadersNeverSeeATornText) {
  SegmentName name;
  ShmString owner(name.c_str());
  ASSERT_TRUE(owner.create(64));
  const std::string as(40, 'A'), bs(40, 'B');
  ASSERT_TRUE(owner.set(as.c_str()));
  const int rounds = vorta_test::underEmulation() ? 300 : 3000;

  std::vector<pid_t> readers;
  for (int r = 0; r < 2; ++r) {
    readers.push_back(forkChild([&] {
      ShmString reader(name.c_str());
      char dest[64];
      for (int i = 0; i < rounds; ++i) {
        const int n = reader.get(dest, sizeof dest);
        if (n != 40) _exit(2);
        if (std::string(dest) != as && std::string(dest) != bs) _exit(3);
      }
      // Exit without closing, so as not to clear the owner pid.
      _exit(0);
    }));
  }
  for (int i = 0; i < rounds; ++i) ASSERT_TRUE(owner.set((i % 2 ? as : bs).c_str()));
  for (pid_t pid : readers) {
    const int status = waitForExit(pid, patience() * 3);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "2: failed read, 3: torn text";
  }
}

}  // namespace
