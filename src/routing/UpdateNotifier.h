#pragma once

#include <functional>
#include <string>

#include "threads/Mutex.h"

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
  bool isRouters_;
};

}  // namespace MessageRouter
