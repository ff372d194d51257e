// The messages that this router answers itself.
#include "routing/Dispatcher.h"
#include "envelope/Settings.h"

#include <fstream>

#include "config/Configuration.h"
#include "dispatcher_fixture.h"
#include "envelope/EnvelopeStore.h"
#include "support/NoDescriptors.h"

namespace TestSupport {
namespace {

using MessageRouter::GetConfigString;

constexpr std::int64_t kTimeout = 43200;

class ManagementTest : public DispatcherTest {
 protected:
  // The status that is told of a name.
  BrelixMessaging::RouterClient StatusOf(const std::string& name) {
    auto answer = AnswerTo(AMessage("EM-GetClientStatus", NoRole()).WithData(TextPayload(name)));
    BrelixMessaging::RouterClient status;
    if (!answer) {
      ADD_FAILURE() << "no answer";
      return status;
    }
    CORBA::Any any;
    answer->GetData(any);
    const BrelixMessaging::RouterClient* found = nullptr;
    if (any >>= found) {
      status = *found;
    } else {
      ADD_FAILURE() << "no status";
    }
    return status;
  }
  void ExpectUnknown(const Envelope& message) {
    auto answer = AnswerTo(message);
    ASSERT_TRUE(answer) << message.Type();
    EXPECT_EQ(answer->Type(), "MS-UnknownMessageType");
    EXPECT_EQ(PayloadOf(*answer), message.Type());
    EXPECT_EQ(answer->Ttl(), clock_.WallSeconds() + kTimeout);
  }
};

// Answers

TEST_F(ManagementTest, AnAnswerGoesToTheOriginatorWithThePriorityOfItsMessage) {
  auto answer = AnswerTo(AMessage("EM-NotifyClientUpdates", NoRole()).WithPriority(0xFFFFFFFF));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Destination(), "router1.asker");
  EXPECT_EQ(answer->Priority(), 0xFFFFFFFFu);
  EXPECT_EQ(answer->Originator(), "router1");
  EXPECT_EQ(answer->GetOriginatorCert(), "router's certificate");
  EXPECT_EQ(answer->Options(), "");
}

TEST_F(ManagementTest, EveryAnswerGoesBackToTheAskerWithThePriorityOfItsMessage) {
  struct Case {
    const char* type;
    const char* reply;
    const char* text;
  };
  const Case cases[] = {
      {"EM-GetClientStatus", "EM-GetClientStatus-Reply", "asker"},
      {"EM-GetClientStatus", "EM-GetClientStatus-Reply", "nobody"},
      {"EM-GetClientStatus", "MS-BadMessageFormat", ""},
      {"EM-Heartbeat", "EM-Heartbeat-Reply", ""},
      {"EM-NotifyClientUpdates", "EM-NotifyClientUpdates-Reply", ""},
      {"EM-NotifyRouterUpdates", "EM-NotifyRouterUpdates-Reply", ""},
      {"EM-Nothing", "MS-UnknownMessageType", ""},
      {"MS-Nothing", "MS-UnknownMessageType", ""},
      {"Certification.Nothing", "MS-UnknownMessageType", ""},
      {"Nothing", "MS-UnknownMessageType", ""},
  };
  std::uint32_t priority = 17;
  for (const Case& c : cases) {
    ++priority;
    auto answer = AnswerTo(AMessage(c.type, CertificateWith({1, 2}))
                               .WithPriority(priority)
                               .WithData(TextPayload(c.text)));
    ASSERT_TRUE(answer) << c.type;
    EXPECT_EQ(answer->Type(), c.reply) << c.type;
    EXPECT_EQ(answer->Priority(), priority) << c.type;
    EXPECT_EQ(answer->Destination(), "router1.asker") << c.type;
    EXPECT_EQ(answer->Originator(), "router1") << c.type;
  }
}

TEST_F(ManagementTest, AHeartbeatWithTtl0GetsAnAnswerThatNeverExpiresAndOthersLive43200Seconds) {
  auto beat = AnswerTo(AMessage("EM-Heartbeat", ManagementRole()).WithTtl(0));
  ASSERT_TRUE(beat);
  EXPECT_EQ(beat->Ttl(), 0);
  auto other = AnswerTo(AMessage("EM-NotifyRouterUpdates", ManagementRole()).WithTtl(0));
  ASSERT_TRUE(other);
  EXPECT_EQ(other->Ttl(), clock_.WallSeconds() + kTimeout);
}

TEST_F(ManagementTest, AnAnswerLivesAsLongAsTheRoutersOwnMessagesDo) {
  LetOwnMessagesLive(17);
  for (const char* type : {"EM-GetClientStatus", "EM-NotifyClientUpdates", "EM-Nothing", "Foo"}) {
    auto answer = AnswerTo(AMessage(type, ManagementRole()).WithTtl(clock_.WallSeconds() + 5));
    ASSERT_TRUE(answer) << type;
    EXPECT_EQ(answer->Ttl(), clock_.WallSeconds() + 17) << type;
  }
}

TEST_F(ManagementTest, AHeartbeatsAnswerExpiresWhenTheHeartbeatDoes) {
  for (const std::int64_t ttl : {clock_.WallSeconds() + 17, clock_.WallSeconds() - 5}) {
    auto answer = AnswerTo(AMessage("EM-Heartbeat", ManagementRole()).WithTtl(ttl));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->Ttl(), ttl);
  }
}

