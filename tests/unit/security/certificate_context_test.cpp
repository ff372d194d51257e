#include "security/CertificateContext.h"

#include <BrelixMessaging.h>

#include <filesystem>

#include "broker/CallRecord.h"
#include "config/ACE_XPlatform_Configuration.h"
#include "config/Configuration.h"
#include "fixture.h"
#include "logging/Log.h"
#include "platform/Files.h"
#include "platform/Network.h"
#include "security/OwnIdentity.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace {

using namespace SecurityTest;
using namespace MessageRouter;

template <class Function>
std::string FailureOf(Function&& function) {
  try {
    function();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no failure";
}

constexpr char kNotInitialised[] = "Invalid store reference: the object has not been initialized";

class ContextTest : public testing::Test {
 protected:
  ContextTest() : context_(CertificateContextAccess::Make()) {
    context_->SetPrivateLocation(Folder());
  }
  ~ContextTest() override {
    Broker::SetRequestHook(nullptr);
    OwnIdentity::Set("", "");
  }

  std::string Folder() const { return (scratch_.Folder() / "store").string(); }
  void Store(const TestSupport::Issued& identity) { WriteStore(Folder(), Ca().CaPem(), identity); }
  void InitialiseWith(const TestSupport::Issued& identity) {
    Store(identity);
    context_->Initialise();
  }
  OpenSsl::SslContextPtr CycleContext() {
    OpenSsl::SslContextPtr context(SSL_CTX_new(TLS_method()));
    context_->ConfigureCycle(context.get());
    return context;
  }
  std::string LoadFailure() {
    const auto cycle = CycleContext();
    return FailureOf([&] { context_->LoadCredentials(cycle.get()); });
  }

  TestSupport::ScratchConfiguration scratch_;
  TestSupport::LogCapture log_;
  std::unique_ptr<CertificateContext> context_;
  const TestSupport::Issued router_ = Ca().Issue("router-1", {1});
};

TEST_F(ContextTest, TheContextOfTheProcessIsMadeOnce) {
  EXPECT_EQ(&CertificateContext::instance(), &CertificateContext::instance());
}

TEST_F(ContextTest, WithoutAStoreThereIsNoStart) {
  WriteText(Folder(), "x");
  EXPECT_EQ(FailureOf([&] { context_->Initialise(); }), "Failed to get the certificate store");
}

TEST_F(ContextTest, WithoutACaCertificateThereIsNoStart) {
  EXPECT_EQ(FailureOf([&] { context_->Initialise(); }), "No CA certificate in certificate store");
}

TEST_F(ContextTest, WithACaCertificateAloneItInitialises) {
  InitialiseWith({});
  EXPECT_EQ(FailureOf([&] { CycleContext(); }), "no failure");
}

TEST_F(ContextTest, ACycleHasTheCaOfTheStartWhateverBecomesOfItsFile) {
  InitialiseWith(router_);
  const auto peer = PeerContext(Ca().Issue("agent-1", {}));
  const auto connects = [&] {
    const auto cycle = CycleContext();
    context_->LoadCredentials(cycle.get());
    return Handshake(cycle.get(), peer.get()).Succeeded();
  };
  std::filesystem::remove(Folder() + "/ca.pem");
  EXPECT_TRUE(connects());
  WriteText(Folder() + "/ca.pem", TestSupport::TestCa("Other CA").CaPem());
  EXPECT_TRUE(connects());
  WriteText(Folder() + "/ca.pem", "rubbish");
  EXPECT_TRUE(connects());
}

TEST_F(ContextTest, CanBeInitialisedAgainAfterAFailure) {
  EXPECT_THROW(context_->Initialise(), std::runtime_error);
  InitialiseWith(router_);
  EXPECT_EQ(LoadFailure(), "no failure");
}

TEST_F(ContextTest, BeforeItIsInitialisedTheStoreIsAnInvalidReference) {
  std::string name;
  const auto key = KeyOf(router_.keyPem);
  const auto certificate = CertificateOf(router_.certificatePem);
  EXPECT_EQ(FailureOf([&] { context_->NeedsNewCertificate(name); }), kNotInitialised);
  EXPECT_EQ(FailureOf([&] { context_->StoreCredentials(key, certificate); }), kNotInitialised);
  EXPECT_EQ(FailureOf([&] { CycleContext(); }), kNotInitialised);
}

TEST_F(ContextTest, ConfigureSslContextBeforeInitialiseOnlyLogs) {
  context_->ConfigureSslContext();
  EXPECT_TRUE(log_.Has(kLogError, "Router::ConfigureSslContext: failed to get SSL context.\n"));
}

TEST_F(ContextTest, OldProtocolsStayByDefault) {
  InitialiseWith(router_);
  context_->ConfigureSslContext();
  EXPECT_TRUE(log_.Has(
      kLogInfo,
      "Router::ConfigureSslContext: keeping legacy compatibility of TLS 1 and TLS 1.1.\n"));
  EXPECT_FALSE(log_.Contains("configuration finished"));
  EXPECT_EQ(SSL_CTX_get_options(CycleContext().get()) & (SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1), 0u);
}

TEST_F(ContextTest, WithoutLegacyProtocolSupportOnlyTls12AndLaterStayOn) {
  SetConfigInt("LegacyProtocolSupport", 0);
  InitialiseWith(router_);
  context_->ConfigureSslContext();
  EXPECT_TRUE(log_.Has(kLogDebug, "Router::ConfigureSslContext: configuration finished."));
  EXPECT_FALSE(log_.Contains("failed to set SSL context options"));
  const std::uint64_t options = SSL_CTX_get_options(CycleContext().get());
  EXPECT_EQ(options & (SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1),
            SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
  EXPECT_EQ(options & (SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3), 0u);
}

TEST_F(ContextTest, TheContextOfACycleIsConfiguredWithoutALine) {
  SetConfigInt("LegacyProtocolSupport", 0);
  InitialiseWith(router_);
  log_.Clear();
  CycleContext();
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(ContextTest, ACycleHasNoCertificateToShowBeforeTheCredentialsAreLoaded) {
  InitialiseWith(router_);
  const auto cycle = CycleContext();
  EXPECT_EQ(SSL_CTX_get0_certificate(cycle.get()), nullptr);
  const auto peer = PeerContext(Ca().Issue("parent", {1}));
  Handshake handshake(peer.get(), cycle.get());
  EXPECT_TRUE(handshake.Succeeded());
  EXPECT_EQ(SSL_get0_peer_certificate(handshake.Server()), nullptr);
}

TEST_F(ContextTest, LoadedCredentialsAreShownToPeersAndNameTheRouter) {
  InitialiseWith(router_);
  const auto cycle = CycleContext();
  context_->LoadCredentials(cycle.get());
  EXPECT_EQ(context_->OwnCommonName(), "router-1");
  EXPECT_EQ(context_->OwnCertificateText(), router_.certificatePem);
  Handshake handshake(cycle.get(), PeerContext({}).get());
  ASSERT_TRUE(handshake.Succeeded());
  EXPECT_EQ(CommonNameOf(SSL_get0_peer_certificate(handshake.Client())), "router-1");
}

TEST_F(ContextTest, EachCycleLoadsTheCredentialsOfItsTime) {
  InitialiseWith(router_);
  EXPECT_EQ(LoadFailure(), "no failure");
  Store(Ca().Issue("router-2", {1}));
  EXPECT_EQ(context_->OwnCommonName(), "router-1");
  EXPECT_EQ(LoadFailure(), "no failure");
  EXPECT_EQ(context_->OwnCommonName(), "router-2");
}

TEST_F(ContextTest, WithoutACertificateTheCredentialsDoNotLoad) {
  InitialiseWith({"", router_.keyPem});
  EXPECT_EQ(LoadFailure(), "No certificate in certificate store");
}

TEST_F(ContextTest, ACertificateThatIsTooWeakDoesNotLoad) {
  TestSupport::IssueOptions options;
  options.bits = 768;
  InitialiseWith(Ca().Issue("router-1", {1}, options));
  EXPECT_EQ(LoadFailure(), "Failed to load certificate");
}

TEST_F(ContextTest, AnOldCertificateWithAShortKeyAndSha1Loads) {
  TestSupport::IssueOptions options;
  options.bits = 1024;
  options.digest = "SHA1";
  InitialiseWith(Ca().Issue("router-1", {1}, options));
  EXPECT_EQ(LoadFailure(), "no failure");
}

TEST_F(ContextTest, WithoutAKeyTheCredentialsDoNotLoad) {
  InitialiseWith({router_.certificatePem, ""});
  EXPECT_EQ(LoadFailure(), "No private key in certificate store");
}

TEST_F(ContextTest, AKeyOfAnotherCertificateDoesNotLoad) {
  TestSupport::IssueOptions fresh;
  fresh.freshKey = true;
  InitialiseWith({router_.certificatePem, Ca().Issue("other", {1}, fresh).keyPem});
  EXPECT_EQ(LoadFailure(), "Failed to load private key");
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(ContextTest, ACertificateWithoutTheRouterRoleDoesNotLoad) {
  InitialiseWith(Ca().Issue("router-1", {2}));
  EXPECT_EQ(LoadFailure(), "Router certificate does not contain router role");
  EXPECT_EQ(context_->OwnCommonName(), "");
}

struct NeedRow {
  const char* name;
  TestSupport::Issued stored;
  unsigned level;
  const char* text;
};

TEST_F(ContextTest, WhatIsWrongWithTheCertificateIsLoggedAndANewOneIsNeeded) {
  TestSupport::TestCa other("Other CA");
  TestSupport::IssueOptions over;
  over.days = -1;
  const NeedRow rows[] = {
      {"unreadable certificate",
       {"garbage", router_.keyPem},
       kLogWarning,
       "Failed to obtain public key certificate from the store. Requesting a new certificate."},
      {"no certificate",
       {"", router_.keyPem},
       kLogWarning,
       "No public key certificate found in the store. Requesting a new certificate."},
      {"unreadable key",
       {router_.certificatePem, "garbage"},
       kLogWarning,
       "Failed to obtain private key certificate from the store. Requesting a new certificate."},
      {"no key",
       {router_.certificatePem, ""},
       kLogWarning,
       "No private key found in the store. Requesting a new certificate."},
      {"no role", Ca().Issue("router-1", {}), kLogWarning,
       "Invalid role found in certificate. Requesting a new certificate."},
      {"another authority", other.Issue("router-1", {1}), kLogWarning,
       "Failed to verify public key certificate. Requesting a new certificate."},
      {"expired", Ca().Issue("router-1", {1}, over), kLogWarning,
       "Failed to verify public key certificate. Requesting a new certificate."},
  };
  for (const NeedRow& row : rows) {
    std::filesystem::remove_all(Folder());
    log_.Clear();
    InitialiseWith(row.stored);
    std::string name = "kept";
    EXPECT_TRUE(context_->NeedsNewCertificate(name)) << row.name;
    EXPECT_TRUE(log_.Has(row.level, row.text)) << row.name;
    EXPECT_EQ(name, "kept") << row.name;
  }
}

TEST_F(ContextTest, AGoodCertificateIsKeptAndTellsItsName) {
  InitialiseWith(router_);
  std::string name;
  EXPECT_FALSE(context_->NeedsNewCertificate(name));
  EXPECT_EQ(name, "router-1");
  EXPECT_TRUE(log_.Has(kLogDebug, "Not requesting a new certificate."));
}

TEST_F(ContextTest, StoredCredentialsAreInForceAtTheNextLoading) {
  InitialiseWith({});
  context_->StoreCredentials(KeyOf(router_.keyPem), CertificateOf(router_.certificatePem));
  EXPECT_EQ(LoadFailure(), "no failure");
  EXPECT_EQ(context_->OwnCommonName(), "router-1");
}

TEST_F(ContextTest, ServerSupportsShaIsTheCheckersAnswer) {
  EXPECT_FALSE(context_->ServerSupportsSha());
  context_->RegenerationChecker()->SetServerSupportsSHA(true);
  EXPECT_TRUE(context_->ServerSupportsSha());
}

TEST_F(ContextTest, OnceInitialisedItSeesEveryCallAndLogsExpiredCallersOff) {
  std::vector<std::string> loggedOff;
  CertificateContext::Callbacks callbacks;
  callbacks.logoffCaller = [&](const std::string& name) { loggedOff.push_back(name); };
  context_->SetCallbacks(std::move(callbacks));
  InitialiseWith(router_);
  TestSupport::IssueOptions over;
  over.days = -1;
  const OpenSsl::X509Ptr expired = Decode(Ca().Issue("agent-1", {}, over).certificatePem);
  const std::vector<CORBA::Octet> key = {1, 2, 3};
  Broker::Call& call = Broker::CallRecord::Begin();
  call = TlsCall("Heartbeat", expired.get());
  call.objectKey = key.data();
  call.objectKeySize = key.size();
  EXPECT_THROW(Broker::CallRecord::Inspect(), BrelixMessaging::CertificateExpired);
  EXPECT_EQ(loggedOff, std::vector<std::string>{"agent-1"});
  context_->SetCertifyAdapter({1, 2});
  EXPECT_NO_THROW(Broker::CallRecord::Inspect());
  Broker::CallRecord::End();
}

TEST_F(ContextTest, OutsideOfACallThePeerIsRejected) {
  EXPECT_THROW(context_->GetPeerCommonName(), BrelixMessaging::Rejected);
  EXPECT_THROW(context_->GetPeerCertificateText(), BrelixMessaging::Rejected);
  EXPECT_THROW(context_->IsPeerRouter(), BrelixMessaging::Rejected);
  EXPECT_FALSE(context_->IsPeerLocal());
}

TEST_F(ContextTest, APeerWithoutACertificateIsRejected) {
  const Broker::ScopedCall call(TlsCall("GetName", nullptr));
  EXPECT_THROW(context_->GetPeerCommonName(), BrelixMessaging::Rejected);
  EXPECT_THROW(context_->GetPeerCertificateText(), BrelixMessaging::Rejected);
  EXPECT_THROW(context_->IsPeerRouter(), BrelixMessaging::Rejected);
}

TEST_F(ContextTest, ThePeerIsWhoItsCertificateSays) {
  const std::string pem = Ca().Issue("agent-1", {}).certificatePem;
  const OpenSsl::X509Ptr peer = Decode(pem);
  const Broker::ScopedCall call(TlsCall("Logon", peer.get()));
  EXPECT_EQ(context_->GetPeerCommonName(), "agent-1");
  EXPECT_EQ(context_->GetPeerCertificateText(), pem);
  EXPECT_FALSE(context_->IsPeerRouter());
}

TEST_F(ContextTest, APeerWithTheRouterRoleIsARouter) {
  const OpenSsl::X509Ptr peer = Decode(router_.certificatePem);
  const Broker::ScopedCall call(TlsCall("GetRouter", peer.get()));
  EXPECT_TRUE(context_->IsPeerRouter());
}

// A call over a TCP connection to that address of this host.
class ConnectedPeer {
 public:
  explicit ConnectedPeer(std::uint32_t address)
      : sockets_(address), context_(SSL_CTX_new(TLS_method())), ssl_(SSL_new(context_.get())) {
    SSL_set_fd(ssl_.get(), sockets_.Server());
  }
  ~ConnectedPeer() {
    Platform::SetHostAddressSource(nullptr);
    Platform::SetPeerAddressSource(nullptr);
  }
  Broker::Call Call() const {
    Broker::Call call = TlsCall("GetClient", nullptr);
    call.ssl = ssl_.get();
    return call;
  }

 private:
  TcpPair sockets_;
  OpenSsl::SslContextPtr context_;
  SslPtr ssl_;
};

TEST_F(ContextTest, APeerOnTheLoopbackNetIsLocal) {
  for (const std::uint32_t address : {0x7F000001u, 0x7F010203u}) {
    const ConnectedPeer peer(address);
    const Broker::ScopedCall call(peer.Call());
    EXPECT_TRUE(context_->IsPeerLocal());
  }
}

TEST_F(ContextTest, APeerOnTheLoopbackNetIsLocalToAHostWithNothingElse) {
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>(); });
  const ConnectedPeer peer(0x7F000001);
  const Broker::ScopedCall call(peer.Call());
  EXPECT_TRUE(context_->IsPeerLocal());
}

TEST_F(ContextTest, APeerAtAnAddressOfTheHostIsLocalByTheAddressesOfTheMoment) {
  const ConnectedPeer peer(0x7F000001);
  Platform::SetPeerAddressSource([](int) -> std::optional<Platform::SocketAddress> {
    return {{0xC0000205, 4711}};
  });
  const Broker::ScopedCall call(peer.Call());
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0xC0000204, 0xC0000205}; });
  EXPECT_TRUE(context_->IsPeerLocal());
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0xC0000204}; });
  EXPECT_FALSE(context_->IsPeerLocal());
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>(); });
  EXPECT_FALSE(context_->IsPeerLocal());
  Platform::SetHostAddressSource(
      []() -> std::vector<std::uint32_t> { throw std::runtime_error("refused"); });
  EXPECT_FALSE(context_->IsPeerLocal());
}

