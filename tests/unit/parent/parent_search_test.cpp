#include "parent/ParentSearch.h"

#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "logging/Log.h"
#include "parent/SocketWait.h"
#include "support/FakeClock.h"
#include "support/LogCapture.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RecordingObserver : public ParentSearchObserver {
 public:
  void NameNotResolved(const std::string& host) override { events.push_back("unknown " + host); }
  void ListUsedUp() override { events.push_back("used up"); }
  void Unreachable(const std::string& host) override { events.push_back("unreachable " + host); }
  void Found(const std::string& host, std::uint32_t address) override {
    events.push_back("found " + host);
    foundAddress = address;
  }

  std::vector<std::string> events;
  std::uint32_t foundAddress = 0;
};

// Hosts that each answer in their own way. Every answer has arrived before the search reads it.
class ParentSearchTest : public testing::Test {
 protected:
  enum End { kClose, kStall, kReset };
  struct Answer {
    std::string text;
    End end = kClose;
  };

  ParentSearchTest() {
    ACE_INET_Addr any(static_cast<u_short>(0), static_cast<ACE_UINT32>(INADDR_LOOPBACK));
    EXPECT_EQ(listener_.open(any, 1), 0);
    EXPECT_EQ(listener_.get_local_addr(listening_), 0);
  }
  ~ParentSearchTest() override {
    for (ACE_SOCK_Stream& stream : held) stream.close();
    listener_.close();
  }

  // A host with an answer; one with none refuses.
  void Host(const std::string& name, std::optional<Answer> answer) {
    const auto address = static_cast<std::uint32_t>(0xC0000200 + hosts_.size());
    hosts_[name] = address;
    if (answer) answers_[address] = *answer;
  }

  std::string Search(const std::string& hosts, std::uint32_t receiveSeconds = 0) {
    ParentSearch search(
        observer,
        [this](const std::string& host, std::uint16_t port) {
          asked.push_back(host);
          errno = ENOENT;
          const auto known = hosts_.find(host);
          return ACE_INET_Addr(port,
                               static_cast<ACE_UINT32>(known == hosts_.end() ? 0 : known->second));
        },
        [this](ACE_SOCK_Stream& stream, const ACE_INET_Addr& address) {
          return Connect(stream, address);
        },
        stopping);
    return search.Run(hosts, 8192, receiveSeconds);
  }

  RecordingObserver observer;
  std::function<bool()> stopping;
  std::vector<std::string> asked;
  std::deque<ACE_SOCK_Stream> held;
  TestSupport::LogCapture log;

