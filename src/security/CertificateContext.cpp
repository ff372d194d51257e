#include "security/CertificateContext.h"

#include <BrelixMessaging.h>

#include <algorithm>
#include <cinttypes>
#include <exception>
#include <stdexcept>
#include <utility>

#include "config/ACE_XPlatform_Configuration.h"
#include "config/Configuration.h"
#include "logging/Log.h"
#include "platform/Network.h"
#include "security/OwnIdentity.h"
#include "security/Roles.h"
#include "security/TlsSetup.h"

namespace MessageRouter {
namespace {

constexpr char kIdentityKeySection[] =
    "SOFTWARE\\Brelix\\Messaging System\\CertificationIdentityKeys";

bool OldProtocolsStay() {
  return GetConfigInt("LegacyProtocolSupport", 1) != 0;
}

bool IsLoopback(std::uint32_t address) {
  return address >> 24 == 127;
}

X509* PeerCertificate() {
  const Broker::Call* const call = Broker::CurrentCall();
  if (call == nullptr || call->certificate == nullptr) throw BrelixMessaging::Rejected();
  return call->certificate;
}

}  // namespace

CertificateContext& CertificateContext::instance() {
  // Never destroyed: threads of the broker may still ask while the process ends.
  static CertificateContext* const context = new CertificateContext;
  return *context;
}

CertificateContext::CertificateContext()
    : regenerationChecker_(Orvane::MakeCertificateRegenerationChecker()),
      interceptor_("RouterInterceptor", regenerationChecker_.get()) {}

void CertificateContext::SetPrivateLocation(const std::string& folder) {
  privateLocation_ = folder;
}

void CertificateContext::SetStoreLocation(const std::string& section) {
  storeLocation_ = section;
}

void CertificateContext::SetCallbacks(Callbacks callbacks) {
  interceptor_.SetLogoff(callbacks.logoffCaller);
  callbacks_ = std::move(callbacks);
}

void CertificateContext::SetCertifyAdapter(std::vector<CORBA::Octet> id) {
  interceptor_.SetCertifyAdapter(std::move(id));
}

void CertificateContext::Initialise() {
  Broker::SetRequestHook(&interceptor_);
  OpenSsl::SslContextPtr context(SSL_CTX_new(TLS_method()));
  if (!context) throw std::runtime_error("Cannot make a TLS context");
  store_ = CeldaneStoreClient::CCeldaneStoreClient::GetStore(storeLocation_, privateLocation_);
  if (!store_) throw std::runtime_error("Failed to get the certificate store");
  ca_ = store_->GetCACertificate();
  if (!ca_) throw std::runtime_error("No CA certificate in certificate store");
  Fill(context.get());
  checked_ = std::move(context);
}

void CertificateContext::ConfigureSslContext() {
  if (!checked_) {
    LogError("Router::ConfigureSslContext: failed to get SSL context.\n");
    return;
  }
  oldProtocolsStay_ = OldProtocolsStay();
  if (oldProtocolsStay_) {
    LogInfo("Router::ConfigureSslContext: keeping legacy compatibility of TLS 1 and TLS 1.1.\n");
    return;
  }
  const TlsSetup::Restriction result = TlsSetup::RestrictProtocols(checked_.get());
  if (result.actual != result.expected) {
    LogError("Router::ConfigureSslContext: failed to set SSL context options. expected 0x%" PRIx64
             " != actual 0x%" PRIx64 "\n",
             result.expected, result.actual);
  }
  LogDebug("Router::ConfigureSslContext: configuration finished.");
}

void CertificateContext::ConfigureCycle(SSL_CTX* context) {
  Store();
  Fill(context);
  if (!oldProtocolsStay_) TlsSetup::RestrictProtocols(context);
}

void CertificateContext::LoadCredentials(SSL_CTX* context) {
  const OpenSsl::ErrorScope errors;
  const auto certificate = Store().GetCertificate();
  if (!certificate) throw std::runtime_error("No certificate in certificate store");
  X509* const x509 = certificate->GetX509().get();
  if (SSL_CTX_use_certificate(context, x509) != 1) {
    throw std::runtime_error("Failed to load certificate");
  }
  const auto key = Store().GetPrivateKey();
  if (!key) throw std::runtime_error("No private key in certificate store");
  if (SSL_CTX_use_PrivateKey(context, key->GetKey()) != 1) {
    throw std::runtime_error("Failed to load private key");
  }
  if (SSL_CTX_check_private_key(context) != 1) {
    throw std::runtime_error("Failed to verify private key");
  }
  if (!HasRouterRole(*certificate)) {
    throw std::runtime_error("Router certificate does not contain router role");
  }
  const std::string text = CertificateAsText(x509);
  OwnIdentity::Set(CommonNameOf(x509), text);
}

bool CertificateContext::NeedsNewCertificate(std::string& commonName) {
  CeldaneStoreClient::IStore& store = Store();
  std::unique_ptr<Celdane::Certificate> certificate;
  try {
    certificate = store.GetCertificate();
  } catch (const std::exception&) {
    LogWarning(
        "Failed to obtain public key certificate from the store. Requesting a new certificate.");
    return true;
  }
  if (!certificate) {
    LogWarning("No public key certificate found in the store. Requesting a new certificate.");
    return true;
  }
  std::unique_ptr<Celdane::RSAKey> key;
  try {
    key = store.GetPrivateKey();
  } catch (const std::exception&) {
    LogWarning(
        "Failed to obtain private key certificate from the store. Requesting a new certificate.");
    return true;
  }
  if (!key) {
    LogWarning("No private key found in the store. Requesting a new certificate.");
    return true;
  }
  if (!HasRouterRole(*certificate)) {
    LogWarning("Invalid role found in certificate. Requesting a new certificate.");
    return true;
  }
  try {
    CeldaneStoreClient::CCeldaneStoreClient::GetCryptoIf()->VerifyCertificate(store, *certificate);
  } catch (...) {
    LogWarning("Failed to verify public key certificate. Requesting a new certificate.");
    return true;
  }
  commonName = CommonNameOf(certificate->GetX509().get());
  if (regenerationChecker_->IsNewCertificateRequired(key->GetRSAKeyBitSize(),
                                                     certificate->GetHashingAlgorithm())) {
    LogWarning("Non-compliant certificate. Requesting a new certificate.");
    return true;
  }
  LogDebug("Not requesting a new certificate.");
  return false;
}

void CertificateContext::StoreCredentials(const Celdane::RSAKey& key,
                                          const Celdane::Certificate& certificate) {
  CeldaneStoreClient::IStore& store = Store();
  store.StorePrivateKey(key);
  store.StoreCertificate(certificate);
  store.Commit();
}

bool CertificateContext::ServerSupportsSha() {
  return regenerationChecker_ && regenerationChecker_->GetServerSupportsSHA();
}

Orvane::ICertificateRegenerationChecker* CertificateContext::RegenerationChecker() {
  return regenerationChecker_.get();
}

std::string CertificateContext::GetPeerCommonName() {
  return CommonNameOf(PeerCertificate());
}

std::string CertificateContext::GetPeerCertificateText() {
  return CertificateAsText(PeerCertificate());
}

bool CertificateContext::IsPeerRouter() {
  return HasRole(PeerCertificate(), Role::Router);
}

bool CertificateContext::IsPeerLocal() {
  const Broker::Call* const call = Broker::CurrentCall();
  if (call == nullptr || call->ssl == nullptr) return false;
  BIO* const bio = SSL_get_rbio(call->ssl);
  int socket = -1;
  if (bio == nullptr || BIO_get_fd(bio, &socket) < 0) return false;
  const auto peer = Platform::PeerAddress(socket);
  if (!peer) return false;
  if (IsLoopback(peer->address)) return true;
  try {
    const std::vector<std::uint32_t> own = Platform::HostAddresses();
    return std::find(own.begin(), own.end(), peer->address) != own.end();
  } catch (const std::runtime_error&) {
    return false;
  }
}

std::string CertificateContext::OwnCommonName() const {
  return OwnIdentity::CommonName();
}

std::string CertificateContext::OwnCertificateText() const {
  return OwnIdentity::CertificateText();
}

std::string CertificateContext::GetIdentityKey() {
  ACE_XPlatform_Configuration configuration(kLocalMachine, kSharedStorePath);
  if (!configuration.OpenSection(kIdentityKeySection, true)) return {};
  bool found = false;
  std::string key = configuration.GetStringValue("CertificationIdentityKey", found);
  return found ? key : std::string();
}

void CertificateContext::SetParentAddress(std::uint32_t address) {
  watch_.SetParentAddress(address);
}

void CertificateContext::ResetParentAddress() {
  watch_.ResetParentAddress();
}

void CertificateContext::TlsInfo(const SSL* ssl, int where, int ret) {
  instance().watch_.OnEvent(ssl, where, ret);
}

void CertificateContext::Tick() {
  watch_.Tick(callbacks_.reportInvalidCertificate);
}

void CertificateContext::Fill(SSL_CTX* context) const {
  TlsSetup::Configure(context, ca_->GetX509().get());
  SSL_CTX_set_info_callback(context, &TlsInfo);
}

CeldaneStoreClient::IStore& CertificateContext::Store() const {
  if (!store_) {
    throw std::runtime_error("Invalid store reference: the object has not been initialized");
  }
  return *store_;
}

}  // namespace MessageRouter
