#pragma once

#include <omniORB4/CORBA.h>

#include <string>
#include <utility>

#include "broker/CallTimeout.h"

namespace Broker {

// Name, repository id, and for system exceptions minor code and completion, in one line.
std::string Describe(const CORBA::Exception& exception);

void LogFailedCheck(const omniORB::fatalException& failure);

// The frame of a single outgoing call: a check of the ORB that fails, which is no CORBA exception
// and not even a std::exception, becomes CORBA::INTERNAL.
template <class Function>
auto OutgoingCall(Function&& call) {
  try {
    return call();
  } catch (const omniORB::fatalException& failure) {
    LogFailedCheck(failure);
    throw CORBA::INTERNAL(0, CORBA::COMPLETED_MAYBE);
  }
}

// Every outgoing call is repeated once, at once, on a system exception; the second failure counts.
// Where a CallTimeout is over the first one does.
// A peer whose connection was closed meanwhile is thereby reached over a new one.
template <class Function>
auto RepeatOnce(Function&& call) {
  try {
    return OutgoingCall(call);
  } catch (const CORBA::SystemException&) {
    if (CallTimeout::IsOver()) throw;
    return OutgoingCall(call);
  }
}

}  // namespace Broker

namespace MessageRouter {

// For the last handler of a thread: within a catch block, logs the exception that is being handled
// if it is CORBA's, with `where`, and returns whether it was.
bool ReportIfCorbaException(const char* where);

// "<where>: Caught CORBA <description> <detail>\n" at error level. Null counts as empty.
void LogCaughtCorbaException(const char* where, const CORBA::Exception& exception,
                             const char* detail);

}  // namespace MessageRouter
