#pragma once

#include <omniORB4/CORBA.h>

#include <exception>

#include "broker/CorbaExceptions.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"
#include "routing/RouterTableEntry.h"

namespace MessageRouter {

// Runs what the destructor of a visit's guard has to do, and lets nothing out of it: a peer whose
// log-off fails must not cost the worker. `worker` and `guard` are class names for the log.
template <class Function>
void EndVisit(const char* worker, const char* guard, Function&& end) noexcept {
  // What is logged about a failure can fail for the same reason.
  Quietly([&] {
    try {
      end();
    } catch (const CORBA::Exception& exception) {
      LogCaughtCorbaException(worker, exception, "during logoff");
    } catch (const std::exception& exception) {
      LogCaughtException(worker, exception, "during logoff");
    } catch (...) {
      LogError("%s destructor caught unknown exception\n", guard);
    }
  });
}

// "Failed to <what>, logging <name> off\n" at error level. Throws nothing: the log-off that it
// announces must come.
inline void LogFailedVisit(const char* what, const RouterTableEntry& entry) noexcept {
  Quietly([&] { LogError("Failed to %s, logging %s off\n", what, Shown(entry.Name()).c_str()); });
}

}  // namespace MessageRouter
