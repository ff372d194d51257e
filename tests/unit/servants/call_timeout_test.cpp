#include "broker/CallTimeout.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "ServantWorld.h"
#include "broker/ConnectionTest.h"
#include "broker/CorbaExceptions.h"
#include "servants/CallBack.h"
#include "support/LogCapture.h"
#include "support/LoopbackListener.h"
#include "support/RemoteDoor.h"

namespace ServantTests {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A host that takes connections and never answers.
struct SilentHost : TestSupport::LoopbackListener {
  BrelixMessaging::EnvelopeConsumer_ptr Peer() const {
    TestOrb();
    return Reference<BrelixMessaging::EnvelopeConsumer>();
  }
};

TEST(CallTimeout, ACallToASilentPeerEndsInTime) {
  const SilentHost host;
  const BrelixMessaging::EnvelopeConsumer_var peer = host.Peer();
  const Broker::CallTimeout limit(milliseconds(200));
  EXPECT_THROW(peer->Heartbeat(), CORBA::TIMEOUT);
}

TEST(CallTimeout, AllCallsTogetherEndInTime) {
  const SilentHost host;
  const BrelixMessaging::EnvelopeConsumer_var peer = host.Peer();
  const auto start = steady_clock::now();
  {
    const Broker::CallTimeout limit(milliseconds(1000));
    EXPECT_THROW(Broker::RepeatOnce([&] { peer->Heartbeat(); }), CORBA::SystemException);
  }
  EXPECT_LT(steady_clock::now() - start, milliseconds(1900));
}

TEST(CallTimeout, ACallThatHasTakenAllOfItIsNotRepeated) {
  const SilentHost host;
  const BrelixMessaging::EnvelopeConsumer_var peer = host.Peer();
  int calls = 0;
  const auto call = [&] {
    ++calls;
    peer->Heartbeat();
  };
  const Broker::CallTimeout limit(milliseconds(200));
  EXPECT_THROW(Broker::RepeatOnce(call), CORBA::TIMEOUT);
  EXPECT_EQ(calls, 1);
}

TEST(CallTimeout, EndsWithItsObject) {
  { const Broker::CallTimeout limit(milliseconds(0)); }
  EXPECT_FALSE(Broker::CallTimeout::IsOver());
  int calls = 0;
  EXPECT_THROW(Broker::RepeatOnce([&] {
                 ++calls;
                 throw CORBA::TRANSIENT();
               }),
               CORBA::TRANSIENT);
  EXPECT_EQ(calls, 2);
}

TEST(CallTimeout, ALaterCallIsWaitedForBeyondItsEnd) {
  TestOrb();
  TestSupport::RemoteDoor door;
  const BrelixMessaging::EnvelopeConsumer_var peer =
      door.Reference<BrelixMessaging::EnvelopeConsumer>();
  door.FallSilentAt("Heartbeat");
  const auto end = steady_clock::now() + milliseconds(100);
  { const Broker::CallTimeout limit(milliseconds(100)); }
  std::thread answering([&] {
    while (steady_clock::now() < end + milliseconds(300)) std::this_thread::yield();
    door.Answer();
  });
  EXPECT_NO_THROW(peer->Heartbeat());
  EXPECT_GE(steady_clock::now(), end + milliseconds(300));
  answering.join();
}

TEST(CallBack, ToASilentPeerEndsAtItsLimitForBothTriesTogether) {
  const TestSupport::LogCapture log;
  const SilentHost host;
  const BrelixMessaging::EnvelopeConsumer_var peer = host.Peer();
  const Broker::Gate::Pass pass;
  const auto start = steady_clock::now();
  EXPECT_TRUE(CORBA::is_nil(RouterServants::IfItAnswers<BrelixMessaging::EnvelopeConsumer>(
      "Client::Logon", "client", peer, milliseconds(1000))));
  EXPECT_LT(steady_clock::now() - start, milliseconds(1900));
  EXPECT_TRUE(
      log.Has(MessageRouter::kLogWarning, "Client::Logon() failed to call back to client\n"));
}

TEST(CallTimeout, CountsOnAThreadThatTheOrbDoesNotKnow) {
  const SilentHost host;
  const BrelixMessaging::EnvelopeConsumer_var peer = host.Peer();
  std::thread([&] {
    const Broker::CallTimeout limit(milliseconds(200));
    EXPECT_THROW(peer->Heartbeat(), CORBA::TIMEOUT);
  }).join();
}

TEST(CallTimeout, CountsForTheQuestionForAnObjectsPlace) {
  const SilentHost host;
  const BrelixMessaging::EnvelopeConsumer_var peer = host.Peer();
  const Broker::CallTimeout limit(milliseconds(200));
  EXPECT_THROW(Broker::HasValidConnection(peer), CORBA::TIMEOUT);
}

}  // namespace
}  // namespace ServantTests
