// SPDX-License-Identifier: MIT
// vorta tests: make the Nth allocation of the process fail, to see a unit return its failure instead of
// aborting.
#pragma once

namespace vorta_test {

/// Null where allocations can be made to fail; else why they cannot (a
/// test skips with it).
const char* allocationFailureUnavailable();

/// From now on, the nth call (1 = the next) of malloc, calloc or realloc
/// returns null (sets ENOMEM), and so does every later one when `andAfter`
/// is true. operator new, which takes its memory from malloc, then throws
/// std::bad_alloc. The replacements are those of fail_alloc.h (FailAlloc is
/// the same failure counted differently: use one at a time); only test
/// binaries that use either are affected.
void failAllocation(long n, bool andAfter = false);
/// Allocations succeed again; returns how many failed since failAllocation.
long stopFailingAllocations();

/// Allocations called directly from the shared object whose code holds
/// codeAddress (null: none) are never failed nor counted towards the nth:
/// for a library that does not check its allocations, so that the
/// failures land only in the code under test. False when no object holds
/// the address.
bool exemptCallersIn(const void* codeAddress);
/// Calls passed on by exemptCallersIn since it was last called, while
/// failures were armed.
long exemptedCalls();

/// Fails allocations from the nth on for the life of the object.
class AllocationFailure {
 public:
  explicit AllocationFailure(long n, bool andAfter = true) { failAllocation(n, andAfter); }
  ~AllocationFailure() { stopFailingAllocations(); }
  AllocationFailure(const AllocationFailure&) = delete;
  AllocationFailure& operator=(const AllocationFailure&) = delete;
  long failed() const;
};

}  // namespace vorta_test
