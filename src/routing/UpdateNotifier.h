#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "threads/Mutex.h"

namespace MessageRouter {

class Routing;

// Sends management notices about the peers of one kind, clients or routers, to whoever subscribed
// last. The subscription stands in the configuration and outlives a restart.
// Threads: any.
class UpdateNotifier {
 public:
  // What a subscriber's address may have: longer ones could not be read back.
  static constexpr std::size_t kMaxDestination = 4096;

  // Notices go out through `routing`, which must outlive this.
  UpdateNotifier(Routing& routing, bool isRouters);

  // The address replaces the one before; empty ends the subscription. One that is too long is
  // refused with an error line, and the result is false. Writes the configuration, unless that is
  // the subscriber already, and waits for its file while another program writes it. Throws
  // SubscriberLockFailure, and changes nothing, if its lock can't be taken.
  bool SetDestination(const std::string& destination);

  // A notice that can't be made is logged: it keeps nobody from registering or logging on.
  void Registered(const std::string& name);
  void Unregistered(const std::string& name);
  void Logon(const std::string& name);
  void Logoff(const std::string& name);

 private:
  void Send(const char* event, const std::string& name);
  std::string Destination() const;

  const bool isRouters_;
  std::string destination_ GUARDED_BY(mutex_);
  const std::string configKey_;
  const std::uint32_t priority_ = 0;
  const std::int64_t ttl_;
  Routing& routing_;
  // Leaf lock: the route thread replaces what the ORB's threads read.
  mutable ThreadHelper::Mutex mutex_;
};

}  // namespace MessageRouter
