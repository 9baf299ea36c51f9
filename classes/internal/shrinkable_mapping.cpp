// SPDX-License-Identifier: MIT
// vorta: mappings of shared objects that another process may shrink, turned from a fatal SIGBUS into
// a mapping that reads as zeros and is known to be lost.
#include "internal/shrinkable_mapping.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <mutex>

namespace zev {
namespace detail {

namespace {

// The table the signal handler reads: lock-free, so that it is safe to read
// in a handler that interrupted a thread while it changed the table.
struct Watched {
  std::atomic<std::uintptr_t> start{0};  // 0: free; kClaimed: being filled in
  std::atomic<std::size_t> length{0};
  std::atomic<std::size_t> kept{0};  // bytes from the start still mapped to the object
};
Watched gWatched[kMaxWatched];
constexpr std::uintptr_t kClaimed = 1;

struct sigaction gPrevious;

std::size_t pageSize() {
  static const std::size_t size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

// The action that was there before, as the kernel would have taken it.
void passOn(int signal, siginfo_t* info, void* context) {
  if ((gPrevious.sa_flags & SA_SIGINFO) != 0 && gPrevious.sa_sigaction != nullptr) {
    gPrevious.sa_sigaction(signal, info, context);
  } else if (gPrevious.sa_handler != SIG_DFL && gPrevious.sa_handler != SIG_IGN) {
    gPrevious.sa_handler(signal);
  } else if (gPrevious.sa_handler == SIG_IGN && info->si_code <= 0) {
    // Sent by a process to one that ignores the signal: ignored, as before.
  } else {
    // The default action (a fault cannot be ignored): back to it, and the
    // access that faulted faults again when the handler returns.
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    ::sigaction(SIGBUS, &fallback, nullptr);
    if (info->si_code <= 0) ::raise(SIGBUS);  // sent, not a fault: deliver it again
  }
}

void onBusError(int signal, siginfo_t* info, void* context) {
  // si_code > 0: raised by the kernel for an access, not sent by a process.
  if (info->si_code > 0) {
    const auto at = reinterpret_cast<std::uintptr_t>(info->si_addr);
    for (Watched& slot : gWatched) {
      const std::uintptr_t start = slot.start.load(std::memory_order_acquire);
      const std::size_t length = slot.length.load(std::memory_order_acquire);
      if (start <= kClaimed || at < start || at - start >= length) continue;
      // The pages before the one that faulted are still the object's (its
      // lock, say, which this process may hold and must release); from that
      // page to the end, zero pages. mmap is a plain system call: safe here.
      const std::size_t from = (at - start) / pageSize() * pageSize();
      void* zero = ::mmap(reinterpret_cast<void*>(start + from), length - from, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
      if (zero != MAP_FAILED) {
        if (from < slot.kept.load(std::memory_order_relaxed))
          slot.kept.store(from, std::memory_order_release);
        return;
      }
    }
  }
  passOn(signal, info, context);
}

// Puts this unit's handler in place unless it is there already: at the
// first watch, and again after the program has put a handler of its own in
// its place, which then becomes the one every other SIGBUS is passed on to.
void install() {
  static std::mutex installing;
  const std::lock_guard<std::mutex> hold(installing);
  pageSize();  // read once here, not first in the handler
  struct sigaction current;
  if (::sigaction(SIGBUS, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) != 0 &&
      current.sa_sigaction == onBusError)
    return;
  struct sigaction action = {};
  action.sa_sigaction = onBusError;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGBUS, &action, &gPrevious);
}

Watched* find(const void* start) {
  const auto at = reinterpret_cast<std::uintptr_t>(start);
  if (at <= kClaimed) return nullptr;
  for (Watched& slot : gWatched)
    if (slot.start.load(std::memory_order_acquire) == at) return &slot;
  return nullptr;
}

}  // namespace

bool watchMapping(void* start, std::size_t length) {
  if (start == nullptr || length == 0) return false;
  install();
  const auto at = reinterpret_cast<std::uintptr_t>(start);
  for (Watched& slot : gWatched) {
    // Claimed first, filled in, then published with its start: the handler
    // never sees a start with another mapping's length.
    std::uintptr_t expected = 0;
    if (!slot.start.compare_exchange_strong(expected, kClaimed, std::memory_order_acquire)) continue;
    slot.length.store(length, std::memory_order_relaxed);
    slot.kept.store(length, std::memory_order_relaxed);
    slot.start.store(at, std::memory_order_release);
    return true;
  }
  return false;
}

void unwatchMapping(const void* start) {
  if (Watched* slot = find(start)) slot->start.store(0, std::memory_order_release);
}

bool mappingLost(const void* start) {
  const Watched* slot = find(start);
  return slot != nullptr &&
         slot->kept.load(std::memory_order_acquire) < slot->length.load(std::memory_order_relaxed);
}

std::size_t mappingKept(const void* start) {
  const Watched* slot = find(start);
  return slot == nullptr ? static_cast<std::size_t>(-1) : slot->kept.load(std::memory_order_acquire);
}

}  // namespace detail
}  // namespace zev
