#pragma once

#include <optional>
#include <string>

#include "routing/Routing.h"

namespace RouterServants {

// The routing of the running cycle. Throws BrelixMessaging::Rejected while none runs.
MessageRouter::Routing& RunningRouting();

// The name in the certificate of whoever made the call that this thread serves: nothing that a
// caller says about itself is used. Throws BrelixMessaging::Rejected without a readable
// certificate.
std::string CallerName();
// For operations that raise nothing: the same, or nothing where CallerName throws.
std::optional<std::string> CallerNameIfAny();

// The caller's place in the router table, as the operations on per-peer objects need it.
// Valid until the operation returns.
struct Caller {
  // Throws Rejected for a stranger and NotLoggedOn for a peer that is not logged on.
  static Caller LoggedOn();

  MessageRouter::Routing& routing;
  // May have become another peer's since: what matters asks for the name once more.
  MessageRouter::RouterTableEntry& entry;
  std::string name;
  bool isRouter;
};

// A caller's entry, logged on or not; null for a stranger, and while no cycle runs.
MessageRouter::RouterTableEntry* FindEntry(const std::string& name);

}  // namespace RouterServants
