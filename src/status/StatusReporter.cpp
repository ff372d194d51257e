#include "status/StatusReporter.h"

#include <atomic>

#include "logging/Log.h"

namespace StatusReporting {

StatusReporter::StatusReporter(const std::string& path) : path_(path) {}

StatusReporter::~StatusReporter() = default;

void StatusReporter::WriteReport() {
  // A router that is reinitialised makes a new reporter, and would otherwise say it each time.
  static std::atomic<bool> said{false};
  if (said.exchange(true)) return;
  MessageRouter::LogWarning(
      "The status report is not available in this version: \"%s\" is not written\n", path_.c_str());
}

void StatusReporter::SetActualParent(const std::string& address) {
  MessageRouter::LogDebug("Actual parent is `%s`", address.c_str());
}

DNSSection& StatusReporter::Dns() {
  return dns_;
}

CertificationSection& StatusReporter::Certification() {
  return certification_;
}

IncomingSection& StatusReporter::Incoming() {
  return incoming_;
}

OutgoingSection& StatusReporter::Outgoing() {
  return outgoing_;
}

}  // namespace StatusReporting
