// SPDX-License-Identifier: MIT
// vorta: a short text published by one process in POSIX shared memory for any number of readers.
#include "shmstring.h"
#include "internal/regular_file.h"
#include "internal/shrinkable_mapping.h"
#include "internal/unique_fd.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string.h>
#include <time.h>
#include <algorithm>
#include <cstring>

using zev::detail::UniqueFd;

namespace {

uint32_t* capacityField(unsigned char* segment) {
  return reinterpret_cast<uint32_t*>(segment + ShmString::kCapacityOffset);
}

int32_t* pidField(unsigned char* segment) {
  return reinterpret_cast<int32_t*>(segment + ShmString::kPidOffset);
}

pthread_rwlock_t* lockOf(unsigned char* segment) { return reinterpret_cast<pthread_rwlock_t*>(segment); }

// Whether the mapping still stands for the whole segment, and the segment
// still holds the capacity it was mapped with. Another process may cut the
// segment short at any time (ftruncate needs no more than the right to open
// it); the pages past its new end would kill this process with SIGBUS on
// the next access, and a cut that keeps the first page zeroes the header.
// Checked before the mapping is touched, and the mapping is watched
// (internal/shrinkable_mapping.h) for a cut that comes between the check and
// the access.
bool segmentWhole(int fd, unsigned char* segment, std::size_t mappedSize) {
  if (segment == nullptr || zev::detail::mappingLost(segment)) return false;
  struct stat status;
  if (fd == -1 || fstat(fd, &status) != 0 || status.st_size < 0 ||
      static_cast<std::uint64_t>(status.st_size) < mappedSize)
    return false;
  const std::size_t stored = __atomic_load_n(capacityField(segment), __ATOMIC_ACQUIRE);
  return stored == mappedSize - ShmString::kOverhead && !zev::detail::mappingLost(segment);
}

// Releases the segment's lock unless the page that holds it was lost: the
// pages that replaced it hold no lock.
void unlockSegment(unsigned char* segment) {
  if (zev::detail::mappingKept(segment) >= ShmString::kLockSize) pthread_rwlock_unlock(lockOf(segment));
}

// Takes the segment's lock, waiting at most kLockWaitSeconds. Only the try
// forms of the lock calls are used, with a wait of this unit's own between
// tries: the lock's words lie in memory any process that can open the
// segment may write or cut short, and glibc's blocking and timed calls spin
// or sleep without bound on some of the states such words can be left in
// (a writer bit with no writer behind it, say). A lock that cannot be had
// for that long was left taken by a process that died holding it, or was
// overwritten: the call fails rather than hang its caller. The segment is
// checked between tries for a cut, after which no try could succeed. False
// when the lock cannot be had or the segment is no longer whole (the lock is
// then not held).
bool lockSegment(int fd, unsigned char* segment, std::size_t mappedSize, bool forWriting) {
  constexpr int kYields = 64;
  constexpr long kFirstNapNs = 20 * 1000L;
  constexpr long kLongestNapNs = 2 * 1000 * 1000L;
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  long nap = kFirstNapNs;
  for (int tries = 0;; ++tries) {
    const int result =
        forWriting ? pthread_rwlock_trywrlock(lockOf(segment)) : pthread_rwlock_tryrdlock(lockOf(segment));
    if (result == 0) {
      if (!zev::detail::mappingLost(segment)) return true;
      unlockSegment(segment);  // taken, but in a segment cut short meanwhile
      return false;
    }
    // EAGAIN: a reader count at its limit, which only a written-over lock has.
    if (result != EBUSY) return false;
    if (tries < kYields) {
      sched_yield();
      continue;
    }
    if (!segmentWhole(fd, segment, mappedSize)) return false;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const double waited = static_cast<double>(now.tv_sec - start.tv_sec) +
                          static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9;
    if (waited >= ShmString::kLockWaitSeconds) return false;
    const struct timespec pause = {0, nap};
    nanosleep(&pause, nullptr);
    nap = std::min(nap * 2, kLongestNapNs);
  }
}

}  // namespace

ShmString::ShmString(const char* shmName) {
  std::memset(name_, 0, sizeof name_);
  // Like a bounded strncpy: a name of 256 characters or more fills the field
  // unterminated, and hasUsableName() then refuses it.
  if (shmName != nullptr) std::memcpy(name_, shmName, strnlen(shmName, sizeof name_));
}

ShmString::~ShmString() { close(); }

bool ShmString::create(int capacity) { return attach(true, capacity); }

bool ShmString::hasUsableName() const {
  // A name of 256 characters or more fills the field without a terminator.
  return name_[0] != '\0' && std::memchr(name_, '\0', sizeof name_) != nullptr;
}

