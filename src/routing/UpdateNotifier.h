#pragma once

#include <string>

namespace MessageRouter {

// Sends management notices about the peers of one kind to whoever has subscribed. Subscriptions
// are not available in this version: nobody is ever told.
// Threads: any.
class UpdateNotifier {
 public:
  explicit UpdateNotifier(bool isRouters);
  void SetDestination(const std::string& destination);
  void Registered(const std::string& name);
  void Unregistered(const std::string& name);
  void Logon(const std::string& name);
  void Logoff(const std::string& name);

 private:
  // Which pair of notices this one sends.
  [[maybe_unused]] bool isRouters_;
};

}  // namespace MessageRouter
