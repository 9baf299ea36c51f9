// SPDX-License-Identifier: MIT
// vorta: the lock of one shared cache: named mutex, gate and owner record (see cache_lock.h).
#include "internal/cache_lock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

namespace bip = boost::interprocess;

namespace zev {
namespace detail {

constexpr char LockOwnerRecord::kMagic[9];
void (*lockStepHook)(LockStep) = nullptr;

namespace {

// A mutex removed or replaced under its name is opened again at most this often per lock.
constexpr int kReopenLimit = 100;
// The longest sleep between two tries of a gate another process holds (when the wait has a limit
// or notices), or of a semaphore held outside the library.
constexpr double kPollSeconds = 0.01;
// Notices of a wait: the first after a second when the caller asked for them (five seconds for
// the library's own line), then every five seconds.
constexpr double kNoticeEvery = 5.0;
// The byte of the semaphore's file locked as the gate.
constexpr off_t kGateByte = 0;

void step(LockStep at) {
  if (lockStepHook != nullptr) lockStepHook(at);
}

std::string bareName(const std::string& name) {
  return !name.empty() && name[0] == '/' ? name.substr(1) : name;
}
std::string semaphoreFile(const std::string& mutexName) { return "/dev/shm/sem." + bareName(mutexName); }

double monotonicSeconds() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

std::uint64_t monotonicNs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::uint64_t(now.tv_sec) * 1000000000u + std::uint64_t(now.tv_nsec);
}

struct timespec monotonicIn(double seconds) {
  const double at = monotonicSeconds() + std::max(0.0, seconds);
  struct timespec until;
  until.tv_sec = static_cast<time_t>(at);
  until.tv_nsec = std::min(static_cast<long>((at - double(until.tv_sec)) * 1e9), 999999999L);
  return until;
}

struct flock byteRange(short type, off_t byte) {
  struct flock range;
  std::memset(&range, 0, sizeof range);
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = byte;
  range.l_len = 1;
  return range;
}

// The check of the fields only messages use; a torn or foreign record names nobody.
std::uint32_t infoCheck(const LockOwnerRecord& record) {
  std::uint32_t hash = 2166136261u;  // FNV-1a
  auto mix = [&hash](const void* data, std::size_t n) {
    const unsigned char* byte = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < n; ++i) hash = (hash ^ byte[i]) * 16777619u;
  };
  mix(&record.pid, sizeof record.pid);
  mix(&record.sinceNs, sizeof record.sinceNs);
  mix(record.program, sizeof record.program);
  return hash;
}

// Every lock of the process, so that a fork child can drop the gates it inherited.
struct Registry {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::vector<CacheLock*> locks;
  std::vector<UniqueFd> abandoned;  // gates of locks destroyed while another thread held them
};

Registry& registry() {
  static Registry* instance = new Registry;  // never destroyed: locks may outlive static destruction
  return *instance;
}

struct RegistryHeld {
  RegistryHeld() { pthread_mutex_lock(&registry().mutex); }
  ~RegistryHeld() { pthread_mutex_unlock(&registry().mutex); }
};

void prepareFork() { pthread_mutex_lock(&registry().mutex); }
void parentAfterFork() { pthread_mutex_unlock(&registry().mutex); }
void childAfterFork() {
  Registry& r = registry();
  for (CacheLock* lock : r.locks) lock->forkedChild();
  r.abandoned.clear();
  pthread_mutex_unlock(&r.mutex);
}

void initThreadsMutex(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

std::string holderText(const CacheLock::Holder& holder) {
  if (holder.pid <= 0) return "a process outside this library";
  std::string text = "process " + std::to_string(holder.pid);
  if (!holder.program.empty()) text += " (" + holder.program + ")";
  return text;
}

// Whether this C library's semaphores are laid out as glibc's: the count and the number of
// threads blocked in sem_wait in one 64-bit word (the count below) on 64-bit machines; on 32-bit
// ones the count shifted left by one in the word at 0 and the waiters in the word at 12.
// Checked once on a semaphore made here.
bool waiterCountReadable() {
  static const bool readable = [] {
#if defined(__GLIBC__)
    sem_t probe;
    if (::sem_init(&probe, 1, 1) != 0) return false;
    unsigned char bytes[sizeof probe];
    std::memcpy(bytes, &probe, sizeof probe);
    ::sem_destroy(&probe);
#if __SIZEOF_POINTER__ == 8
    std::uint64_t data;
    std::memcpy(&data, bytes, sizeof data);
    return sizeof(sem_t) == 32 && data == 1;
#else
    std::uint32_t value, waiters;
    std::memcpy(&value, bytes, sizeof value);
    std::memcpy(&waiters, bytes + 12, sizeof waiters);
    return sizeof(sem_t) == 16 && value == 2 && waiters == 0;
#endif
#else
    return false;
#endif
  }();
  return readable;
}

// How many threads wait in sem_wait for the semaphore; -1 when that cannot be read.
int semaphoreWaiters(sem_t* semaphore) {
  if (!waiterCountReadable()) return -1;
#if __SIZEOF_POINTER__ == 8
  return static_cast<int>(__atomic_load_n(reinterpret_cast<std::uint64_t*>(semaphore), __ATOMIC_ACQUIRE) >>
                          32);
#else
  return static_cast<int>(__atomic_load_n(
      reinterpret_cast<std::uint32_t*>(reinterpret_cast<char*>(semaphore) + 12), __ATOMIC_ACQUIRE));
#endif
}

}  // namespace

std::string lockProgramName() {
  std::string name = program_invocation_short_name;
  UniqueFd fd = UniqueFd::open("/proc/self/cmdline", O_RDONLY);
  char text[256];
  const ssize_t n = fd ? ::read(fd.get(), text, sizeof text - 1) : -1;
  if (n > 0) {
    text[n] = '\0';
    const char* slash = std::strrchr(text, '/');
    name = slash != nullptr ? slash + 1 : text;
    const std::size_t next = std::strlen(text) + 1;
    if (next < static_cast<std::size_t>(n) && text[next] != '\0') name += std::string(" ") + (text + next);
  }
  return name.substr(0, sizeof(LockOwnerRecord::program) - 1);
}

// Time-keeping of one wait for the lock: its limit and its notices.
class CacheLock::Wait {
 public:
  explicit Wait(CacheLock& lock)
      : lock_(lock), start_(monotonicSeconds()), nextNotice_(lock.waiting_.notice ? 1.0 : kNoticeEvery) {}

