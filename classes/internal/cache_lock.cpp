// SPDX-License-Identifier: MIT
// vorta: the lock of one shared cache: named mutex, gate and owner record (see cache_lock.h).
#include "internal/cache_lock.h"

#include "internal/regular_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace bip = boost::interprocess;

namespace zev {
namespace detail {

constexpr char LockOwnerRecord::kMagic[9];

namespace {

// The record object is a page, so that a later version can grow it without a new name.
constexpr std::size_t kRecordObjectSize = 4096;
// How long a waiter sleeps on the semaphore before it looks at the record again.
constexpr long kSliceNanoseconds = 200L * 1000 * 1000;
// A wait for a holder that is not taken over is named on standard error this often.
constexpr int kWaitLineSeconds = 5;
// A holder that ended half-way, where the other processes cannot be looked at, is taken over
// after this long.
constexpr int kDoubtSeconds = 1;

[[noreturn]] void throwError(int error, const char* what) {
  errno = error;
  throw bip::interprocess_exception(bip::error_info(error), what);
}

std::string bareName(const std::string& name) {
  return !name.empty() && name[0] == '/' ? name.substr(1) : name;
}

std::string semaphoreFile(const std::string& mutexName) { return "/dev/shm/sem." + bareName(mutexName); }
std::string recordFile(const std::string& mutexName) { return "/dev/shm/" + bareName(mutexName) + ".owner"; }

std::uint64_t joinStart(std::uint32_t high, std::uint32_t low) { return (std::uint64_t(high) << 32) | low; }

// Reads a small file whole; false when it cannot be opened.
bool readSmallFile(const std::string& path, std::string& text, int* error = nullptr) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    if (error != nullptr) *error = errno;
    return false;
  }
  text.clear();
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return true;
}

// The state letter and start time of /proc/PID/stat; false when the file cannot be read.
bool readStat(pid_t pid, char& state, std::uint64_t& start) {
  std::string text;
  // A process reads its own through its main thread's entry, which user-mode emulators pass to the
  // kernel unchanged (they make up /proc/PID/stat for the emulated process itself), so that it
  // records the start time other processes will read.
  const std::string id = std::to_string(pid);
  const std::string path =
      pid == ::getpid() ? "/proc/" + id + "/task/" + id + "/stat" : "/proc/" + id + "/stat";
  if (!readSmallFile(path, text)) return false;
  // The command name in parentheses may hold spaces and parentheses: fields follow the last ')'.
  const std::size_t close = text.rfind(')');
  if (close == std::string::npos || close + 2 >= text.size()) return false;
  const char* p = text.c_str() + close + 2;
  state = *p;
  // Field 3 is the state; the start time is field 22, 19 fields on.
  for (int field = 3; field < 22; ++field) {
    p = std::strchr(p, ' ');
    if (p == nullptr) return false;
    ++p;
  }
  start = std::strtoull(p, nullptr, 10);
  return true;
}

struct Self {
  pid_t pid = 0;
  std::uint64_t start = 0;
};

// This process's pid and start time, read again after a fork.
Self self() {
  static thread_local Self cached;
  const pid_t pid = ::getpid();
  if (cached.pid != pid) {
    cached.pid = pid;
    cached.start = startTimeOf(pid);
  }
  return cached;
}

enum class Mappers { None, Some, Unknown };

// Whether a process outside the library maps the semaphore: a library process maps its owner
// record too.
Mappers foreignMappers(const std::string& mutexName) {
  const std::string semaphore = semaphoreFile(mutexName);
  const std::string record = recordFile(mutexName);
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return Mappers::Unknown;
  const pid_t me = ::getpid();
  bool unknown = false;
  std::string text;
  auto mapsFile = [&text](const std::string& path) {
    for (const std::string& tail : {path + "\n", path + " (deleted)\n"}) {
      const std::size_t at = text.find(" " + tail);
      if (at != std::string::npos) return true;
    }
    return false;
  };
  Mappers result = Mappers::None;
  while (struct dirent* entry = ::readdir(proc)) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || pid == me) continue;
    int error = 0;
    if (!readSmallFile(std::string("/proc/") + entry->d_name + "/maps", text, &error)) {
      if (error != ENOENT && error != ESRCH) unknown = true;
      continue;
    }
    if (mapsFile(semaphore) && !mapsFile(record)) {
      result = Mappers::Some;
      break;
    }
  }
  ::closedir(proc);
  if (result == Mappers::None && unknown) result = Mappers::Unknown;
  return result;
}

