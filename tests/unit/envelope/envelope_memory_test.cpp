#include <malloc.h>

#include "fixture.h"
#include "logging/Log.h"
#include "support/MemoryLimit.h"

namespace MessageRouter {
namespace {

constexpr std::size_t kCount = 2000;
constexpr std::size_t kLimit = 480;  // bytes

// Bytes in use on the heap, the blocks' own bookkeeping included.
std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

class EnvelopeMemory : public TestSupport::EnvelopeTest {
 protected:
  void SetUp() override {
    if (!TestSupport::MemoryLimit::Works()) GTEST_SKIP() << "the sanitizer has a heap of its own";
    SetLogMask(kLogError);  // no captured lines among what is counted
  }
};

BrelixMessaging::Envelope TypicalEnvelope() {
  BrelixMessaging::Envelope wire;
  wire.originator_certificate = std::string(1200, 'c').c_str();
  wire.originator = "router1.agent-1";
  wire.physical_destination.length(1);
  wire.physical_destination[0] = "agent-2";
  wire.timestamps.length(1);
  wire.timestamps[0].name = "agent-1";
  wire.client_info.destination = "agent-2";
  wire.client_info.type = "Status.Report";
  wire.client_info.custom_data <<= std::string(1024, 'x').c_str();
  return wire;
}

TEST_F(EnvelopeMemory, AWaitingEnvelopeCostsAtMost480BytesWithItsHeapBlocks) {
  const BrelixMessaging::Envelope wire = TypicalEnvelope();
  std::vector<Envelope> envelopes;
  envelopes.reserve(kCount + 1);
  envelopes.emplace_back().CreateFromRouter(wire, false);
  const std::size_t before = HeapInUse();
  for (std::size_t i = 0; i < kCount; ++i) envelopes.emplace_back().CreateFromRouter(wire, false);
  const std::size_t each = sizeof(Envelope) + (HeapInUse() - before) / kCount;
  RecordProperty("bytes", static_cast<int>(each));
  EXPECT_LE(each, kLimit);
}

TEST_F(EnvelopeMemory, AnEnvelopeThatWasLoadedCostsNoMore) {
  const BrelixMessaging::Envelope wire = TypicalEnvelope();
  for (std::size_t i = 0; i < kCount; ++i) Envelope().CreateFromRouter(wire, false);
  std::vector<Envelope> envelopes;
  envelopes.reserve(kCount);
  const std::size_t before = HeapInUse();
  LoadPersistentEnvelopes(envelopes);
  ASSERT_EQ(envelopes.size(), kCount);
  const std::size_t each = sizeof(Envelope) + (HeapInUse() - before) / kCount;
  RecordProperty("bytes", static_cast<int>(each));
  EXPECT_LE(each, kLimit);
}

}  // namespace
}  // namespace MessageRouter
