#include <BrelixMessaging.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "broker/CodecOrb.h"
#include "support/RawPeer.h"

// The interfaces as a peer sees them over a connection: which operations there are, what they may
// raise, and what references narrow to.
namespace {

using TestSupport::CdrWriter;
using TestSupport::GiopReplyMessage;
using TestSupport::RawPeer;

// What every operation of every servant throws at the moment.
class Thrower {
 public:
  static void Set(std::function<void()> thrower) { thrower_ = std::move(thrower); }
  static void Throw() { thrower_(); }

 private:
  static inline std::function<void()> thrower_;
};

namespace M = BrelixMessaging;

template <class T>
T Raise() {
  Thrower::Throw();
  std::abort();  // it throws
}

struct MessageConsumer : POA_BrelixMessaging::MessageConsumer {
  M::MessageId SendMessage(const M::Message&) override { return Raise<M::MessageId>(); }
  void Heartbeat() override { Thrower::Throw(); }
  CORBA::Boolean Cancel(const char*, M::MessageId) override { return Raise<CORBA::Boolean>(); }
};
struct NotifyConsumer : POA_BrelixMessaging::NotifyConsumer {
  void Notify() override { Thrower::Throw(); }
  CORBA::Long NotificationThreshold() override { return Raise<CORBA::Long>(); }
};
struct EnvelopeConsumer : POA_BrelixMessaging::EnvelopeConsumer {
  void SendEnvelope(const M::Envelope&) override { Thrower::Throw(); }
  void Heartbeat() override { Thrower::Throw(); }
};
struct RouterConsumer : POA_BrelixMessaging::RouterConsumer {
  void SendEnvelope(const M::Envelope&) override { Thrower::Throw(); }
  void Heartbeat() override { Thrower::Throw(); }
};
struct EnvelopeSupplier : POA_BrelixMessaging::EnvelopeSupplier {
  M::Envelope* GetEnvelope() override { return Raise<M::Envelope*>(); }
  void AcknowledgeEnvelope(const char*, M::MessageId) override { Thrower::Throw(); }
};
struct RouterSupplier : POA_BrelixMessaging::RouterSupplier {
  M::Envelope* GetEnvelope() override { return Raise<M::Envelope*>(); }
  void AcknowledgeEnvelope(const char*, M::MessageId) override { Thrower::Throw(); }
  void Heartbeat() override { Thrower::Throw(); }
};
struct Router : POA_BrelixMessaging::Router {
  void Register() override { Thrower::Throw(); }
  void Unregister() override { Thrower::Throw(); }
  void Logon(M::RouterConsumer_ptr, M::RouterSupplier_ptr, M::NotifyConsumer_ptr,
             M::RouterSupplier_out, M::RouterConsumer_out, M::NotifyConsumer_out) override {
    Thrower::Throw();
  }
  void Logoff() override { Thrower::Throw(); }
};
struct Client : POA_BrelixMessaging::Client {
  void Register() override { Thrower::Throw(); }
  void Unregister() override { Thrower::Throw(); }
  void Logon(M::EnvelopeConsumer_ptr, M::NotifyConsumer_ptr, M::MessageConsumer_out,
             M::EnvelopeSupplier_out) override {
    Thrower::Throw();
  }
  void LogonPushPush(M::EnvelopeConsumer_ptr, M::MessageConsumer_out) override { Thrower::Throw(); }
  void LogonPushPull(M::NotifyConsumer_ptr, M::MessageConsumer_out,
                     M::EnvelopeSupplier_out) override {
    Thrower::Throw();
  }
  void Logoff() override { Thrower::Throw(); }
};
struct Certification : POA_BrelixMessaging::Certification {
  void CertLogon(const char*, M::MessageConsumer_out, M::EnvelopeSupplier_out) override {
    Thrower::Throw();
  }
  void CertLogoff(const char*) override { Thrower::Throw(); }
};
struct MessageRouter : POA_BrelixMessaging::MessageRouter {
  char* GetName() override { return Raise<char*>(); }
  M::Client_ptr GetClient() override { return Raise<M::Client_ptr>(); }
  M::Router_ptr GetRouter() override { return Raise<M::Router_ptr>(); }
  M::Certification_ptr GetCertification() override { return Raise<M::Certification_ptr>(); }
  char* GetCACertificate() override { return Raise<char*>(); }
  char* GetCRL() override { return Raise<char*>(); }
};

// An ORB without TLS on a port of this machine, with one object of each interface, whose object key
// is the interface's name.
class Interfaces : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    Broker::DestroyCodecOrb();
    int argc = 0;
    const char* options[][2] = {
        {"endPoint", "giop:tcp:127.0.0.1:"}, {"traceLevel", "0"}, {nullptr, nullptr}};
    orb_ = CORBA::ORB_init(argc, nullptr, "omniORB4", options);
    const CORBA::Object_var root = orb_->resolve_initial_references("omniINSPOA");
    const PortableServer::POA_var adapter = PortableServer::POA::_narrow(root);
    Activate(adapter, "MessageConsumer", new MessageConsumer);
    Activate(adapter, "NotifyConsumer", new NotifyConsumer);
    Activate(adapter, "EnvelopeConsumer", new EnvelopeConsumer);
    Activate(adapter, "RouterConsumer", new RouterConsumer);
    Activate(adapter, "EnvelopeSupplier", new EnvelopeSupplier);
    Activate(adapter, "RouterSupplier", new RouterSupplier);
    Activate(adapter, "Router", new Router);
    Activate(adapter, "Client", new Client);
    Activate(adapter, "Certification", new Certification);
    Activate(adapter, "MessageRouter", new MessageRouter);
    const PortableServer::POAManager_var manager = adapter->the_POAManager();
    manager->activate();
  }

  static void TearDownTestSuite() {
    references_.clear();
    orb_->destroy();
    orb_ = CORBA::ORB::_nil();
  }

  static void Activate(PortableServer::POA_ptr adapter, const char* name,
                       PortableServer::Servant servant) {
    const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(name);
    adapter->activate_object_with_id(id, servant);
    servant->_remove_ref();
    references_[name] = adapter->id_to_reference(id);
  }

  static unsigned short Port() {
    const CORBA::String_var ior = orb_->object_to_string(references_["MessageRouter"]);
    return TestSupport::PortOf(ior.in());
  }

  static CORBA::Object_ptr Reference(const char* name) { return references_[name]; }

  static inline CORBA::ORB_var orb_;
  static inline std::map<std::string, CORBA::Object_var> references_;
};

