#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <map>
#include <mutex>
#include <string>

#include "PeerProcess.h"
#include "TestServer.h"

// How the sockets of the ORB's connections find out that a peer has vanished.
namespace {

using namespace BrokerTest;  // the server
using testing::ElementsAre;
using testing::Pair;
using TestSupport::RawPeer;

struct Options {
  int keepAlive = -1;
  int idleSeconds = -1;
  int timeoutMilliseconds = -1;
  bool operator==(const Options&) const = default;
};

// Of the latest connection in each direction whose handshake is done. Reset by each test.
std::mutex mutex;
std::map<bool, Options> seen;  // by whether it is incoming

int Option(int socket, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  getsockopt(socket, level, option, &value, &length);
  return value;
}

void Look(const SSL* tls, int where, int) {
  if ((where & SSL_CB_HANDSHAKE_DONE) == 0) return;
  const int socket = SSL_get_fd(tls);
  Options options;
  options.keepAlive = Option(socket, SOL_SOCKET, SO_KEEPALIVE);
  if (options.keepAlive == 1) options.idleSeconds = Option(socket, IPPROTO_TCP, TCP_KEEPIDLE);
  options.timeoutMilliseconds = Option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT);
  const std::lock_guard guard(mutex);
  seen[SSL_is_server(tls) != 0] = options;
}

// One call in each direction with a server of these settings.
std::map<bool, Options> SeenOfBothDirections(TestServer::Options settings) {
  {
    const std::lock_guard guard(mutex);
    seen.clear();
  }
  settings.tlsInfo = &Look;
  TestServer server(settings);
  RawPeer caller = server.Peer();
  EXPECT_EQ(NameIn(caller.Call(kRouterKey, "GetName")), "router");
  PeerProcess other = PeerProcess::Serve(server.Port());
  const auto port = static_cast<unsigned short>(std::stoul(other.Line()));
  const CORBA::Object_var object =
      server.Orb().Get()->string_to_object(Locator(port, kRouterKey).c_str());
  const auto router = BrelixMessaging::MessageRouter::_unchecked_narrow(object);
  const CORBA::String_var name = router->GetName();
  EXPECT_STREQ(name, "router");
  CORBA::release(router);
  const std::lock_guard guard(mutex);
  return seen;
}

TEST(PeerLimits, ByDefaultASilentPeerIsProbedAfter60SecondsAndGivenUpAfter120) {
  const Options expected{1, 60, 120'000};
  EXPECT_THAT(SeenOfBothDirections({}), ElementsAre(Pair(false, expected), Pair(true, expected)));
}

TEST(PeerLimits, AreThoseOfTheSettingsInBothDirections) {
  TestServer::Options settings;
  settings.keepAliveSeconds = 7;
  settings.peerTimeoutSeconds = 21;
  const Options expected{1, 7, 21'000};
  EXPECT_THAT(SeenOfBothDirections(settings),
              ElementsAre(Pair(false, expected), Pair(true, expected)));
}

TEST(PeerLimits, OfZeroAreSwitchedOffInBothDirections) {
  TestServer::Options settings;
  settings.keepAliveSeconds = 0;
  settings.peerTimeoutSeconds = 0;
  const Options expected{0, -1, 0};
  EXPECT_THAT(SeenOfBothDirections(settings),
              ElementsAre(Pair(false, expected), Pair(true, expected)));
}

}  // namespace
