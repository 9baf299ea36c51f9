// SPDX-License-Identifier: MIT
// vorta tests: a unit run once with each of its allocations failing in turn, each run in a child process.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace alloc_test {

// Runs body(n, failed) in a child process, for n = 1, 2, ... until a run
// has no allocation failed; body sets up what it needs, then fails the nth
// allocation (an AllocationFailure) around the unit and sets `failed`.
// Counts how the children ended: body's result 0 (the unit gave what it
// gives with memory: the failure had a fallback), 1 (the unit returned its
// failure with a message); a run with nothing failed must give 0. Anything
// else (a signal, an exception leaving the unit: 14, another result) is
// listed by n. The child process keeps a crash from ending the test.
struct EachAllocation {
  int absorbed = 0, failedCleanly = 0, runs = 0;
  std::vector<long> crashed;
  std::string what;  // crashes and odd exit codes, for the failure message
};

template <typename Body>
EachAllocation failEachAllocationInTurn(Body body, long limit = 2000) {
  EachAllocation result;
  for (long n = 1; n <= limit; ++n) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
      result.what += " fork failed";
      break;
    }
    if (pid == 0) {
      // body arms the failure itself (an AllocationFailure of n) once its
      // own buffers are ready, and says how many allocations failed.
      long failed = 0;
      int code = 15;
      try {
        code = body(n, failed);
      } catch (...) {
        code = 14;  // an exception left the unit
      }
      std::fflush(nullptr);
      if (code == 14) _exit(code);
      _exit(failed == 0 ? (code == 0 ? 10 : 11) : code);  // 10: n is past the unit's allocations
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
      result.what += " waitpid failed";
      break;
    }
    ++result.runs;
    if (!WIFEXITED(status)) {
      result.crashed.push_back(n);
      result.what += " " + std::to_string(n) + "(signal " + std::to_string(WTERMSIG(status)) + ")";
      continue;
    }
    const int code = WEXITSTATUS(status);
    if (code == 10) return result;
    if (code == 0)
      ++result.absorbed;
    else if (code == 1)
      ++result.failedCleanly;
    else
      result.what += " " + std::to_string(n) + "(exit " + std::to_string(code) + ")";
    if (result.what.size() > 2000) {
      result.what += " ...";
      return result;
    }
  }
  result.what += " (no end after " + std::to_string(limit) + " allocations)";
  return result;
}

}  // namespace alloc_test
