#include "broker/CorbaExceptions.h"

#include <cstdio>

#include "logging/Log.h"

namespace Broker {
namespace {

const char* CompletionText(CORBA::CompletionStatus completion) {
  switch (completion) {
    case CORBA::COMPLETED_YES:
      return "YES";
    case CORBA::COMPLETED_NO:
      return "NO";
    default:
      return "MAYBE";
  }
}

}  // namespace

std::string Describe(const CORBA::Exception& exception) {
  std::string text = std::string(exception._name()) + " (" + exception._rep_id() + ")";
  const auto* const system = CORBA::SystemException::_downcast(&exception);
  if (system == nullptr) return text;
  char minor[16];
  std::snprintf(minor, sizeof minor, "0x%08x", static_cast<unsigned>(system->minor()));
  text += std::string(", minor code ") + minor;
  if (const char* const meaning = system->NP_minorString()) {
    text += std::string(" (") + meaning + ")";
  }
  return text + ", completed " + CompletionText(system->completed());
}

void LogFailedCheck(const omniORB::fatalException& failure) {
  MessageRouter::LogError("A check of the ORB failed: %s, line %d: %s\n", failure.file(),
                          failure.line(), failure.errmsg());
}

}  // namespace Broker

namespace MessageRouter {

void LogCaughtCorbaException(const char* where, const CORBA::Exception& exception,
                             const char* detail) {
  LogError("%s: Caught CORBA %s %s\n", where == nullptr ? "" : where,
           Broker::Describe(exception).c_str(), detail == nullptr ? "" : detail);
}

bool ReportIfCorbaException(const char* where) {
  try {
    throw;
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException(where, exception, "");
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace MessageRouter
