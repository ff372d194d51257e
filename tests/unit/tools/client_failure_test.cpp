#include <BrelixMessaging.h>
#include <gtest/gtest.h>

#include "client_library/Failure.h"

using ClientLibrary::AsFailure;
using ClientLibrary::Calling;
using ClientLibrary::Failure;
using ClientLibrary::Outcome;
using ClientLibrary::ShortName;

namespace {

TEST(ClientFailure, ShortNameIsTheLastPartOfTheRepositoryId) {
  EXPECT_EQ(ShortName(BrelixMessaging::NotLoggedOn()), "NotLoggedOn");
  EXPECT_EQ(ShortName(CORBA::TRANSIENT()), "TRANSIENT");
}

TEST(ClientFailure, AContractExceptionIsARefusal) {
  const Failure failure = AsFailure("cannot send", BrelixMessaging::Rejected());
  EXPECT_EQ(failure.GetOutcome(), Outcome::Refused);
  EXPECT_EQ(failure.Exception(), "Rejected");
  EXPECT_STREQ(failure.what(), "cannot send: refused by the router: Rejected");
}

TEST(ClientFailure, SystemExceptionsAreSortedByWhatTheyMean) {
  EXPECT_EQ(AsFailure("x", CORBA::NO_PERMISSION()).GetOutcome(), Outcome::Refused);
  EXPECT_EQ(AsFailure("x", CORBA::TIMEOUT()).GetOutcome(), Outcome::TimedOut);
  EXPECT_EQ(AsFailure("x", CORBA::TRANSIENT()).GetOutcome(), Outcome::Failed);
  EXPECT_EQ(AsFailure("x", CORBA::COMM_FAILURE()).GetOutcome(), Outcome::Failed);
}

TEST(ClientFailure, CallingGivesTheResultBack) {
  EXPECT_EQ(Calling("x", [] { return 7; }), 7);
}

TEST(ClientFailure, CallingTurnsACorbaExceptionIntoAFailure) {
  EXPECT_THROW(Calling("x", [] { throw BrelixMessaging::NotRegistered(); }), Failure);
}

TEST(ClientFailure, CallingLetsAFailureThrough) {
  try {
    Calling("x", [] { throw Failure(Outcome::BadUsage, "as it was"); });
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_STREQ(failure.what(), "as it was");
    EXPECT_EQ(failure.GetOutcome(), Outcome::BadUsage);
  }
}

}  // namespace
