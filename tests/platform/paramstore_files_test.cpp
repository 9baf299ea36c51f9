// SPDX-License-Identifier: MIT
// The file parameter store and the files around the parameter file: links to it, other spellings of
// its path, the temporary files of killed writers, failed writes.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "paramstore.h"
#include "test_support.h"

// The C library's rename and fsync, failing on request: this binary's
// definitions come before the C library's for the parameter service's calls
// too, so that a write can be made to fail at each step.
namespace {
std::atomic<int> gFailRename{0};
std::atomic<int> gFailFsync{0};

template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" int rename(const char* from, const char* to) {
  if (gFailRename.load() != 0) {
    errno = EXDEV;
    return -1;
  }
  static const auto real = next<int (*)(const char*, const char*)>("rename");
  return real(from, to);
}

extern "C" int fsync(int fd) {
  if (gFailFsync.load() != 0) {
    errno = EIO;
    return -1;
  }
  static const auto real = next<int (*)(int)>("fsync");
  return real(fd);
}

namespace {

using vorta_test::inChild;
using vorta_test::readFile;
using vorta_test::TempDir;
using vorta_test::writeFile;

bool isSymlink(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

// Names in the directory that start with prefix.
std::vector<std::string> namesStartingWith(const std::string& directory, const std::string& prefix) {
  std::vector<std::string> names;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return names;
  while (const dirent64* entry = readdir64(dir))
    if (std::string(entry->d_name).rfind(prefix, 0) == 0) names.push_back(entry->d_name);
  closedir(dir);
  return names;
}

// The pid of a process that has ended and been waited for.
pid_t deadPid() {
  const pid_t pid = vorta_test::forkFlushed();
  if (pid == 0) _exit(0);
  int status = 0;
  waitpid(pid, &status, 0);
  return pid;
}

// A parameter not in the table, stored under its hexadecimal key.
eParam_t unknownParam(uint32_t n) { return static_cast<eParam_t>(0x7E000000u + n); }

}  // namespace

// A write through a link to the parameter file replaces the file the link
// names, and the link stays a link: relative, absolute, a chain of two,
// and a link to a file not written yet.
TEST(FileParamsPaths, ALinkedParameterFileStaysALink) {
  TempDir dir;
  ASSERT_EQ(mkdir(dir.file("real").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(dir.file("links").c_str(), 0755), 0);
  const std::string real = dir.file("real/params.json");
  writeFile(real, "{\"take\": 2}\n");
  ASSERT_EQ(symlink("../real/params.json", dir.file("links/relative.json").c_str()), 0);
  ASSERT_EQ(symlink(real.c_str(), dir.file("links/absolute.json").c_str()), 0);
  ASSERT_EQ(symlink("relative.json", dir.file("links/chain.json").c_str()), 0);
  uint32_t take = 3;
  for (const char* link : {"links/relative.json", "links/absolute.json", "links/chain.json"}) {
    FileParamStore store(dir.file(link));
    ASSERT_EQ(store.setParam(eParamTake, take), 1) << link;
    EXPECT_TRUE(isSymlink(dir.file(link))) << link;
    EXPECT_EQ(FileParamStore(real).getParam(eParamTake), take) << link;
    EXPECT_EQ(store.getParam(eParamTake), take) << link;
    ++take;
  }
  EXPECT_TRUE(isSymlink(dir.file("links/relative.json")));
  // The lock and the temporary files live beside the real file.
  EXPECT_TRUE(namesStartingWith(dir.file("links"), "relative.json.").empty());
  EXPECT_EQ(namesStartingWith(dir.file("real"), "params.json."),
            std::vector<std::string>{"params.json.lock"});

  // A link to a file that does not exist yet: the file is made where the link points.
  ASSERT_EQ(symlink("../real/new.json", dir.file("links/dangling.json").c_str()), 0);
  ASSERT_EQ(FileParamStore(dir.file("links/dangling.json")).setParamString(eParamMediaDir, "/media/x"), 1);
  EXPECT_TRUE(isSymlink(dir.file("links/dangling.json")));
  std::string text;
  EXPECT_EQ(FileParamStore(dir.file("real/new.json")).getParamString(eParamMediaDir, text), 1);
  EXPECT_EQ(text, "/media/x");
}

// A linked directory on the way to the parameter file, and ".." in the
// path, reach the same file.
TEST(FileParamsPaths, OtherSpellingsOfThePathReachTheSameFile) {
  TempDir dir;
  ASSERT_EQ(mkdir(dir.file("d").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(dir.file("d/sub").c_str(), 0755), 0);
  ASSERT_EQ(symlink("d", dir.file("dirlink").c_str()), 0);
  ASSERT_EQ(FileParamStore(dir.file("dirlink/p.json")).setParam(eParamTake, 7), 1);
  ASSERT_EQ(FileParamStore(dir.file("d/sub/../p.json")).setParam(eParamClipNameNumber, 8), 1);
  FileParamStore plain(dir.file("d/p.json"));
  EXPECT_EQ(plain.getParam(eParamTake), 7u);
  EXPECT_EQ(plain.getParam(eParamClipNameNumber), 8u);
  EXPECT_FALSE(isSymlink(dir.file("d/p.json")));
  EXPECT_TRUE(isSymlink(dir.file("dirlink")));
}

// Two processes write 150 parameters each into one file, one through a link
// and the other through a path with "..": every update is there at the end,
// because both spellings take the one lock of the file.
TEST(FileParamsPaths, TwoSpellingsOfOneFileNeverLoseAnUpdate) {
  TempDir dir;
  ASSERT_EQ(mkdir(dir.file("d").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(dir.file("d/sub").c_str(), 0755), 0);
  writeFile(dir.file("d/p.json"), "{}\n");
  ASSERT_EQ(symlink("d/p.json", dir.file("alias.json").c_str()), 0);
  const std::string spellings[2] = {dir.file("alias.json"), dir.file("d/sub/../p.json")};
  const uint32_t perWriter = 150;
  pid_t writers[2];
  for (int w = 0; w < 2; ++w) {
    writers[w] = vorta_test::forkFlushed();
    ASSERT_GE(writers[w], 0);
    if (writers[w] == 0) {
      FileParamStore store(spellings[w]);
      for (uint32_t i = 0; i < perWriter; ++i)
        if (store.setParam(unknownParam(1000 * static_cast<uint32_t>(w) + i), i + 1) != 1) _exit(1);
      _exit(0);
    }
  }
  for (const pid_t writer : writers) {
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  FileParamStore store(dir.file("d/p.json"));
  int lost = 0;
  for (uint32_t w = 0; w < 2; ++w)
    for (uint32_t i = 0; i < perWriter; ++i) {
      uint32_t value = 0;
      if (store.getParamValue(unknownParam(1000 * w + i), value) != 1 || value != i + 1) ++lost;
    }
  EXPECT_EQ(lost, 0);
  EXPECT_TRUE(isSymlink(dir.file("alias.json")));
}

// Writers killed with SIGKILL at random moments of their writes, 50 times:
// the file is always whole, and once the next writer has run no temporary
// file is left, of the killed writers or its own.
TEST(FileParamsPaths, KilledWritersLeaveNoTemporaryFileOnceTheNextWriterHasRun) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  ASSERT_EQ(FileParamStore(path).setParam(eParamTake, 1), 1);
  // A large member makes each write long enough to be killed in the middle.
  const std::string bulk(200000, 'b');
  std::mt19937 random(2025);
  int killedWithATemporary = 0;
  // Kills land at random moments after the writer's first write: counted
  // from its start they would all fall before it where start-up is slow
  // (a PowerPC kernel under emulation).
  const unsigned longest = vorta_test::underEmulation() ? 30000 : 6000;
  for (int round = 0; round < 50; ++round) {
    int started[2];
    ASSERT_EQ(pipe(started), 0);
    const pid_t writer = vorta_test::forkFlushed();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      close(started[0]);
      FileParamStore store(path);
      for (uint32_t i = 0;; ++i) {
        store.setParamString(eParamCustomClipNameText, bulk);
        store.setParam(eParamTake, 1 + i % 999);
        if (i == 0 && write(started[1], "w", 1) != 1) _exit(1);
      }
    }
    close(started[1]);
    char byte = 0;
    ASSERT_EQ(read(started[0], &byte, 1), 1) << "round " << round << ": the writer did not write";
    close(started[0]);
    usleep(std::uniform_int_distribution<unsigned>(0, longest)(random));
    kill(writer, SIGKILL);
    int status = 0;
    waitpid(writer, &status, 0);
    if (!namesStartingWith(dir.path(), "p.json.tmp.").empty()) ++killedWithATemporary;

    FileParamStore store(path);
    uint32_t take = 0;
    ASSERT_EQ(store.getParamValue(eParamTake, take), 1) << "round " << round << ": the file is not whole";
    EXPECT_GE(take, 1u);
    EXPECT_LE(take, 999u);
    ASSERT_EQ(store.setParam(eParamClipNameNumber, static_cast<uint32_t>(round)), 1);
    ASSERT_EQ(namesStartingWith(dir.path(), "p.json.tmp."), std::vector<std::string>{}) << "round " << round;
  }
  // The kills did land inside writes (else the test showed nothing).
  EXPECT_GT(killedWithATemporary, 0);
}

// Only temporary files of writers that no longer run are removed: not one
// of a running process, nor files whose names only look alike.
TEST(FileParamsPaths, OnlyTheTemporaryFilesOfEndedWritersAreRemoved) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  // Process ids no process can have (above any pid_max) are those of ended
  // writers too, up to the largest int.
  const std::vector<std::string> removed = {"p.json.tmp." + std::to_string(deadPid()), "p.json.tmp.9999999",
                                            "p.json.tmp.2147483647"};
  const std::string running = "p.json.tmp." + std::to_string(getppid());
  const std::vector<std::string> kept = {running,
                                         "p.json.tmp.",
                                         "p.json.tmp.abc",
                                         "p.json.tmp.12x",
                                         "p.json.tmp.0",
                                         "p.json.tmp.-5",
                                         "p.json.tmp.0123",
                                         "p.json.tmp.2147483648",
                                         "p.json.tmp.99999999999999999999",
                                         "q.json.tmp.1999999999"};
  for (const std::string& name : removed) writeFile(dir.file(name), "half a wri");
  for (const std::string& name : kept) writeFile(dir.file(name), "x");
  ASSERT_EQ(mkdir(dir.file("p.json.tmp.1999999998").c_str(), 0755), 0);  // not a file: left
  ASSERT_EQ(FileParamStore(path).setParam(eParamTake, 4), 1);
  std::set<std::string> left;
  for (const std::string& name : namesStartingWith(dir.path(), "")) left.insert(name);
  for (const std::string& name : removed) EXPECT_EQ(left.count(name), 0u) << name;
  for (const std::string& name : kept) EXPECT_EQ(left.count(name), 1u) << name;
  EXPECT_EQ(left.count("p.json.tmp.1999999998"), 1u);
  EXPECT_EQ(FileParamStore(path).getParam(eParamTake), 4u);
}

// A parameter file directly in the root directory: the temporary files of
// ended writers beside it are removed too (its directory is "/").
TEST(FileParamsPaths, TheTemporaryFilesOfEndedWritersInTheRootDirectoryAreRemovedToo) {
  if (vorta_test::underEmulation())
    GTEST_SKIP() << "qemu-user run with a sysroot lists the sysroot for \"/\" (its path remapping), not the "
                    "root directory the files are in; make test-ppc-system runs this on a PowerPC kernel";
  const std::string path = "/vorta-params-test-" + std::to_string(getpid()) + ".json";
  const std::string stale = path + ".tmp.9999999";
  const int probe = open(stale.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (probe < 0) GTEST_SKIP() << "the root directory is not writable here: " << std::strerror(errno);
  close(probe);
  const int stored = FileParamStore(path).setParam(eParamTake, 4);
  struct stat info;
  const bool left = lstat(stale.c_str(), &info) == 0;
  unlink(stale.c_str());
  unlink(path.c_str());
  unlink((path + ".lock").c_str());
  EXPECT_EQ(stored, 1);
  EXPECT_FALSE(left) << stale;
}

// A parameter file a write creates is readable by all and writable by its
// owner only, and executable by no one (mode 0644, the umask applied).
TEST(FileParamsPaths, AWrittenParameterFileHasMode0644) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  const mode_t before = umask(0);
  const int stored = FileParamStore(path).setParam(eParamTake, 6);
  umask(before);
  ASSERT_EQ(stored, 1);
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0644u);
}

// A write that fails after its temporary file was made (here the file size
// limit stops it) says why on standard error, returns 0, leaves no temporary
// file and keeps the old file.
TEST(FileParamsPaths, AFailedWriteSaysSoAndLeavesNoTemporaryFile) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  ASSERT_EQ(FileParamStore(path).setParam(eParamTake, 6), 1);
  const std::string before = readFile(path);
  const std::string errors = dir.file("stderr.txt");
  const int code = inChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit = {64, 64};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 90;
    if (freopen(errors.c_str(), "w", stderr) == nullptr) return 91;
    const int result = FileParamStore(path).setParamString(eParamCustomClipNameText, std::string(1000, 'x'));
    std::fflush(stderr);
    return result == 0 ? 0 : 1;
  });
  ASSERT_EQ(code, 0);
  EXPECT_EQ(readFile(errors), path + ": File too large\n");
  EXPECT_EQ(namesStartingWith(dir.path(), "p.json.tmp."), std::vector<std::string>{});
  EXPECT_EQ(readFile(path), before);
}

