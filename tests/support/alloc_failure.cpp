// vorta tests: malloc and its relatives interposed, failing on request and otherwise passing on.
#include "alloc_failure.h"

#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

// 0: every allocation succeeds; else the count of allocations still to go
// before one fails.
std::atomic<long> g_countdown{0};
std::atomic<bool> g_andAfter{false};
std::atomic<bool> g_failing{false};  // past the nth, with andAfter
std::atomic<long> g_failed{0};

// Code ranges (executable segments of one shared object) whose calls are
// passed on untouched and not counted; see exemptCallersIn.
struct Range {
  std::uintptr_t low, high;
};
constexpr int kMaxRanges = 8;
Range g_exempt[kMaxRanges];
std::atomic<int> g_exemptCount{0};
std::atomic<long> g_exemptCalls{0};

}  // namespace

// AddressSanitizer brings its own malloc, which must come first, and its
// operator new does not go through malloc at all: there the interposer is
// left out and allocationFailureUnavailable() says why.
#if !defined(__SANITIZE_ADDRESS__)
namespace {

bool exempt(const void* caller) {
  const auto at = reinterpret_cast<std::uintptr_t>(caller);
  const int n = g_exemptCount.load(std::memory_order_acquire);
  for (int i = 0; i < n; ++i)
    if (at >= g_exempt[i].low && at < g_exempt[i].high) {
      ++g_exemptCalls;
      return true;
    }
  return false;
}

bool shouldFail(const void* caller) {
  if (g_countdown.load(std::memory_order_relaxed) == 0 && !g_failing.load(std::memory_order_relaxed))
    return false;
  if (exempt(caller)) return false;
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
  if (shouldFail(__builtin_return_address(0))) {
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
  if (shouldFail(__builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  return g_real.calloc(count, n);
}

void* realloc(void* p, std::size_t n) {
  if (!resolve() || inBootstrap(p)) {
    void* q = resolve() ? g_real.malloc(n) : bootstrapAlloc(n);
    if (q != nullptr && p != nullptr)
      std::memmove(q, p, n);  // bootstrap blocks are small and never moved twice
    return q;
  }
  if (shouldFail(__builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  return g_real.realloc(p, n);
}

int posix_memalign(void** out, std::size_t align, std::size_t n) {
  if (!resolve()) return ENOMEM;
  if (shouldFail(__builtin_return_address(0))) return ENOMEM;
  return g_real.posix_memalign(out, align, n);
}

void* aligned_alloc(std::size_t align, std::size_t n) {
  if (!resolve()) return nullptr;
  if (shouldFail(__builtin_return_address(0))) {
    errno = ENOMEM;
    return nullptr;
  }
  return g_real.aligned_alloc(align, n);
}

void* memalign(std::size_t align, std::size_t n) {
  if (!resolve()) return nullptr;
  if (shouldFail(__builtin_return_address(0))) {
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
#endif

namespace vorta_test {

const char* allocationFailureUnavailable() {
#if defined(__SANITIZE_ADDRESS__)
  return "AddressSanitizer replaces malloc and operator new itself, so allocations cannot be made to fail "
         "here";
#else
  return nullptr;
#endif
}

void failAllocation(long n, bool andAfter) {
#if !defined(__SANITIZE_ADDRESS__)
  resolve();
#endif
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
    g_exempt[find->found++] = Range{low, low + ph.p_memsz};
  }
  return 1;
}

}  // namespace

bool exemptCallersIn(const void* codeAddress) {
  g_exemptCount.store(0, std::memory_order_release);
  g_exemptCalls.store(0);
  if (codeAddress == nullptr) return true;
  FindObject find{reinterpret_cast<std::uintptr_t>(codeAddress), 0};
  dl_iterate_phdr(collectRanges, &find);
  g_exemptCount.store(find.found, std::memory_order_release);
  return find.found > 0;
}

long exemptedCalls() { return g_exemptCalls.load(); }

long AllocationFailure::failed() const { return g_failed.load(); }

}  // namespace vorta_test
