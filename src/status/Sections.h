#pragma once

#include <cstdint>
#include <string>

// What the rest of the router tells the health report. Nothing is kept of it in this version.
// Virtual, so that a test can listen.
namespace StatusReporting {

class DNSSection {
 public:
  virtual ~DNSSection() = default;
  virtual void addFailedAddress(const std::string& address);
  virtual void Update();
  virtual void Reset();
};

class CertificationSection {
 public:
  virtual ~CertificationSection() = default;
  virtual void ReportPeer(std::uint32_t address);
};

class IncomingSection {
 public:
  virtual ~IncomingSection() = default;
  // How a poll went: whether the peer had notified it, and whether it got anything.
  virtual void Update(bool notified, bool got);
  virtual void ThresholdCall();
};

class OutgoingSection {
 public:
  virtual ~OutgoingSection() = default;
  static constexpr int kOwnIorInvalid = 0;
  static constexpr int kParentUnreachable = 1;
  static constexpr int kParentIorInvalid = 2;
  virtual void Raise(int record, const std::string& text);
  virtual void Clear(int record);
};

}  // namespace StatusReporting
