#pragma once

#include "broker/CurrentCall.h"

namespace Broker {

// The writing side of CurrentCall, for the interceptors. All on the thread that serves the call.
class CallRecord {
 public:
  // The record to fill in; CurrentCall gives it from now on.
  static Call& Begin();
  // Shows it to the hook, which may throw.
  static void Inspect();
  static void End();
};

}  // namespace Broker
