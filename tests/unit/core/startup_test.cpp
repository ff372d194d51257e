#include "core/Startup.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace MessageRouter {
namespace {

Startup::Options Parse(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "router");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  return Startup::Parse(static_cast<int>(argv.size()), argv.data());
}

TEST(CommandLine, WithoutOptionsRunsTheRouterInTheConsole) {
  const Startup::Options options = Parse({});
  EXPECT_EQ(options.action, Startup::Action::Run);
  EXPECT_EQ(options.name, "Router");
  EXPECT_EQ(options.config, "./brelix.config");
  EXPECT_EQ(options.privateLocation, "");
}

TEST(CommandLine, OptionsAreComparedWithoutRegardToCase) {
  const Startup::Options options = Parse({"-NAME", "Other", "-Config", "f", "-PRIVATE", "d"});
  EXPECT_EQ(options.name, "Other");
  EXPECT_EQ(options.config, "f");
  EXPECT_EQ(options.privateLocation, "d");
}

TEST(CommandLine, ANameWithNoValueAfterItIsIgnored) {
  EXPECT_EQ(Parse({"-name"}).name, "Router");
}

TEST(CommandLine, UnknownOptionsAndTheBrokersOwnAreIgnored) {
  const Startup::Options options = Parse({"-what", "-ORBendPoint", "giop:ssl::0", "-name", "A"});
  EXPECT_EQ(options.name, "A");
  EXPECT_EQ(options.action, Startup::Action::Run);
}

TEST(CommandLine, TheLastActionWins) {
  EXPECT_EQ(Parse({"-install", "-stop"}).action, Startup::Action::Stop);
}

}  // namespace
}  // namespace MessageRouter
