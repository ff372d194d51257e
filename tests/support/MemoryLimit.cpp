#include "support/MemoryLimit.h"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BRELIX_OWN_HEAP 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define BRELIX_OWN_HEAP 0
#endif
#endif
#ifndef BRELIX_OWN_HEAP
#define BRELIX_OWN_HEAP 1
#endif

namespace TestSupport {
namespace {

// From the start of the process on: what a heap has once grown to, it would give without asking.
constexpr int kLargeBlock = 128 * 1024;
[[maybe_unused]] const int largeBlocksApart = mallopt(M_MMAP_THRESHOLD, kLargeBlock);

std::size_t AddressSpace() {
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

MemoryLimit::MemoryLimit(std::size_t bytes) {
  malloc_trim(0);
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  before_ = limit.rlim_cur;
  limit.rlim_cur = AddressSpace() + bytes;
  setrlimit(RLIMIT_AS, &limit);
}

MemoryLimit::~MemoryLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  limit.rlim_cur = before_;
  setrlimit(RLIMIT_AS, &limit);
}

bool MemoryLimit::Works() {
  return BRELIX_OWN_HEAP != 0;
}

}  // namespace TestSupport
