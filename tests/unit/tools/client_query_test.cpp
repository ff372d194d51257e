#include "client_library/Query.h"

#include <gtest/gtest.h>

#include "broker/Encoding.h"

namespace {

using ClientLibrary::AsMessage;
using ClientLibrary::IsAnswer;
using ClientLibrary::IsRefusal;
using ClientLibrary::Query;
using std::chrono::milliseconds;

class ClientQuery : public testing::Test {
 protected:
  static void SetUpTestSuite() { Encoding::InitializeCodec(); }

  static BrelixMessaging::Envelope AnAnswer(const char* type) {
    BrelixMessaging::Envelope envelope;
    envelope.originator = "router";
    envelope.client_info.type = type;
    return envelope;
  }
  static BrelixMessaging::Envelope AStatus(const char* name) {
    BrelixMessaging::Envelope envelope = AnAnswer("EM-GetClientStatus-Reply");
    BrelixMessaging::RouterClient client;
    client.name = name;
    envelope.client_info.custom_data <<= client;
    return envelope;
  }
  static BrelixMessaging::Envelope ARefusal(const char* type, const char* of) {
    BrelixMessaging::Envelope envelope = AnAnswer(type);
    envelope.client_info.custom_data <<= of;
    return envelope;
  }
};

TEST_F(ClientQuery, IsAMessageToTheRouterItselfAheadOfAllOthers) {
  const BrelixMessaging::Message message =
      AsMessage(Query::ClientStatus("agent-1"), milliseconds(2500));
  EXPECT_STREQ(message.destination, ":");
  EXPECT_STREQ(message.type, "EM-GetClientStatus");
  EXPECT_EQ(static_cast<std::uint32_t>(message.prio), 0xFFFFFFFFu);
  EXPECT_EQ(message.ttl, 3);
  const char* name = nullptr;
  ASSERT_TRUE(message.custom_data >>= name);
  EXPECT_STREQ(name, "agent-1");
}

TEST_F(ClientQuery, HasATypeForEachQuestion) {
  EXPECT_EQ(Query::Heartbeat().type, "EM-Heartbeat");
  EXPECT_EQ(Query::ClientUpdates().type, "EM-NotifyClientUpdates");
  EXPECT_EQ(Query::RouterUpdates().type, "EM-NotifyRouterUpdates");
}

TEST_F(ClientQuery, IsAnsweredByItsReplyFromTheRouterAlone) {
  const Query query = Query::Heartbeat();
  EXPECT_TRUE(IsAnswer(AnAnswer("EM-Heartbeat-Reply"), query, "router"));
  EXPECT_FALSE(IsAnswer(AnAnswer("EM-Heartbeat-Reply"), query, "another"));
  EXPECT_FALSE(IsAnswer(AnAnswer("EM-Heartbeat"), query, "router"));
  EXPECT_FALSE(IsAnswer(AnAnswer("EM-ClientLogon"), query, "router"));
  EXPECT_FALSE(IsAnswer(AnAnswer("EM-GetClientStatus-Reply"), query, "router"));
}

TEST_F(ClientQuery, AStatusAnswersTheQuestionForThatNameAndAnEmptyOneAnyQuestion) {
  const Query query = Query::ClientStatus("agent-1");
  EXPECT_TRUE(IsAnswer(AStatus("agent-1"), query, "router"));
  EXPECT_FALSE(IsAnswer(AStatus("agent-2"), query, "router"));
  EXPECT_TRUE(IsAnswer(AnAnswer("EM-GetClientStatus-Reply"), query, "router"));
}

TEST_F(ClientQuery, ARefusalAnswersTheTypeThatItNames) {
  for (const char* type : {"MS-UnknownMessageType", "MS-BadMessageFormat"}) {
    EXPECT_TRUE(IsRefusal(ARefusal(type, "EM-Heartbeat")));
    EXPECT_TRUE(IsAnswer(ARefusal(type, "EM-Heartbeat"), Query::Heartbeat(), "router"));
    EXPECT_FALSE(IsAnswer(ARefusal(type, "EM-Other"), Query::Heartbeat(), "router"));
    EXPECT_FALSE(IsAnswer(AnAnswer(type), Query::Heartbeat(), "router"));
  }
  EXPECT_FALSE(IsRefusal(AnAnswer("EM-Heartbeat-Reply")));
}

}  // namespace