namespace {

// Opens the shared-memory object without ever blocking (a FIFO or device put
// in the shared-memory directory under the name would otherwise block the
// open) and refuses anything that is not a plain memory object.
UniqueFd openSegmentFile(const char* name, int flags) {
  const mode_t previousMask = umask(0);
  UniqueFd fd(shm_open(name, flags | O_NONBLOCK | O_NOCTTY, 0666));
  umask(previousMask);
  if (!fd) return fd;
  struct stat status;
  if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    fd.reset();
    errno = EINVAL;
    return fd;
  }
  const int fileFlags = fcntl(fd.get(), F_GETFL);
  if (fileFlags != -1) fcntl(fd.get(), F_SETFL, fileFlags & ~O_NONBLOCK);
  return fd;
}

// The owner's mark: a write lock on byte 0 of the segment's file, taken
// without waiting. It is an open-file-description lock, so it belongs to the
// owner's descriptor and not to its process: a second object in the same
// process cannot take it either, closing some other descriptor of the same
// file does not drop it, and it goes away when the owner's descriptor is
// closed, also by the kernel when the owner dies. A child forked from the
// owner shares the descriptor, and so the lock, until it closes it (the
// descriptor is close-on-exec). Kernels without such locks (before Linux
// 3.15) get flock, which has the same semantics for this purpose.
bool takeOwnerLock(int fd) {
  struct flock range = zev::detail::byteZeroRange(F_WRLCK);
  if (fcntl(fd, F_OFD_SETLK, &range) == 0) return true;
  if (errno != EINVAL) return false;
  return flock(fd, LOCK_EX | LOCK_NB) == 0;
}

bool ownerLockHeld(int fd) {
  struct flock range = zev::detail::byteZeroRange(F_WRLCK);
  if (fcntl(fd, F_OFD_GETLK, &range) == 0) return range.l_type != F_UNLCK;
  if (errno != EINVAL) return false;
  if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
    flock(fd, LOCK_UN);
    return false;
  }
  return errno == EWOULDBLOCK;
}

bool sameFile(int a, int b) {
  struct stat first, second;
  return fstat(a, &first) == 0 && fstat(b, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

}  // namespace

bool ShmString::hasLiveOwner(const char* shmName) {
  if (shmName == nullptr || shmName[0] == '\0' || strnlen(shmName, 256) == 256) return false;
  const UniqueFd fd = openSegmentFile(shmName, O_RDONLY);
  return fd && ownerLockHeld(fd.get());
}

// Becomes the owner of a fresh, never-mapped segment of the given size, or
// fails when a live owner holds the name. A segment left by an owner that
// has gone keeps its size: readers may still map it, and shrinking it under
// them would kill them with SIGBUS on their next access. Its name is taken
// away from it instead (the readers keep their mapping, find its owner dead
// and re-attach by name) and a new segment is made.
bool ShmString::createSegment(std::size_t size) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    fd_ = openSegmentFile(name_, O_RDWR | O_CREAT).release();
    if (fd_ == -1) return false;
    // Fails while a live owner holds the name, or when the lock cannot be had.
    if (!takeOwnerLock(fd_)) {
      close();
      return false;
    }
    struct stat status;
    if (fstat(fd_, &status) != 0) {
      close();
      return false;
    }
    // Every owner locks before it sizes: a segment of size 0 under our lock
    // has never been sized, so nobody maps it.
    if (status.st_size == 0) {
      if (ftruncate(fd_, static_cast<off_t>(size)) != 0) {
        close();
        return false;
      }
      return true;
    }
    // A gone owner's segment. While we hold its lock no other creator can
    // unlink it, so the name still names it if it did a moment ago.
    const UniqueFd current(shm_open(name_, O_RDONLY | O_NONBLOCK | O_NOCTTY, 0));
    if (current && sameFile(fd_, current.get())) shm_unlink(name_);
    close();
  }
  return false;
}