// A write whose fsync or rename fails says so with the system's reason,
// returns 0, leaves no temporary file and keeps the old file; the next
// write works.
TEST(FileParamsPaths, AWriteFailingAtFsyncOrRenameSaysSoAndLeavesNoTemporaryFile) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  FileParamStore store(path);
  ASSERT_EQ(store.setParam(eParamTake, 6), 1);
  const std::string before = readFile(path);
  for (std::atomic<int>* failing : {&gFailFsync, &gFailRename}) {
    const char* reason = failing == &gFailFsync ? "Input/output error" : "Invalid cross-device link";
    failing->store(1);
    testing::internal::CaptureStderr();
    const int result = store.setParam(eParamTake, 7);
    const std::string said = testing::internal::GetCapturedStderr();
    failing->store(0);
    EXPECT_EQ(result, 0) << reason;
    EXPECT_EQ(said, path + ": " + reason + "\n");
    EXPECT_EQ(namesStartingWith(dir.path(), "p.json.tmp."), std::vector<std::string>{}) << reason;
    EXPECT_EQ(readFile(path), before) << reason;
  }
  EXPECT_EQ(store.setParam(eParamTake, 8), 1);
  EXPECT_EQ(store.getParam(eParamTake), 8u);
}

// A write that cannot open its temporary file (a directory stands under its
// name) gives back the text it printed the file from: 200 such writes of a
// file some 2 KB long leave the heap as they found it (one text kept per
// write would be 400 KB), and the file as it was.
TEST(FileParamsPaths, WritesThatCannotOpenTheirTemporaryFileLeaveNoHeapMemoryBehind) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  FileParamStore store(path);
  ASSERT_EQ(store.setParamString(eParamCustomClipNameText, std::string(2000, 'x')), 1);
  const std::string before = readFile(path);
  const std::string tmp = path + ".tmp." + std::to_string(getpid());
  ASSERT_EQ(mkdir(tmp.c_str(), 0755), 0);
  testing::internal::CaptureStderr();
  ASSERT_EQ(store.setParam(eParamMediaBusy, 1), 0);  // whatever the C library sets up once is set up
  const std::size_t heapBefore = vorta_test::heapInUse();
  for (uint32_t i = 0; i < 200; ++i) ASSERT_EQ(store.setParam(eParamMediaBusy, i % 2), 0);
  const std::size_t heapAfter = vorta_test::heapInUse();
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_LT(heapAfter, heapBefore + 4096)
      << "200 failed writes kept " << static_cast<long long>(heapAfter - heapBefore) << " bytes";
  std::string expected;
  for (int i = 0; i < 201; ++i) expected += tmp + ": Is a directory\n";
  EXPECT_EQ(said, expected);
  EXPECT_EQ(readFile(path), before);
  EXPECT_EQ(rmdir(tmp.c_str()), 0);
}

