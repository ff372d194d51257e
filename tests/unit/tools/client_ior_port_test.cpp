#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Stream.h>
#include <ace/Time_Value.h>
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "client_library/Failure.h"
#include "client_library/IorPort.h"

using ClientLibrary::Failure;
using ClientLibrary::FetchIor;
using ClientLibrary::LooksLikeIor;
using ClientLibrary::Outcome;
using std::chrono::milliseconds;

namespace {

// Serves one caller on a port of the system's choice.
class OneCaller {
 public:
  explicit OneCaller(std::function<void(ACE_SOCK_Stream&)> serve) {
    EXPECT_EQ(acceptor_.open(ACE_INET_Addr(static_cast<u_short>(0), "127.0.0.1")), 0);
    ACE_INET_Addr address;
    acceptor_.get_local_addr(address);
    port_ = address.get_port_number();
    thread_ = std::thread([this, serve] {
      ACE_SOCK_Stream stream;
      ACE_Time_Value limit(10);
      if (acceptor_.accept(stream, nullptr, &limit) == 0) serve(stream);
      stream.close();
    });
  }
  ~OneCaller() {
    thread_.join();
    acceptor_.close();
  }
  std::uint16_t Port() const { return port_; }

 private:
  ACE_SOCK_Acceptor acceptor_;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

Outcome OutcomeOf(std::uint16_t port, milliseconds limit) {
  try {
    FetchIor("127.0.0.1", port, limit);
  } catch (const Failure& failure) {
    return failure.GetOutcome();
  }
  return Outcome::Done;
}

void SendAll(ACE_SOCK_Stream& stream, const std::string& text) {
  ACE_Time_Value limit(10);
  stream.send_n(text.data(), text.size(), &limit);
}

// Returns when the caller has closed its end.
void WaitForTheEnd(ACE_SOCK_Stream& stream) {
  char buffer[16];
  ACE_Time_Value limit(20);
  stream.recv(buffer, sizeof buffer, &limit);
}

TEST(ClientIorPort, WhatLooksLikeAReference) {
  for (const char* text : {"IOR:00", "IOR:0123456789abcdefABCDEF"}) {
    EXPECT_TRUE(LooksLikeIor(text)) << text;
  }
  for (const char* text :
       {"", "IOR:", "IOR:0", "IOR:000", "ior:00", "IOR:0g", "IOR:00\n", "XIOR:00", " IOR:00"}) {
    EXPECT_FALSE(LooksLikeIor(text)) << text;
  }
}

TEST(ClientIorPort, TheWholeTextIsFetchedInWhateverPieces) {
  const std::string ior = "IOR:" + std::string(20000, 'a');
  OneCaller server([&](ACE_SOCK_Stream& stream) {
    SendAll(stream, ior.substr(0, 3));
    SendAll(stream, ior.substr(3));
  });
  EXPECT_EQ(FetchIor("127.0.0.1", server.Port(), milliseconds(10000)), ior);
}

TEST(ClientIorPort, ASilentServerTimesOut) {
  OneCaller server(&WaitForTheEnd);
  EXPECT_EQ(OutcomeOf(server.Port(), milliseconds(100)), Outcome::TimedOut);
}

TEST(ClientIorPort, AServerThatSendsHalfAndStallsTimesOut) {
  OneCaller server([](ACE_SOCK_Stream& stream) {
    SendAll(stream, "IOR:0000");
    WaitForTheEnd(stream);
  });
  EXPECT_EQ(OutcomeOf(server.Port(), milliseconds(100)), Outcome::TimedOut);
}

TEST(ClientIorPort, AnEmptyAnswerFails) {
  OneCaller server([](ACE_SOCK_Stream&) {});
  EXPECT_EQ(OutcomeOf(server.Port(), milliseconds(10000)), Outcome::Failed);
}

TEST(ClientIorPort, AnotherProtocolFails) {
  OneCaller server([](ACE_SOCK_Stream& stream) { SendAll(stream, "220 ready\r\n"); });
  EXPECT_EQ(OutcomeOf(server.Port(), milliseconds(10000)), Outcome::Failed);
}

TEST(ClientIorPort, ATextThatIsTooLongFails) {
  OneCaller server([](ACE_SOCK_Stream& stream) {
    SendAll(stream, "IOR:" + std::string(ClientLibrary::kMaxIorLength, '0'));
    WaitForTheEnd(stream);
  });
  EXPECT_EQ(OutcomeOf(server.Port(), milliseconds(10000)), Outcome::Failed);
}

TEST(ClientIorPort, ANameThatDoesNotResolveFails) {
  try {
    FetchIor("no-such-host.invalid", 1, milliseconds(1000));
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.GetOutcome(), Outcome::Failed);
    EXPECT_STREQ(failure.what(), "cannot resolve the host name no-such-host.invalid");
  }
}

}  // namespace
