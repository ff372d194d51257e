#pragma once

#include <cstdint>

#include "threads/ThreadHelper.h"

namespace MessageRouter {

// Ends the process if it is not stopped in time: calls have no limit of their own, and a peer that
// hangs in one would hold a tear-down up for ever. The service manager starts the router anew.
class TearDownWatchdog : public ThreadHelper::StoppableThreadHelper {
 public:
  // 0: no limit.
  explicit TearDownWatchdog(std::uint32_t seconds) : seconds_(seconds) {}
  ~TearDownWatchdog() override { Stop(); }
  void Process() override;

 private:
  const std::uint32_t seconds_;
};

}  // namespace MessageRouter
