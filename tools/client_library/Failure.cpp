#include "client_library/Failure.h"

#include <omniORB4/minorCode.h>

#include <utility>

namespace ClientLibrary {

Failure::Failure(Outcome outcome, const std::string& text, std::string exception)
    : std::runtime_error(text), outcome_(outcome), exception_(std::move(exception)) {}

std::string ShortName(const CORBA::Exception& exception) {
  std::string id = exception._rep_id();
  // "IDL:BrelixMessaging/Rejected:1.0", "IDL:omg.org/CORBA/TRANSIENT:1.0"
  const auto slash = id.rfind('/');
  if (slash != std::string::npos) id.erase(0, slash + 1);
  const auto colon = id.find(':');
  if (colon != std::string::npos) id.erase(colon);
  return id;
}

Failure AsFailure(const char* what, const CORBA::Exception& exception) {
  const std::string name = ShortName(exception);
  const auto text = [&](const std::string& reason) { return std::string(what) + ": " + reason; };
  const auto* system = CORBA::SystemException::_downcast(&exception);
  if (system == nullptr) {
    return {Outcome::Refused, text("refused by the router: " + name), name};
  }
  if (CORBA::NO_PERMISSION::_downcast(&exception) != nullptr) {
    return {Outcome::Refused, text("refused by the router: " + name), name};
  }
  if (CORBA::TIMEOUT::_downcast(&exception) != nullptr) {
    return {Outcome::TimedOut, text("the router did not answer in time"), name};
  }
  if (system->minor() == omni::TRANSIENT_ConnectFailed) {
    return {Outcome::Failed,
            text("no connection to the router: it is gone, or one of the two certificates is not "
                 "of the other's authority"),
            name};
  }
  const char* minor = system->NP_minorString();
  return {Outcome::Failed, text(name + (minor != nullptr ? " (" + std::string(minor) + ")" : "")),
          name};
}

}  // namespace ClientLibrary
