// SPDX-License-Identifier: MIT
// vorta tests: make the process's heap allocations fail on demand (malloc, calloc and realloc are
// replaced in a test binary that uses this).
#pragma once

namespace vorta_test {

/// True when this build can make allocations fail: not under a sanitizer or
/// valgrind, which own malloc themselves (allocationFailureUnavailable()
/// says which).
bool allocationFailureAvailable();

/// True in a sanitizer build. Such a runtime also needs descriptors of its
/// own (the undefined-behaviour checker probes memory through a pipe), so a
/// test that leaves the process no descriptor is not meaningful there.
bool builtWithSanitizer();

/// While alive, the first `succeeding` heap allocations still succeed and
/// every later one fails (null with errno ENOMEM; operator new then throws
/// std::bad_alloc). Frees always work. One at a time per process.
class FailAlloc {
 public:
  explicit FailAlloc(long succeeding = 0);
  ~FailAlloc();
  FailAlloc(const FailAlloc&) = delete;
  FailAlloc& operator=(const FailAlloc&) = delete;

  /// Allocations refused since this object was made.
  static long failures();
};

}  // namespace vorta_test
