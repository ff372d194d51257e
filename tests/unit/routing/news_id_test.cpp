// Whoever holds the lock of the map waits for no message id.
#include <atomic>
#include <chrono>
#include <future>

#include "dispatcher_fixture.h"
#include "envelope/MessageIdGenerator.h"

namespace TestSupport {
namespace {

using MessageRouter::MessageIdGenerator;
using testing::ElementsAre;
using testing::IsEmpty;

class NewsIdTest : public DispatcherTest {
 protected:
  NewsIdTest() {
    ARouter("child1");
    table_.AddParent("");
  }

  // A second that has no ids left. Once somebody waits for one, it looks whether the lock of the
  // map is free, and the next second begins.
  class NoIdsLeft : public Platform::Clock {
   public:
    explicit NoIdsLeft(NewsIdTest& test) : test_(test) {
      constexpr int kIdsOfASecond = 128;
      // Made before: its first second has one id less.
      MessageIdGenerator& generator = MessageIdGenerator::Instance();
      test_.clock_.SetWall(lastSecond_ += 2);
      for (int i = 0; i < kIdsOfASecond; ++i) generator.NextMessageId();
      Replace(this);
    }
    ~NoIdsLeft() override { Replace(&test_.clock_); }
    bool WasFree() const { return wasFree_; }

    std::int64_t WallSeconds() const override {
      // Who waits looks again and again; what else asks for the time does not.
      constexpr int kLooks = 5;
      if (++looks_ == kLooks) Look();
      return test_.clock_.WallSeconds();
    }
    std::int64_t WallMicroseconds() const override { return test_.clock_.WallMicroseconds(); }
    SteadyTime SteadyNow() const override { return test_.clock_.SteadyNow(); }

   private:
    void Look() const {
      taker_ = std::async(std::launch::async, [this] {
        return static_cast<bool>(ThreadHelper::Guard(test_.routing_.News().MapMutex()));
      });
      wasFree_ = taker_.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
      test_.clock_.AdvanceWall(1);
    }

    NewsIdTest& test_;
    mutable std::atomic<int> looks_{0};
    mutable std::atomic<bool> wasFree_{false};
    mutable std::future<bool> taker_;
  };

  MessageRouter::EnvelopeBuilder News(const std::string& type, const CORBA::Any& payload) {
    return AMessage(type, RouterRole()).WithOriginator("child1").WithData(payload);
  }
  void RouteAll() {
    while (routing_.RouteQueueSize() != 0) routing_.RouteNext(0, 0);
  }
  // "type payload" of each that waits for the parent, and the ids of them.
  std::vector<std::string> Told(std::vector<std::uint32_t>* ids = nullptr) {
    RouteAll();
    std::vector<std::string> told;
    Envelope sent;
    while (table_.Parent()->PopNext(sent)) {
      told.push_back(sent.Type() + " " + PayloadOf(sent));
      if (ids != nullptr) ids->push_back(sent.MessageId());
      sent.Retire();
    }
    return told;
  }
};

TEST_F(NewsIdTest, TheEndOfAChildWaitsForItsIdBeforeTheLock) {
  const NoIdsLeft none(*this);
  routing_.UnregisterPeer("child1", true);
  EXPECT_TRUE(none.WasFree());
  EXPECT_THAT(Told(), ElementsAre("MS-RouterUnregistered child1"));
}

TEST_F(NewsIdTest, NewsFromBelowWaitsForItsIdBeforeTheLock) {
  for (const bool withMap : {false, true}) {
    if (withMap) AMap();
    for (const std::string type : {"MS-RouterRegistered", "MS-RouterUnregistered"}) {
      const NoIdsLeft none(*this);
      Arrive(News(type, TextPayload("leaf")));
      EXPECT_TRUE(none.WasFree()) << type;
      EXPECT_THAT(Told(), ElementsAre(type + " leaf"));
    }
  }
}

TEST_F(NewsIdTest, ARegistrationThatIsWrittenAgainForAFarewellKeepsItsId) {
  constexpr std::uint32_t kSeconds = 0x1FFFFFF;
  const std::uint32_t before = MessageIdGenerator::Instance().NextMessageId();
  bool begun = false;
  const StoreThatLooks store(*this, [&] {
    if (std::exchange(begun, true)) return true;
    clock_.Advance(std::chrono::seconds(1));
    routing_.UnregisterPeer("leaf", true);
    table_.Register("leaf", true);
    return true;
  });
  routing_.RegisterPeer("leaf", true);
  EXPECT_EQ(store.Seen().size(), 3u);
  std::vector<std::uint32_t> ids;
  EXPECT_THAT(Told(&ids), ElementsAre("MS-RouterUnregistered leaf", "MS-RouterRegistered leaf"));
  EXPECT_EQ(ids.at(1) & kSeconds, before & kSeconds);
  EXPECT_EQ(ids.at(0) & kSeconds, (before & kSeconds) + 1);
}

TEST_F(NewsIdTest, NewsThatStopsHereTakesNoIdsFromOthers) {
  AMap().Store("leaf", "child1");
  constexpr unsigned kSequence = 25;
  clock_.SetWall(lastSecond_ += 2);
  const std::uint32_t before = MessageIdGenerator::Instance().NextMessageId();
  for (int i = 0; i < 100; ++i) Arrive(News("MS-RouterRegistered", TextPayload("leaf")));
  EXPECT_THAT(Told(), IsEmpty());
  const std::uint32_t after = MessageIdGenerator::Instance().NextMessageId();
  EXPECT_LE((after >> kSequence) - (before >> kSequence), 2u);
  Arrive(News("MS-RouterRegistered", TextPayload("another")));
  Arrive(News("MS-RouterRegistered", TextPayload("a third")));
  std::vector<std::uint32_t> ids;
  EXPECT_EQ(Told(&ids).size(), 2u);
  EXPECT_NE(ids.at(0), ids.at(1));
}

}  // namespace
}  // namespace TestSupport
