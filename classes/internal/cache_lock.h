// SPDX-License-Identifier: MIT
// vorta: the lock of one shared cache: its named mutex, a gate that serialises the library's
// processes, and an owner record that tells a dead holder from a live one.
//
// The named mutex is a POSIX semaphore used as a 0/1 mutex. A semaphore has no owner, so a
// process killed while holding it would leave it taken for good. Beside it the library keeps
// a small shared-memory object, the owner record (`<mutex name>.owner`), and takes two more
// things around every cache operation:
//
//  - the gate: an open-file-description lock on byte 0 of the owner record, taken through a
//    descriptor opened once per process (never per operation). The kernel drops it when its
//    holder ends, however it ends. Fork children close their copy at once, so a child never
//    keeps the gate of an operation running in its parent. Threads of one process share the
//    descriptor and are kept apart by an in-process mutex taken first.
//  - the record: under the gate, the holder writes its pid and its start time (clock ticks
//    after boot, as /proc gives them) before it takes the semaphore and clears them after it
//    has released it.
//
// A process that holds the gate and finds the semaphore taken looks at the record:
//  - a recorded holder that has provably ended (no such pid, a zombie, or the pid now belongs
//    to a process that started at another time) is taken over: the semaphore stays taken and
//    passes to the new holder, so its value stays 0 or 1 through every recovery;
//  - no recorded holder means a process outside the library holds the semaphore directly:
//    it is waited for, never taken over, with a line on standard error every few seconds;
//  - a holder that ended half-way through taking or releasing the semaphore leaves it
//    unknown whether the semaphore is still its own. Then every process mapping the
//    semaphore is looked at: when none but library processes (which map the record too)
//    does, nobody else can hold it and it is taken over; while another does, it is waited
//    for; where the processes cannot be looked at, it is taken over after a second.
//
// Where the kernel has no open-file-description locks, or the record cannot be opened for
// writing (a cache of another user), the semaphore alone guards the cache and a dead
// holder's lock is not recovered.
#ifndef VORTA_INTERNAL_CACHE_LOCK_H
#define VORTA_INTERNAL_CACHE_LOCK_H

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace zev {
namespace detail {

/// The owner record as it lies in shared memory, in the machine's own byte order.
struct LockOwnerRecord {
  static constexpr char kMagic[9] = "vortalck";
  static constexpr std::uint32_t kVersion = 1;
  enum HolderState : std::uint32_t { Free = 0, Holding = 1, Releasing = 2 };

  char magic[8];
  std::uint32_t version;
  std::uint32_t holderState;  ///< HolderState of the recorded holder
  std::int32_t holderPid;     ///< the recorded holder, 0 when none
  std::uint32_t holderStartHigh;
  std::uint32_t holderStartLow;  ///< the holder's start time in clock ticks after boot
  std::int32_t claimPid;         ///< a process about to take the semaphore, 0 when none
  std::uint32_t claimStartHigh;
  std::uint32_t claimStartLow;
  std::uint32_t takeovers;  ///< how many times a dead holder's lock has been taken over
  std::uint8_t reserved[20];
};
static_assert(sizeof(LockOwnerRecord) == 64, "the owner record is 64 bytes");

/// Whether a process is alive, judged from its pid and its start time.
enum class Liveness { Alive, Gone };
Liveness livenessOf(pid_t pid, std::uint64_t startTime);
/// The start time of a process in clock ticks after boot; 0 when it cannot be read.
std::uint64_t startTimeOf(pid_t pid);

class CacheLock {
 public:
  /// What a look at the lock, made without waiting, found.
  struct State {
    enum Kind { Free, Held, LeftHeld, Unknown };
    Kind kind = Unknown;
    int pid = 0;                  ///< the holder, when known
    bool recorded = false;        ///< the holder is in the owner record
    bool alive = false;           ///< the recorded holder is alive
    std::uint64_t startTime = 0;  ///< the recorded holder's start, clock ticks after boot
    std::uint32_t takeovers = 0;  ///< dead holders' locks taken over so far
    unsigned mutexMode = 0;       ///< permission bits of the semaphore's file, 0 when unknown
    unsigned recordMode = 0;      ///< permission bits of the owner record, 0 when there is none
    bool gated = false;           ///< the gate and record are in use
  };

  /// The lock of the semaphore `mutexName` (created already), for the cache `segmentName`
  /// (named in messages). The owner record is created with `mode` when missing.
  CacheLock(const std::string& mutexName, const std::string& segmentName, unsigned mode);
  ~CacheLock();
  CacheLock(const CacheLock&) = delete;
  CacheLock& operator=(const CacheLock&) = delete;

  /// Takes the lock, waiting for a live holder and taking over a dead one. Returns whether a
  /// dead holder's lock was taken over. Throws interprocess_exception on a system failure, and
  /// when the calling thread holds this lock already.
  bool lock();
  /// Releases the lock taken by this process. Does nothing in a fork child of the holder.
  void unlock();
  /// Who holds the lock, found without waiting.
  State state();

  /// Sets the permission bits of the semaphore's file and the owner record where this
  /// process may (whatever the umask was when they were made).
  static void setModes(const std::string& mutexName, unsigned mode);
  /// Removes the owner record of `mutexName`. Whether there was one.
  static bool removeRecord(const std::string& mutexName);
  /// The owner record's shared-memory name of a mutex.
  static std::string recordName(const std::string& mutexName);

  // Called around fork by the process-wide handlers.
  void forkedChild();

 private:
  enum class Verdict { TakeOver, WaitForRecorded, WaitForOutsider, Doubtful };
  Verdict judge(const LockOwnerRecord& seen, pid_t* who) const;
  bool openGate();
  void closeGate();
  bool takeGate(bool wait);
  void releaseGate();
  bool waitForSemaphore(const LockOwnerRecord& seen);
  void becomeHolder(bool takeover, pid_t previous);

  std::string mutexName_;
  std::string segmentName_;
  unsigned mode_;
  sem_t* semaphore_ = nullptr;
  LockOwnerRecord* record_ = nullptr;  // mapped for the object's life
  int gateFd_ = -1;                    // its own open file description, for the gate only
  bool gateTried_ = false;
  bool gateHeld_ = false;
  bool held_ = false;
  pid_t holderPid_ = 0;
  pthread_mutex_t threads_;
};

}  // namespace detail
}  // namespace zev

#endif  // VORTA_INTERNAL_CACHE_LOCK_H
