#include <BrelixMessaging.h>
#include <gmock/gmock.h>

#include <functional>
#include <string>

#include "LyingServer.h"
#include "TestServer.h"
#include "TypeCodeBytes.h"
#include "broker/CorbaExceptions.h"
#include "platform/Process.h"

// What a peer can answer when it is asked for an envelope. The call fails, and nothing else does.
namespace {

using namespace BrokerTest;
using TestSupport::GiopHeader;
using TestSupport::GiopReplyMessage;
using TestSupport::kGiopReply;
using TestSupport::kGiopRequest;

constexpr std::size_t kMemoryGrowth = 200UL * 1024 * 1024;
constexpr std::uint32_t kLocationForward = 3;

std::string Reply(std::uint32_t id, std::uint32_t status, const std::string& body) {
  // The body begins 8-aligned, for header and reply header take 24 bytes.
  const std::string content = CdrWriter().ULong(id).ULong(status).ULong(0).Bytes() + body;
  return GiopHeader(kGiopReply, static_cast<std::uint32_t>(content.size())) + content;
}

CdrWriter EnvelopeUpToPayload() {
  return CdrWriter()
      .Text("certificate")
      .Text("child.agent")
      .ULong(1)
      .Text("agent-2")
      .ULong(1)
      .Text("agent")
      .ULong(1)
      .ULong(77)
      .Text("agent-2")
      .ULong(5)
      .ULong(60)
      .Text("type")
      .Text("");
}

std::string EnvelopeWith(const std::string& any) {
  return EnvelopeUpToPayload().Align(4).Raw(any).Bytes();
}

std::string GoodEnvelope() {
  return EnvelopeWith(CdrWriter().Raw(StringType()).Text("abc").Bytes());
}

std::string NestedAnys(unsigned depth) {
  CdrWriter writer;
  for (unsigned i = 0; i < depth; ++i) writer.ULong(CORBA::tk_any);
  return writer.ULong(CORBA::tk_null).Bytes();
}

class HostileReply : public testing::Test {
 protected:
  BrelixMessaging::Envelope* Ask(LyingServer::Answer answer,
                                 LyingServer::Then then = LyingServer::Then::GoOn) {
    liar_.SetAnswer(std::move(answer), then);
    return Broker::OutgoingCall([this] { return supplier_->GetEnvelope(); });
  }
  BrelixMessaging::Envelope* AskForResult(const std::string& body) {
    return Ask([&](std::uint32_t id) { return Reply(id, GiopReplyMessage::kNoException, body); });
  }
  void ExpectWorking() {
    const BrelixMessaging::Envelope_var envelope = AskForResult(GoodEnvelope());
    EXPECT_EQ(envelope->message_id, 77);
    const char* text = nullptr;
    ASSERT_TRUE(envelope->client_info.custom_data >>= text);
    EXPECT_STREQ(text, "abc");
  }

