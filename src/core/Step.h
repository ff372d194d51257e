#pragma once

#include <omniORB4/CORBA.h>

#include <exception>

#include "broker/CorbaExceptions.h"
#include "logging/Log.h"
#include "routing/Quietly.h"

namespace MessageRouter {

// One step of a tear-down: whatever it throws is logged, and the steps after it follow. `what` says
// what the step was about.
template <class Function>
void Step(const char* what, Function&& step) {
  try {
    step();
  } catch (const CORBA::Exception& exception) {
    Quietly([&] { LogCaughtCorbaException("RouterCycle", exception, what); });
  } catch (const std::exception& exception) {
    Quietly([&] { LogCaughtException("RouterCycle", exception, what); });
  } catch (...) {
    Quietly([&] { LogError("RouterCycle: Caught unknown exception %s\n", what); });
  }
}

}  // namespace MessageRouter
