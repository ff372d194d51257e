#include "support/AllocationFailure.h"

namespace TestSupport {
namespace {

thread_local bool failing = false;
thread_local bool happened = false;
thread_local std::size_t successesLeft = 0;
thread_local std::size_t failuresLeft = 0;

}  // namespace

AllocationFailure::AllocationFailure(std::size_t successes, std::size_t failures) {
  successesLeft = successes;
  failuresLeft = failures;
  happened = false;
  failing = true;
}

AllocationFailure::~AllocationFailure() {
  failing = false;
}

bool AllocationFailure::Happened() {
  return happened;
}

bool AllocationFailure::IsDueNow() {
  if (!failing) return false;
  if (successesLeft > 0) {
    --successesLeft;
    return false;
  }
  if (failuresLeft == 0) return false;
  if (failuresLeft != kForGood) --failuresLeft;
  happened = true;
  return true;
}

MemoryThere::MemoryThere() : before_(failing) {
  failing = false;
}

MemoryThere::~MemoryThere() {
  failing = before_;
}

}  // namespace TestSupport
