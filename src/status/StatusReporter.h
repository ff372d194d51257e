#pragma once

#include <memory>
#include <string>

#include "status/Sections.h"

namespace StatusReporting {

// The router's health report. The report itself is not written in this version: observations are
// taken and dropped, and WriteReport says so in the log once.
// Threads: any.
class StatusReporter {
 public:
  explicit StatusReporter(const std::string& path);
  virtual ~StatusReporter();
  StatusReporter(const StatusReporter&) = delete;
  StatusReporter& operator=(const StatusReporter&) = delete;

  virtual void WriteReport();
  virtual void SetActualParent(const std::string& address);

  virtual DNSSection& Dns();
  virtual CertificationSection& Certification();
  virtual IncomingSection& Incoming();
  virtual OutgoingSection& Outgoing();

 private:
  std::string path_;
  DNSSection dns_;
  CertificationSection certification_;
  IncomingSection incoming_;
  OutgoingSection outgoing_;
};

}  // namespace StatusReporting
