#include <gmock/gmock.h>

#include <future>
#include <optional>
#include <random>
#include <string>

#include "TestServer.h"
#include "TypeCodeBytes.h"
#include "broker/ConnectionTable.h"
#include "broker/Limits.h"
#include "platform/Process.h"
#include "support/LogCapture.h"

// What a peer, or anyone, can put onto a connection. The server answers or closes, and goes on.
namespace {

using namespace BrokerTest;  // the server, and type codes by hand
using Broker::Limits::kMaxMessageBytes;
using TestSupport::GiopHeader;
using TestSupport::GiopReplyMessage;
using TestSupport::GiopRequest;
using TestSupport::kGiopCancelRequest;
using TestSupport::kGiopFragment;
using TestSupport::kGiopReply;
using TestSupport::kGiopRequest;
using TestSupport::RawPeer;

constexpr char kMarshalId[] = "IDL:omg.org/CORBA/MARSHAL:1.0";
constexpr std::size_t kMemoryGrowth = 200UL * 1024 * 1024;

// The arguments of SendMessage with this any as the payload.
std::string MessageWith(const std::string& any) {
  return CdrWriter()
      .Text("agent-2")
      .ULong(5)
      .ULong(60)
      .Text("type")
      .Text("")
      .Align(4)
      .Raw(any)
      .Bytes();
}

std::string NestedAnys(unsigned depth) {
  CdrWriter writer;
  for (unsigned i = 0; i < depth; ++i) writer.ULong(CORBA::tk_any);
  return writer.ULong(CORBA::tk_null).Bytes();
}

class HostileWire : public testing::Test {
 protected:
  void ExpectServing() { EXPECT_EQ(NameIn(server_.Peer().Call(kRouterKey, "GetName")), "router"); }

