#pragma once

#include <cstdint>

#include "routing/Thresholds.h"

namespace MessageRouter {

// The thresholds of a cycle as configured, adjusted where a value can't be used; each adjustment
// is logged.
Thresholds ReadThresholds();

// How often a scan thread looks at the table, and with how many workers.
struct Scan {
  std::uint32_t seconds;
  std::uint32_t workers;
  bool operator==(const Scan&) const = default;
};

// Each reads its keys; warns of values that it replaces.
Scan ReadGetterScan();
Scan ReadTimeoutScan();
Scan ReadThresholdScan();

}  // namespace MessageRouter
