#include <algorithm>

#include "broker/Encoding.h"
#include "envelope/Settings.h"
#include "fixture.h"
#include "logging/Log.h"
#include "security/OwnIdentity.h"
#include "threads/Mutex.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

class EnvelopeCreate : public TestSupport::EnvelopeTest {};

constexpr std::int64_t kMinute = 60;

TEST_F(EnvelopeCreate, AClientsMessageIsStampedQualifiedAndStored) {
  Envelope envelope;
  BrelixMessaging::Message message = AMessage();
  message.destination = "router9..agent-2.";
  message.delivery_options = "slowly";
  envelope.CreateFromClient(message, "agent-1", "agent's certificate");

  EXPECT_FALSE(envelope.FromParent());
  EXPECT_EQ(envelope.Originator(), "router1.agent-1");
  EXPECT_THAT(envelope.PhysicalDestination(), ElementsAre("router9", "agent-2"));
  EXPECT_EQ(envelope.Destination(), "router9..agent-2.");
  EXPECT_EQ(envelope.Priority(), 5u);
  EXPECT_EQ(envelope.Type(), "Status.Report");
  EXPECT_EQ(envelope.Options(), "slowly");
  EXPECT_NE(envelope.MessageId(), 0u);
  ASSERT_EQ(envelope.Stamps().stamps.size(), 2u);
  EXPECT_EQ(envelope.Stamps().stamps[0].name, "agent-1");
  EXPECT_EQ(envelope.Stamps().stamps[0].time, Now());
  EXPECT_EQ(envelope.Stamps().stamps[1].name, "router1");
  EXPECT_EQ(envelope.Stamps().stamps[1].time, Now());
  EXPECT_EQ(envelope.FileName(), Path("00000000.msg"));
  EXPECT_EQ(envelope.PersistentIndex(), 0u);
  EXPECT_EQ(envelope.State(), Envelope::ShrinkState::Shrunk);
  EXPECT_EQ(envelope.GetOriginatorCert(), "agent's certificate");
  CORBA::Any data;
  envelope.GetData(data);
  EXPECT_EQ(AnyText(data), "payload");
  EXPECT_TRUE(log_.Has(kLogTrace, "Incoming message delivery options: slowly\n"));
}

TEST_F(EnvelopeCreate, OptionsThatAreEmptyAreNotLogged) {
  Envelope().CreateFromClient(AMessage(), "agent-1", "");
  EXPECT_FALSE(log_.Contains("delivery options"));
}

TEST_F(EnvelopeCreate, ARoutersEnvelopeKeepsItsIdItsOriginatorItsHopsAndItsStamps) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), true);

  EXPECT_TRUE(envelope.FromParent());
  EXPECT_EQ(envelope.MessageId(), 0x8A0B0C0Du);
  EXPECT_EQ(envelope.Originator(), "router0.agent-1");
  EXPECT_THAT(envelope.PhysicalDestination(), ElementsAre("router1", "agent-2"));
  EXPECT_EQ(envelope.Destination(), "router1.agent-2");
  ASSERT_EQ(envelope.Stamps().stamps.size(), 3u);
  EXPECT_EQ(envelope.Stamps().stamps[0].time, 1352900000);
  EXPECT_EQ(envelope.Stamps().stamps[1].time, 3);
  EXPECT_EQ(envelope.Stamps().stamps[2].name, "router1");
  EXPECT_EQ(envelope.Stamps().stamps[2].time, Now());
  EXPECT_EQ(envelope.GetOriginatorCert(), "agent's certificate");
}

TEST_F(EnvelopeCreate, AStampsTimeAndAPriorityFromTheWireAreWidenedAsTheyShould) {
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.timestamps[0].utc_time = -5;
  wire.client_info.prio = -1;
  Envelope envelope;
  envelope.CreateFromRouter(wire, false);
  EXPECT_EQ(envelope.Stamps().stamps[0].time, -5);
  EXPECT_EQ(envelope.Priority(), 4294967295u);
}

