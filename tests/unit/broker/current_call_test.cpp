#include "broker/CurrentCall.h"

#include <BrelixMessaging.h>
#include <gmock/gmock.h>
#include <openssl/x509.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestServer.h"

namespace {

using namespace BrokerTest;  // the server
using Broker::Call;
using Broker::CurrentCall;
using TestSupport::GiopReplyMessage;
using TestSupport::RawPeer;

std::string CommonName(X509* certificate) {
  char name[128] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name, sizeof name);
  return name;
}

// Shows every call to a function.
class Hook : public Broker::RequestHook {
 public:
  explicit Hook(std::function<void(const Call&)> look) : look_(std::move(look)) {
    Broker::SetRequestHook(this);
  }
  ~Hook() override { Broker::SetRequestHook(nullptr); }
  void OnRequest(const Call& call) override { look_(call); }

 private:
  const std::function<void(const Call&)> look_;
};

TEST(CurrentCall, IsNullOutsideOfACall) {
  EXPECT_EQ(CurrentCall(), nullptr);
}

TEST(CurrentCall, ScopedCallStandsForOneWhileItLives) {
  Call call;
  call.operation = "Register";
  {
    const Broker::ScopedCall scoped(call);
    ASSERT_NE(CurrentCall(), nullptr);
    EXPECT_STREQ(CurrentCall()->operation, "Register");
  }
  EXPECT_EQ(CurrentCall(), nullptr);
}

TEST(CurrentCall, TellsOperationPeerAndKey) {
  std::string operation;
  std::string name;
  std::string key;
  std::string address;
  bool tls = false;
  bool hasSocket = false;
  const Hook hook([&](const Call& call) {
    operation = call.operation;
    name = call.certificate == nullptr ? "" : CommonName(call.certificate);
    key.assign(reinterpret_cast<const char*>(call.objectKey), call.objectKeySize);
    address = call.peerAddress;
    tls = call.tls;
    hasSocket = call.socket >= 0 && call.socket == SSL_get_fd(call.ssl);
  });
  TestServer server;
  server.Peer().Call(kRouterKey, "GetName");
  EXPECT_EQ(operation, "GetName");
  EXPECT_EQ(name, "agent-1");
  EXPECT_EQ(key, kRouterKey);
  EXPECT_THAT(address, testing::StartsWith("giop:ssl:127.0.0.1:"));
  EXPECT_TRUE(tls);
  EXPECT_TRUE(hasSocket);
}

TEST(CurrentCall, StrangerHasTlsAndNoCertificate) {
  bool tls = false;
  bool certificate = true;
  int socket = -1;
  const Hook hook([&](const Call& call) {
    tls = call.tls;
    certificate = call.certificate != nullptr || call.ssl != nullptr;
    socket = call.socket;
  });
  TestServer server;
  server.Stranger().Call(kRouterKey, "GetName");
  EXPECT_TRUE(tls);
  EXPECT_FALSE(certificate);
  EXPECT_GE(socket, 0);
}

TEST(CurrentCall, CallWithoutTlsIsTold) {
  std::atomic<bool> tls{true};
  const Hook hook([&](const Call& call) {
    tls = call.tls;
    throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
  });
  TestServer::Options options;
  options.arguments = {"-ORBendPoint", "giop:tcp:127.0.0.1:"};
  TestServer server(options);
  RawPeer plain(server.Port());
  EXPECT_EQ(plain.Call(kRouterKey, "GetName").exceptionId, "IDL:omg.org/CORBA/NO_PERMISSION:1.0");
  EXPECT_FALSE(tls);
}

TEST(CurrentCall, ServantSeesTheCallAndNothingIsLeftOfItLater) {
  std::string seen;
  TestServer::Options options;
  options.name = [] {
    return CurrentCall() == nullptr ? "none" : std::string(CurrentCall()->operation);
  };
  TestServer server(options);
  RawPeer peer = server.Peer();
  EXPECT_EQ(NameIn(peer.Call(kRouterKey, "GetName")), "GetName");
  EXPECT_EQ(CurrentCall(), nullptr);
}

