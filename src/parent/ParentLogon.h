#pragma once

#include <BrelixMessaging.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "parent/HeartbeatPeriods.h"
#include "routing/Routing.h"
#include "status/StatusReporter.h"
#include "threads/ThreadHelper.h"

namespace MessageRouter {

// What the link to the parent asks of the router beside routing. Implemented by Router.
// Threads: the parent logon's.
class ParentLogonHost {
 public:
  virtual ~ParentLogonHost() = default;
  virtual StatusReporting::StatusReporter& Status() = 0;
  // The text of the IOR under which the parent was reached.
  virtual void SetParentAddresses(const std::string& ior) = 0;
  virtual void Reinitialize() = 0;
  // Ends the process at once. Where it returns, as in a test, the thread ends.
  virtual void EndProcess(int status) = 0;
};

// The thread that keeps this router attached to its parent: it registers, logs on, sends the
// heartbeat, and begins again whenever the link breaks. Where that keeps failing it escalates:
// eleven failures of a step in a row reinitialise the router, and eleven more of the same step end
// the process for the service manager to start it anew.
//
// Threads: Enable, LinkLost and the requests to stop come from any and touch flags alone; every
// remote call is made by the thread itself, and without the lock, which is a leaf.
class ParentLogon : public ThreadHelper::StoppableThreadHelper {
 public:
  // `second` is how long a second takes; a test may be in a hurry.
  ParentLogon(Routing& routing, ParentLogonHost& host,
              std::chrono::microseconds second = std::chrono::seconds(1));
  ~ParentLogon() override;

  // What the fetch of the parent's IOR needs from the router.
  struct Surroundings {
    StatusReporting::StatusReporter* reporter = nullptr;
    std::function<bool()> stopping;
  };
  // Fetches the parent's IOR text from the first of its addresses that answers; empty if none does.
  // Nothing in it is shared: several threads may run it at once.
  static std::string GetParentIOR(const Surroundings& surroundings);

  // Logging on may begin: the router has its certificate.
  void Enable();
  // The session with the parent is over, whatever the cause.
  void LinkLost();
  // Only asks for the stop, and can be called from anywhere. With `logoff` the thread takes leave
  // of the parent first; without it the logon is forgotten at once, and there is nobody to take
  // leave of.
  void RequestStopLogon(bool logoff);
  // The same, and waits for the thread.
  void StopLogon(bool logoff);
  void Process() override;

  // The memory of the escalation, which outlives reinitialisations and this object: whether a step
  // has led to a reinitialisation that no success has followed yet. A session that is over before
  // the thread looks is none.
  struct Escalation {
    std::atomic<bool> registerResetTried{false};
    std::atomic<bool> logonResetTried{false};
  };
  static Escalation& TheEscalation();

 private:
  enum class Outcome { kGoOn, kEnd };  // kEnd: the thread is to return at once

  // True if registration and logon must be looked at.
  bool WaitForWork();
  // Waits until logging on may begin. True if the link is up.
  bool AwaitLink();
  // The wait until a heartbeat is due. True once it is; false if something else is to be done.
  bool AwaitHeartbeat();
  // False if the link must be made anew, or the process ends.
  bool SendHeartbeat();

  Outcome Attach();
  Outcome Register();
  Outcome Logon();
  void EnsureRegistered();
  void RegisterParent();
  void Introduce(const std::string& ior);
  // False for a name that no parent may have. The caller counts it as a failure.
  bool LearnName(const std::string& name);
  // True if the link is up, or was.
  bool LogOnOnce();
  // False where the session is over already, or a stop without leave has come.
  bool NoteLogon(const RouterTableEntry& parent, LogonGeneration session);
  void LoggedOn(RouterTableEntry& parent);
  void TakeLeaveByDefault();
  void TakeLeave();

  // The step has failed `attempts` times. kEnd where the escalation has taken over.
  Outcome AfterFailure(unsigned attempts, const char* warning, std::atomic<bool>& resetTried,
                       bool forgetParent);
  void ResetRouter(std::atomic<bool>& resetTried);
  void ForgetParent();  // this router has to register again
  void ForgetLink();    // as ForgetParent, and the logon
  void PauseBetweenAttempts();
  // The pause between a session and the next, however early the first one ended; false if none is
  // due.
  bool PauseAfterLink();
  // Only a stop cuts it short.
  void WaitFor(std::chrono::seconds time);

  bool IsEnabled();
  bool IsRegistered() const;
  bool IsLoggedOn();

  Routing& routing_;
  ParentLogonHost& host_;
  const std::chrono::microseconds second_;
  HeartbeatPeriods periods_{"", 0};  // the thread's own

  // The thread's own; nil where this router has to register.
  BrelixMessaging::Router_var parentRouter_;
  // The thread's own: it has logged on, and no pause has followed the session's end.
  bool linkWasUp_ = false;
  unsigned names_ = 0;  // the thread's own: that the parent has had

  bool enabled_ GUARDED_BY(mutex_) = false;
  bool loggedOn_ GUARDED_BY(mutex_) = false;
  // No stop without leave has come.
  bool takesLeave_ GUARDED_BY(mutex_) = true;
  // Something has happened since the wait for the heartbeat began.
  bool woken_ GUARDED_BY(mutex_) = false;
};

}  // namespace MessageRouter