unsigned modeOf(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return 0;
  return static_cast<unsigned>(info.st_mode & 07777);
}

// Every lock of the process, so that a fork child can drop what it inherited.
struct Registry {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::vector<CacheLock*> locks;
};

Registry& registry() {
  static Registry* instance = new Registry;  // never destroyed: locks may outlive static destruction
  return *instance;
}

void prepareFork() { pthread_mutex_lock(&registry().mutex); }
void parentAfterFork() { pthread_mutex_unlock(&registry().mutex); }
void childAfterFork() {
  Registry& r = registry();
  for (CacheLock* lock : r.locks) lock->forkedChild();
  pthread_mutex_unlock(&r.mutex);
}

void initThreadsMutex(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

struct timespec monotonicNow() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

double secondsSince(const struct timespec& then) {
  const struct timespec now = monotonicNow();
  return double(now.tv_sec - then.tv_sec) + double(now.tv_nsec - then.tv_nsec) / 1e9;
}

}  // namespace

std::uint64_t startTimeOf(pid_t pid) {
  char state = 0;
  std::uint64_t start = 0;
  return readStat(pid, state, start) ? start : 0;
}

Liveness livenessOf(pid_t pid, std::uint64_t startTime) {
  if (pid <= 0) return Liveness::Gone;
  if (::kill(pid, 0) != 0 && errno == ESRCH) return Liveness::Gone;
  char state = 0;
  std::uint64_t start = 0;
  if (!readStat(pid, state, start)) {
    // Without /proc the pid's existence is all there is to go by.
    struct stat proc;
    return ::stat("/proc/self/stat", &proc) == 0 ? Liveness::Gone : Liveness::Alive;
  }
  // A zombie has closed its files and will never release anything.
  if (state == 'Z' || state == 'X') return Liveness::Gone;
  // The pid has been reused by a process that started at another time.
  if (startTime != 0 && start != startTime) return Liveness::Gone;
  return Liveness::Alive;
}

std::string CacheLock::recordName(const std::string& mutexName) {
  return "/" + bareName(mutexName) + ".owner";
}

CacheLock::CacheLock(const std::string& mutexName, const std::string& segmentName, unsigned mode)
    : mutexName_(mutexName), segmentName_(segmentName), mode_(mode & 0777) {
  initThreadsMutex(threads_);
  semaphore_ = ::sem_open(("/" + bareName(mutexName)).c_str(), 0);
  if (semaphore_ == SEM_FAILED) {
    semaphore_ = nullptr;
    const int error = errno;
    pthread_mutex_destroy(&threads_);
    throwError(error, "MediaCache: cannot open the cache's mutex");
  }

  // The owner record: made when missing, mapped once for the object's life through its own
  // descriptor, which is closed at once (the gate has a description of its own).
  const std::string name = recordName(mutexName);
  int fd = ::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd < 0 && errno == ENOENT) {
    fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode_);
    if (fd >= 0) ::fchmod(fd, mode_);  // the umask must not narrow it
  }
  if (fd >= 0) {
    struct stat info;
    bool usable = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    if (usable && static_cast<std::size_t>(info.st_size) < kRecordObjectSize)
      usable = ::ftruncate(fd, kRecordObjectSize) == 0;
    if (usable) {
      void* base = ::mmap(nullptr, sizeof(LockOwnerRecord), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (base != MAP_FAILED) record_ = static_cast<LockOwnerRecord*>(base);
    }
    ::close(fd);
  }
  if (record_ != nullptr) {
    static const char zero[8] = {};
    // A fresh record is all zeros; two processes stamping it at once write the same bytes.
    if (std::memcmp(record_->magic, zero, sizeof zero) == 0 && record_->holderPid == 0) {
      record_->version = LockOwnerRecord::kVersion;
      std::memcpy(record_->magic, LockOwnerRecord::kMagic, sizeof record_->magic);
    }
    if (std::memcmp(record_->magic, LockOwnerRecord::kMagic, sizeof record_->magic) != 0 ||
        record_->version != LockOwnerRecord::kVersion) {
      ::munmap(record_, sizeof(LockOwnerRecord));
      record_ = nullptr;  // not ours: guard with the semaphore alone
    }
  }

  static std::once_flag handlers;
  std::call_once(handlers, [] { pthread_atfork(prepareFork, parentAfterFork, childAfterFork); });
  Registry& r = registry();
  pthread_mutex_lock(&r.mutex);
  r.locks.push_back(this);
  pthread_mutex_unlock(&r.mutex);
}

