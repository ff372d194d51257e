#pragma once

#include <cstdint>
#include <string>

// What the rest of the router tells the health report. Nothing is kept of it in this version.
namespace StatusReporting {

class DNSSection {
 public:
  void addFailedAddress(const std::string& address);
  void Update();
  void Reset();
};

class CertificationSection {
 public:
  void ReportPeer(std::uint32_t address);
};

class IncomingSection {
 public:
  // How a poll went: whether the peer had notified it, and whether it got anything.
  void Update(bool notified, bool got);
  void ThresholdCall();
};

class OutgoingSection {
 public:
  static constexpr int kOwnIorInvalid = 0;
  static constexpr int kParentUnreachable = 1;
  static constexpr int kParentIorInvalid = 2;
  void Raise(int record, const std::string& text);
  void Clear(int record);
};

}  // namespace StatusReporting