TEST_F(ManagementTest, AnAnswerToNobodyIsUnrouteableAndTheMessageIsDone) {
  Arrive(AMessage("EM-NotifyClientUpdates", NoRole()).WithOriginator("gone.asker"));
  EXPECT_TRUE(log_.Contains("Cannot route message to gone"));
}

// GetClientStatus

TEST_F(ManagementTest, GetClientStatusTellsWhatTheTableKnowsOfAClient) {
  LogonPushed(AClient("agent"));
  const auto status = StatusOf("agent");
  EXPECT_STREQ(status.name, "agent");
  EXPECT_FALSE(status.isRouter);
  EXPECT_FALSE(status.isParent);
  EXPECT_TRUE(status.isLoggedOn);
  EXPECT_TRUE(status.isPassiveConsumer);
  EXPECT_TRUE(Logged("EM-GetClientStatus agent originator router1.asker\n"));
}

TEST_F(ManagementTest, GetClientStatusTellsWhatTheTableKnowsOfARouterAndTheParent) {
  ARouter("child");
  const auto child = StatusOf("child");
  EXPECT_TRUE(child.isRouter);
  EXPECT_FALSE(child.isParent);
  EXPECT_FALSE(child.isLoggedOn);
  EXPECT_FALSE(child.isPassiveConsumer);
  table_.AddParent("");
  table_.SetParentName("boss");
  const auto boss = StatusOf("boss");
  EXPECT_TRUE(boss.isRouter);
  EXPECT_TRUE(boss.isParent);
}

TEST_F(ManagementTest, GetClientStatusIsAnsweredUnderItsReplyType) {
  auto answer = AnswerTo(AMessage("EM-GetClientStatus", NoRole()).WithData(TextPayload("asker")));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Type(), "EM-GetClientStatus-Reply");
}

TEST_F(ManagementTest, GetClientStatusOfANameThatIsNotRegisteredHasAnEmptyPayload) {
  AClient("known");
  table_.Unregister("known");
  for (const char* name : {"known", "never seen", "router1", "a.b", "a,b", "a\nb", "\xff"}) {
    auto answer = AnswerTo(AMessage("EM-GetClientStatus", NoRole()).WithData(TextPayload(name)));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->Type(), "EM-GetClientStatus-Reply");
    EXPECT_EQ(PayloadOf(*answer), "(empty)") << name;
  }
}

