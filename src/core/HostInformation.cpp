#include "core/HostInformation.h"

#include <optional>
#include <set>
#include <string>

#include "core/IPAddressSet.h"
#include "logging/Log.h"
#include "platform/Network.h"
#include "platform/Process.h"

namespace MessageRouter {
namespace {

template <class Texts>
std::string JoinByBlanks(const Texts& texts) {
  std::string joined;
  for (const std::string& text : texts) {
    if (!joined.empty()) joined += ' ';
    joined += text;
  }
  return joined;
}

std::string LocalAddresses() {
  ACEHelpers::IPAddressSet addresses;
  try {
    ACEHelpers::InitialiseWithHost(addresses);
  } catch (const std::exception& exception) {
    LogCaughtException("LogHostInformation", exception, "");
  }
  return addresses.Text();
}

}  // namespace

void LogHostInformation() {
  std::optional<std::string> name = Platform::HostName();
  if (!name) name = Platform::ComputerName();
  if (!name) {
    LogError("Failed to get host name for this machine\n");
    return;
  }
  LogInfo("Host name: %s\n", name->c_str());
  LogInfo("Local IP addresses: %s\n", LocalAddresses().c_str());

  const std::optional<Platform::ResolvedHost> host = Platform::ResolveName(*name);
  if (!host) {
    LogInfo("Lookup for %s failed\n", name->c_str());
    return;
  }
  std::vector<std::string> addresses;
  std::set<std::string> reverse;
  for (const std::uint32_t address : host->addresses) {
    addresses.push_back(Platform::DottedAddress(address));
    if (const auto back = Platform::ResolveAddress(address)) {
      reverse.insert(back->name);
      reverse.insert(back->aliases.begin(), back->aliases.end());
    }
  }
  LogInfo("Resolved name: %s\n", host->name.c_str());
  LogInfo("Resolved alias/es: %s\n", JoinByBlanks(host->aliases).c_str());
  LogInfo("Resolved IP addresses: %s\n", JoinByBlanks(addresses).c_str());
  LogInfo("Resolved reverse names/aliases: %s\n", JoinByBlanks(reverse).c_str());
}

void SetCpuAffinity(std::int32_t cpu) {
  if (cpu >= 32) {
    LogWarning(
        "Ignoring CPU affinity since CPU %d was requested but this application only supports CPUs "
        "0 through 31.\n",
        cpu);
    return;
  }
  if (cpu < 0) {
    LogWarning("Ignoring CPU affinity since an invalid CPU i.e. %d was requested.\n", cpu);
    return;
  }
  int error = 0;
  std::optional<std::uint64_t> available = Platform::AffinityMask(&error);
  if (!available) {
    LogWarning(
        "Failed to get the existing processor affinity so bypassing CPU availability checks. "
        "Error: %x\n",
        static_cast<unsigned>(error));
    available = 65535;
  }
  LogDebug("System affinity is: 0x0%x\n", static_cast<unsigned>(*available));
  if ((*available & (std::uint64_t{1} << cpu)) == 0) {
    LogWarning(
        "Request to set process CPU affinity to CPU %d failed since CPU %d is not available.\n",
        cpu, cpu);
    return;
  }
  if (Platform::SetAffinity(static_cast<unsigned>(cpu), &error)) {
    LogInfo("CPU affinity set to CPU %d\n", cpu);
  } else {
    LogWarning("Request to set process CPU affinity to CPU %d failed with error %x.\n", cpu,
               static_cast<unsigned>(error));
  }
}

}  // namespace MessageRouter
