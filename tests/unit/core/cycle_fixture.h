#pragma once

#include <BrelixMessaging.h>

#include <chrono>
#include <functional>
#include <semaphore>
#include <string>
#include <vector>

#include "envelope/EnvelopeStore.h"
#include "lone_router.h"
#include "routing/Routing.h"

namespace MessageRouter {

// Runs at each reading of the host's addresses.
inline std::function<void()> onHostAddresses;

inline std::vector<std::uint32_t> PlayedHost() {
  if (onHostAddresses) onHostAddresses();
  return {0x0A000001};
}

// Whole cycles of a router with a certificate.
class CycleTest : public CertifiedRouter {
 protected:
  CycleTest() : store_((configuration_.Folder() / "Envelopes").string()) {
    SetConfigBool("SyncEnvelopes", false);
    EnvelopeStore::Replace(&store_);

    onHostAddresses = [this] {
      // The first reading of a cycle begins it. At the second, for the log, requests come in and
      // the router's threads don't run yet.
      if (++readings_ % 2 == 0 && whileThreadsAreMissing) whileThreadsAreMissing(readings_ / 2);
    };
    Platform::SetHostAddressSource(&PlayedHost);
    Router::Surroundings surroundings;
    surroundings.sleep = [this](unsigned milliseconds) {
      EXPECT_EQ(milliseconds, 250u);
      whileRunning(readings_ / 2);
    };
    Router::instance().SetSurroundings(surroundings);
  }
  ~CycleTest() override {
    onHostAddresses = nullptr;
    EnvelopeStore::Replace(nullptr);
  }

  // Whether the log has these lines in this order.
  testing::AssertionResult LoggedInOrder(const std::vector<std::string>& parts) const {
    const std::string log = LogText();
    std::size_t at = 0;
    for (const std::string& part : parts) {
      at = log.find(part, at);
      if (at == std::string::npos) return testing::AssertionFailure() << "no " << part << log;
      at += part.size();
    }
    return testing::AssertionSuccess();
  }
  // ... after `last`, all of the tear-down and then how the start ended.
  testing::AssertionResult TakenDownAfter(const std::string& last, const std::string& end) const {
    return LoggedInOrder({last, "Shutting down...\n", "Router::doStopRouting() called\n",
                          "Writing router table file\n", "Deactivating CORBA objects...\n",
                          "Destroying object adapters...\n", "Destroying ORB...\n", end});
  }

  // With the number of the cycle, from 1, on the main thread.
  std::function<void(int cycle)> whileThreadsAreMissing;
  std::function<void(int cycle)> whileRunning = [](int) { Router::instance().Shutdown(); };

 private:
  EnvelopeStore store_;
  int readings_ = 0;
};

// Peers in this process. Each call of one that a test waits for is counted.
inline std::counting_semaphore<> called(0);
inline bool Called() {
  return called.try_acquire_for(std::chrono::seconds(30));
}

class Consumer : public POA_BrelixMessaging::EnvelopeConsumer {
 public:
  void SendEnvelope(const BrelixMessaging::Envelope&) override { called.release(); }
  void Heartbeat() override {}
};

class Supplier : public POA_BrelixMessaging::RouterSupplier {
 public:
  BrelixMessaging::Envelope* GetEnvelope() override {
    called.release();
    throw BrelixMessaging::NoEnvelope();
  }
  void AcknowledgeEnvelope(const char*, BrelixMessaging::MessageId) override {}
  void Heartbeat() override {}
};

class Notified : public POA_BrelixMessaging::NotifyConsumer {
 public:
  void Notify() override {}
  CORBA::Long NotificationThreshold() override {
    called.release();
    return 0;
  }
};

// A reference to such a peer, which lives as long as the cycle's broker.
template <class Servant, class Interface>
typename Interface::_ptr_type APeer() {
  int argc = 0;
  const CORBA::ORB_var orb = CORBA::ORB_init(argc, nullptr);
  const CORBA::Object_var object = orb->resolve_initial_references("RootPOA");
  const PortableServer::POA_var root = PortableServer::POA::_narrow(object);
  const PortableServer::POA_var adapter =
      root->create_POA("Peers", PortableServer::POAManager::_nil(), CORBA::PolicyList());
  const PortableServer::POAManager_var manager = adapter->the_POAManager();
  manager->activate();
  const PortableServer::Servant_var<Servant> servant(new Servant);
  const PortableServer::ObjectId_var id = adapter->activate_object(servant.in());
  const CORBA::Object_var reference = adapter->id_to_reference(id);
  return Interface::_narrow(reference);
}

}  // namespace MessageRouter
