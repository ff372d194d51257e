#include "envelope/EnvelopeStore.h"

#include "config/Configuration.h"
#include "envelope/Settings.h"
#include "fixture.h"
#include "logging/Log.h"
#include "threads/Mutex.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class EnvelopeStoreTest : public TestSupport::EnvelopeTest {
 protected:
  static std::vector<std::string> Names(const std::vector<Envelope>& envelopes) {
    std::vector<std::string> names;
    for (const Envelope& envelope : envelopes) {
      names.push_back(std::filesystem::path(envelope.FileName()).filename().string());
    }
    return names;
  }
  std::string NewFile() {
    std::uint32_t index = 0;
    return store_.NewEnvelopeFile(index);
  }
};

TEST_F(EnvelopeStoreTest, AppendsTheSlashAndMakesTheFolder) {
  EXPECT_EQ(store_.Directory(), (configuration_.Folder() / "Envelopes/").string());
  EXPECT_TRUE(std::filesystem::is_directory(store_.Directory()));
}

TEST_F(EnvelopeStoreTest, AFolderThatExistsIsFine) {
  const EnvelopeStore again(store_.Directory());
  EXPECT_FALSE(log_.Contains("Failed"));
}

TEST_F(EnvelopeStoreTest, AFolderThatCannotBeMadeIsLoggedAndTheStoreGoesOn) {
  const EnvelopeStore store((configuration_.Folder() / "no/such").string());
  EXPECT_TRUE(log_.Has(kLogError, "Failed to create envelope directory\n"));
}

TEST_F(EnvelopeStoreTest, NamesAreEightLowerCaseHexadecimalDigits) {
  store_.NoteIndex(0xABC);
  EXPECT_EQ(NewFile(), "00000abd.msg");
}

TEST_F(EnvelopeStoreTest, IndicesIncrease) {
  std::uint32_t index = 7;
  EXPECT_EQ(store_.NewEnvelopeFile(index), "00000000.msg");
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(store_.NewEnvelopeFile(index), "00000001.msg");
  EXPECT_EQ(index, 1u);
}

TEST_F(EnvelopeStoreTest, FilesThatExistAreSkipped) {
  WriteFile("00000000.msg", "");
  WriteFile("00000001.msg", "");
  EXPECT_EQ(NewFile(), "00000002.msg");
}

TEST_F(EnvelopeStoreTest, TheNameOfABadFileCanBeGivenOutAgain) {
  WriteFile("00000000.msg.bad", "");
  EXPECT_EQ(NewFile(), "00000000.msg");
}

TEST_F(EnvelopeStoreTest, IndicesWrapAt32Bits) {
  store_.NoteIndex(0xFFFFFFFE);
  EXPECT_EQ(NewFile(), "ffffffff.msg");
  EXPECT_EQ(NewFile(), "00000000.msg");
}

TEST_F(EnvelopeStoreTest, ANotedIndexOnlyRaisesTheNext) {
  store_.NoteIndex(5);
  store_.NoteIndex(3);
  EXPECT_EQ(NewFile(), "00000006.msg");
  store_.NoteIndex(6);
  EXPECT_EQ(NewFile(), "00000007.msg");
}

TEST_F(EnvelopeStoreTest, WithItsLockFailingThereIsNoName) {
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(NewFile(), "");
}

TEST_F(EnvelopeStoreTest, AWriteUnderATakenNameFailsAndLeavesTheFile) {
  WriteFile("00000000.msg", "first");
  EXPECT_EQ(store_.Write("00000000.msg", "second"), EEXIST);
  EXPECT_EQ(ReadBack("00000000.msg"), "first");
  EXPECT_THAT(Leaves(), ElementsAre("00000000.msg"));
}

TEST_F(EnvelopeStoreTest, ListsMessageFilesAloneSortedByName) {
  for (const char* leaf : {"0000000b.msg", "00000002.msg", "0000000a.msg", "00000001.msg.bad",
                           "00000002.msg.xml", "00000003.MSG", ".msg", "other"}) {
    WriteFile(leaf, "");
  }
  std::vector<Envelope> envelopes;
  store_.LoadAll(envelopes);
  EXPECT_THAT(Names(envelopes),
              ElementsAre(".msg", "00000002.msg", "0000000a.msg", "0000000b.msg"));
}

TEST_F(EnvelopeStoreTest, AFolderThatIsMissingHasNoFiles) {
  std::filesystem::remove(store_.Directory());
  std::vector<Envelope> envelopes;
  store_.LoadAll(envelopes);
  EXPECT_THAT(envelopes, IsEmpty());
}

