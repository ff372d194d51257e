#pragma once

#include <omniORB4/CORBA.h>

#include <exception>

#include "broker/CorbaExceptions.h"
#include "logging/Log.h"

namespace MessageRouter {

// One step of a tear-down: whatever it throws is logged, and the steps after it follow. `what` says
// what the step was about.
template <class Function>
void Step(const char* what, Function&& step) {
  try {
    step();
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException("RouterCycle", exception, what);
  } catch (const std::exception& exception) {
    LogCaughtException("RouterCycle", exception, what);
  } catch (...) {
    LogError("RouterCycle: Caught unknown exception %s\n", what);
  }
}

}  // namespace MessageRouter
