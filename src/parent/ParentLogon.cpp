#include "parent/ParentLogon.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "broker/CallTimeout.h"
#include "broker/ConnectionTest.h"
#include "broker/CorbaExceptions.h"
#include "config/Configuration.h"
#include "delivery/HeartbeatThread.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "parent/Ior.h"
#include "platform/Clock.h"
#include "security/OwnIdentity.h"

namespace MessageRouter {

using Broker::RepeatOnce;
using ThreadHelper::Guard;

namespace {

constexpr unsigned kAttempts = 10;
constexpr unsigned kLargestRandom = 32767;
// Longer than any router runs, and far from where the clock's numbers end.
constexpr double kLongestPeriod = 3.0e9;  // seconds
// The same for the ORB, which counts milliseconds.
constexpr std::int32_t kLongestCall = 1'000'000;  // seconds
constexpr std::size_t kLongestName = 4096;
// The table keeps each of them to the end of the cycle.
constexpr unsigned kMostNames = 20;

// The text comes from whoever answers at the port: it must not make lines of its own in the log.
std::string OnOneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
  return text;
}

// ":" is every router's name for itself.
bool CanBeAName(std::string_view text) {
  return text.size() <= kLongestName && text != ":" &&
         std::none_of(text.begin(), text.end(),
                      [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

std::int32_t HeartbeatTimeout() {
  return static_cast<std::int32_t>(GetConfigInt("HeartbeatTimeout", 1800));
}

// While it lives, the calls of this thread end by then: a parent that is there and doesn't answer
// would hold the thread, and with it the escalation, for ever.
class CallLimit {
 public:
  explicit CallLimit(std::chrono::milliseconds second) {
    const std::int32_t seconds = std::min(HeartbeatTimeout(), kLongestCall);
    if (seconds >= 1) limit_.emplace(seconds * second);
  }

 private:
  std::optional<Broker::CallTimeout> limit_;
};

}  // namespace

ParentLogon::ParentLogon(Routing& routing, ParentLogonHost& host, std::chrono::milliseconds second)
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
  names_ = 0;
  // Routers that are started together are to draw different periods.
  random_.seed(static_cast<std::minstd_rand::result_type>(
      std::hash<std::string>()(OwnIdentity::CommonName()) +
      static_cast<std::size_t>(Platform::Clock::Instance().WallSeconds())));
  while (!IsTerminated()) {
    try {
      if (!WaitForWork() || !IsEnabled()) continue;
      if (Attach() == Outcome::kEnd) {
        ForgetLink();
        return;
      }
      continue;
    } catch (const CORBA::Exception& exception) {
      LogCaughtCorbaException("ParentLogon::Process", exception, "");
    } catch (const std::exception& exception) {
      LogCaughtException("ParentLogon::Process", exception, "");
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
    EnsureRegistered();
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
  bool succeeded = false;
  for (unsigned attempts = 0; !IsTerminated();) {
    if (IsLoggedOn()) {
      resetTried = false;
      return Outcome::kGoOn;
    }
    if (PauseAfterLink()) continue;
    if (LogOnOnce()) {
      attempts = 0;
      succeeded = true;
      continue;
    }
    if (IsTerminated()) break;
    if (AfterFailure(++attempts, "Parent logon failed after %d attempts. Resetting router...",
                     resetTried, true) == Outcome::kEnd) {
      return Outcome::kEnd;
    }
  }
  if (!succeeded) resetTried = !IsLoggedOn();
  return Outcome::kGoOn;
}

bool ParentLogon::LogOnOnce() {
  RouterTableEntry* const parent = routing_.Table().Parent();
  if (parent == nullptr) return false;
  {
    const CallLimit limit(second_);
    if (!parent->LogonToParentRouter(parentRouter_)) return false;
  }
  if (!NoteLogon(*parent)) return false;
  TheEscalation().logonResetTried = false;
  linkWasUp_ = true;
  LoggedOn(*parent);
  return true;
}

bool ParentLogon::NoteLogon(const RouterTableEntry& parent) {
  const Guard guard(mutex_);
  // The session may have ended since: whoever ended it has told us before, and will not again.
  loggedOn_ = guard && takesLeave_ && parent.IsLoggedOn();
  return loggedOn_;
}

void ParentLogon::LoggedOn(RouterTableEntry& parent) {
  routing_.OfferForDelivery(parent);
  routing_.Host().NotifiedPoll(parent);
  LogInfo("Logged on to parent router as %s\n", ToDisplayString(OwnIdentity::CommonName()).c_str());
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
  if (!IsLoggedOn() || CORBA::is_nil(parentRouter_)) return;
  try {
    const CallLimit limit(second_);
    RepeatOnce([this] { parentRouter_->Logoff(); });
    LogInfo("Logged off from parent router\n");
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException("ParentLogon::Process", exception, "Logoff");
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

std::chrono::seconds ParentLogon::HeartbeatPeriod() {
  std::uniform_int_distribution<unsigned> draw(0, kLargestRandom);
  const unsigned r = draw(random_) % 100;
  const double period = GetConfigInt("HeartbeatInterval", 120) * 60.0 * (1.0 + r / 100.0);
  return std::chrono::seconds(static_cast<std::int64_t>(std::min(period, kLongestPeriod)));
}

bool ParentLogon::AwaitHeartbeat() {
  const std::chrono::seconds period = HeartbeatPeriod();
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
    } else if (!heartbeat.WaitForEnd(std::chrono::seconds(limit))) {
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

void ParentLogon::EnsureRegistered() {
  if (!CORBA::is_nil(parentRouter_)) {
    bool valid = false;
    try {
      const CallLimit limit(second_);
      valid = RepeatOnce([this] { return Broker::HasValidConnection(parentRouter_); });
    } catch (const CORBA::Exception&) {
      // As good as no.
    }
    if (!valid) {
      LogDebug("Failed to validate connection to parent router\n");
      ForgetParent();
    }
  }
  if (CORBA::is_nil(parentRouter_)) RegisterParent();
}

void ParentLogon::RegisterParent() {
  StatusReporting::StatusReporter& status = host_.Status();
  const std::string ior = GetParentIOR({&status, [this] { return IsTerminated(); }});
  if (ior.empty()) return;
  LogInfo("Received parent router's IOR:\n%s\n", OnOneLine(ior).c_str());
  using StatusReporting::OutgoingSection;
  if (!validateIOR(ior)) {
    LogError("Cannot log on to the parent router, because its IOR is invalid\n");
    status.SetActualParent("");
    status.Outgoing().Raise(OutgoingSection::kParentIorInvalid, "");
    return;
  }
  status.Outgoing().Clear(OutgoingSection::kParentIorInvalid);
  LogInfo("Successfully validated parent router's IOR\n");
  host_.SetParentAddresses(ior);
  try {
    const CallLimit limit(second_);
    Introduce(ior);
  } catch (const CORBA::Exception& exception) {
    ForgetParent();
    LogCaughtCorbaException("ParentLogon::RegisterParent", exception, "");
  }
}

void ParentLogon::Introduce(const std::string& ior) {
  const CORBA::Object_var object =
      Broker::OutgoingCall([&] { return routing_.Host().StringToObject(ior); });
  const BrelixMessaging::MessageRouter_var root =
      RepeatOnce([&] { return BrelixMessaging::MessageRouter::_narrow(object); });
  if (CORBA::is_nil(root)) return;
  LogInfo("Accessing parent\n");
  const CORBA::String_var name = RepeatOnce([&] { return root->GetName(); });
  if (!LearnName(name.in())) return;

  const BrelixMessaging::Router_var door = RepeatOnce([&] { return root->GetRouter(); });
  if (CORBA::is_nil(door)) return;
  try {
    RepeatOnce([&] { door->Register(); });
    LogInfo("Registered with parent router\n");
  } catch (const BrelixMessaging::AlreadyRegistered&) {
    // A router that restarts is still known.
    LogDebug("Already registered with parent router\n");
  }
  // Together, whatever has failed before.
  parentRouter_ = BrelixMessaging::Router::_duplicate(door);
  SetRegistered(true);
}

bool ParentLogon::LearnName(const std::string& name) {
  LogInfo("Parent is %s\n", Shown(ToDisplayString(name)).c_str());
  RouterTable& table = routing_.Table();
  const bool isNew = table.Find(name) != table.Parent();
  if (!CanBeAName(name) || (isNew && names_ == kMostNames)) {
    LogError("Cannot register with the parent router, because of its name\n");
    return false;
  }
  if (isNew) ++names_;
  table.SetParentName(name);
  return true;
}

void ParentLogon::ForgetParent() {
  parentRouter_ = BrelixMessaging::Router::_nil();
  SetRegistered(false);
}

void ParentLogon::ForgetLink() {
  parentRouter_ = BrelixMessaging::Router::_nil();
  const Guard guard(mutex_);
  if (!guard) return;
  registered_ = false;
  loggedOn_ = false;
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

bool ParentLogon::IsRegistered() {
  const Guard guard(mutex_);
  return guard && registered_;
}

bool ParentLogon::IsLoggedOn() {
  const Guard guard(mutex_);
  return guard && loggedOn_;
}

void ParentLogon::SetRegistered(bool registered) {
  const Guard guard(mutex_);
  if (guard) registered_ = registered;
}

}  // namespace MessageRouter
