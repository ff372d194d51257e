#include "fixture.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "config/Configuration.h"
#include "envelope/Settings.h"
#include "security/OwnIdentity.h"

namespace TestSupport {
namespace {

// No two tests in the same second: the ids of one second are few.
std::int64_t NextSecond() {
  static std::int64_t second = FakeClock::kDefaultWall;
  return second += 1000;
}

}  // namespace

int FaultyStore::Write(const std::string& name, const std::string& content) {
  if (failWith == 0 || failTimes == 0) return EnvelopeStore::Write(name, content);
  if (failTimes > 0) --failTimes;
  return failWith;
}

EnvelopeTest::EnvelopeTest(Syncs syncs)
    : clock_(NextSecond()), store_((configuration_.Folder() / "Envelopes").string()) {
  if (syncs == Syncs::Never) MessageRouter::SetConfigBool("SyncEnvelopes", false);
  MessageRouter::Settings::Forget();
  MessageRouter::OwnIdentity::Set("router1", "router's certificate");
  MessageRouter::EnvelopeStore::Replace(&store_);
}

EnvelopeTest::~EnvelopeTest() {
  MessageRouter::EnvelopeStore::Replace(nullptr);
  MessageRouter::Settings::Forget();
}

void EnvelopeTest::WriteFile(const std::string& leaf, const std::string& text) const {
  std::ofstream(Path(leaf), std::ios::binary) << text;
}

std::string EnvelopeTest::ReadBack(const std::string& leaf) const {
  std::ostringstream text;
  text << std::ifstream(Path(leaf), std::ios::binary).rdbuf();
  return text.str();
}

std::vector<std::string> EnvelopeTest::Leaves() const {
  std::vector<std::string> leaves;
  for (const auto& entry : std::filesystem::directory_iterator(store_.Directory())) {
    leaves.push_back(entry.path().filename().string());
  }
  std::sort(leaves.begin(), leaves.end());
  return leaves;
}

CORBA::Any EnvelopeTest::TextAny(const std::string& text) {
  CORBA::Any any;
  any <<= text.c_str();
  return any;
}

std::string EnvelopeTest::AnyText(const CORBA::Any& any) {
  const char* text = nullptr;
  if (!(any >>= text)) return "not a text";
  return text;
}

BrelixMessaging::Message EnvelopeTest::AMessage(const std::string& type) {
  BrelixMessaging::Message message;
  message.destination = "agent-2";
  message.prio = 5;
  message.ttl = 60;
  message.type = type.c_str();
  message.delivery_options = "";
  message.custom_data <<= "payload";
  return message;
}

BrelixMessaging::Envelope EnvelopeTest::AWireEnvelope(const std::string& type) {
  BrelixMessaging::Envelope wire;
  wire.originator_certificate = "agent's certificate";
  wire.originator = "router0.agent-1";
  wire.physical_destination.length(2);
  wire.physical_destination[0] = "router1";
  wire.physical_destination[1] = "agent-2";
  wire.timestamps.length(2);
  wire.timestamps[0].name = "agent-1";
  wire.timestamps[0].utc_time = 1352900000;
  wire.timestamps[1].name = "router0";
  wire.timestamps[1].utc_time = 3;
  wire.message_id = static_cast<CORBA::Long>(0x8A0B0C0Du);
  wire.client_info = AMessage(type);
  wire.client_info.destination = "router1.agent-2";
  return wire;
}

}  // namespace TestSupport
