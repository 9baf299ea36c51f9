// SPDX-License-Identifier: MIT
// vorta tests: malloc, calloc and realloc that fail on demand, for a test binary that links this.
#include "fail_alloc.h"

#include <errno.h>

#include <atomic>
#include <cstddef>

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

// -1: allocations succeed; otherwise the number that still succeed.
std::atomic<long> gBudget{-1};
std::atomic<long> gFailures{0};

[[maybe_unused]] bool refuse() {
  long budget = gBudget.load(std::memory_order_relaxed);
  while (budget > 0) {
    if (gBudget.compare_exchange_weak(budget, budget - 1, std::memory_order_relaxed)) return false;
  }
  if (budget < 0) return false;
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
  if (refuse()) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  if (refuse()) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_calloc(count, size);
}

void* realloc(void* pointer, std::size_t size) {
  if (size != 0 && refuse()) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_realloc(pointer, size);
}

void free(void* pointer) { __libc_free(pointer); }
}
#endif

namespace vorta_test {

bool allocationFailureAvailable() { return VORTA_FAIL_ALLOC_AVAILABLE != 0; }

bool builtWithSanitizer() { return VORTA_FAIL_ALLOC_AVAILABLE == 0; }

FailAlloc::FailAlloc(long succeeding) {
  gFailures.store(0, std::memory_order_relaxed);
  gBudget.store(succeeding < 0 ? 0 : succeeding, std::memory_order_relaxed);
}

FailAlloc::~FailAlloc() { gBudget.store(-1, std::memory_order_relaxed); }

long FailAlloc::failures() { return gFailures.load(std::memory_order_relaxed); }

}  // namespace vorta_test
