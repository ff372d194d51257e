#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "broker/CurrentCall.h"
#include "security/CertificateRegenerationChecker.h"
#include "threads/Mutex.h"

namespace MessageRouter {

// What is known of a caller's certificate.
enum class PeerState : std::uint32_t {
  Valid = 0,    // it has not passed the end of its validity
  Missing = 1,  // none was shown
  Expired = 2,
};

// Decides for every incoming call, by operation and object adapter, whether a caller without a
// valid certificate may go on. Refusals are BrelixMessaging::Rejected and CertificateExpired; a
// request without TLS is CORBA::NO_PERMISSION. Threads: any number at once.
class CertificateInterceptor : public Broker::RequestHook {
 public:
  // The checker stays the caller's and may be null.
  CertificateInterceptor(std::string name, Orvane::ICertificateRegenerationChecker* checker);

  // Logs a caller with an expired certificate off by its name; what it throws is swallowed. Set
  // before the first call comes in.
  void SetLogoff(std::function<void(const std::string& name)> logoff);
  // The id of the adapter on which callers may obtain a certificate; empty while there is none.
  void SetCertifyAdapter(std::vector<CORBA::Octet> id);

  void OnRequest(const Broker::Call& call) override;

  // The two steps of OnRequest. The first classifies the caller and refuses what no adapter would
  // let pass; what it returns goes to the second, which looks at the adapter.
  PeerState receive_request_service_contexts(const Broker::Call& call);
  void receive_request(const Broker::Call& call, PeerState state);

  const std::string& Name() const { return name_; }

 private:
  // Which callers an operation is open to; operations that are not in the table need a valid
  // certificate.
  enum class Class { ValidOnly = 0, Anyone = 1, AnyoneOnCertifyAdapter = 2 };

  Class ClassOf(const char* operation) const;
  void LookForSha(X509* certificate);
  bool IsOnCertifyAdapter(const Broker::Call& call) const;
  [[noreturn]] void Refuse(const Broker::Call& call, PeerState state);

  const std::string name_;
  const std::unordered_map<std::string_view, Class> operations_;
  Orvane::ICertificateRegenerationChecker* const checker_;
  std::function<void(const std::string&)> logoff_;

  // Leaf lock.
  mutable ThreadHelper::Mutex mutex_;
  std::vector<CORBA::Octet> certifyAdapter_ GUARDED_BY(mutex_);
};

}  // namespace MessageRouter
