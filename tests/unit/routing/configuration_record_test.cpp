#include "routing/ConfigurationRecord.h"

#include <filesystem>
#include <fstream>

#include "config/Configuration.h"
#include "fixture.h"

namespace TestSupport {
namespace {

using BrelixMessaging::Configuration;
using MessageRouter::GetConfigBool;
using MessageRouter::GetConfigInt;
using MessageRouter::GetConfigString;
using MessageRouter::kLogError;
using MessageRouter::ReadConfiguration;
using MessageRouter::WriteConfiguration;

class ConfigurationRecordTest : public RoutingTest {
 protected:
  static Configuration Read() {
    CORBA::Any any;
    ReadConfiguration(any);
    const Configuration* record = nullptr;
    EXPECT_TRUE(any >>= record);
    return record == nullptr ? Configuration() : *record;
  }
  static bool Write(const Configuration& record) {
    CORBA::Any any;
    any <<= record;
    return WriteConfiguration(any);
  }
};

struct NumberField {
  const char* key;
  CORBA::Long Configuration::*field;
  CORBA::Long otherwise;
};
constexpr NumberField kNumbers[] = {
    {"NumGetterThreads", &Configuration::NumGetterThreads, 2},
    {"GetterInterval", &Configuration::GetterInterval, 900},
    {"NumSenderThreads", &Configuration::NumSenderThreads, 3},
    {"TimeoutInterval", &Configuration::TimeoutInterval, 70},
    {"IORSenderPort", &Configuration::IORSenderPort, 8192},
    {"ParentPort", &Configuration::ParentPort, 8192},
    {"LogonRetryInterval", &Configuration::LogonRetryInterval, 30},
    {"LogFileMaxSize", &Configuration::LogFileMaxSize, 2097152},
    {"LogFileCount", &Configuration::LogFileCount, 8},
    {"LogLevel", &Configuration::LogLevel, 0},
    {"CertificationTimeout", &Configuration::CertificationTimeout, 600},
    {"RestartDelay", &Configuration::RestartDelay, 60},
    {"ConnectionCache", &Configuration::ConnectionCache, 10},
    {"HeartbeatInterval", &Configuration::HeartbeatInterval, 120},
};
struct FlagField {
  const char* key;
  CORBA::Boolean Configuration::*field;
  bool otherwise;
};
constexpr FlagField kFlags[] = {
    {"ActiveConsumer", &Configuration::ActiveConsumer, true},
    {"ActiveSupplier", &Configuration::ActiveSupplier, true},
    {"NoRouterInterface", &Configuration::NoRouterInterface, false},
    {"NoClientInterface", &Configuration::NoClientInterface, false},
    {"NoCertificationInterface", &Configuration::NoCertificationInterface, false},
    {"LocalClientsOnly", &Configuration::LocalClientsOnly, true},
    {"LogConsole", &Configuration::LogConsole, true},
    {"LogicalRouting", &Configuration::LogicalRouting, false},
};

TEST_F(ConfigurationRecordTest, HasADefaultForEveryKeyThatIsNotSet) {
  const Configuration record = Read();
  for (const NumberField& number : kNumbers) {
    EXPECT_EQ(record.*number.field, number.otherwise) << number.key;
  }
  for (const FlagField& flag : kFlags) EXPECT_EQ(record.*flag.field, flag.otherwise) << flag.key;
  EXPECT_STREQ(record.ParentAddress, "");
  EXPECT_EQ(std::size(kNumbers) + std::size(kFlags) + 1, 23u);
}

TEST_F(ConfigurationRecordTest, HasTheValuesThatAreSet) {
  CORBA::Long value = 100;
  for (const NumberField& number : kNumbers) {
    MessageRouter::SetConfigInt(number.key, static_cast<std::uint32_t>(value++));
  }
  for (const FlagField& flag : kFlags) MessageRouter::SetConfigBool(flag.key, !flag.otherwise);
  MessageRouter::SetConfigString("ParentAddress", "192.0.2.1");
  const Configuration record = Read();
  value = 100;
  for (const NumberField& number : kNumbers) EXPECT_EQ(record.*number.field, value++) << number.key;
  for (const FlagField& flag : kFlags) EXPECT_EQ(record.*flag.field, !flag.otherwise) << flag.key;
  EXPECT_STREQ(record.ParentAddress, "192.0.2.1");
}

TEST_F(ConfigurationRecordTest, CutsAParentAddressAfter4096Characters) {
  MessageRouter::SetConfigString("ParentAddress", std::string(5000, 'p'));
  EXPECT_EQ(std::string(Read().ParentAddress), std::string(4096, 'p'));
}

TEST_F(ConfigurationRecordTest, StoresEveryFieldUnderItsKey) {
  Configuration record = Read();
  CORBA::Long value = -3;
  for (const NumberField& number : kNumbers) record.*number.field = value++;
  for (const FlagField& flag : kFlags) record.*flag.field = !flag.otherwise;
  record.ParentAddress = "parent.example";
  EXPECT_TRUE(Write(record));
  value = -3;
  for (const NumberField& number : kNumbers) {
    EXPECT_EQ(GetConfigInt(number.key, 77), static_cast<std::uint32_t>(value++)) << number.key;
  }
  for (const FlagField& flag : kFlags) {
    EXPECT_EQ(GetConfigBool(flag.key, flag.otherwise), !flag.otherwise) << flag.key;
  }
  EXPECT_EQ(GetConfigString("ParentAddress", ""), "parent.example");
  const Configuration again = Read();
  for (const NumberField& number : kNumbers) EXPECT_EQ(again.*number.field, record.*number.field);
}

TEST_F(ConfigurationRecordTest, StoresTheFieldsInTheOrderOfTheRecord) {
  Configuration record = Read();
  EXPECT_TRUE(Write(record));
  std::ostringstream text;
  text << std::ifstream("brelix.config").rdbuf();
  std::size_t last = 0;
  for (const char* key : {"NumGetterThreads",     "GetterInterval",     "NumSenderThreads",
                          "TimeoutInterval",      "IORSenderPort",      "ParentAddress",
                          "ParentPort",           "ActiveConsumer",     "ActiveSupplier",
                          "NoRouterInterface",    "NoClientInterface",  "NoCertificationInterface",
                          "LocalClientsOnly",     "LogonRetryInterval", "LogFileMaxSize",
                          "LogFileCount",         "LogConsole",         "LogLevel",
                          "CertificationTimeout", "RestartDelay",       "LogicalRouting",
                          "ConnectionCache",      "HeartbeatInterval"}) {
    const std::size_t place = text.str().find('"' + std::string(key) + '"');
    ASSERT_NE(place, std::string::npos) << key;
    EXPECT_GT(place, last) << key;
    last = place;
  }
}

TEST_F(ConfigurationRecordTest, RefusesWhatIsNoConfigurationAndStoresNothing) {
  CORBA::Any any;
  EXPECT_FALSE(WriteConfiguration(any));
  any <<= "NumGetterThreads";
  EXPECT_FALSE(WriteConfiguration(any));
  BrelixMessaging::RouterClient other;
  any <<= other;
  EXPECT_FALSE(WriteConfiguration(any));
  EXPECT_EQ(GetConfigInt("NumGetterThreads", 77), 77u);
}

TEST_F(ConfigurationRecordTest, AFailedSaveIsLoggedOnceAndTheResultIsTrue) {
  std::ofstream("brelix.config") << "not a configuration\n";
  EXPECT_TRUE(Write(Read()));
  std::size_t failures = 0;
  for (const LogCapture::Line& line : log_.Lines()) {
    failures += line.level == kLogError && line.text == "Failed to save configuration\n" ? 1 : 0;
  }
  EXPECT_EQ(failures, 1u);
}

}  // namespace
}  // namespace TestSupport
