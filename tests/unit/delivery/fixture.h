#pragma once

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config/Configuration.h"
#include "delivery/SendFailureRecord.h"
#include "delivery/SenderWorker.h"
#include "delivery/Workers.h"
#include "envelope/EnvelopeStore.h"
#include "logging/Log.h"
#include "routing/Routing.h"
#include "security/OwnIdentity.h"
#include "support/EnvelopeBuilder.h"
#include "support/FakeClock.h"
#include "support/FakePeers.h"
#include "support/FakeRoutingHost.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace DeliveryTests {

using MessageRouter::AnEnvelope;
using MessageRouter::Envelope;
using MessageRouter::EnvelopeBuilder;
using MessageRouter::RouterTableEntry;
using TestSupport::ClientPeer;
using TestSupport::NotifyPeer;
using TestSupport::RouterPeer;
using TestSupport::SupplierPeer;

// A router named "router1" with a table, and a pool of senders without workers: a test makes the
// visits itself.
class DeliveryTest : public testing::Test {
 protected:
  DeliveryTest()
      : store((configuration.Folder() / "Envelopes").string()),
        table(host, (configuration.Folder() / "table_router.txt").string()),
        routing(host, table) {
    MessageRouter::OwnIdentity::Set("router1", "router's certificate");
    MessageRouter::EnvelopeStore::Replace(&store);
    MessageRouter::Cycle::Set(&routing);
    MessageRouter::SendFailureRecord::Instance().Clear();
    std::filesystem::create_directories(store.Directory());
    table.ReadTable(false);
    log.Clear();
  }
  ~DeliveryTest() override {
    MessageRouter::Cycle::Set(nullptr);
    MessageRouter::EnvelopeStore::Replace(nullptr);
  }

  RouterTableEntry& AClient(const std::string& name = "agent") {
    table.Register(name, false);
    return *table.Find(name);
  }
  RouterTableEntry& ARouter(const std::string& name = "child") {
    table.Register(name, true);
    return *table.Find(name);
  }
  // Logged on as one that is pushed to.
  RouterTableEntry& APushedClient(ClientPeer& peer, const std::string& name = "agent") {
    RouterTableEntry& entry = AClient(name);
    Logon(entry, peer);
    return entry;
  }
  RouterTableEntry& APushedRouter(RouterPeer& peer, const std::string& name = "child") {
    RouterTableEntry& entry = ARouter(name);
    entry.LogonRouter(entry.Name(), peer.Reference(), BrelixMessaging::RouterSupplier::_nil(),
                      BrelixMessaging::NotifyConsumer::_nil(), 0, true);
    return entry;
  }
  RouterTableEntry& ANotifiedClient(NotifyPeer& peer, std::int32_t threshold = 0,
                                    const std::string& name = "agent") {
    RouterTableEntry& entry = AClient(name);
    entry.LogonClient(entry.Name(), BrelixMessaging::EnvelopeConsumer::_nil(), peer.Reference(),
                      threshold, true);
    return entry;
  }
  static void Logon(RouterTableEntry& entry, ClientPeer& peer) {
    entry.LogonClient(entry.Name(), peer.Reference(), BrelixMessaging::NotifyConsumer::_nil(), 0,
                      true);
  }

  // An envelope with a file that is only good for being removed.
  EnvelopeBuilder Stored(std::uint32_t id) {
    const std::string path = File(id);
    std::ofstream(path) << "envelope";
    return AnEnvelope().WithId(id).WithFile(path);
  }
  EnvelopeBuilder Expired(std::uint32_t id) { return Stored(id).WithTtl(clock.WallSeconds() - 1); }
  // The payload is no Any.
  EnvelopeBuilder Broken(std::uint32_t id) { return Stored(id).WithDataText("ffffffff"); }
  bool OnDisk(std::uint32_t id) const { return std::filesystem::exists(File(id)); }
  std::string File(std::uint32_t id) const {
    return (std::filesystem::path(store.Directory()) / (std::to_string(id) + ".msg")).string();
  }

  static void Enqueue(RouterTableEntry& entry, const Envelope& envelope) {
    ASSERT_TRUE(entry.Enqueue(envelope, entry.Name()));
  }
  static std::vector<std::uint32_t> Waiting(RouterTableEntry& entry) {
    std::vector<std::uint32_t> ids;
    for (const Envelope& envelope : entry.TakeAll()) ids.push_back(envelope.MessageId());
    return ids;
  }
  // One visit of a sender.
  void Visit(RouterTableEntry& entry) {
    MessageRouter::SenderWorker worker(pool);
    worker.ProcessEntry(entry);
  }
  static std::uint32_t Failures() {
    return MessageRouter::SendFailureRecord::Instance().Failures();
  }

  TestSupport::ScratchConfiguration configuration;
  TestSupport::LogCapture log;
  TestSupport::FakeClock clock;
  MessageRouter::EnvelopeStore store;
  TestSupport::FakeRoutingHost host;
  MessageRouter::RouterTable table;
  MessageRouter::Routing routing;
  MessageRouter::WorkerManagerBase pool{MessageRouter::RouterTableEntry::kSenderPool};
};

}  // namespace DeliveryTests
