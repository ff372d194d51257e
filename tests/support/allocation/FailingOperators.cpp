// All operators that take memory and give it back, so that none meets another's.
#include <cstdlib>
#include <new>

#include "support/AllocationFailure.h"

namespace {

void* AllocateOrNull(std::size_t size, std::size_t alignment = 0) {
  if (TestSupport::AllocationFailure::IsDueNow()) return nullptr;
  if (size == 0) size = 1;
  if (alignment == 0) return std::malloc(size);
  return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

void* Allocate(std::size_t size, std::size_t alignment = 0) {
  if (void* const memory = AllocateOrNull(size, alignment)) return memory;
  throw std::bad_alloc();
}

std::size_t Number(std::align_val_t alignment) {
  return static_cast<std::size_t>(alignment);
}

}  // namespace

void* operator new(std::size_t size) {
  return Allocate(size);
}
void* operator new[](std::size_t size) {
  return Allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return Allocate(size, Number(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return Allocate(size, Number(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return AllocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return AllocateOrNull(size);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return AllocateOrNull(size, Number(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return AllocateOrNull(size, Number(alignment));
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(memory);
}