CacheLock::~CacheLock() {
  Registry& r = registry();
  pthread_mutex_lock(&r.mutex);
  for (std::size_t i = 0; i < r.locks.size(); ++i)
    if (r.locks[i] == this) {
      r.locks.erase(r.locks.begin() + static_cast<std::ptrdiff_t>(i));
      break;
    }
  pthread_mutex_unlock(&r.mutex);
  if (held_ && holderPid_ == ::getpid()) unlock();
  closeGate();
  if (record_ != nullptr) ::munmap(record_, sizeof(LockOwnerRecord));
  if (semaphore_ != nullptr) ::sem_close(semaphore_);
  pthread_mutex_destroy(&threads_);
}

void CacheLock::forkedChild() {
  // The child shares the parent's gate description: closing its copy leaves the gate with the
  // parent, and the child opens a description of its own when it first needs the gate.
  if (gateFd_ >= 0) ::close(gateFd_);
  gateFd_ = -1;
  gateHeld_ = false;
  gateTried_ = false;
  // A lock the parent holds stays the parent's to release.
  held_ = false;
  initThreadsMutex(threads_);
}

bool CacheLock::openGate() {
  if (gateFd_ >= 0) return true;
  if (record_ == nullptr || gateTried_) return false;
  gateFd_ = ::shm_open(recordName(mutexName_).c_str(), O_RDWR | O_CLOEXEC, 0);
  // Without a descriptor to spare (after a fork) the semaphore alone guards this access.
  return gateFd_ >= 0;
}

void CacheLock::closeGate() {
  if (gateFd_ >= 0) ::close(gateFd_);
  gateFd_ = -1;
  gateHeld_ = false;
}

bool CacheLock::takeGate(bool wait) {
  if (!openGate()) return false;
  struct flock range = byteZeroRange(F_WRLCK);
  int rc;
  while ((rc = ::fcntl(gateFd_, wait ? F_OFD_SETLKW : F_OFD_SETLK, &range)) != 0 && errno == EINTR) {
  }
  if (rc != 0) {
    const int error = errno;
    if (error == EINVAL) {
      // A kernel without open-file-description locks: never try again.
      closeGate();
      gateTried_ = true;
      return false;
    }
    if (!wait && (error == EAGAIN || error == EACCES)) return false;
    throwError(error, "MediaCache: cannot take the cache's lock");
  }
  gateHeld_ = true;
  return true;
}

void CacheLock::releaseGate() {
  if (!gateHeld_) return;
  struct flock range = byteZeroRange(F_UNLCK);
  ::fcntl(gateFd_, F_OFD_SETLK, &range);
  gateHeld_ = false;
}

CacheLock::Verdict CacheLock::judge(const LockOwnerRecord& seen, pid_t* who) const {
  const pid_t me = ::getpid();
  // A record naming this process is stale: its threads are kept out by the in-process mutex.
  auto gone = [me](pid_t pid, std::uint64_t start) {
    return pid == me || livenessOf(pid, start) == Liveness::Gone;
  };
  const std::uint64_t holderStart = joinStart(seen.holderStartHigh, seen.holderStartLow);
  const std::uint64_t claimStart = joinStart(seen.claimStartHigh, seen.claimStartLow);
  *who = seen.holderPid;
  if (seen.holderState == LockOwnerRecord::Holding && seen.holderPid > 0 && gone(seen.holderPid, holderStart))
    return Verdict::TakeOver;
  if (seen.claimPid > 0 && gone(seen.claimPid, claimStart)) {
    *who = seen.claimPid;
    return Verdict::Doubtful;
  }
  if (seen.holderState == LockOwnerRecord::Releasing && seen.holderPid > 0 &&
      gone(seen.holderPid, holderStart))
    return Verdict::Doubtful;
  if (seen.holderState != LockOwnerRecord::Free && seen.holderPid > 0) return Verdict::WaitForRecorded;
  if (seen.claimPid > 0) {
    *who = seen.claimPid;
    return Verdict::WaitForRecorded;
  }
  *who = 0;
  return Verdict::WaitForOutsider;
}

