#pragma once

#include <omniORB4/CORBA.h>

#include <exception>

#include "broker/CorbaExceptions.h"
#include "logging/Log.h"

namespace MessageRouter {

// Runs what the destructor of a visit's guard has to do, and lets nothing out of it: a peer whose
// log-off fails must not cost the worker. `worker` and `guard` are class names for the log.
template <class Function>
void EndVisit(const char* worker, const char* guard, Function&& end) noexcept {
  try {
    end();
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException(worker, exception, "during logoff");
  } catch (const std::exception& exception) {
    LogCaughtException(worker, exception, "during logoff");
  } catch (...) {
    LogError("%s destructor caught unknown exception\n", guard);
  }
}

}  // namespace MessageRouter
