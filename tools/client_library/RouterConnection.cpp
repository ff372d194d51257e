#include "client_library/RouterConnection.h"

#include <utility>

#include "broker/Orb.h"
#include "client_library/Failure.h"

namespace ClientLibrary {

namespace {

class Consumer : public POA_BrelixMessaging::EnvelopeConsumer {
 public:
  explicit Consumer(EnvelopeSink& sink) : sink_(sink) {}

  void SendEnvelope(const BrelixMessaging::Envelope& envelope) override {
    if (!sink_.Take(envelope)) throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
  }
  void Heartbeat() override {}

 private:
  EnvelopeSink& sink_;
};

class Notified : public POA_BrelixMessaging::NotifyConsumer {
 public:
  explicit Notified(std::function<void()> notified) : notified_(std::move(notified)) {}

  void Notify() override { notified_(); }
  // Everything is worth a notification.
  CORBA::Long NotificationThreshold() override { return 0; }

 private:
  const std::function<void()> notified_;
};

std::unique_ptr<Broker::Orb> MakeOrb(const Identity& identity, const ConnectionSettings& settings) {
  Broker::OrbSettings orb;
  orb.server = settings.server;
  orb.configureTls = [identity](SSL_CTX* context) { identity.Apply(context); };
  char name[] = "client";
  char* argv[] = {name, nullptr};
  int argc = 1;
  auto made = std::make_unique<Broker::Orb>(argc, argv, orb);
  const auto limit = static_cast<CORBA::ULong>(settings.callLimit.count());
  omniORB::setClientCallTimeout(limit);
  omniORB::setClientConnectTimeout(limit);
  return made;
}

}  // namespace

struct RouterConnection::State {
  State(const Identity& identity, ConnectionSettings given)
      : settings(std::move(given)), orb(MakeOrb(identity, settings)) {}

  BrelixMessaging::MessageRouter_ptr Root() {
    if (CORBA::is_nil(root)) {
      const std::string ior = FetchIor(settings.host, settings.port, settings.callLimit);
      CORBA::Object_var object = orb->Get()->string_to_object(ior.c_str());
      root = BrelixMessaging::MessageRouter::_narrow(object);
      if (CORBA::is_nil(root)) {
        throw Failure(Outcome::Failed, "the object behind the IOR port is no message router");
      }
    }
    return root;
  }

  BrelixMessaging::Client_ptr Door() {
    if (CORBA::is_nil(door)) {
      door = Root()->GetClient();
      if (CORBA::is_nil(door)) {
        throw Failure(Outcome::Refused, "the router has no door for clients");
      }
    }
    return door;
  }

  void Forget() {
    root = BrelixMessaging::MessageRouter::_nil();
    door = BrelixMessaging::Client::_nil();
    messages = BrelixMessaging::MessageConsumer::_nil();
    supplier = BrelixMessaging::EnvelopeSupplier::_nil();
  }

  // Our own objects can be called from here on.
  void OpenDoor() {
    CORBA::Object_var object = orb->Get()->resolve_initial_references("RootPOA");
    adapter = PortableServer::POA::_narrow(object);
    PortableServer::POAManager_var manager = adapter->the_POAManager();
    manager->activate();
  }

  BrelixMessaging::EnvelopeConsumer_ptr OwnConsumer(EnvelopeSink& sink) {
    if (CORBA::is_nil(consumer)) {
      OpenDoor();
      PortableServer::Servant_var<Consumer> servant = new Consumer(sink);
      consumer = servant->_this();
    }
    return consumer;
  }

  BrelixMessaging::NotifyConsumer_ptr OwnNotify(std::function<void()> notified) {
    if (CORBA::is_nil(notify) && notified) {
      OpenDoor();
      PortableServer::Servant_var<Notified> servant = new Notified(std::move(notified));
      notify = servant->_this();
    }
    return notify;
  }

