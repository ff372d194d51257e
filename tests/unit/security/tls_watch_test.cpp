#include "security/TlsWatch.h"

#include <atomic>
#include <thread>

#include "config/Configuration.h"
#include "fixture.h"
#include "logging/Log.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace {

using namespace SecurityTest;
using MessageRouter::TlsWatch;

constexpr std::uint32_t kLoopback = 0x7F000001;
constexpr int kUnknownCa = 0x230;  // level 2 (fatal), description 48
constexpr int kAlert = SSL_CB_ALERT | SSL_CB_READ;

// The TLS object at the server's end of a connection on the loopback interface.
class Connection {
 public:
  Connection() : context_(SSL_CTX_new(TLS_method())), ssl_(SSL_new(context_.get())) {
    SSL_set_fd(ssl_.get(), sockets_.Server());
  }

  const SSL* Ssl() const { return ssl_.get(); }
  // The system knows the peer no longer.
  void Lose() { SSL_set_bio(ssl_.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem())); }

 private:
  TcpPair sockets_;
  OpenSsl::SslContextPtr context_;
  SslPtr ssl_;
};

class TlsWatchTest : public testing::Test {
 protected:
  std::vector<std::uint32_t> Ticked() {
    std::vector<std::uint32_t> reported;
    watch_.Tick([&](std::uint32_t peer) { reported.push_back(peer); });
    return reported;
  }
  std::uint32_t HostIpToParent() { return MessageRouter::GetConfigInt("HostIPToParent", 99); }

  TestSupport::ScratchConfiguration scratch_;
  TestSupport::LogCapture log_;
  Connection connection_;
  TlsWatch watch_;
};

TEST_F(TlsWatchTest, ACloseNotifyDrawsNoLine) {
  watch_.OnEvent(connection_.Ssl(), kAlert, 256);
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_TRUE(Ticked().empty());
}

TEST_F(TlsWatchTest, AnAlertIsLoggedWithThePeersAddress) {
  watch_.OnEvent(connection_.Ssl(), kAlert, 0x228);
  EXPECT_TRUE(
      log_.Has(MessageRouter::kLogWarning, "SSL connection alert, peer address 127.0.0.1\n"));
  EXPECT_FALSE(log_.Contains("unknown CA"));
  EXPECT_TRUE(Ticked().empty());
}

TEST_F(TlsWatchTest, AnAlertThatWeSendCountsToo) {
  watch_.OnEvent(connection_.Ssl(), SSL_CB_ALERT | SSL_CB_WRITE, kUnknownCa);
  EXPECT_EQ(Ticked(), std::vector<std::uint32_t>{kLoopback});
}

TEST_F(TlsWatchTest, AFatalUnknownCaIsReportedOnTheTick) {
  watch_.OnEvent(connection_.Ssl(), kAlert, kUnknownCa);
  EXPECT_TRUE(
      log_.Has(MessageRouter::kLogWarning, "SSL connection alert, peer address 127.0.0.1\n"));
  EXPECT_TRUE(
      log_.Has(MessageRouter::kLogWarning, "Cannot verify peer's SSL certificate, unknown CA\n"));
  EXPECT_EQ(Ticked(), std::vector<std::uint32_t>{kLoopback});
  EXPECT_TRUE(Ticked().empty());
}

TEST_F(TlsWatchTest, AnUnknownCaThatIsNotFatalIsNotReported) {
  watch_.OnEvent(connection_.Ssl(), kAlert, 0x130);
  EXPECT_TRUE(Ticked().empty());
}

TEST_F(TlsWatchTest, EachAlertIsReportedOnce) {
  for (int i = 0; i < 7; ++i) watch_.OnEvent(connection_.Ssl(), kAlert, kUnknownCa);
  EXPECT_EQ(Ticked().size(), 7u);
}

TEST_F(TlsWatchTest, AFloodOfAlertsTakesBoundedMemory) {
  for (std::size_t i = 0; i < TlsWatch::kMaximumReports + 10; ++i) {
    watch_.OnEvent(connection_.Ssl(), kAlert, kUnknownCa);
  }
  EXPECT_EQ(Ticked().size(), TlsWatch::kMaximumReports);
}

