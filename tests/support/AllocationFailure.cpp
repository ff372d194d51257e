#include "support/AllocationFailure.h"

#include <cstdlib>
#include <new>

namespace TestSupport {
namespace {

thread_local bool failing = false;
thread_local bool happened = false;
thread_local std::size_t successesLeft = 0;
thread_local std::size_t failuresLeft = 0;

void* Allocate(std::size_t size) {
  if (failing && successesLeft > 0) {
    --successesLeft;
  } else if (failing && failuresLeft > 0) {
    if (failuresLeft != AllocationFailure::kForGood) --failuresLeft;
    happened = true;
    throw std::bad_alloc();
  }
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}

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

MemoryThere::MemoryThere() : before_(failing) {
  failing = false;
}

MemoryThere::~MemoryThere() {
  failing = before_;
}

}  // namespace TestSupport

void* operator new(std::size_t size) {
  return TestSupport::Allocate(size);
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