TEST(CurrentCall, ManyPeersAtOnceAreNeverMixedUp) {
  TestServer::Options options;
  options.name = [] {
    const std::string name = CommonName(CurrentCall()->certificate);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    return name == CommonName(CurrentCall()->certificate) ? name : "mixed up";
  };
  TestServer server(options);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&server, i] {
      const std::string name = "agent-" + std::to_string(i);
      const TestSupport::Issued identity = Authority().Issue(name, {});
      RawPeer peer(server.Port(), Authority(), &identity);
      for (int call = 0; call < 50; ++call) {
        EXPECT_EQ(NameIn(peer.Call(kRouterKey, "GetName")), name);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(RequestHook, RefusalReachesTheCallerAsItWasThrown) {
  const Hook hook([](const Call& call) {
    if (std::strcmp(call.operation, "GetClient") == 0) throw BrelixMessaging::CertificateExpired();
    throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
  });
  TestServer server;
  RawPeer peer = server.Peer();
  const GiopReplyMessage refused = peer.Call(kRouterKey, "GetClient");
  EXPECT_EQ(refused.status, GiopReplyMessage::kUserException);
  EXPECT_EQ(refused.exceptionId, "IDL:BrelixMessaging/CertificateExpired:1.0");
  EXPECT_EQ(peer.Call(kRouterKey, "GetName").exceptionId, "IDL:omg.org/CORBA/NO_PERMISSION:1.0");
}

TEST(RequestHook, UserExceptionThatTheOperationDoesNotDeclareReachesTheCallerToo) {
  const Hook hook([](const Call&) { throw BrelixMessaging::CertificateExpired(); });
  TestServer server;
  RawPeer peer = server.Peer();
  const GiopReplyMessage refused = peer.Call(kNotifyKey, "Notify");
  EXPECT_EQ(refused.status, GiopReplyMessage::kUserException);
  EXPECT_EQ(refused.exceptionId, "IDL:BrelixMessaging/CertificateExpired:1.0");
}

TEST(RequestHook, RefusedCallNeverReachesTheServantAndTheConnectionGoesOn) {
  std::atomic<bool> refuse{true};
  const Hook hook([&](const Call&) {
    if (refuse) throw BrelixMessaging::Rejected();
  });
  std::atomic<unsigned> reached{0};
  TestServer::Options options;
  options.name = [&] {
    ++reached;
    return "router";
  };
  TestServer server(options);
  RawPeer peer = server.Peer();
  peer.Call(kRouterKey, "GetName");
  EXPECT_EQ(reached, 0u);
  refuse = false;
  EXPECT_EQ(NameIn(peer.Call(kRouterKey, "GetName")), "router");
}

TEST(RequestHook, OperationsOfTheOrbItselfPassUnseenOverTls) {
  std::atomic<unsigned> seen{0};
  const Hook hook([&](const Call&) {
    ++seen;
    throw BrelixMessaging::Rejected();
  });
  TestServer server;
  RawPeer stranger = server.Stranger();
  const std::string id =
      TestSupport::CdrWriter().Text("IDL:BrelixMessaging/MessageRouter:1.0").Bytes();
  EXPECT_EQ(stranger.Call(kRouterKey, "_is_a", id).status, GiopReplyMessage::kNoException);
  EXPECT_EQ(stranger.Call(kRouterKey, "_non_existent").status, GiopReplyMessage::kNoException);
  EXPECT_EQ(seen, 0u);
}

TEST(RequestHook, SeesOperationsOfTheOrbItselfWithoutTls) {
  std::atomic<unsigned> seen{0};
  const Hook hook([&](const Call&) {
    ++seen;
    throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
  });
  TestServer::Options options;
  options.arguments = {"-ORBendPoint", "giop:tcp:127.0.0.1:"};
  TestServer server(options);
  RawPeer plain(server.Port());
  EXPECT_EQ(plain.Call(kRouterKey, "_non_existent").exceptionId,
            "IDL:omg.org/CORBA/NO_PERMISSION:1.0");
  EXPECT_EQ(seen, 1u);
}

TEST(KeyIsOfAdapter, TellsTheAdaptersOfRealObjectsApart) {
  TestServer server;
  const CORBA::Object_var root = server.Orb().Get()->resolve_initial_references("RootPOA");
  const PortableServer::POA_var rootAdapter = PortableServer::POA::_narrow(root);
  CORBA::PolicyList policies;
  const PortableServer::POAManager_var manager = rootAdapter->the_POAManager();
  manager->activate();
  const PortableServer::POA_var normal =
      rootAdapter->create_POA("RouterTransient", manager, policies);
  const PortableServer::POA_var certify =
      rootAdapter->create_POA("RouterCertify", manager, policies);
  const CORBA::OctetSeq_var id = certify->id();
  const std::vector<CORBA::Octet> certifyId(id->get_buffer(), id->get_buffer() + id->length());

  const auto keyOfNewObjectOn = [&server](PortableServer::POA_ptr adapter) {
    const PortableServer::ServantBase_var servant = new TestConsumer;
    const PortableServer::ObjectId_var object = adapter->activate_object(servant.in());
    const CORBA::Object_var reference = adapter->id_to_reference(object);
    const CORBA::String_var ior = server.Orb().Get()->object_to_string(reference);
    return TestSupport::ObjectKeyOf(ior.in());
  };
  bool isCertify = false;
  const Hook hook([&](const Call& call) { isCertify = Broker::KeyIsOfAdapter(call, certifyId); });
  RawPeer peer = server.Peer();
  peer.Call(keyOfNewObjectOn(certify), "Heartbeat");
  EXPECT_TRUE(isCertify);
  peer.Call(keyOfNewObjectOn(normal), "Heartbeat");
  EXPECT_FALSE(isCertify);
  peer.Call(kConsumerKey, "Heartbeat");
  EXPECT_FALSE(isCertify);
}

TEST(KeyIsOfAdapter, ShorterKeyAndNoKeyAreOfNoAdapter) {
  const std::vector<CORBA::Octet> id = {1, 2, 3};
  const CORBA::Octet key[] = {1, 2};
  Call call;
  EXPECT_FALSE(Broker::KeyIsOfAdapter(call, id));
  call.objectKey = key;
  call.objectKeySize = sizeof key;
  EXPECT_FALSE(Broker::KeyIsOfAdapter(call, id));
}

}  // namespace
