// SPDX-License-Identifier: MIT
// vorta: the lock of one shared cache: its named mutex, with a gate and an owner record that let a
// dead holder's lock be taken over without guessing.
//
// The protocol, in full:
//  1. The named mutex is a POSIX semaphore S kept at 0 or 1. Programs outside the library may
//     lock it directly; a holder the library did not record is always waited for.
//  2. A library process holds the gate G, an open-file-description write lock on byte 0 of S's
//     own file, for the whole of every critical section. The kernel drops G when its holder ends
//     or execs, so while a process holds G no other library process is inside.
//  3. The owner record lies in S's file past the semaphore; its state word is stored only under
//     G, one aligned store per step: Claiming, S taken, Holding; Releasing, S posted, Free.
//     Claiming is stored only when S was seen free, and Releasing only when no thread waits in
//     sem_wait for S (glibc's count of them); otherwise Waiting and Returning take their place.
//  4. A process that takes G and finds S at 0 with Holding, Claiming or Releasing recorded knows
//     that process lost G while S was its own: it is gone (or exec'd), and S passes to the new
//     holder without ever being posted (a takeover, said on standard error).
//  5. S at 0 with Free, Waiting, Returning or no valid record is a holder outside the library:
//     waited for (polling, so that no library process is ever counted as a sem_wait waiter).
//  6. So only a second fault at the same instant can mislead: a program outside the library
//     taking S within the few instructions between a library process's look at S and its store.
//  7. After taking G the descriptor must still be the file of S's name, else S is opened again.
//  8. Queries never take or post S: they try G without waiting and read S's value.
#ifndef VORTA_INTERNAL_CACHE_LOCK_H
#define VORTA_INTERNAL_CACHE_LOCK_H

#include <pthread.h>
#include <semaphore.h>

#include <cstdint>
#include <functional>
#include <string>

#include "internal/unique_fd.h"

namespace zev {
namespace detail {

/// The owner record, at kOffset in the semaphore's file (in its first page, which every user of
/// the semaphore maps), in the machine's own byte order.
struct LockOwnerRecord {
  static constexpr long kOffset = 512;
  static constexpr char kMagic[9] = "vortalck";
  static constexpr std::uint32_t kVersion = 3;
  enum State : std::uint32_t {
    Free = 0,
    Claiming = 1,
    Waiting = 2,
    Holding = 3,
    Releasing = 4,
    Returning = 5
  };

  char magic[8];
  std::uint32_t version;
  std::uint32_t size;     ///< sizeof(LockOwnerRecord)
  std::uint32_t state;    ///< State: the one word the protocol decides on
  std::int32_t pid;       ///< the process of that state, for messages
  std::uint64_t sinceNs;  ///< CLOCK_MONOTONIC when it began to claim or hold
  std::uint64_t reserved;
  std::uint32_t takeovers;  ///< dead holders' locks taken over so far
  std::uint32_t check;      ///< of pid, sinceNs and program, which only messages use
  char program[48];         ///< the process's program and first argument
};
static_assert(sizeof(LockOwnerRecord) == 96, "the owner record is 96 bytes");

/// Steps of lock, unlock and state, at which tests may stop the process.
enum class LockStep {
  GateTaken,
  Claimed,
  Waiting,
  SemaphoreTaken,
  Holding,
  Releasing,
  Posted,
  Freed,
  StateGate
};
/// Called at every step when set; tests only.
extern void (*lockStepHook)(LockStep);
/// This process's program and first argument, as its records name it.
std::string lockProgramName();

class CacheLock {
 public:
  /// Who holds the lock or waits for it, as recorded.
  struct Holder {
    int pid = 0;               ///< a library process, 0 when none is recorded
    std::string program;       ///< its program and first argument
    double heldSeconds = -1;   ///< how long it has held or claimed, -1 when not known
    bool recordValid = false;  ///< the owner record is one this library wrote
  };
  /// What a look at the lock, made without waiting, found.
  struct State {
    enum Kind { Free, Held, LeftHeld, Unknown };
    Kind kind = Unknown;
    Holder holder;   ///< Held: the library holder (pid 0: outside the library); LeftHeld: who left it
    int waiter = 0;  ///< Held outside the library: the library process waiting for it in the gate
    /// Held with the gate free: a library process that ended while taking or releasing the lock,
    /// whose semaphore this may still be (0 when none did).
    int endedMidway = 0;
    std::uint32_t takeovers = 0;
    unsigned mutexMode = 0;  ///< permission bits of the semaphore's file, 0 when unknown
  };
  /// How long lock() may wait and whom it tells while it waits.
  struct Waiting {
    double timeoutSeconds = -1;  ///< negative: as long as it takes; 0: not at all
    /// Called about a second into a wait, every five seconds after, and once with timedOut set
    /// before lock() gives up. Without it a line goes to standard error every five seconds.
    std::function<void(const Holder& holder, double waitedSeconds, bool timedOut)> notice;
  };

  /// The lock of the semaphore `mutexName` (created already), for the cache `segmentName`
  /// (named in messages). Throws interprocess_exception when the semaphore cannot be opened.
  CacheLock(const std::string& mutexName, const std::string& segmentName, Waiting waiting);
  /// Releases nothing while another thread holds the lock: the kernel frees the gate when the
  /// process ends, and the next process takes the lock over.
  ~CacheLock();
  CacheLock(const CacheLock&) = delete;
  CacheLock& operator=(const CacheLock&) = delete;

  /// Takes the lock. Returns whether a dead holder's lock was taken over. Throws
  /// interprocess_exception on a system failure, when the wait runs out, and when the calling
  /// thread holds this lock already.
  bool lock();
  /// Releases the lock taken by this thread. Does nothing in a fork child of the holder.
  void unlock();
  /// Who holds the lock, found without waiting and without touching the semaphore.
  State state();

  /// Sets the permission bits of the semaphore's file where this process may (whatever the
  /// umask was when it was made).
  static void setMode(const std::string& mutexName, unsigned mode);

  /// Called in a fork child by the process-wide handler: drops the parent's gate and lock.
  void forkedChild();

 private:
  class Wait;
  void openMutex();
  void closeMutex();
  bool tryGate();
  void takeGate(Wait& wait);
  void releaseGate();
  bool recordValid() const;
  void store(LockOwnerRecord::State state);
  void noteHolder(bool takeover);
  Holder recordedHolder() const;
  [[noreturn]] void fail(int error, const char* what);

  std::string mutexName_;
  std::string segmentName_;
  std::string filePath_;  // the semaphore's file in /dev/shm
  Waiting waiting_;
  std::string program_;  // this process's program, as recorded
  sem_t* semaphore_ = nullptr;
  UniqueFd file_;                      // the semaphore's file: the gate's own open file description
  void* page_ = nullptr;               // its first page, mapped
  LockOwnerRecord* record_ = nullptr;  // within it
  bool gateHeld_ = false;
  bool held_ = false;
  pthread_mutex_t threads_;  // keeps the threads of this process apart
};

}  // namespace detail
}  // namespace zev

#endif  // VORTA_INTERNAL_CACHE_LOCK_H
