// This router's logon to its parent, as the parent's entry holds it.
#include "config/Configuration.h"
#include "fixture.h"
#include "support/FakeParent.h"

namespace TestSupport {
namespace {

using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::RouterConsumer;
using BrelixMessaging::RouterSupplier;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class EntryParentTest : public RoutingTest {
 protected:
  EntryParentTest() {
    table_.AddParent("");
    entry_ = table_.Parent();
    log_.Clear();
  }

  // As a parent that is pushed to by us and polled by us answers, according to what it was given.
  void AnswerAsPolledAndNotified() {
    parent_.supplier = AReferenceTo<RouterSupplier>("parent-supplier");
    parent_.notify = AReferenceTo<NotifyConsumer>("parent-notify");
  }

  FakeParent parent_;
  Entry* entry_ = nullptr;
};

TEST_F(EntryParentTest, ByDefaultBothSidesPull) {
  AnswerAsPolledAndNotified();
  EXPECT_TRUE(entry_->LogonToParentRouter(parent_.Door()));
  EXPECT_FALSE(parent_.LastLogon().consumer);
  EXPECT_TRUE(parent_.LastLogon().supplier);
  EXPECT_TRUE(parent_.LastLogon().notify);
  EXPECT_EQ(entry_->GetLogonState(), Entry::kLoggedOn);
  EXPECT_EQ(entry_->GetConsumerState(), Entry::kNothingSent);
  EXPECT_EQ(entry_->GetSupplierState(), Entry::kPollWaiting);
  EXPECT_TRUE(SameReference(entry_->References().routerSupplier, parent_.supplier));
  EXPECT_TRUE(SameReference(entry_->References().notifyConsumer, parent_.notify));
  EXPECT_TRUE(
      log_.Has(MessageRouter::kLogInfo,
               "RouterTableEntry::LogonToParentRouter() - logging on as active consumer\n"));
  EXPECT_TRUE(log_.Has(MessageRouter::kLogInfo,
                       "RouterTableEntry state (router, logging on):  is active consumer (will try "
                       "to notify), passive supplier\n"));
}

TEST_F(EntryParentTest, WithoutActiveConsumerThePeerPushesToUs) {
  MessageRouter::SetConfigBool("ActiveConsumer", false);
  MessageRouter::SetConfigBool("ActiveSupplier", false);
  parent_.consumer = AReferenceTo<RouterConsumer>("parent-consumer");
  EXPECT_TRUE(entry_->LogonToParentRouter(parent_.Door()));
  EXPECT_TRUE(parent_.LastLogon().consumer);
  EXPECT_FALSE(parent_.LastLogon().supplier);
  EXPECT_FALSE(parent_.LastLogon().notify);
  EXPECT_TRUE(entry_->IsPassiveConsumer());
  EXPECT_EQ(entry_->GetSupplierState(), Entry::kActiveSupplier);
  EXPECT_TRUE(log_.Contains("logging on as passive consumer\n"));
}

TEST_F(EntryParentTest, NoObjectIsActivatedTwice) {
  AnswerAsPolledAndNotified();
  entry_->LogonToParentRouter(parent_.Door());
  EXPECT_THAT(host_.objects.Active(), UnorderedElementsAre("notify-1", "router-supplier-2"));
}

TEST_F(EntryParentTest, WhatTheAnswerCallsForIsActivatedBeside) {
  MessageRouter::SetConfigBool("ActiveSupplier", false);
  // A parent that takes nothing by push, and is not polled.
  EXPECT_TRUE(entry_->LogonToParentRouter(parent_.Door()));
  EXPECT_THAT(host_.objects.Active(),
              UnorderedElementsAre("notify-1", "router-supplier-2", "router-consumer-3"));
  EXPECT_EQ(entry_->GetConsumerState(), Entry::kNoNotification);
}

TEST_F(EntryParentTest, TheNextLogonResetsTheEntryFirst) {
  AnswerAsPolledAndNotified();
  entry_->LogonToParentRouter(parent_.Door());
  const auto lost = host_.LinksLost();
  EXPECT_TRUE(entry_->LogonToParentRouter(parent_.Door()));
  EXPECT_EQ(host_.LinksLost(), lost + 1);
  EXPECT_EQ(host_.objects.Active().size(), 2u);
}

TEST_F(EntryParentTest, TheEntryCountsAsLoggedOnWhileTheParentThinks) {
  AnswerAsPolledAndNotified();
  std::uint32_t during = 0;
  parent_.SetOnCall([&](const std::string&) { during = entry_->GetLogonState(); });
  entry_->LogonToParentRouter(parent_.Door());
  EXPECT_EQ(during, Entry::kLoggedOn);
}

TEST_F(EntryParentTest, TheParentMayCallBackWhileItThinks) {
  AnswerAsPolledAndNotified();
  parent_.SetOnCall([&](const std::string&) { entry_->TouchLastPull(entry_->Name()); });
  EXPECT_TRUE(entry_->LogonToParentRouter(parent_.Door()));
}

TEST_F(EntryParentTest, OneFailedCallIsRepeatedAtOnce) {
  AnswerAsPolledAndNotified();
  parent_.SetOnCall([&](const std::string&) {
    if (parent_.Calls("Logon") == 1) throw CORBA::COMM_FAILURE();
  });
  EXPECT_TRUE(entry_->LogonToParentRouter(parent_.Door()));
  EXPECT_EQ(parent_.Calls("Logon"), 2u);
}

TEST_F(EntryParentTest, ARefusalIsLoggedAndLeavesTheEntryLoggedOff) {
  parent_.SetOnCall([](const std::string&) { throw BrelixMessaging::NotRegistered(); });
  EXPECT_FALSE(entry_->LogonToParentRouter(parent_.Door()));
  EXPECT_EQ(parent_.Calls("Logon"), 1u);
  EXPECT_EQ(entry_->GetLogonState(), Entry::kLoggedOff);
  EXPECT_EQ(log_.Count("RouterTableEntry: Caught CORBA"), 1u);
  EXPECT_EQ(log_.Count("LogonToParentRouter\n"), 2u);  // the trace line, and that of the exception
}

TEST_F(EntryParentTest, WhatARefusedLogonActivatedGoesWithTheNextReset) {
  parent_.SetOnCall([](const std::string&) { throw BrelixMessaging::Rejected(); });
  entry_->LogonToParentRouter(parent_.Door());
  entry_->LogonToParentRouter(parent_.Door());
  EXPECT_EQ(host_.objects.Active().size(), 2u);
}

TEST_F(EntryParentTest, ASessionThatEndsDuringTheCallIsNotRevived) {
  AnswerAsPolledAndNotified();
  parent_.SetOnCall([&](const std::string&) { entry_->Logoff(); });
  EXPECT_FALSE(entry_->LogonToParentRouter(parent_.Door()));
  EXPECT_EQ(entry_->GetLogonState(), Entry::kLoggedOff);
  EXPECT_TRUE(CORBA::is_nil(entry_->References().routerSupplier));
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
}

TEST_F(EntryParentTest, ARefusalOfAnOldSessionLeavesTheNewOneAlone) {
  AnswerAsPolledAndNotified();
  parent_.SetOnCall([&](const std::string&) {
    parent_.SetOnCall(nullptr);
    entry_->LogonToParentRouter(parent_.Door());
    throw BrelixMessaging::Rejected();
  });
  EXPECT_FALSE(entry_->LogonToParentRouter(parent_.Door()));
  EXPECT_EQ(entry_->GetLogonState(), Entry::kLoggedOn);
}

TEST_F(EntryParentTest, ALogonMakesItARegisteredRouterAgain) {
  AnswerAsPolledAndNotified();
  entry_->MarkUnregistered();
  entry_->MarkRegistered(false);
  entry_->MarkUnregistered();
  entry_->LogonToParentRouter(parent_.Door());
  EXPECT_TRUE(entry_->IsRegistered());
  EXPECT_TRUE(entry_->IsRouter());
}

TEST_F(EntryParentTest, ASessionCanEndWithoutARegistration) {
  AnswerAsPolledAndNotified();
  table_.Clear();
  entry_->LogonToParentRouter(parent_.Door());
  ASSERT_FALSE(entry_->IsRegistered());
  ASSERT_TRUE(entry_->IsLoggedOn());
  const auto lost = host_.LinksLost();
  EXPECT_TRUE(entry_->LogoffSession(entry_->Generation()));
  EXPECT_FALSE(entry_->IsLoggedOn());
  EXPECT_EQ(host_.LinksLost(), lost + 1);
}

TEST_F(EntryParentTest, AnUnregisteredParentThatIsNotLoggedOnIsNotRegistered) {
  entry_->MarkUnregistered();
  EXPECT_THROW(entry_->Logoff(), BrelixMessaging::NotRegistered);
}

TEST_F(EntryParentTest, AClientOfTheParentsNameIsNotRegistered) {
  AnswerAsPolledAndNotified();
  table_.SetParentName("boss");
  entry_->LogonToParentRouter(parent_.Door());
  const auto session = entry_->Generation();
  for (const char* name : {"boss", ""}) {
    EXPECT_THROW(routing_.LogonClientPeer(name, BrelixMessaging::EnvelopeConsumer::_nil(),
                                          NotifyConsumer::_nil(), 0),
                 BrelixMessaging::NotRegistered);
    EXPECT_THROW(routing_.RegisterPeer(name, false), BrelixMessaging::AlreadyRegistered);
    EXPECT_THROW(routing_.UnregisterPeer(name, false), BrelixMessaging::NotRegistered);
  }
  EXPECT_EQ(entry_->Generation(), session);
  EXPECT_TRUE(entry_->IsRouter());
  EXPECT_TRUE(entry_->IsRegistered());
}

TEST_F(EntryParentTest, WhoeverAsksForACertificateIsNotTheParent) {
  for (const char* name : {"", "boss"}) {
    EXPECT_THROW(entry_->LogonCertification(name), BrelixMessaging::Rejected) << name;
    table_.SetParentName("boss");
  }
  EXPECT_FALSE(entry_->IsLoggedOn());
  EXPECT_EQ(host_.objects.Created(), 0u);
  AnswerAsPolledAndNotified();
  entry_->LogonToParentRouter(parent_.Door());
  EXPECT_THROW(entry_->LogonCertification("boss"), BrelixMessaging::AlreadyLoggedOn);
}

TEST_F(EntryParentTest, AnOldSessionsPullsDoNotTimeTheNewOneOut) {
  AnswerAsPolledAndNotified();
  entry_->LogonToParentRouter(parent_.Door());
  entry_->TouchLastPull(entry_->Name());
  const std::chrono::seconds limit(host_.GetThresholds().activeConsumerConnectionTimeout);
  clock_.Advance(limit + std::chrono::seconds(1));
  ASSERT_TRUE(entry_->PullTimedOut());
  entry_->LogonToParentRouter(parent_.Door());
  EXPECT_FALSE(entry_->PullTimedOut());
}

TEST_F(EntryParentTest, AnAnswerThatCannotBeServedLeavesTheEntryLoggedOff) {
  MessageRouter::SetConfigBool("ActiveSupplier", false);
  // Its notifier is made before the call, its supplier and consumer would come after the answer.
  for (const std::size_t successes : {1u, 2u}) {
    host_.objects.FailCreationAfter(successes);
    EXPECT_THROW(entry_->LogonToParentRouter(parent_.Door()), std::runtime_error) << successes;
    EXPECT_EQ(entry_->GetLogonState(), Entry::kLoggedOff) << successes;
    EXPECT_THAT(host_.objects.Active(), IsEmpty()) << successes;
  }
  EXPECT_EQ(parent_.Calls("Logon"), 2u);
  EXPECT_TRUE(entry_->LogonToParentRouter(parent_.Door()));
}

TEST_F(EntryParentTest, AnAnswerOfAnOldSessionThatCannotBeServedLeavesTheNewOneAlone) {
  MessageRouter::SetConfigBool("ActiveSupplier", false);
  parent_.SetOnCall([&](const std::string&) {
    parent_.SetOnCall(nullptr);
    entry_->LogonToParentRouter(parent_.Door());
    host_.objects.FailCreationAfter(0);
  });
  EXPECT_THROW(entry_->LogonToParentRouter(parent_.Door()), std::runtime_error);
  EXPECT_EQ(entry_->GetLogonState(), Entry::kLoggedOn);
  EXPECT_EQ(host_.objects.Active().size(), 3u);
}

TEST_F(EntryParentTest, WhereTheSecondObjectFailsTheFirstGoesToo) {
  host_.objects.FailCreationAfter(1);
  EXPECT_THROW(entry_->LogonToParentRouter(parent_.Door()), std::runtime_error);
  EXPECT_THAT(host_.objects.Active(), IsEmpty());
  EXPECT_THAT(parent_.AllCalls(), IsEmpty());
  EXPECT_FALSE(entry_->IsLoggedOn());
}

TEST_F(EntryParentTest, WhereNoObjectCanBeActivatedNothingIsAsked) {
  host_.NoObjects();
  EXPECT_THROW(entry_->LogonToParentRouter(parent_.Door()), std::runtime_error);
  EXPECT_THAT(parent_.AllCalls(), IsEmpty());
}

}  // namespace
}  // namespace TestSupport