  LyingServer liar_;
  TestServer server_;
  const CORBA::Object_var object_ =
      server_.Orb().Get()->string_to_object(Locator(liar_.Port(), "supplier").c_str());
  const BrelixMessaging::RouterSupplier_var supplier_ =
      BrelixMessaging::RouterSupplier::_unchecked_narrow(object_);
};

TEST_F(HostileReply, GoodEnvelopeIsRead) {
  ExpectWorking();
}

TEST_F(HostileReply, EnvelopeThatCannotBeReadIsMarshalForTheCaller) {
  const std::string good = GoodEnvelope();
  const struct {
    const char* name;
    std::string body;
  } table[] = {
      {"nothing", ""},
      {"half an envelope", good.substr(0, good.size() / 2)},
      {"all but the last octet", good.substr(0, good.size() - 1)},
      {"text of 4 GB", CdrWriter().ULong(0xffffffff).Raw("x").Bytes()},
      {"text without an end", CdrWriter().ULong(4).Raw("xxxx").Bytes()},
      {"text of no octets", CdrWriter().ULong(0).Bytes()},
      {"4 G hops", CdrWriter().Text("").Text("").ULong(0xffffffff).Bytes()},
      {"4 G stamps", CdrWriter().Text("").Text("").ULong(0).ULong(0xffffffff).Bytes()},
      {"any nested 26 deep", EnvelopeWith(NestedAnys(26))},
      {"any nested 100,000 deep", EnvelopeWith(NestedAnys(100000))},
      {"struct that ends early",
       EnvelopeWith(Encapsulated(CORBA::tk_struct, Body().Text("IDL:x:1.0")))},
      {"value type that ends early",
       EnvelopeWith(CdrWriter().ULong(CORBA::tk_value).ULong(8).ULong(1).ULong(5).Bytes())},
      {"fixed<99,1>",
       EnvelopeWith(CdrWriter().ULong(CORBA::tk_fixed).UShort(99).UShort(1).Bytes())},
      {"encapsulation of nearly 4 GB",
       EnvelopeWith(CdrWriter().ULong(CORBA::tk_struct).ULong(0xfffffff0).Octet(1).Bytes())},
      {"sequence that claims 4 G octets",
       EnvelopeWith(CdrWriter().Raw(Sequence(Simple(CORBA::tk_octet))).ULong(0xffffffff).Bytes())},
  };
  const std::size_t before = Platform::ResidentMemory();
  for (const auto& [name, body] : table) {
    EXPECT_THROW(delete AskForResult(body), CORBA::MARSHAL) << name;
    ExpectWorking();
  }
  EXPECT_LT(Platform::ResidentMemory(), before + kMemoryGrowth);
}

TEST_F(HostileReply, WhatIsNoReplyFailsTheCall) {
  const struct {
    const char* name;
    LyingServer::Answer answer;
  } table[] = {
      {"end of the connection", [](std::uint32_t) { return std::string(); }},
      {"half a header", [](std::uint32_t) { return GiopHeader(kGiopReply, 24).substr(0, 6); }},
      {"half a message",
       [](std::uint32_t id) {
         return Reply(id, GiopReplyMessage::kNoException, GoodEnvelope()).substr(0, 60);
       }},
      {"message of 4 GB", [](std::uint32_t) { return GiopHeader(kGiopReply, 0xffffffff); }},
      {"no magic", [](std::uint32_t) { return std::string(64, 'x'); }},
      {"unknown type", [](std::uint32_t) { return GiopHeader(77, 4) + "abcd"; }},
      {"request",
       [](std::uint32_t) { return GiopHeader(kGiopRequest, 12) + std::string(12, '\0'); }},
      {"answer to another request",
       [](std::uint32_t id) {
         return Reply(id + 1000, GiopReplyMessage::kNoException, GoodEnvelope());
       }},
  };
  for (const auto& [name, answer] : table) {
    EXPECT_THROW(delete Ask(answer, LyingServer::Then::Close), CORBA::SystemException) << name;
    ExpectWorking();
  }
}

TEST_F(HostileReply, ReplyThatSaysNothingFailsTheCall) {
  const struct {
    const char* name;
    LyingServer::Answer answer;
  } table[] = {
      {"unknown status", [](std::uint32_t id) { return Reply(id, 99, ""); }},
      {"forward to nowhere",
       [](std::uint32_t id) { return Reply(id, kLocationForward, std::string(64, '\xff')); }},
      {"exception that is not known",
       [](std::uint32_t id) {
         return Reply(id, GiopReplyMessage::kUserException, CdrWriter().Text("IDL:x:1.0").Bytes());
       }},
      {"exception without a name",
       [](std::uint32_t id) {
         return Reply(id, GiopReplyMessage::kUserException, CdrWriter().ULong(0xffffffff).Bytes());
       }},
      {"system exception that ends early",
       [](std::uint32_t id) {
         return Reply(id, GiopReplyMessage::kSystemException,
                      CdrWriter().Text("IDL:omg.org/CORBA/UNKNOWN:1.0").Bytes());
       }},
  };
  for (const auto& [name, answer] : table) {
    EXPECT_THROW(delete Ask(answer), CORBA::SystemException) << name;
    ExpectWorking();
  }
}

}  // namespace