TEST_F(EnvelopeCreate, TheRoutersOwnMessageHasTwoStampsOfItsNameAndItsCertificate) {
  Envelope envelope;
  envelope.CreateLocal(":.:", 7, TimeToLive::Stated(kMinute), "MS-RouterRegistered",
                       TextAny("child"), "");
  EXPECT_EQ(envelope.Originator(), "router1");
  EXPECT_THAT(envelope.PhysicalDestination(), ElementsAre(":", ":"));
  EXPECT_EQ(envelope.Priority(), 7u);
  EXPECT_EQ(envelope.Ttl(), Now() + kMinute);
  ASSERT_EQ(envelope.Stamps().stamps.size(), 2u);
  EXPECT_EQ(envelope.Stamps().stamps[0].name, "router1");
  EXPECT_EQ(envelope.Stamps().stamps[1].name, "router1");
  EXPECT_EQ(envelope.GetOriginatorCert(), "router's certificate");
  EXPECT_THAT(Leaves(), ElementsAre("00000000.msg"));
}

// Time to live

TEST_F(EnvelopeCreate, ATtlOf60IsNowPlus60) {
  Envelope envelope;
  envelope.CreateFromClient(AMessage(), "agent-1", "");
  EXPECT_EQ(envelope.Ttl(), Now() + kMinute);
}

TEST_F(EnvelopeCreate, ATtlInTheFutureKeepsItsTime) {
  BrelixMessaging::Message message = AMessage();
  for (const std::int64_t offset : {0, 1, 1000}) {
    message.ttl = static_cast<CORBA::Long>(Now() + offset);
    Envelope envelope;
    envelope.CreateFromClient(message, "agent-1", "");
    EXPECT_EQ(envelope.Ttl(), Now() + offset);
  }
}

TEST_F(EnvelopeCreate, ATtlOfZeroNeverExpires) {
  BrelixMessaging::Message message = AMessage();
  message.ttl = 0;
  Envelope envelope;
  envelope.CreateFromClient(message, "agent-1", "");
  EXPECT_EQ(envelope.Ttl(), 0);
  EXPECT_FALSE(envelope.IsExpired());
}

TEST_F(EnvelopeCreate, ATtlOfMinusOneIsExpiredAtOnceAndIsStoredAllTheSame) {
  BrelixMessaging::Message message = AMessage();
  message.ttl = -1;
  Envelope envelope;
  envelope.CreateFromClient(message, "agent-1", "");
  EXPECT_TRUE(envelope.IsExpired());
  EXPECT_THAT(Leaves(), ElementsAre("00000000.msg"));
}

TEST_F(EnvelopeCreate, ANegativeTtlStaysExpiredHoweverFarBackItLies) {
  for (const std::int64_t ttl : {-Now(), -Now() - 1, std::int64_t{INT32_MIN}}) {
    BrelixMessaging::Message message = AMessage();
    message.ttl = static_cast<CORBA::Long>(ttl);
    Envelope envelope;
    envelope.CreateFromClient(message, "agent-1", "");
    EXPECT_TRUE(envelope.IsExpired()) << ttl;
    Envelope reloaded(envelope.FileName());
    ASSERT_TRUE(reloaded.FromPersistent());
    EXPECT_TRUE(reloaded.IsExpired()) << ttl;
    const BrelixMessaging::Envelope_var wire = reloaded.ToWire(false);
    EXPECT_LT(wire->client_info.ttl, 0) << ttl;
  }
}

TEST_F(EnvelopeCreate, AnEnvelopeExpiresBehindItsLastSecond) {
  Envelope envelope;
  envelope.CreateFromClient(AMessage(), "agent-1", "");
  clock_.AdvanceWall(60);
  EXPECT_FALSE(envelope.IsExpired());
  clock_.AdvanceWall(1);
  EXPECT_TRUE(envelope.IsExpired());
}

TEST_F(EnvelopeCreate, AStatedTtlBelowThePresentTimeCountsFromNowOnAndAnyOtherIsATime) {
  const struct {
    std::int64_t stated;
    std::int64_t end;
  } cases[] = {
      {0, 0},
      {1, Now() + 1},
      {std::int64_t{1} << 30, Now() + (std::int64_t{1} << 30)},
      {Now() - 1, 2 * Now() - 1},
      {Now(), Now()},
      {Now() + 1, Now() + 1},
      {-1, Now() - 1},
      {-Now(), 1},
      {-Now() - 1, 1},
  };
  for (const auto& c : cases) {
    Envelope envelope;
    envelope.CreateLocal("agent-1", 0, TimeToLive::Stated(c.stated), "EM-NoOp", CORBA::Any(), "");
    EXPECT_EQ(envelope.Ttl(), c.end) << c.stated;
  }
}

