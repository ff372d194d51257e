#include "fixture.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <utility>

#include "config/Configuration.h"
#include "envelope/Settings.h"
#include "security/OwnIdentity.h"

namespace TestSupport {

using BrelixMessaging::EnvelopeConsumer;
using BrelixMessaging::NotifyConsumer;
using BrelixMessaging::RouterConsumer;
using BrelixMessaging::RouterSupplier;

RoutingTest::RoutingTest()
    : store_((configuration_.Folder() / "Envelopes").string()),
      table_(host_, TablePath()),
      routing_(host_, table_) {
  MessageRouter::SetConfigBool("SyncEnvelopes", false);
  MessageRouter::OwnIdentity::Set("router1", "router's certificate");
  MessageRouter::EnvelopeStore::Replace(&store_);
}

RoutingTest::~RoutingTest() {
  MessageRouter::Settings::Forget();
  MessageRouter::EnvelopeStore::Replace(nullptr);
}

RoutingTest::Entry& RoutingTest::AClient(const std::string& name) {
  table_.Register(name, false);
  return *table_.Find(name);
}

RoutingTest::Entry& RoutingTest::ARouter(const std::string& name) {
  table_.Register(name, true);
  return *table_.Find(name);
}

void RoutingTest::LogonPushed(Entry& client) {
  const EnvelopeConsumer::_var_type consumer = AReferenceTo<EnvelopeConsumer>("pushed");
  client.LogonClient(client.Name(), consumer, NotifyConsumer::_nil(), 0, true);
}

void RoutingTest::LogonPulling(Entry& client) {
  client.LogonClient(client.Name(), EnvelopeConsumer::_nil(), NotifyConsumer::_nil(), 0, true);
}

void RoutingTest::LogonNotified(Entry& client) {
  const NotifyConsumer::_var_type notify = AReferenceTo<NotifyConsumer>("notified");
  client.LogonClient(client.Name(), EnvelopeConsumer::_nil(), notify, 0, true);
}

void RoutingTest::LogonPolled(Entry& router) {
  const RouterSupplier::_var_type supplier = AReferenceTo<RouterSupplier>("polled");
  router.LogonRouter(router.Name(), RouterConsumer::_nil(), supplier, NotifyConsumer::_nil(), 0,
                     true);
}

MessageRouter::EnvelopeBuilder RoutingTest::AStoredEnvelope(const std::string& leaf) {
  const std::string path = store_.Directory() + leaf;
  std::ofstream(path) << "envelope";
  return AnEnvelope().WithFile(path);
}

bool RoutingTest::FileExists(const std::string& leaf) const {
  return std::filesystem::exists(store_.Directory() + leaf);
}

void RoutingTest::Enqueue(Entry& entry, const Envelope& envelope) {
  ASSERT_TRUE(entry.Enqueue(envelope, entry.Name()));
}

std::vector<std::uint32_t> RoutingTest::Drain(Entry& entry) {
  std::vector<std::uint32_t> ids;
  for (const Envelope& envelope : entry.TakeAll()) ids.push_back(envelope.MessageId());
  return ids;
}

std::string RoutingTest::TablePath() const {
  return (configuration_.Folder() / "table_router.txt").string();
}

std::string RoutingTest::TableText() const {
  std::ostringstream text;
  text << std::ifstream(TablePath(), std::ios::binary).rdbuf();
  return text.str();
}

void RoutingTest::WriteTableText(const std::string& text) const {
  std::ofstream(TablePath(), std::ios::binary) << text;
}

MessageRouter::Logical& RoutingTest::AMap() {
  auto map =
      std::make_unique<MessageRouter::Logical>((configuration_.Folder() / "LogicalTable").string());
  MessageRouter::Logical& made = *map;
  routing_.SetLogical(std::move(map));
  return made;
}

void RoutingTest::PassAMinute() {
  clock_.Advance(std::chrono::milliseconds(60001));
}

void RoutingTest::LetOwnMessagesLive(std::uint32_t seconds) {
  MessageRouter::SetConfigInt("MessageTimeoutSec", seconds);
  MessageRouter::Settings::Forget();
}

void RoutingTest::Route(const Envelope& envelope) {
  routing_.QueueForRouting(envelope);
  routing_.RouteNext(0, 0);
}

}  // namespace TestSupport
