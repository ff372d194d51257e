#pragma once

#include <BrelixMessaging.h>
#include <gmock/gmock.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "broker/CurrentCall.h"
#include "envelope/EnvelopeStore.h"
#include "logging/Log.h"
#include "routing/Routing.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace ServantTests {

inline constexpr char kRouterName[] = "router-1";
inline constexpr int kRouterRole = 1;

// The limit of a call back that has just begun.
inline const auto kAMinute = testing::Optional(
    testing::AllOf(testing::Gt(std::chrono::seconds(50)), testing::Le(std::chrono::seconds(60))));

// The process's ORB: real adapters, calls within the process alone.
CORBA::ORB_ptr TestOrb();

// Three adapters as a cycle makes them.
class Adapters {
 public:
  Adapters();
  ~Adapters();

  PortableServer::POA_var persistent;
  PortableServer::POA_var transient;
  PortableServer::POA_var certify;
};

enum class Validity { Valid, Expired };

// While it lives, the thread serves a call from a peer with a certificate of that name.
class CallFrom {
 public:
  explicit CallFrom(const std::string& name, const std::vector<int>& roles = {},
                    Validity validity = Validity::Valid);
  ~CallFrom();
  CallFrom(const CallFrom&) = delete;
  CallFrom& operator=(const CallFrom&) = delete;

 private:
  std::unique_ptr<X509, void (*)(X509*)> certificate_;
  std::unique_ptr<Broker::ScopedCall> call_;
};

// The same for a caller that showed no certificate.
class AnonymousCall {
 public:
  AnonymousCall();

 private:
  Broker::ScopedCall call_;
};

// The same for a caller whose certificate has no common name.
class NamelessCall {
 public:
  NamelessCall();
  ~NamelessCall();
  NamelessCall(const NamelessCall&) = delete;
  NamelessCall& operator=(const NamelessCall&) = delete;

 private:
  X509* certificate_;
  Broker::ScopedCall call_;
};

// The text of a certificate that CallFrom shows.
std::string CertificateText(const std::string& name, const std::vector<int>& roles = {},
                            Validity validity = Validity::Valid);

// Plays the router. The per-peer objects are the real ones.
class Host : public MessageRouter::RoutingHost {
 public:
  MessageRouter::LocalObjects& Objects() override;
  MessageRouter::Thresholds GetThresholds() const override { return {}; }
  void OfferToSenders(MessageRouter::RouterTableEntry& entry) override;
  void NotifiedPoll(MessageRouter::RouterTableEntry& entry) override;
  void OfferToGetters(MessageRouter::RouterTableEntry&) override {}
  void OfferToThreshold(MessageRouter::RouterTableEntry& entry) override;
  void ParentLinkLost() override {}
  CORBA::Object_ptr StringToObject(const std::string& ior) override;
  std::string ObjectToString(CORBA::Object_ptr object) override;

  std::vector<std::string> sent;       // names offered to the senders
  std::vector<std::string> polled;     // to the poller
  std::vector<std::string> threshold;  // to the threshold thread
  std::function<void()> onOffer;       // runs at each offer to the senders

 private:
  std::mutex mutex_;
};

// A running cycle with an empty table, for a router named kRouterName.
class ServantWorld : public testing::Test {
 protected:
  ServantWorld();
  ~ServantWorld() override;

  MessageRouter::RouterTableEntry& Entry(const std::string& name);
  void RegisterClient(const std::string& name);
  void RegisterRouter(const std::string& name);
  // Registered, and logged on as a puller.
  void LogOnClient(const std::string& name, BrelixMessaging::NotifyConsumer_ptr notify =
                                                BrelixMessaging::NotifyConsumer::_nil());
  void LogOnRouter(const std::string& name, BrelixMessaging::RouterSupplier_ptr supplier =
                                                BrelixMessaging::RouterSupplier::_nil());
  // An envelope of that client's in the queue for `name`. Returns its id.
  std::uint32_t QueueFor(const std::string& name, const std::string& originator = "sender",
                         std::uint32_t priority = 5);
  std::size_t EnvelopeFiles() const;

  TestSupport::ScratchConfiguration configuration;
  TestSupport::LogCapture log;
  Adapters adapters;
  Host host;
  MessageRouter::EnvelopeStore store;
  MessageRouter::RouterTable table;
  MessageRouter::Routing routing;
};

BrelixMessaging::Message AMessage(const std::string& type = "Text",
                                  const std::string& destination = "agent-2");
BrelixMessaging::Envelope AWireEnvelope(const std::string& type = "Text");

// A new servant that the holder frees.
template <class Servant, class... Arguments>
PortableServer::Servant_var<Servant> Make(Arguments&&... arguments) {
  return new Servant(std::forward<Arguments>(arguments)...);
}

}  // namespace ServantTests