  BrelixMessaging::MessageConsumer_ptr Messages() const {
    if (CORBA::is_nil(messages)) throw Failure(Outcome::Failed, "not logged on");
    return messages;
  }
  BrelixMessaging::EnvelopeSupplier_ptr Supplier() const {
    if (CORBA::is_nil(supplier)) throw Failure(Outcome::Failed, "not logged on for fetching");
    return supplier;
  }

  ConnectionSettings settings;
  std::unique_ptr<Broker::Orb> orb;
  PortableServer::POA_var adapter;
  BrelixMessaging::EnvelopeConsumer_var consumer;
  BrelixMessaging::NotifyConsumer_var notify;
  BrelixMessaging::MessageRouter_var root;
  BrelixMessaging::Client_var door;
  BrelixMessaging::MessageConsumer_var messages;
  BrelixMessaging::EnvelopeSupplier_var supplier;
};

RouterConnection::RouterConnection(const Identity& identity, ConnectionSettings settings) {
  Calling("cannot start the broker",
          [&] { state_ = std::make_unique<State>(identity, std::move(settings)); });
}

RouterConnection::~RouterConnection() {
  state_->Forget();
  try {
    CloseDoor();
  } catch (const Failure&) {
    // The ORB is about to end anyway.
  }
}

void RouterConnection::Open() {
  state_->Forget();
  Calling("cannot reach the router", [&] { state_->Root(); });
}

std::string RouterConnection::RouterName() {
  return Calling("cannot ask for the router's name", [&] {
    CORBA::String_var name = state_->Root()->GetName();
    return std::string(name.in());
  });
}

void RouterConnection::Register() {
  Calling("cannot register", [&] { state_->Door()->Register(); });
}

void RouterConnection::Unregister() {
  Calling("cannot unregister", [&] { state_->Door()->Unregister(); });
}

void RouterConnection::LogonPush(EnvelopeSink& sink) {
  Calling("cannot log on", [&] {
    state_->Door()->LogonPushPush(state_->OwnConsumer(sink), state_->messages.out());
  });
}

void RouterConnection::LogonPull(std::function<void()> notified) {
  Calling("cannot log on", [&] {
    state_->Door()->LogonPushPull(state_->OwnNotify(std::move(notified)), state_->messages.out(),
                                  state_->supplier.out());
  });
}

void RouterConnection::Logoff() {
  Calling("cannot log off", [&] { state_->Door()->Logoff(); });
}

BrelixMessaging::MessageId RouterConnection::Send(const BrelixMessaging::Message& message) {
  return Calling("cannot send", [&] { return state_->Messages()->SendMessage(message); });
}

bool RouterConnection::Cancel(const std::string& destination, BrelixMessaging::MessageId id) {
  return Calling("cannot cancel",
                 [&] { return bool(state_->Messages()->Cancel(destination.c_str(), id)); });
}

void RouterConnection::Heartbeat() {
  Calling("lost the router", [&] { state_->Messages()->Heartbeat(); });
}

std::unique_ptr<BrelixMessaging::Envelope> RouterConnection::Get() {
  return Calling("cannot fetch", [&] {
    std::unique_ptr<BrelixMessaging::Envelope> envelope;
    try {
      envelope.reset(state_->Supplier()->GetEnvelope());
    } catch (const BrelixMessaging::NoEnvelope&) {
      // Nothing waits.
    }
    return envelope;
  });
}

void RouterConnection::Acknowledge(const BrelixMessaging::Envelope& envelope) {
  Calling("cannot acknowledge", [&] {
    state_->Supplier()->AcknowledgeEnvelope(envelope.originator, envelope.message_id);
  });
}

void RouterConnection::CloseDoor() {
  if (CORBA::is_nil(state_->adapter)) return;
  Calling("cannot close the endpoint", [&] {
    PortableServer::POAManager_var manager = state_->adapter->the_POAManager();
    manager->deactivate(true, true);
    state_->adapter = PortableServer::POA::_nil();
  });
}

}  // namespace ClientLibrary
