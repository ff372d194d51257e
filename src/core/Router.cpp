#include "core/Router.h"

#include <ace/INET_Addr.h>

#include <memory>
#include <utility>
#include <vector>

#include "broker/CorbaExceptions.h"
#include "config/Configuration.h"
#include "config/DataLocation.h"
#include "core/HostInformation.h"
#include "core/IPAddressSet.h"
#include "core/RouterCycle.h"
#include "core/SystemCheck.h"
#include "logging/Log.h"
#include "parent/Connector.h"
#include "parent/Ior.h"
#include "platform/Process.h"
#include "security/CertificateContext.h"
#include "servants/NotifyConsumer_i.h"
#include "servants/ServantHelper.h"
#include "threads/ThreadHelper.h"

namespace MessageRouter {
namespace {

std::unique_ptr<Router>& TheRouter() {
  static std::unique_ptr<Router> router;
  return router;
}

// Descriptors that the router counts on beside its cached connections.
constexpr std::uint32_t kOtherDescriptors = 128;
// What a ConnectionCache of 0 stands for.
constexpr unsigned kBuiltInConnections = 512;
constexpr unsigned kHostRetryMilliseconds = 5000;
constexpr unsigned kMaxHostFailures = 10;
constexpr std::int32_t kTolerableInvalidCertificates = 5;

}  // namespace

Router& Router::instance() {
  return *TheRouter();
}

bool Router::Exists() {
  return TheRouter() != nullptr;
}

Router::Router(std::string name, int argc, char** argv)
    : programName_(std::move(name)),
      argc_(argc),
      argv_(argv),
      surroundings_{[this](unsigned milliseconds) { SleepUnlessStopping(milliseconds); }},
      routerTable_(*this, RouterTablePath(programName_)),
      routing_(*this, routerTable_),
      getterThread_(routerTable_),
      timeoutThread_(routerTable_),
      routerThread_(routing_),
      parentLogon_(routing_, *this) {}

// What the start has handed out leads here.
Router::~Router() {
  RouterServants::SetThresholdCallObserver(nullptr);
  CertificateContext::instance().SetCallbacks({});
}

void Router::SetState(State state) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  if (state_.load() != kStopping) state_ = state;
}

void Router::Shutdown() {
  LogTrace("Router::Shutdown() called, stopping ORB...\n");
  SetState(kStopping);
}

void Router::Reinitialize() {
  LogTrace("Router::Reinitialize() called\n");
  SetState(kStarting);
}

void Router::RequestReload() {
  reloadRequested_ = true;
}

void Router::QueueForRouting(Envelope envelope) {
  routing_.QueueForRouting(std::move(envelope));
}

int Router::Start() {
  try {
    try {
      PrepareProcess();
      RunCycles();
    } catch (const CORBA::SystemException& exception) {
      if ((exception.minor() & 0xF80) == 0x680 || Broker::IsEndpointFailure(exception)) {
        LogError(
            "This machine may have more IP addresses than are supported or the port may already be "
            "in use.\n");
      }
      throw;
    }
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException("Router::Start", exception, "");
  } catch (const std::exception& exception) {
    LogCaughtException("Router::Start", exception, "");
  } catch (...) {
    LogError("Router::Start() caught unknown exception\n");
  }
  return IsStopping() ? 0 : 1;
}

void Router::PrepareProcess() {
  SetState(kStarting);
  ThreadHelper::SetUnknownExceptionReporter(&ReportIfCorbaException);
  const bool console = GetConfigBool("LogConsole", true);
  const std::uint32_t maxSize = GetConfigInt("LogFileMaxSize", 0x200000);
  const std::uint32_t fileCount = GetConfigInt("LogFileCount", 8);
  OpenLog(programName_.c_str(), logDirectory_, fileCount, maxSize, console);
  SetLogMask(LogMaskFor(GetConfigInt("LogLevel", 0)));
  LogInfo("Brelix Messaging Router %s starting...\n", BRELIX_VERSION);

  const std::uint32_t cpu = GetConfigInt("ProcessorAffinity", 0xFFFFFFFFu);
  if (cpu != 0xFFFFFFFFu) SetCpuAffinity(static_cast<std::int32_t>(cpu));

  const std::uint32_t fdSetSize = GetConfigInt("ConnectionCache", 10) + kOtherDescriptors;
  LogInfo("Setting ACE_FD_SETSIZE to %d", static_cast<int>(fdSetSize));
  const std::size_t descriptors = Platform::RaiseDescriptorLimit();
  if (descriptors < fdSetSize) {
    LogWarning("Only %zu descriptors may be open, which is not enough for %u connections\n",
               descriptors, fdSetSize - kOtherDescriptors);
  }

  LogInfo("Initializing CORBA...\n");
  resourceFactory_ = std::make_unique<Router_Resource_Factory>(fdSetSize, kBuiltInConnections);
  CertificateContext& certificates = CertificateContext::instance();
  CertificateContext::Callbacks callbacks;
  callbacks.reportInvalidCertificate = [this](std::uint32_t peer) {
    ReportInvalidCertificate(peer);
  };
  callbacks.logoffCaller = [](const std::string& name) {
    if (Routing* routing = Cycle::Current()) routing->LogoffPeer(name);
  };
  certificates.SetCallbacks(std::move(callbacks));
  certificates.Initialise();
  certificates.ConfigureSslContext();
  RouterServants::SetThresholdCallObserver([this] { statusReporter_->Incoming().ThresholdCall(); });
  getterThread_.SetPollObserver(
      [this](bool notified, bool got) { statusReporter_->Incoming().Update(notified, got); });
}

