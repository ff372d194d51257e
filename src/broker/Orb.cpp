#include "broker/Orb.h"

#include <omniORB4/minorCode.h>
#include <omniORB4/omniORB.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "broker/CodecOrb.h"
#include "broker/ConnectionPurger.h"
#include "broker/ConnectionTable.h"
#include "broker/CorbaExceptions.h"
#include "broker/Gate.h"
#include "broker/Interceptors.h"
#include "broker/Limits.h"
#include "broker/OrbFixes.h"
#include "broker/OrbInternals.h"
#include "broker/TlsContext.h"
#include "broker/TypeCodeGuard.h"
#include "logging/Log.h"
#include "platform/Clock.h"
#include "platform/Process.h"

namespace Broker {
namespace {

constexpr char kOrbId[] = "omniORB4";
constexpr char kEndpointArgument[] = "-ORBendPoint";
constexpr char kPublishArgument[] = "-ORBendPointPublish";  // names no endpoint
// Without an endpoint of our own the ORB would open one without TLS.
constexpr char kAnyPort[] = "giop:ssl::";
constexpr char kLocalOnly[] = "giop:ssl:127.0.0.1:";
constexpr char kIpv6[] = "giop:ssl:[";
constexpr unsigned kMillisecondsPerSecond = 1000;
constexpr unsigned kPollMilliseconds = 50;

bool StartsWith(const char* text, const char* prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// Endpoints of the command line and of the options add up, and two of different kinds in one
// process give references that lead nowhere.
bool NamesEndpoint(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (StartsWith(argv[i], kEndpointArgument) && !StartsWith(argv[i], kPublishArgument)) {
      return true;
    }
  }
  return false;
}

// Names and values for the making of an ORB.
class Options {
 public:
  void Add(const char* name, const std::string& value) { options_.emplace_back(name, value); }
  void Add(const char* name, unsigned value) { Add(name, std::to_string(value)); }

  // Closed by two nulls, as the ORB wants it. Valid as long as this object.
  const char* (*Table())[2] {
    table_.resize(options_.size() + 1);
    for (std::size_t i = 0; i < options_.size(); ++i) {
      table_[i] = {options_[i].first.c_str(), options_[i].second.c_str()};
    }
    table_.back() = {nullptr, nullptr};
    return reinterpret_cast<const char*(*)[2]>(table_.data());
  }

