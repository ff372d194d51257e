// What this router makes of the news that routers below it come and go.
#include <atomic>
#include <future>
#include <thread>

#include "broker/Encoding.h"
#include "dispatcher_fixture.h"
#include "envelope/Settings.h"
#include "platform/linux/FileFaults.h"

namespace TestSupport {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// All of them can be mapped.
const std::vector<std::string> kOddNames = {"a.b",      ".",    "a,b", ",", "a\nb",    "\n",
                                            "\xc3\xa4", "\xff", "[x]", ":", "router1", " a"};
// No pair of the map is as large.
const std::string kTooLong(1009, 'n');

class RouterNewsTest : public DispatcherTest {
 protected:
  RouterNewsTest() {
    ARouter("child1");
    ARouter("child2");
    table_.AddParent("");
  }

  MessageRouter::EnvelopeBuilder News(const std::string& type, const std::string& child,
                                      const CORBA::Any& payload) {
    return AMessage(type, RouterRole()).WithOriginator(child).WithData(payload);
  }
  // A child's news arrives. The result is what goes up: "payload", or nothing.
  std::vector<std::string> Registered(const std::string& child, const CORBA::Any& payload) {
    return SentUp("MS-RouterRegistered", News("MS-RouterRegistered", child, payload));
  }
  std::vector<std::string> Unregistered(const std::string& child, const CORBA::Any& payload) {
    return SentUp("MS-RouterUnregistered", News("MS-RouterUnregistered", child, payload));
  }
  std::vector<std::string> SentUp(const std::string& type, const Envelope& news) {
    Arrive(news);
    std::vector<std::string> payloads;
    Envelope sent;
    while (table_.Parent()->PopNext(sent)) {
      EXPECT_EQ(sent.Type(), type);
      EXPECT_EQ(sent.Destination(), ":.:");
      payloads.push_back(PayloadOf(sent));
    }
    return payloads;
  }
};

// Registered

TEST_F(RouterNewsTest, ANewNameIsMappedToTheChildAndGoesOnUp) {
  MessageRouter::Logical& map = AMap();
  EXPECT_THAT(Registered("child1", TextPayload("leaf")), ElementsAre("leaf"));
  EXPECT_EQ(map.Lookup("leaf"), "child1");
  EXPECT_TRUE(Logged("MS-RouterRegistered originator child1\n"));
}

TEST_F(RouterNewsTest, AListThatWouldBeTooLargeToGoUpIsMappedAndStaysHere) {
  MessageRouter::Logical& map = AMap();
  const std::string name(60, 'x');
  std::vector<std::string> names;
  for (int i = 0; i < 100; ++i) names.push_back(name + std::to_string(i));
  MessageRouter::Settings::SetLargest({4000, 4000});
  EXPECT_THAT(Registered("child1", ListPayload(names)), IsEmpty());
  EXPECT_TRUE(log_.Contains("Dispatcher::Send: Caught An envelope of "));
  EXPECT_EQ(map.Lookup(name + "99"), "child1");
}

TEST_F(RouterNewsTest, ANameThatIsMappedToTheSameChildAlreadyStopsHere) {
  AMap().Store("leaf", "child1");
  EXPECT_THAT(Registered("child1", TextPayload("leaf")), IsEmpty());
}

TEST_F(RouterNewsTest, ANameMovesToTheChildThatAnnouncesItAndTheOldChildsFarewellStopsHere) {
  MessageRouter::Logical& map = AMap();
  Registered("child1", TextPayload("leaf"));
  EXPECT_THAT(Registered("child2", TextPayload("leaf")), ElementsAre("leaf"));
  EXPECT_EQ(map.Lookup("leaf"), "child2");
  EXPECT_THAT(Unregistered("child1", TextPayload("leaf")), IsEmpty());
  EXPECT_EQ(map.Lookup("leaf"), "child2");
}

TEST_F(RouterNewsTest, AListOfRegisteredNamesGoesOnWholeEvenIfAllAreKnown) {
  MessageRouter::Logical& map = AMap();
  map.Store("a", "child1");
  EXPECT_THAT(Registered("child1", ListPayload({"a", "b", "a"})), ElementsAre("[a,b,a]"));
  EXPECT_THAT(Registered("child1", ListPayload({"a", "b"})), ElementsAre("[a,b]"));
  EXPECT_EQ(map.Lookup("a"), "child1");
  EXPECT_EQ(map.Lookup("b"), "child1");
}

TEST_F(RouterNewsTest, ANameThatCannotBeStoredStillGoesUp) {
  AMap();
  const std::string huge(5000, 'n');
  EXPECT_THAT(Registered("child1", TextPayload(huge)), ElementsAre(huge));
  EXPECT_THAT(Registered("child1", ListPayload({"", huge})), ElementsAre("[," + huge + "]"));
}

TEST_F(RouterNewsTest, NamesOfAnyBytesAreMapped) {
  MessageRouter::Logical& map = AMap();
  for (const std::string& name : kOddNames) {
    EXPECT_THAT(Registered("child1", TextPayload(name)), ElementsAre(name));
    EXPECT_EQ(map.Lookup(name), "child1");
  }
}

// Unregistered

TEST_F(RouterNewsTest, ANameThatIsGoneIsRemovedAndTheNewsGoesOnUp) {
  MessageRouter::Logical& map = AMap();
  map.Store("leaf", "child1");
  EXPECT_THAT(Unregistered("child1", TextPayload("leaf")), ElementsAre("leaf"));
  EXPECT_EQ(map.Lookup("leaf"), "");
  EXPECT_TRUE(Logged("MS-RouterUnregistered originator child1\n"));
}

TEST_F(RouterNewsTest, NamesOfAnyBytesAreRemovedAloneAndGoOnUp) {
  MessageRouter::Logical& map = AMap();
  for (const char* others : {"a", "b", "x"}) map.Store(others, "child1");
  for (const std::string& name : kOddNames) {
    map.Store(name, "child1");
    EXPECT_THAT(Unregistered("child1", TextPayload(name)), ElementsAre(name));
    std::vector<std::string> left;
    map.AllKeys(left);
    EXPECT_THAT(left, testing::UnorderedElementsAre("a", "b", "x")) << name;
  }
}

TEST_F(RouterNewsTest, NamesOfAnyBytesThatLeadToAnotherChildStayAndStopHere) {
  MessageRouter::Logical& map = AMap();
  for (const std::string& name : kOddNames) {
    map.Store(name, "child2");
    EXPECT_THAT(Unregistered("child1", TextPayload(name)), IsEmpty());
    EXPECT_THAT(Unregistered("child1", ListPayload({name})), IsEmpty());
    EXPECT_EQ(map.Lookup(name), "child2") << name;
  }
}

TEST_F(RouterNewsTest, OfAListOfOddNamesThoseThatAreMappedAreRemovedAndGoOnUp) {
  MessageRouter::Logical& map = AMap();
  map.Store("a", "child1");
  for (const std::string& name : kOddNames) map.Store(name, "child1");
  std::vector<std::string> names = kOddNames;
  names.insert(names.begin(), {"", kTooLong});
  std::string mapped;
  for (const std::string& name : kOddNames) mapped += (mapped.empty() ? "" : ",") + name;
  EXPECT_THAT(Unregistered("child1", ListPayload(names)), ElementsAre("[" + mapped + "]"));
  std::vector<std::string> left;
  map.AllKeys(left);
  EXPECT_THAT(left, ElementsAre("a"));
}

TEST_F(RouterNewsTest, AGoneNameThatNoMapCanHoldStopsHereAndRemovesNothing) {
  MessageRouter::Logical& map = AMap();
  for (std::size_t size = 1000; size <= 1008; ++size) map.Store(std::string(size, 'n'), "child1");
  std::vector<std::string> before;
  std::vector<std::string> after;
  ASSERT_GT(map.AllKeys(before), 0u);
  EXPECT_THAT(Unregistered("child1", TextPayload(kTooLong)), IsEmpty());
  EXPECT_THAT(Unregistered("child1", ListPayload({kTooLong, ""})), IsEmpty());
  map.AllKeys(after);
  EXPECT_EQ(after, before);
}

TEST_F(RouterNewsTest, AnEmptyNameAloneIsNoNews) {
  AMap().Store("leaf", "child1");
  EXPECT_THAT(Unregistered("child1", TextPayload("")), IsEmpty());
  EXPECT_TRUE(Logged("MS-RouterUnregistered - badly formatted originator child1\n"));
}

TEST_F(RouterNewsTest, AnUnknownNameThatIsGoneStopsHere) {
  AMap();
  EXPECT_THAT(Unregistered("child1", TextPayload("leaf")), IsEmpty());
}

TEST_F(RouterNewsTest, OfAListOfGoneNamesOnlyThoseOfNoOtherOwnerGoOnUp) {
  MessageRouter::Logical& map = AMap();
  for (const char* name : {"a", "c", "e"}) map.Store(name, "child1");
  for (const char* name : {"b", "d"}) map.Store(name, "child2");
  EXPECT_THAT(Unregistered("child1", ListPayload({"a", "b", "c", "d", "e"})),
              ElementsAre("[a,c,e]"));
  std::vector<std::string> left;
  map.AllKeys(left);
  EXPECT_THAT(left, testing::UnorderedElementsAre("b", "d"));
}

// It was announced late: by now it is a child of ours, and the routers above come to it through us.
TEST_F(RouterNewsTest, TheEndOfTheFormerWayToAChildOfOursStopsHere) {
  MessageRouter::Logical& map = AMap();
  ARouter("near");
  Registered("child1", TextPayload("near"));
  EXPECT_THAT(Unregistered("child1", TextPayload("near")), IsEmpty());
  EXPECT_EQ(map.Lookup("near"), "");
  Registered("child1", ListPayload({"near", "leaf"}));
  EXPECT_THAT(Unregistered("child1", ListPayload({"near", "leaf"})), ElementsAre("[leaf]"));
  EXPECT_EQ(map.Lookup("near"), "");
}

TEST_F(RouterNewsTest, AListOfGoneNamesThatAllHaveAnotherOwnerStopsHere) {
  MessageRouter::Logical& map = AMap();
  map.Store("a", "child2");
  EXPECT_THAT(Unregistered("child1", ListPayload({"a", "unknown"})), IsEmpty());
}

TEST_F(RouterNewsTest, AListOfGoneNamesThatAreAllOursGoesOnWhole) {
  MessageRouter::Logical& map = AMap();
  for (const char* name : {"a", "b"}) map.Store(name, "child1");
  EXPECT_THAT(Unregistered("child1", ListPayload({"a", "b"})), ElementsAre("[a,b]"));
}

TEST_F(RouterNewsTest, AListWithoutGoneNamesIsNoNews) {
  AMap();
  EXPECT_THAT(Unregistered("child1", ListPayload({})), IsEmpty());
  EXPECT_THAT(Registered("child1", ListPayload({})), ElementsAre("[]"));
}

TEST_F(RouterNewsTest, ANameThatAClosedMapCannotRemoveGoesOnUp) {
  routing_.SetLogical(std::make_unique<MessageRouter::Logical>("no/such/folder/LogicalTable"));
  EXPECT_THAT(Unregistered("child1", TextPayload("leaf")), ElementsAre("leaf"));
  EXPECT_THAT(Registered("child1", TextPayload("leaf")), ElementsAre("leaf"));
}

TEST_F(RouterNewsTest, ANameThatAListHasTwiceIsGoneOnce) {
  AMap().Store("a", "child1");
  EXPECT_THAT(Unregistered("child1", ListPayload({"a", "a"})), ElementsAre("[a]"));
}

// A crash, and the stop

TEST_F(RouterNewsTest, TheParentIsToldBeforeTheMapKnowsTheName) {
  MessageRouter::Logical& map = AMap();
  StoreThatLooks looks(*this, [&] { return map.Lookup("leaf").empty(); });
  Registered("child1", TextPayload("leaf"));
  EXPECT_THAT(looks.Seen(), ElementsAre(true));
  EXPECT_EQ(map.Lookup("leaf"), "child1");
}

TEST_F(RouterNewsTest, TheParentIsToldBeforeTheMapForgetsTheName) {
  MessageRouter::Logical& map = AMap();
  StoreThatLooks looks(*this, [&] { return map.Lookup("leaf") == "child1"; });
  for (const CORBA::Any& payload : {TextPayload("leaf"), ListPayload({"leaf"})}) {
    map.Store("leaf", "child1");
    Unregistered("child1", payload);
    EXPECT_EQ(map.Lookup("leaf"), "");
  }
  EXPECT_THAT(looks.Seen(), ElementsAre(true, true));
}

// News about 1000 names, handled until the stop comes at that look for it. Returns whether its file
// is still there.
class StoppedNewsTest : public RouterNewsTest {
 protected:
  StoppedNewsTest() {
    for (int i = 0; i < 1000; ++i) names_.push_back(std::to_string(i));
  }
  bool IsKept(const std::string& type, unsigned stopAtLook) {
    Envelope news = AStoredEnvelope("00000001.msg")
                        .WithDestination(":")
                        .WithType(type)
                        .WithOriginator("child1")
                        .WithCertificate(RouterRole())
                        .WithData(ListPayload(names_));
    routing_.QueueForRouting(news);
    unsigned looks = 0;
    routing_.RouteNext(0, 0, [&] { return ++looks == stopAtLook; });
    return FileExists("00000001.msg");
  }
  std::size_t Mapped(const MessageRouter::Logical& map) {
    std::vector<std::string> keys;
    return map.KeysOf("child1", keys);
  }

