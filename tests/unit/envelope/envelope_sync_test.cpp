#include <cerrno>
#include <stdexcept>

#include "config/Configuration.h"
#include "fixture.h"
#include "logging/Log.h"
#include "platform/linux/FileFaults.h"

namespace MessageRouter {
namespace {

using testing::IsEmpty;

class EnvelopeSync : public TestSupport::EnvelopeTest {
 protected:
  EnvelopeSync() : EnvelopeTest(Syncs::AsWithoutSetting) {
    Faults().fileSyncs = 0;
    Faults().folderSyncs = 0;
  }
  ~EnvelopeSync() override {
    Faults().fileSyncError = 0;
    Faults().folderSyncError = 0;
  }

  static Platform::FileFaults& Faults() { return Platform::Faults(); }

  // The two that take a peer's message.
  void ExpectBothCreatorsRefuse() {
    Envelope envelope;
    EXPECT_THROW(envelope.CreateFromRouter(AWireEnvelope(), false), std::runtime_error);
    EXPECT_TRUE(log_.Has(kLogWarning, "WritePersistent( Envelope, id=8A0B0C0D), bad stream\n"));
    EXPECT_EQ(envelope.FileName(), "");
    EXPECT_THROW(Envelope().CreateFromClient(AMessage(), "agent-1", ""), std::runtime_error);
    EXPECT_EQ(log_.Count(", bad stream\n"), 2u);
    EXPECT_THAT(Leaves(), IsEmpty());
  }
};

TEST_F(EnvelopeSync, IsOnWithoutASetting) {
  for (unsigned i = 1; i <= 3; ++i) {
    Envelope().CreateFromRouter(AWireEnvelope(), false);
    EXPECT_EQ(Faults().fileSyncs, i);
    EXPECT_EQ(Faults().folderSyncs, i);
  }
}

TEST_F(EnvelopeSync, IsOnForEachCreator) {
  Envelope().CreateFromClient(AMessage(), "agent-1", "");
  EXPECT_EQ(Faults().folderSyncs, 1u);
  Envelope().CreateLocal("agent-1", 0, MessageRouter::TimeToLive::Until(0), "EM-NoOp", TextAny(""),
                         "");
  EXPECT_EQ(Faults().folderSyncs, 2u);
  EXPECT_EQ(Faults().fileSyncs, 2u);
}

TEST_F(EnvelopeSync, IsOffWithTheSettingAtZero) {
  SetConfigInt("SyncEnvelopes", 0);
  Envelope().CreateFromRouter(AWireEnvelope(), false);
  EXPECT_EQ(Faults().fileSyncs, 0u);
  EXPECT_EQ(Faults().folderSyncs, 0u);
}

TEST_F(EnvelopeSync, OfTheFolderThatFailsRefusesAPeersMessageAndLeavesNoFile) {
  Faults().folderSyncError = EIO;
  ExpectBothCreatorsRefuse();
}

TEST_F(EnvelopeSync, OfTheFileThatFailsRefusesAPeersMessageAndLeavesNoFile) {
  Faults().fileSyncError = EIO;
  ExpectBothCreatorsRefuse();
}

}  // namespace
}  // namespace MessageRouter