// Waits for the semaphore with the gate held, or decides to take it over. True for a takeover.
bool CacheLock::waitForSemaphore(const LockOwnerRecord& seen) {
  const struct timespec since = monotonicNow();
  int lines = 0;
  // A takeover keeps the semaphore at 0 and passes it on. It is decided on what was seen before
  // a last try of the semaphore: a holder that has ended, or that no longer maps it, can no longer
  // release it, so a semaphore still taken after that is the dead holder's for good.
  auto takeOver = [this](pid_t who) {
    if (::sem_trywait(semaphore_) == 0) {
      becomeHolder(false, 0);
      return false;
    }
    becomeHolder(true, who);
    return true;
  };
  for (;;) {
    pid_t who = 0;
    const Verdict verdict = judge(seen, &who);
    if (verdict == Verdict::TakeOver) return takeOver(who);
    Mappers mappers = Mappers::None;
    if (verdict == Verdict::Doubtful) {
      mappers = foreignMappers(mutexName_);
      if (mappers == Mappers::None || (mappers == Mappers::Unknown && secondsSince(since) >= kDoubtSeconds))
        return takeOver(who);
    }
    const double waited = secondsSince(since);
    if (waited >= kWaitLineSeconds * (lines + 1)) {
      ++lines;
      if (verdict == Verdict::WaitForOutsider || mappers == Mappers::Some)
        std::fprintf(stderr,
                     "MediaCache: %s: waiting %d s for the lock, held by a process outside this library\n",
                     segmentName_.c_str(), static_cast<int>(waited));
      else
        std::fprintf(stderr, "MediaCache: %s: waiting %d s for the lock, held by process %d\n",
                     segmentName_.c_str(), static_cast<int>(waited), static_cast<int>(who));
    }
    struct timespec until = monotonicNow();
    until.tv_nsec += kSliceNanoseconds;
    if (until.tv_nsec >= 1000000000L) {
      until.tv_nsec -= 1000000000L;
      until.tv_sec += 1;
    }
    if (::sem_clockwait(semaphore_, CLOCK_MONOTONIC, &until) == 0) {
      becomeHolder(false, 0);
      return false;
    }
    if (errno != ETIMEDOUT && errno != EINTR) throwError(errno, "MediaCache: cannot take the cache's lock");
  }
}

void CacheLock::becomeHolder(bool takeover, pid_t previous) {
  const Self me = self();
  if (gateHeld_) {
    record_->holderStartHigh = static_cast<std::uint32_t>(me.start >> 32);
    record_->holderStartLow = static_cast<std::uint32_t>(me.start);
    record_->holderPid = me.pid;
    record_->holderState = LockOwnerRecord::Holding;
    record_->claimPid = 0;
    record_->claimStartHigh = record_->claimStartLow = 0;
    if (takeover) ++record_->takeovers;
  }
  if (takeover)
    std::fprintf(stderr, "MediaCache: %s: took over the lock left held by process %d, which ended\n",
                 segmentName_.c_str(), static_cast<int>(previous));
  held_ = true;
  holderPid_ = me.pid;
}

bool CacheLock::lock() {
  const int rc = pthread_mutex_lock(&threads_);
  if (rc == EDEADLK) throwError(EDEADLK, "MediaCache: this thread holds the cache's lock already");
  if (rc != 0) throwError(rc, "MediaCache: cannot take the cache's lock");
  try {
    if (!takeGate(true)) {
      while (::sem_wait(semaphore_) != 0)
        if (errno != EINTR) throwError(errno, "MediaCache: cannot take the cache's lock");
      held_ = true;
      holderPid_ = ::getpid();
      return false;
    }
    // The gate keeps every other library process out of the record until it is released.
    const LockOwnerRecord seen = *record_;
    const Self me = self();
    record_->claimStartHigh = static_cast<std::uint32_t>(me.start >> 32);
    record_->claimStartLow = static_cast<std::uint32_t>(me.start);
    record_->claimPid = me.pid;
    if (::sem_trywait(semaphore_) == 0) {
      becomeHolder(false, 0);
      return false;
    }
    if (errno != EAGAIN && errno != EINTR) throwError(errno, "MediaCache: cannot take the cache's lock");
    return waitForSemaphore(seen);
  } catch (...) {
    if (gateHeld_) {
      record_->claimPid = 0;
      releaseGate();
    }
    pthread_mutex_unlock(&threads_);
    throw;
  }
}