struct Operation {
  const char* interface;
  const char* name;
  std::string arguments;
  std::vector<std::string> raises;
};

std::string TextAndNumber() {
  return CdrWriter().Text("agent").ULong(7).Bytes();
}

std::string NilReferences(unsigned count) {
  CdrWriter writer;
  for (unsigned i = 0; i < count; ++i) writer.Text("").ULong(0);
  return writer.Bytes();
}

std::string EmptyMessage() {
  return CdrWriter().Text("").ULong(0).ULong(0).Text("").Text("").ULong(CORBA::tk_null).Bytes();
}

std::string EmptyEnvelope() {
  CdrWriter writer;
  writer.Text("").Text("").ULong(0).ULong(0).ULong(0);
  return writer.Text("").ULong(0).ULong(0).Text("").Text("").ULong(CORBA::tk_null).Bytes();
}

std::vector<Operation> Operations() {
  const std::vector<std::string> none;
  const std::vector<std::string> session = {"CertificateExpired", "Rejected", "NotLoggedOn"};
  const std::vector<std::string> supply = {"CertificateExpired", "Rejected", "NotLoggedOn",
                                           "NoEnvelope"};
  const std::vector<std::string> joining = {"Rejected", "AlreadyRegistered", "CertificateExpired"};
  const std::vector<std::string> known = {"Rejected", "NotRegistered", "CertificateExpired"};
  const std::vector<std::string> leaving = {"NotRegistered", "CertificateExpired", "Rejected",
                                            "NotLoggedOn"};
  const std::vector<std::string> doors = {"Rejected", "CertificateExpired"};
  return {
      {"MessageConsumer",
       "SendMessage",
       EmptyMessage(),
       {"IllegalMessageType", "CertificateExpired", "Rejected", "NotLoggedOn"}},
      {"MessageConsumer", "Heartbeat", "", session},
      {"MessageConsumer", "Cancel", TextAndNumber(), session},
      {"NotifyConsumer", "Notify", "", none},
      {"NotifyConsumer", "NotificationThreshold", "", none},
      {"EnvelopeConsumer", "SendEnvelope", EmptyEnvelope(), none},
      {"EnvelopeConsumer", "Heartbeat", "", none},
      {"RouterConsumer", "SendEnvelope", EmptyEnvelope(), session},
      {"RouterConsumer", "Heartbeat", "", session},
      {"EnvelopeSupplier", "GetEnvelope", "", supply},
      {"EnvelopeSupplier", "AcknowledgeEnvelope", TextAndNumber(), supply},
      {"RouterSupplier", "GetEnvelope", "", supply},
      {"RouterSupplier", "AcknowledgeEnvelope", TextAndNumber(), supply},
      {"RouterSupplier", "Heartbeat", "", none},
      {"Router", "Register", "", joining},
      {"Router", "Unregister", "", known},
      {"Router", "Logon", NilReferences(3), known},
      {"Router", "Logoff", "", leaving},
      {"Client", "Register", "", joining},
      {"Client", "Unregister", "", known},
      {"Client", "Logon", NilReferences(2), known},
      {"Client",
       "LogonPushPush",
       NilReferences(1),
       {"Rejected", "NotRegistered", "CertificateExpired", "UnreachableConsumer"}},
      {"Client", "LogonPushPull", NilReferences(1), known},
      {"Client", "Logoff", "", leaving},
      {"Certification",
       "CertLogon",
       CdrWriter().Text("agent").Bytes(),
       {"Rejected", "AlreadyLoggedOn"}},
      {"Certification",
       "CertLogoff",
       CdrWriter().Text("agent").Bytes(),
       {"Rejected", "NotLoggedOn"}},
      {"MessageRouter", "GetName", "", none},
      {"MessageRouter", "GetClient", "", doors},
      {"MessageRouter", "GetRouter", "", doors},
      {"MessageRouter", "GetCertification", "", none},
      {"MessageRouter", "GetCACertificate", "", none},
      {"MessageRouter", "GetCRL", "", none},
  };
}

