#pragma once

#include <cstddef>

namespace TestSupport {

// While it lives, the process can get no more memory from the system than so many bytes. In a
// program that uses it, large blocks always come from there.
class MemoryLimit {
 public:
  explicit MemoryLimit(std::size_t bytes);
  ~MemoryLimit();
  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;

  // False under a sanitizer, whose heap can't be limited.
  static bool Works();

 private:
  unsigned long before_ = 0;
};

}  // namespace TestSupport
