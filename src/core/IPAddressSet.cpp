#include "core/IPAddressSet.h"

#include <algorithm>
#include <stdexcept>

#include "logging/Log.h"
#include "platform/Network.h"

namespace ACEHelpers {

using MessageRouter::LogTrace;

void IPAddressSet::Add(const ACE_INET_Addr& address) {
  addresses_.push_back(address);
}

void IPAddressSet::Normalise() {
  std::erase_if(addresses_, [](const ACE_INET_Addr& address) {
    return (address.get_ip_address() & 0xFF000000u) == 0x7F000000u;
  });
  std::sort(addresses_.begin(), addresses_.end());
}

std::string IPAddressSet::Text() const {
  std::string text;
  for (const ACE_INET_Addr& address : addresses_) {
    if (!text.empty()) text += ' ';
    text += Platform::DottedAddress(address.get_ip_address());
  }
  return text;
}

void InitialiseWithHost(IPAddressSet& set) {
  LogTrace("IPAddressSet::InitialiseWithHost() called\n");
  IPAddressSet found;
  try {
    for (const std::uint32_t address : Platform::HostAddresses()) {
      LogTrace("Added host network address:%s\n", Platform::DottedAddress(address).c_str());
      found.Add(ACE_INET_Addr(static_cast<u_short>(0), address));
    }
  } catch (const std::runtime_error&) {
    MessageRouter::LogDebug("No host network interfaces found\n");
  }
  found.Normalise();
  set = std::move(found);
  LogTrace("IPAddressSet::InitialiseWithHost() returns\n");
}

}  // namespace ACEHelpers
