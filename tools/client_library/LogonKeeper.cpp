#include "client_library/LogonKeeper.h"

#include <utility>

#include "client_library/Failure.h"

namespace ClientLibrary {

LogonKeeper::LogonKeeper(Link& link, std::chrono::milliseconds checkInterval,
                         std::function<void(const std::string&)> notice)
    : link_(link), checkInterval_(checkInterval), notice_(std::move(notice)) {}

std::chrono::milliseconds LogonKeeper::Step() {
  if (first_) {
    link_.Logon();
    first_ = false;
    loggedOn_ = true;
    return checkInterval_;
  }
  if (!loggedOn_) return TryLogon();
  try {
    link_.CheckLogon();
    return checkInterval_;
  } catch (const Failure& failure) {
    loggedOn_ = false;
    notice_(std::string(failure.what()) + "; logging on again");
    return TryLogon();
  }
}

std::chrono::milliseconds LogonKeeper::TryLogon() {
  try {
    link_.Logon();
  } catch (const Failure& failure) {
    // These stay as they are however long we try.
    if (failure.Exception() == "NotRegistered" || failure.Exception() == "CertificateExpired") {
      throw;
    }
    return kRetryPause;
  }
  loggedOn_ = true;
  notice_("logged on again");
  return checkInterval_;
}

}  // namespace ClientLibrary