 private:
  int Connect(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address) {
    const auto answer = answers_.find(address.get_ip_address());
    if (answer == answers_.end()) {
      errno = ECONNREFUSED;
      return -1;
    }
    ACE_SOCK_Connector connector;
    ACE_SOCK_Stream peer;
    EXPECT_EQ(connector.connect(stream, listening_), 0);
    EXPECT_EQ(listener_.accept(peer), 0);
    const std::string& text = answer->second.text;
    EXPECT_EQ(peer.send_n(text.data(), text.size()), static_cast<ssize_t>(text.size()));
    if (answer->second.end == kReset) {
      linger atOnce = {1, 0};
      peer.set_option(SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
    if (answer->second.end == kStall) {
      held.push_back(peer);
    } else {
      peer.close();
    }
    EXPECT_EQ(WaitForSocket(stream.get_handle(), Readiness::Read, std::chrono::seconds(10)), 1);
    return 0;
  }

  ACE_SOCK_Acceptor listener_;
  ACE_INET_Addr listening_;
  std::map<std::string, std::uint32_t> hosts_;
  std::map<std::uint32_t, Answer> answers_;
};

TEST_F(ParentSearchTest, AnswerIsReturnedWholeAndReported) {
  Host("parent", Answer{"IOR:00"});
  EXPECT_EQ(Search("parent", 10), "IOR:00");
  EXPECT_THAT(observer.events, ElementsAre("found parent"));
  EXPECT_EQ(observer.foundAddress, 0xC0000200u);
  EXPECT_TRUE(log.Has(kLogInfo, "Getting parent router IOR from parent:8192\n"));
}

TEST_F(ParentSearchTest, EmptyListGivesNothingWithoutAConnection) {
  EXPECT_EQ(Search(""), "");
  EXPECT_THAT(asked, IsEmpty());
  EXPECT_THAT(observer.events, ElementsAre("used up"));
}

TEST_F(ParentSearchTest, SecondNameIsTriedWhenTheFirstDoesNotResolve) {
  Host("second", Answer{"IOR:00"});
  EXPECT_EQ(Search("first,second", 10), "IOR:00");
  EXPECT_THAT(observer.events, ElementsAre("unknown first", "found second"));
  EXPECT_TRUE(log.Has(kLogWarning, "Parent address unknown: No such file or directory (2)\n"));
}

TEST_F(ParentSearchTest, NamesThatAllFailAreReportedAndGiveNothing) {
  EXPECT_EQ(Search("first,second"), "");
  EXPECT_THAT(observer.events, ElementsAre("unknown first", "unknown second", "used up"));
}

TEST_F(ParentSearchTest, BlanksBesideTheCommaAreKept) {
  Search("first, second");
  EXPECT_THAT(asked, ElementsAre("first", " second"));
}

TEST_F(ParentSearchTest, FirstAnswerEndsTheSearch) {
  Host("first", Answer{"IOR:01"});
  Host("second", Answer{"IOR:02"});
  EXPECT_EQ(Search("first,second", 10), "IOR:01");
  EXPECT_THAT(asked, ElementsAre("first"));
}

TEST_F(ParentSearchTest, ServerThatClosesAtOnceGivesNothingAndTheNextIsTried) {
  Host("first", Answer{""});
  Host("second", Answer{"IOR:02"});
  EXPECT_EQ(Search("first,second", 10), "IOR:02");
  EXPECT_THAT(observer.events, ElementsAre("found second"));
}

TEST_F(ParentSearchTest, RefusedConnectIsReportedAndTheNextIsTried) {
  Host("first", std::nullopt);
  Host("second", Answer{"IOR:02"});
  EXPECT_EQ(Search("first,second", 10), "IOR:02");
  EXPECT_THAT(observer.events, ElementsAre("unreachable first", "found second"));
  EXPECT_TRUE(log.Has(kLogDebug, "Connect failed: Connection refused (111)\n"));
}

TEST_F(ParentSearchTest, HalfAnIorBeforeAStallIsAnAnswer) {
  Host("first", Answer{"IOR:0102", kStall});
  Host("second", Answer{"IOR:02"});
  EXPECT_EQ(Search("first,second", 0), "IOR:0102");
  EXPECT_TRUE(log.Has(kLogDebug, "Recvv timed out"));
  EXPECT_THAT(observer.events, ElementsAre("found first"));
}

TEST_F(ParentSearchTest, BrokenConnectionClearsWhatCameAndTheNextIsTried) {
  Host("first", Answer{"IOR:0102", kReset});
  Host("second", Answer{"IOR:02"});
  EXPECT_EQ(Search("first,second", 10), "IOR:02");
  EXPECT_THAT(observer.events, ElementsAre("unreachable first", "found second"));
  EXPECT_TRUE(log.Has(kLogDebug, "Recvv failed: Connection reset by peer (104)\n"));
}

TEST_F(ParentSearchTest, LongestTextIsAccepted) {
  const std::string longest(kMaxIorText, '0');
  Host("parent", Answer{longest});
  EXPECT_EQ(Search("parent", 10), longest);
}

TEST_F(ParentSearchTest, LongerTextIsCutAndRefused) {
  Host("parent", Answer{std::string(kMaxIorText + 1, '0'), kStall});
  EXPECT_EQ(Search("parent", 10), "");
  EXPECT_THAT(observer.events, ElementsAre("unreachable parent", "used up"));
}

TEST_F(ParentSearchTest, ParentThatDribblesIsLeftInTheEnd) {
  TestSupport::FakeClock clock;
  Host("parent", Answer{"I", kStall});
  stopping = [&] {
    clock.Advance(std::chrono::seconds(299));
    if (!held.empty()) held.front().send_n("0", 1);
    return false;
  };
  EXPECT_EQ(Search("parent", 300).substr(0, 3), "I00");
  EXPECT_TRUE(log.Has(kLogDebug, "Recvv timed out"));
}

TEST_F(ParentSearchTest, StopDuringAReceiveEndsTheSearch) {
  Host("first", Answer{"IOR:", kStall});
  Host("second", Answer{"IOR:02"});
  stopping = [this] { return !held.empty(); };
  EXPECT_EQ(Search("first,second", 3600), "");
  EXPECT_THAT(asked, ElementsAre("first"));
  EXPECT_THAT(observer.events, IsEmpty());
}

TEST_F(ParentSearchTest, NoAddressIsTriedOnceStopping) {
  Host("first", Answer{"IOR:01"});
  stopping = [] { return true; };
  EXPECT_EQ(Search("first"), "");
  EXPECT_THAT(asked, IsEmpty());
}

}  // namespace
}  // namespace MessageRouter
