#pragma once

#include <omniORB4/CORBA.h>

#include <chrono>

#include "broker/CallTimeout.h"
#include "broker/CorbaExceptions.h"
#include "broker/Gate.h"
#include "logging/Log.h"

namespace RouterServants {

// The longest that a peer's logon waits for the peer's own answer to a call back.
inline constexpr std::chrono::seconds kCallBackLimit{60};

// Finds out, while a peer's logon is in progress, whether this router can reach the peer. Returns
// `peer` (not duplicated), or nil if it doesn't answer within the limit; a nil one is not called.
// Logs the outcome as that of `operation` and `who`. The place at the gate is given up meanwhile,
// so the caller holds no lock.
template <class Interface>
typename Interface::_ptr_type IfItAnswers(const char* operation, const char* who,
                                          typename Interface::_ptr_type peer,
                                          std::chrono::milliseconds longest = kCallBackLimit) {
  if (CORBA::is_nil(peer)) return Interface::_nil();
  try {
    const Broker::Gate::Leave leave;
    const Broker::CallTimeout limit(longest);
    Broker::RepeatOnce([peer] { peer->Heartbeat(); });
  } catch (...) {  // whatever it is, the peer can't be called
    MessageRouter::LogWarning("%s() failed to call back to %s\n", operation, who);
    return Interface::_nil();
  }
  MessageRouter::LogInfo("%s() successfully called back to %s\n", operation, who);
  return peer;
}

}  // namespace RouterServants
