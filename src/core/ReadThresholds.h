#pragma once

#include "routing/RoutingHost.h"

namespace MessageRouter {

// The thresholds of a cycle as configured, adjusted where a value can't be used; each adjustment
// is logged.
Thresholds ReadThresholds();

}  // namespace MessageRouter