TEST_F(ManagementTest, GetClientStatusOfAHugeNameHasAnEmptyPayload) {
  const std::string name(1 << 20, 'n');
  auto answer = AnswerTo(AMessage("EM-GetClientStatus", NoRole()).WithData(TextPayload(name)));
  ASSERT_TRUE(answer);
  EXPECT_EQ(PayloadOf(*answer), "(empty)");
}

TEST_F(ManagementTest, GetClientStatusWithoutANameIsBadlyFormatted) {
  std::vector<CORBA::Any> payloads = OtherPayloads();
  payloads.push_back(TextPayload(""));
  payloads.push_back(ListPayload({"asker"}));
  for (const CORBA::Any& payload : payloads) {
    log_.Clear();
    auto answer = AnswerTo(AMessage("em-getclientstatus", NoRole()).WithData(payload));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->Type(), "MS-BadMessageFormat");
    EXPECT_EQ(PayloadOf(*answer), "em-getclientstatus");
    EXPECT_EQ(answer->Ttl(), clock_.WallSeconds() + kTimeout);
    EXPECT_TRUE(Logged("EM-GetClientStatus - Badly formatted message originator router1.asker\n"));
  }
}

// Subscriptions

TEST_F(ManagementTest, NotifyClientUpdatesNeedsNoRoleAndSubscribesTheOriginator) {
  auto answer = AnswerTo(AMessage("EM-NotifyClientUpdates", "").WithData(TextPayload("ignored")));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Type(), "EM-NotifyClientUpdates-Reply");
  EXPECT_EQ(PayloadOf(*answer), "(empty)");
  EXPECT_TRUE(Logged("EM-NotifyClientUpdates originator router1.asker\n"));
  EXPECT_EQ(GetConfigString("NotifyClientUpdate", ""), "router1.asker");
  EXPECT_EQ(GetConfigString("NotifyRouterUpdate", "unset"), "unset");
}

TEST_F(ManagementTest, NotifyRouterUpdatesNeedsTheManagementRole) {
  EXPECT_FALSE(AnswerTo(AMessage("EM-NotifyRouterUpdates", RouterRole())));
  EXPECT_TRUE(Logged(
      "Management message (EM-NotifyRouterUpdates) UNAUTHORISED originator router1.asker\n"));
  EXPECT_EQ(GetConfigString("NotifyRouterUpdate", "unset"), "unset");
  auto answer = AnswerTo(AMessage("EM-NotifyRouterUpdates", ManagementRole()));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Type(), "EM-NotifyRouterUpdates-Reply");
  EXPECT_EQ(PayloadOf(*answer), "(empty)");
  EXPECT_TRUE(Logged("EM-NotifyRouterUpdates originator router1.asker\n"));
  EXPECT_EQ(GetConfigString("NotifyRouterUpdate", ""), "router1.asker");
}

TEST_F(ManagementTest, ASubscriberWhoseAddressIsTooLongIsToldThatItIsRefused) {
  // Such an address still leads to the asker.
  const std::string longest = "router1.asker" + std::string(4096 - 13, '.');
  for (const char* type : {"EM-NotifyClientUpdates", "EM-NotifyRouterUpdates"}) {
    log_.Clear();
    auto refused = AnswerTo(AMessage(type, ManagementRole()).WithOriginator(longest + "."));
    ASSERT_TRUE(refused) << type;
    EXPECT_EQ(refused->Type(), "MS-BadMessageFormat");
    EXPECT_EQ(PayloadOf(*refused), type);
    EXPECT_TRUE(log_.Contains(std::string(type) + " - Badly formatted message originator "));
    auto accepted = AnswerTo(AMessage(type, ManagementRole()).WithOriginator(longest));
    ASSERT_TRUE(accepted) << type;
    EXPECT_EQ(accepted->Type(), std::string(type) + "-Reply");
  }
}

