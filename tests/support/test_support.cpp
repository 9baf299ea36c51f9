// SPDX-License-Identifier: MIT
// vorta tests: temporary directories, unique names and small file helpers.
#include "test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace vorta_test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/vorta-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  // A leftover entry harms no test: keep removing the others.
  std::remove(path);
  return 0;
}

}  // namespace

// Removes the tree itself rather than through a shell: the PowerPC guest
// that runs some of the test binaries has no shell.
TempDir::~TempDir() { nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

std::string uniqueName(const std::string& prefix) {
  static std::atomic<unsigned> counter{0};
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::ostringstream name;
  name << prefix << "_" << getpid() << "_" << now.tv_sec % 100000 << now.tv_nsec / 1000 << "_" << counter++;
  return name.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

std::string dataPath(const std::string& relative) {
  return std::string(VORTA_TEST_DATA_DIR) + "/" + relative;
}

namespace {

bool startsWithQemu(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  return path.compare(slash == std::string::npos ? 0 : slash + 1, 5, "qemu-") == 0;
}

bool detectEmulation() {
  // qemu-user answers for the guest wherever it can: uname says "ppc",
  // /proc/self/maps lists guest mappings only, and /proc/self/exe and
  // /proc/self/stat name the guest binary. It rewrites those by path,
  // though: asked through a directory descriptor for /proc/self, the kernel
  // names its own executable, which is the emulator both when it is started
  // directly and when binfmt_misc starts it.
  const int proc = open("/proc/self", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (proc >= 0) {
    char target[PATH_MAX];
    const ssize_t n = readlinkat(proc, "exe", target, sizeof target - 1);
    close(proc);
    if (n > 0 && startsWithQemu(std::string(target, static_cast<std::size_t>(n)))) return true;
  }
  // Started directly, the emulator is also the process's command name,
  // which it does not rewrite.
  std::ifstream comm("/proc/self/comm");
  std::string name;
  return std::getline(comm, name) && startsWithQemu(name);
}

}  // namespace

bool underEmulation() {
  static const bool emulated = detectEmulation();
  return emulated;
}

double monotonicSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

pid_t forkFlushed() {
  std::fflush(nullptr);
  return fork();
}

int inChild(const std::function<int()>& body, double seconds) {
  if (seconds <= 0) seconds = underEmulation() ? 120.0 : 30.0;
  const pid_t pid = forkFlushed();
  if (pid < 0) return -2;
  if (pid == 0) {
    int code = 98;
    try {
      code = body();
    } catch (...) {
      code = 99;  // nothing may throw out of the code under test
    }
    _exit(code);
  }
  const double deadline = monotonicSeconds() + seconds;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (done < 0) return -2;
    if (monotonicSeconds() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    usleep(2000);
  }
}

int openDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int count = 0;
  while (const dirent64* entry = readdir64(dir))
    if (entry->d_name[0] != '.') ++count;
  closedir(dir);
  return count;
}

std::size_t heapInUse() {
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

bool limitDescriptors(int spare) {
  const int lowest = dup(0);
  if (lowest < 0) return false;
  close(lowest);
  struct rlimit rl;
  if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return false;
  rl.rlim_cur = static_cast<rlim_t>(lowest + spare);
  return setrlimit(RLIMIT_NOFILE, &rl) == 0;
}

}  // namespace vorta_test

#ifdef VORTA_COVERAGE
// A coverage build links the test binaries with -Wl,--wrap=_exit, so that a
// forked child that leaves with _exit (as children must, to run no
// destructors and flush nothing of the parent's) first writes its coverage
// counts, which only exit() would write otherwise. Children that die of a
// signal still lose theirs.
extern "C" {
void __gcov_dump(void);
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}
}
#endif
