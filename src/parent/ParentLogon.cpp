#include "parent/ParentLogon.h"

#include <atomic>

#include "config/Configuration.h"
#include "logging/Log.h"
#include "parent/Connector.h"
#include "parent/ParentSearch.h"
#include "security/CertificateContext.h"

namespace MessageRouter {

namespace {

// Tells the health report, where there is one, and the certificate context.
class SearchReport : public ParentSearchObserver {
 public:
  explicit SearchReport(StatusReporting::StatusReporter* reporter) : reporter_(reporter) {}

  void NameNotResolved(const std::string& host) override {
    if (reporter_) reporter_->Dns().addFailedAddress(host);
  }
  void ListUsedUp() override {
    if (reporter_) reporter_->Dns().Update();
  }
  void Unreachable(const std::string& host) override {
    if (!reporter_) return;
    reporter_->SetActualParent("");
    reporter_->Outgoing().Raise(StatusReporting::OutgoingSection::kParentUnreachable, host);
  }
  void Found(const std::string& host, std::uint32_t address) override {
    if (reporter_) {
      reporter_->SetActualParent(host);
      reporter_->Outgoing().Clear(StatusReporting::OutgoingSection::kParentUnreachable);
      reporter_->Dns().Reset();
    }
    CertificateContext::instance().SetParentAddress(address);
  }

 private:
  StatusReporting::StatusReporter* const reporter_;
};

}  // namespace

ParentLogon::~ParentLogon() {
  Stop();
}

std::string ParentLogon::GetParentIOR(const Surroundings& surroundings) {
  const std::string hosts = GetConfigString("ParentAddress", "", 4096);
  const auto port = static_cast<std::uint16_t>(GetConfigInt("ParentPort", 8192));
  SearchReport report(surroundings.reporter);
  ParentSearch search(
      report, ResolveHost,
      [&surroundings](ACE_SOCK_Stream& stream, const ACE_INET_Addr& address) {
        return ConnectWithRetry(stream, address, surroundings.stopping);
      },
      surroundings.stopping);
  return search.Run(hosts, port, GetConfigInt("GetIORTimeoutSec", 10));
}

void ParentLogon::Enable() {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  enabled_ = true;
  condition_.Broadcast();
}

void ParentLogon::LinkLost() {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  loggedOn_ = false;
  condition_.Broadcast();
}

void ParentLogon::RequestStopLogon(bool logoff) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  if (!logoff) loggedOn_ = false;
  UnlockedRequestStop();
}

void ParentLogon::StopLogon(bool logoff) {
  RequestStopLogon(logoff);
  Stop();
}

void ParentLogon::Process() {
  // A router that is reinitialised runs this again.
  static std::atomic<bool> said{false};
  if (WaitUntilEnabled() && !said.exchange(true)) {
    LogWarning(
        "Logging on to a parent is not available in this version: this router stays on its own\n");
  }
  while (!IsTerminated()) Wait(0, 0);
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  registered_ = false;
  loggedOn_ = false;
}

bool ParentLogon::WaitUntilEnabled() {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return false;
  while (!enabled_ && !m_terminate) UnlockedWait(0, 0);
  return enabled_;
}

}  // namespace MessageRouter