TEST_F(EnvelopeCreate, AnAbsoluteTtlThatTheRouterPassesOnStaysAbsoluteWhenItHasPassed) {
  Envelope envelope;
  envelope.CreateLocal("agent-1", 0, TimeToLive::Until(Now() - 10), "EM-Heartbeat-Reply",
                       CORBA::Any(), "");
  EXPECT_EQ(envelope.Ttl(), Now() - 10);
  EXPECT_TRUE(envelope.IsExpired());
}

// Types that only the management may send

TEST_F(EnvelopeCreate, AClientMaySendAManagementCommandIfAndOnlyIfItIsExactlyEM) {
  for (const char* type : {"EM-DoAction", "EM-SetConfiguration", "em-doaction"}) {
    EXPECT_NO_THROW(Envelope().CreateFromClient(AMessage(type), "EM", ""));
    EXPECT_THROW(Envelope().CreateFromClient(AMessage(type), "EM2", ""), BrelixMessaging::Rejected);
    EXPECT_THROW(Envelope().CreateFromClient(AMessage(type), "agent-1", ""),
                 BrelixMessaging::Rejected);
    EXPECT_TRUE(log_.Has(kLogError, std::string("CreateFromClient: Message of type ") + type +
                                        " receieved from unexpected originator: agent-1\n"));
  }
}

TEST_F(EnvelopeCreate, TheOriginatorEmInSmallLettersIsRefused) {
  EXPECT_THROW(Envelope().CreateFromClient(AMessage("EM-DoAction"), "em", ""),
               BrelixMessaging::Rejected);
}

TEST_F(EnvelopeCreate, AManagementCommandWithASuffixPasses) {
  EXPECT_NO_THROW(Envelope().CreateFromClient(AMessage("EM-DoAction-x"), "agent-1", ""));
  EXPECT_NO_THROW(Envelope().CreateFromRouter(AWireEnvelope("EM-DoAction-x"), false));
}

TEST_F(EnvelopeCreate, AManagementCommandComesFromTheParentAlone) {
  for (const char* type : {"EM-DoAction", "em-setconfiguration"}) {
    EXPECT_NO_THROW(Envelope().CreateFromRouter(AWireEnvelope(type), true));
    EXPECT_THROW(Envelope().CreateFromRouter(AWireEnvelope(type), false),
                 BrelixMessaging::Rejected);
    EXPECT_TRUE(log_.Has(kLogError, std::string("CreateFromRouter: Message of type ") + type +
                                        " can only be receieved from the parent\n"));
  }
}

TEST_F(EnvelopeCreate, ARejectedTypeMakesNoFile) {
  EXPECT_THROW(Envelope().CreateFromClient(AMessage("EM-DoAction"), "agent-1", ""),
               BrelixMessaging::Rejected);
  EXPECT_THAT(Leaves(), IsEmpty());
}

// Writes that fail

TEST_F(EnvelopeCreate, APeersMessageThatCannotBeWrittenIsRefusedAndLeavesNothingBehind) {
  store_.failWith = ENOSPC;
  Envelope envelope;
  try {
    envelope.CreateFromRouter(AWireEnvelope(), false);
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Failed to create persistent envelope");
  }
  EXPECT_TRUE(log_.Has(kLogWarning, "WritePersistent( Envelope, id=8A0B0C0D), bad stream\n"));
  EXPECT_FALSE(log_.Contains("Failed to create envelope file"));
  EXPECT_EQ(envelope.FileName(), "");
  EXPECT_THAT(Leaves(), IsEmpty());
  EXPECT_THROW(Envelope().CreateFromClient(AMessage(), "agent-1", ""), std::runtime_error);
}

TEST_F(EnvelopeCreate, TheRouterAcceptsAgainOnceThereIsRoom) {
  store_.failWith = ENOSPC;
  EXPECT_THROW(Envelope().CreateFromClient(AMessage(), "agent-1", ""), std::runtime_error);
  store_.failWith = 0;
  EXPECT_NO_THROW(Envelope().CreateFromClient(AMessage(), "agent-1", ""));
}

