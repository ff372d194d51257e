#include <openssl/ssl.h>

#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>

#include "parent/Connector.h"
#include "parent_logon_fixture.h"
#include "security/CertificateContext.h"
#include "security/OpenSsl.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;

// What the router hears of a search, beside the text.
class GetParentIorReports : public testing::Test {
 protected:
  GetParentIorReports() : retries_(ConnectRetry().retries) {
    ConnectRetry().retries = 0;
    // Other tests find parents too.
    CertificateContext::instance().ResetParentAddress();
    const ACE_INET_Addr any(static_cast<u_short>(0), static_cast<ACE_UINT32>(INADDR_LOOPBACK));
    EXPECT_EQ(listener_.open(any, 1), 0);
    EXPECT_EQ(listener_.get_local_addr(place_), 0);
  }
  ~GetParentIorReports() override {
    CertificateContext::instance().ResetParentAddress();
    listener_.close();
    ConnectRetry().retries = retries_;
  }

  void Serve(const std::string& ior) {
    parent_.SetPort(0);
    parent_.SetIOR(ior);
    parent_.Start();
    EXPECT_TRUE(Eventually([&] { return parent_.ListeningPort() != 0; }));
    SetConfigInt("ParentPort", parent_.ListeningPort());
  }
  std::string Search(const std::string& hosts) {
    SetConfigString("ParentAddress", hosts);
    return ParentLogon::GetParentIOR({&reporter_, nullptr});
  }
  // Whether the certificate context takes a handshake with this host for one with the parent.
  bool KnowsTheParent() {
    ACE_SOCK_Stream client;
    ACE_SOCK_Stream server;
    EXPECT_EQ(ACE_SOCK_Connector().connect(client, place_), 0);
    EXPECT_EQ(listener_.accept(server), 0);
    const OpenSsl::SslContextPtr context(SSL_CTX_new(TLS_method()));
    SSL* const ssl = SSL_new(context.get());
    SSL_set_fd(ssl, static_cast<int>(client.get_handle()));
    const std::size_t before = log_.Count("SSL handshake done");
    CertificateContext::TlsInfo(ssl, SSL_CB_HANDSHAKE_DONE, 1);
    SSL_free(ssl);
    client.close();
    server.close();
    return log_.Count("SSL handshake done") > before;
  }

  TestSupport::ScratchConfiguration configuration_;
  TestSupport::LogCapture log_;
  ListeningReporter reporter_;
  IOR_Sender parent_;

 private:
  const std::uint32_t retries_;
  ACE_SOCK_Acceptor listener_;
  ACE_INET_Addr place_;
};

// Two dots in a row: no name service is asked for such a name.
TEST_F(GetParentIorReports, AParentThatIsFoundEndsTheComplaintsOfTheSearch) {
  Serve("IOR:0102");
  EXPECT_EQ(Search("no..name,127.0.0.1"), "IOR:0102");
  EXPECT_THAT(reporter_.All(),
              ElementsAre("unresolved no..name", "parent 127.0.0.1", "clear 1", "names reset"));
}

TEST_F(GetParentIorReports, NamesThatDoNotResolveAreToldAtTheEndOfTheList) {
  EXPECT_EQ(Search("no..name,no..other"), "");
  EXPECT_THAT(reporter_.All(),
              ElementsAre("unresolved no..name", "unresolved no..other", "names update"));
}

TEST_F(GetParentIorReports, AParentThatCannotBeReachedIsNoneAndNamed) {
  SetConfigInt("ParentPort", 0);
  EXPECT_EQ(Search("127.0.0.1"), "");
  EXPECT_THAT(reporter_.All(), ElementsAre("parent ", "raise 1 127.0.0.1", "names update"));
}

TEST_F(GetParentIorReports, TheCertificateContextLearnsTheAddressLast) {
  Serve("IOR:0102");
  std::optional<bool> atReset;
  reporter_.onTold = [&](const std::string& what) {
    if (what == "names reset") atReset = KnowsTheParent();
  };
  Search("127.0.0.1");
  EXPECT_EQ(atReset, false);
  EXPECT_TRUE(KnowsTheParent());
}

TEST_F(GetParentIorReports, TheCertificateContextLearnsNoAddressOfAParentThatDoesNotAnswer) {
  Serve("");
  Search("127.0.0.1");
  EXPECT_FALSE(KnowsTheParent());
}

TEST(GetParentIor, FetchesTheTextFromTheConfiguredParent) {
  TestSupport::ScratchConfiguration configuration;
  IOR_Sender parent;
  parent.SetPort(0);
  parent.SetIOR("IOR:0102");
  parent.Start();
  ASSERT_TRUE(Eventually([&] { return parent.ListeningPort() != 0; }));
  SetConfigString("ParentAddress", "127.0.0.1");
  SetConfigInt("ParentPort", parent.ListeningPort());
  StatusReporting::StatusReporter reporter("");
  EXPECT_EQ(ParentLogon::GetParentIOR({&reporter, nullptr}), "IOR:0102");
}

TEST(GetParentIor, FetchesTheTextForTwoAtOnce) {
  TestSupport::ScratchConfiguration configuration;
  const std::string text = "IOR:" + std::string(20000, '1');
  IOR_Sender parent;
  parent.SetPort(0);
  parent.SetIOR(text);
  parent.Start();
  ASSERT_TRUE(Eventually([&] { return parent.ListeningPort() != 0; }));
  SetConfigString("ParentAddress", "127.0.0.1");
  SetConfigInt("ParentPort", parent.ListeningPort());
  StatusReporting::StatusReporter reporter("");
  std::atomic<int> right{0};
  const auto fetch = [&] {
    for (int i = 0; i < 20; ++i) right += ParentLogon::GetParentIOR({&reporter, nullptr}) == text;
  };
  std::thread other(fetch);
  fetch();
  other.join();
  EXPECT_EQ(right, 40);
}

TEST(GetParentIor, EmptyParentAddressGivesAnEmptyResult) {
  TestSupport::ScratchConfiguration configuration;
  TestSupport::LogCapture log;
  EXPECT_EQ(ParentLogon::GetParentIOR({}), "");
  EXPECT_FALSE(log.Contains("Getting parent router IOR"));
}

}  // namespace
}  // namespace MessageRouter
