#include "parent/ParentLogon.h"

#include <algorithm>
#include <optional>

#include "broker/CorbaExceptions.h"
#include "config/Configuration.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "parent/HeartbeatThread.h"
#include "parent/ParentCallLimit.h"
#include "platform/Clock.h"
#include "routing/Quietly.h"
#include "security/OwnIdentity.h"

namespace MessageRouter {

using Broker::RepeatOnce;
using ThreadHelper::Guard;

namespace {

constexpr unsigned kAttempts = 10;
// Of the ten seconds that a stop has; the table is still to be written after it.
constexpr std::chrono::seconds kLeave{3};

}  // namespace

ParentLogon::ParentLogon(Routing& routing, ParentLogonHost& host, std::chrono::microseconds second)
    : routing_(routing), host_(host), second_(second) {}

ParentLogon::~ParentLogon() {
  Stop();
}

ParentLogon::Escalation& ParentLogon::TheEscalation() {
  static Escalation escalation;
  return escalation;
}

void ParentLogon::Enable() {
  const Guard guard(mutex_);
  if (!guard) return;
  enabled_ = true;
  woken_ = true;
  condition_.Broadcast();
}

void ParentLogon::LinkLost() {
  const Guard guard(mutex_);
  if (!guard) return;
  loggedOn_ = false;
  woken_ = true;
  condition_.Broadcast();
}

void ParentLogon::RequestStopLogon(bool logoff) {
  const Guard guard(mutex_);
  if (!guard) return;
  if (!logoff) {
    takesLeave_ = false;
    loggedOn_ = false;
  }
  UnlockedRequestStop();
}

void ParentLogon::StopLogon(bool logoff) {
  RequestStopLogon(logoff);
  Stop();
}

void ParentLogon::Process() {
  TakeLeaveByDefault();
  linkWasUp_ = false;
  names_ = 0;
  periods_ = HeartbeatPeriods(OwnIdentity::CommonName(), Platform::Clock::Instance().WallSeconds());
  while (!IsTerminated()) {
    try {
      if (!WaitForWork() || !IsEnabled()) continue;
      if (Attach() == Outcome::kEnd) {
        ForgetLink();
        return;
      }
      continue;
    } catch (const CORBA::Exception& exception) {
      Quietly([&] { LogCaughtCorbaException("ParentLogon::Process", exception, ""); });
    } catch (const std::exception& exception) {
      Quietly([&] { LogCaughtException("ParentLogon::Process", exception, ""); });
    }
    // What fails at once must not fail without a pause.
    PauseBetweenAttempts();
  }
  TakeLeave();
  ForgetLink();
}

ParentLogon::Outcome ParentLogon::Attach() {
  if (Register() == Outcome::kEnd) return Outcome::kEnd;
  return Logon();
}

ParentLogon::Outcome ParentLogon::Register() {
  Escalation& escalation = TheEscalation();
  for (unsigned attempts = 0;;) {
    // The parent may hang in a call, and a stop needs none.
    if (!IsTerminated()) EnsureRegistered();
    if (IsTerminated() || IsRegistered()) break;
    if (AfterFailure(++attempts,
                     "Register parent retry failed after %d attempts. Resetting router...",
                     escalation.registerResetTried, false) == Outcome::kEnd) {
      return Outcome::kEnd;
    }
  }
  escalation.registerResetTried = !IsRegistered();
  return Outcome::kGoOn;
}

ParentLogon::Outcome ParentLogon::Logon() {
  std::atomic<bool>& resetTried = TheEscalation().logonResetTried;
  for (unsigned attempts = 0; !IsTerminated();) {
    if (IsLoggedOn()) {
      resetTried = false;
      return Outcome::kGoOn;
    }
    if (PauseAfterLink()) continue;
    if (LogOnOnce()) {
      attempts = 0;
      continue;
    }
    if (IsTerminated()) break;
    if (AfterFailure(++attempts, "Parent logon failed after %d attempts. Resetting router...",
                     resetTried, true) == Outcome::kEnd) {
      return Outcome::kEnd;
    }
  }
  resetTried = !IsLoggedOn();
  return Outcome::kGoOn;
}

bool ParentLogon::LogOnOnce() {
  RouterTableEntry* const parent = routing_.Table().Parent();
  if (parent == nullptr) return false;
  std::optional<LogonGeneration> session;
  {
    const ParentCallLimit limit = ParentCallLimit::AtLeast(ParentCallLimit::kLogon, second_);
    session = parent->LogonToParentRouter(parentRouter_);
  }
  if (!session || !NoteLogon(*parent, *session)) return false;
  linkWasUp_ = true;
  LoggedOn(*parent);
  return true;
}

bool ParentLogon::NoteLogon(const RouterTableEntry& parent, LogonGeneration session) {
  const Guard guard(mutex_);
  // The session may have ended since: whoever ended it has told us before, and will not again. One
  // that another router of that name has begun is not ours.
  loggedOn_ = guard && takesLeave_ && parent.Generation() == session && parent.IsLoggedOn();
  return loggedOn_;
}

void ParentLogon::LoggedOn(RouterTableEntry& parent) {
  routing_.OfferForDelivery(parent);
  routing_.Host().NotifiedPoll(parent);
  LogInfo("Logged on to parent router as %s\n", ShownName(OwnIdentity::CommonName()).c_str());
  host_.Status().WriteReport();
}

ParentLogon::Outcome ParentLogon::AfterFailure(unsigned attempts, const char* warning,
                                               std::atomic<bool>& resetTried, bool forgetParent) {
  if (attempts <= kAttempts) {
    PauseBetweenAttempts();
    return Outcome::kGoOn;
  }
  if (resetTried) {
    LogWarning(
        "Registering with parent failed after resetting router. Forcing router shutdown. Router "
        "should restart automatically.");
    host_.EndProcess(0);
    return Outcome::kEnd;
  }
  if (forgetParent) ForgetParent();
  LogWarning(warning, static_cast<int>(kAttempts));
  ResetRouter(resetTried);
  return Outcome::kEnd;
}

void ParentLogon::ResetRouter(std::atomic<bool>& resetTried) {
  resetTried = true;
  const auto patience = static_cast<std::int32_t>(GetConfigInt("ResetTimeout", 120));
  host_.Reinitialize();
  if (IsTerminated()) return;
  for (std::int32_t second = 0; second < patience; ++second) {
    WaitFor(std::chrono::seconds(1));
    if (IsTerminated()) return;
  }
  LogWarning(
      "Resetting router failed to terminate parent logon thread after %d seconds. Forcing router "
      "shutdown. Router should restart automatically.",
      patience);
  host_.EndProcess(0);
}

void ParentLogon::TakeLeave() {
  if (!IsLoggedOn() || !IsRegistered()) return;
  try {
    const ParentCallLimit limit = ParentCallLimit::AtMost(kLeave, second_);
    RepeatOnce([this] { parentRouter_->Logoff(); });
    Quietly([] { LogInfo("Logged off from parent router\n"); });
  } catch (const CORBA::Exception& exception) {
    Quietly([&] { LogCaughtCorbaException("ParentLogon::Process", exception, "Logoff"); });
  }
}

bool ParentLogon::WaitForWork() {
  while (AwaitLink()) {
    linkWasUp_ = true;
    if (!AwaitHeartbeat()) {
      PauseBetweenAttempts();
      break;
    }
    if (!SendHeartbeat()) {
      // Registered anew at once, even if the link broke meanwhile.
      linkWasUp_ = false;
      break;
    }
  }
  PauseAfterLink();
  const Guard guard(mutex_);
  return guard && (enabled_ || !loggedOn_);
}

bool ParentLogon::AwaitLink() {
  const Guard guard(mutex_);
  if (!guard) return false;
  while (!enabled_ && !m_terminate) UnlockedWait(0, 0);
  return enabled_ && loggedOn_ && !m_terminate;
}

bool ParentLogon::AwaitHeartbeat() {
  const std::chrono::seconds period = periods_.Next(GetConfigInt("HeartbeatInterval", 120));
  const auto deadline = std::chrono::steady_clock::now() + period.count() * second_;
  const Guard guard(mutex_);
  if (!guard) return false;
  // The link may have been lost since it was looked at; what woke the thread earlier is done with.
  woken_ = !loggedOn_;
  while (!woken_ && !m_terminate) {
    if (period.count() == 0) {
      condition_.Wait();
      continue;
    }
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return true;
    condition_.WaitFor(left);
  }
  return false;
}

bool ParentLogon::SendHeartbeat() {
  bool succeeded = false;
  {
    HeartbeatThread heartbeat(routing_.Table());
    LogInfo("Calling parent with heartbeat...");
    heartbeat.Start();
    const std::int32_t limit = HeartbeatTimeout();
    if (limit < 1) {
      heartbeat.Join();
    } else if (!heartbeat.WaitForEnd(limit * second_)) {
      LogError("Heartbeat to parent timed out, restarting router...");
      // There is no other way to take the call back.
      host_.EndProcess(0);
    }
    succeeded = heartbeat.Succeeded();
  }
  if (succeeded) {
    LogInfo("Heartbeat to parent succeeded.");
    return true;
  }
  LogError("Heartbeat to parent failed.");
  ForgetLink();
  return false;
}

void ParentLogon::ForgetParent() {
  parentRouter_ = BrelixMessaging::Router::_nil();
}

void ParentLogon::ForgetLink() {
  ForgetParent();
  const Guard guard(mutex_);
  if (guard) loggedOn_ = false;
}

void ParentLogon::PauseBetweenAttempts() {
  // It makes up for a link that was lost before it, not for one that is lost while it lasts.
  if (!IsLoggedOn()) linkWasUp_ = false;
  const auto seconds = static_cast<std::int32_t>(GetConfigInt("LogonRetryInterval", 30));
  WaitFor(std::chrono::seconds(std::max(seconds, 1)));
}

bool ParentLogon::PauseAfterLink() {
  if (!linkWasUp_ || IsLoggedOn()) return false;
  PauseBetweenAttempts();
  return true;
}

void ParentLogon::WaitFor(std::chrono::seconds time) {
  const auto deadline = std::chrono::steady_clock::now() + time.count() * second_;
  const Guard guard(mutex_);
  if (!guard) return;
  while (!m_terminate) {
    const auto left =
        std::chrono::ceil<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return;
    condition_.WaitFor(left);
  }
}

void ParentLogon::TakeLeaveByDefault() {
  const Guard guard(mutex_);
  if (guard) takesLeave_ = true;
}

bool ParentLogon::IsEnabled() {
  const Guard guard(mutex_);
  return guard && enabled_;
}

bool ParentLogon::IsRegistered() const {
  return !CORBA::is_nil(parentRouter_);
}

bool ParentLogon::IsLoggedOn() {
  const Guard guard(mutex_);
  return guard && loggedOn_;
}

}  // namespace MessageRouter
