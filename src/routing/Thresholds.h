#pragma once

#include <cstdint>

namespace MessageRouter {

// The router's thresholds, as read and adjusted at the start of a cycle. Seconds.
struct Thresholds {
  std::uint32_t notificationThresholdInitialRetrySecs = 3600;
  std::uint32_t notificationThresholdMaxRetrySecs = 172800;
  std::uint32_t getterShortInterval = 120;
  std::uint32_t getterInterval = 900;
  bool randomizeGetterInterval = true;
  std::uint32_t activeConsumerConnectionTimeout = 1800;
};

}  // namespace MessageRouter
