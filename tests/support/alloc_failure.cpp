// vorta tests: malloc and its relatives interposed, failing on request and otherwise passing on.
#include "alloc_failure.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

// 0: every allocation succeeds; else the count of allocations still to go
// before one fails.
std::atomic<long> g_countdown{0};
std::atomic<bool> g_andAfter{false};
std::atomic<bool> g_failing{false};  // past the nth, with andAfter
std::atomic<long> g_failed{0};

bool shouldFail() {
  if (g_failing.load(std::memory_order_relaxed)) {
    ++g_failed;
    return true;
  }
  long left = g_countdown.load(std::memory_order_relaxed);
  while (left > 0) {
    if (g_countdown.compare_exchange_weak(left, left - 1)) {
      if (left != 1) return false;
      if (g_andAfter.load()) g_failing.store(true);
      ++g_failed;
      return true;
    }
  }
  return false;
}

using MallocFn = void* (*)(std::size_t);
using CallocFn = void* (*)(std::size_t, std::size_t);
using ReallocFn = void* (*)(void*, std::size_t);
using MemalignFn = int (*)(void**, std::size_t, std::size_t);
using AlignedFn = void* (*)(std::size_t, std::size_t);
using FreeFn = void (*)(void*);

// dlsym may itself ask for memory before the real functions are known;
// those few requests are served from here and never freed.
alignas(16) unsigned char g_bootstrap[16384];
std::size_t g_bootstrapUsed = 0;
bool inBootstrap(void* p) {
  return p >= static_cast<void*>(g_bootstrap) && p < static_cast<void*>(g_bootstrap + sizeof g_bootstrap);
}
void* bootstrapAlloc(std::size_t n) {
  n = (n + 15) & ~std::size_t(15);
  if (g_bootstrapUsed + n > sizeof g_bootstrap) return nullptr;
  void* p = g_bootstrap + g_bootstrapUsed;
  g_bootstrapUsed += n;
  return p;
}

struct Real {
  MallocFn malloc = nullptr;
  CallocFn calloc = nullptr;
  ReallocFn realloc = nullptr;
  MemalignFn posix_memalign = nullptr;
  AlignedFn aligned_alloc = nullptr;
  AlignedFn memalign = nullptr;
  FreeFn free = nullptr;
};
Real g_real;
thread_local bool t_resolving = false;

// The next definitions in the search order: the C library's, or a
// sanitizer's when one is loaded before it.
bool resolve() {
  if (g_real.free != nullptr) return true;
  if (t_resolving) return false;
  t_resolving = true;
  g_real.malloc = reinterpret_cast<MallocFn>(dlsym(RTLD_NEXT, "malloc"));
  g_real.calloc = reinterpret_cast<CallocFn>(dlsym(RTLD_NEXT, "calloc"));
  g_real.realloc = reinterpret_cast<ReallocFn>(dlsym(RTLD_NEXT, "realloc"));
  g_real.posix_memalign = reinterpret_cast<MemalignFn>(dlsym(RTLD_NEXT, "posix_memalign"));
  g_real.aligned_alloc = reinterpret_cast<AlignedFn>(dlsym(RTLD_NEXT, "aligned_alloc"));
  g_real.memalign = reinterpret_cast<AlignedFn>(dlsym(RTLD_NEXT, "memalign"));
  g_real.free = reinterpret_cast<FreeFn>(dlsym(RTLD_NEXT, "free"));
  t_resolving = false;
  return g_real.free != nullptr;
}

}  // namespace

extern "C" {

void* malloc(std::size_t n) {
  if (!resolve()) return bootstrapAlloc(n);
  if (shouldFail()) {
    errno = ENOMEM;
    return nullptr;
  }
  return g_real.malloc(n);
}

void* calloc(std::size_t count, std::size_t n) {
  if (!resolve()) {
    void* p = bootstrapAlloc(count * n);  // static memory is zero
    return p;
  }
  if (shouldFail()) {
    errno = ENOMEM;
    return nullptr;
  }
  return g_real.calloc(count, n);
}

void* realloc(void* p, std::size_t n) {
  if (!resolve() || inBootstrap(p)) {
    void* q = resolve() ? g_real.malloc(n) : bootstrapAlloc(n);
    if (q != nullptr && p != nullptr) std::memmove(q, p, n);  // bootstrap blocks are small and never moved twice
    return q;
  }
  if (shouldFail()) {
    errno = ENOMEM;
    return nullptr;
  }
  return g_real.realloc(p, n);
}

int posix_memalign(void** out, std::size_t align, std::size_t n) {
  if (!resolve()) return ENOMEM;
  if (shouldFail()) return ENOMEM;
  return g_real.posix_memalign(out, align, n);
}

void* aligned_alloc(std::size_t align, std::size_t n) {
  if (!resolve()) return nullptr;
  if (shouldFail()) {
    errno = ENOMEM;
    return nullptr;
  }
  return g_real.aligned_alloc(align, n);
}

void* memalign(std::size_t align, std::size_t n) {
  if (!resolve()) return nullptr;
  if (shouldFail()) {
    errno = ENOMEM;
    return nullptr;
  }
  return g_real.memalign(align, n);
}

void free(void* p) {
  if (p == nullptr || inBootstrap(p)) return;
  if (resolve()) g_real.free(p);
}

}  // extern "C"

namespace vorta_test {

void failAllocation(long n, bool andAfter) {
  resolve();
  g_failing.store(false);
  g_failed.store(0);
  g_andAfter.store(andAfter);
  g_countdown.store(n > 0 ? n : 0);
}

long stopFailingAllocations() {
  g_countdown.store(0);
  g_failing.store(false);
  return g_failed.load();
}

long AllocationFailure::failed() const { return g_failed.load(); }

}  // namespace vorta_test
