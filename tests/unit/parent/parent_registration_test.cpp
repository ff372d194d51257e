// How a router finds its parent and registers with it.
#include "parent_logon_fixture.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;

TEST_F(ParentLogonTest, AlreadyRegisteredIsSuccess) {
  parent_.SetOnCall([](const std::string& operation) {
    if (operation == "Register") throw BrelixMessaging::AlreadyRegistered();
  });
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  EXPECT_TRUE(LogsOn());
  EXPECT_TRUE(log_.Has(kLogDebug, "Already registered with parent router\n"));
  EXPECT_FALSE(ParentLogon::TheEscalation().registerResetTried);
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, AParentAddressThatIsSetMeanwhileIsTheNextToBeTried) {
  SetConfigString("ParentAddress", "no-such-host.invalid");
  SetConfigInt("LogonRetryInterval", 50);
  ParentLogon logon(routing_, router_, kShortSecond);
  Begin(logon);
  ASSERT_TRUE(Eventually([&] { return log_.Contains("IOR from no-such-host.invalid:"); }));
  SetConfigString("ParentAddress", "127.0.0.1");
  EXPECT_TRUE(LogsOn());
  logon.StopLogon(false);
}

TEST_F(ParentLogonTest, ANameThatNoRouterHasIsAFailedAttempt) {
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  const struct {
    std::string name;
    std::string shown;
  } rows[] = {{"boss\nforged", "boss?forged"},
              {"boss\x7F", "boss?"},
              {":", ":"},
              {std::string(4097, 'b'), std::string(1024, 'b') + "..."}};
  for (const auto& row : rows) {
    log_.Clear();
    parent_.name = row.name;
    ParentLogon logon(routing_, router_, kShortSecond);
    Begin(logon);
    EXPECT_TRUE(Eventually([&] {
      return log_.Has(kLogError, "Cannot register with the parent router, because of its name\n");
    })) << row.shown;
    logon.StopLogon(false);
    EXPECT_TRUE(log_.Has(kLogInfo, "Parent is " + row.shown + "\n"));
    EXPECT_EQ(table_.Find(row.name), nullptr) << row.shown;
  }
  EXPECT_EQ(parent_.Calls("GetName"), 4u);
  EXPECT_EQ(parent_.Calls("Register"), 0u);
}

TEST_F(ParentLogonTest, AnyOtherNameIsTheParents) {
  for (const std::string& name : {std::string("a:b"), std::string(4096, 'b')}) {
    log_.Clear();
    parent_.name = name;
    RunUntil([&] { return LogsOn(); });
    EXPECT_EQ(table_.Find(name), table_.Parent());
  }
}

TEST_F(ParentLogonTest, WhatCannotMakeAReferenceIsAFailedAttempt) {
  host_.onStringToObject = [] { throw omniORB::fatalException("file", 1, "check failed"); };
  RunUntil([&] { return router_.reinitialised == 1; });
  EXPECT_EQ(log_.Count("ParentLogon::RegisterParent: Caught CORBA INTERNAL"), 11u);
}

TEST_F(ParentLogonTest, AReferenceToNothingIsAFailedAttempt) {
  host_.nothingThere = true;
  RunUntil([&] { return router_.reinitialised == 1; });
  EXPECT_EQ(log_.Count("Successfully validated parent router's IOR\n"), 11u);
  EXPECT_TRUE(parent_.AllCalls().empty());
}

TEST_F(ParentLogonTest, AParentWithoutADoorForRoutersIsAFailedAttempt) {
  parent_.HideDoor();
  RunUntil([&] { return router_.reinitialised == 1; });
  EXPECT_EQ(parent_.Calls("GetRouter"), 11u);
  EXPECT_EQ(parent_.Calls("Register"), 0u);
}

TEST_F(ParentLogonTest, TheHealthReportHearsOfAnInvalidIorAndOfItsEnd) {
  ServeIor("IOR:00");
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  RunUntil([&] { return router_.status.All().size() >= 5; });
  EXPECT_THAT(router_.status.All(),
              ElementsAre("parent 127.0.0.1", "clear 1", "names reset", "parent ", "raise 2 "));
  ServeIor(ParentTests::IorOf("192.0.2.1"));
  RunUntil([&] { return router_.status.All().size() >= 10; });
  EXPECT_THAT(router_.status.All(),
              ElementsAre("parent 127.0.0.1", "clear 1", "names reset", "parent ", "raise 2 ",
                          "parent 127.0.0.1", "clear 1", "names reset", "clear 2", "report"));
}

TEST_F(ParentLogonTest, WhoeverAnswersAtTheIorPortMakesNoLogLines) {
  ServeIor("IOR:\nforged\r\x1B\x7F.");
  SetConfigInt("LogonRetryInterval", 3600 * 1000);
  RunUntil([&] { return log_.Contains("its IOR is invalid"); });
  EXPECT_TRUE(log_.Has(kLogInfo, "Received parent router's IOR:\nIOR:?forged???.\n"));
}

TEST_F(ParentLogonTest, AReferenceToAnotherKindOfObjectIsAFailedAttempt) {
  host_.root = CORBA::Object::_duplicate(parent_.Door());
  RunUntil([&] { return router_.reinitialised == 1; });
  EXPECT_EQ(log_.Count("Successfully validated parent router's IOR\n"), 11u);
  EXPECT_FALSE(log_.Contains("Accessing parent"));
  EXPECT_FALSE(log_.Contains("Caught"));
  EXPECT_TRUE(parent_.AllCalls().empty());
}

TEST_F(ParentLogonTest, TheParentsAddressesAreKnownBeforeAReferenceIsMade) {
  std::string known;
  host_.onStringToObject = [&] { known = router_.parentAddresses; };
  RunUntil([&] { return LogsOn(); });
  EXPECT_EQ(known, ParentTests::IorOf("192.0.2.1"));
}

TEST_F(ParentLogonTest, AnInvalidIorIsAnError) {
  ServeIor("IOR:00");
  const std::string complaint = "Cannot log on to the parent router, because its IOR is invalid\n";
  RunUntil([&] { return log_.Contains(complaint); });
  EXPECT_TRUE(log_.Has(kLogError, complaint));
}

}  // namespace
}  // namespace MessageRouter
