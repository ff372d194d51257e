#include "core/HostInformation.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include "logging/Log.h"
#include "platform/Network.h"
#include "platform/Process.h"
#include "support/LogCapture.h"

namespace MessageRouter {
namespace {

using ::testing::ElementsAre;

// A host that a test describes.
struct PlayedHost {
  std::optional<std::uint64_t> mask = 0b101;
  bool canBind = true;
  std::vector<unsigned> bound;
  std::optional<std::string> hostName = "node-1.example";
  std::optional<std::string> computerName = "NODE-1";
  std::vector<std::uint32_t> addresses = {0x0A000002, 0x0A000001};
  bool addressesFail = false;
  std::optional<Platform::ResolvedHost> forward;
  std::vector<Platform::ResolvedHost> backward;  // one for each address that resolves
};

PlayedHost* host = nullptr;

const Platform::Processors kProcessors = {[](int* error) {
                                            if (!host->mask) *error = EPERM;
                                            return host->mask;
                                          },
                                          [](unsigned cpu, int* error) {
                                            host->bound.push_back(cpu);
                                            if (!host->canBind) *error = EINVAL;
                                            return host->canBind;
                                          }};

const Platform::HostNames kNames = {[] { return host->hostName; },
                                    [] { return host->computerName; }};

const Platform::Resolver kResolver = {
    [](const std::string& name) {
      const bool asked = name == (host->hostName ? *host->hostName : *host->computerName);
      return asked ? host->forward : std::nullopt;
    },
    [](std::uint32_t address) -> std::optional<Platform::ResolvedHost> {
      for (const Platform::ResolvedHost& found : host->backward) {
        if (found.addresses[0] == address) return found;
      }
      return std::nullopt;
    }};

class OnAPlayedHost : public testing::Test {
 protected:
  OnAPlayedHost() {
    host = &played_;
    Platform::SetProcessors(&kProcessors);
    Platform::SetHostNames(&kNames);
    Platform::SetResolver(&kResolver);
    Platform::SetHostAddressSource([] {
      if (host->addressesFail) throw std::logic_error("no adapters");
      return host->addresses;
    });
  }
  ~OnAPlayedHost() override {
    Platform::SetProcessors(nullptr);
    Platform::SetHostNames(nullptr);
    Platform::SetResolver(nullptr);
    Platform::SetHostAddressSource(nullptr);
    host = nullptr;
  }

  // The lines that are not for tracing, each behind its level's letter.
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const auto& line : log_.Lines()) {
      if (line.level == kLogTrace) continue;
      const char letter = line.level == kLogDebug     ? 'D'
                          : line.level == kLogInfo    ? 'I'
                          : line.level == kLogWarning ? 'W'
                                                      : 'E';
      lines.push_back(letter + (" " + line.text));
    }
    return lines;
  }

  PlayedHost played_;
  TestSupport::LogCapture log_;
};

class CpuAffinity : public OnAPlayedHost {};

TEST_F(CpuAffinity, OfAnAvailableProcessorIsSet) {
  SetCpuAffinity(2);
  EXPECT_THAT(played_.bound, ElementsAre(2));
  EXPECT_THAT(Lines(),
              ElementsAre("D System affinity is: 0x05\n", "I CPU affinity set to CPU 2\n"));
}

TEST_F(CpuAffinity, Of32LogsTheFirstWarningAndSetsNone) {
  SetCpuAffinity(32);
  EXPECT_THAT(played_.bound, ElementsAre());
  EXPECT_THAT(Lines(),
              ElementsAre("W Ignoring CPU affinity since CPU 32 was requested but this application "
                          "only supports CPUs 0 through 31.\n"));
}

TEST_F(CpuAffinity, OfANegativeProcessorIsIgnored) {
  SetCpuAffinity(-2);
  EXPECT_THAT(played_.bound, ElementsAre());
  EXPECT_THAT(Lines(),
              ElementsAre("W Ignoring CPU affinity since an invalid CPU i.e. -2 was requested.\n"));
}

TEST_F(CpuAffinity, OfAProcessorThatTheHostLacksIsRefused) {
  SetCpuAffinity(1);
  EXPECT_THAT(played_.bound, ElementsAre());
  EXPECT_THAT(Lines(), ElementsAre("D System affinity is: 0x05\n",
                                   "W Request to set process CPU affinity to CPU 1 failed since "
                                   "CPU 1 is not available.\n"));
}

