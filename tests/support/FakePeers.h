#pragma once

#include <BrelixMessaging.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace TestSupport {

// What a peer does with calls of one kind. Every call counts; `onCall` runs after that and may
// throw what the peer raises, or wait.
class Calls {
 public:
  std::function<void(int call)> onCall;  // the first call is 1
  int count = 0;

  // Answers the first `calls` as a peer whose connection breaks.
  void UnreachableFor(int calls) {
    onCall = [calls](int call) {
      if (call <= calls) throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
    };
  }

  void Take() {
    ++count;
    if (onCall) onCall(count);
  }
};

// Takes envelopes as a client or as a router.
template <class Skeleton>
class FakeConsumer : public Skeleton, public Calls {
 public:
  void SendEnvelope(const BrelixMessaging::Envelope& envelope) override {
    Take();
    received.push_back(static_cast<std::uint32_t>(envelope.message_id));
    originators.emplace_back(envelope.originator.in());
  }
  void Heartbeat() override { heartbeats.Take(); }

  Calls heartbeats;
  // Of the calls that returned.
  std::vector<std::uint32_t> received;
  std::vector<std::string> originators;
};

using FakeClientConsumer = FakeConsumer<POA_BrelixMessaging::EnvelopeConsumer>;
using FakeRouterConsumer = FakeConsumer<POA_BrelixMessaging::RouterConsumer>;

// Notify is what counts as a call of it, unless a test looks at the threshold calls.
class FakeNotifyConsumer : public POA_BrelixMessaging::NotifyConsumer, public Calls {
 public:
  void Notify() override { Take(); }
  CORBA::Long NotificationThreshold() override {
    thresholdCalls.Take();
    return threshold;
  }

  Calls thresholdCalls;
  CORBA::Long threshold = 0;
};

// Holds envelopes until they are acknowledged. GetEnvelope is what counts as a call of it.
class FakeRouterSupplier : public POA_BrelixMessaging::RouterSupplier, public Calls {
 public:
  BrelixMessaging::Envelope* GetEnvelope() override {
    Take();
    if (waiting.empty()) throw BrelixMessaging::NoEnvelope();
    return new BrelixMessaging::Envelope(waiting.front());
  }
  void AcknowledgeEnvelope(const char* originator, BrelixMessaging::MessageId id) override {
    acknowledgements.Take();
    if (waiting.empty() || waiting.front().message_id != id ||
        waiting.front().originator.in() != std::string(originator)) {
      throw BrelixMessaging::NoEnvelope();
    }
    waiting.pop_front();
  }
  void Heartbeat() override { heartbeats.Take(); }

  Calls acknowledgements;
  Calls heartbeats;
  std::deque<BrelixMessaging::Envelope> waiting;
};

// A peer's object while it lives: `->` to look at it, `Reference` to log on with.
template <class Servant, class Interface>
class Peer {
 public:
  Peer() : servant_(new Servant) {
    int argc = 0;
    CORBA::ORB_var orb = CORBA::ORB_init(argc, nullptr);
    CORBA::Object_var object = orb->resolve_initial_references("RootPOA");
    adapter_ = PortableServer::POA::_narrow(object);
    PortableServer::POAManager_var manager = adapter_->the_POAManager();
    manager->activate();
    id_ = adapter_->activate_object(servant_.in());
    CORBA::Object_var reference = adapter_->id_to_reference(id_);
    reference_ = Interface::_narrow(reference);
  }
  ~Peer() { adapter_->deactivate_object(id_); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  Servant* operator->() { return servant_.in(); }
  typename Interface::_ptr_type Reference() const { return reference_.in(); }

 private:
  PortableServer::Servant_var<Servant> servant_;
  PortableServer::POA_var adapter_;
  PortableServer::ObjectId_var id_;
  typename Interface::_var_type reference_;
};

using ClientPeer = Peer<FakeClientConsumer, BrelixMessaging::EnvelopeConsumer>;
using RouterPeer = Peer<FakeRouterConsumer, BrelixMessaging::RouterConsumer>;
using NotifyPeer = Peer<FakeNotifyConsumer, BrelixMessaging::NotifyConsumer>;
using SupplierPeer = Peer<FakeRouterSupplier, BrelixMessaging::RouterSupplier>;

}  // namespace TestSupport