void Router::RunCycles() {
  hostFailures_ = 0;
  while (GetState() == kStarting) RunOneCycle();
}

bool Router::RunOneCycle() {
  const std::uint32_t interval = GetConfigInt("CheckNetworkIfInterval", 5);
  ACEHelpers::IPAddressSet addresses;
  try {
    InitialiseWithHost(addresses);
  } catch (const std::exception& exception) {
    LogWarning("Failed to get initial IP addresses: %s\n", exception.what());
  }
  if (hostFailures_ > kMaxHostFailures) {
    LogError("No valid host configuration could be obtained");
    throw static_cast<const char*>("Unable to obtain valid host configuration");
  }
  if (addresses.IsEmpty()) {
    LogWarning("Failed to obtain valid host configuration, sleeping");
    surroundings_.sleep(kHostRetryMilliseconds);
    ++hostFailures_;
    return false;
  }
  hostFailures_ = 0;
  RouterCycle cycle(*this, addresses, interval);
  cycle.Build();
  return true;
}

void Router::SleepUnlessStopping(unsigned milliseconds) {
  constexpr unsigned kSlice = 250;
  for (unsigned slept = 0; slept < milliseconds && !IsStopping(); slept += kSlice) {
    Platform::SleepMilliseconds(kSlice);
  }
}

void Router::Tick() {
  RunSystemChecks();
  CertificateContext::instance().Tick();
  routerTable_.Tick();
  // The queue that held all envelopes of the last run is large and needed no more.
  if (trimWhenRouted_ && routing_.RouteQueueSize() == 0) {
    trimWhenRouted_ = false;
    Platform::TrimMemory();
  }
  if (reloadRequested_.exchange(false)) Reinitialize();
}

void Router::RunSystemChecks() {
  if (!RouterSystemCheck::CheckNow()) return;
  const std::uint32_t percentage = GetConfigInt("UserPortPercentageThreshold", 85);
  const std::uint32_t minutes = GetConfigInt("UserPortCheckIntervalMins", 60);
  const std::uint32_t hours = GetConfigInt("UserPortEventIntervalHours", 24);
  RouterSystemCheck(percentage, 1024, minutes * 60, hours * 3600).Run();
  auto* checker = CertificateContext::instance().RegenerationChecker();
  if (checker != nullptr && checker->IsItTimeToRefreshCertificate()) GetCertificate();
}

void Router::GetCertificate() {
  hasParent_ = !GetConfigString("ParentAddress", "").empty();
  std::string commonName;
  const bool needed = CertificateContext::instance().NeedsNewCertificate(commonName);
  if (!hasParent_) return;
  if (needed) LogError("Obtaining a certificate is not available in this version\n");
  parentLogon_.Enable();
}

void Router::ReportInvalidCertificate(std::uint32_t peerAddress) {
  if (!hasParent_) return;
  std::vector<ACE_INET_Addr> addresses;
  try {
    iiopAddressesInIOR(ParentAddresses(), addresses);
  } catch (const std::exception& exception) {
    LogCaughtException("Router::ReportInvalidCertificate", exception, "from iiopAddressesInIOR");
    statusReporter_->Certification().ReportPeer(peerAddress);
    return;
  }
  bool isParent = false;
  for (const ACE_INET_Addr& address : addresses) {
    isParent = isParent || address.get_ip_address() == peerAddress;
  }
  if (!isParent || ++invalidCertificateCount_ <= kTolerableInvalidCertificates) return;
  LogError(
      "The certificate of this router is incompatible with the server, please reinstall Orvane\n");
  statusReporter_->Certification().ReportPeer(peerAddress);
  parentLogon_.RequestStopLogon(false);
}

void Router::SetStatusReporter(std::unique_ptr<StatusReporting::StatusReporter> reporter) {
  statusReporter_ = std::move(reporter);
}

std::string Router::ParentAddresses() const {
  ThreadHelper::Guard guard(textMutex_);
  return guard ? parentAddresses_ : std::string();
}

void Router::SetParentAddresses(const std::string& ior) {
  ThreadHelper::Guard guard(textMutex_);
  if (guard) parentAddresses_ = ior;
}

void Router::EndProcess(int status) {
  Platform::ExitProcess(status);
}

void InitializeRouter(ACE_XPlatform_Configuration* configuration, const std::string& sectionPath,
                      const std::string& name, int argc, char** argv) {
  SetConfiguration(configuration, sectionPath);
  const std::string routerName = name.empty() ? "Router" : name;
  SetRouterName(routerName);
  CertificateContext::instance().SetStoreLocation(std::string(kSectionRoot) + "\\" + routerName +
                                                  "\\Private");
  TheRouter() = std::make_unique<Router>(routerName, argc, argv);
}

void DestroyRouter() {
  TheRouter().reset();
}

}  // namespace MessageRouter