TEST_F(ContextTest, APeerWithoutASocketIsNotLocal) {
  const OpenSsl::SslContextPtr tls(SSL_CTX_new(TLS_method()));
  const SslPtr ssl(SSL_new(tls.get()));
  Broker::Call call = TlsCall("GetClient", nullptr);
  call.ssl = ssl.get();
  {
    const Broker::ScopedCall scoped(call);
    EXPECT_FALSE(context_->IsPeerLocal());
  }
  SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  const Broker::ScopedCall scoped(call);
  EXPECT_FALSE(context_->IsPeerLocal());
}

TEST_F(ContextTest, TheIdentityKeyIsEmptyUnlessItIsStored) {
  EXPECT_EQ(context_->GetIdentityKey(), "");
}

TEST_F(ContextTest, TheIdentityKeyStandsInTheSharedStore) {
  ACE_XPlatform_Configuration store(kLocalMachine, kSharedStorePath);
  ASSERT_TRUE(
      store.OpenSection("SOFTWARE\\Brelix\\Messaging System\\CertificationIdentityKeys", true));
  bool ok = false;
  store.SetStringValue("CertificationIdentityKey", "key-4711", ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(context_->GetIdentityKey(), "key-4711");
}

TEST_F(ContextTest, ForgettingTheParentWritesZero) {
  context_->SetParentAddress(0x0A000001);
  context_->ResetParentAddress();
  EXPECT_EQ(GetConfigInt("HostIPToParent", 99), 0u);
}

// Handshakes over sockets, watched by the context of the process as a router's are.
class WatchedHandshake : public ContextTest {
 protected:
  WatchedHandshake() {
    CertificateContext::Callbacks callbacks;
    callbacks.reportInvalidCertificate = [this](std::uint32_t peer) { reported_.push_back(peer); };
    CertificateContext::instance().SetCallbacks(std::move(callbacks));
    InitialiseWith(router_);
    cycle_ = CycleContext();
    context_->LoadCredentials(cycle_.get());
    log_.Clear();
  }
  ~WatchedHandshake() override {
    CertificateContext::instance().Tick();
    CertificateContext::instance().SetCallbacks({});
  }

  static constexpr char kUnknownCa[] = "Cannot verify peer's SSL certificate, unknown CA\n";

  TestSupport::TestCa other_{"Other CA"};
  OpenSsl::SslContextPtr cycle_;
  std::vector<std::uint32_t> reported_;
};

TEST_F(WatchedHandshake, AStrangersCertificateIsReportedOnTheTick) {
  const TcpPair sockets;
  const auto stranger = PeerContext(other_.Issue("stranger", {}));
  EXPECT_FALSE(Handshake(cycle_.get(), stranger.get(), sockets).Succeeded());
  EXPECT_TRUE(log_.Has(kLogWarning, kUnknownCa));
  EXPECT_TRUE(reported_.empty());
  CertificateContext::instance().Tick();
  EXPECT_EQ(reported_, std::vector<std::uint32_t>{0x7F000001});
}

TEST_F(WatchedHandshake, AParentThatRefusesUsAndClosesIsReportedToo) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    log_.Clear();
    reported_.clear();
    TcpPair sockets;
    // It shows a certificate that we trust, and trusts another authority itself.
    const auto parent = PeerContext(Ca().Issue("parent", {1}), other_.CaPem());
    SSL_CTX_set_max_proto_version(parent.get(), version);
    Handshake handshake(parent.get(), cycle_.get(), sockets);
    EXPECT_FALSE(handshake.Succeeded());
    sockets.CloseServer();
    char octet = 0;
    EXPECT_LE(SSL_read(handshake.Client(), &octet, 1), 0);
    ERR_clear_error();
    EXPECT_TRUE(log_.Has(kLogWarning, kUnknownCa)) << version;
    CertificateContext::instance().Tick();
    EXPECT_EQ(reported_, std::vector<std::uint32_t>{0x7F000001}) << version;
  }
}

TEST_F(WatchedHandshake, AHandshakeWithTheParentTellsTheWayToIt) {
  const TcpPair sockets;
  CertificateContext::instance().SetParentAddress(0x7F000001);
  const auto parent = PeerContext(Ca().Issue("parent", {1}));
  EXPECT_TRUE(Handshake(parent.get(), cycle_.get(), sockets).Succeeded());
  EXPECT_TRUE(log_.Has(kLogInfo, "SSL handshake done, local IP address = 127.0.0.1"));
  CertificateContext::instance().Tick();
  EXPECT_EQ(GetConfigInt("HostIPToParent", 99), 0x7F000001u);
  CertificateContext::instance().ResetParentAddress();
}

TEST_F(WatchedHandshake, AnOrderlyEndDrawsNoLine) {
  const TcpPair sockets;
  const auto peer = PeerContext(Ca().Issue("agent-1", {}));
  Handshake handshake(cycle_.get(), peer.get(), sockets);
  ASSERT_TRUE(handshake.Succeeded());
  SSL_shutdown(handshake.Client());
  SSL_shutdown(handshake.Server());
  SSL_shutdown(handshake.Client());
  EXPECT_TRUE(log_.Lines().empty());
}

}  // namespace
