#include "ServantWorld.h"

#include <openssl/bio.h>
#include <openssl/pem.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <mutex>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "security/OwnIdentity.h"
#include "servants/ServantHelper.h"
#include "support/TestCertificates.h"

namespace ServantTests {

using MessageRouter::RouterTableEntry;

namespace {

PortableServer::POA_ptr MakeAdapter(PortableServer::POA_ptr parent, const char* name,
                                    PortableServer::POAManager_ptr manager,
                                    PortableServer::IdAssignmentPolicyValue ids,
                                    PortableServer::LifespanPolicyValue lifespan) {
  CORBA::PolicyList policies;
  policies.length(2);
  policies[0] = parent->create_id_assignment_policy(ids);
  policies[1] = parent->create_lifespan_policy(lifespan);
  return parent->create_POA(name, manager, policies);
}

X509* ReadPem(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  if (certificate == nullptr) throw std::runtime_error("test certificate does not read");
  return certificate;
}

Broker::Call TlsCall(X509* certificate) {
  Broker::Call call;
  call.operation = "Test";
  call.tls = true;
  call.certificate = certificate;
  call.peerAddress = "giop:ssl:127.0.0.1:1";
  return call;
}

}  // namespace

CORBA::ORB_ptr TestOrb() {
  static const CORBA::ORB_var orb = [] {
    int argc = 0;
    const char* options[][2] = {
        {"endPoint", "giop:tcp:127.0.0.1:0"}, {"supportPerThreadTimeOut", "1"}, {nullptr, nullptr}};
    return CORBA::ORB_init(argc, nullptr, "omniORB4", options);
  }();
  return orb;
}

Adapters::Adapters() {
  const CORBA::Object_var object = TestOrb()->resolve_initial_references("RootPOA");
  const PortableServer::POA_var root = PortableServer::POA::_narrow(object);
  const PortableServer::POAManager_var none;
  persistent = MakeAdapter(root, "RouterPersistent", none, PortableServer::USER_ID,
                           PortableServer::PERSISTENT);
  const PortableServer::POAManager_var manager = persistent->the_POAManager();
  transient = MakeAdapter(persistent, "RouterTransient", manager, PortableServer::SYSTEM_ID,
                          PortableServer::TRANSIENT);
  certify = MakeAdapter(persistent, "RouterCertify", manager, PortableServer::SYSTEM_ID,
                        PortableServer::TRANSIENT);
  manager->activate();
}

Adapters::~Adapters() {
  persistent->destroy(true, true);
}

std::string CertificateText(const std::string& name, const std::vector<int>& roles,
                            Validity validity) {
  static std::mutex mutex;
  const std::lock_guard guard(mutex);
  static TestSupport::TestCa ca;
  static std::map<std::tuple<std::string, std::vector<int>, Validity>, std::string> kept;
  std::string& text = kept[{name, roles, validity}];
  if (text.empty()) {
    TestSupport::IssueOptions options;
    if (validity == Validity::Expired) options.days = -1;
    text = ca.Issue(name, roles, options).certificatePem;
  }
  return text;
}

CallFrom::CallFrom(const std::string& name, const std::vector<int>& roles, Validity validity)
    : certificate_(ReadPem(CertificateText(name, roles, validity)), &X509_free),
      call_(std::make_unique<Broker::ScopedCall>(TlsCall(certificate_.get()))) {}

CallFrom::~CallFrom() = default;

AnonymousCall::AnonymousCall() : call_(TlsCall(nullptr)) {}

NamelessCall::NamelessCall() : certificate_(X509_new()), call_(TlsCall(certificate_)) {}

NamelessCall::~NamelessCall() {
  X509_free(certificate_);
}

MessageRouter::LocalObjects& Host::Objects() {
  return RouterServants::ServantHelper::instance();
}

void Host::OfferToSenders(RouterTableEntry& entry) {
  const std::lock_guard guard(mutex_);
  sent.push_back(entry.Name());
  if (onOffer) onOffer();
}

void Host::NotifiedPoll(RouterTableEntry& entry) {
  if (!entry.readyForNotifiedPoll()) return;
  const std::lock_guard guard(mutex_);
  polled.push_back(entry.Name());
}

void Host::OfferToThreshold(RouterTableEntry& entry) {
  const std::lock_guard guard(mutex_);
  threshold.push_back(entry.Name());
}

CORBA::Object_ptr Host::StringToObject(const std::string& ior) {
  return TestOrb()->string_to_object(ior.c_str());
}

std::string Host::ObjectToString(CORBA::Object_ptr object) {
  const CORBA::String_var text = TestOrb()->object_to_string(object);
  return text.in();
}

ServantWorld::ServantWorld()
    : store((configuration.Folder() / "Envelopes/").string()),
      table(host, (configuration.Folder() / "table_router.txt").string()),
      routing(host, table) {
  MessageRouter::EnvelopeStore::Replace(&store);
  MessageRouter::OwnIdentity::Set(kRouterName, CertificateText(kRouterName, {kRouterRole}));
  RouterServants::InitializeServantHelper(adapters.transient, adapters.certify);
  table.ReadTable(false);
  MessageRouter::Cycle::Set(&routing);
  log.Clear();
}

ServantWorld::~ServantWorld() {
  MessageRouter::Cycle::Set(nullptr);
  table.Clear();
  table.FreeDetached();
  RouterServants::DestroyServantHelper();
  MessageRouter::OwnIdentity::Set("", "");
  MessageRouter::EnvelopeStore::Replace(nullptr);
}

RouterTableEntry& ServantWorld::Entry(const std::string& name) {
  RouterTableEntry* entry = table.Find(name);
  if (entry == nullptr) throw std::runtime_error("no entry " + name);
  return *entry;
}

void ServantWorld::RegisterClient(const std::string& name) {
  table.Register(name, false);
}

void ServantWorld::RegisterRouter(const std::string& name) {
  table.Register(name, true);
}

void ServantWorld::LogOnClient(const std::string& name,
                               BrelixMessaging::NotifyConsumer_ptr notify) {
  RegisterClient(name);
  Entry(name).LogonClient(name, BrelixMessaging::EnvelopeConsumer::_nil(), notify, 0, true);
}

void ServantWorld::LogOnRouter(const std::string& name,
                               BrelixMessaging::RouterSupplier_ptr supplier) {
  RegisterRouter(name);
  Entry(name).LogonRouter(name, BrelixMessaging::RouterConsumer::_nil(), supplier,
                          BrelixMessaging::NotifyConsumer::_nil(), 0, true);
}

std::uint32_t ServantWorld::QueueFor(const std::string& name, const std::string& originator,
                                     std::uint32_t priority) {
  BrelixMessaging::Message message = AMessage("Text", name);
  message.prio = static_cast<CORBA::Long>(priority);
  MessageRouter::Envelope envelope;
  envelope.CreateFromClient(message, originator, CertificateText(originator));
  const std::uint32_t id = envelope.MessageId();
  if (!Entry(name).Enqueue(envelope, name)) throw std::runtime_error("not enqueued");
  return id;
}

std::size_t ServantWorld::EnvelopeFiles() const {
  const std::filesystem::directory_iterator files(store.Directory());
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

BrelixMessaging::Message AMessage(const std::string& type, const std::string& destination) {
  BrelixMessaging::Message message;
  message.destination = destination.c_str();
  message.prio = 5;
  message.ttl = 0;
  message.type = type.c_str();
  message.delivery_options = "";
  message.custom_data <<= "payload";
  return message;
}

BrelixMessaging::Envelope AWireEnvelope(const std::string& type) {
  BrelixMessaging::Envelope wire;
  wire.originator_certificate = "";
  wire.originator = "agent-9";
  wire.physical_destination.length(2);
  wire.physical_destination[0] = kRouterName;
  wire.physical_destination[1] = "agent-2";
  wire.message_id = 77;
  wire.client_info = AMessage(type, std::string(kRouterName) + ".agent-2");
  return wire;
}

}  // namespace ServantTests
