#include <new>

#include "fixture.h"
#include "support/AllocationFailure.h"

namespace TestSupport {
namespace {

using BrelixMessaging::AlreadyLoggedOn;
using BrelixMessaging::EnvelopeConsumer;
using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::NotLoggedOn;
using BrelixMessaging::NotRegistered;
using BrelixMessaging::RouterConsumer;
using BrelixMessaging::RouterSupplier;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class EntryLogonTest : public RoutingTest {
 protected:
  EntryLogonTest() : client_(AClient("agent")), router_(ARouter("child")) {}

  // The client's entry becomes that of "other", which is registered and not logged on.
  void OtherTakesTheClientsEntry() {
    table_.Unregister("agent");
    table_.AddCertificationEntry("other");
    table_.Register("other", false);
    ASSERT_EQ(client_.Name(), "other");
  }

  Entry& client_;
  Entry& router_;
  EnvelopeConsumer::_var_type pushed_ = AReferenceTo<EnvelopeConsumer>("consumer");
  NotifyConsumer::_var_type notify_ = AReferenceTo<NotifyConsumer>("notify");
  RouterConsumer::_var_type routerConsumer_ = AReferenceTo<RouterConsumer>("router-consumer");
  RouterSupplier::_var_type routerSupplier_ = AReferenceTo<RouterSupplier>("router-supplier");
};

TEST_F(EntryLogonTest, ALogoffWithoutMemoryEndsTheSessionAndFailsForWantOfItsNotice) {
  const std::string name = "a name that takes memory wherever it is copied";
  Entry& entry = AClient(name);
  for (const bool session : {true, false}) {
    entry.LogonClient(name, pushed_, NotifyConsumer::_nil(), 0, true);
    {
      const AllocationFailure failure;
      EXPECT_THROW(session ? void(entry.LogoffSession(entry.Generation())) : entry.Logoff(name),
                   std::bad_alloc);
    }
    EXPECT_FALSE(entry.IsLoggedOn());
    EXPECT_EQ(entry.GetConsumerState(), Entry::kNothingSent);
    EXPECT_THAT(host_.objects.Active(), IsEmpty());
  }
}

TEST_F(EntryLogonTest, ALogonWithoutMemoryForItsLinesIsALogon) {
  const std::string name = "a name that takes memory wherever it is copied";
  Entry& entry = ARouter(name);
  for (int logon = 0; logon < 2; ++logon) {
    const AllocationFailure failure;
    EXPECT_NO_THROW(
        entry.LogonRouter(name, RouterConsumer::_nil(), routerSupplier_, notify_, 0, true));
    EXPECT_TRUE(AllocationFailure::Happened());
    EXPECT_EQ(entry.GetLogonState(), Entry::kLoggedOn);
    EXPECT_EQ(entry.GetSupplierState(), Entry::kPollWaiting);
  }
  EXPECT_THAT(host_.objects.Active(), testing::SizeIs(2));
}

TEST_F(EntryLogonTest, ANewEntryIsRegisteredAndNotLoggedOn) {
  EXPECT_TRUE(client_.IsRegistered());
  EXPECT_TRUE(client_.IsRoutable());
  EXPECT_FALSE(client_.IsLoggedOn());
  EXPECT_FALSE(client_.IsRouter());
  EXPECT_TRUE(router_.IsRouter());
  EXPECT_EQ(client_.GetLogonState(), Entry::kLoggedOff);
}

TEST_F(EntryLogonTest, AClientWithAConsumerIsPushedTo) {
  const auto local = client_.LogonClient("agent", pushed_, notify_, 3, true);
  EXPECT_EQ(client_.GetLogonState(), Entry::kLoggedOn);
  EXPECT_EQ(client_.GetConsumerState(), Entry::kPushIdle);
  EXPECT_EQ(client_.GetSupplierState(), Entry::kActiveSupplier);
  EXPECT_TRUE(client_.IsPassiveConsumer());
  EXPECT_THAT(host_.objects.Active(), ElementsAre("client-consumer-1"));
  EXPECT_FALSE(CORBA::is_nil(local.consumer));
  EXPECT_TRUE(CORBA::is_nil(local.supplier));
  EXPECT_TRUE(SameReference(client_.References().messageConsumer, pushed_));
  EXPECT_TRUE(SameReference(client_.References().notifyConsumer, notify_));
}

TEST_F(EntryLogonTest, AClientWithANotifierPullsAndIsNotified) {
  const auto local = client_.LogonClient("agent", EnvelopeConsumer::_nil(), notify_, 3, true);
  EXPECT_EQ(client_.GetConsumerState(), Entry::kNothingSent);
  EXPECT_TRUE(client_.HasNotifyConsumer());
  EXPECT_FALSE(client_.IsPassiveConsumer());
  EXPECT_THAT(host_.objects.Active(),
              UnorderedElementsAre("client-supplier-1", "client-consumer-2"));
  EXPECT_FALSE(CORBA::is_nil(local.consumer));
  EXPECT_FALSE(CORBA::is_nil(local.supplier));
}

TEST_F(EntryLogonTest, AClientWithNothingIsAPurePuller) {
  client_.LogonClient("agent", EnvelopeConsumer::_nil(), NotifyConsumer::_nil(), 0, true);
  EXPECT_EQ(client_.GetConsumerState(), Entry::kNoNotification);
  EXPECT_FALSE(client_.HasNotifyConsumer());
  EXPECT_THAT(host_.objects.Active(),
              UnorderedElementsAre("client-supplier-1", "client-consumer-2"));
}

TEST_F(EntryLogonTest, ARouterGetsTheObjectsThatItsOwnDoNotReplace) {
  struct Case {
    bool consumer, supplier, notify;
    std::uint32_t consumerState, supplierState;
    std::vector<std::string> active;
    const char* text;
  };
  const Case cases[] = {
      {true,
       true,
       true,
       Entry::kPushIdle,
       Entry::kPollWaiting,
       {"notify"},
       "passive consumer, passive supplier"},
      {true,
       false,
       false,
       Entry::kPushIdle,
       Entry::kActiveSupplier,
       {"router-consumer"},
       "passive consumer, active supplier"},
      {false,
       true,
       true,
       Entry::kNothingSent,
       Entry::kPollWaiting,
       {"router-supplier", "notify"},
       "active consumer (will try to notify), passive supplier"},
      {false,
       false,
       false,
       Entry::kNoNotification,
       Entry::kActiveSupplier,
       {"router-supplier", "router-consumer"},
       "active consumer (no notification), active supplier"},
  };
  for (const Case& c : cases) {
    router_.LogonRouter("child", c.consumer ? routerConsumer_.in() : RouterConsumer::_nil(),
                        c.supplier ? routerSupplier_.in() : RouterSupplier::_nil(),
                        c.notify ? notify_.in() : NotifyConsumer::_nil(), 0, true);
    EXPECT_EQ(router_.GetLogonState(), Entry::kLoggedOn) << c.text;
    EXPECT_EQ(router_.GetConsumerState(), c.consumerState) << c.text;
    EXPECT_EQ(router_.GetSupplierState(), c.supplierState) << c.text;
    std::vector<std::string> active = host_.objects.Active();
    for (std::string& name : active) name.erase(name.rfind('-'));
    EXPECT_EQ(active, c.active) << c.text;
    EXPECT_TRUE(log_.Has(
        MessageRouter::kLogInfo,
        std::string("RouterTableEntry state (router, logging on): child is ") + c.text + "\n"))
        << c.text;
  }
}

TEST_F(EntryLogonTest, RestoringActivatesNothing) {
  router_.LogonRouter("child", routerConsumer_, RouterSupplier::_nil(), NotifyConsumer::_nil(), 0,
                      false);
  EXPECT_TRUE(router_.IsLoggedOn());
  EXPECT_EQ(host_.objects.Created(), 0u);
  EXPECT_TRUE(log_.Has(MessageRouter::kLogInfo,
                       "RouterTableEntry state (router, restoring): child is passive consumer, "
                       "active supplier\n"));
}

TEST_F(EntryLogonTest, LoggingOnAgainReplacesReferencesAndObjects) {
  client_.LogonClient("agent", EnvelopeConsumer::_nil(), NotifyConsumer::_nil(), 0, true);
  const MessageRouter::LogonGeneration before = client_.Generation();
  client_.LogonClient("agent", pushed_, NotifyConsumer::_nil(), 0, true);
  EXPECT_THAT(host_.objects.Active(), ElementsAre("client-consumer-3"));
  EXPECT_GT(client_.Generation(), before);
}

TEST_F(EntryLogonTest, AnUnregisteredEntryIsRefusedAndNothingIsActivated) {
  table_.Unregister("agent");
  EXPECT_THROW(client_.LogonClient("agent", pushed_, notify_, 0, true), NotRegistered);
  EXPECT_EQ(host_.objects.Created(), 0u);
}

TEST_F(EntryLogonTest, ObjectsAreMadeAndDeactivatedWhileNoLockIsHeld) {
  // A lock that this thread held already would end the process.
  unsigned calls = 0;
  const auto touch = [&] {
    ++calls;
    table_.AddCertificationEntry("other");
    client_.TouchLastPull(client_.Name());
  };
  host_.objects.onCreate = touch;
  host_.objects.onDeactivate = touch;
  LogonPulling(client_);
  LogonPushed(client_);
  client_.Logoff();
  LogonPushed(client_);
  table_.Unregister("agent");
  table_.AddCertificationEntry("certified");
  Entry& certified = *table_.Find("certified");
  certified.LogonCertification("certified");
  certified.LogoffCertification();
  EXPECT_EQ(calls, 12u);
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
}

TEST_F(EntryLogonTest, AFailingActivationLeavesTheEntryLoggedOffAndNothingActive) {
  for (const std::size_t successes : {0, 1}) {
    LogonPushed(client_);
    host_.objects.FailCreationAfter(successes);
    EXPECT_THROW(LogonPulling(client_), std::runtime_error);
    EXPECT_EQ(client_.GetLogonState(), Entry::kLoggedOff);
    EXPECT_TRUE(client_.IsRegistered());
    EXPECT_TRUE(CORBA::is_nil(client_.References().messageConsumer));
    EXPECT_THAT(host_.objects.Active(), IsEmpty());
  }
}

TEST_F(EntryLogonTest, WithoutAServantHelperTheExceptionGoesToTheCaller) {
  host_.NoObjects();
  EXPECT_THROW(LogonPulling(client_), std::runtime_error);
}

TEST_F(EntryLogonTest, OfTwoLogonsAtOnceTheLastWinsAndTheOtherLeavesNothingActive) {
  bool nested = false;
  host_.objects.onCreate = [&] {
    if (std::exchange(nested, true)) return;
    LogonPulling(client_);
  };
  LogonPushed(client_);
  EXPECT_EQ(client_.GetConsumerState(), Entry::kPushIdle);
  EXPECT_THAT(host_.objects.Active(), ElementsAre("client-consumer-3"));
}

TEST_F(EntryLogonTest, ALogonThatFailsToActivateDoesNotEndOneThatCameMeanwhile) {
  bool nested = false;
  host_.objects.onCreate = [&] {
    if (std::exchange(nested, true)) return;
    LogonPulling(client_);
    host_.objects.FailCreationAfter(0);
  };
  EXPECT_THROW(LogonPushed(client_), std::runtime_error);
  EXPECT_TRUE(client_.IsLoggedOn());
  EXPECT_EQ(host_.objects.Active().size(), 2u);
}

TEST_F(EntryLogonTest, AnUnregisterDuringALogonWins) {
  bool nested = false;
  host_.objects.onCreate = [&] {
    if (!std::exchange(nested, true)) table_.Unregister("agent");
  };
  EXPECT_THROW(LogonPulling(client_), NotRegistered);
  EXPECT_FALSE(client_.IsLoggedOn());
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
}

TEST_F(EntryLogonTest, ALogonWhoseEntryIsTakenOverMeanwhileDoesNotLogTheNewPeerOn) {
  for (const bool asRouter : {false, true}) {
    bool nested = false;
    host_.objects.onCreate = [&] {
      if (!std::exchange(nested, true)) OtherTakesTheClientsEntry();
    };
    if (asRouter) {
      EXPECT_THROW(client_.LogonRouter("agent", routerConsumer_, RouterSupplier::_nil(),
                                       NotifyConsumer::_nil(), 0, true),
                   NotRegistered);
    } else {
      EXPECT_THROW(client_.LogonClient("agent", pushed_, NotifyConsumer::_nil(), 0, true),
                   NotRegistered);
    }
    EXPECT_TRUE(client_.IsRegistered());
    EXPECT_FALSE(client_.IsRouter());
    EXPECT_FALSE(client_.IsLoggedOn());
    EXPECT_THAT(host_.objects.Active(), IsEmpty());
    table_.Unregister("other");
    table_.AddCertificationEntry("agent");
    table_.Register("agent", false);
    ASSERT_EQ(client_.Name(), "agent");
  }
}

TEST_F(EntryLogonTest, AFailingLogonUnderAFormerNameDoesNotEndTheNewPeersSession) {
  OtherTakesTheClientsEntry();
  LogonPulling(client_);
  host_.objects.FailCreationAfter(0);
  EXPECT_THROW(client_.LogonClient("agent", pushed_, NotifyConsumer::_nil(), 0, true),
               std::runtime_error);
  EXPECT_TRUE(client_.IsLoggedOn());
  EXPECT_EQ(host_.objects.Active().size(), 2u);
}

TEST_F(EntryLogonTest, ALogoffUnderAFormerNameDoesNotLogTheNewPeerOff) {
  OtherTakesTheClientsEntry();
  LogonPulling(client_);
  EXPECT_THROW(client_.Logoff("agent"), NotRegistered);
  EXPECT_TRUE(client_.IsLoggedOn());
  client_.Logoff("other");
  EXPECT_FALSE(client_.IsLoggedOn());
}

TEST_F(EntryLogonTest, AStandingIsThatOfThePeerAskedForAlone) {
  LogonPolled(router_);
  ASSERT_TRUE(router_.StandingOf("child"));
  EXPECT_TRUE(router_.StandingOf("child")->loggedOn);
  EXPECT_TRUE(router_.StandingOf("child")->isRouter);
  EXPECT_FALSE(client_.StandingOf("agent")->loggedOn);
  EXPECT_FALSE(client_.StandingOf("agent")->isRouter);
  OtherTakesTheClientsEntry();
  EXPECT_FALSE(client_.StandingOf("agent"));
  EXPECT_TRUE(client_.StandingOf("other"));
}

// Its name still leads to the parent's entry.
TEST_F(EntryLogonTest, AFormerParentIsAStrangerToWhatIsTheParents) {
  table_.AddParent("");
  table_.SetParentName("former");
  table_.SetParentName("boss");
  Entry& parent = *table_.Parent();
  ASSERT_EQ(table_.Find("former"), &parent);
  LogonPolled(parent);
  Enqueue(parent, AnEnvelope().WithId(1).WithOriginator("router1.a"));
  Envelope out;
  for (const char* name : {"former", ""}) {
    EXPECT_FALSE(parent.StandingOf(name));
    EXPECT_THROW(parent.PeekNext(out, name), BrelixMessaging::Rejected);
    EXPECT_THROW(parent.CancelSupplied({"router1.a"}, 1, name), BrelixMessaging::Rejected);
    EXPECT_THROW(parent.Logoff(name), NotRegistered);
    EXPECT_THROW(routing_.LogonRouterPeer(name, BrelixMessaging::RouterConsumer::_nil(),
                                          BrelixMessaging::RouterSupplier::_nil(),
                                          BrelixMessaging::NotifyConsumer::_nil(), 0),
                 NotRegistered);
  }
  EXPECT_TRUE(parent.IsLoggedOn());
  EXPECT_TRUE(parent.StandingOf("boss"));
  EXPECT_TRUE(parent.PeekNext(out, "boss"));
  table_.Clear();
  EXPECT_FALSE(parent.StandingOf("boss"));
}

TEST_F(EntryLogonTest, AFailingLogonOfAFormerParentDoesNotEndTheParentsSession) {
  table_.AddParent("");
  table_.SetParentName("former");
  table_.SetParentName("boss");
  Entry& parent = *table_.Parent();
  LogonPolled(parent);
  host_.objects.FailCreationAfter(0);
  EXPECT_THROW(
      parent.LogonRouter("former", BrelixMessaging::RouterConsumer::_nil(),
                         BrelixMessaging::RouterSupplier::_nil(), NotifyConsumer::_nil(), 0, true),
      std::runtime_error);
  EXPECT_TRUE(parent.IsLoggedOn());
}

TEST_F(EntryLogonTest, APullOfAnotherPeerIsNoSignOfLife) {
  LogonPolled(router_);
  clock_.Advance(std::chrono::seconds(1801));
  router_.TouchLastPull("stranger");
  EXPECT_TRUE(router_.PullTimedOut());
  router_.TouchLastPull("child");
  EXPECT_FALSE(router_.PullTimedOut());
}

TEST_F(EntryLogonTest, ALogoffWhoseNoticeFailsLeavesNothingActive) {
  LogonPulling(client_);
  table_.SetLoggedOffNotice([](const std::string&, bool) { throw CORBA::NO_MEMORY(); });
  EXPECT_THROW(client_.Logoff("agent"), CORBA::NO_MEMORY);
  LogonPulling(client_);
  EXPECT_THROW(client_.Logoff(), CORBA::NO_MEMORY);
  LogonPulling(client_);
  EXPECT_THROW(client_.LogoffSession(client_.Generation()), CORBA::NO_MEMORY);
  EXPECT_FALSE(client_.IsLoggedOn());
  EXPECT_THAT(host_.objects.Active(), testing::IsEmpty());
}

TEST_F(EntryLogonTest, AFailingDeactivationIsNoConcernOfThePeer) {
  LogonPulling(client_);
  host_.objects.FailDeactivation(true);
  client_.Logoff();
  EXPECT_FALSE(client_.IsLoggedOn());
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
}

TEST_F(EntryLogonTest, LogoffForgetsReferencesAndObjectsAndKeepsTheRegistration) {
  client_.LogonClient("agent", pushed_, notify_, 0, true);
  client_.Logoff();
  EXPECT_EQ(client_.GetLogonState(), Entry::kLoggedOff);
  EXPECT_EQ(client_.GetConsumerState(), Entry::kNothingSent);
  EXPECT_EQ(client_.GetSupplierState(), Entry::kNoSupplier);
  EXPECT_TRUE(client_.IsRegistered());
  EXPECT_FALSE(client_.HasNotifyConsumer());
  EXPECT_TRUE(CORBA::is_nil(client_.References().messageConsumer));
  EXPECT_TRUE(CORBA::is_nil(client_.References().notifyConsumer));
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
  EXPECT_THROW(client_.Logoff(), NotLoggedOn);
}

TEST_F(EntryLogonTest, LogoffTellsSubscribersOfClientsAndRoutersButNotOfTheParent) {
  std::vector<std::string> told;
  table_.SetLoggedOffNotice([&](const std::string& name, bool isRouter) {
    // No lock is held meanwhile.
    client_.TouchLastPull(client_.Name());
    router_.TouchLastPull(router_.Name());
    told.push_back(name + (isRouter ? " router" : " client"));
  });
  LogonPushed(client_);
  client_.Logoff();
  LogonPolled(router_);
  router_.Logoff();
  table_.AddParent("");
  LogonPolled(*table_.Parent());
  table_.Parent()->Logoff();
  EXPECT_THAT(told, ElementsAre("agent client", "child router"));
}

TEST_F(EntryLogonTest, AFailingLogoffOnAnUnregisteredEntryRaisesNotRegisteredEvenInLogonState2) {
  table_.AddCertificationEntry("new");
  Entry& entry = *table_.Find("new");
  entry.LogonCertification("new");
  ASSERT_EQ(entry.GetLogonState(), Entry::kCertification);
  EXPECT_THROW(entry.Logoff(), NotRegistered);
  EXPECT_TRUE(entry.IsLoggedOn());
}

TEST_F(EntryLogonTest, AStaleSessionCannotLogOffTheNewOne) {
  LogonPushed(client_);
  const MessageRouter::LogonGeneration old = client_.Generation();
  LogonPushed(client_);
  EXPECT_FALSE(client_.LogoffSession(old));
  EXPECT_TRUE(client_.IsLoggedOn());
  EXPECT_TRUE(client_.LogoffSession(client_.Generation()));
  EXPECT_FALSE(client_.IsLoggedOn());
  EXPECT_THROW(client_.LogoffSession(client_.Generation()), NotLoggedOn);
}

TEST_F(EntryLogonTest, EveryResetOfTheParentsEntryTellsTheParentLogon) {
  table_.AddParent("");
  Entry& parent = *table_.Parent();
  host_.onParentLinkLost = [&] { parent.TouchLastPull(parent.Name()); };  // no lock is held
  LogonPolled(parent);
  EXPECT_EQ(host_.LinksLost(), 1u);
  parent.Logoff();
  EXPECT_EQ(host_.LinksLost(), 2u);
  table_.Unregister("");
  EXPECT_EQ(host_.LinksLost(), 3u);
  LogonPolled(router_);
  EXPECT_EQ(host_.LinksLost(), 3u);
}

TEST_F(EntryLogonTest, ACertificationLogonNeedsNoRegistration) {
  table_.AddCertificationEntry("new");
  Entry& entry = *table_.Find("new");
  EXPECT_FALSE(entry.IsRoutable());
  const auto local = entry.LogonCertification("new");
  EXPECT_EQ(entry.GetConsumerState(), Entry::kNoNotification);
  EXPECT_EQ(entry.GetSupplierState(), Entry::kActiveSupplier);
  EXPECT_TRUE(entry.IsRoutable());
  EXPECT_FALSE(CORBA::is_nil(local.consumer));
  EXPECT_FALSE(CORBA::is_nil(local.supplier));
  EXPECT_THAT(host_.objects.Active(),
              UnorderedElementsAre("cert-supplier-of-new-1", "cert-consumer-of-new-2"));
  entry.LogoffCertification();
  EXPECT_FALSE(entry.IsRoutable());
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
  EXPECT_THROW(entry.LogoffCertification(), NotLoggedOn);
}

TEST_F(EntryLogonTest, ACertificationLogonOfALoggedOnPeerIsRefused) {
  LogonPushed(client_);
  EXPECT_THROW(client_.LogonCertification("agent"), AlreadyLoggedOn);
  EXPECT_EQ(host_.objects.Active().size(), 1u);
}

TEST_F(EntryLogonTest, ACertificationLogonOnAnEntryThatWasTakenOverIsRefused) {
  table_.AddCertificationEntry("first");
  Entry& entry = *table_.Find("first");
  table_.AddCertificationEntry("second");
  ASSERT_EQ(table_.Find("second"), &entry);
  EXPECT_THROW(entry.LogonCertification("first"), BrelixMessaging::Rejected);
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
}

TEST_F(EntryLogonTest, AFailingCertificationActivationLeavesTheEntryLoggedOff) {
  table_.AddCertificationEntry("new");
  Entry& entry = *table_.Find("new");
  host_.objects.FailCreationAfter(1);
  EXPECT_THROW(entry.LogonCertification("new"), std::runtime_error);
  EXPECT_EQ(entry.GetLogonState(), Entry::kLoggedOff);
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
}

TEST_F(EntryLogonTest, AFailingCertificationActivationFreesAReservedEntry) {
  table_.Unregister("agent");
  table_.AddCertificationEntry("first");
  ASSERT_EQ(client_.GetLogonState(), Entry::kCertificationReserved);
  host_.objects.FailCreationAfter(0);
  EXPECT_THROW(client_.LogonCertification("first"), std::runtime_error);
  table_.AddCertificationEntry("second");
  EXPECT_EQ(table_.Find("second"), &client_);
}

TEST_F(EntryLogonTest, OnlyTheParentMayBeRenamed) {
  try {
    client_.SetName("other");
    FAIL();
  } catch (const std::exception& exception) {
    EXPECT_STREQ(exception.what(), "Only the parent TableEntry name may be changed");
  }
}

TEST_F(EntryLogonTest, ALogonWhoseLockFailsIsRejectedChangesNothingAndLeavesNothingActive) {
  ThreadHelper::FailNextLocks(1);
  EXPECT_THROW(client_.LogonClient("agent", pushed_, notify_, 0, true), BrelixMessaging::Rejected);
  EXPECT_FALSE(client_.IsLoggedOn());
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
}

}  // namespace
}  // namespace TestSupport
