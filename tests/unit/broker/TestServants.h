#pragma once

#include <BrelixMessaging.h>

#include <functional>
#include <string>

#include "broker/Gate.h"

namespace BrokerTest {

inline constexpr char kRouterKey[] = "MessageRouter";
inline constexpr char kConsumerKey[] = "Consumer";
inline constexpr char kNotifyKey[] = "Notify";

// The root object, with what a test wants it to do.
class TestRouter : public POA_BrelixMessaging::MessageRouter {
 public:
  explicit TestRouter(std::function<std::string()> name) : name_(std::move(name)) {}
  char* GetName() override {
    const Broker::Gate::Pass pass;
    return CORBA::string_dup(name_().c_str());
  }
  BrelixMessaging::Client_ptr GetClient() override { throw BrelixMessaging::Rejected(); }
  BrelixMessaging::Router_ptr GetRouter() override { throw BrelixMessaging::Rejected(); }
  BrelixMessaging::Certification_ptr GetCertification() override {
    return BrelixMessaging::Certification::_nil();
  }
  char* GetCACertificate() override { return CORBA::string_dup(""); }
  char* GetCRL() override { return CORBA::string_dup(""); }

 private:
  const std::function<std::string()> name_;
};

// Counts what it gets.
class TestConsumer : public POA_BrelixMessaging::MessageConsumer {
 public:
  CORBA::Long SendMessage(const BrelixMessaging::Message& message) override {
    const Broker::Gate::Pass pass;
    return message.prio;
  }
  void Heartbeat() override { const Broker::Gate::Pass pass; }
  CORBA::Boolean Cancel(const char*, CORBA::Long) override { return false; }
};

// Calls back within the call, as a logon does.
class TestNotify : public POA_BrelixMessaging::NotifyConsumer {
 public:
  explicit TestNotify(std::function<void()> callBack) : callBack_(std::move(callBack)) {}
  void Notify() override {
    const Broker::Gate::Pass pass;
    const Broker::Gate::Leave leave;
    callBack_();
  }
  CORBA::Long NotificationThreshold() override { return 0; }

 private:
  const std::function<void()> callBack_;
};

}  // namespace BrokerTest
