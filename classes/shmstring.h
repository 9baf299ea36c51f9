// SPDX-License-Identifier: MIT
// vorta: a short text published by one process in POSIX shared memory for any number of readers.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

/// A text in a named shared-memory segment. The process that creates the
/// segment owns it and unlinks the name when it closes; readers attach by
/// name and find out from the owner pid stored in the segment whether the
/// owner still runs, re-attaching when it does not.
///
/// Segment layout, in the machine's native byte order:
///   0                 process-shared read-write lock (kLockSize bytes)
///   kCapacityOffset   capacity: unsigned 32-bit number of text bytes
///   kPidOffset        owner process id, signed 32-bit; 0 = no owner
///   kTextOffset       text, NUL-terminated, at most capacity - 1 characters
///   kTextOffset + capacity   4 unused bytes, zero
/// On the recorder (32-bit PowerPC) and every 32-bit target the lock takes 32
/// bytes, so the fields sit at 32, 36 and 40 and a segment is capacity + 44
/// bytes. On a 64-bit host pthread_rwlock_t is larger (56 bytes on x86-64):
/// the lock area grows to the lock's size rounded up to 8 and the fields
/// follow it, so the lock never overlaps them.
class ShmString {
 public:
  /// Bytes reserved for the lock at the start of the segment.
  static constexpr std::size_t kLockSize =
      ((sizeof(pthread_rwlock_t) > 32 ? sizeof(pthread_rwlock_t) : 32) + 7) / 8 * 8;
  static constexpr std::size_t kCapacityOffset = kLockSize;
  static constexpr std::size_t kPidOffset = kLockSize + 4;
  static constexpr std::size_t kTextOffset = kLockSize + 8;
  /// Segment bytes besides the text: the header and the 4 unused bytes after the text.
  static constexpr std::size_t kOverhead = kTextOffset + 4;
  /// Largest capacity create() accepts, and attaching accepts in a segment.
  static constexpr int kMaxCapacity = 16 * 1024 * 1024;
  /// Longest that get and set wait for the segment's lock. It is held only
  /// around a copy of at most kMaxCapacity bytes; a lock not given back in
  /// that time was left taken by a process that died holding it, or written
  /// over, and the call fails (set false, get -1) instead of waiting for ever.
  static constexpr double kLockWaitSeconds = 3.0;

  /// Copies at most 256 characters of the name (all zero for null); opens nothing.
  explicit ShmString(const char* shmName);
  /// close()
  ~ShmString();
  ShmString(const ShmString&) = delete;
  ShmString& operator=(const ShmString&) = delete;

  /// Creates the segment as its owner: attach(true, capacity). Refused
  /// (false) while another owner of the name is alive, in this process or
  /// another; the name of an owner that has gone (closed or died) is taken
  /// over with a new segment, so a segment that readers may still map is
  /// never resized. The owner holds an open-file-description write lock on
  /// byte 0 of the segment's file for as long as it is attached; a child
  /// forked from the owner shares that lock until it closes the descriptor.
  bool create(int capacity);
  /// Opens, and with create sizes and initialises, the segment and maps it.
  /// True at once when already attached. A name that is not a shared-memory
  /// object (a FIFO or device put in its place) is refused without blocking. create needs 1 <= capacity <=
  /// kMaxCapacity; a reader refuses a segment whose stored capacity does not
  /// match its real size. Every failure closes the object and returns false.
  bool attach(bool create, int capacity);
  /// Mapped, the stored owner pid is non-zero and that process exists.
  bool isOwnerAlive() const;
  /// Whether an owner holds the name now (its lock is held), without
  /// attaching or touching the segment; what makes create refuse.
  static bool hasLiveOwner(const char* shmName);
  /// Mapped, the segment still as long as it was when mapped (any process
  /// that may open it can cut it short), and this object is the owner or
  /// the owner is alive. A segment cut short makes the next get or set
  /// close and re-attach, which fails as for any segment that is not a
  /// valid string: no access past its new end ever kills this process.
  bool isAttached() const;
  /// The segment's capacity field; 0 when not mapped, and when the segment
  /// no longer matches its mapping (cut short, its header overwritten).
  int capacity() const;
  /// Stores text (attaching first when needed), cut to capacity - 1
  /// characters; false when text is null, attaching fails or the lock
  /// cannot be had within kLockWaitSeconds.
  bool set(const char* text);
  /// Copies the text into dest (attaching first when needed), at most
  /// min(size, capacity) bytes with dest[that - 1] forced to NUL. Returns the
  /// text length when the text ended within those bytes, else their number,
  /// which is one more than the length left in dest. Size 0 reads nothing
  /// and returns 0 (dest may then be null). -1 when attaching fails (dest[0]
  /// is then NUL, unless size is 0) or the lock cannot be had within
  /// kLockWaitSeconds (dest[0] NUL too), and when size < 0 or dest is null
  /// with a positive size (dest untouched).
  int get(char* dest, int size);
  /// Clears the owner pid in the segment (any process does, readers too),
  /// unmaps, closes the descriptor and, in the owner, unlinks the name.
  void close();

 private:
  bool hasUsableName() const;
  bool createSegment(std::size_t size);
  char* text() const;
  // Text bytes that may be touched: the capacity mapped, 0 when the segment
  // no longer matches it (cut short, or its header overwritten).
  std::size_t usableCapacity() const;

  int32_t fd_ = -1;
  bool owner_ = false;
  char name_[256];
  unsigned char* segment_ = nullptr;
  std::size_t mappedSize_ = 0;
};

static_assert(sizeof(void*) != 4 || (ShmString::kCapacityOffset == 32 && ShmString::kPidOffset == 36 &&
                                     ShmString::kTextOffset == 40 && ShmString::kOverhead == 44),
              "on 32-bit targets the segment header is the recorder's: lock 32 bytes, fields at 32, 36, 40");
