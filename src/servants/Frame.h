#pragma once

#include <BrelixMessaging.h>

#include <exception>
#include <utility>

#include "broker/Gate.h"
#include "logging/Log.h"

namespace RouterServants {

// The frame of every remote operation. `name` stands in the log, as "Client::Register".
//
// CORBA exceptions go to the caller as they are. Any other fault is this router's own: the caller
// gets Rejected, and the text stays in the log.

// The part without a place at the gate, for operations that a servant calls on itself.
template <class Work>
auto Framed(const char* name, Work&& work) {
  MessageRouter::LogTrace("%s() called\n", name);
  try {
    return work();
  } catch (const std::exception& exception) {
    MessageRouter::LogError("%s() caught %s\n", name, exception.what());
    throw BrelixMessaging::Rejected();
  }
}

template <class Work>
auto Operation(const char* name, Work&& work) {
  const Broker::Gate::Pass pass;
  return Framed(name, std::forward<Work>(work));
}

// For operations that tell nothing of this router's own faults by Rejected: those of the root
// object, heartbeats and notifications, and GetEnvelope, which makes its own of them.
template <class Work>
auto OpenOperation(const char* name, Work&& work) {
  const Broker::Gate::Pass pass;
  MessageRouter::LogTrace("%s() called\n", name);
  return work();
}

}  // namespace RouterServants
