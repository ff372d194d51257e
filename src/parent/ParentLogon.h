#pragma once

#include <functional>
#include <string>

#include "status/StatusReporter.h"
#include "threads/ThreadHelper.h"

namespace MessageRouter {

// Keeps this router attached to its parent. Logging on is not available in this version: a router
// with a parent says so once, and its thread waits for the stop.
class ParentLogon : public ThreadHelper::StoppableThreadHelper {
 public:
  ParentLogon() = default;
  ~ParentLogon() override;

  // What the fetch of the parent's IOR needs from the router.
  struct Surroundings {
    StatusReporting::StatusReporter* reporter = nullptr;
    std::function<bool()> stopping;
  };
  // Fetches the parent's IOR text from the first of its addresses that answers; empty if none does.
  // Nothing in it is shared: several threads may run it at once.
  static std::string GetParentIOR(const Surroundings& surroundings);

  void Enable();
  void LinkLost();
  // From a callback this only asks for the stop.
  void RequestStopLogon(bool logoff);
  void StopLogon(bool logoff);
  void Process() override;

 private:
  // False if the stop came first.
  bool WaitUntilEnabled();

  bool enabled_ GUARDED_BY(mutex_) = false;
  bool registered_ GUARDED_BY(mutex_) = false;
  bool loggedOn_ GUARDED_BY(mutex_) = false;
};

}  // namespace MessageRouter
