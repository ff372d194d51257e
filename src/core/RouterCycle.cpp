#include "core/RouterCycle.h"

#include <vector>

#include "config/Configuration.h"
#include "core/HostInformation.h"
#include "core/ReadThresholds.h"
#include "core/Router.h"
#include "core/Step.h"
#include "core/TearDownWatchdog.h"
#include "envelope/EnvelopeStore.h"
#include "logging/Log.h"
#include "parent/Ior.h"
#include "platform/Process.h"
#include "security/CertificateContext.h"
#include "servants/ServantHelper.h"

namespace MessageRouter {
namespace {

PortableServer::POA_ptr CreatePOA(PortableServer::POA_ptr parent, const char* name,
                                  bool shareManager, PortableServer::IdAssignmentPolicyValue ids,
                                  PortableServer::LifespanPolicyValue lifespan,
                                  const Broker::Orb& orb) {
  CORBA::PolicyList policies(3);
  policies.length(3);
  policies[0] = parent->create_id_assignment_policy(ids);
  policies[1] = parent->create_lifespan_policy(lifespan);
  policies[2] = orb.PublishPolicy();
  const PortableServer::POAManager_var manager =
      shareManager ? parent->the_POAManager() : PortableServer::POAManager::_nil();
  PortableServer::POA_var adapter = parent->create_POA(name, manager, policies);
  for (CORBA::ULong i = 0; i < policies.length(); ++i) policies[i]->destroy();
  return adapter._retn();
}

constexpr unsigned kConnectionCloseSeconds = 5;
constexpr unsigned kTickMilliseconds = 250;

}  // namespace

RouterCycle::RouterCycle(Router& router, const ACEHelpers::IPAddressSet& hostAddresses,
                         unsigned monitorIntervalSeconds)
    : router_(router),
      monitor_(
          hostAddresses, [&router] { router.Reinitialize(); }, monitorIntervalSeconds) {}

RouterCycle::~RouterCycle() {
  // A peer that hangs in a call would hold a reinitialisation up for ever. A stop has its own
  // limit.
  const auto limit = static_cast<std::int32_t>(GetConfigInt("ResetTimeout", 120));
  TearDownWatchdog watchdog(limit < 1 ? 0 : static_cast<std::uint32_t>(limit));
  if (!router_.IsStopping()) Step("starting the watchdog", [&] { watchdog.Start(); });
  TearDown();
}

void RouterCycle::Build() {
  MakeBroker();
  MakeAdapters();
  MakeRootObject();
  LoadState();
  Run();
}

void RouterCycle::MakeBroker() {
  CertificateContext& certificates = CertificateContext::instance();
  const std::uint32_t configured = GetConfigInt("NumORBThreads", 0);
  const unsigned threads = configured == 0 ? 4 : configured;

  LogDebug("Creating ORB...\n");
  // A copy: the broker takes its own options out, and the next cycle must see them again.
  std::vector<char*> arguments(router_.argv_, router_.argv_ + router_.argc_);
  arguments.push_back(nullptr);
  int count = router_.argc_;
  Broker::OrbSettings settings;
  settings.threads = threads;
  settings.connectionLimit = router_.resourceFactory_->cache_maximum();
  settings.keepAliveSeconds = GetConfigInt("KeepAliveSecs", settings.keepAliveSeconds);
  settings.peerTimeoutSeconds = GetConfigInt("PeerTimeoutSecs", settings.peerTimeoutSeconds);
  settings.configureTls = [&certificates](SSL_CTX* context) {
    certificates.ConfigureCycle(context);
  };
  settings.tlsInfo = &CertificateContext::TlsInfo;
  orb_ = std::make_unique<Broker::Orb>(count, arguments.data(), settings);
  router_.SetOrb(orb_->Get());

  LogInfo("Creating ORB runner with %d threads\n", static_cast<int>(threads));
  runner_ = std::make_unique<OrbRunner>(orb_->Get(), threads);

  router_.GetCertificate();
  // Calls that this made without a certificate must not lend their connections to later ones.
  orb_->CloseOutgoingConnections(kConnectionCloseSeconds);
  certificates.LoadCredentials(orb_->TlsContext());

  LogDebug("Resolving the root object adapter...\n");
  const CORBA::Object_var root = orb_->Get()->resolve_initial_references("RootPOA");
  rootPoa_ = PortableServer::POA::_narrow(root);
  router_.statusReporter_->WriteReport();
}

void RouterCycle::MakeAdapters() {
  LogDebug("Creating object adapters...\n");
  persistentPoa_ = CreatePOA(rootPoa_, "RouterPersistent", false, PortableServer::USER_ID,
                             PortableServer::PERSISTENT, *orb_);
  transientPoa_ = CreatePOA(persistentPoa_, "RouterTransient", true, PortableServer::SYSTEM_ID,
                            PortableServer::TRANSIENT, *orb_);
  certifyPoa_ = CreatePOA(persistentPoa_, "RouterCertify", true, PortableServer::SYSTEM_ID,
                          PortableServer::TRANSIENT, *orb_);
  manager_ = persistentPoa_->the_POAManager();

  const CORBA::OctetSeq_var id = certifyPoa_->id();
  CertificateContext::instance().SetCertifyAdapter(
      std::vector<CORBA::Octet>(id->get_buffer(), id->get_buffer() + id->length()));
  RouterServants::InitializeServantHelper(transientPoa_, certifyPoa_);
}

void RouterCycle::MakeRootObject() {
  LogDebug("Creating MessageRouter CORBA object...\n");
  root_ = new RouterServants::MessageRouter_i(persistentPoa_);
  rootId_ = PortableServer::string_to_ObjectId("MessageRouter");
  persistentPoa_->activate_object_with_id(rootId_, root_.in());
  rootReference_ = persistentPoa_->id_to_reference(rootId_);

  const CORBA::String_var text = orb_->Get()->object_to_string(rootReference_);
  const std::string ior(text.in());
  router_.iorSender_.SetIOR(ior);
  LogInfo("This router's IOR:\n%s\n", ior.c_str());
  router_.iorValid_ = validateIOR(ior);
  // The alert is the outgoing section's: others can't reach us by this reference.
  auto& outgoing = router_.statusReporter_->Outgoing();
  if (router_.iorValid_) {
    LogInfo("Successfully validated this router's IOR\n");
    outgoing.Clear(StatusReporting::OutgoingSection::kOwnIorInvalid);
  } else {
    LogError("This router's IOR is invalid\n");
    outgoing.Raise(StatusReporting::OutgoingSection::kOwnIorInvalid, "");
  }
}

void RouterCycle::LoadState() {
  const Thresholds thresholds = ReadThresholds();
  {
    ThreadHelper::Guard guard(router_.textMutex_);
    if (guard) router_.thresholds_ = thresholds;
  }
  router_.debugBreakpoints_ = GetConfigBool("EnableDebugBreakpoints", false);
  if (router_.debugBreakpoints_) LogDebug("Debug breakpoints enabled.");

  router_.routerTable_.ReadTable(router_.hasParent_, Router::PauseForTable);
  router_.tableRead_ = true;

  LogDebug("Loading envelopes from persistent storage...\n");
  std::vector<Envelope> envelopes;
  LoadPersistentEnvelopes(envelopes);
  for (Envelope& envelope : envelopes) router_.QueueForRouting(std::move(envelope));
  router_.trimWhenRouted_ = true;
}

void RouterCycle::Run() {
  LogDebug("Activating CORBA objects...\n");
  router_.PrepareRouting();
  Cycle::Set(&router_.routing_);
  manager_->activate();

  LogHostInformation();
  router_.doStartRouting();
  LogInfo("Waiting for messages...\n");
  monitor_.Start();
  // A Reinitialize that came while the cycle was being built is overwritten here, and rightly: the
  // certificate that caused it is in use already.
  router_.SetState(Router::kRunning);
  LogDebug("Reducing Size");
  Platform::TrimMemory();

  while (router_.GetState() == Router::kRunning) {
    router_.Tick();
    router_.surroundings_.sleep(kTickMilliseconds);
  }
}

// The order matters: the workers stop before the adapters go, so that nothing calls into a servant
// that is gone; and the broker's threads are joined last, since a running request needs one.
void RouterCycle::TearDown() {
  Step("stopping the host monitor", [this] { monitor_.Stop(); });
  LogInfo("Shutting down...\n");
  Step("stopping routing", [this] { router_.doStopRouting(); });
  Cycle::Set(nullptr);

  LogDebug("Deactivating CORBA objects...\n");
  Step("deactivating the manager", [this] {
    if (!CORBA::is_nil(manager_)) manager_->deactivate(true, true);
  });
  Step("destroying the servant helper", [] { RouterServants::DestroyServantHelper(); });
  // What a request accepted while routing stopped is on disk and comes back with the next cycle;
  // left here it would be routed twice.
  router_.routing_.EmptyRouteQueue();

  LogDebug("Destroying object adapters...\n");
  Step("destroying the adapters", [this] {
    if (!CORBA::is_nil(persistentPoa_)) persistentPoa_->destroy(true, true);
  });
  Step("resetting the parent's address",
       [] { CertificateContext::instance().ResetParentAddress(); });
  CertificateContext::instance().SetCertifyAdapter({});

  rootReference_ = CORBA::Object::_nil();
  rootId_ = nullptr;
  root_ = nullptr;
  manager_ = PortableServer::POAManager::_nil();
  certifyPoa_ = PortableServer::POA::_nil();
  transientPoa_ = PortableServer::POA::_nil();
  persistentPoa_ = PortableServer::POA::_nil();
  rootPoa_ = PortableServer::POA::_nil();
  Step("stopping the broker's threads", [this] { runner_.reset(); });
  Step("freeing the servant helper", [] { RouterServants::FreeServantHelper(); });

  LogDebug("Destroying ORB...\n");
  router_.SetOrb(CORBA::ORB::_nil());
  // No request runs any more: nobody holds a pointer to what routing left behind.
  Step("freeing the detached entries", [this] { router_.FreeCycleLeftovers(); });
  Step("destroying the ORB", [this] {
    if (orb_) orb_->Destroy();
    orb_.reset();
  });
}

}  // namespace MessageRouter
