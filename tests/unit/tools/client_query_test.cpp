#include "client_library/Query.h"

#include <gmock/gmock.h>

#include <deque>
#include <memory>
#include <set>
#include <vector>

#include "broker/Encoding.h"
#include "client_library/Failure.h"
#include "support/FakeClock.h"

namespace {

using ClientLibrary::AsMessage;
using ClientLibrary::Failure;
using ClientLibrary::IsAnswer;
using ClientLibrary::IsAnyAnswer;
using ClientLibrary::IsRefusal;
using ClientLibrary::Outcome;
using ClientLibrary::Query;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class ClientQuery : public testing::Test {
 protected:
  static void SetUpTestSuite() { Encoding::InitializeCodec(); }

  static BrelixMessaging::Envelope AnAnswer(const std::string& type,
                                            std::uint32_t priority = Query::kLowestPriority) {
    BrelixMessaging::Envelope envelope;
    envelope.originator = "router";
    envelope.client_info.type = type.c_str();
    envelope.client_info.prio = static_cast<CORBA::Long>(priority);
    return envelope;
  }
  // A question whose priority is that of the answers above.
  static Query Asked(Query query) {
    query.priority = Query::kLowestPriority;
    return query;
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
  EXPECT_GE(static_cast<std::uint32_t>(message.prio), Query::kLowestPriority);
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
  const Query query = Asked(Query::Heartbeat());
  EXPECT_TRUE(IsAnswer(AnAnswer("EM-Heartbeat-Reply"), query, "router"));
  EXPECT_FALSE(IsAnswer(AnAnswer("EM-Heartbeat-Reply"), query, "another"));
  EXPECT_FALSE(IsAnswer(AnAnswer("EM-Heartbeat"), query, "router"));
  EXPECT_FALSE(IsAnswer(AnAnswer("EM-ClientLogon"), query, "router"));
  EXPECT_FALSE(IsAnswer(AnAnswer("EM-GetClientStatus-Reply"), query, "router"));
}

TEST_F(ClientQuery, AStatusAnswersTheQuestionForThatNameAndAnEmptyOneAnyQuestion) {
  const Query query = Asked(Query::ClientStatus("agent-1"));
  EXPECT_TRUE(IsAnswer(AStatus("agent-1"), query, "router"));
  EXPECT_FALSE(IsAnswer(AStatus("agent-2"), query, "router"));
  EXPECT_TRUE(IsAnswer(AnAnswer("EM-GetClientStatus-Reply"), query, "router"));
}

TEST_F(ClientQuery, ARefusalAnswersTheTypeThatItNames) {
  for (const char* type : {"MS-UnknownMessageType", "MS-BadMessageFormat"}) {
    EXPECT_TRUE(IsRefusal(ARefusal(type, "EM-Heartbeat")));
    EXPECT_TRUE(IsAnswer(ARefusal(type, "EM-Heartbeat"), Asked(Query::Heartbeat()), "router"));
    EXPECT_FALSE(IsAnswer(ARefusal(type, "EM-Other"), Asked(Query::Heartbeat()), "router"));
    EXPECT_FALSE(IsAnswer(AnAnswer(type), Asked(Query::Heartbeat()), "router"));
  }
  EXPECT_FALSE(IsRefusal(AnAnswer("EM-Heartbeat-Reply")));
}

TEST_F(ClientQuery, HasAPriorityOfItsOwn) {
  std::set<std::uint32_t> priorities;
  for (int i = 0; i < 100; ++i) priorities.insert(Query::Heartbeat().priority);
  EXPECT_GT(priorities.size(), 90u);
  EXPECT_GE(*priorities.begin(), Query::kLowestPriority);
}

TEST_F(ClientQuery, IsNotAnsweredByWhatHasAnotherPriority) {
  const Query query = Asked(Query::Heartbeat());
  for (const std::uint32_t priority : {0u, 5u, query.priority - 1, query.priority + 1}) {
    EXPECT_FALSE(IsAnswer(AnAnswer("EM-Heartbeat-Reply", priority), query, "router")) << priority;
  }
}

TEST_F(ClientQuery, AnAnswerToSomeQuestionIsAReplyOrRefusalOfTheRoutersWithAQuestionsPriority) {
  struct Case {
    const char* type;
    std::uint32_t priority;
    const char* router;
    bool answer;
  };
  const Case cases[] = {
      {"EM-GetClientStatus-Reply", 0xFFFFFFFF, "router", true},
      {"EM-NotifyClientUpdates-Reply", 0xFF000000, "router", true},
      {"MS-UnknownMessageType", 0xFF123456, "router", true},
      {"MS-BadMessageFormat", 0xFF123456, "router", true},
      {"EM-GetClientStatus-Reply", 0xFFFFFFFF, "another", false},
      {"EM-GetClientStatus-Reply", 0xFEFFFFFF, "router", false},
      {"EM-GetClientStatus-Reply", 0, "router", false},
      {"EM-ClientLogon", 0xFFFFFFFF, "router", false},
      {"MS-RouterRegistered", 0xFFFFFFFF, "router", false},
      {"Any-Reply", 0xFFFFFFFF, "router", false},
      {"", 0xFFFFFFFF, "router", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(IsAnyAnswer(AnAnswer(c.type, c.priority), c.router), c.answer)
        << c.type << c.priority << c.router;
  }
}

// Asking

// A router with envelopes that wait, highest priority first; it answers a question if it is told
// to.
class FakeRouter : public ClientLibrary::FetchingClient {
 public:
  explicit FakeRouter(TestSupport::FakeClock& clock) : clock_(clock) {}

  std::string RouterName() override { return "router"; }
  void LogonPull(std::function<void()>) override { ++logons; }
  void Logoff() override {
    ++logoffs;
    if (failLogoff) throw Failure(Outcome::Failed, "cannot log off");
  }
  BrelixMessaging::MessageId Send(const BrelixMessaging::Message& message) override {
    if (!answers) return 1;
    BrelixMessaging::Envelope answer;
    answer.originator = "router";
    answer.message_id = 77;
    answer.client_info.type = (std::string(message.type.in()) + "-Reply").c_str();
    answer.client_info.prio = message.prio;
    Wait(answer);
    return 1;
  }
  std::unique_ptr<BrelixMessaging::Envelope> Get() override {
    clock_.Advance(seconds(1));
    if (waiting.empty()) return nullptr;
    return std::make_unique<BrelixMessaging::Envelope>(waiting.front());
  }
  void Acknowledge(const BrelixMessaging::Envelope& envelope) override {
    if (keepsAll) return;
    ASSERT_EQ(envelope.message_id, waiting.front().message_id);
    waiting.pop_front();
  }
  // Of equal priorities the older one comes first.
  void Wait(const BrelixMessaging::Envelope& envelope) {
    const auto priority = [](const BrelixMessaging::Envelope& e) {
      return static_cast<std::uint32_t>(e.client_info.prio);
    };
    auto place = waiting.begin();
    while (place != waiting.end() && priority(*place) >= priority(envelope)) ++place;
    waiting.insert(place, envelope);
  }
  std::vector<int> Waiting() const {
    std::vector<int> ids;
    for (const auto& envelope : waiting) ids.push_back(envelope.message_id);
    return ids;
  }

  std::deque<BrelixMessaging::Envelope> waiting;
  bool answers = true;
  bool failLogoff = false;
  bool keepsAll = false;
  int logons = 0;
  int logoffs = 0;

 private:
  TestSupport::FakeClock& clock_;
};

class AskTest : public ClientQuery {
 protected:
  void AWaiting(int id, const char* type, std::uint32_t priority,
                const char* originator = "router") {
    BrelixMessaging::Envelope envelope = AnAnswer(type, priority);
    envelope.originator = originator;
    envelope.message_id = id;
    router_.Wait(envelope);
  }
  int IdOfAnswer(const Query& query) {
    return ClientLibrary::Ask(router_, query, seconds(100))->message_id;
  }
  // The failure's text.
  std::string TimeOut(const Query& query, milliseconds limit = milliseconds(500)) {
    try {
      ClientLibrary::Ask(router_, query, limit);
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.GetOutcome(), Outcome::TimedOut);
      return failure.what();
    }
    ADD_FAILURE() << "an answer";
    return "";
  }

  TestSupport::FakeClock clock_;
  FakeRouter router_{clock_};
};

TEST_F(AskTest, TheAnswerIsTakenAndTheCallerStaysLoggedOn) {
  EXPECT_EQ(IdOfAnswer(Query::Heartbeat()), 77);
  EXPECT_THAT(router_.Waiting(), IsEmpty());
  EXPECT_EQ(router_.logons, 1);
  EXPECT_EQ(router_.logoffs, 0);
}

TEST_F(AskTest, LateAnswersToOtherQuestionsAreTakenOutOfTheWay) {
  AWaiting(1, "EM-GetClientStatus-Reply", 0xFFFFFFFF);
  AWaiting(2, "EM-NotifyRouterUpdates-Reply", 0xFFFFFFFF);
  AWaiting(3, "MS-UnknownMessageType", 0xFFFFFFFF);
  EXPECT_EQ(IdOfAnswer(Query::Heartbeat()), 77);
  EXPECT_THAT(router_.Waiting(), IsEmpty());
}

TEST_F(AskTest, ALateAnswerToTheSameQuestionIsNotTheAnswer) {
  AWaiting(1, "EM-NotifyClientUpdates-Reply", 0xFFFFFFFF);
  Query query = Query::ClientUpdates();
  query.priority = 0xFFFFFFFE;
  EXPECT_EQ(IdOfAnswer(query), 77);
}

TEST_F(AskTest, WhatIsNoAnswerStaysAlsoIfItHidesTheAnswer) {
  AWaiting(1, "Test", 0xFFFFFFFF, "router.agent-2");
  AWaiting(2, "EM-GetClientStatus-Reply", 5);
  Query query = Query::Heartbeat();
  query.priority = Query::kLowestPriority;
  TimeOut(query);
  EXPECT_THAT(router_.Waiting(), ElementsAre(1, 77, 2));
}

TEST_F(AskTest, WhatWaitsBehindTheAnswerStays) {
  AWaiting(1, "Test", 5, "router.agent-2");
  AWaiting(2, "EM-GetClientStatus-Reply", 6);
  EXPECT_EQ(IdOfAnswer(Query::Heartbeat()), 77);
  EXPECT_THAT(router_.Waiting(), ElementsAre(2, 1));
}

TEST_F(AskTest, WithoutAnAnswerInTimeTheCallerIsLoggedOffAndToldSo) {
  router_.answers = false;
  EXPECT_THAT(TimeOut(Query::Heartbeat()), testing::HasSubstr("no answer to EM-Heartbeat in time"));
  EXPECT_EQ(router_.logoffs, 1);
}

TEST_F(AskTest, AFailedLogOffDoesNotHideThatNoAnswerCame) {
  router_.answers = false;
  router_.failLogoff = true;
  EXPECT_THAT(TimeOut(Query::Heartbeat()), testing::HasSubstr("in time"));
}

TEST_F(AskTest, ARouterThatForgetsNothingIsNotAskedForEver) {
  router_.answers = false;
  router_.keepsAll = true;
  AWaiting(1, "EM-GetClientStatus-Reply", 0xFFFFFFFF);
  TimeOut(Query::Heartbeat(), seconds(10));
  EXPECT_THAT(router_.Waiting(), ElementsAre(1));
}

}  // namespace