  // Throws when the wait has run out, and tells who holds the lock when a notice is due.
  void check(const Holder& holder) {
    const double waited = monotonicSeconds() - start_;
    const double limit = lock_.waiting_.timeoutSeconds;
    if (limit >= 0 && waited >= limit) {
      if (lock_.waiting_.notice) lock_.waiting_.notice(holder, waited, true);
      const std::string what = "MediaCache: " + lock_.segmentName_ + ": the lock is held by " +
                               holderText(holder) + "; gave up after " + std::to_string(int(waited)) + " s";
      throw bip::interprocess_exception(bip::error_info(bip::timeout_when_locking_error), what.c_str());
    }
    if (waited < nextNotice_) return;
    nextNotice_ += kNoticeEvery;
    if (lock_.waiting_.notice)
      lock_.waiting_.notice(holder, waited, false);
    else
      std::fprintf(stderr, "MediaCache: %s: waiting %d s for the lock, held by %s\n",
                   lock_.segmentName_.c_str(), int(waited), holderText(holder).c_str());
  }

  // How long to wait before the next check: at most `most`, never past the limit or a notice.
  double slice(double most) const {
    const double waited = monotonicSeconds() - start_;
    double until = std::min(most, nextNotice_ - waited);
    if (lock_.waiting_.timeoutSeconds >= 0) until = std::min(until, lock_.waiting_.timeoutSeconds - waited);
    return std::max(until, 0.0);
  }

  // Sleeps between two tries of the gate, a little longer each time.
  void pause() {
    const struct timespec until = monotonicIn(slice(backoff_));
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
    backoff_ = std::min(backoff_ * 2, kPollSeconds);
  }