const std::map<std::string, std::function<void()>>& AllExceptions() {
  static const std::map<std::string, std::function<void()>> exceptions = {
      {"Rejected", [] { throw M::Rejected(); }},
      {"AlreadyRegistered", [] { throw M::AlreadyRegistered(); }},
      {"NotRegistered", [] { throw M::NotRegistered(); }},
      {"IllegalMessageType", [] { throw M::IllegalMessageType(); }},
      {"CertificateExpired", [] { throw M::CertificateExpired(); }},
      {"NotLoggedOn", [] { throw M::NotLoggedOn(); }},
      {"UnreachableConsumer", [] { throw M::UnreachableConsumer(); }},
      {"NoEnvelope", [] { throw M::NoEnvelope(); }},
      {"StoreFailed", [] { throw M::StoreFailed(); }},
      {"AlreadyLoggedOn", [] { throw M::AlreadyLoggedOn(); }},
  };
  return exceptions;
}

// Two of the 32 rows are RouterSupplier's inherited ones.
TEST_F(Interfaces, ThereAreThirtyOperations) {
  EXPECT_EQ(Operations().size(), 30u + 2);
}

TEST_F(Interfaces, EveryOperationRaisesWhatItDeclaresAndNothingElse) {
  RawPeer peer(Port());
  for (const Operation& operation : Operations()) {
    std::set<std::string> raised;
    for (const auto& [name, thrower] : AllExceptions()) {
      Thrower::Set(thrower);
      const GiopReplyMessage reply =
          peer.Call(operation.interface, operation.name, operation.arguments);
      if (reply.status == GiopReplyMessage::kUserException) {
        EXPECT_EQ(reply.exceptionId, "IDL:BrelixMessaging/" + name + ":1.0");
        raised.insert(name);
      } else {
        EXPECT_EQ(reply.exceptionId, "IDL:omg.org/CORBA/UNKNOWN:1.0")
            << operation.interface << "::" << operation.name;
      }
    }
    EXPECT_EQ(raised, std::set<std::string>(operation.raises.begin(), operation.raises.end()))
        << operation.interface << "::" << operation.name;
  }
}

TEST_F(Interfaces, HeartbeatIsOnFourInterfacesAndNotOnTheEnvelopeSupplier) {
  RawPeer peer(Port());
  Thrower::Set([] { throw M::Rejected(); });
  const auto raises = [&peer](const char* interface) {
    return peer.Call(interface, "Heartbeat").exceptionId;
  };
  EXPECT_EQ(raises("MessageConsumer"), "IDL:BrelixMessaging/Rejected:1.0");
  EXPECT_EQ(raises("RouterConsumer"), "IDL:BrelixMessaging/Rejected:1.0");
  EXPECT_EQ(raises("EnvelopeConsumer"), "IDL:omg.org/CORBA/UNKNOWN:1.0");
  EXPECT_EQ(raises("RouterSupplier"), "IDL:omg.org/CORBA/UNKNOWN:1.0");
  EXPECT_EQ(raises("EnvelopeSupplier"), "IDL:omg.org/CORBA/BAD_OPERATION:1.0");
}

TEST_F(Interfaces, RouterSupplierNarrowsToEnvelopeSupplier) {
  const M::EnvelopeSupplier_var supplier =
      M::EnvelopeSupplier::_narrow(Reference("RouterSupplier"));
  EXPECT_FALSE(CORBA::is_nil(supplier));
}

TEST_F(Interfaces, EnvelopeSupplierDoesNotNarrowToRouterSupplier) {
  const M::RouterSupplier_var supplier = M::RouterSupplier::_narrow(Reference("EnvelopeSupplier"));
  EXPECT_TRUE(CORBA::is_nil(supplier));
}

TEST_F(Interfaces, EachIsItselfAndAnObjectAndOnlyRouterSupplierIsMore) {
  RawPeer peer(Port());
  const auto isA = [&peer](const std::string& object, const std::string& id) {
    const GiopReplyMessage reply = peer.Call(object, "_is_a", CdrWriter().Text(id).Bytes());
    return !reply.body.empty() && reply.body[0] != 0;
  };
  for (const auto& [name, reference] : references_) {
    EXPECT_TRUE(isA(name, "IDL:omg.org/CORBA/Object:1.0")) << name;
    for (const auto& [other, otherReference] : references_) {
      const bool inherits = name == "RouterSupplier" && other == "EnvelopeSupplier";
      EXPECT_EQ(isA(name, "IDL:BrelixMessaging/" + other + ":1.0"), name == other || inherits)
          << name << " " << other;
    }
  }
}

}  // namespace
