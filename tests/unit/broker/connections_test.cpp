#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <vector>

#include "PeerProcess.h"
#include "TestServer.h"
#include "broker/ConnectionTable.h"
#include "broker/Limits.h"
#include "support/FakeClock.h"

// How many connections there may be, and for how long.
namespace {

using namespace BrokerTest;  // the server
using Broker::ConnectionTable;
using std::chrono::seconds;
using TestSupport::FakeClock;
using TestSupport::GiopHeader;
using TestSupport::GiopRequest;
using TestSupport::kGiopRequest;
using TestSupport::RawPeer;
namespace Limits = Broker::Limits;

constexpr std::chrono::milliseconds kNotClosed{400};  // more than one scan

class Connections : public testing::Test {
 protected:
  static std::string HalfAMessage() { return GiopHeader(kGiopRequest, 512) + "abc"; }
  static std::string HalfAHeader() { return GiopHeader(kGiopRequest, 512).substr(0, 6); }
  static std::string HalfARequestBody() {
    const std::string whole = GiopRequest(kConsumerKey, "SendMessage", std::string(200, 'x'));
    return whole.substr(0, whole.size() - 100);
  }
  static bool Answers(RawPeer& peer) {
    return NameIn(peer.Call(kRouterKey, "GetName")) == "router";
  }
};

TEST_F(Connections, HalfMessageIsGivenUpAfterItsTime) {
  FakeClock clock;
  TestServer server;
  for (const std::string& half : {HalfAMessage(), HalfAHeader(), HalfARequestBody()}) {
    for (const bool known : {true, false}) {
      RawPeer peer = known ? server.Peer() : server.Stranger();
      ASSERT_TRUE(Answers(peer));
      peer.Send(half);
      ASSERT_FALSE(peer.WaitUntilClosed(kNotClosed));  // it has been seen
      clock.Advance(seconds(Limits::kMessageSeconds - 1));
      EXPECT_FALSE(peer.WaitUntilClosed(kNotClosed)) << half.size();
      clock.Advance(seconds(2));
      EXPECT_TRUE(peer.WaitUntilClosed()) << half.size() << (known ? " known" : " stranger");
    }
  }
  RawPeer other = server.Peer();
  EXPECT_TRUE(Answers(other));
}

TEST_F(Connections, IdlePeerWithACertificateStays) {
  FakeClock clock;
  TestServer server;
  RawPeer peer = server.Peer();
  ASSERT_TRUE(Answers(peer));
  clock.Advance(std::chrono::hours(10));
  EXPECT_FALSE(peer.WaitUntilClosed(kNotClosed));
  EXPECT_TRUE(Answers(peer));
}

TEST_F(Connections, PeerThatIsSlowAndMakesProgressMayFinish) {
  FakeClock clock;
  TestServer server;
  RawPeer peer = server.Peer();
  const std::string octets(16 * 1024 * 1024, 'x');
  const std::string message = GiopRequest("no such object", "Op", octets);
  const std::size_t part = message.size() / 4;
  for (std::size_t at = 0; at < message.size(); at += part) {
    ASSERT_TRUE(peer.Send(message.substr(at, part)));
    ASSERT_FALSE(peer.WaitUntilClosed(kNotClosed));
    clock.Advance(seconds(20));
  }
}

TEST_F(Connections, PeerThatDribblesIsGivenUp) {
  FakeClock clock;
  TestServer server;
  RawPeer peer = server.Peer();
  peer.Send(HalfAMessage());
  ASSERT_FALSE(peer.WaitUntilClosed(kNotClosed));
  bool closed = false;
  for (unsigned waited = 0; !closed && waited < 4 * Limits::kMessageSeconds; waited += 10) {
    peer.Send("x");
    clock.Advance(seconds(10));
    closed = peer.WaitUntilClosed(kNotClosed);
  }
  EXPECT_TRUE(closed);
}

// A reply that nobody takes is memory that nobody gives back.
TEST_F(Connections, PeerThatTakesItsReplyInDribblesIsGivenUp) {
  constexpr std::size_t kReply = 48UL * 1024 * 1024;
  constexpr std::size_t kDribble = 1024UL * 1024;
  FakeClock clock;
  TestServer::Options options;
  options.name = [] { return std::string(kReply, 'x'); };
  TestServer server(options);
  RawPeer other = server.Peer();
  RawPeer peer = server.Peer();
  peer.Send(GiopRequest(kRouterKey, "GetName"));
  bool open = true;
  std::size_t taken = 0;
  for (; open && taken < kReply / 2; taken += kDribble) {
    open = peer.Drop(kDribble);
    ASSERT_FALSE(other.WaitUntilClosed(kNotClosed));  // a scan
    clock.Advance(seconds(Limits::kMessageSeconds - 2));
  }
  EXPECT_FALSE(open);
}

TEST_F(Connections, SilentOnesAreGivenUpAfterTheTimeOfAHandshake) {
  FakeClock clock;
  TestServer server;
  RawPeer silent(server.Port());
  RawPeer halfway(server.Port());
  halfway.Send(std::string("\x16\x03\x01\x02\x00\x01", 6));
  ASSERT_TRUE(Eventually([] { return ConnectionTable::Instance().Count().handshakes == 2; }));
  clock.Advance(seconds(Limits::kHandshakeSeconds + 1));
  EXPECT_TRUE(silent.WaitUntilClosed());
  EXPECT_TRUE(halfway.WaitUntilClosed());
}

TEST_F(Connections, IdleStrangerIsGivenUp) {
  FakeClock clock;
  TestServer server;
  RawPeer stranger = server.Stranger();
  ASSERT_TRUE(Answers(stranger));
  clock.Advance(seconds(Limits::kStrangerIdleSeconds - 1));
  EXPECT_FALSE(stranger.WaitUntilClosed(kNotClosed));
  ASSERT_TRUE(Answers(stranger));  // counts anew
  clock.Advance(seconds(Limits::kStrangerIdleSeconds - 1));
  EXPECT_FALSE(stranger.WaitUntilClosed(kNotClosed));
  clock.Advance(seconds(2));
  EXPECT_TRUE(stranger.WaitUntilClosed());
}

TEST_F(Connections, StrangersAreBoundedAndTheLeastRecentlyUsedGoes) {
  FakeClock clock;
  TestServer server;
  std::vector<RawPeer> strangers;
  for (unsigned i = 0; i < Limits::kMaxStrangers; ++i) {
    strangers.push_back(server.Stranger());
    clock.Advance(std::chrono::milliseconds(1));
    if (i % 2 != 0) strangers.back().Send(HalfAMessage());
  }
  ASSERT_TRUE(Answers(strangers[0]));  // now the most recently used
  RawPeer peer = server.Peer();
  clock.Advance(std::chrono::milliseconds(1));

  RawPeer one = server.Stranger();
  EXPECT_TRUE(Answers(one));
  EXPECT_TRUE(strangers[1].WaitUntilClosed());
  RawPeer two = server.Stranger();
  EXPECT_TRUE(Answers(two));
  EXPECT_TRUE(strangers[2].WaitUntilClosed());
  EXPECT_TRUE(Answers(strangers[0]));
  EXPECT_TRUE(Answers(peer));
  EXPECT_LE(ConnectionTable::Instance().Count().strangers, Limits::kMaxStrangers);
}

TEST_F(Connections, FloodOfSilentOnesKeepsNobodyOut) {
  TestServer server;
  RawPeer before = server.Peer();
  ASSERT_TRUE(Answers(before));
  std::vector<RawPeer> flood;
  for (int i = 0; i < 700; ++i) flood.emplace_back(server.Port());
  RawPeer peer = server.Peer();
  ASSERT_TRUE(peer.Connected());
  EXPECT_TRUE(Answers(peer));
  EXPECT_TRUE(Answers(before));
  EXPECT_LE(ConnectionTable::Instance().Count().handshakes, Limits::kMostHandshakes);
}

TEST_F(Connections, AboveTheLimitTheLeastRecentlyUsedIdleOneIsClosed) {
  FakeClock clock;
  TestServer::Options options;
  options.connectionLimit = 3;
  TestServer server(options);
  std::vector<RawPeer> peers;
  for (int i = 0; i < 4; ++i) {
    peers.push_back(server.Peer());
    clock.Advance(seconds(1));
    ASSERT_TRUE(Answers(peers.back()));
  }
  EXPECT_TRUE(peers[0].WaitUntilClosed());
  for (int i = 1; i < 4; ++i) EXPECT_TRUE(Answers(peers[static_cast<std::size_t>(i)])) << i;
}

TEST_F(Connections, WithoutALimitNoneIsClosed) {
  TestServer server;
  std::vector<RawPeer> peers;
  for (int i = 0; i < 20; ++i) peers.push_back(server.Peer());
  EXPECT_FALSE(peers[0].WaitUntilClosed(std::chrono::milliseconds(1500)));
  for (RawPeer& peer : peers) EXPECT_TRUE(Answers(peer));
}

TEST_F(Connections, CallersSeeNothingOfThePurge) {
  TestServer::Options options;
  options.connectionLimit = 2;
  TestServer server(options);
  PeerProcess first = PeerProcess::Call(server.Port(), 4, 400);
  PeerProcess second = PeerProcess::Call(server.Port(), 4, 400);
  EXPECT_EQ(first.Wait(), 0);
  EXPECT_EQ(second.Wait(), 0);
}

TEST_F(Connections, OutgoingOnesCountToo) {
  constexpr unsigned kLimit = 2;
  TestServer::Options options;
  options.connectionLimit = kLimit;
  TestServer server(options);
  std::vector<PeerProcess> others;
  std::vector<BrelixMessaging::MessageRouter_var> routers;
  for (int i = 0; i < 4; ++i) {
    others.push_back(PeerProcess::Serve(server.Port()));
    const auto port = static_cast<unsigned short>(std::stoul(others.back().Line()));
    const CORBA::Object_var object =
        server.Orb().Get()->string_to_object(Locator(port, kRouterKey).c_str());
    routers.push_back(BrelixMessaging::MessageRouter::_unchecked_narrow(object));
  }
  const std::size_t before = Descriptors();
  for (const BrelixMessaging::MessageRouter_var& router : routers) {
    const CORBA::String_var name = router->GetName();
    EXPECT_STREQ(name, "router");
  }
  EXPECT_TRUE(Eventually([before] { return Descriptors() <= before + kLimit; }));
  // The closed ones open again by themselves.
  const CORBA::String_var name = routers.front()->GetName();
  EXPECT_STREQ(name, "router");
}

}  // namespace