 private:
  CacheLock& lock_;
  double start_;
  double nextNotice_;
  double backoff_ = 0.0005;
};

CacheLock::CacheLock(const std::string& mutexName, const std::string& segmentName, Waiting waiting)
    : mutexName_(mutexName),
      segmentName_(segmentName),
      filePath_(semaphoreFile(mutexName)),
      waiting_(std::move(waiting)) {
  static std::once_flag handlers;
  std::call_once(handlers, [] { pthread_atfork(prepareFork, parentAfterFork, childAfterFork); });
  program_ = lockProgramName();
  initThreadsMutex(threads_);
  openMutex();
}

CacheLock::~CacheLock() {
  // Under the registry's mutex, so that no fork copies a descriptor of a lock no longer listed.
  RegistryHeld held;
  Registry& r = registry();
  r.locks.erase(std::remove(r.locks.begin(), r.locks.end(), this), r.locks.end());
  if (pthread_mutex_trylock(&threads_) != 0) {
    // Another thread is inside, or on its way in (as when exit() destroys a static cache): its
    // gate stays held until the process ends, its semaphore and record stay mapped, and once the
    // process has ended the next process takes the lock over. Nothing here lets another in.
    if (file_) r.abandoned.push_back(std::move(file_));
    return;
  }
  pthread_mutex_unlock(&threads_);
  pthread_mutex_destroy(&threads_);
  closeMutex();
}

void CacheLock::fail(int error, const char* what) {
  const std::string text = "MediaCache: " + segmentName_ + ": " + what;
  errno = error;
  throw bip::interprocess_exception(bip::error_info(error), text.c_str());
}

void CacheLock::forkedChild() {
  // The child's copy of the descriptor shares the parent's gate: it is closed at once, and a
  // description of the child's own opened in its place, so that a child needs no descriptor to
  // spare (should the open still fail, the child's first lock tries again, and fails loudly). A
  // lock the parent holds stays the parent's.
  file_.reset();
  file_ = UniqueFd::open(filePath_.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW);
  gateHeld_ = false;
  held_ = false;
  initThreadsMutex(threads_);
}

void CacheLock::openMutex() {
  // Under the registry's mutex, which the fork handlers hold across fork: the descriptor is
  // opened and the lock listed before any fork can copy it. The file is opened before the
  // semaphore, so that a semaphore replaced in between shows as a file that is no longer the
  // name's when the gate is taken.
  RegistryHeld held;
  const std::size_t bytes = LockOwnerRecord::kOffset + sizeof(LockOwnerRecord);
  UniqueFd fd = UniqueFd::open(filePath_.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW);
  struct stat info;
  if (!fd || ::fstat(fd.get(), &info) != 0) fail(errno, "cannot open the cache's mutex");
  if (!S_ISREG(info.st_mode)) fail(EINVAL, "the cache's mutex is not a regular file");
  // The record lies in the page the semaphore itself is in: growing the file to hold it takes no
  // memory, and no truncation can take the record away without the semaphore.
  if (static_cast<std::size_t>(info.st_size) < bytes && ::ftruncate(fd.get(), static_cast<off_t>(bytes)) != 0)
    fail(errno, "cannot make room for the lock's owner record");
  void* page = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (page == MAP_FAILED) fail(errno, "cannot map the lock's owner record");
  sem_t* semaphore = ::sem_open(("/" + bareName(mutexName_)).c_str(), 0);
  if (semaphore == SEM_FAILED) {
    const int error = errno;
    ::munmap(page, bytes);
    fail(error, "cannot open the cache's mutex");
  }
  std::vector<CacheLock*>& locks = registry().locks;
  if (std::find(locks.begin(), locks.end(), this) == locks.end()) locks.push_back(this);
  closeMutex();
  file_ = std::move(fd);
  page_ = page;
  record_ = reinterpret_cast<LockOwnerRecord*>(static_cast<char*>(page) + LockOwnerRecord::kOffset);
  semaphore_ = semaphore;
}

void CacheLock::closeMutex() {
  file_.reset();
  if (page_ != nullptr) ::munmap(page_, LockOwnerRecord::kOffset + sizeof(LockOwnerRecord));
  if (semaphore_ != nullptr) ::sem_close(semaphore_);
  page_ = nullptr;
  record_ = nullptr;
  semaphore_ = nullptr;
}

bool CacheLock::tryGate() {
  struct flock range = byteRange(F_WRLCK, kGateByte);
  int rc;
  while ((rc = ::fcntl(file_.get(), F_OFD_SETLK, &range)) != 0 && errno == EINTR) {
  }
  if (rc == 0) return gateHeld_ = true;
  if (errno == EAGAIN || errno == EACCES) return false;
  fail(errno, "cannot take the cache's lock");
}

void CacheLock::takeGate(Wait& wait) {
  for (int reopened = 0;;) {
    if (!file_) openMutex();
    if (tryGate()) {
    } else if (waiting_.timeoutSeconds < 0 && !waiting_.notice) {
      struct flock range = byteRange(F_WRLCK, kGateByte);
      while (::fcntl(file_.get(), F_OFD_SETLKW, &range) != 0)
        if (errno != EINTR) fail(errno, "cannot take the cache's lock");
      gateHeld_ = true;
    } else {
      do {
        wait.check(recordedHolder());
        wait.pause();
      } while (!tryGate());
    }
    // The gate counts only on the file that is the mutex now.
    struct stat open, named;
    if (::fstat(file_.get(), &open) == 0 && ::stat(filePath_.c_str(), &named) == 0 &&
        open.st_dev == named.st_dev && open.st_ino == named.st_ino)
      return;
    releaseGate();
    if (++reopened >= kReopenLimit) fail(EAGAIN, "the cache's mutex keeps being replaced");
    openMutex();
  }
}

void CacheLock::releaseGate() {
  if (!gateHeld_) return;
  struct flock range = byteRange(F_UNLCK, kGateByte);
  ::fcntl(file_.get(), F_OFD_SETLK, &range);
  gateHeld_ = false;
}

bool CacheLock::recordValid() const {
  const LockOwnerRecord& r = *record_;
  return std::memcmp(r.magic, LockOwnerRecord::kMagic, sizeof r.magic) == 0 &&
         r.version == LockOwnerRecord::kVersion && r.size == sizeof r &&
         __atomic_load_n(&r.state, __ATOMIC_ACQUIRE) <= LockOwnerRecord::Returning;
}

void CacheLock::store(LockOwnerRecord::State state) {
  __atomic_store_n(&record_->state, state, __ATOMIC_SEQ_CST);
}

// Names this process in the record, for messages.
void CacheLock::noteHolder(bool takeover) {
  LockOwnerRecord& r = *record_;
  r.pid = ::getpid();
  r.sinceNs = monotonicNs();
  std::memset(r.program, 0, sizeof r.program);
  std::memcpy(r.program, program_.data(), std::min(program_.size(), sizeof r.program - 1));
  r.check = infoCheck(r);
  if (takeover) ++r.takeovers;
}

CacheLock::Holder CacheLock::recordedHolder() const {
  const LockOwnerRecord seen = *record_;
  Holder holder;
  holder.recordValid = recordValid();
  if (!holder.recordValid || seen.state == LockOwnerRecord::Free || seen.state == LockOwnerRecord::Waiting ||
      seen.check != infoCheck(seen))
    return holder;
  holder.pid = seen.pid;
  holder.program = std::string(seen.program, strnlen(seen.program, sizeof seen.program));
  const std::uint64_t now = monotonicNs();
  if (seen.sinceNs != 0 && seen.sinceNs <= now) holder.heldSeconds = double(now - seen.sinceNs) / 1e9;
  return holder;
}

bool CacheLock::lock() {
  Wait wait(*this);
  for (;;) {
    const struct timespec until = monotonicIn(wait.slice(1.0));
    const int rc = pthread_mutex_clocklock(&threads_, CLOCK_MONOTONIC, &until);
    if (rc == 0) break;
    if (rc == EDEADLK) fail(EDEADLK, "this thread holds the cache's lock already");
    if (rc != ETIMEDOUT) fail(rc, "cannot take the cache's lock");
    Holder us;
    us.pid = ::getpid();
    us.program = program_;
    wait.check(us);
  }
  try {
    takeGate(wait);
    step(LockStep::GateTaken);
    LockOwnerRecord& r = *record_;
    const bool valid = recordValid();
    const std::uint32_t seen = valid ? r.state : std::uint32_t(LockOwnerRecord::Free);
    int value = 0;
    ::sem_getvalue(semaphore_, &value);
    const bool takeover =
        value == 0 && (seen == LockOwnerRecord::Holding || seen == LockOwnerRecord::Claiming ||
                       seen == LockOwnerRecord::Releasing);
    // Who left the lock, for the message of a takeover (copied as they are: nothing allocated).
    const std::int32_t seenPid = valid && r.check == infoCheck(r) ? r.pid : 0;
    char seenProgram[sizeof r.program];
    std::memcpy(seenProgram, r.program, sizeof seenProgram);
    seenProgram[sizeof seenProgram - 1] = '\0';
    if (takeover) {
      // A library process lost the gate while S was its own: S passes on untouched.
      noteHolder(true);
    } else {
      if (!valid) {
        std::memset(&r, 0, sizeof r);
        std::memcpy(r.magic, LockOwnerRecord::kMagic, sizeof r.magic);
        r.version = LockOwnerRecord::kVersion;
        r.size = sizeof r;
      }
      noteHolder(false);
      bool taken = false;
      if (value > 0) {
        store(LockOwnerRecord::Claiming);
        step(LockStep::Claimed);
        taken = ::sem_trywait(semaphore_) == 0;
      }
      if (!taken) {
        // Held outside the library: waited for, by polling rather than sem_wait.
        store(LockOwnerRecord::Waiting);
        step(LockStep::Waiting);
        while (::sem_trywait(semaphore_) != 0) {
          if (errno != EAGAIN && errno != EINTR) fail(errno, "cannot take the cache's lock");
          wait.check(Holder());
          wait.pause();
        }
      }
      step(LockStep::SemaphoreTaken);
    }
    store(LockOwnerRecord::Holding);
    step(LockStep::Holding);
    if (takeover && seenPid > 0)
      std::fprintf(stderr, "MediaCache: %s: took over the lock left held by process %d (%s), which ended\n",
                   segmentName_.c_str(), static_cast<int>(seenPid), seenProgram);
    else if (takeover)
      std::fprintf(stderr, "MediaCache: %s: took over the lock left held by a library process, which ended\n",
                   segmentName_.c_str());
    held_ = true;
    return takeover;
  } catch (...) {
    if (gateHeld_) {
      if (recordValid() && record_->state == LockOwnerRecord::Waiting) store(LockOwnerRecord::Free);
      releaseGate();
    }
    pthread_mutex_unlock(&threads_);
    throw;
  }
}

void CacheLock::unlock() {
  if (!held_) return;
  held_ = false;
  // A post that wakes a waiter hands S to a program outside the library at once.
  store(semaphoreWaiters(semaphore_) == 0 ? LockOwnerRecord::Releasing : LockOwnerRecord::Returning);
  step(LockStep::Releasing);
  ::sem_post(semaphore_);  // a failure to release is not reported, as a scoped lock's is not
  step(LockStep::Posted);
  store(LockOwnerRecord::Free);
  step(LockStep::Freed);
  releaseGate();
  pthread_mutex_unlock(&threads_);
}

CacheLock::State CacheLock::state() {
  State s;
  struct stat info;
  if (::stat(filePath_.c_str(), &info) == 0) s.mutexMode = static_cast<unsigned>(info.st_mode & 07777);
  if (pthread_mutex_trylock(&threads_) != 0) {
    // Another thread of this process holds the lock or is taking it.
    s.kind = State::Held;
    s.holder.pid = ::getpid();
    s.holder.program = program_;
    return s;
  }
  struct Unlock {
    pthread_mutex_t* m;
    ~Unlock() { pthread_mutex_unlock(m); }
  } unlockThreads{&threads_};
  try {
    if (!file_) openMutex();
  } catch (const bip::interprocess_exception&) {
    return s;  // Unknown
  }
  const bool gate = tryGate();
  if (gate) step(LockStep::StateGate);
  const bool valid = recordValid();
  const std::uint32_t recorded = valid ? record_->state : std::uint32_t(LockOwnerRecord::Free);
  const Holder named = recordedHolder();
  int value = 0;
  ::sem_getvalue(semaphore_, &value);
  if (gate) releaseGate();
  if (valid) s.takeovers = record_->takeovers;
  s.holder.recordValid = valid;
  const bool libraryOwned = recorded == LockOwnerRecord::Holding || recorded == LockOwnerRecord::Claiming ||
                            recorded == LockOwnerRecord::Releasing;
  if (gate && value > 0) {
    s.kind = State::Free;
  } else if (gate && libraryOwned) {
    s.kind = State::LeftHeld;  // the next library process takes it over
    s.holder = named;
  } else if (gate) {
    // Held outside the library, or left by a process that ended on the way between the two.
    s.kind = State::Held;
    if (recorded == LockOwnerRecord::Waiting || recorded == LockOwnerRecord::Returning)
      s.endedMidway = valid && record_->check == infoCheck(*record_) ? record_->pid : 0;
  } else if (recorded == LockOwnerRecord::Waiting) {
    s.kind = State::Held;  // a library process waits inside the gate for a program outside it
    s.waiter = valid && record_->check == infoCheck(*record_) ? record_->pid : 0;
  } else {
    s.kind = State::Held;
    s.holder = named;
  }
  return s;
}

void CacheLock::setMode(const std::string& mutexName, unsigned mode) {
  ::chmod(semaphoreFile(mutexName).c_str(), mode & 0777);
}

}  // namespace detail
}  // namespace zev