TEST_F(ManagementTest, TypesAreKnownInAnyCase) {
  struct Case {
    const char* type;
    const char* reply;
  };
  const Case cases[] = {
      {"em-getclientstatus", "EM-GetClientStatus-Reply"},
      {"EM-GETCLIENTSTATUS", "EM-GetClientStatus-Reply"},
      {"eM-notifyClientupdates", "EM-NotifyClientUpdates-Reply"},
      {"Em-NOTIFYROUTERUPDATES", "EM-NotifyRouterUpdates-Reply"},
      {"CERTIFICATION.foo", "MS-UnknownMessageType"},
  };
  for (const Case& c : cases) {
    auto answer = AnswerTo(AMessage(c.type, ManagementRole()).WithData(TextPayload("asker")));
    ASSERT_TRUE(answer) << c.type;
    EXPECT_EQ(answer->Type(), c.reply) << c.type;
  }
  EXPECT_EQ(log_.Count("Certification message (CERTIFICATION.foo) unknown, originator"), 1u);
}

TEST_F(ManagementTest, TheParentHasItsStatusUnderItsFormerNamesToo) {
  table_.AddParent("");
  table_.SetParentName("boss");
  table_.SetParentName("chief");
  EXPECT_TRUE(StatusOf("chief").isParent);
  const auto former = StatusOf("boss");
  EXPECT_STREQ(former.name, "boss");
  EXPECT_TRUE(former.isParent);
}

TEST_F(ManagementTest, AClientThatFetchesItsMessagesIsLoggedOnAndNoPassiveConsumer) {
  LogonPulling(AClient("agent"));
  const auto status = StatusOf("agent");
  EXPECT_TRUE(status.isLoggedOn);
  EXPECT_FALSE(status.isPassiveConsumer);
}

TEST_F(ManagementTest, GetClientStatusOfANewcomerThatOnlyWantsACertificateHasAnEmptyPayload) {
  table_.AddCertificationEntry("newcomer");
  table_.Find("newcomer")->LogonCertification("newcomer");
  ASSERT_TRUE(table_.Find("newcomer")->IsLoggedOn());
  auto answer =
      AnswerTo(AMessage("EM-GetClientStatus", NoRole()).WithData(TextPayload("newcomer")));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Type(), "EM-GetClientStatus-Reply");
  EXPECT_EQ(PayloadOf(*answer), "(empty)");
}

// Roles

TEST_F(ManagementTest, ManagementMessagesWithoutTheRoleGetNoAnswer) {
  const std::string certificates[] = {NoRole(), RouterRole(),     CertificateWith({0}),
                                      "",       "no certificate", std::string(100000, 'x')};
  for (const char* type : {"EM-Heartbeat", "EM-DoAction", "EM", "EMx", "EM-Heartbeat-Reply"}) {
    for (const std::string& certificate : certificates) {
      log_.Clear();
      EXPECT_FALSE(AnswerTo(AMessage(type, certificate))) << type;
      EXPECT_TRUE(Logged("Management message (" + std::string(type) +
                         ") UNAUTHORISED originator router1.asker\n"));
    }
  }
}

TEST_F(ManagementTest, AnExpiredCertificateStillHasItsRole) {
  TestCa ca;
  IssueOptions expired;
  expired.days = -1;
  EXPECT_TRUE(AnswerTo(AMessage("EM-Heartbeat", ca.Issue("x", {2}, expired).certificatePem)));
}

// Heartbeat and types

TEST_F(ManagementTest, EmHeartbeatInSmallLettersIsAHeartbeat) {
  for (const char* type : {"em-heartbeat", "EM-Heartbeat", "eM-HEARTBEAT"}) {
    log_.Clear();
    auto answer = AnswerTo(AMessage(type, ManagementRole()));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->Type(), "EM-Heartbeat-Reply");
    EXPECT_EQ(PayloadOf(*answer), "(empty)");
    EXPECT_TRUE(Logged("EM-Heartbeat originator router1.asker\n"));
  }
}

TEST_F(ManagementTest, EmHeartbeatNowFromAHolderOfTheRoleIsUnknown) {
  ExpectUnknown(AMessage("EM-Heartbeat-Now", ManagementRole()));
  EXPECT_TRUE(
      Logged("Management message (EM-Heartbeat-Now) - unknown, originator router1.asker\n"));
}

