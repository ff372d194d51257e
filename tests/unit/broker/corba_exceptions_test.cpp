#include "broker/CorbaExceptions.h"

#include <BrelixMessaging.h>
#include <gmock/gmock.h>

#include <stdexcept>

#include "logging/Log.h"
#include "support/LogCapture.h"

namespace {

using Broker::Describe;
using Broker::RepeatOnce;

TEST(DescribeException, OfTheSystemHasNameIdMinorCodeAndCompletion) {
  EXPECT_EQ(Describe(CORBA::COMM_FAILURE(7, CORBA::COMPLETED_MAYBE)),
            "COMM_FAILURE (IDL:omg.org/CORBA/COMM_FAILURE:1.0), minor code 0x00000007, "
            "completed MAYBE");
  EXPECT_THAT(Describe(CORBA::TRANSIENT(0, CORBA::COMPLETED_NO)),
              testing::EndsWith("completed NO"));
  EXPECT_THAT(Describe(CORBA::UNKNOWN(0, CORBA::COMPLETED_YES)),
              testing::EndsWith("completed YES"));
}

TEST(DescribeException, OfAUserHasNameAndId) {
  EXPECT_EQ(Describe(BrelixMessaging::Rejected()), "Rejected (IDL:BrelixMessaging/Rejected:1.0)");
}

TEST(LogCaughtCorbaException, WritesOneErrorLine) {
  TestSupport::LogCapture log;
  MessageRouter::LogCaughtCorbaException("RunORB", BrelixMessaging::Rejected(), "at once");
  EXPECT_TRUE(
      log.Has(MessageRouter::kLogError,
              "RunORB: Caught CORBA Rejected (IDL:BrelixMessaging/Rejected:1.0) at once\n"));
}

TEST(LogCaughtCorbaException, NullCountsAsEmpty) {
  TestSupport::LogCapture log;
  MessageRouter::LogCaughtCorbaException(nullptr, BrelixMessaging::Rejected(), nullptr);
  EXPECT_TRUE(log.Has(MessageRouter::kLogError,
                      ": Caught CORBA Rejected (IDL:BrelixMessaging/Rejected:1.0) \n"));
}

TEST(ReportIfCorbaException, LogsTheExceptionInHandIfItIsCorbas) {
  TestSupport::LogCapture log;
  try {
    throw BrelixMessaging::Rejected();
  } catch (...) {
    EXPECT_TRUE(MessageRouter::ReportIfCorbaException("worker"));
  }
  EXPECT_TRUE(log.Contains("worker: Caught CORBA Rejected"));
}

TEST(ReportIfCorbaException, LeavesOthersAlone) {
  TestSupport::LogCapture log;
  try {
    throw std::runtime_error("else");
  } catch (...) {
    EXPECT_FALSE(MessageRouter::ReportIfCorbaException("worker"));
  }
  EXPECT_TRUE(log.Lines().empty());
}

TEST(RepeatOnce, RepeatsAfterASystemExceptionAndGivesTheSecondResult) {
  int calls = 0;
  EXPECT_EQ(RepeatOnce([&] {
              if (++calls == 1) throw CORBA::COMM_FAILURE();
              return calls;
            }),
            2);
}

TEST(RepeatOnce, SecondFailureCounts) {
  int calls = 0;
  EXPECT_THROW(RepeatOnce([&] {
                 ++calls;
                 throw CORBA::TRANSIENT();
               }),
               CORBA::TRANSIENT);
  EXPECT_EQ(calls, 2);
}

TEST(RepeatOnce, FailedCheckOfTheOrbIsASystemExceptionAndTold) {
  TestSupport::LogCapture log;
  int calls = 0;
  EXPECT_THROW(RepeatOnce([&] {
                 ++calls;
                 throw omniORB::fatalException("typecode.cc", 42, "illegal");
               }),
               CORBA::INTERNAL);
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(log.Has(MessageRouter::kLogError,
                      "A check of the ORB failed: typecode.cc, line 42: illegal\n"));
}

TEST(RepeatOnce, UserExceptionIsNotRepeated) {
  int calls = 0;
  EXPECT_THROW(RepeatOnce([&] {
                 ++calls;
                 throw BrelixMessaging::Rejected();
               }),
               BrelixMessaging::Rejected);
  EXPECT_EQ(calls, 1);
}

}  // namespace