TEST_F(EnvelopeStoreTest, LoadedEnvelopesAreShrunkAndTheirIndicesNoted) {
  WriteFile("00000000.msg", "[PersistentIndex] 9\n[Type] T\n[Data] 00000000\n");
  std::vector<Envelope> envelopes;
  LoadPersistentEnvelopes(envelopes);
  ASSERT_EQ(envelopes.size(), 1u);
  EXPECT_EQ(envelopes[0].Type(), "T");
  EXPECT_EQ(envelopes[0].State(), Envelope::ShrinkState::Shrunk);
  EXPECT_EQ(NewFile(), "0000000a.msg");
}

TEST_F(EnvelopeStoreTest, FilesThatCannotBeReadAreSetAsideAndTheOthersLoaded) {
  WriteFile("00000000.msg", "[Type] A\n");
  WriteFile("00000001.msg", "[OriginatorCertificate] broken\n");
  WriteFile("00000002.msg", "[Timestamps] broken\n");
  WriteFile("00000003.msg", "[Type] B\n");
  std::vector<Envelope> envelopes;
  LoadPersistentEnvelopes(envelopes);
  EXPECT_THAT(Names(envelopes), ElementsAre("00000000.msg", "00000003.msg"));
  EXPECT_THAT(Leaves(),
              ElementsAre("00000000.msg", "00000001.msg.bad", "00000002.msg.bad", "00000003.msg"));
}

TEST_F(EnvelopeStoreTest, LoadingSortsFilesMadeInAnyOrderAndSetsTheBadOneAside) {
  WriteFile("0000000a.msg", "[PersistentIndex] 10\n[Type] last\n");
  WriteFile("00000005.msg", "[PersistentIndex] 5\n[OriginatorCertificate] broken\n");
  WriteFile("00000002.msg", "[PersistentIndex] 2\n[Type] first\n");
  std::vector<Envelope> envelopes;
  LoadPersistentEnvelopes(envelopes);
  ASSERT_THAT(Names(envelopes), ElementsAre("00000002.msg", "0000000a.msg"));
  EXPECT_EQ(envelopes[0].Type(), "first");
  EXPECT_EQ(envelopes[1].Type(), "last");
  EXPECT_THAT(Leaves(), ElementsAre("00000002.msg", "00000005.msg.bad", "0000000a.msg"));
}

TEST_F(EnvelopeStoreTest, WithShrinkingOffLoadedEnvelopesKeepTheirHeavyFields) {
  Envelope().CreateFromRouter(AWireEnvelope(), false);
  SetConfigInt("ShrinkEnvelopes", 0);
  Settings::Forget();
  std::vector<Envelope> envelopes;
  LoadPersistentEnvelopes(envelopes);
  ASSERT_EQ(envelopes.size(), 1u);
  EXPECT_EQ(envelopes[0].State(), Envelope::ShrinkState::ShrinkingOff);
  std::filesystem::remove(envelopes[0].FileName());
  CORBA::Any data;
  envelopes[0].GetData(data);
  EXPECT_EQ(AnyText(data), "payload");
  EXPECT_EQ(envelopes[0].GetOriginatorCert(), "agent's certificate");
  EXPECT_EQ(envelopes[0].State(), Envelope::ShrinkState::ShrinkingOff);
}

TEST_F(EnvelopeStoreTest, WhatCannotBeOpenedStaysAndTheOthersAreLoaded) {
  std::filesystem::create_directory(Path("00000000.msg"));
  WriteFile("00000001.msg", "[Type] B\n");
  std::vector<Envelope> envelopes;
  LoadPersistentEnvelopes(envelopes);
  EXPECT_THAT(Names(envelopes), ElementsAre("00000001.msg"));
  EXPECT_THAT(Leaves(), ElementsAre("00000000.msg", "00000001.msg"));
  EXPECT_TRUE(
      log_.Has(kLogError, "Envelope::FromPersistent could not access persisted envelope file " +
                              Path("00000000.msg") + "\n"));
}

TEST_F(EnvelopeStoreTest, ARestartFindsWhatWasCreated) {
  for (int i = 0; i < 20; ++i) Envelope().CreateFromRouter(AWireEnvelope(), false);
  EnvelopeStore restarted(store_.Directory());
  EnvelopeStore::Replace(&restarted);
  std::vector<Envelope> envelopes;
  LoadPersistentEnvelopes(envelopes);
  EXPECT_EQ(envelopes.size(), 20u);
  std::uint32_t index = 0;
  EXPECT_EQ(restarted.NewEnvelopeFile(index), "00000014.msg");
  EnvelopeStore::Replace(&store_);
}

}  // namespace
}  // namespace MessageRouter