// The media-busy flag, written around every scan and not forced to storage,
// changes in place when its new text differs from the file's in at most one
// byte:
// the file keeps its inode, no temporary file is made, and a rename that
// would fail is never tried. Any other change goes through a new file and
// rename: a longer value, and every durable parameter even when it changes
// one byte.
TEST(FileParamsPaths, TheMediaBusyFlagChangesInPlaceWhenOneByteChanges) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  FileParamStore store(path);
  ASSERT_EQ(store.setParam(eParamTake, 6), 1);
  ASSERT_EQ(store.setParam(eParamMediaBusy, 1), 1);  // a new key: a new file
  ASSERT_EQ(readFile(path), "{\n\t\"take\":\t6,\n\t\"media-busy\":\t1\n}\n");
  const auto inode = [&path] {
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
  };
  const ino_t before = inode();
  gFailRename.store(1);
  EXPECT_EQ(store.setParam(eParamMediaBusy, 2), 1);
  EXPECT_EQ(readFile(path), "{\n\t\"take\":\t6,\n\t\"media-busy\":\t2\n}\n");
  EXPECT_EQ(store.setParam(eParamMediaBusy, 1), 1);
  EXPECT_EQ(store.setParam(eParamMediaBusy, 1), 1);  // nothing differs: nothing written
  EXPECT_EQ(readFile(path), "{\n\t\"take\":\t6,\n\t\"media-busy\":\t1\n}\n");
  EXPECT_EQ(inode(), before);
  testing::internal::CaptureStderr();
  EXPECT_EQ(store.setParam(eParamMediaBusy, 12), 0);  // a longer text
  EXPECT_EQ(store.setParam(eParamTake, 7), 0);        // durable, one byte
  const std::string said = testing::internal::GetCapturedStderr();
  gFailRename.store(0);
  EXPECT_EQ(said, path + ": Invalid cross-device link\n" + path + ": Invalid cross-device link\n");
  EXPECT_EQ(readFile(path), "{\n\t\"take\":\t6,\n\t\"media-busy\":\t1\n}\n");
  EXPECT_EQ(namesStartingWith(dir.path(), "p.json.tmp."), std::vector<std::string>{});
  EXPECT_EQ(store.setParam(eParamTake, 7), 1);
  EXPECT_NE(inode(), before);
  EXPECT_EQ(store.getParam(eParamTake), 7u);
  EXPECT_EQ(store.getParam(eParamMediaBusy), 1u);
  // Two bytes that differ in a text of the same length: a new file.
  ASSERT_EQ(store.setParam(eParamMediaBusy, 12), 1);
  gFailRename.store(1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(store.setParam(eParamMediaBusy, 21), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), path + ": Invalid cross-device link\n");
  gFailRename.store(0);
  EXPECT_EQ(store.getParam(eParamMediaBusy), 12u);
}

