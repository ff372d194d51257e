#pragma once

#include <exception>
#include <functional>
#include <utility>

#include "logging/Log.h"
#include "threads/ThreadHelper.h"

namespace MessageRouter {

// Watches the host's addresses and calls back when they have changed for good: a change that is
// gone again within twenty seconds, as when a computer wakes, is passed over.
// `AddressSet` compares by value; an unqualified InitialiseWithHost(AddressSet&) fills one.
template <class AddressSet>
class HostIPAddressMonitor : public ThreadHelper::StoppableThreadHelper {
 public:
  // The callback runs on the monitor's thread. An interval of 0 becomes 5 seconds.
  HostIPAddressMonitor(AddressSet seen, std::function<void()> changed, unsigned intervalSeconds)
      : seen_(std::move(seen)),
        changed_(std::move(changed)),
        intervalSeconds_(intervalSeconds == 0 ? 5 : intervalSeconds) {}
  ~HostIPAddressMonitor() override { Stop(); }

  void Process() override {
    LogTrace("HostIPAddressMonitor::Process started\n");
    while (!IsTerminated()) {
      Wait(intervalSeconds_, 0);
      if (IsTerminated()) break;
      try {
        Check();
      } catch (const std::exception& exception) {
        LogWarning("Failed to get current IP addresses: %s\n", exception.what());
      }
    }
    LogTrace("HostIPAddressMonitor::Process exiting\n");
  }

 private:
  void Check() {
    AddressSet current;
    InitialiseWithHost(current);
    if (current == seen_) return;
    LogTrace("Sleeping for 20 seconds to give Vista time to fully wakeup\n");
    Wait(2, 0);
    LogTrace("Slept for 2 seconds to resolve any clock issues\n");
    Wait(9, 0);
    Wait(9, 0);
    LogTrace("20 second sleep complete\n");
    InitialiseWithHost(current);
    if (current == seen_) return;
    changed_();
    seen_ = std::move(current);
    LogInfo("Host IP Addresses have changed\n");
  }

  AddressSet seen_;
  const std::function<void()> changed_;
  const unsigned intervalSeconds_;
};

}  // namespace MessageRouter
