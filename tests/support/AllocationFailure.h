#pragma once

#include <cstddef>
#include <limits>

namespace TestSupport {

// While it lives, `operator new` finds no memory in the thread that made it: after so many calls
// that do, so many fail. Only in programs that link brelix_failing_allocation, whose operators ask
// IsDueNow; whatever takes memory without them still finds it.
class AllocationFailure {
 public:
  static constexpr std::size_t kForGood = std::numeric_limits<std::size_t>::max();
  explicit AllocationFailure(std::size_t successes = 0, std::size_t failures = kForGood);
  ~AllocationFailure();
  AllocationFailure(const AllocationFailure&) = delete;
  AllocationFailure& operator=(const AllocationFailure&) = delete;

  // Whether a call has failed yet.
  static bool Happened();
  // For the operators: counts this call.
  static bool IsDueNow();
};

// While it lives, the thread finds memory: for fakes and for the steps of a test.
class MemoryThere {
 public:
  MemoryThere();
  ~MemoryThere();
  MemoryThere(const MemoryThere&) = delete;
  MemoryThere& operator=(const MemoryThere&) = delete;

 private:
  const bool before_;
};

}  // namespace TestSupport
