#include "security/CertificateInterceptor.h"

#include <BrelixMessaging.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <cstring>
#include <ctime>
#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "logging/Log.h"
#include "platform/Clock.h"
#include "platform/Text.h"
#include "security/Roles.h"

namespace MessageRouter {
namespace {

PeerState Classify(X509* certificate) {
  if (certificate == nullptr) return PeerState::Missing;
  std::time_t now = static_cast<std::time_t>(Platform::Clock::Instance().WallSeconds());
  return X509_cmp_time(X509_get0_notAfter(certificate), &now) < 0 ? PeerState::Expired
                                                                  : PeerState::Valid;
}

}  // namespace

CertificateInterceptor::CertificateInterceptor(std::string name,
                                               Orvane::ICertificateRegenerationChecker* checker)
    : name_(std::move(name)),
      operations_{
          {"GetName", Class::Anyone},
          {"GetCACertificate", Class::Anyone},
          {"GetCRL", Class::Anyone},
          {"GetCertification", Class::Anyone},
          {"CertLogon", Class::Anyone},
          {"CertLogoff", Class::Anyone},
          {"GetEnvelope", Class::AnyoneOnCertifyAdapter},
          {"AcknowledgeEnvelope", Class::AnyoneOnCertifyAdapter},
          {"Heartbeat", Class::AnyoneOnCertifyAdapter},
          {"SendMessage", Class::AnyoneOnCertifyAdapter},
          {"Cancel", Class::AnyoneOnCertifyAdapter},
      },
      checker_(checker) {}

void CertificateInterceptor::SetLogoff(std::function<void(const std::string& name)> logoff) {
  logoff_ = std::move(logoff);
}

void CertificateInterceptor::SetCertifyAdapter(std::vector<CORBA::Octet> id) {
  ThreadHelper::Guard guard(mutex_);
  if (guard) certifyAdapter_ = std::move(id);
}

void CertificateInterceptor::OnRequest(const Broker::Call& call) {
  receive_request(call, receive_request_service_contexts(call));
}

PeerState CertificateInterceptor::receive_request_service_contexts(const Broker::Call& call) {
  if (!call.tls) throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
  const PeerState state = Classify(call.certificate);
  // Any peer's certificate tells, since the same manager issues them all.
  if (call.certificate != nullptr && checker_ != nullptr && !checker_->GetServerSupportsSHA()) {
    LookForSha(call.certificate);
  }
  if (state == PeerState::Valid) return state;
  switch (ClassOf(call.operation)) {
    case Class::Anyone:
      return PeerState::Valid;
    case Class::AnyoneOnCertifyAdapter:
      return state;
    case Class::ValidOnly:
      break;
  }
  Refuse(call, state);
}

void CertificateInterceptor::receive_request(const Broker::Call& call, PeerState state) {
  if (state == PeerState::Valid || IsOnCertifyAdapter(call)) return;
  Refuse(call, state);
}

CertificateInterceptor::Class CertificateInterceptor::ClassOf(const char* operation) const {
  const auto found = operations_.find(operation);
  return found == operations_.end() ? Class::ValidOnly : found->second;
}

void CertificateInterceptor::LookForSha(X509* certificate) {
  char algorithm[128] = "";
  OBJ_obj2txt(algorithm, sizeof algorithm, X509_get0_tbs_sigalg(certificate)->algorithm, 0);
  LogTrace("Peer certificate hashing algorithm: %s", algorithm);
  if (std::strstr(algorithm, "sha256") == nullptr && std::strstr(algorithm, "SHA256") == nullptr) {
    return;
  }
  LogDebug("The Certification Manager can issue certificates using a SHA hashing algorithm.");
  checker_->SetServerSupportsSHA(true);
}

bool CertificateInterceptor::IsOnCertifyAdapter(const Broker::Call& call) const {
  ThreadHelper::Guard guard(mutex_);
  // Without an adapter there is no id to compare with, and every key begins with an empty one.
  return guard && !certifyAdapter_.empty() && Broker::KeyIsOfAdapter(call, certifyAdapter_);
}

namespace {

// The name of an operation is whatever the caller sent: it must not write lines of its own.
std::string Printable(std::string_view operation) {
  constexpr std::size_t kLongest = 64;
  std::string text(operation.substr(0, kLongest));
  constexpr unsigned char kLastAscii = 0x7F;
  for (char& c : text) {
    if (Platform::IsControl(c) || static_cast<unsigned char>(c) > kLastAscii) c = '?';
  }
  return text;
}

}  // namespace

void CertificateInterceptor::Refuse(const Broker::Call& call, PeerState state) {
  if (state != PeerState::Expired) throw BrelixMessaging::Rejected();
  try {
    const std::string name = CommonNameOf(call.certificate);
    LogInfo("%s() called with expired certificate, logging caller off...\n",
            Printable(call.operation).c_str());
    if (logoff_) logoff_(name);
  } catch (const CORBA::Exception&) {
    // A caller that is not registered, or logged off meanwhile, is refused like the others.
  } catch (const std::exception&) {
    // So is one without a name.
  }
  throw BrelixMessaging::CertificateExpired();
}

}  // namespace MessageRouter