TEST_F(CpuAffinity, WithoutAnAnswerTakesTheFirstSixteenForAvailable) {
  played_.mask = std::nullopt;
  SetCpuAffinity(15);
  SetCpuAffinity(16);
  EXPECT_THAT(played_.bound, ElementsAre(15));
  const std::string bypass =
      "W Failed to get the existing processor affinity so bypassing CPU availability checks. "
      "Error: 1\n";
  EXPECT_THAT(Lines(), ElementsAre(bypass, "D System affinity is: 0x0ffff\n",
                                   "I CPU affinity set to CPU 15\n", bypass,
                                   "D System affinity is: 0x0ffff\n",
                                   "W Request to set process CPU affinity to CPU 16 failed since "
                                   "CPU 16 is not available.\n"));
}

TEST_F(CpuAffinity, ThatTheSystemRefusesIsLoggedWithItsErrorInHexadecimal) {
  played_.canBind = false;
  SetCpuAffinity(0);
  EXPECT_THAT(
      Lines(),
      ElementsAre("D System affinity is: 0x05\n",
                  "W Request to set process CPU affinity to CPU 0 failed with error 16.\n"));
}

class HostInformation : public OnAPlayedHost {};

TEST_F(HostInformation, IsSixLinesInTheirOrder) {
  played_.forward =
      Platform::ResolvedHost{"node-1.example", {"node-1", "mail"}, {0x0A000002, 0x0A000001}};
  played_.backward = {{"b.example", {"a.example"}, {0x0A000002}}, {"a.example", {}, {0x0A000001}}};
  LogHostInformation();
  EXPECT_THAT(
      Lines(),
      ElementsAre("I Host name: node-1.example\n", "I Local IP addresses: 10.0.0.1 10.0.0.2\n",
                  "I Resolved name: node-1.example\n", "I Resolved alias/es: node-1 mail\n",
                  "I Resolved IP addresses: 10.0.0.2 10.0.0.1\n",
                  "I Resolved reverse names/aliases: a.example b.example\n"));
}

TEST_F(HostInformation, OfAHostWithoutAliasesAndReverseNamesHasEmptyLists) {
  played_.forward = Platform::ResolvedHost{"node-1.example", {}, {0x0A000002}};
  LogHostInformation();
  EXPECT_THAT(
      Lines(),
      ElementsAre("I Host name: node-1.example\n", "I Local IP addresses: 10.0.0.1 10.0.0.2\n",
                  "I Resolved name: node-1.example\n", "I Resolved alias/es: \n",
                  "I Resolved IP addresses: 10.0.0.2\n", "I Resolved reverse names/aliases: \n"));
}

TEST_F(HostInformation, EndsWithALookupThatFails) {
  LogHostInformation();
  EXPECT_THAT(Lines(), ElementsAre("I Host name: node-1.example\n",
                                   "I Local IP addresses: 10.0.0.1 10.0.0.2\n",
                                   "I Lookup for node-1.example failed\n"));
}

TEST_F(HostInformation, TakesTheComputersNameWhereTheHostHasNone) {
  played_.hostName = std::nullopt;
  LogHostInformation();
  EXPECT_THAT(Lines(),
              ElementsAre("I Host name: NODE-1\n", "I Local IP addresses: 10.0.0.1 10.0.0.2\n",
                          "I Lookup for NODE-1 failed\n"));
}

TEST_F(HostInformation, WithoutAnyNameIsOneErrorLine) {
  played_.hostName = std::nullopt;
  played_.computerName = std::nullopt;
  LogHostInformation();
  EXPECT_THAT(Lines(), ElementsAre("E Failed to get host name for this machine\n"));
}

TEST_F(HostInformation, GoesOnWhereTheAddressesCannotBeRead) {
  played_.addressesFail = true;
  LogHostInformation();
  EXPECT_THAT(
      Lines(),
      ElementsAre("I Host name: node-1.example\n", "E LogHostInformation: Caught no adapters \n",
                  "I Local IP addresses: \n", "I Lookup for node-1.example failed\n"));
}

}  // namespace
}  // namespace MessageRouter
