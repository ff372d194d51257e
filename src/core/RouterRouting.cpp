// Starting and stopping the threads that route, and what routing asks of the router.

#include <chrono>
#include <memory>
#include <utility>

#include "config/Configuration.h"
#include "config/DataLocation.h"
#include "core/ReadThresholds.h"
#include "core/Router.h"
#include "core/Step.h"
#include "logging/Log.h"
#include "parent/Connector.h"
#include "platform/Process.h"
#include "servants/ServantHelper.h"

namespace MessageRouter {
namespace {

constexpr std::chrono::seconds kIorPortTime{5};
constexpr std::chrono::seconds kTellingTime{2};

}  // namespace

// What is short for a moment may be there after it; a stop has ten seconds for all.
void Router::PauseForTable() {
  constexpr unsigned kMilliseconds = 200;
  Platform::SleepMilliseconds(kMilliseconds);
}

void Router::ReadConnectRetry() {
  const auto apply = [](const char* key, std::uint32_t defaultValue,
                        std::atomic<std::uint32_t>& setting) {
    const std::uint32_t value = GetConfigInt(key, defaultValue);
    if (value != 0) setting = value;
    return static_cast<int>(setting.load());
  };
  ConnectRetrySettings& settings = ConnectRetry();
  int value = apply("TotalConnectRetryTimeSecs", 0, settings.totalSeconds);
  LogTrace("Total time for retrying ACE socket connection %d\n", value);
  value = apply("ConnectRetries", 100, settings.retries);
  LogTrace("Number of retries when retrying ACE socket connection %d\n", value);
  value = apply("ConnectRetriesPause", 0, settings.pauseMilliseconds);
  LogTrace("Pause between retries when retrying ACE socket connection %d\n", value);
  value = apply("ConnectRetriesPauseRange", 0, settings.pauseRangePercent);
  LogTrace("Pause variation percentage range %d\n", value);
}

void Router::PrepareRouting() {
  // Requests change the map, too.
  if (GetConfigBool("LogicalRouting", false)) {
    routing_.SetLogical(std::make_unique<Logical>(LogicalTablePath(programName_)));
  }
  senderPool_.Open();
  getterThread_.Open();
  const Scan scan = ReadThresholdScan();
  if (scan.workers == 0) return;
  notificationThresholdOwner_ = std::make_unique<NotificationThresholdThread>(routerTable_);
  notificationThresholdOwner_->Configure(scan.seconds, scan.workers);
  notificationThresholdThread_ = notificationThresholdOwner_.get();
}

void Router::doStartRouting() {
  LogTrace("Router::doStartRouting() called\n");
  ReadConnectRetry();
  const Logical* const map = routing_.Map();
  if (map != nullptr && map->IsClosed()) LogError("Failed to open logical routing table\n");

  monitorEmSender_ = GetConfigBool("MonitorEmSender", false);
  SenderWorkerFactory senders;
  senderPool_.Start(senders, GetConfigInt("NumSenderThreads", 3));
  NotificationThresholdThread* const thresholds = notificationThresholdThread_;
  LogDebug("Initialising router with %d notification threshold worker threads\n",
           thresholds == nullptr ? 0 : static_cast<int>(thresholds->Workers()));
  if (thresholds != nullptr) thresholds->Start();
  routerThread_.Start();

  const Scan getters = ReadGetterScan();
  getterThread_.Configure(getters.seconds, getters.workers);
  getterThread_.Start();
  const Scan timeouts = ReadTimeoutScan();
  timeoutThread_.Configure(timeouts.seconds, timeouts.workers);
  timeoutThread_.Start();

  iorSender_.SetPort(static_cast<std::uint16_t>(GetConfigInt("IORSenderPort", 8192)));
  iorSender_.Start();
  // Whoever reads that the router waits for messages may come at once.
  iorSender_.WaitUntilOpen(kIorPortTime);
  if (hasParent_ && iorValid_) parentLogon_.Start();
}

void Router::doStopRouting() {
  LogTrace("Router::doStopRouting() called\n");
  // A worker that hangs in a call holds up what follows, and a stop that takes too long is forced:
  // the registrations of the last minute are safe from here on.
  Step("writing what the router table owes", [this] {
    if (tableRead_) routerTable_.WriteOwed();
  });
  Step("stopping the getter thread", [this] { getterThread_.Stop(); });
  Step("stopping the timeout thread", [this] { timeoutThread_.Stop(); });
  Step("stopping the route thread", [this] { routerThread_.Stop(); });
  Step("stopping the threshold thread", [this] {
    if (notificationThresholdOwner_) notificationThresholdOwner_->Stop();
  });
  Step("stopping the sender pool", [this] { senderPool_.Stop(); });
  Step("stopping the IOR port", [this] { iorSender_.Stop(); });
  // Whenever its thread may run, whatever the configuration says by now.
  Step("stopping the parent logon", [this] { parentLogon_.StopLogon(GetState() != kStarting); });
  Step("telling what is owed", [this] { routing_.News().TellWhatIsOwed(kTellingTime); });
  Step("emptying the route queue", [this] { routing_.EmptyRouteQueue(); });
  // A start that failed before it had read the table must not replace the file by an empty one.
  Step("writing the router table", [this] {
    if (!tableRead_) return;
    routerTable_.WriteLast(PauseForTable);
  });
  tableRead_ = false;
  Step("clearing the router table", [this] { routerTable_.Clear(); });
}

// Requests may have held pointers to these until the broker's threads were gone.
void Router::FreeCycleLeftovers() {
  routing_.EmptyRouteQueue();
  // Its queue may still name entries.
  notificationThresholdThread_ = nullptr;
  notificationThresholdOwner_.reset();
  routerTable_.FreeDetached();
  routing_.SetLogical(nullptr);
}

void Router::SetOrb(CORBA::ORB_ptr orb) {
  CORBA::ORB_var duplicate = CORBA::ORB::_duplicate(orb);
  ThreadHelper::Guard guard(textMutex_);
  if (guard) orb_ = duplicate;
}

CORBA::ORB_var Router::GetOrb() const {
  ThreadHelper::Guard guard(textMutex_);
  return guard ? orb_ : CORBA::ORB_var();
}

LocalObjects& Router::Objects() {
  return RouterServants::ServantHelper::instance();
}

Thresholds Router::GetThresholds() const {
  ThreadHelper::Guard guard(textMutex_);
  return guard ? thresholds_ : Thresholds();
}

void Router::OfferToSenders(RouterTableEntry& entry) {
  senderPool_.Add(entry);
}

void Router::NotifiedPoll(RouterTableEntry& entry) {
  getterThread_.NotifiedPoll(entry);
}

void Router::OfferToGetters(RouterTableEntry& entry) {
  getterThread_.Offer(entry);
}

void Router::OfferToThreshold(RouterTableEntry& entry) {
  if (NotificationThresholdThread* thread = notificationThresholdThread_) {
    thread->Offer(entry);
    return;
  }
  LogWarning(
      "Notification threshold calls will not be attempted, because the number of notification "
      "threshold threads is 0\n");
}

void Router::ParentLinkLost() {
  parentLogon_.LinkLost();
}

CORBA::Object_ptr Router::StringToObject(const std::string& ior) {
  const CORBA::ORB_var orb = GetOrb();
  return CORBA::is_nil(orb) ? CORBA::Object::_nil() : orb->string_to_object(ior.c_str());
}

std::string Router::ObjectToString(CORBA::Object_ptr object) {
  const CORBA::ORB_var orb = GetOrb();
  if (CORBA::is_nil(orb)) return {};
  const CORBA::String_var text = orb->object_to_string(object);
  return text.in();
}

}  // namespace MessageRouter
