#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "envelope/EnvelopeStore.h"
#include "logging/Log.h"
#include "routing/Routing.h"
#include "support/EnvelopeBuilder.h"
#include "support/FakeClock.h"
#include "support/FakeRoutingHost.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace TestSupport {

// A router named "router1" with an empty table, in a scratch folder, without any threads.
class RoutingTest : public testing::Test {
 protected:
  using Entry = MessageRouter::RouterTableEntry;
  using Envelope = MessageRouter::Envelope;

  RoutingTest();
  ~RoutingTest() override;

  // Registered, not logged on.
  Entry& AClient(const std::string& name);
  Entry& ARouter(const std::string& name);
  // The ways to log on, each with references of their own.
  void LogonPushed(Entry& client);
  void LogonPulling(Entry& client);
  void LogonNotified(Entry& client);
  void LogonPolled(Entry& router);

  // An envelope with a file behind it, which Retire removes.
  MessageRouter::EnvelopeBuilder AStoredEnvelope(const std::string& leaf);
  bool FileExists(const std::string& leaf) const;

  // Enqueues or puts back under the entry's present name.
  void Enqueue(Entry& entry, const Envelope& envelope);
  // The ids of what waits, in the order of leaving; empties the queue.
  static std::vector<std::uint32_t> Drain(Entry& entry);

  std::string TablePath() const;
  std::string TableText() const;
  void WriteTableText(const std::string& text) const;
  // The map of routers further down, open and empty, in use from now on.
  MessageRouter::Logical& AMap();
  // Time enough for another write of the table.
  void PassAMinute();

  // How long the router's own messages live, from now on.
  static void LetOwnMessagesLive(std::uint32_t seconds);

  // One pass of the route thread over that envelope.
  void Route(const Envelope& envelope);

  ScratchConfiguration configuration_;
  LogCapture log_;
  // Each test has a second of its own: those that went before leave it all message ids.
  FakeClock clock_{++lastSecond_};
  MessageRouter::EnvelopeStore store_;
  // While it lives, looks at the world whenever an envelope is about to be written.
  class StoreThatLooks : public MessageRouter::EnvelopeStore {
   public:
    StoreThatLooks(RoutingTest& test, std::function<bool()> look)
        : EnvelopeStore(test.store_.Directory()), test_(test), look_(std::move(look)) {
      Replace(this);
    }
    ~StoreThatLooks() override { Replace(&test_.store_); }
    int Write(const std::string& name, const std::string& content) override {
      seen_.push_back(look_());
      return EnvelopeStore::Write(name, content);
    }
    const std::vector<bool>& Seen() const { return seen_; }

   private:
    RoutingTest& test_;
    const std::function<bool()> look_;
    std::vector<bool> seen_;
  };

  static inline std::int64_t lastSecond_ = FakeClock::kDefaultWall;

  FakeRoutingHost host_;
  MessageRouter::RouterTable table_;
  MessageRouter::Routing routing_;
};

}  // namespace TestSupport
