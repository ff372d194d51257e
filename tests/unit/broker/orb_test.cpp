#include "broker/Orb.h"

#include <gmock/gmock.h>
#include <openssl/x509.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "PeerProcess.h"
#include "TestServer.h"
#include "broker/CurrentCall.h"
#include "broker/Encoding.h"
#include "broker/TypeCodeGuard.h"
#include "platform/Process.h"

namespace {

using namespace BrokerTest;  // the server and its peers
using TestSupport::GiopReplyMessage;
using TestSupport::RawPeer;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kMemoryGrowth = 512UL * 1024 * 1024;  // these keep what was freed
#else
constexpr std::size_t kMemoryGrowth = 8UL * 1024 * 1024;
#endif

BrelixMessaging::MessageRouter_var FindRouter(TestServer& server, unsigned short port) {
  const CORBA::Object_var object =
      server.Orb().Get()->string_to_object(Locator(port, kRouterKey).c_str());
  return BrelixMessaging::MessageRouter::_unchecked_narrow(object);
}

TEST(Orb, ServesPeersAndStrangersOverTls) {
  TestServer server;
  EXPECT_EQ(NameIn(server.Peer().Call(kRouterKey, "GetName")), "router");
  EXPECT_EQ(NameIn(server.Stranger().Call(kRouterKey, "GetName")), "router");
}

TEST(Orb, HasNoEndpointWithoutTls) {
  TestServer server;
  RawPeer plain(server.Port());
  ASSERT_TRUE(plain.Connected());
  plain.Send(TestSupport::GiopRequest(kRouterKey, "GetName"));
  EXPECT_TRUE(plain.WaitUntilClosed());
}

TEST(Orb, OpensAnEndpointWithTlsIfTheArgumentsNameNone) {
  TestServer::Options options;
  options.arguments = {};
  TestServer server(options);
  EXPECT_NE(server.Port(), 0);
  EXPECT_EQ(NameIn(server.Peer().Call(kRouterKey, "GetName")), "router");
}

TEST(Orb, PublishesTheIpv4EndpointsAndOthersOnlyIfThereAreNone) {
  using Names = std::vector<std::string>;
  const std::string four = "giop:ssl:192.0.2.2:24590";
  const std::string otherFour = "giop:ssl:198.51.100.7:24590";
  const std::string six = "giop:ssl:[fd00::2]:24590";
  EXPECT_EQ(Broker::PublishedEndpoints({six, four, otherFour}), (Names{four, otherFour}));
  EXPECT_EQ(Broker::PublishedEndpoints({six}), (Names{six}));
  EXPECT_EQ(Broker::PublishedEndpoints({}), Names());
}

TEST(Orb, TakesItsArgumentsOut) {
  std::string program = "program";
  std::string mine = "-service";
  std::string endpoint = "-ORBendPoint";
  std::string value = "giop:ssl:127.0.0.1:";
  char* arguments[] = {program.data(), endpoint.data(), value.data(), mine.data(), nullptr};
  int count = 4;
  const Broker::Orb orb(count, arguments, {});
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(arguments[1], "-service");
}

TEST(Orb, FailureToConfigureTlsIsThrownAndLeavesNothingBehind) {
  Broker::OrbSettings settings;
  settings.configureTls = [](SSL_CTX*) { throw std::runtime_error("no certificate store"); };
  int count = 0;
  char* arguments[] = {nullptr};
  EXPECT_THROW(Broker::Orb(count, arguments, settings), std::runtime_error);
  TestServer server;
  EXPECT_EQ(NameIn(server.Peer().Call(kRouterKey, "GetName")), "router");
}

TEST(Orb, UnknownArgumentOfTheOrbIsThrownAndLeavesNothingBehind) {
  TestServer::Options options;
  options.arguments = {"-ORBnoSuchThing", "1"};
  EXPECT_THROW(TestServer{options}, CORBA::INITIALIZE);
  TestServer server;
  EXPECT_EQ(NameIn(server.Peer().Call(kRouterKey, "GetName")), "router");
}

TEST(Orb, NobodyListensBeforeTheRootAdapterIsResolved) {
  Broker::OrbSettings settings;
  int count = 0;
  char* arguments[] = {nullptr};
  const Broker::Orb orb(count, arguments, settings);
  EXPECT_EQ(orb.ListeningPort(), 0);
}

TEST(Orb, PortInUseIsAnEndpointFailureAndTheNextOrbWorks) {
  unsigned short port = 0;
  {
    TestServer server;
    port = server.Port();
    // Another process holds a port: here its place is taken by the peer's.
    PeerProcess other = PeerProcess::Serve(port);
    port = static_cast<unsigned short>(std::stoul(other.Line()));
    server.Orb().Destroy();
    TestServer::Options options;
    options.arguments = {"-ORBendPoint", "giop:ssl:127.0.0.1:" + std::to_string(port)};
    try {
      TestServer second(options);
      FAIL() << "the port was free";
    } catch (const CORBA::SystemException& exception) {
      EXPECT_TRUE(Broker::IsEndpointFailure(exception));
    }
  }
  TestServer third;
  EXPECT_EQ(NameIn(third.Peer().Call(kRouterKey, "GetName")), "router");
}

TEST(Orb, AddressOfAnotherHostIsAnEndpointFailure) {
  TestServer::Options options;
  options.arguments = {"-ORBendPoint", "giop:ssl:203.0.113.9:0"};
  try {
    TestServer server(options);
    FAIL() << "the address is ours";
  } catch (const CORBA::SystemException& exception) {
    EXPECT_TRUE(Broker::IsEndpointFailure(exception));
  }
}

TEST(Orb, OtherExceptionsAreNoEndpointFailures) {
  EXPECT_FALSE(Broker::IsEndpointFailure(CORBA::COMM_FAILURE()));
  EXPECT_FALSE(Broker::IsEndpointFailure(CORBA::INITIALIZE(0, CORBA::COMPLETED_NO)));
}

TEST(Orb, WithoutCredentialsNobodyCanConnectUntilTheyAreLoaded) {
  TestServer::Options options;
  options.withIdentity = false;
  TestServer server(options);
  EXPECT_FALSE(server.Peer().Connected());
  TestSupport::ConfigureTls(server.Orb().TlsContext(), Authority().CaPem(), &RouterIdentity());
  EXPECT_EQ(NameIn(server.Peer().Call(kRouterKey, "GetName")), "router");
}

TEST(Orb, LateCredentialsCountForNewOutgoingConnections) {
  TestServer::Options options;
  options.withIdentity = false;
  TestServer server(options);
  PeerProcess peer = PeerProcess::Serve(server.Port());
  const auto port = static_cast<unsigned short>(std::stoul(peer.Line()));
  const BrelixMessaging::MessageRouter_var router = FindRouter(server, port);
  CORBA::String_var name = router->GetName();
  EXPECT_STREQ(name, "(none)");

  TestSupport::ConfigureTls(server.Orb().TlsContext(), Authority().CaPem(), &RouterIdentity());
  server.Orb().CloseOutgoingConnections(10);
  name = router->GetName();
  EXPECT_STREQ(name, "router");
}

TEST(Orb, SessionsAreNeverResumed) {
  TestServer server;
  SSL_CTX* const context = server.Orb().TlsContext();
  EXPECT_EQ(SSL_CTX_get_session_cache_mode(context), SSL_SESS_CACHE_OFF);
  EXPECT_EQ(SSL_CTX_get_num_tickets(context), 0u);
  EXPECT_NE(SSL_CTX_get_options(context) & SSL_OP_NO_TICKET, 0u);
}

TEST(Orb, AsksForACertificateAndAdmitsPeersWithoutOne) {
  TestServer server;
  EXPECT_EQ(SSL_CTX_get_verify_mode(server.Orb().TlsContext()), SSL_VERIFY_PEER);
}

std::atomic<unsigned> handshakesDone{0};
void CountHandshakes(const SSL*, int where, int) {
  if ((where & SSL_CB_HANDSHAKE_DONE) != 0) ++handshakesDone;
}

TEST(Orb, TlsInformationReachesTheCallback) {
  TestServer::Options options;
  options.tlsInfo = &CountHandshakes;
  TestServer server(options);
  handshakesDone = 0;
  server.Peer().Call(kRouterKey, "GetName");
  EXPECT_EQ(handshakesDone, 1u);
}

TEST(Orb, CanBeMadeAgainFiftyTimesWithoutGrowing) {
  { TestServer warmUp; }
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  std::size_t memory = 0;
  for (int cycle = 0; cycle < 50; ++cycle) {
    {
      TestServer server;
      RawPeer peer = server.Peer();
      RawPeer idle = server.Stranger();
      for (int call = 0; call < 5; ++call) {
        ASSERT_EQ(NameIn(peer.Call(kRouterKey, "GetName")), "router");
      }
      ASSERT_EQ(NameIn(idle.Call(kRouterKey, "GetName")), "router");
    }
    if (cycle != 9) continue;
    descriptors = Descriptors();
    threads = Threads();
    memory = Platform::ResidentMemory();
  }
  EXPECT_TRUE(Eventually([&] { return Threads() <= threads; })) << Threads();
  EXPECT_LE(Descriptors(), descriptors);
  EXPECT_LT(Platform::ResidentMemory(), memory + kMemoryGrowth);
}

TEST(Orb, CallsInterceptorsOncePerRequestInEachCycle) {
  for (int cycle = 0; cycle < 3; ++cycle) {
    class Counter : public Broker::RequestHook {
     public:
      void OnRequest(const Broker::Call&) override { ++requests; }
      std::atomic<unsigned> requests{0};
    } counter;
    Broker::SetRequestHook(&counter);
    {
      TestServer server;
      RawPeer peer = server.Peer();
      peer.Call(kRouterKey, "GetName");
      peer.Call(kRouterKey, "GetName");
    }
    Broker::SetRequestHook(nullptr);
    EXPECT_EQ(counter.requests, 2u);
  }
}

TEST(Orb, TakesThePlaceOfTheCodecsOwn) {
  Encoding::InitializeCodec();
  TestServer server;
  EXPECT_TRUE(Broker::TypeCodeGuard::SelfTest());
  EXPECT_EQ(NameIn(server.Peer().Call(kRouterKey, "GetName")), "router");
}

TEST(Orb, OneOperationAtATimeWithWidthOneStillAnswersItsCallersCaller) {
  TestServer::Options options;
  options.threads = 1;
  std::atomic<unsigned short> peerPort{0};
  CORBA::ORB_ptr orb = CORBA::ORB::_nil();
  options.callBack = [&] {
    const CORBA::Object_var object = orb->string_to_object(Locator(peerPort, kConsumerKey).c_str());
    const BrelixMessaging::MessageConsumer_var consumer =
        BrelixMessaging::MessageConsumer::_unchecked_narrow(object);
    consumer->Heartbeat();
  };
  TestServer server(options);
  orb = server.Orb().Get();
  PeerProcess peer = PeerProcess::Mutual(server.Port(), 0);
  peerPort = static_cast<unsigned short>(std::stoul(peer.Line()));
  ASSERT_EQ(peer.Line(), "done");
  // Both call each other at once, and each calls back from within.
  const CORBA::Object_var object = orb->string_to_object(Locator(peerPort, kNotifyKey).c_str());
  const BrelixMessaging::NotifyConsumer_var notify =
      BrelixMessaging::NotifyConsumer::_unchecked_narrow(object);
  std::vector<std::thread> callers;
  for (int i = 0; i < 3; ++i) {
    callers.emplace_back([&notify] {
      for (int call = 0; call < 30; ++call) notify->Notify();
    });
  }
  RawPeer direct = server.Peer();
  for (int call = 0; call < 30; ++call) {
    EXPECT_EQ(direct.Call(kNotifyKey, "Notify").status, GiopReplyMessage::kNoException);
  }
  for (std::thread& caller : callers) caller.join();
}

}  // namespace
