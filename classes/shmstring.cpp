// SPDX-License-Identifier: MIT
// vorta: a short text published by one process in POSIX shared memory for any number of readers.
#include "shmstring.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string.h>
#include <algorithm>
#include <cstring>

namespace {

uint32_t* capacityField(unsigned char* segment) {
  return reinterpret_cast<uint32_t*>(segment + ShmString::kCapacityOffset);
}

int32_t* pidField(unsigned char* segment) {
  return reinterpret_cast<int32_t*>(segment + ShmString::kPidOffset);
}

pthread_rwlock_t* lockOf(unsigned char* segment) { return reinterpret_cast<pthread_rwlock_t*>(segment); }

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

bool ShmString::attach(bool create, int capacity) {
  if (isAttached()) return true;
  close();
  if (!hasUsableName()) return false;
  if (create && (capacity <= 0 || capacity > kMaxCapacity)) return false;

  const mode_t previousMask = umask(0);
  fd_ = shm_open(name_, create ? O_RDWR | O_CREAT : O_RDWR, 0666);
  umask(previousMask);
  if (fd_ == -1) return false;

  std::size_t size;
  if (create) {
    size = static_cast<std::size_t>(capacity) + kOverhead;
    if (ftruncate(fd_, static_cast<off_t>(size)) != 0) {
      close();
      return false;
    }
  } else {
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
    const uint32_t stored =
        __atomic_load_n(capacityField(static_cast<unsigned char*>(header)), __ATOMIC_ACQUIRE);
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
    close();
    return false;
  }
  segment_ = static_cast<unsigned char*>(mapping);
  mappedSize_ = size;

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
  return true;
}

bool ShmString::isOwnerAlive() const {
  if (segment_ == nullptr) return false;
  const int32_t pid = __atomic_load_n(pidField(segment_), __ATOMIC_RELAXED);
  if (pid == 0) return false;
  // EPERM: the process exists but belongs to another user; it still runs.
  return kill(pid, 0) == 0 || errno == EPERM;
}

bool ShmString::isAttached() const { return segment_ != nullptr && (owner_ || isOwnerAlive()); }

int ShmString::capacity() const {
  if (segment_ == nullptr) return 0;
  return static_cast<int>(__atomic_load_n(capacityField(segment_), __ATOMIC_ACQUIRE));
}

char* ShmString::text() const { return reinterpret_cast<char*>(segment_ + kTextOffset); }

std::size_t ShmString::usableCapacity() const {
  const std::size_t stored = __atomic_load_n(capacityField(segment_), __ATOMIC_ACQUIRE);
  return std::min(stored, mappedSize_ - kOverhead);
}

bool ShmString::set(const char* value) {
  if (value == nullptr) return false;
  if (!attach(false, 0)) return false;
  const std::size_t capacity = usableCapacity();
  if (capacity == 0) return false;
  if (pthread_rwlock_wrlock(lockOf(segment_)) != 0) return false;
  // Fills the rest of the text area with zeros; a longer text is cut to
  // capacity - 1 characters by the terminator forced into the last byte.
  std::strncpy(text(), value, capacity);
  text()[capacity - 1] = '\0';
  pthread_rwlock_unlock(lockOf(segment_));
  return true;
}

int ShmString::get(char* dest, int size) {
  if (dest == nullptr || size <= 0) return -1;
  if (!attach(false, 0)) {
    dest[0] = '\0';
    return -1;
  }
  const std::size_t n = std::min(static_cast<std::size_t>(size), usableCapacity());
  if (n == 0) return 0;
  if (pthread_rwlock_rdlock(lockOf(segment_)) != 0) {
    dest[0] = '\0';
    return -1;
  }
  const void* end = ::memccpy(dest, text(), '\0', n);
  pthread_rwlock_unlock(lockOf(segment_));
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
    // or set.
    __atomic_store_n(pidField(segment_), 0, __ATOMIC_RELAXED);
    munmap(segment_, mappedSize_);
    segment_ = nullptr;
    mappedSize_ = 0;
  }
  if (fd_ != -1) {
    ::close(fd_);
    fd_ = -1;
  }
  if (owner_) {
    shm_unlink(name_);
    owner_ = false;
  }
}
