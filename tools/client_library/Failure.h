#pragma once

#include <omniORB4/CORBA.h>

#include <stdexcept>
#include <string>

// Failures as the programs report them: one line, and an exit status that a script can rely on.
namespace ClientLibrary {

enum class Outcome : unsigned char {
  Done = 0,
  Failed = 1,
  BadUsage = 2,
  TimedOut = 3,
  Refused = 4,  // the router answered, with one of the contract's exceptions
};

class Failure : public std::runtime_error {
 public:
  // `exception` is the name of the CORBA exception behind it, such as "NotRegistered"; empty for
  // none.
  Failure(Outcome outcome, const std::string& text, std::string exception = "");

  Outcome GetOutcome() const { return outcome_; }
  const std::string& Exception() const { return exception_; }

 private:
  Outcome outcome_;
  std::string exception_;
};

// The last part of an exception's repository id, "NotLoggedOn" or "TRANSIENT".
std::string ShortName(const CORBA::Exception& exception);

// The Failure for what a remote call threw; `what` begins the text, as in "cannot send".
Failure AsFailure(const char* what, const CORBA::Exception& exception);

// Runs a remote call; a CORBA exception becomes a Failure.
template <class Function>
auto Calling(const char* what, Function&& call) {
  try {
    return call();
  } catch (const CORBA::Exception& exception) {
    throw AsFailure(what, exception);
  }
}

}  // namespace ClientLibrary
