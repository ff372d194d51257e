#include "security/TlsSetup.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>

#include "fixture.h"
#include "support/ScratchConfiguration.h"

namespace {

using namespace SecurityTest;
using namespace MessageRouter;

struct VerifyRow {
  int verified;
  int depth;
  int error;
  int expected;
};

TEST(VerifyCallback, ForgivesExpiryOfThePeersOwnCertificateAlone) {
  const VerifyRow rows[] = {
      {1, 0, X509_V_OK, 1},
      {1, 1, X509_V_OK, 1},
      {0, 0, X509_V_ERR_CERT_HAS_EXPIRED, 1},
      {0, 1, X509_V_ERR_CERT_HAS_EXPIRED, 0},
      {0, 0, X509_V_ERR_CERT_NOT_YET_VALID, 0},
      {0, 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, 0},
      {0, 1, X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, 0},
      {0, 0, X509_V_ERR_CERT_REVOKED, 0},
  };
  for (const VerifyRow& row : rows) {
    const std::unique_ptr<X509_STORE_CTX, OpenSsl::Deleter<&X509_STORE_CTX_free>> chain(
        X509_STORE_CTX_new());
    X509_STORE_CTX_set_error(chain.get(), row.error);
    X509_STORE_CTX_set_error_depth(chain.get(), row.depth);
    EXPECT_EQ(TlsSetup::VerifyCallback(row.verified, chain.get()), row.expected)
        << row.depth << " " << row.error;
  }
}

// A router's end, set up by the code under test.
class TlsSetupTest : public testing::Test {
 protected:
  OpenSsl::SslContextPtr RouterContext(const TestSupport::Issued& identity) {
    OpenSsl::SslContextPtr context(SSL_CTX_new(TLS_method()));
    TlsSetup::Configure(context.get(), Decode(Ca().CaPem()).get());
    const OpenSsl::X509Ptr certificate = Decode(identity.certificatePem);
    EXPECT_EQ(SSL_CTX_use_certificate(context.get(), certificate.get()), 1);
    EXPECT_EQ(SSL_CTX_use_PrivateKey(context.get(), KeyOf(identity.keyPem).GetKey()), 1);
    return context;
  }

