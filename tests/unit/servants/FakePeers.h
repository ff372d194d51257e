#pragma once

#include <BrelixMessaging.h>
#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "broker/CallTimeout.h"

namespace ServantTests {

// The limit of a call back that has just begun.
inline const auto kAMinute = testing::Optional(
    testing::AllOf(testing::Gt(std::chrono::seconds(50)), testing::Le(std::chrono::seconds(60))));

// A peer's own object: each Heartbeat is counted and runs `onHeartbeat`, which may throw.
class Heart {
 public:
  std::function<void(int call)> onHeartbeat;  // the first call is 1
  int heartbeats = 0;
  // What the caller's limit left at each; none for a call without one.
  std::vector<std::optional<std::chrono::milliseconds>> limits;

  // Does not answer the first `calls`.
  void DeafFor(int calls) {
    onHeartbeat = [calls](int call) {
      if (call <= calls) throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
    };
  }

 protected:
  void Beat() {
    ++heartbeats;
    // The call comes on the thread of its caller.
    limits.push_back(Broker::CallTimeout::Left());
    if (onHeartbeat) onHeartbeat(heartbeats);
  }
};

class FakeEnvelopeConsumer : public POA_BrelixMessaging::EnvelopeConsumer, public Heart {
 public:
  void SendEnvelope(const BrelixMessaging::Envelope&) override {}
  void Heartbeat() override { Beat(); }
};

class FakeRouterConsumer : public POA_BrelixMessaging::RouterConsumer, public Heart {
 public:
  void SendEnvelope(const BrelixMessaging::Envelope&) override {}
  void Heartbeat() override { Beat(); }
};

class FakeRouterSupplier : public POA_BrelixMessaging::RouterSupplier, public Heart {
 public:
  BrelixMessaging::Envelope* GetEnvelope() override { throw BrelixMessaging::NoEnvelope(); }
  void AcknowledgeEnvelope(const char*, BrelixMessaging::MessageId) override {}
  void Heartbeat() override { Beat(); }
};

class FakeNotifyConsumer : public POA_BrelixMessaging::NotifyConsumer {
 public:
  void Notify() override { ++calls; }
  CORBA::Long NotificationThreshold() override {
    ++calls;
    return 0;
  }

  int calls = 0;
};

// A fake on an adapter: `servant` to look at, `reference` to hand over.
template <class Servant, class Interface>
struct Activated {
  explicit Activated(PortableServer::POA_ptr adapter) : servant(new Servant) {
    const PortableServer::ObjectId_var id = adapter->activate_object(servant.in());
    const CORBA::Object_var object = adapter->id_to_reference(id);
    reference = Interface::_narrow(object);
  }

  PortableServer::Servant_var<Servant> servant;
  typename Interface::_var_type reference;
};

using PeerConsumer = Activated<FakeEnvelopeConsumer, BrelixMessaging::EnvelopeConsumer>;
using PeerRouterConsumer = Activated<FakeRouterConsumer, BrelixMessaging::RouterConsumer>;
using PeerRouterSupplier = Activated<FakeRouterSupplier, BrelixMessaging::RouterSupplier>;
using PeerNotify = Activated<FakeNotifyConsumer, BrelixMessaging::NotifyConsumer>;

}  // namespace ServantTests
