#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace ClientLibrary {

// Keeps a client logged on for as long as a command runs: the router may be restarted, and another
// program of the same name may have logged on in our place.
// Threads: one.
class LogonKeeper {
 public:
  class Link {
   public:
    virtual ~Link() = default;
    // From the start: the router's reference is fetched anew. Throws Failure.
    virtual void Logon() = 0;
    // Throws Failure if the logon is no longer good.
    virtual void CheckLogon() = 0;
  };

  static constexpr std::chrono::milliseconds kRetryPause{500};

  // `notice` is told, in one line, when the router is lost and when it is back.
  LogonKeeper(Link& link, std::chrono::milliseconds checkInterval,
              std::function<void(const std::string&)> notice);

  // One step: logs on, or checks the logon. Returns the pause until the next step is due. Throws
  // the Failure of the very first logon, and later those that waiting does not mend.
  std::chrono::milliseconds Step();
  bool LoggedOn() const { return loggedOn_; }

 private:
  std::chrono::milliseconds TryLogon();

  Link& link_;
  std::chrono::milliseconds checkInterval_;
  std::function<void(const std::string&)> notice_;
  bool first_ = true;
  bool loggedOn_ = false;
};

}  // namespace ClientLibrary
