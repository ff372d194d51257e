#include "servants/Frame.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/LogCapture.h"

namespace ServantTests {
namespace {

using RouterServants::Framed;
using RouterServants::OpenOperation;
using RouterServants::Operation;

TEST(Frame, TraceLineComesBeforeTheWork) {
  const TestSupport::LogCapture log;
  Operation("Client::Register", [] { MessageRouter::LogInfo("work\n"); });
  ASSERT_EQ(log.Lines().size(), 2u);
  EXPECT_EQ(log.Lines()[0].text, "Client::Register() called\n");
  EXPECT_EQ(log.Lines()[0].level, MessageRouter::kLogTrace);
}

TEST(Frame, TheResultOfTheWorkIsThatOfTheOperation) {
  const TestSupport::LogCapture log;
  EXPECT_EQ(Operation("Client::Register", [] { return 7; }), 7);
  EXPECT_EQ(OpenOperation("Client::Register", [] { return 8; }), 8);
}

TEST(Frame, AFaultBecomesRejectedAndItsTextStaysInTheLog) {
  const TestSupport::LogCapture log;
  EXPECT_THROW(Operation("Client::Register", [] { throw std::runtime_error("disk 100% full"); }),
               BrelixMessaging::Rejected);
  EXPECT_TRUE(log.Has(MessageRouter::kLogError, "Client::Register() caught disk 100% full\n"));
}

TEST(Frame, UserExceptionsPass) {
  const TestSupport::LogCapture log;
  EXPECT_THROW(Operation("Client::Logoff", [] { throw BrelixMessaging::NotLoggedOn(); }),
               BrelixMessaging::NotLoggedOn);
  EXPECT_EQ(log.Lines().size(), 1u);
}

TEST(Frame, SystemExceptionsPass) {
  const TestSupport::LogCapture log;
  EXPECT_THROW(
      Operation("Client::Logoff", [] { throw CORBA::TRANSIENT(3, CORBA::COMPLETED_MAYBE); }),
      CORBA::TRANSIENT);
}

TEST(Frame, FaultsLeaveAnOpenOperationAsTheyAre) {
  const TestSupport::LogCapture log;
  EXPECT_THROW(OpenOperation("RouterConsumer::Heartbeat", [] { throw std::logic_error("x"); }),
               std::logic_error);
}

TEST(Frame, FramedWorkTakesNoPlaceAtTheGate) {
  const TestSupport::LogCapture log;
  Broker::Gate::SetWidth(1);
  const Broker::Gate::Pass pass;
  EXPECT_EQ(Framed("EnvelopeSupplier::AcknowledgeEnvelope", [] { return 1; }), 1);
  Broker::Gate::SetWidth(4);
}

}  // namespace
}  // namespace ServantTests