  std::vector<std::string> names_;
};

TEST_F(StoppedNewsTest, AListOfRegisteredNamesIsKeptAndToldWhenItIsHandledAgain) {
  MessageRouter::Logical& map = AMap();
  EXPECT_TRUE(IsKept("MS-RouterRegistered", 2));
  EXPECT_LT(Mapped(map), 1000u);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_FALSE(IsKept("MS-RouterRegistered", 0));
  EXPECT_EQ(Mapped(map), 1000u);
  EXPECT_EQ(routing_.RouteQueueSize(), 1u);
}

TEST_F(StoppedNewsTest, AListOfGoneNamesIsKeptAndNothingIsToldBeforeAllHaveBeenLookedAt) {
  MessageRouter::Logical& map = AMap();
  for (const std::string& name : names_) map.Store(name, "child1");
  EXPECT_TRUE(IsKept("MS-RouterUnregistered", 2));
  EXPECT_EQ(Mapped(map), 1000u);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
}

TEST_F(StoppedNewsTest, AListOfGoneNamesThatIsStoppedLaterHasBeenToldAndIsFinishedNextTime) {
  MessageRouter::Logical& map = AMap();
  for (const std::string& name : names_) map.Store(name, "child1");
  EXPECT_TRUE(IsKept("MS-RouterUnregistered", 6));
  EXPECT_LT(Mapped(map), 1000u);
  EXPECT_GT(Mapped(map), 0u);
  ASSERT_EQ(routing_.RouteQueueSize(), 1u);
  routing_.RouteNext(0, 0);
  EXPECT_TRUE(table_.Parent()->HasEnvelopes());
  EXPECT_FALSE(IsKept("MS-RouterUnregistered", 0));
  EXPECT_EQ(Mapped(map), 0u);
}

TEST_F(StoppedNewsTest, AListLetsTheLockOfTheMapGoWhereItLooksForTheStop) {
  MessageRouter::Logical& map = AMap();
  for (const std::string& name : names_) map.Store(name, "child1");
  for (const std::string type : {"MS-RouterRegistered", "MS-RouterUnregistered"}) {
    std::vector<std::future<bool>> takers;
    routing_.QueueForRouting(News(type, "child1", ListPayload(names_)));
    routing_.RouteNext(0, 0, [&] {
      takers.push_back(std::async(std::launch::async, [&] {
        return static_cast<bool>(ThreadHelper::Guard(routing_.News().MapMutex()));
      }));
      EXPECT_EQ(takers.back().wait_for(std::chrono::seconds(10)), std::future_status::ready);
      return HasFailure();
    });
    EXPECT_GE(takers.size(), 4u) << type;
    routing_.EmptyRouteQueue();
  }
}

TEST_F(StoppedNewsTest, OfAListOfGoneNamesWhatComesHereMeanwhileIsNotTold) {
  MessageRouter::Logical& map = AMap();
  for (const std::string& name : names_) map.Store(name, "child1");
  unsigned looks = 0;
  routing_.QueueForRouting(News("MS-RouterUnregistered", "child1", ListPayload(names_)));
  routing_.RouteNext(0, 0, [&] {
    if (++looks == 3) ARouter(names_[1]);
    return false;
  });
  EXPECT_GT(looks, 3u);
  ASSERT_EQ(routing_.RouteQueueSize(), 1u);
  routing_.RouteNext(0, 0);
  Envelope sent;
  ASSERT_TRUE(table_.Parent()->PopNext(sent));
  HeardAbove above({names_.begin(), names_.end()});
  above.Hear(sent);
  for (const std::string& name : names_) EXPECT_EQ(above.Knows(name), name == names_[1]) << name;
  EXPECT_EQ(Mapped(map), 0u);
}

TEST_F(StoppedNewsTest, AListOfGoneNamesStopsHereOnceItsOriginatorHasLeft) {
  MessageRouter::Logical& map = AMap();
  for (const std::string& name : names_) map.Store(name, "child1");
  unsigned looks = 0;
  routing_.QueueForRouting(News("MS-RouterUnregistered", "child1", ListPayload(names_)));
  routing_.RouteNext(0, 0, [&] {
    if (++looks == 3) table_.Unregister("child1");
    return false;
  });
  EXPECT_EQ(looks, 3u);
  EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  EXPECT_TRUE(
      Logged("MS-RouterUnregistered - not from a child router of ours, originator child1\n"));
  EXPECT_EQ(Mapped(map), 1000u);
}

// Both

TEST_F(RouterNewsTest, NewsIsHeardWhileTheMapIsWalkedForAChildThatLeaves) {
  static MessageRouter::ChildNews* news;
  static std::future<bool> taker;
  static bool walked;
  static bool wasFree;
  AMap().Store("leaf", "child1");
  news = &routing_.News();
  walked = false;
  Platform::Faults().placedSearchHook = [] {
    walked = true;
    taker = std::async(std::launch::async,
                       [] { return static_cast<bool>(ThreadHelper::Guard(news->MapMutex())); });
    wasFree = taker.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  };
  routing_.UnregisterPeer("child1", true);
  ASSERT_TRUE(walked);
  EXPECT_TRUE(taker.get());
  EXPECT_TRUE(wasFree);
  EXPECT_EQ(routing_.Map()->Lookup("leaf"), "");
}

TEST_F(RouterNewsTest, ANameThatIsAnnouncedWhileItsFormerChildLeavesIsKnownAbove) {
  MessageRouter::Logical& map = AMap();
  for (const CORBA::Any& payload : {TextPayload("leaf"), ListPayload({"leaf"})}) {
    map.Store("leaf", "child1");
    std::thread announcing;
    std::atomic<bool> begun{false};
    {
      // While the farewell is written, the announcement has every chance to overtake it.
      StoreThatLooks store(*this, [&] {
        if (begun.exchange(true)) return true;
        announcing = std::thread(
            [&] { Arrive(News("MS-RouterRegistered", "child2", payload).WithPriority(0)); });
        for (int i = 0; i < 5000 && map.Lookup("leaf") == "child1"; ++i) std::this_thread::yield();
        return true;
      });
      routing_.UnregisterPeer("child1", true);
      announcing.join();
    }
    while (routing_.RouteQueueSize() != 0) routing_.RouteNext(0, 0);
    HeardAbove above({"leaf", "child1"});
    Envelope sent;
    while (table_.Parent()->PopNext(sent)) above.Hear(sent);
    EXPECT_EQ(map.Lookup("leaf"), "child2");
    EXPECT_TRUE(above.Knows("leaf"));
    EXPECT_FALSE(above.Knows("child1"));
    ARouter("child1");
  }
}

TEST_F(RouterNewsTest, AChildThatHasComeNearerIsNotTakenAlongByTheFarewellOfItsFormerWay) {
  MessageRouter::Logical& map = AMap();
  Registered("child1", TextPayload("leaf"));
  routing_.RegisterPeer("leaf", true);
  routing_.RouteNext(0, 0);
  Envelope sent;
  ASSERT_TRUE(table_.Parent()->PopNext(sent));
  EXPECT_THAT(Unregistered("child1", TextPayload("leaf")), IsEmpty());
  EXPECT_EQ(map.Lookup("leaf"), "");
}

TEST_F(RouterNewsTest, WithLogicalRoutingOffEveryNewsGoesUpUnchanged) {
  std::vector<CORBA::Any> payloads = {TextPayload("leaf"), TextPayload(""),
                                      ListPayload({"a", "b"})};
  for (const CORBA::Any& other : OtherPayloads()) payloads.push_back(other);
  for (const CORBA::Any& payload : payloads) {
    for (const std::string type : {"MS-RouterRegistered", "MS-RouterUnregistered"}) {
      for (const std::string originator : {"child1", "stranger"}) {
        log_.Clear();
        Arrive(News(type, originator, payload));
        EXPECT_TRUE(Logged(type + " - router has no logical routing table originator " +
                           originator + "\n"));
        Envelope sent;
        ASSERT_TRUE(table_.Parent()->PopNext(sent));
        EXPECT_FALSE(table_.Parent()->HasEnvelopes());
        EXPECT_EQ(sent.Type(), type);
        EXPECT_EQ(sent.Destination(), ":.:");
        CORBA::Any data;
        sent.GetData(data);
        EXPECT_EQ(Encoding::EncodeAny(data), Encoding::EncodeAny(payload));
      }
    }
  }
}

TEST_F(RouterNewsTest, NewsFromOneWhoIsNotInTheTableStopsHere) {
  MessageRouter::Logical& map = AMap();
  map.Store("known", "stranger");
  EXPECT_THAT(Registered("stranger", TextPayload("leaf")), IsEmpty());
  EXPECT_TRUE(
      Logged("MS-RouterRegistered - not from a child router of ours, originator stranger\n"));
  EXPECT_THAT(Unregistered("stranger", TextPayload("known")), IsEmpty());
  EXPECT_TRUE(
      Logged("MS-RouterUnregistered - not from a child router of ours, originator stranger\n"));
  EXPECT_EQ(map.Lookup("leaf"), "");
  EXPECT_EQ(map.Lookup("known"), "stranger");
}

TEST_F(RouterNewsTest, NewsFromOneWhoIsNoRegisteredChildRouterStopsHereAndChangesNothing) {
  MessageRouter::Logical& map = AMap();
  table_.SetParentName("boss");
  ARouter("left");
  table_.Unregister("left");
  for (const std::string originator : {"left", "asker", "boss", ""}) {
    log_.Clear();
    map.Store("known", originator);
    const std::string said = " - not from a child router of ours, originator " + originator + "\n";
    EXPECT_THAT(Registered(originator, TextPayload("leaf")), IsEmpty()) << originator;
    EXPECT_TRUE(Logged("MS-RouterRegistered" + said)) << originator;
    EXPECT_THAT(Unregistered(originator, TextPayload("known")), IsEmpty()) << originator;
    EXPECT_TRUE(Logged("MS-RouterUnregistered" + said)) << originator;
    EXPECT_EQ(map.Lookup("leaf"), "");
    EXPECT_EQ(map.Lookup("known"), originator);
  }
}

TEST_F(RouterNewsTest, TheTypesOfNewsAreKnownInAnyCase) {
  MessageRouter::Logical& map = AMap();
  Arrive(News("ms-routerREGISTERED", "child1", TextPayload("leaf")));
  EXPECT_EQ(map.Lookup("leaf"), "child1");
  EXPECT_TRUE(Logged("MS-RouterRegistered originator child1\n"));
  Arrive(News("Ms-ROUTERunregistered", "child1", TextPayload("leaf")));
  EXPECT_EQ(map.Lookup("leaf"), "");
  EXPECT_TRUE(Logged("MS-RouterUnregistered originator child1\n"));
}

TEST_F(RouterNewsTest, WithNeitherMapNorParentNewsIsOnlyLogged) {
  table_.Clear();
  table_.ReadTable(false);
  ARouter("child1");
  for (const std::string event : {"RouterRegistered", "RouterUnregistered"}) {
    Arrive(News("MS-" + event, "child1", TextPayload("leaf")));
    EXPECT_TRUE(
        Logged("MS-" + event + " - router has no logical routing table originator child1\n"));
  }
  EXPECT_FALSE(log_.Contains("Cannot route"));
}

TEST_F(RouterNewsTest, NewsThatCameDownIsNotSentUpAgain) {
  const auto fromParent = [this](const std::string& type) {
    return SentUp(type, News(type, "child1", TextPayload("leaf")).FromParent());
  };
  for (const bool withMap : {false, true}) {
    if (withMap) AMap();
    for (const std::string type : {"MS-RouterRegistered", "MS-RouterUnregistered"}) {
      log_.Clear();
      EXPECT_THAT(fromParent(type), IsEmpty());
      EXPECT_TRUE(Logged(type + " - not from a child router of ours, originator child1\n"));
    }
  }
}

TEST_F(RouterNewsTest, NewsThatCameDownChangesNothingInTheMap) {
  MessageRouter::Logical& map = AMap();
  map.Store("known", "child1");
  Arrive(News("MS-RouterRegistered", "child1", TextPayload("leaf")).FromParent());
  Arrive(News("MS-RouterUnregistered", "child1", TextPayload("known")).FromParent());
  EXPECT_EQ(map.Lookup("leaf"), "");
  EXPECT_EQ(map.Lookup("known"), "child1");
}

TEST_F(RouterNewsTest, APayloadThatIsNeitherTextNorAListAndAnEmptyTextAreBadlyFormatted) {
  AMap();
  std::vector<CORBA::Any> payloads = OtherPayloads();
  payloads.push_back(TextPayload(""));
  for (const CORBA::Any& payload : payloads) {
    log_.Clear();
    EXPECT_THAT(Registered("child1", payload), IsEmpty());
    EXPECT_TRUE(Logged("MS-RouterRegistered - badly formatted originator child1\n"));
    EXPECT_THAT(Unregistered("child1", payload), IsEmpty());
    EXPECT_TRUE(Logged("MS-RouterUnregistered - badly formatted originator child1\n"));
  }
}

TEST_F(RouterNewsTest, WithoutAParentTheMapIsKeptAndNothingIsSent) {
  table_.Clear();
  table_.ReadTable(false);
  ARouter("child1");
  MessageRouter::Logical& map = AMap();
  Arrive(News("MS-RouterRegistered", "child1", ListPayload({"a", "b"})));
  EXPECT_EQ(map.Lookup("b"), "child1");
  Arrive(News("MS-RouterUnregistered", "child1", ListPayload({"a", "x"})));
  EXPECT_EQ(map.Lookup("a"), "");
  EXPECT_EQ(map.Lookup("b"), "child1");
  EXPECT_FALSE(log_.Contains("Cannot route"));
}

TEST_F(RouterNewsTest, NewsGoesUpWithItsPriorityAndItsTimeToLive) {
  for (const std::string type : {"MS-RouterRegistered", "MS-RouterUnregistered"}) {
    for (const std::int64_t ttl : {std::int64_t{0}, clock_.WallSeconds() + 99}) {
      const std::string name = "leaf" + std::to_string(ttl);
      MessageRouter::Logical& map = AMap();
      if (type == "MS-RouterUnregistered") map.Store(name, "child1");
      clock_.Advance(std::chrono::seconds(10));
      Arrive(News(type, "child1", TextPayload(name)).WithPriority(3).WithTtl(ttl));
      Envelope sent;
      ASSERT_TRUE(table_.Parent()->PopNext(sent));
      EXPECT_EQ(sent.Type(), type);
      EXPECT_EQ(sent.Priority(), 3u);
      EXPECT_EQ(sent.Ttl(), ttl);
      EXPECT_EQ(sent.Originator(), "router1");
    }
  }
}

}  // namespace
}  // namespace TestSupport
