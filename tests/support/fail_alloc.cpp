// SPDX-License-Identifier: MIT
// vorta tests: malloc, calloc and realloc that fail on demand, for a test binary that links this.
#include "fail_alloc.h"

#include <errno.h>
#include <link.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "alloc_failure.h"

// Valgrind puts its own allocator in place of malloc, so these replacements
// are never called under it; the tests then skip as in a sanitizer build.
#if defined(__has_include)
#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#endif
#endif
#ifndef RUNNING_ON_VALGRIND
#define RUNNING_ON_VALGRIND 0
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VORTA_FAIL_ALLOC_AVAILABLE 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define VORTA_FAIL_ALLOC_AVAILABLE 0
#endif
#endif
#ifndef VORTA_FAIL_ALLOC_AVAILABLE
#define VORTA_FAIL_ALLOC_AVAILABLE 1
#endif

namespace {

// -1: allocations succeed; otherwise the number that still succeed before
// one is refused.
std::atomic<long> gBudget{-1};
// After the first refusal: refuse every later one too (FailAlloc), or
// only that one (failAllocation without andAfter).
std::atomic<bool> gAndAfter{true};
std::atomic<long> gFailures{0};

// Code ranges (executable segments of one shared object) whose direct calls
// are passed on untouched and not counted; see exemptCallersIn.
struct Range {
  std::uintptr_t low, high;
};
constexpr int kMaxRanges = 8;
Range gExempt[kMaxRanges];
std::atomic<int> gExemptCount{0};
std::atomic<long> gExemptCalls{0};

[[maybe_unused]] bool exempt(const void* caller) {
  const auto at = reinterpret_cast<std::uintptr_t>(caller);
  const int n = gExemptCount.load(std::memory_order_acquire);
  for (int i = 0; i < n; ++i)
    if (at >= gExempt[i].low && at < gExempt[i].high) {
      gExemptCalls.fetch_add(1, std::memory_order_relaxed);
      return true;
    }
  return false;
}

[[maybe_unused]] bool refuse(const void* caller) {
  long budget = gBudget.load(std::memory_order_relaxed);
  if (budget < 0 || exempt(caller)) return false;
  while (budget > 0) {
    if (gBudget.compare_exchange_weak(budget, budget - 1, std::memory_order_relaxed)) return false;
  }
  if (budget < 0) return false;
  if (!gAndAfter.load(std::memory_order_relaxed)) gBudget.store(-1, std::memory_order_relaxed);
  gFailures.fetch_add(1, std::memory_order_relaxed);
  return true;
}

}  // namespace

#if VORTA_FAIL_ALLOC_AVAILABLE
// The C library's own allocator, which these replacements hand on to.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void __libc_free(void* pointer);

void* malloc(std::size_t size) {
  if (refuse(__builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  if (refuse(__builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_calloc(count, size);
}

void* realloc(void* pointer, std::size_t size) {
  if (size != 0 && refuse(__builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_realloc(pointer, size);
}

void free(void* pointer) { __libc_free(pointer); }
}
#endif

namespace vorta_test {

bool allocationFailureAvailable() { return allocationFailureUnavailable() == nullptr; }

bool builtWithSanitizer() { return VORTA_FAIL_ALLOC_AVAILABLE == 0; }

FailAlloc::FailAlloc(long succeeding) {
  gFailures.store(0, std::memory_order_relaxed);
  gAndAfter.store(true, std::memory_order_relaxed);
  gBudget.store(succeeding < 0 ? 0 : succeeding, std::memory_order_relaxed);
}

FailAlloc::~FailAlloc() { gBudget.store(-1, std::memory_order_relaxed); }

long FailAlloc::failures() { return gFailures.load(std::memory_order_relaxed); }

// ---- the nth allocation (alloc_failure.h) ----------------------------------

const char* allocationFailureUnavailable() {
  if (!VORTA_FAIL_ALLOC_AVAILABLE)
    return "a sanitizer replaces malloc and operator new itself, so allocations cannot be made to fail here";
  if (RUNNING_ON_VALGRIND)
    return "valgrind replaces malloc and operator new itself, so allocations cannot be made to fail here";
  return nullptr;
}

void failAllocation(long n, bool andAfter) {
  gBudget.store(-1, std::memory_order_relaxed);
  gFailures.store(0, std::memory_order_relaxed);
  gAndAfter.store(andAfter, std::memory_order_relaxed);
  if (n > 0) gBudget.store(n - 1, std::memory_order_relaxed);
}

long stopFailingAllocations() {
  gBudget.store(-1, std::memory_order_relaxed);
  return gFailures.load(std::memory_order_relaxed);
}

long AllocationFailure::failed() const { return gFailures.load(std::memory_order_relaxed); }

namespace {

struct FindObject {
  std::uintptr_t address;
  int found;
};

int collectRanges(struct dl_phdr_info* info, std::size_t, void* data) {
  auto* find = static_cast<FindObject*>(data);
  bool contains = false;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD) continue;
    const std::uintptr_t low = info->dlpi_addr + ph.p_vaddr;
    if (find->address >= low && find->address < low + ph.p_memsz) contains = true;
  }
  if (!contains) return 0;
  for (int i = 0; i < info->dlpi_phnum && find->found < kMaxRanges; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD || (ph.p_flags & PF_X) == 0) continue;
    const std::uintptr_t low = info->dlpi_addr + ph.p_vaddr;
    gExempt[find->found++] = Range{low, low + ph.p_memsz};
  }
  return 1;
}

}  // namespace

bool exemptCallersIn(const void* codeAddress) {
  gExemptCount.store(0, std::memory_order_release);
  gExemptCalls.store(0, std::memory_order_relaxed);
  if (codeAddress == nullptr) return true;
  FindObject find{reinterpret_cast<std::uintptr_t>(codeAddress), 0};
  dl_iterate_phdr(collectRanges, &find);
  gExemptCount.store(find.found, std::memory_order_release);
  return find.found > 0;
}

long exemptedCalls() { return gExemptCalls.load(std::memory_order_relaxed); }

}  // namespace vorta_test
