#pragma once

#include <sys/resource.h>

#include <stdexcept>

#include "envelope/Envelope.h"

namespace TestSupport {

// No file can be opened while this lives.
class NoDescriptors {
 public:
  NoDescriptors() {
    LookAt(MessageRouter::PassingShortage(""));
    getrlimit(RLIMIT_NOFILE, &limit_);
    const rlimit none{0, limit_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &limit_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  // The undefined behaviour sanitizer opens a pipe when it meets a type for the first time.
  static void LookAt(const std::exception& exception) { exception.what(); }

  rlimit limit_{};
};

}  // namespace TestSupport
