#include "parent/Connector.h"

#include <ace/SOCK_Acceptor.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <vector>

#include "parent/ConnectAttempt.h"
#include "support/FakeClock.h"

namespace MessageRouter {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::SizeIs;

// A network on which time passes only while somebody waits.
class FakeNetwork : public ConnectSteps {
 public:
  enum Kind { kRefuse, kHang, kAnswer, kRefuseLate };

  // What every try meets, from the given one on.
  void From(std::size_t tryNumber, Kind kind) {
    kinds_.resize(tryNumber, kinds_.empty() ? kRefuse : kinds_.back());
    kinds_.push_back(kind);
  }
  milliseconds Elapsed() const {
    return std::chrono::duration_cast<milliseconds>(clock_.SteadyNow() - start_);
  }

  int Begin(ACE_SOCK_Stream&, const ACE_INET_Addr&) override {
    begun.push_back(Elapsed());
    current_ = begun.size() <= kinds_.size() ? kinds_[begun.size() - 1] : kinds_.back();
    if (current_ == kAnswer) return 0;
    errno = current_ == kRefuse ? ECONNREFUSED : EINPROGRESS;
    return -1;
  }
  int Wait(ACE_SOCK_Stream&, milliseconds time) override {
    waits.push_back(time);
    if (current_ == kRefuseLate) return 1;
    clock_.Advance(time);
    return 0;
  }
  int Finish(ACE_SOCK_Stream&) override {
    errno = ECONNREFUSED;
    return -1;
  }
  void Pause(milliseconds time) override {
    pauses.push_back(time);
    clock_.Advance(time);
  }

  std::vector<milliseconds> begun;
  std::vector<milliseconds> waits;
  std::vector<milliseconds> pauses;

 private:
  TestSupport::FakeClock clock_;
  const Platform::Clock::SteadyTime start_ = clock_.SteadyNow();
  std::vector<Kind> kinds_;
  Kind current_ = kRefuse;
};

class ConnectRetries : public testing::Test {
 protected:
  int Connect() {
    ACE_SOCK_Stream stream;
    return ConnectInSteps(stream, ACE_INET_Addr(1, static_cast<ACE_UINT32>(INADDR_LOOPBACK)),
                          settings, stopping, network);
  }