 private:
  std::vector<std::pair<std::string, std::string>> options_;
  std::vector<std::array<const char*, 2>> table_;
};

Options MakeOptions(const OrbSettings& settings, bool endpointIsNamed) {
  Options options;
  if (!endpointIsNamed) options.Add("endPoint", settings.server ? kAnyPort : kLocalOnly);
  options.Add("clientTransportRule", "* ssl");
  options.Add("nativeCharCodeSet", "ISO-8859-1");
  options.Add("giopMaxMsgSize", Limits::kMaxMessageBytes);
  options.Add("threadPerConnectionPolicy", 1);
  options.Add("threadPerConnectionUpperLimit", Limits::kThreadPerConnectionUpper);
  options.Add("threadPerConnectionLowerLimit", Limits::kThreadPerConnectionLower);
  options.Add("maxServerThreadPoolSize", Limits::kPoolThreads);
  options.Add("maxServerThreadPerConnection", Limits::kThreadsPerConnection);
  options.Add("scanGranularity", Limits::kOrbScanSeconds);
  options.Add("inConScanPeriod", Limits::kOrbIdleSeconds);
  options.Add("outConScanPeriod", Limits::kOrbIdleSeconds);
  // Without it the time limit of a single thread's calls has no effect.
  options.Add("supportPerThreadTimeOut", 1);
  options.Add("clientConnectTimeOutPeriod", Limits::kConnectSeconds * kMillisecondsPerSecond);
  options.Add("sslAcceptTimeOut", Limits::kHandshakeSeconds * kMillisecondsPerSecond);
  return options;
}

// The ORB's own remarks, most of them about what peers do wrong.
void LogRemark(const char* text) {
  MessageRouter::LogDebug("%s", text);
}

CORBA::ORB_ptr MakeOrb(int& argc, char** argv, const OrbSettings& settings) {
  DestroyCodecOrb();
  ForgetHostAddresses();
  omniORB::setLogFunction(&LogRemark);
  const TlsContext* const tls = TlsContext::Register(settings.configureTls, settings.tlsInfo);
  CORBA::ORB_var orb;
  try {
    orb = CORBA::ORB_init(argc, argv, kOrbId,
                          MakeOptions(settings, NamesEndpoint(argc, argv)).Table());
  } catch (const CORBA::SystemException&) {
    TlsContext::Discard();
    throw;
  }
  try {
    tls->RethrowFailure();
    TypeCodeGuard::RequireInForce();
    RequireOrbFixes();
  } catch (...) {
    orb->destroy();
    throw;
  }
  return orb._retn();
}

}  // namespace

struct Orb::State {
  CORBA::ORB_var orb;
  SSL_CTX* tls = nullptr;
  std::unique_ptr<ConnectionPurger> purger;
};

Orb::Orb(int& argc, char** argv, const OrbSettings& settings) : state_(std::make_unique<State>()) {
  Gate::SetWidth(settings.threads);
  ConnectionTable::Instance().SetPeerLimits(settings.keepAliveSeconds, settings.peerTimeoutSeconds);
  state_->orb = MakeOrb(argc, argv, settings);
  try {
    state_->tls = sslContext::singleton->get_SSL_CTX();
    InstallInterceptors();
    state_->purger = std::make_unique<ConnectionPurger>(settings.connectionLimit);
    state_->purger->Start();
  } catch (...) {
    state_->orb->destroy();
    throw;
  }
}

Orb::~Orb() {
  try {
    Destroy();
  } catch (const CORBA::Exception& exception) {
    // The object goes in any case, and there is nobody left to tell.
    MessageRouter::LogDebug("Destroying the ORB: %s\n", Describe(exception).c_str());
  }
}

CORBA::ORB_ptr Orb::Get() const {
  return state_->orb;
}

SSL_CTX* Orb::TlsContext() const {
  return state_->tls;
}

// Endpoints read "giop:ssl:192.0.2.1:8193".
unsigned short Orb::ListeningPort() const {
  if (CORBA::is_nil(state_->orb)) return 0;
  const auto& endpoints = omni::omniObjAdapter::listMyEndpoints();
  if (endpoints.length() == 0) return 0;
  const char* const port = std::strrchr(endpoints[0], ':');
  return port == nullptr ? 0 : static_cast<unsigned short>(std::strtoul(port + 1, nullptr, 10));
}

std::vector<std::string> PublishedEndpoints(const std::vector<std::string>& listening) {
  std::vector<std::string> published;
  std::remove_copy_if(listening.begin(), listening.end(), std::back_inserter(published),
                      [](const std::string& name) { return StartsWith(name.c_str(), kIpv6); });
  return published.empty() ? listening : published;
}

CORBA::Policy_ptr Orb::PublishPolicy() const {
  const auto& endpoints = omni::omniObjAdapter::listMyEndpoints();
  std::vector<std::string> listening;
  for (CORBA::ULong i = 0; i < endpoints.length(); ++i) listening.emplace_back(endpoints[i]);
  const std::vector<std::string> published = PublishedEndpoints(listening);
  omniPolicy::EndPointPublishPolicyValue value;
  value.length(static_cast<CORBA::ULong>(published.size()));
  for (CORBA::ULong i = 0; i < value.length(); ++i) value[i] = published[i].c_str();
  return omniPolicy::create_endpoint_publish_policy(value);
}

void Orb::CloseOutgoingConnections(unsigned seconds) {
  if (CORBA::is_nil(state_->orb)) return;
  Platform::Clock& clock = Platform::Clock::Instance();
  const auto deadline = clock.SteadyNow() + std::chrono::seconds(seconds);
  while (ConnectionPurger::ExpireOutgoing() > 0 && clock.SteadyNow() < deadline) {
    Platform::SleepMilliseconds(kPollMilliseconds);
  }
}

void Orb::Destroy() {
  if (CORBA::is_nil(state_->orb)) return;
  state_->purger.reset();
  // The ORB says goodbye to each connection, and would wait for those that don't listen.
  ConnectionTable::Instance().ShutUnknown();
  const CORBA::ORB_var orb = state_->orb._retn();
  state_->tls = nullptr;
  ConnectionTable::Instance().Watch(nullptr, nullptr);
  // The ORB takes this for the time to wait for its threads, too.
  omni::orbParameters::scanGranularity = Limits::kDestroySeconds;
  orb->destroy();
  AwaitEndOfThreads(std::chrono::seconds(Limits::kDestroySeconds));
}

bool IsEndpointFailure(const CORBA::SystemException& exception) {
  return CORBA::INITIALIZE::_downcast(&exception) != nullptr &&
         exception.minor() == omni::INITIALIZE_TransportError;
}

}  // namespace Broker