TEST_F(ManagementTest, AllOtherManagementTypesFromAHolderOfTheRoleAreUnknown) {
  for (const char* type : {"EM-DoAction", "EM-SetConfiguration", "EM-Heartbeat-Reply", "EM", "EM-",
                           "EMHeartbeat", "EM-GetClientStatus-x", "EM-NotifyClientUpdates-x",
                           "EM-Heartbeats", "em-\xff", "EM-a,b.c"}) {
    ExpectUnknown(AMessage(type, ManagementRole()).WithData(TextPayload("asker")));
  }
}

TEST_F(ManagementTest, ACertificationMessageThatEndsHereIsUnknown) {
  for (const char* type : {"Certification.Foo", "Certification.CertRequest", "certification"}) {
    ExpectUnknown(AMessage(type, NoRole()));
    EXPECT_TRUE(Logged("Certification message (" + std::string(type) +
                       ") unknown, originator router1.asker\n"));
  }
}

TEST_F(ManagementTest, AnythingElseIsUnknownToo) {
  for (const char* type : {"", "Foo", "E", "M", "Certificatio", "-MS", " EM-Heartbeat"}) {
    ExpectUnknown(AMessage(type, NoRole()));
    EXPECT_TRUE(
        Logged("Unknown Message type (" + std::string(type) + ") originator router1.asker\n"));
  }
}

// System messages

TEST_F(ManagementTest, SystemMessagesNeedTheRouterRole) {
  for (const char* type : {"MS-DeliveryFailed", "MS-UnknownMessageType", "MS-RouterRegistered",
                           "MS-RouterUnregistered", "MS-Foo", "ms"}) {
    for (const std::string& certificate : {NoRole(), ManagementRole(), std::string("rubbish")}) {
      log_.Clear();
      EXPECT_FALSE(AnswerTo(AMessage(type, certificate).WithData(TextPayload("leaf")))) << type;
      EXPECT_TRUE(Logged("System message (" + std::string(type) +
                         ") UNAUTHORISED originator router1.asker\n"));
    }
  }
}

TEST_F(ManagementTest, MsDeliveryFailedIsLoggedWithItsTypeAndMsUnknownMessageTypeByItsNameAlone) {
  struct Case {
    const char* type;
    const char* logged;
  };
  const Case cases[] = {
      {"MS-DeliveryFailed", "MS-MS-DeliveryFailed"},
      {"MS-DeliveryFailed-Timeout", "MS-MS-DeliveryFailed-Timeout"},
      {"ms-deliveryfailed", "MS-ms-deliveryfailed"},
      {"MS-UnknownMessageType", "MS-UnknownMessageType"},
      {"MS-UnknownMessageType-more", "MS-UnknownMessageType"},
      {"ms-unknownmessagetype", "MS-UnknownMessageType"},
  };
  for (const Case& c : cases) {
    log_.Clear();
    EXPECT_FALSE(AnswerTo(AMessage(c.type, RouterRole()))) << c.type;
    EXPECT_TRUE(Logged(std::string(c.logged) + " originator router1.asker\n")) << c.type;
  }
}

TEST_F(ManagementTest, OtherSystemMessagesAreNotImplemented) {
  for (const char* type : {"MS-Foo", "MS", "MS-", "MS-RouterRegistered-x", "MSx",
                           "MS-RouterUnregistered-Reply", "MS-BadMessageFormat"}) {
    ExpectUnknown(AMessage(type, RouterRole()).WithData(TextPayload("leaf")));
    EXPECT_TRUE(Logged("System message (" + std::string(type) +
                       ") - not implemented originator router1.asker\n"));
  }
}

// The log

TEST_F(ManagementTest, NoTextOfAnOriginatorsMakesALineOfItsOwn) {
  Arrive(AMessage("EM-GetClientStatus", NoRole()).WithData(TextPayload("a\nb\r\x1b\x7f")));
  EXPECT_TRUE(Logged("EM-GetClientStatus a?b??? originator router1.asker\n"));
  Arrive(AMessage("a\nb", NoRole()).WithOriginator("c\nd"));
  EXPECT_TRUE(Logged("Unknown Message type (a?b) originator c?d\n"));
}