  ConnectRetrySettings settings;
  std::function<bool()> stopping;
  FakeNetwork network;
};

TEST_F(ConnectRetries, FirstAnswerEndsThem) {
  network.From(0, FakeNetwork::kAnswer);
  EXPECT_EQ(Connect(), 0);
  EXPECT_THAT(network.begun, SizeIs(1));
}

TEST_F(ConnectRetries, RefusedConnectIsTriedAgain) {
  network.From(0, FakeNetwork::kRefuse);
  network.From(2, FakeNetwork::kAnswer);
  EXPECT_EQ(Connect(), 0);
  EXPECT_THAT(network.begun, SizeIs(3));
}

TEST_F(ConnectRetries, LateRefusalIsTriedAgain) {
  network.From(0, FakeNetwork::kRefuseLate);
  network.From(1, FakeNetwork::kAnswer);
  EXPECT_EQ(Connect(), 0);
  EXPECT_THAT(network.begun, SizeIs(2));
}

TEST_F(ConnectRetries, AreAsManyAsSet) {
  settings.retries = 3;
  network.From(0, FakeNetwork::kRefuse);
  EXPECT_EQ(Connect(), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_THAT(network.begun, SizeIs(4));
}

TEST_F(ConnectRetries, OneTryLastsAtMostTwentySeconds) {
  settings.totalSeconds = 300;
  settings.pauseMilliseconds = 1000;
  network.From(0, FakeNetwork::kHang);
  network.From(2, FakeNetwork::kAnswer);
  EXPECT_EQ(Connect(), 0);
  EXPECT_THAT(network.begun, ElementsAre(seconds(0), seconds(21), seconds(42)));
}

TEST_F(ConnectRetries, TotalOfZeroMeansSixtySeconds) {
  settings.totalSeconds = 0;
  network.From(0, FakeNetwork::kHang);
  EXPECT_EQ(Connect(), -1);
  EXPECT_EQ(errno, ETIME);
  EXPECT_EQ(network.Elapsed(), seconds(60));
}

TEST_F(ConnectRetries, TotalCutsTheTryUnderWay) {
  settings.totalSeconds = 5;
  network.From(0, FakeNetwork::kHang);
  EXPECT_EQ(Connect(), -1);
  EXPECT_EQ(network.Elapsed(), seconds(5));
}

TEST_F(ConnectRetries, PauseIsInMilliseconds) {
  settings.retries = 1;
  settings.pauseMilliseconds = 700;
  network.From(0, FakeNetwork::kRefuse);
  EXPECT_EQ(Connect(), -1);
  EXPECT_THAT(network.begun, ElementsAre(milliseconds(0), milliseconds(700)));
}

TEST_F(ConnectRetries, PauseVariesWithinItsRange) {
  settings.totalSeconds = 100'000;
  settings.pauseMilliseconds = 1000;
  settings.pauseRangePercent = 50;
  network.From(0, FakeNetwork::kRefuse);
  EXPECT_EQ(Connect(), -1);
  bool varied = false;
  for (std::size_t i = 1; i < network.begun.size(); ++i) {
    const milliseconds pause = network.begun[i] - network.begun[i - 1];
    EXPECT_GE(pause, milliseconds(500));
    EXPECT_LE(pause, milliseconds(1500));
    varied = varied || pause != milliseconds(1000);
  }
  EXPECT_TRUE(varied);
}

TEST_F(ConnectRetries, PauseBeyondTheTotalEndsThemAtOnce) {
  settings.totalSeconds = 2;
  settings.pauseMilliseconds = 5000;
  network.From(0, FakeNetwork::kRefuse);
  EXPECT_EQ(Connect(), -1);
  EXPECT_EQ(network.Elapsed(), seconds(0));
}

TEST_F(ConnectRetries, NoneIsMadeOnceStopping) {
  stopping = [] { return true; };
  EXPECT_EQ(Connect(), -1);
  EXPECT_THAT(network.begun, SizeIs(0));
}

TEST_F(ConnectRetries, StopIsTestedEvery250MillisecondsOfATry) {
  network.From(0, FakeNetwork::kHang);
  stopping = [this] { return network.Elapsed() >= milliseconds(600); };
  EXPECT_EQ(Connect(), -1);
  EXPECT_EQ(network.Elapsed(), milliseconds(750));
  EXPECT_THAT(network.begun, SizeIs(1));
}

TEST_F(ConnectRetries, StopIsTestedEvery250MillisecondsOfAPause) {
  settings.pauseMilliseconds = 10'000;
  network.From(0, FakeNetwork::kRefuse);
  stopping = [this] { return network.Elapsed() >= milliseconds(600); };
  EXPECT_EQ(Connect(), -1);
  EXPECT_EQ(network.Elapsed(), milliseconds(750));
  EXPECT_THAT(network.begun, SizeIs(1));
}

class SystemConnect : public testing::Test {
 protected:
  void SetUp() override {
    ACE_INET_Addr any(static_cast<u_short>(0), static_cast<ACE_UINT32>(INADDR_LOOPBACK));
    ASSERT_EQ(listener.open(any, 1), 0);
    ASSERT_EQ(listener.get_local_addr(address), 0);
  }
  ~SystemConnect() override {
    listener.close();
    ConnectRetry().retries = 100;
  }

  ACE_SOCK_Acceptor listener;
  ACE_INET_Addr address;
};

TEST_F(SystemConnect, ReachesAListener) {
  ACE_SOCK_Stream stream;
  ASSERT_EQ(ConnectWithRetry(stream, address, nullptr), 0);
  ACE_SOCK_Stream accepted;
  ASSERT_EQ(listener.accept(accepted), 0);
  EXPECT_EQ(accepted.send_n("abc", 3), 3);
  char text[3];
  EXPECT_EQ(stream.recv_n(text, 3), 3);
  stream.close();
  accepted.close();
}

TEST_F(SystemConnect, RefusalIsReportedWithItsError) {
  listener.close();
  ConnectRetry().retries = 0;
  ACE_SOCK_Stream stream;
  EXPECT_EQ(ConnectWithRetry(stream, address, nullptr), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
}

}  // namespace
}  // namespace MessageRouter