  TestServer server_;
};

TEST_F(HostileWire, GoodMessageIsTaken) {
  const std::string any = CdrWriter().Raw(StringType()).Text("abc").Bytes();
  const GiopReplyMessage reply = server_.Peer().Call(kConsumerKey, "SendMessage", MessageWith(any));
  EXPECT_EQ(reply.status, GiopReplyMessage::kNoException) << reply.exceptionId;
}

TEST_F(HostileWire, HostileTypeCodeInAnArgumentIsMarshalForItsSender) {
  const struct {
    const char* name;
    std::string any;
  } table[] = {
      {"any nested 26 deep", NestedAnys(26)},
      {"any nested 100,000 deep", NestedAnys(100000)},
      {"struct that ends early", Encapsulated(CORBA::tk_struct, Body().Text("IDL:x:1.0"))},
      {"value type that ends early",
       CdrWriter().ULong(CORBA::tk_value).ULong(8).ULong(1).ULong(5).Bytes()},
      {"fixed<99,1>", CdrWriter().ULong(CORBA::tk_fixed).UShort(99).UShort(1).Bytes()},
      {"encapsulation of nearly 4 GB",
       CdrWriter().ULong(CORBA::tk_struct).ULong(0xfffffff0).Octet(1).Bytes()},
      {"sequence that claims 4 G octets",
       CdrWriter().Raw(Sequence(Simple(CORBA::tk_octet))).ULong(0xffffffff).Bytes()},
  };
  const std::size_t before = Platform::ResidentMemory();
  for (const auto& [name, any] : table) {
    const GiopReplyMessage reply =
        server_.Peer().Call(kConsumerKey, "SendMessage", MessageWith(any));
    EXPECT_EQ(reply.exceptionId, kMarshalId) << name;
    ExpectServing();
  }
  EXPECT_LT(Platform::ResidentMemory(), before + kMemoryGrowth);
}

// 63 times 8 octets, so many times, are 8 less than a multiple of 2^32: the ORB would reserve
// nothing and copy the whole message.
TEST_F(HostileWire, BlockWhoseSizeWrapsBelowZeroIsMarshal) {
  constexpr std::uint32_t kCount = 17'043'521;
  static_assert(63UL * 8 * kCount % (1UL << 32) == (1UL << 32) - 8);
  const std::string any = CdrWriter()
                              .Raw(Sequence(Array(Simple(CORBA::tk_double), 63)))
                              .ULong(kCount)
                              .Raw(std::string(kCount + 64, 'x'))
                              .Bytes();
  const GiopReplyMessage reply = server_.Peer().Call(kConsumerKey, "SendMessage", MessageWith(any));
  EXPECT_EQ(reply.exceptionId, kMarshalId);
  ExpectServing();
}

TEST_F(HostileWire, WhatIsNoGiopClosesTheConnection) {
  const struct {
    const char* name;
    std::string bytes;
  } table[] = {
      {"no magic", std::string(64, 'x')},
      {"version 9.9", std::string("GIOP\x09\x09\x01\x00\x04\x00\x00\x00", 12) + "abcd"},
      {"unknown type", GiopHeader(77, 4) + "abcd"},
      {"reply to a server", GiopHeader(kGiopReply, 12) + std::string(12, '\0')},
      {"message of 4 GB", GiopHeader(kGiopRequest, 0xffffffff) + std::string(64, '\0')},
      {"request of no bytes", GiopHeader(kGiopRequest, 0)},
  };
  for (const auto& [name, bytes] : table) {
    for (const bool known : {true, false}) {
      RawPeer peer = known ? server_.Peer() : server_.Stranger();
      peer.Send(bytes);
      EXPECT_TRUE(peer.WaitUntilClosed()) << name;
    }
  }
  ExpectServing();
}

TEST_F(HostileWire, FragmentOfNoMessageIsDropped) {
  RawPeer peer = server_.Peer();
  peer.Send(GiopHeader(kGiopFragment, 8) + std::string(8, '\0'));
  EXPECT_EQ(NameIn(peer.Call(kRouterKey, "GetName")), "router");
}

// Memory that the ORB would lose shows under a leak checker.
TEST(CancelledRequests, TakeNothingAwayAndLeaveNothingBehind) {
  std::promise<void> mayFinish;
  TestServer::Options options;
  options.name = [finish = mayFinish.get_future().share()] {
    finish.wait();
    return "router";
  };
  TestServer server(options);
  RawPeer peer = server.Peer();
  peer.Send(GiopRequest(kRouterKey, "GetName"));
  const std::string cancel = GiopHeader(kGiopCancelRequest, 4) + CdrWriter().ULong(99).Bytes();
  for (int i = 0; i < 300; ++i) ASSERT_TRUE(peer.Send(cancel));
  mayFinish.set_value();
  const std::optional<std::string> reply = peer.Receive();
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(NameIn(TestSupport::ParseReply(*reply)), "router");
}

// The same.
TEST_F(HostileWire, SendersThatGoAwayWhileTheirRequestIsSkippedLeaveNothingBehind) {
  const std::string whole = GiopRequest("no such object", "GetName", std::string(2000, 'x'));
  for (int i = 0; i < 20; ++i) {
    RawPeer peer = server_.Peer();
    peer.Send(whole.substr(0, whole.size() - 1000));
  }
  ExpectServing();
}

// Its bytes are read and thrown away as they come.
TEST_F(HostileWire, MessageAboveTheLimitTakesNoMemory) {
  RawPeer peer = server_.Peer();
  const std::size_t before = Platform::ResidentMemory();
  peer.Send(GiopHeader(kGiopRequest, kMaxMessageBytes + 1));
  const std::string part(1024 * 1024, '\0');
  for (int i = 0; i < 50; ++i) peer.Send(part);
  EXPECT_LT(Platform::ResidentMemory(), before + 32UL * 1024 * 1024);
  ExpectServing();
}

TEST_F(HostileWire, BytesThatAreNoTlsCloseTheConnection) {
  for (const std::string& bytes :
       {std::string("GET / HTTP/1.0\r\n\r\n"), std::string(1000, '\xff'),
        std::string("\x16\x03\x01\xff\xff", 5) + std::string(70000, 'x')}) {
    RawPeer peer(server_.Port());
    peer.Send(bytes);
    EXPECT_TRUE(peer.WaitUntilClosed());
  }
  ExpectServing();
}

TEST_F(HostileWire, MutatedRequestsNeverEndTheServer) {
  const std::string any = CdrWriter().Raw(Sequence(StringType())).ULong(1).Text("abc").Bytes();
  const std::string good = GiopRequest(kConsumerKey, "SendMessage", MessageWith(any));
  std::mt19937 random(7);
  for (int i = 0; i < 300; ++i) {
    std::string bytes = good;
    for (unsigned changes = 1 + random() % 4; changes > 0; --changes) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    // In one connection of three the rest of the message is missing.
    if (i % 3 == 0) bytes.resize(random() % bytes.size());
    RawPeer peer = i % 2 == 0 ? server_.Peer() : server_.Stranger();
    peer.Send(bytes);
  }
  ExpectServing();
}

TEST_F(HostileWire, StrangerCannotFillTheMemoryWithPartsOfMessages) {
  RawPeer stranger = server_.Stranger();
  stranger.Send(GiopHeader(kGiopRequest, kMaxMessageBytes));
  const std::string part(64 * 1024, 'x');
  const std::size_t before = Platform::ResidentMemory();
  bool open = true;
  for (int sent = 0; open && sent < 2000; ++sent) open = stranger.Send(part);
  EXPECT_FALSE(open);
  EXPECT_LT(Platform::ResidentMemory(), before + 32UL * 1024 * 1024);
  ExpectServing();
}

TEST_F(HostileWire, PeerMaySendALargeMessage) {
  const std::string octets(20'000'000, 'x');
  const std::string any = CdrWriter()
                              .Raw(Sequence(Simple(CORBA::tk_octet)))
                              .ULong(static_cast<std::uint32_t>(octets.size()))
                              .Raw(octets)
                              .Bytes();
  const GiopReplyMessage reply = server_.Peer().Call(kConsumerKey, "SendMessage", MessageWith(any));
  EXPECT_EQ(reply.status, GiopReplyMessage::kNoException) << reply.exceptionId;
}

TEST_F(HostileWire, UnknownObjectAndOperationAreAnswered) {
  RawPeer peer = server_.Peer();
  EXPECT_EQ(peer.Call("no such object", "GetName").exceptionId,
            "IDL:omg.org/CORBA/OBJECT_NOT_EXIST:1.0");
  EXPECT_EQ(peer.Call(kRouterKey, "NoSuchOperation").exceptionId,
            "IDL:omg.org/CORBA/BAD_OPERATION:1.0");
}

}  // namespace
