#include "routing/ConfigurationRecord.h"

#include <cstdint>
#include <variant>

#include "broker/TakeOut.h"
#include "config/Configuration.h"

namespace MessageRouter {
namespace {

using BrelixMessaging::Configuration;

struct Number {
  CORBA::Long Configuration::*field;
  std::uint32_t otherwise;
};
struct Flag {
  CORBA::Boolean Configuration::*field;
  bool otherwise;
};
struct Text {
  CORBA::String_member Configuration::*field;
};
struct Key {
  const char* name;
  std::variant<Number, Flag, Text> value;
};

// In the order of the record.
constexpr Key kKeys[] = {
    {"NumGetterThreads", Number{&Configuration::NumGetterThreads, 2}},
    {"GetterInterval", Number{&Configuration::GetterInterval, 900}},
    {"NumSenderThreads", Number{&Configuration::NumSenderThreads, 3}},
    {"TimeoutInterval", Number{&Configuration::TimeoutInterval, 70}},
    {"IORSenderPort", Number{&Configuration::IORSenderPort, 8192}},
    {"ParentAddress", Text{&Configuration::ParentAddress}},
    {"ParentPort", Number{&Configuration::ParentPort, 8192}},
    {"ActiveConsumer", Flag{&Configuration::ActiveConsumer, true}},
    {"ActiveSupplier", Flag{&Configuration::ActiveSupplier, true}},
    {"NoRouterInterface", Flag{&Configuration::NoRouterInterface, false}},
    {"NoClientInterface", Flag{&Configuration::NoClientInterface, false}},
    {"NoCertificationInterface", Flag{&Configuration::NoCertificationInterface, false}},
    {"LocalClientsOnly", Flag{&Configuration::LocalClientsOnly, true}},
    {"LogonRetryInterval", Number{&Configuration::LogonRetryInterval, 30}},
    {"LogFileMaxSize", Number{&Configuration::LogFileMaxSize, 2097152}},
    {"LogFileCount", Number{&Configuration::LogFileCount, 8}},
    {"LogConsole", Flag{&Configuration::LogConsole, true}},
    {"LogLevel", Number{&Configuration::LogLevel, 0}},
    {"CertificationTimeout", Number{&Configuration::CertificationTimeout, 600}},
    {"RestartDelay", Number{&Configuration::RestartDelay, 60}},
    {"LogicalRouting", Flag{&Configuration::LogicalRouting, false}},
    {"ConnectionCache", Number{&Configuration::ConnectionCache, 10}},
    {"HeartbeatInterval", Number{&Configuration::HeartbeatInterval, 120}},
};

struct Read {
  Configuration& record;
  const char* name;
  void operator()(const Number& key) const {
    record.*key.field = static_cast<CORBA::Long>(GetConfigInt(name, key.otherwise));
  }
  void operator()(const Flag& key) const { record.*key.field = GetConfigBool(name, key.otherwise); }
  void operator()(const Text& key) const {
    record.*key.field = GetConfigString(name, "", 4096).c_str();
  }
};

struct Write {
  const Configuration& record;
  const char* name;
  void operator()(const Number& key) const {
    SetConfigInt(name, static_cast<std::uint32_t>(record.*key.field));
  }
  void operator()(const Flag& key) const { SetConfigBool(name, record.*key.field); }
  void operator()(const Text& key) const { SetConfigString(name, (record.*key.field).in()); }
};

}  // namespace

void ReadConfiguration(CORBA::Any& any) {
  Configuration record;
  for (const Key& key : kKeys) std::visit(Read{record, key.name}, key.value);
  any <<= record;
}

bool WriteConfiguration(const CORBA::Any& any) {
  const Configuration* record = nullptr;
  if (!Broker::TakeOut(any, record)) return false;
  for (const Key& key : kKeys) std::visit(Write{*record, key.name}, key.value);
  SaveConfiguration();
  return true;
}

}  // namespace MessageRouter
