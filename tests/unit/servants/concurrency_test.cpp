#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ServantWorld.h"
#include "servants/ClientMessageConsumer_i.h"
#include "servants/Client_i.h"
#include "servants/EnvelopeSupplier_i.h"

namespace ServantTests {
namespace {

using RouterServants::Client_i;
using RouterServants::ClientMessageConsumer_i;
using RouterServants::EnvelopeSupplier_i;

class ManyThreads : public ServantWorld {
 protected:
  template <class Work>
  static void Run(unsigned count, Work work) {
    std::vector<std::thread> threads;
    for (unsigned index = 0; index < count; ++index) threads.emplace_back(work, index);
    for (std::thread& thread : threads) thread.join();
  }

  PortableServer::Servant_var<Client_i> door{new Client_i};
  PortableServer::Servant_var<ClientMessageConsumer_i> consumer{new ClientMessageConsumer_i};
  PortableServer::Servant_var<EnvelopeSupplier_i> supplier{new EnvelopeSupplier_i(false)};
};

// More of them than places at the gate.
TEST_F(ManyThreads, EachCallerGetsItsOwnSession) {
  constexpr unsigned kClients = 8;
  for (unsigned index = 0; index < kClients; ++index) {
    CertificateText("agent-" + std::to_string(index));
  }
  Run(kClients, [this](unsigned index) {
    const CallFrom call("agent-" + std::to_string(index));
    door->Register();
    BrelixMessaging::MessageConsumer_var mine;
    BrelixMessaging::EnvelopeSupplier_var pull;
    door->Logon(BrelixMessaging::EnvelopeConsumer::_nil(), BrelixMessaging::NotifyConsumer::_nil(),
                mine.out(), pull.out());
    const CORBA::Long id = mine->SendMessage(AMessage());
    EXPECT_THROW(pull->GetEnvelope(), BrelixMessaging::NoEnvelope);
    EXPECT_TRUE(consumer->Cancel("agent-2", id));
    door->Logoff();
  });
  EXPECT_EQ(EnvelopeFiles(), 0u);
}

TEST_F(ManyThreads, OfTwoLogonsOfOneNameTheLastOneWins) {
  RegisterClient("agent-1");
  CertificateText("agent-1");
  BrelixMessaging::MessageConsumer_var given[2];
  Run(2, [&](unsigned index) {
    const CallFrom call("agent-1");
    BrelixMessaging::EnvelopeSupplier_var pull;
    door->Logon(BrelixMessaging::EnvelopeConsumer::_nil(), BrelixMessaging::NotifyConsumer::_nil(),
                given[index].out(), pull.out());
  });
  const CallFrom call("agent-1");
  int working = 0;
  for (const auto& object : given) {
    try {
      object->Heartbeat();
      ++working;
    } catch (const CORBA::OBJECT_NOT_EXIST&) {
    }
  }
  EXPECT_EQ(working, 1);
}

TEST_F(ManyThreads, OfTwoAcknowledgementsTheFirstWins) {
  LogOnClient("agent-1");
  const auto id = static_cast<CORBA::Long>(QueueFor("agent-1"));
  bool won[2] = {false, false};
  Run(2, [&](unsigned index) {
    const CallFrom call("agent-1");
    try {
      supplier->AcknowledgeEnvelope("router-1.sender", id);
      won[index] = true;
    } catch (const BrelixMessaging::NoEnvelope&) {
    }
  });
  EXPECT_NE(won[0], won[1]);
}

// What one of them has ended just before the other one reads its file is not broken.
TEST_F(ManyThreads, TwoThatPullForOnePeerAreNeverRejected) {
  constexpr unsigned kEnvelopes = 200;
  LogOnClient("agent-1");
  for (unsigned i = 0; i < kEnvelopes; ++i) QueueFor("agent-1");
  std::atomic<unsigned> acknowledged{0};
  std::atomic<unsigned> rejected{0};
  Run(2, [&](unsigned) {
    const CallFrom call("agent-1");
    for (unsigned i = 0; i < 3 * kEnvelopes; ++i) {
      BrelixMessaging::Envelope_var wire;
      try {
        wire = supplier->GetEnvelope();
      } catch (const BrelixMessaging::NoEnvelope&) {
        return;
      } catch (const BrelixMessaging::Rejected&) {
        ++rejected;
        continue;
      }
      try {
        supplier->AcknowledgeEnvelope(wire->originator, wire->message_id);
        ++acknowledged;
      } catch (const BrelixMessaging::NoEnvelope&) {
      }
    }
  });
  EXPECT_EQ(rejected, 0u);
  EXPECT_EQ(acknowledged, kEnvelopes);
}

}  // namespace
}  // namespace ServantTests