TEST_F(ManagementTest, EachMessageIsOneLineAndThatStandsBeforeTheAnswerIsMade) {
  struct Case {
    const char* type;
    const char* text;
    bool answered;
  };
  const Case cases[] = {
      {"EM-GetClientStatus", "asker", true},
      {"EM-GetClientStatus", "", true},
      {"EM-NotifyClientUpdates", "", true},
      {"EM-NotifyRouterUpdates", "", true},
      {"EM-Heartbeat", "", true},
      {"EM-Nothing", "", true},
      {"MS-DeliveryFailed", "", false},
      {"MS-UnknownMessageType", "", false},
      {"MS-RouterRegistered", "leaf", false},
      {"MS-RouterUnregistered", "leaf", false},
      {"MS-Nothing", "", true},
      {"Certification.Nothing", "", true},
      {"Nothing", "", true},
  };
  for (const Case& c : cases) {
    const Envelope message =
        AMessage(c.type, CertificateWith({1, 2})).WithData(TextPayload(c.text));
    log_.Clear();
    const auto told = [this] { return log_.Contains(" originator router1.asker\n"); };
    StoreThatLooks looks(*this, told);
    EXPECT_EQ(AnswerTo(message).has_value(), c.answered) << c.type;
    EXPECT_EQ(looks.Seen(), std::vector<bool>(c.answered ? 1 : 0, true)) << c.type;
    EXPECT_EQ(log_.Count(" originator "), 1u) << c.type;
    EXPECT_EQ(log_.Count("\n"), log_.Lines().size()) << c.type;
  }
}

TEST_F(ManagementTest, AnUnauthorisedMessageIsOneLineToo) {
  for (const char* type : {"EM-Heartbeat", "EM-Nothing", "MS-RouterRegistered", "MS-Nothing"}) {
    log_.Clear();
    EXPECT_FALSE(AnswerTo(AMessage(type, NoRole())));
    EXPECT_EQ(log_.Count(" originator "), 1u) << type;
    EXPECT_EQ(log_.Count("UNAUTHORISED"), 1u) << type;
  }
}

TEST_F(ManagementTest, AHugeNameIsCutInTheLine) {
  const std::string name(5000, 'n');
  Arrive(AMessage("EM-GetClientStatus", NoRole()).WithData(TextPayload(name)));
  EXPECT_TRUE(
      Logged("EM-GetClientStatus " + name.substr(0, 1024) + "... originator router1.asker\n"));
}

TEST_F(ManagementTest, AHugeTextIsCutInTheLineAndAnsweredWhole) {
  const std::string type = "EM-" + std::string(5000, 'x');
  ExpectUnknown(AMessage(type, ManagementRole()));
  EXPECT_TRUE(Logged("Management message (" + type.substr(0, 1024) +
                     "...) - unknown, originator router1.asker\n"));
}

// Damage

TEST_F(ManagementTest, APayloadThatCannotBeDecodedLeavesTheRouteThreadAndItsFileStays) {
  for (const char* type : {"EM-GetClientStatus", "MS-RouterRegistered", "MS-RouterUnregistered"}) {
    const Envelope message = AStoredEnvelope("1.msg")
                                 .WithDestination(":")
                                 .WithType(type)
                                 .WithCertificate(RouterRole())
                                 .WithDataText("12000000ffffffff");
    EXPECT_THROW(Route(message), std::runtime_error) << type;
    EXPECT_TRUE(FileExists("1.msg"));
  }
}

