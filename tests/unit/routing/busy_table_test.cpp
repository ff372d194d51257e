// The table while many threads use it.
#include <algorithm>
#include <atomic>
#include <latch>
#include <numeric>
#include <thread>

#include "fixture.h"

namespace TestSupport {
namespace {

using BrelixMessaging::EnvelopeConsumer;
using BrelixMessaging::NotifyConsumer;

constexpr std::uint32_t kRounds = 300;

// What each thread does in its rounds. A peer may be gone or another's at any moment: what is
// refused for that is part of the mix.
class BusyTable : public RoutingTest {
 protected:
  BusyTable() {
    AClient("agent");
    table_.AddParent("");
  }
  ~BusyTable() override {
    Join();
    StopRouting();
  }

  template <class Round>
  void Begin(Round&& round) {
    threads_.emplace_back([round] {
      for (std::uint32_t i = 0; i < kRounds; ++i) {
        try {
          round(i);
        } catch (const CORBA::UserException&) {
        }
      }
    });
  }
  void BeginAll() {
    Begin([this](std::uint32_t i) { LogOn(i); });
    Begin([this](std::uint32_t) { RegisterAnew(); });
    Begin([this](std::uint32_t i) { Certify("cert" + std::to_string(i)); });
    Begin([this](std::uint32_t i) { Send(i); });
    Begin([this](std::uint32_t i) { Push(i); });
    Begin([this](std::uint32_t i) { RenameTheParent(i); });
  }
  void StopRouting() {
    running_ = false;
    if (router_.joinable()) router_.join();
  }
  void Join() {
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  void LogOn(std::uint32_t i) {
    const EnvelopeConsumer::_var_type consumer = AReferenceTo<EnvelopeConsumer>("pushed");
    routing_.LogonClientPeer("agent", i % 3 == 0 ? EnvelopeConsumer::_nil() : consumer.in(),
                             NotifyConsumer::_nil(), 0);
  }
  void RegisterAnew() {
    routing_.UnregisterPeer("agent", false);
    routing_.RegisterPeer("agent", false);
  }
  void Certify(const std::string& name) {
    table_.AddCertificationEntry(name);
    Entry* entry = table_.Find(name);
    if (entry == nullptr) return;
    entry->LogonCertification(name);
    entry->LogoffCertification();
  }
  void Send(std::uint32_t i) {
    const std::string leaf = std::to_string(i) + ".msg";
    routing_.QueueForRouting(AStoredEnvelope(leaf).WithId(i).WithDestination("agent"));
  }
  // As a sender does, whose calls fail every other time.
  void Push(std::uint32_t i) {
    Entry* entry = table_.Find("agent");
    if (entry == nullptr) return;
    const Entry::Claim claim = entry->ClaimForSending();
    if (!claim.acquired) return;
    MessageRouter::EnvelopeQueue::Taken taken;
    const bool got = entry->PopNext(taken, claim.generation);
    if (got && !entry->Requeue(taken, "agent")) routing_.QueueForRouting(taken.Get());
    if (i % 2 == 0) {
      entry->SendFinished(claim.generation);
    } else if (entry->SendFailed(claim)) {
      entry->LogoffSession(claim.generation);
    }
  }
  // Now and then to a name that a certification peer has.
  void RenameTheParent(std::uint32_t i) {
    table_.SetParentName((i % 10 == 0 ? "cert" : "boss") + std::to_string(i));
  }

 private:
  std::vector<std::thread> threads_;
  std::atomic<bool> running_{true};
  std::thread router_{[this] {
    while (running_) routing_.RouteNext(0, 1);
  }};
};

TEST_F(BusyTable, LosesAndDoublesNoEnvelopeAndLeavesNoObjectActive) {
  BeginAll();
  Join();
  StopRouting();
  while (routing_.RouteQueueSize() != 0) routing_.RouteNext(0, 0);

  std::vector<std::uint32_t> ids = Drain(*table_.Parent());
  if (Entry* entry = table_.Find("agent")) {
    for (const std::uint32_t id : Drain(*entry)) ids.push_back(id);
    try {
      entry->Logoff();
    } catch (const CORBA::UserException&) {
    }
  }
  std::sort(ids.begin(), ids.end());
  std::vector<std::uint32_t> all(kRounds);
  std::iota(all.begin(), all.end(), 0u);
  EXPECT_EQ(ids, all);
  EXPECT_THAT(host_.objects.Active(), testing::IsEmpty());
}

// The entry is by turns that of a client "agent" and of a router "other".
TEST_F(BusyTable, TellsOfAPeerWhatIsTrueOfThatPeerWhoeverTakesItsEntry) {
  constexpr int kFewRounds = 20000;
  Entry& entry = *table_.Find("agent");
  std::atomic<bool> flipping{true};
  std::thread flipper([&] {
    std::vector<Envelope> leftovers;
    for (int i = 0; i < kFewRounds; ++i) {
      entry.MarkUnregistered();
      entry.TakeOver("other", leftovers);
      entry.MarkRegistered(true);
      entry.MarkUnregistered();
      entry.TakeOver("agent", leftovers);
      entry.MarkRegistered(false);
    }
    flipping = false;
  });
  int wrong = 0;
  while (flipping) {
    const auto status = entry.StatusOf("agent");
    if (status && (status->isRouter || status->isLoggedOn)) ++wrong;
  }
  flipper.join();
  EXPECT_EQ(wrong, 0);
  ASSERT_TRUE(entry.StatusOf("agent"));
  EXPECT_FALSE(entry.StatusOf("other"));
}

// The end of a cycle: routing has stopped, requests and senders have not.
TEST_F(BusyTable, IsClearedUnderTheRequestsOfItsPeersAndKeepsTheirFiles) {
  std::latch halfway(1);
  BeginAll();
  Begin([&](std::uint32_t i) {
    if (i == kRounds / 2) halfway.count_down();
    LogOn(i);
  });
  halfway.wait();
  StopRouting();
  table_.Clear();
  Join();
  EXPECT_EQ(table_.Find("agent"), nullptr);
  EXPECT_EQ(table_.Parent(), nullptr);
  for (std::uint32_t i = 0; i < kRounds; ++i) {
    EXPECT_TRUE(FileExists(std::to_string(i) + ".msg")) << i;
  }
  table_.FreeDetached();
}

}  // namespace
}  // namespace TestSupport
