#include "routing/UpdateNotifier.h"

namespace MessageRouter {

UpdateNotifier::UpdateNotifier(bool isRouters) : isRouters_(isRouters) {}

void UpdateNotifier::SetDestination(const std::string&) {}

void UpdateNotifier::Registered(const std::string&) {}

void UpdateNotifier::Unregistered(const std::string&) {}

void UpdateNotifier::Logon(const std::string&) {}

void UpdateNotifier::Logoff(const std::string&) {}

}  // namespace MessageRouter