TEST_F(ManagementTest, AMessageWhoseFileCannotBeOpenedForNowIsTheNextOneAgain) {
  Envelope question;
  question.CreateLocal(":", 9, MessageRouter::TimeToLive::Stated(60), "EM-Unknown", CORBA::Any(),
                       "");
  routing_.QueueForRouting(question);
  routing_.QueueForRouting(AMessage("EM-GetClientStatus", NoRole()));
  {
    const NoDescriptors none;
    routing_.RouteNext(0, 0);
  }
  EXPECT_TRUE(log_.Contains("Routing::RouteNext: Caught The envelope file "));
  EXPECT_EQ(routing_.RouteQueueSize(), 2u);
  log_.Clear();
  routing_.RouteNext(0, 0);
  EXPECT_TRUE(log_.Contains("Management message (EM-Unknown) UNAUTHORISED"));
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);
}

TEST_F(ManagementTest, AStoredMessageToThisRouterThatCannotBeDecodedIsSetAsideAtTheNextStart) {
  struct Case {
    const char* file;
    const char* destination;
    const char* data;
    bool loaded;
  };
  const Case cases[] = {
      {"00000001.msg", ":", "12000000ffffffff", false},
      {"00000002.msg", "router1", "12000000ffffffff", false},
      {"00000003.msg", "router1", "00000000", true},
      {"00000004.msg", "agent", "12000000ffffffff", true},
      {"00000005.msg", "router1.agent", "12000000ffffffff", true},
  };
  for (const Case& c : cases) {
    std::ofstream(store_.Directory() + c.file)
        << "[Originator] router1.asker\n[PhysicalDestination] " << c.destination
        << "\n[Type] EM-GetClientStatus\n[Data] " << c.data << "\n";
  }
  std::vector<Envelope> envelopes;
  MessageRouter::LoadPersistentEnvelopes(envelopes);
  EXPECT_EQ(envelopes.size(), 3u);
  for (const Case& c : cases) {
    EXPECT_EQ(FileExists(c.file), c.loaded) << c.file;
    EXPECT_EQ(FileExists(std::string(c.file) + ".bad"), !c.loaded) << c.file;
  }
  EXPECT_TRUE(log_.Contains("for value: \"Data.\" Error: Encoding::DecodeAny failed"));
}

TEST_F(ManagementTest, AnOriginatorThatNoEnvelopeCanBeSentToIsAnErrorLine) {
  Arrive(AMessage("EM-Heartbeat", ManagementRole()).WithOriginator("a\n[Type] b"));
  EXPECT_TRUE(log_.Contains("Dispatcher::Send: Caught "));
  EXPECT_TRUE(log_.Contains(" EM-Heartbeat-Reply for a?[Type] b\n"));
  EXPECT_FALSE(asker_.HasEnvelopes());
}

TEST_F(ManagementTest, AReplyThatWouldBeTooLargeIsNotMadeAndTheQuestionIsOver) {
  std::string farAway = "router1.asker";
  for (int i = 0; i < 500; ++i) farAway += ".a";
  MessageRouter::Settings::SetLargest({4000, 4000});
  const std::pair<std::string, std::string> questions[] = {
      {"EM-Heartbeat", farAway}, {"EM-" + std::string(4000, 'x'), "router1.asker"}};
  for (const auto& [type, originator] : questions) {
    log_.Clear();
    Arrive(AStoredEnvelope("1.msg")
               .WithDestination(":")
               .WithType(type)
               .WithOriginator(originator)
               .WithCertificate(ManagementRole()));
    EXPECT_TRUE(log_.Contains("Dispatcher::Send: Caught An envelope of ")) << originator;
    EXPECT_FALSE(asker_.HasEnvelopes());
    EXPECT_FALSE(FileExists("1.msg"));
  }
}

TEST_F(ManagementTest, APayloadsTextIsEmptyForAnyOtherType) {
  for (const CORBA::Any& payload : OtherPayloads()) {
    Envelope envelope = AnEnvelope().WithData(payload);
    EXPECT_EQ(MessageRouter::PayloadAsString(envelope), "");
  }
  Envelope envelope = AnEnvelope().WithData(TextPayload("text"));
  EXPECT_EQ(MessageRouter::PayloadAsString(envelope), "text");
}

}  // namespace
}  // namespace TestSupport
