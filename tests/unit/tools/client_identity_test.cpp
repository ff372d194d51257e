#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "client_library/Failure.h"
#include "client_library/Identity.h"
#include "support/TestCertificates.h"

using ClientLibrary::Failure;
using ClientLibrary::Identity;
using TestSupport::Issued;
using TestSupport::TestCa;

namespace {

constexpr int kRouterRole = 1;

class ClientIdentity : public testing::Test {
 protected:
  void SetUp() override {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    folder = std::filesystem::path(testing::TempDir()) /
             ("client_identity_" + std::string(test->name()));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  void Put(const char* name, const std::string& text) const {
    std::ofstream(folder / name) << text;
  }
  void PutAll(const TestCa& authority, const Issued& issued) const {
    Put("ca.pem", authority.CaPem());
    Put("certificate.pem", issued.certificatePem);
    Put("key.pem", issued.keyPem);
  }
  std::string FailureOfLoading() const {
    try {
      Identity::FromFolder(folder);
    } catch (const Failure& failure) {
      return failure.what();
    }
    return "";
  }
  Identity Load(TestCa& authority, const char* name, const std::vector<int>& roles) const {
    PutAll(authority, authority.Issue(name, roles));
    return Identity::FromFolder(folder);
  }

  std::filesystem::path folder;
};

using Context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using Connection = std::unique_ptr<SSL, decltype(&SSL_free)>;

// Both ends of a handshake in memory. True if both accepted.
bool Handshake(const Identity& caller, const Identity& called,
               Identity::Peers peers = Identity::Peers::RoutersOnly) {
  Context clientContext(SSL_CTX_new(TLS_method()), &SSL_CTX_free);
  Context serverContext(SSL_CTX_new(TLS_method()), &SSL_CTX_free);
  caller.Apply(clientContext.get(), peers);
  called.Apply(serverContext.get(), peers);
  Connection client(SSL_new(clientContext.get()), &SSL_free);
  Connection server(SSL_new(serverContext.get()), &SSL_free);
  BIO* one = nullptr;
  BIO* other = nullptr;
  BIO_new_bio_pair(&one, 0, &other, 0);
  SSL_set_bio(client.get(), one, one);
  SSL_set_bio(server.get(), other, other);
  SSL_set_connect_state(client.get());
  SSL_set_accept_state(server.get());
  for (int turn = 0; turn < 20; ++turn) {
    SSL_do_handshake(client.get());
    SSL_do_handshake(server.get());
  }
  return SSL_is_init_finished(client.get()) == 1 && SSL_is_init_finished(server.get()) == 1;
}

TEST_F(ClientIdentity, ANameComesFromTheCertificate) {
  TestCa authority;
  const Identity identity = Load(authority, "agent-1", {});
  EXPECT_EQ(identity.CommonName(), "agent-1");
  EXPECT_FALSE(identity.IsAnonymous());
}

TEST_F(ClientIdentity, AnAnonymousCallerNeedsTheAuthorityAlone) {
  TestCa authority;
  Put("ca.pem", authority.CaPem());
  const Identity identity = Identity::Anonymous(folder);
  EXPECT_TRUE(identity.IsAnonymous());
  EXPECT_EQ(identity.CommonName(), "");
}

TEST_F(ClientIdentity, WhatIsMissingOrDamagedIsNamed) {
  TestCa authority;
  const Issued issued = authority.Issue("agent-1", {});
  EXPECT_NE(FailureOfLoading().find("ca.pem"), std::string::npos);
  Put("ca.pem", "rubbish");
  EXPECT_NE(FailureOfLoading().find("ca.pem holds no certificate"), std::string::npos);
  Put("ca.pem", authority.CaPem());
  EXPECT_NE(FailureOfLoading().find("certificate.pem"), std::string::npos);
  Put("certificate.pem", issued.certificatePem);
  EXPECT_NE(FailureOfLoading().find("key.pem"), std::string::npos);
  Put("key.pem", "rubbish");
  EXPECT_NE(FailureOfLoading().find("key.pem holds no key"), std::string::npos);
  Put("key.pem", issued.keyPem);
  EXPECT_EQ(FailureOfLoading(), "");
}

TEST_F(ClientIdentity, CertificateAndKeyMustBelongTogether) {
  TestCa authority;
  TestSupport::IssueOptions other;
  other.freshKey = true;
  PutAll(authority, authority.Issue("agent-1", {}));
  Put("key.pem", authority.Issue("agent-1", {}, other).keyPem);
  EXPECT_NE(FailureOfLoading().find("do not belong together"), std::string::npos);
}

TEST_F(ClientIdentity, AnEncryptedKeyIsRefusedWithoutAskingAnybody) {
  TestCa authority;
  const Issued issued = authority.Issue("agent-1", {});
  PutAll(authority, issued);
  std::unique_ptr<BIO, decltype(&BIO_free)> in(
      BIO_new_mem_buf(issued.keyPem.data(), static_cast<int>(issued.keyPem.size())), &BIO_free);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
  std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), &BIO_free);
  const unsigned char password[] = "secret";
  ASSERT_EQ(PEM_write_bio_PrivateKey(out.get(), key.get(), EVP_aes_128_cbc(), password, 6, nullptr,
                                     nullptr),
            1);
  char* text = nullptr;
  const long size = BIO_get_mem_data(out.get(), &text);
  Put("key.pem", std::string(text, static_cast<std::size_t>(size)));
  EXPECT_NE(FailureOfLoading().find("holds no key that can be read"), std::string::npos);
}

TEST_F(ClientIdentity, ARouterOfOurAuthorityIsAccepted) {
  TestCa authority;
  const Identity router = Load(authority, "router", {kRouterRole});
  const Identity other = Load(authority, "other", {kRouterRole});
  EXPECT_TRUE(Handshake(other, router));
}

TEST_F(ClientIdentity, AClientOfOurAuthorityCannotPlayTheRouter) {
  TestCa authority;
  const Identity router = Load(authority, "router", {kRouterRole});
  const Identity agent = Load(authority, "agent-1", {});
  EXPECT_FALSE(Handshake(router, agent)) << "called by us";
  EXPECT_FALSE(Handshake(agent, router)) << "calling us";
  EXPECT_TRUE(Handshake(agent, router, Identity::Peers::AnyOfOurs));
}

TEST_F(ClientIdentity, NobodyWithoutACertificateOrOfAnotherAuthorityCanCallUs) {
  TestCa authority;
  TestCa other("Other CA");
  const Identity ours = Load(authority, "agent-1", {kRouterRole});
  const Identity anonymous = Identity::Anonymous(folder);
  const Identity strange = Load(other, "router", {kRouterRole});
  for (const auto peers : {Identity::Peers::RoutersOnly, Identity::Peers::AnyOfOurs}) {
    EXPECT_FALSE(Handshake(anonymous, ours, peers));
    EXPECT_FALSE(Handshake(strange, ours, peers));
    EXPECT_FALSE(Handshake(ours, strange, peers));
  }
}

TEST_F(ClientIdentity, ARouterWhoseCertificateHasExpiredIsNotBelieved) {
  TestCa authority;
  const Identity ours = Load(authority, "agent-1", {kRouterRole});
  TestSupport::IssueOptions late;
  late.days = -1;
  PutAll(authority, authority.Issue("router", {kRouterRole}, late));
  EXPECT_FALSE(Handshake(ours, Identity::FromFolder(folder)));
}

}  // namespace