void CacheLock::unlock() {
  if (!held_ || holderPid_ != ::getpid()) return;
  if (gateHeld_) record_->holderState = LockOwnerRecord::Releasing;
  ::sem_post(semaphore_);  // a failure to release is not reported, as a scoped lock's is not
  if (gateHeld_) {
    record_->holderPid = 0;
    record_->holderStartHigh = record_->holderStartLow = 0;
    record_->holderState = LockOwnerRecord::Free;
  }
  held_ = false;
  releaseGate();
  pthread_mutex_unlock(&threads_);
}

CacheLock::State CacheLock::state() {
  State s;
  s.mutexMode = modeOf(semaphoreFile(mutexName_));
  s.recordMode = modeOf(recordFile(mutexName_));
  s.gated = record_ != nullptr;
  if (record_ != nullptr) s.takeovers = record_->takeovers;
  if (pthread_mutex_trylock(&threads_) != 0) {
    // Another thread of this process holds or is taking the lock.
    s.kind = State::Held;
    s.pid = ::getpid();
    s.recorded = true;
    s.alive = true;
    s.startTime = self().start;
    return s;
  }
  struct Unlock {
    pthread_mutex_t* m;
    ~Unlock() { pthread_mutex_unlock(m); }
  } unlockThreads{&threads_};

  auto describeRecorded = [&s](pid_t pid, std::uint64_t start) {
    s.pid = pid;
    s.recorded = true;
    s.startTime = start;
    s.alive = livenessOf(pid, start) == Liveness::Alive;
  };
  if (takeGate(false)) {
    const LockOwnerRecord seen = *record_;
    if (::sem_trywait(semaphore_) == 0) {
      ::sem_post(semaphore_);
      s.kind = State::Free;
    } else {
      pid_t who = 0;
      switch (judge(seen, &who)) {
        case Verdict::TakeOver:
          s.kind = State::LeftHeld;
          describeRecorded(who, joinStart(seen.holderStartHigh, seen.holderStartLow));
          break;
        case Verdict::WaitForRecorded:
          s.kind = State::Held;
          describeRecorded(who, who == seen.holderPid ? joinStart(seen.holderStartHigh, seen.holderStartLow)
                                                      : joinStart(seen.claimStartHigh, seen.claimStartLow));
          break;
        case Verdict::WaitForOutsider:
          s.kind = State::Held;
          break;
        case Verdict::Doubtful: {
          const Mappers mappers = foreignMappers(mutexName_);
          s.kind = mappers == Mappers::None ? State::LeftHeld
                                            : (mappers == Mappers::Some ? State::Held : State::Unknown);
          describeRecorded(who, who == seen.holderPid ? joinStart(seen.holderStartHigh, seen.holderStartLow)
                                                      : joinStart(seen.claimStartHigh, seen.claimStartLow));
          break;
        }
      }
    }
    releaseGate();
    return s;
  }
  if (record_ != nullptr && gateFd_ >= 0) {
    // Another library process holds the gate: the record says who holds the lock.
    const LockOwnerRecord seen = *record_;
    s.kind = State::Held;
    if (seen.holderState != LockOwnerRecord::Free && seen.holderPid > 0)
      describeRecorded(seen.holderPid, joinStart(seen.holderStartHigh, seen.holderStartLow));
    return s;
  }
  // No gate: the semaphore alone tells whether the lock is free.
  if (::sem_trywait(semaphore_) == 0) {
    ::sem_post(semaphore_);
    s.kind = State::Free;
  } else {
    s.kind = State::Unknown;
  }
  return s;
}

void CacheLock::setModes(const std::string& mutexName, unsigned mode) {
  ::chmod(semaphoreFile(mutexName).c_str(), mode & 0777);
  ::chmod(recordFile(mutexName).c_str(), mode & 0777);
}

bool CacheLock::removeRecord(const std::string& mutexName) {
  return ::shm_unlink(recordName(mutexName).c_str()) == 0;
}

}  // namespace detail
}  // namespace zev
