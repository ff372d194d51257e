#include "parent/Ior.h"

#include <ace/CDR_Stream.h>
#include <ace/Message_Block.h>

#include <algorithm>
#include <new>
#include <stdexcept>

#include "broker/CorbaExceptions.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "parent/IorParser.h"

namespace MessageRouter {

namespace {

constexpr char kPrefix[] = "IOR:";
constexpr std::size_t kPrefixLength = 4;
constexpr ACE_CDR::ULong kInternetProfile = 0;
constexpr ACE_UINT32 kLoopbackMask = 0xFF000000;
constexpr ACE_UINT32 kLoopbackNet = 0x7F000000;

void Require(bool condition, const char* complaint) {
  if (!condition) throw std::invalid_argument(complaint);
}

unsigned DigitValue(char character) {
  if (character >= '0' && character <= '9') return static_cast<unsigned>(character - '0');
  if (character >= 'a' && character <= 'f') return static_cast<unsigned>(character - 'a' + 10);
  if (character >= 'A' && character <= 'F') return static_cast<unsigned>(character - 'A' + 10);
  throw std::invalid_argument("Invalid character in the IOR");
}

// Decodes the pairs behind the prefix; an odd last digit is ignored. The block starts on the
// greatest alignment of CDR, since ACE aligns by address.
void DecodeHex(const std::string& ior, ACE_Message_Block& octets) {
  const std::size_t pairs = (ior.size() - kPrefixLength) / 2;
  if (octets.size(pairs + 9 + ACE_CDR::MAX_ALIGNMENT) == -1) throw std::bad_alloc();
  ACE_CDR::mb_align(&octets);
  for (std::size_t i = 0; i < pairs; ++i) {
    const unsigned high = DigitValue(ior[kPrefixLength + 2 * i]);
    const unsigned low = DigitValue(ior[kPrefixLength + 2 * i + 1]);
    *octets.wr_ptr() = static_cast<char>(high * 16 + low);
    octets.wr_ptr(1);
  }
}

struct Endpoint {
  std::string host;
  ACE_CDR::UShort port = 0;
};

// ACE's own string readers trust the sender to have ended the string.
bool ReadHost(ACE_InputCDR& cdr, std::string& host) {
  ACE_CDR::ULong length = 0;
  if (!cdr.read_ulong(length) || length > cdr.length()) return false;
  host.assign(cdr.rd_ptr(), length);
  host.resize(std::min(host.size(), host.find('\0')));
  return cdr.skip_bytes(length);
}

// What follows the port in a profile is nobody's business here.
Endpoint ReadProfile(ACE_InputCDR& cdr) {
  ACE_CDR::ULong length = 0;
  Require(cdr.read_ulong(length), "Cannot read encap length");
  const char* const octets = cdr.rd_ptr();
  Require(length > 0 && cdr.skip_bytes(length), "Cannot create decoding stream");
  // The encapsulation begins on a boundary of four, which is all that is read here.
  ACE_InputCDR profile(octets + 1, length - 1, *octets, 1, 2);

  ACE_CDR::Octet major = 0;
  ACE_CDR::Octet minor = 0;
  Require(profile.read_octet(major), "Cannot read the IIOP's major version");
  Require(profile.read_octet(minor), "Cannot read the IIOP's minor version");
  Require(major == 1 && minor <= 2, "Detected newer IIOP version in the profile");

  Endpoint endpoint;
  Require(ReadHost(profile, endpoint.host), "Cannot read the hostname");
  Require(profile.read_ushort(endpoint.port), "Cannot read the port number");
  return endpoint;
}

}  // namespace

void ReadIiopAddresses(const std::string& ior, const HostResolver& resolve,
                       std::vector<ACE_INET_Addr>& addresses) {
  Require(!ior.empty(), "Empty IOR string");
  Require(ior.compare(0, kPrefixLength, kPrefix) == 0, "Missing IOR prefix");

  ACE_Message_Block octets;
  DecodeHex(ior, octets);
  Require(octets.length() > 0, "Cannot read type hint string");
  const char byteOrder = *octets.rd_ptr();
  ACE_InputCDR cdr(octets.rd_ptr() + 1, octets.length() - 1, byteOrder, 1, 2);

  Require(cdr.skip_string(), "Cannot read type hint string");
  ACE_CDR::ULong profiles = 0;
  Require(cdr.read_ulong(profiles), "Cannot read the profile count");
  Require(profiles != 0, "No profiles found in the IOR");

  std::size_t names = 0;
  for (ACE_CDR::ULong i = 0; i < profiles; ++i) {
    ACE_CDR::ULong tag = 0;
    Require(cdr.read_ulong(tag), "Cannot read the profile tag");
    if (tag != kInternetProfile) {
      // The bytes of that profile are read as the next ones on purpose: all routers agree on which
      // IORs are good.
      LogDebug("Ignoring non-IIOP tag\n");
      continue;
    }
    const Endpoint endpoint = ReadProfile(cdr);
    LogTrace("Endpoint found: %s:%d\n", Shown(endpoint.host).c_str(), endpoint.port);
    if (!IsDottedAddress(endpoint.host)) {
      Require(++names <= kMaxNamesInIor, "Too many host names in the IOR");
    }
    addresses.push_back(resolve(endpoint.host, endpoint.port));
  }
}

bool ValidateIor(const std::string& ior, const HostResolver& resolve) {
  LogTrace("MessageRouter::validateIOR called\n");
  try {
    std::vector<ACE_INET_Addr> addresses;
    ReadIiopAddresses(ior, resolve, addresses);
    for (const ACE_INET_Addr& address : addresses) {
      if ((address.get_ip_address() & kLoopbackMask) == kLoopbackNet) {
        LogError("Localhost address (e.g. 127/8) found in the IOR\n");
        return false;
      }
    }
    return true;
  } catch (const std::exception& exception) {
    LogCaughtException("validateIOR", exception, "");
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException("validateIOR", exception, "");
  }
  return false;
}

void iiopAddressesInIOR(const std::string& ior, std::vector<ACE_INET_Addr>& addresses) {
  ReadIiopAddresses(ior, ResolveHost, addresses);
}

bool validateIOR(const std::string& ior) {
  return ValidateIor(ior, ResolveHost);
}

}  // namespace MessageRouter
