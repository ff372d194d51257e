#include "broker/CallTimeout.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "ServantWorld.h"
#include "broker/ConnectionTest.h"
#include "broker/CorbaExceptions.h"
#include "servants/CallBack.h"
#include "support/LogCapture.h"
#include "support/RemoteDoor.h"

namespace ServantTests {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// A host that takes connections and never answers.
class SilentHost {
 public:
  SilentHost() : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    bind(listener_, reinterpret_cast<sockaddr*>(&address_), sizeof address_);
    listen(listener_, 8);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address_), &size);
  }
  ~SilentHost() { close(listener_); }

  BrelixMessaging::EnvelopeConsumer_ptr Peer() const {
    const std::string place =
        "corbaloc::127.0.0.1:" + std::to_string(ntohs(address_.sin_port)) + "/Peer";
    const CORBA::Object_var object = TestOrb()->string_to_object(place.c_str());
    return BrelixMessaging::EnvelopeConsumer::_unchecked_narrow(object);
  }

 private:
  int listener_;
  sockaddr_in address_{};
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

TEST(CallBack, LastsAMinuteAtMost) {
  EXPECT_EQ(RouterServants::kCallBackLimit, seconds(60));
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