TEST_F(TlsWatchTest, AnAlertOfAPeerThatHasClosedFindsTheAddressOfTheHandshakesStart) {
  watch_.OnEvent(connection_.Ssl(), SSL_CB_HANDSHAKE_START, 1);
  connection_.Lose();
  watch_.OnEvent(connection_.Ssl(), kAlert, kUnknownCa);
  EXPECT_TRUE(
      log_.Has(MessageRouter::kLogWarning, "SSL connection alert, peer address 127.0.0.1\n"));
  EXPECT_EQ(Ticked(), std::vector<std::uint32_t>{kLoopback});
}

TEST_F(TlsWatchTest, AnAlertWithoutAnyAddressDrawsNoLine) {
  connection_.Lose();
  watch_.OnEvent(connection_.Ssl(), kAlert, kUnknownCa);
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_TRUE(Ticked().empty());
}

TEST_F(TlsWatchTest, AHandshakeWithTheParentWritesTheLocalAddressAtTheTick) {
  watch_.SetParentAddress(kLoopback);
  watch_.OnEvent(connection_.Ssl(), SSL_CB_HANDSHAKE_DONE, 1);
  EXPECT_TRUE(
      log_.Has(MessageRouter::kLogInfo, "SSL handshake done, local IP address = 127.0.0.1"));
  EXPECT_EQ(HostIpToParent(), 99u);
  Ticked();
  EXPECT_EQ(HostIpToParent(), kLoopback);
}

TEST_F(TlsWatchTest, AHandshakeWithAnotherPeerWritesNothing) {
  watch_.SetParentAddress(0xC0000201);
  watch_.OnEvent(connection_.Ssl(), SSL_CB_HANDSHAKE_DONE, 1);
  Ticked();
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_EQ(HostIpToParent(), 99u);
}

TEST_F(TlsWatchTest, AHandshakeWithoutAParentWritesNothing) {
  watch_.OnEvent(connection_.Ssl(), SSL_CB_HANDSHAKE_DONE, 1);
  Ticked();
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_EQ(HostIpToParent(), 99u);
}

TEST_F(TlsWatchTest, ForgettingTheParentWritesZero) {
  watch_.SetParentAddress(kLoopback);
  watch_.OnEvent(connection_.Ssl(), SSL_CB_HANDSHAKE_DONE, 1);
  Ticked();
  watch_.ResetParentAddress();
  EXPECT_EQ(HostIpToParent(), 0u);
}

TEST_F(TlsWatchTest, WhatWasNotedOfAForgottenParentIsNotWritten) {
  watch_.SetParentAddress(kLoopback);
  watch_.OnEvent(connection_.Ssl(), SSL_CB_HANDSHAKE_DONE, 1);
  watch_.ResetParentAddress();
  Ticked();
  EXPECT_EQ(HostIpToParent(), 0u);
}

TEST_F(TlsWatchTest, OtherEventsDrawNoLine) {
  watch_.SetParentAddress(kLoopback);
  for (const int where : {SSL_CB_CONNECT_LOOP, SSL_CB_ACCEPT_LOOP, SSL_CB_CONNECT_EXIT}) {
    watch_.OnEvent(connection_.Ssl(), where, 1);
  }
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(TlsWatchTest, EventsComeFromAnyThread) {
  std::atomic<bool> over{false};
  std::size_t reported = 0;
  std::vector<std::thread> threads;
  std::vector<std::unique_ptr<Connection>> connections;
  for (int i = 0; i < 3; ++i) connections.push_back(std::make_unique<Connection>());
  for (const auto& connection : connections) {
    threads.emplace_back([&] {
      for (int n = 0; n < 50; ++n) {
        watch_.OnEvent(connection->Ssl(), SSL_CB_HANDSHAKE_START, 1);
        watch_.OnEvent(connection->Ssl(), kAlert, kUnknownCa);
      }
    });
  }
  std::thread parent([&] {
    while (!over) watch_.SetParentAddress(kLoopback);
  });
  for (std::thread& thread : threads) thread.join();
  over = true;
  parent.join();
  reported += Ticked().size();
  EXPECT_EQ(reported, 150u);
}

}  // namespace