TEST_F(EnvelopeCreate, ALocalMessageThatCannotBeWrittenStaysExpandedInMemory) {
  store_.failWith = ENOSPC;
  Envelope envelope;
  envelope.CreateLocal("agent-1", 0, TimeToLive::Until(0), "EM-NoOp", TextAny("kept"), "");
  EXPECT_THAT(log_.Lines().back().text,
              MatchesRegex("WritePersistent\\( Envelope, id=[0-9A-F]+\\), bad stream\n"));
  EXPECT_EQ(envelope.State(), Envelope::ShrinkState::Expanded);
  EXPECT_EQ(envelope.FileName(), "");
  EXPECT_EQ(envelope.GetOriginatorCert(), "router's certificate");
  CORBA::Any data;
  envelope.GetData(data);
  EXPECT_EQ(AnyText(data), "kept");
  log_.Clear();
  envelope.Retire();
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(EnvelopeCreate, AFileThatCannotBeMadeIsNamed) {
  std::filesystem::remove(store_.Directory());
  EXPECT_THROW(Envelope().CreateFromClient(AMessage(), "agent-1", ""), std::runtime_error);
  EXPECT_TRUE(log_.Has(kLogError, "Failed to create envelope file " + Path("00000000.msg") + "\n"));
}

TEST_F(EnvelopeCreate, ANameThatIsTakenMeanwhileLeadsToTheNextIndexInNameAndText) {
  store_.failWith = EEXIST;
  store_.failTimes = 2;
  Envelope envelope;
  envelope.CreateFromClient(AMessage(), "agent-1", "");
  EXPECT_EQ(envelope.FileName(), Path("00000002.msg"));
  EXPECT_EQ(envelope.PersistentIndex(), 2u);
  EXPECT_THAT(ReadBack("00000002.msg"), testing::StartsWith("[PersistentIndex] 2\n"));
}

TEST_F(EnvelopeCreate, WithFiles0And1PresentTheNextFileIs2) {
  WriteFile("00000000.msg", "");
  WriteFile("00000001.msg", "");
  Envelope envelope;
  envelope.CreateFromClient(AMessage(), "agent-1", "");
  EXPECT_EQ(envelope.FileName(), Path("00000002.msg"));
  EXPECT_EQ(envelope.PersistentIndex(), 2u);
}

TEST_F(EnvelopeCreate, FilesThatAppearedMeanwhileAreSkippedHoweverMany) {
  Envelope().CreateFromClient(AMessage(), "agent-1", "");
  for (int i = 1; i < 0x100; ++i) {
    char leaf[16];
    std::snprintf(leaf, sizeof leaf, "%08x.msg", static_cast<unsigned>(i));
    WriteFile(leaf, "theirs");
  }
  Envelope envelope;
  envelope.CreateFromClient(AMessage(), "agent-1", "");
  EXPECT_EQ(envelope.FileName(), Path("00000100.msg"));
  EXPECT_EQ(ReadBack("00000001.msg"), "theirs");
}

TEST_F(EnvelopeCreate, WithTheStoresLockFailingAPeersMessageIsRefused) {
  Envelope envelope;
  ThreadHelper::FailNextLocks(1000);
  EXPECT_THROW(envelope.CreateFromRouter(AWireEnvelope(), false), std::runtime_error);
  ThreadHelper::FailNextLocks(0);
  EXPECT_THAT(Leaves(), IsEmpty());
}

TEST_F(EnvelopeCreate, ACreatedFileIsLogged) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  EXPECT_TRUE(log_.Has(kLogDebug, "Created \"" + Path("00000000.msg") +
                                      "\" for [id=8A0B0C0D, origin=router0.agent-1, "
                                      "dest=router1.agent-2, type=Status.Report]\n"));
}

TEST_F(EnvelopeCreate, TheFileHasThirteenLinesInTheirOrder) {
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.client_info.delivery_options = "slowly";
  Envelope envelope;
  envelope.CreateFromRouter(wire, true);
  const std::string now = std::to_string(Now());
  EXPECT_EQ(ReadBack("00000000.msg"),
            "[PersistentIndex] 0\n"
            "[FromParent] 1\n"
            "[Originator] router0.agent-1\n"
            "[OriginatorCertificate] " +
                Encoding::EncodeAny(TextAny("agent's certificate")) +
                "\n"
                "[PhysicalDestination] router1.agent-2\n"
                "[MessageId] 2315979789\n"
                "[Destination] router1.agent-2\n"
                "[Priority] 5\n"
                "[TTL] " +
                std::to_string(Now() + 60) +
                "\n"
                "[Type] Status.Report\n"
                "[Data] " +
                Encoding::EncodeAny(TextAny("payload")) +
                "\n"
                "[Timestamps] (3,(agent-1,1352900000),(router0,3),(router1," +
                now +
                "))\n"
                "[Options] slowly\n");
}

}  // namespace
}  // namespace MessageRouter