// A file whose text is not the one the store prints (written by hand, other
// spacing) is rewritten whole, in the store's own layout, even when the
// value changes one digit.
TEST(FileParamsPaths, AFileInAnotherLayoutIsRewrittenWhole) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  vorta_test::writeFile(path, "{\"media-busy\": 1, \"take\": 6}\n");
  FileParamStore store(path);
  EXPECT_EQ(store.setParam(eParamMediaBusy, 2), 1);
  EXPECT_EQ(readFile(path), "{\n\t\"take\":\t6,\n\t\"media-busy\":\t2\n}\n");
}

// Whether a parameter the table does not know holds text is read from the
// file: a string is text, a number is not, and a file that cannot be read
// as a parameter file (a directory, not JSON, missing) holds no text.
TEST(FileParamsPaths, TextOrNotOfAnUnknownParameterComesFromTheFile) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  FileParamStore store(path);
  EXPECT_FALSE(store.isTextParam(unknownParam(1)));  // no file
  writeFile(path, "{\"0x7E000001\": \"text\", \"0x7E000002\": 5}\n");
  EXPECT_TRUE(store.isTextParam(unknownParam(1)));
  EXPECT_FALSE(store.isTextParam(unknownParam(2)));
  EXPECT_FALSE(store.isTextParam(unknownParam(3)));
  writeFile(path, "{\"0x7E000001\": \"text\"");  // cut short: not JSON
  EXPECT_FALSE(store.isTextParam(unknownParam(1)));
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  EXPECT_FALSE(store.isTextParam(unknownParam(1)));
  // The table decides for the parameters it knows, whatever the file.
  EXPECT_TRUE(store.isTextParam(eParamMediaDir));
  EXPECT_FALSE(store.isTextParam(eParamTake));
}