  TestSupport::ScratchConfiguration scratch_;
  const TestSupport::Issued router_ = Ca().Issue("router", {1});
};

TEST_F(TlsSetupTest, APeerWithACertificateOfTheAuthorityConnects) {
  const auto router = RouterContext(router_);
  const auto peer = PeerContext(Ca().Issue("agent-1", {}));
  Handshake handshake(router.get(), peer.get());
  ASSERT_TRUE(handshake.Succeeded());
  const OpenSsl::X509Ptr seen(SSL_get1_peer_certificate(handshake.Server()));
  EXPECT_EQ(CommonNameOf(seen.get()), "agent-1");
}

TEST_F(TlsSetupTest, APeerWithoutACertificateConnects) {
  const auto router = RouterContext(router_);
  EXPECT_TRUE(Handshake(router.get(), PeerContext({}).get()).Succeeded());
}

TEST_F(TlsSetupTest, APeerWithAnExpiredCertificateConnects) {
  TestSupport::IssueOptions over;
  over.days = -1;
  const auto router = RouterContext(router_);
  const auto peer = PeerContext(Ca().Issue("agent-1", {}, over));
  EXPECT_TRUE(Handshake(router.get(), peer.get()).Succeeded());
}

TEST_F(TlsSetupTest, APeerOfAnotherAuthorityIsRefused) {
  TestSupport::TestCa other("Other CA");
  const auto router = RouterContext(router_);
  const auto peer = PeerContext(other.Issue("agent-1", {}));
  EXPECT_FALSE(Handshake(router.get(), peer.get()).Succeeded());
}

TEST_F(TlsSetupTest, ACallerRefusesARouterOfAnotherAuthority) {
  TestSupport::TestCa other("Other CA");
  const auto router = RouterContext(router_);
  const auto impostor = PeerContext(other.Issue("router", {1}));
  EXPECT_FALSE(Handshake(impostor.get(), router.get()).Succeeded());
}

TEST_F(TlsSetupTest, PeersAreToldWhichAuthorityCounts) {
  const auto router = RouterContext(router_);
  const auto peer = PeerContext({});
  Handshake handshake(router.get(), peer.get());
  const STACK_OF(X509_NAME)* const names = SSL_get0_peer_CA_list(handshake.Client());
  ASSERT_EQ(sk_X509_NAME_num(names), 1);
  EXPECT_EQ(X509_NAME_cmp(sk_X509_NAME_value(names, 0),
                          X509_get_subject_name(Decode(Ca().CaPem()).get())),
            0);
}

struct WeakRow {
  const char* what;
  int bits;
  const char* digest;
  bool admitted;
};

class WeakCertificates : public TlsSetupTest, public testing::WithParamInterface<WeakRow> {
 protected:
  TestSupport::Issued Weak(const char* name) {
    TestSupport::IssueOptions options;
    options.bits = GetParam().bits;
    options.digest = GetParam().digest;
    return Ca().Issue(name, {1}, options);
  }
};

TEST_P(WeakCertificates, OfPeersAreAdmittedWhileTheyAreBeingReplaced) {
  const auto router = RouterContext(router_);
  const auto peer = PeerContext(Weak("agent-1"));
  EXPECT_EQ(Handshake(router.get(), peer.get()).Succeeded(), GetParam().admitted);
}

TEST_P(WeakCertificates, AreAdmittedAsTheRoutersOwn) {
  OpenSsl::SslContextPtr router(SSL_CTX_new(TLS_method()));
  TlsSetup::Configure(router.get(), Decode(Ca().CaPem()).get());
  const TestSupport::Issued weak = Weak("router");
  const bool loaded =
      SSL_CTX_use_certificate(router.get(), Decode(weak.certificatePem).get()) == 1 &&
      SSL_CTX_use_PrivateKey(router.get(), KeyOf(weak.keyPem).GetKey()) == 1;
  EXPECT_EQ(loaded, GetParam().admitted);
  ERR_clear_error();  // of these calls; other tests look for what is left
  if (loaded) {
    EXPECT_TRUE(Handshake(router.get(), PeerContext({}).get()).Succeeded());
  }
}

INSTANTIATE_TEST_SUITE_P(Strengths, WeakCertificates,
                         testing::Values(WeakRow{"key", 1024, "SHA256", true},
                                         WeakRow{"digest", 2048, "SHA1", true},
                                         WeakRow{"both", 1024, "SHA1", true},
                                         WeakRow{"tooShort", 768, "SHA256", false},
                                         WeakRow{"brokenDigest", 2048, "MD5", false}),
                         [](const auto& row) { return std::string(row.param.what); });

TEST_F(TlsSetupTest, TheSecurityLevelOfTheSystemStays) {
  const OpenSsl::SslContextPtr untouched(SSL_CTX_new(TLS_method()));
  const auto router = RouterContext(router_);
  EXPECT_EQ(SSL_CTX_get_security_level(router.get()), SSL_CTX_get_security_level(untouched.get()));
}

class NoResumption : public TlsSetupTest, public testing::WithParamInterface<int> {};

TEST_P(NoResumption, OfASessionEverHappens) {
  const auto router = RouterContext(router_);
  const auto peer = PeerContext(Ca().Issue("agent-1", {}));
  SSL_CTX_set_max_proto_version(peer.get(), GetParam());
  SSL_CTX_set_session_cache_mode(peer.get(), SSL_SESS_CACHE_CLIENT);
  Handshake first(router.get(), peer.get());
  ASSERT_TRUE(first.Succeeded());
  ASSERT_TRUE(first.Talk());
  const std::unique_ptr<SSL_SESSION, OpenSsl::Deleter<&SSL_SESSION_free>> session(
      SSL_get1_session(first.Client()));
  EXPECT_EQ(SSL_SESSION_has_ticket(session.get()), 0);
  Handshake second(router.get(), peer.get(), session.get());
  ASSERT_TRUE(second.Succeeded());
  EXPECT_EQ(SSL_session_reused(second.Server()), 0);
}

INSTANTIATE_TEST_SUITE_P(Versions, NoResumption, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

TEST_F(TlsSetupTest, RestrictedContextsSpeakTls12AndLaterOnly) {
  const auto router = RouterContext(router_);
  // The level of the system refuses the old versions by itself; here the options have to.
  SSL_CTX_set_security_callback(
      router.get(), [](const SSL*, const SSL_CTX*, int, int, int, void*, void*) { return 1; });
  const auto speaks = [&](int version) {
    const auto peer = PeerContext(Ca().Issue("agent-1", {}));
    SSL_CTX_set_min_proto_version(peer.get(), version);
    SSL_CTX_set_max_proto_version(peer.get(), version);
    return Handshake(router.get(), peer.get()).Succeeded();
  };
  ASSERT_TRUE(speaks(TLS1_1_VERSION));
  const TlsSetup::Restriction result = TlsSetup::RestrictProtocols(router.get());
  EXPECT_EQ(result.expected, result.actual);
  EXPECT_FALSE(speaks(TLS1_VERSION));
  EXPECT_FALSE(speaks(TLS1_1_VERSION));
  EXPECT_TRUE(speaks(TLS1_2_VERSION));
  EXPECT_TRUE(speaks(TLS1_3_VERSION));
}

TEST_F(TlsSetupTest, RestrictingKeepsTheOtherOptions) {
  const auto router = RouterContext(router_);
  const std::uint64_t before = SSL_CTX_get_options(router.get());
  TlsSetup::RestrictProtocols(router.get());
  EXPECT_EQ(SSL_CTX_get_options(router.get()),
            before | SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
}

}  // namespace
