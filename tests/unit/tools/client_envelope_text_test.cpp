#include <gtest/gtest.h>

#include "broker/Encoding.h"
#include "client_library/EnvelopeText.h"

using ClientLibrary::AsJsonLine;
using ClientLibrary::AsText;
using ClientLibrary::FormatId;
using ClientLibrary::MakePayload;
using ClientLibrary::ParseId;
using ClientLibrary::ToJson;

namespace {

class ClientEnvelopeText : public testing::Test {
 protected:
  static void SetUpTestSuite() { Encoding::InitializeCodec(); }

  static BrelixMessaging::Envelope AnEnvelope() {
    BrelixMessaging::Envelope envelope;
    envelope.originator = "router.agent-1";
    envelope.message_id = static_cast<CORBA::Long>(0xFE00ABCD);
    envelope.timestamps.length(1);
    envelope.timestamps[0].name = "agent-1";
    envelope.timestamps[0].utc_time = 1700000000;
    envelope.client_info.destination = "agent-2";
    envelope.client_info.prio = -3;
    envelope.client_info.ttl = 60;
    envelope.client_info.type = "Note";
    envelope.client_info.delivery_options = "a=b";
    envelope.client_info.custom_data = MakePayload("hello");
    return envelope;
  }
};

TEST_F(ClientEnvelopeText, IdsAreEightUpperCaseDigits) {
  EXPECT_EQ(FormatId(0), "00000000");
  EXPECT_EQ(FormatId(-1), "FFFFFFFF");
  EXPECT_EQ(FormatId(0x1ab), "000001AB");
}

TEST_F(ClientEnvelopeText, IdsAreReadBackAndNothingElseIs) {
  BrelixMessaging::MessageId id = 0;
  for (const char* text : {"fe00abcd", "FE00ABCD"}) {
    ASSERT_TRUE(ParseId(text, id)) << text;
    EXPECT_EQ(id, static_cast<CORBA::Long>(0xFE00ABCD));
  }
  ASSERT_TRUE(ParseId("7", id));
  EXPECT_EQ(id, 7);
  for (const char* text : {"", "123456789", "0x12", "-1", " 1", "g"}) {
    EXPECT_FALSE(ParseId(text, id)) << text;
  }
}

TEST_F(ClientEnvelopeText, JsonHasEveryFieldOfTheEnvelope) {
  const nlohmann::json expected{
      {"id", "FE00ABCD"},
      {"originator", "router.agent-1"},
      {"destination", "agent-2"},
      {"type", "Note"},
      {"priority", -3},
      {"ttl", 60},
      {"options", "a=b"},
      {"stamps", nlohmann::json::array({{{"name", "agent-1"}, {"time", 1700000000}}})},
      {"payload", "hello"}};
  EXPECT_EQ(ToJson(AnEnvelope()), expected);
}

TEST_F(ClientEnvelopeText, JsonIsOneLineWhateverThePayload) {
  BrelixMessaging::Envelope envelope = AnEnvelope();
  envelope.client_info.custom_data = MakePayload("a\nb\r\n");
  const std::string line = AsJsonLine(envelope);
  EXPECT_EQ(line.find('\n'), line.size() - 1);
}

TEST_F(ClientEnvelopeText, APayloadOfAnotherKindIsTypeAndBytes) {
  BrelixMessaging::Envelope envelope = AnEnvelope();
  envelope.client_info.custom_data <<= CORBA::Long(-2);
  nlohmann::json json = ToJson(envelope);
  EXPECT_FALSE(json.contains("payload"));
  EXPECT_EQ(json["payload_type"], "long");
  EXPECT_EQ(json["payload_hex"], "03000000feffffff");

  BrelixMessaging::Status status;
  envelope.client_info.custom_data <<= status;
  EXPECT_EQ(ToJson(envelope)["payload_type"], "Status");

  envelope.client_info.custom_data = CORBA::Any();
  json = ToJson(envelope);
  EXPECT_EQ(json["payload_type"], "empty");
  EXPECT_EQ(json["payload_hex"], "00000000");
}

TEST_F(ClientEnvelopeText, AListOfNamesIsAList) {
  BrelixMessaging::Envelope envelope = AnEnvelope();
  BrelixMessaging::String_seq names;
  names.length(2);
  names[0] = "leaf";
  names[1] = "\xff";
  envelope.client_info.custom_data <<= names;
  EXPECT_EQ(ToJson(envelope)["payload"], nlohmann::json({"leaf", "\xEF\xBF\xBD"}));
  EXPECT_NE(AsText(envelope).find("payload: [\"leaf\","), std::string::npos);
}

TEST_F(ClientEnvelopeText, AStatusIsWhatItSays) {
  BrelixMessaging::Envelope envelope = AnEnvelope();
  BrelixMessaging::RouterClient client;
  client.name = "agent-1";
  client.isRouter = false;
  client.isParent = false;
  client.isLoggedOn = true;
  client.isPassiveConsumer = true;
  envelope.client_info.custom_data <<= client;
  const nlohmann::json expected{{"name", "agent-1"},
                                {"isRouter", false},
                                {"isParent", false},
                                {"isLoggedOn", true},
                                {"isPassiveConsumer", true}};
  EXPECT_EQ(ToJson(envelope)["payload"], expected);
}

TEST_F(ClientEnvelopeText, AStringThatIsNotUtf8IsNotShownAsText) {
  BrelixMessaging::Envelope envelope = AnEnvelope();
  envelope.client_info.custom_data = MakePayload("\xff\xfe");
  const nlohmann::json json = ToJson(envelope);
  EXPECT_EQ(json["payload_type"], "string");
  EXPECT_EQ(json["payload_hex"], "120000000000000003000000fffe00");
}

TEST_F(ClientEnvelopeText, NamesThatAreNotUtf8StillMakeALine) {
  BrelixMessaging::Envelope envelope = AnEnvelope();
  envelope.originator = "\xff";
  EXPECT_EQ(ToJson(envelope)["originator"], "\xEF\xBF\xBD");
  EXPECT_FALSE(AsText(envelope).empty());
}

TEST_F(ClientEnvelopeText, TextShowsControlCharactersEscaped) {
  BrelixMessaging::Envelope envelope = AnEnvelope();
  envelope.client_info.custom_data = MakePayload("\x1b[2J\nnext");
  envelope.client_info.type = "T\n";
  const std::string text = AsText(envelope);
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_NE(text.find("\\u001b[2J\\nnext"), std::string::npos);
  EXPECT_EQ(text.find("\nnext"), std::string::npos);
}

TEST_F(ClientEnvelopeText, BytesWithAZeroTravelAsOctets) {
  const CORBA::Any payload = MakePayload(std::string("a\0b", 3));
  BrelixMessaging::Envelope envelope = AnEnvelope();
  envelope.client_info.custom_data = payload;
  const nlohmann::json json = ToJson(envelope);
  EXPECT_FALSE(json.contains("payload"));
  const std::string hex = json["payload_hex"];
  EXPECT_EQ(hex.substr(hex.size() - 14), "03000000610062");
}

}  // namespace
