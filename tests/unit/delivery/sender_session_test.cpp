#include "fixture.h"

namespace DeliveryTests {
namespace {

using testing::ElementsAre;

// A worker that hung in one session while the peer began another.
class StaleSenderTest : public DeliveryTest {
 protected:
  StaleSenderTest() : entry(APushedClient(oldPeer)) {
    Enqueue(entry, Stored(1));
    Enqueue(entry, Stored(2));
  }
  void PeerLogsOnAgain() {
    entry.Logoff();
    Logon(entry, newPeer);
    session = entry.Generation();
  }

  ClientPeer oldPeer;
  ClientPeer newPeer;
  RouterTableEntry& entry;
  MessageRouter::LogonGeneration session = 0;
};

TEST_F(StaleSenderTest, FailureDoesNotLogTheNewSessionOff) {
  oldPeer->onCall = [this](int call) {
    if (call == 1) PeerLogsOnAgain();
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  Visit(entry);
  EXPECT_TRUE(entry.IsLoggedOn());
  EXPECT_EQ(entry.Generation(), session);
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kPushIdle);
  EXPECT_FALSE(log.Contains("logging agent off"));
}

TEST_F(StaleSenderTest, FailureAfterThePeersOwnLogoffLogsNobodyOff) {
  oldPeer->onCall = [this](int call) {
    if (call == 1) entry.Logoff();
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  Visit(entry);
  EXPECT_EQ(entry.GetLogonState(), RouterTableEntry::kLoggedOff);
  EXPECT_FALSE(log.Contains("logging agent off"));
  EXPECT_FALSE(log.Contains("during logoff"));
  EXPECT_THAT(Waiting(entry), ElementsAre(1u, 2u));
}

TEST_F(StaleSenderTest, EnvelopePutBackIsOfferedToTheNewSession) {
  oldPeer->onCall = [this](int call) {
    if (call == 1) PeerLogsOnAgain();
    throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  };
  Visit(entry);
  EXPECT_EQ(pool.Queue().Get(), &entry);
  Visit(entry);
  EXPECT_THAT(newPeer->received, ElementsAre(1u, 2u));
}

TEST_F(StaleSenderTest, LateSuccessLeavesTheRestToTheNewSession) {
  oldPeer->onCall = [this](int) { PeerLogsOnAgain(); };
  Visit(entry);
  EXPECT_THAT(oldPeer->received, ElementsAre(1u));
  EXPECT_EQ(entry.GetConsumerState(), RouterTableEntry::kPushIdle);
  Visit(entry);
  EXPECT_THAT(newPeer->received, ElementsAre(2u));
}

TEST_F(StaleSenderTest, NoSecondSenderGoesToAPeerThatHangsAndLogsOnAgain) {
  oldPeer->onCall = [this](int) {
    PeerLogsOnAgain();
    Visit(entry);
    EXPECT_EQ(newPeer->count, 0);
  };
  Visit(entry);
  EXPECT_THAT(host.Senders(), ElementsAre(&entry));
  Visit(entry);
  EXPECT_THAT(newPeer->received, ElementsAre(2u));
}

TEST_F(StaleSenderTest, NoSecondSenderNotifiesAPeerThatHangsInANotificationAndLogsOnAgain) {
  NotifyPeer notify;
  RouterTableEntry& notified = ANotifiedClient(notify, 0, "notified");
  Enqueue(notified, Stored(3));
  notify->onCall = [&](int call) {
    if (call > 1) return;
    notified.LogonClient("notified", BrelixMessaging::EnvelopeConsumer::_nil(), notify.Reference(),
                         0, true);
    Visit(notified);
    EXPECT_EQ(notify->count, 1);
  };
  Visit(notified);
  EXPECT_EQ(notified.GetConsumerState(), RouterTableEntry::kNothingSent);
  EXPECT_THAT(host.Senders(), ElementsAre(&notified));
  Visit(notified);
  EXPECT_EQ(notify->count, 2);
  EXPECT_EQ(notified.GetConsumerState(), RouterTableEntry::kNotified);
}

}  // namespace
}  // namespace DeliveryTests
