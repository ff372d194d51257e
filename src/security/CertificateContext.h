#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "broker/CurrentCall.h"
#include "security/CeldaneStoreClient.h"
#include "security/CertificateInterceptor.h"
#include "security/CertificateRegenerationChecker.h"
#include "security/OpenSsl.h"
#include "security/TlsWatch.h"

namespace MessageRouter {

// Process-wide holder of the certificate store, the own certificate and name, and the queries about
// the peer of the call that a thread is serving.
// Threads: what works on the store or on a TLS context (Initialise to StoreCredentials),
// SetCallbacks and Tick on the main thread; everything else on any.
class CertificateContext {
 public:
  // Made on first use and not replaced afterwards.
  static CertificateContext& instance();

  // Both before Initialise.
  void SetPrivateLocation(const std::string& folder);
  void SetStoreLocation(const std::string& section);

  // Opens the store, reads the CA certificate, fills a context of its own for the checks, and
  // installs the request interceptor. Throws std::runtime_error: without a CA no router starts.
  // The CA stays the same for the life of the process, whatever becomes of its file.
  void Initialise();
  // Switches old protocols off where LegacyProtocolSupport says so. Never fails the start.
  void ConfigureSslContext();
  // Fills the TLS context of one cycle's ORB as Initialise and ConfigureSslContext filled theirs.
  void ConfigureCycle(SSL_CTX* context);
  // Puts certificate and key into the context of the running ORB and takes the own name from it.
  // Throws std::runtime_error.
  void LoadCredentials(SSL_CTX* context);

  // True if a new certificate must be obtained; the reason is logged. `commonName` keeps its value
  // where an early test decides.
  bool NeedsNewCertificate(std::string& commonName);
  // The key first, then the certificate, then the commit.
  void StoreCredentials(const Celdane::RSAKey& key, const Celdane::Certificate& certificate);
  bool ServerSupportsSha();
  Orvane::ICertificateRegenerationChecker* RegenerationChecker();

  // About the peer of the call in progress. The first three raise BrelixMessaging::Rejected if its
  // certificate is missing or does not decode.
  std::string GetPeerCommonName();
  std::string GetPeerCertificateText();
  bool IsPeerRouter();
  // Whether the peer is on this host. False if that can't be found out.
  bool IsPeerLocal();

  std::string OwnCommonName() const;
  std::string OwnCertificateText() const;
  // Empty if none is stored.
  std::string GetIdentityKey();

  // The address of the parent's IOR port; a completed handshake with it writes HostIPToParent at
  // the next Tick.
  void SetParentAddress(std::uint32_t address);
  void ResetParentAddress();

  // OpenSSL's information callback for the connections of the router's ORB.
  static void TlsInfo(const SSL* ssl, int where, int ret);
  // Work that the callbacks left for the main thread.
  void Tick();

  // What the context asks of the router. Set once, before the first ORB.
  struct Callbacks {
    // A peer refused our certificate as from an unknown CA. Main thread.
    std::function<void(std::uint32_t peerAddress)> reportInvalidCertificate;
    // Logs the caller off by name; may throw. Broker threads.
    std::function<void(const std::string& name)> logoffCaller;
  };
  void SetCallbacks(Callbacks callbacks);

  // The id of the adapter "RouterCertify" of the running cycle; empty before it exists.
  void SetCertifyAdapter(std::vector<CORBA::Octet> id);

 private:
  friend class CertificateContextAccess;  // tests make contexts of their own

  CertificateContext();

  // Throws std::runtime_error before Initialise has run.
  CeldaneStoreClient::IStore& Store() const;
  void Fill(SSL_CTX* context) const;

  bool oldProtocolsStay_ = true;    // decided once, for all cycles
  OpenSsl::SslContextPtr checked_;  // filled once, for its checks; no connection uses it
  std::string privateLocation_;
  std::string storeLocation_;
  std::unique_ptr<CeldaneStoreClient::IStore> store_;  // null until Initialise has run
  std::unique_ptr<Celdane::Certificate> ca_;           // as it was when Initialise ran
  const std::unique_ptr<Orvane::ICertificateRegenerationChecker> regenerationChecker_;
  CertificateInterceptor interceptor_;
  TlsWatch watch_;
  Callbacks callbacks_;
};

}  // namespace MessageRouter
