#include "parent/IOR_Sender.h"

#include <ace/ACE.h>
#include <ace/Dev_Poll_Reactor.h>
#include <ace/OS_NS_errno.h>
#include <ace/OS_NS_fcntl.h>
#include <ace/OS_NS_sys_resource.h>
#include <ace/OS_NS_unistd.h>
#include <ace/Reactor.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <semaphore>
#include <vector>

#include "logging/Log.h"
#include "parent/IOR_Acceptor.h"
#include "parent/SocketWait.h"
#include "support/FakeClock.h"
#include "support/LogCapture.h"

namespace MessageRouter {
namespace {

constexpr std::chrono::seconds kPatience{30};

// One client of the port. Its receive buffer is small, so that a long text does not fit on the way.
class Client {
 public:
  explicit Client(std::uint16_t port, bool patient = true) {
    ACE_SOCK_Connector connector;
    const ACE_INET_Addr address(port, static_cast<ACE_UINT32>(INADDR_LOOPBACK));
    if (!patient) {
      EXPECT_EQ(stream_.open(SOCK_STREAM, PF_INET, 0, 0), 0);
      int size = 4096;
      stream_.set_option(SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    EXPECT_EQ(connector.connect(stream_, address), 0);
  }
  ~Client() { stream_.close(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // What comes until the server closes.
  std::string ReadAll() {
    std::string text;
    char part[65536];
    for (;;) {
      if (WaitForSocket(stream_.get_handle(), Readiness::Read, kPatience) != 1) {
        ADD_FAILURE() << "neither text nor end";
        return text;
      }
      const ssize_t length = stream_.recv(part, sizeof part);
      if (length <= 0) return text;
      text.append(part, static_cast<std::size_t>(length));
    }
  }
  // The server has opened its end and begun to write.
  void AwaitFirstOctet() {
    char octet;
    ASSERT_EQ(WaitForSocket(stream_.get_handle(), Readiness::Read, kPatience), 1);
    ASSERT_EQ(stream_.recv(&octet, 1, MSG_PEEK), 1);
  }
  void Send(const char* text) { stream_.send(text, std::strlen(text), MSG_NOSIGNAL, nullptr); }

 private:
  // ACE's streams open no socket of their own.
  struct Stream : ACE_SOCK_Stream {
    using ACE_SOCK::open;
  };
  Stream stream_;
};

class IorSender : public testing::Test {
 protected:
  void Start(const std::string& ior) {
    sender.SetIOR(ior);
    sender.SetPort(0);
    sender.Start();
    ASSERT_TRUE(sender.WaitUntilOpen(kPatience));
    ASSERT_NE(sender.ListeningPort(), 0);
  }

  IOR_Sender sender;
};

// Longer than whatever the system buffers on the way to a client that does not read.
std::string LongText() {
  return std::string(16 * 1024 * 1024, 'x');
}

TEST_F(IorSender, ClientGetsExactlyTheTextAndThenTheEnd) {
  Start("IOR:0102");
  EXPECT_EQ(Client(sender.ListeningPort()).ReadAll(), "IOR:0102");
}

TEST_F(IorSender, TwoConnectionsAtOnceBothGetTheFullText) {
  Start("IOR:0102");
  Client first(sender.ListeningPort());
  Client second(sender.ListeningPort());
  EXPECT_EQ(second.ReadAll(), "IOR:0102");
  EXPECT_EQ(first.ReadAll(), "IOR:0102");
}

TEST_F(IorSender, ClientThatSendsSomethingIsClosed) {
  const std::string text = LongText();
  Start(text);
  Client client(sender.ListeningPort(), false);
  client.AwaitFirstOctet();
  client.Send("hello");
  EXPECT_LT(client.ReadAll().size(), text.size());
}

TEST_F(IorSender, ClientThatDoesNotReadHoldsUpNobody) {
  const std::string text = LongText();
  Start(text);
  Client silent(sender.ListeningPort(), false);
  silent.AwaitFirstOctet();
  EXPECT_EQ(Client(sender.ListeningPort()).ReadAll(), text);
}

TEST_F(IorSender, SlowReaderGetsTheWholeTextAllTheSame) {
  const std::string text = LongText();
  Start(text);
  Client slow(sender.ListeningPort());
  slow.AwaitFirstOctet();
  Client other(sender.ListeningPort());
  EXPECT_EQ(other.ReadAll(), text);
  EXPECT_EQ(slow.ReadAll(), text);
}

TEST_F(IorSender, ClientIsClosedWithoutAnErrorLine) {
  TestSupport::LogCapture log;
  Start("IOR:0102");
  Client(sender.ListeningPort()).ReadAll();
  sender.Stop();
  for (const auto& line : log.Lines()) EXPECT_NE(line.level, kLogError) << line.text;
}

TEST_F(IorSender, StopsWhileClientsWaitAndStartsAgain) {
  Start(LongText());
  Client silent(sender.ListeningPort(), false);
  silent.AwaitFirstOctet();
  sender.Stop();
  EXPECT_EQ(sender.ListeningPort(), 0);
  Start("IOR:03");
  EXPECT_EQ(Client(sender.ListeningPort()).ReadAll(), "IOR:03");
}

TEST_F(IorSender, PortInUseIsLoggedAndEndsTheThread) {
  ACE_SOCK_Acceptor other;
  ACE_INET_Addr address(static_cast<u_short>(0), static_cast<ACE_UINT32>(INADDR_ANY));
  ASSERT_EQ(other.open(address), 0);
  ASSERT_EQ(other.get_local_addr(address), 0);
  TestSupport::LogCapture log;
  sender.SetPort(address.get_port_number());
  sender.Start();
  EXPECT_FALSE(sender.WaitUntilOpen(kPatience));
  sender.Join();
  EXPECT_TRUE(log.Has(kLogError, "IOR_Sender::Process: Failed to create acceptor"));
  other.close();
}

// Opens its port only when it may: once for each release.
class HeldBackSender : public IOR_Sender {
 public:
  ~HeldBackSender() override {
    mayOpen.release();
    Stop();
  }
  void Process() override {
    mayOpen.acquire();
    IOR_Sender::Process();
  }
  std::counting_semaphore<> mayOpen{0};
};

TEST(WaitForTheIorPort, EndsWhenItsTimeIsOver) {
  HeldBackSender sender;
  sender.SetPort(0);
  sender.Start();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(sender.WaitUntilOpen(std::chrono::milliseconds(50)));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
}

TEST(WaitForTheIorPort, OfARestartedThreadIsForItsNewRun) {
  HeldBackSender sender;
  sender.SetPort(0);
  sender.mayOpen.release();
  sender.Start();
  ASSERT_TRUE(sender.WaitUntilOpen(kPatience));
  sender.Stop();
  sender.Start();
  const auto begin = std::chrono::steady_clock::now();
  sender.WaitUntilOpen(std::chrono::milliseconds(50));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
  sender.mayOpen.release();
  EXPECT_TRUE(sender.WaitUntilOpen(kPatience));
}

// The descriptors of the process, as one test needs them.
class Descriptors {
 public:
  Descriptors() { ACE_OS::getrlimit(RLIMIT_NOFILE, &before_); }
  ~Descriptors() {
    Free();
    ACE_OS::setrlimit(RLIMIT_NOFILE, &before_);
  }
  bool Limit(rlim_t limit) {
    rlimit wanted = before_;
    wanted.rlim_cur = std::min(limit, before_.rlim_max);
    return ACE_OS::setrlimit(RLIMIT_NOFILE, &wanted) == 0 && wanted.rlim_cur == limit;
  }
  // Takes descriptors until that one is in use, or there are no more.
  void TakeUpTo(ACE_HANDLE last) {
    for (;;) {
      const ACE_HANDLE handle = ACE_OS::open("/dev/null", O_RDONLY);
      if (handle == ACE_INVALID_HANDLE) return;
      taken_.push_back(handle);
      if (handle >= last) return;
    }
  }
  void Free() {
    for (const ACE_HANDLE handle : taken_) ACE_OS::close(handle);
    taken_.clear();
  }

 private:
  rlimit before_;
  std::vector<ACE_HANDLE> taken_;
};

TEST_F(IorSender, DescriptorsAbove1024Serve) {
  Descriptors descriptors;
  if (!descriptors.Limit(2048)) GTEST_SKIP() << "the system allows too few descriptors";
  descriptors.TakeUpTo(1100);
  Start("IOR:0102");
  EXPECT_EQ(Client(sender.ListeningPort()).ReadAll(), "IOR:0102");
  sender.Stop();
}

// An acceptor whose rounds the test turns itself.
class IorAcceptor : public testing::Test {
 protected:
  static constexpr std::size_t kDescriptors = 1024;

  explicit IorAcceptor(const std::string& ior = "IOR:0102") : acceptor(ior) {
    ACE_INET_Addr address(static_cast<u_short>(0), static_cast<ACE_UINT32>(INADDR_LOOPBACK));
    EXPECT_EQ(acceptor.open(address, &reactor, ACE_NONBLOCK, 1, 1), 0);
    EXPECT_EQ(acceptor.acceptor().get_local_addr(address), 0);
    port = address.get_port_number();
  }
  ~IorAcceptor() override {
    acceptor.CloseHandlers();
    acceptor.close();
  }

  // The number of events that one wait brought.
  int Round() {
    ACE_Time_Value tick(0, 100'000);
    const int events = reactor.handle_events(&tick);
    acceptor.Tick();
    return events;
  }

  TestSupport::FakeClock clock;
  TestSupport::LogCapture log;
  ACE_Dev_Poll_Reactor implementation{kDescriptors, true};
  ACE_Reactor reactor{&implementation};
  IOR_Acceptor acceptor;
  std::uint16_t port = 0;
};

TEST_F(IorAcceptor, RefusedAcceptPausesInsteadOfSpinningAndIsLoggedOnce) {
  Descriptors descriptors;
  ASSERT_TRUE(descriptors.Limit(kDescriptors));
  Client client(port);
  descriptors.TakeUpTo(kDescriptors);

  EXPECT_EQ(Round(), 1);  // the refusal
  EXPECT_EQ(Round(), 0);  // the connection still waits
  clock.Advance(IOR_Acceptor::kRefusalPause);
  EXPECT_EQ(Round(), 0);
  EXPECT_EQ(Round(), 1);
  EXPECT_EQ(Round(), 0);
  EXPECT_EQ(log.Count("IOR port cannot accept connections: Too many open files (24)\n"), 1u);

  descriptors.Free();
  clock.Advance(IOR_Acceptor::kRefusalPause);
  Round();
  while (Round() > 0) {
  }
  EXPECT_EQ(client.ReadAll(), "IOR:0102");
}

class IorAcceptorOfLongText : public IorAcceptor {
 protected:
  IorAcceptorOfLongText() : IorAcceptor(std::string(kLength, 'x')) {
    // Accepted sockets inherit it: hardly anything fits on the way.
    int size = 4096;
    acceptor.acceptor().set_option(SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  }

  static constexpr std::size_t kLength = 4 * 1024 * 1024;
};

TEST_F(IorAcceptorOfLongText, OldestGivesWayWhenTooManyWait) {
  Client oldest(port, false);
  std::vector<std::unique_ptr<Client>> others;
  while (others.size() < IOR_Acceptor::kMaxHandlers) {
    while (acceptor.HandlerCount() <= others.size()) Round();
    others.push_back(std::make_unique<Client>(port, false));
  }
  while (Round() > 0) {
  }
  EXPECT_EQ(acceptor.HandlerCount(), IOR_Acceptor::kMaxHandlers);
  EXPECT_LT(oldest.ReadAll().size(), kLength);
}

TEST_F(IorAcceptorOfLongText, ClientThatHasNotFinishedAfterTenSecondsIsClosed) {
  Client slow(port, false);
  while (acceptor.HandlerCount() == 0) Round();
  clock.Advance(std::chrono::milliseconds(9'999));
  Round();
  EXPECT_EQ(acceptor.HandlerCount(), 1u);
  clock.Advance(std::chrono::milliseconds(1));
  Round();
  EXPECT_EQ(acceptor.HandlerCount(), 0u);
  EXPECT_LT(slow.ReadAll().size(), kLength);
}

}  // namespace
}  // namespace MessageRouter