bool ShmString::attach(bool create, int capacity) {
  if (isAttached()) return true;
  close();
  if (!hasUsableName()) return false;
  if (create && (capacity <= 0 || capacity > kMaxCapacity)) return false;

  std::size_t size;
  if (create) {
    size = static_cast<std::size_t>(capacity) + kOverhead;
    if (!createSegment(size)) return false;
  } else {
    fd_ = openSegmentFile(name_, O_RDWR).release();
    if (fd_ == -1) return false;
    // The header is only read from a segment long enough to hold it, and the
    // capacity it holds must describe the segment's real size: a segment
    // still being created, or one that is not a shared string, is refused
    // instead of being read or written past its end.
    struct stat status;
    if (fstat(fd_, &status) != 0 || status.st_size < static_cast<off_t>(kOverhead)) {
      close();
      return false;
    }
    void* header = mmap(nullptr, kOverhead, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (header == MAP_FAILED) {
      close();
      return false;
    }
    zev::detail::watchMapping(header, kOverhead);
    uint32_t stored = __atomic_load_n(capacityField(static_cast<unsigned char*>(header)), __ATOMIC_ACQUIRE);
    if (zev::detail::mappingLost(header)) stored = 0;  // cut short since the fstat
    zev::detail::unwatchMapping(header);
    munmap(header, kOverhead);
    if (stored == 0 || stored > static_cast<uint32_t>(kMaxCapacity) ||
        static_cast<off_t>(stored + kOverhead) != status.st_size) {
      close();
      return false;
    }
    size = stored + kOverhead;
  }

  void* mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
  if (mapping == MAP_FAILED) {
    // A segment this object created and cannot use is removed again.
    owner_ = create;
    close();
    return false;
  }
  segment_ = static_cast<unsigned char*>(mapping);
  mappedSize_ = size;
  zev::detail::watchMapping(segment_, size);

  if (create) {
    std::memset(segment_, 0, size);
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_rwlock_init(lockOf(segment_), &attributes);
    pthread_rwlockattr_destroy(&attributes);
    __atomic_store_n(pidField(segment_), static_cast<int32_t>(getpid()), __ATOMIC_RELAXED);
    // The capacity goes in last: a reader refuses the segment while it is
    // still 0, so no reader ever takes the lock before it is initialised.
    __atomic_store_n(capacityField(segment_), static_cast<uint32_t>(capacity), __ATOMIC_RELEASE);
    owner_ = true;
  }
  if (!segmentWhole(fd_, segment_, mappedSize_)) {
    close();
    return false;
  }
  return true;
}

bool ShmString::isOwnerAlive() const {
  if (!segmentWhole(fd_, segment_, mappedSize_)) return false;
  const int32_t pid = __atomic_load_n(pidField(segment_), __ATOMIC_RELAXED);
  if (pid == 0 || zev::detail::mappingLost(segment_)) return false;
  // EPERM: the process exists but belongs to another user; it still runs.
  return kill(pid, 0) == 0 || errno == EPERM;
}

// A segment cut short under this object is not attached, the owner's own
// included: the next get or set closes it and opens the name again.
bool ShmString::isAttached() const {
  return segment_ != nullptr && (owner_ ? segmentWhole(fd_, segment_, mappedSize_) : isOwnerAlive());
}

int ShmString::capacity() const { return static_cast<int>(usableCapacity()); }

char* ShmString::text() const { return reinterpret_cast<char*>(segment_ + kTextOffset); }

std::size_t ShmString::usableCapacity() const {
  return segmentWhole(fd_, segment_, mappedSize_) ? mappedSize_ - kOverhead : 0;
}

bool ShmString::set(const char* value) {
  if (value == nullptr) return false;
  if (!attach(false, 0)) return false;
  const std::size_t capacity = usableCapacity();
  if (capacity == 0 || !lockSegment(fd_, segment_, mappedSize_, true)) {
    if (!segmentWhole(fd_, segment_, mappedSize_)) close();
    return false;
  }
  // Fills the rest of the text area with zeros; a longer text is cut to
  // capacity - 1 characters by the terminator forced into the last byte.
  std::strncpy(text(), value, capacity);
  text()[capacity - 1] = '\0';
  unlockSegment(segment_);
  // Cut short while the text was written (a cut that keeps the first page
  // zeroes the text without a fault): nothing was stored.
  if (!segmentWhole(fd_, segment_, mappedSize_)) {
    close();
    return false;
  }
  return true;
}

int ShmString::get(char* dest, int size) {
  if (size < 0 || (dest == nullptr && size > 0)) return -1;
  if (!attach(false, 0)) {
    // With size 0 the caller has given no byte to write the empty text into.
    if (size > 0) dest[0] = '\0';
    return -1;
  }
  if (size == 0) return 0;
  const std::size_t n = std::min(static_cast<std::size_t>(size), usableCapacity());
  if (n == 0 || !lockSegment(fd_, segment_, mappedSize_, false)) {
    if (!segmentWhole(fd_, segment_, mappedSize_)) close();
    if (size > 0) dest[0] = '\0';
    return -1;
  }
  const void* end = ::memccpy(dest, text(), '\0', n);
  unlockSegment(segment_);
  // Cut short while the text was read (a cut that keeps the first page
  // zeroes the text without a fault): what was read is not the text.
  if (!segmentWhole(fd_, segment_, mappedSize_)) {
    close();
    dest[0] = '\0';
    return -1;
  }
  dest[n - 1] = '\0';
  // When the text did not end within n bytes the count is n, one more than
  // the length left in dest after the forced terminator; callers rely on it.
  if (end == nullptr) return static_cast<int>(n);
  return static_cast<int>(static_cast<const char*>(end) - dest - 1);
}

void ShmString::close() {
  if (segment_ != nullptr) {
    // Every process that closes clears the owner pid, readers included: the
    // other readers then find the owner gone and re-attach on their next get
    // or set. A segment cut short has no such field left to clear.
    if (segmentWhole(fd_, segment_, mappedSize_)) __atomic_store_n(pidField(segment_), 0, __ATOMIC_RELAXED);
    zev::detail::unwatchMapping(segment_);
    munmap(segment_, mappedSize_);
    segment_ = nullptr;
    mappedSize_ = 0;
  }
  // The name goes before the descriptor, which holds the owner's lock: a
  // creator that finds the lock free never finds this owner's name.
  if (owner_) {
    shm_unlink(name_);
    owner_ = false;
  }
  if (fd_ != -1) {
    ::close(fd_);
    fd_ = -1;
  }
}
