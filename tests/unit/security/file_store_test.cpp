#include "security/FileStore.h"

#include <openssl/pem.h>

#include <filesystem>

#include "config/Configuration.h"
#include "fixture.h"
#include "logging/Log.h"
#include "platform/Files.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace {

using namespace SecurityTest;
using CeldaneStoreClient::FileStore;
namespace fs = std::filesystem;

std::string NoPassword() {
  return {};
}

struct Lost {};

// Loses the process's life ahead of a change on disk.
class MortalStore : public FileStore {
 public:
  MortalStore(const std::string& folder, int changesToLive)
      : FileStore(folder, &NoPassword), changesLeft_(changesToLive) {}

 private:
  void BeforeChange() override {
    if (changesLeft_-- == 0) throw Lost();
  }
  int changesLeft_;
};

TestSupport::Issued Fresh(const std::string& name) {
  TestSupport::IssueOptions options;
  options.freshKey = true;
  return Ca().Issue(name, {1}, options);
}

const TestSupport::Issued& OldPair() {
  static const TestSupport::Issued pair = Fresh("old");
  return pair;
}

const TestSupport::Issued& NewPair() {
  static const TestSupport::Issued pair = Fresh("new");
  return pair;
}

void Exchange(FileStore& store, const TestSupport::Issued& pair) {
  store.StorePrivateKey(KeyOf(pair.keyPem));
  store.StoreCertificate(CertificateOf(pair.certificatePem));
  store.Commit();
}

class FileStoreTest : public testing::Test {
 protected:
  std::string Folder() const { return (scratch_.Folder() / "store").string(); }
  std::string Path(const char* name) const { return Folder() + "/" + name; }
  FileStore Opened() const {
    FileStore store(Folder(), &NoPassword);
    store.Open();
    return store;
  }
  // The name in the certificate, if the key is its key.
  std::string PairInForce() const {
    FileStore store = Opened();
    const auto certificate = store.GetCertificate();
    const auto key = store.GetPrivateKey();
    if (!certificate || !key) return "incomplete";
    if (X509_check_private_key(certificate->GetX509().get(), key->GetKey()) != 1) return "torn";
    return MessageRouter::CommonNameOf(certificate->GetX509().get());
  }
  std::size_t FilesInFolder() const { return Platform::ListFolder(Folder())->size(); }

  TestSupport::ScratchConfiguration scratch_;
  TestSupport::LogCapture log_;
};

TEST_F(FileStoreTest, MakesItsFolderForTheOwnerAlone) {
  Opened();
  EXPECT_EQ(Platform::ModeOf(Folder()), 0700u);
}

TEST_F(FileStoreTest, MakesTheFoldersAboveToo) {
  FileStore store(Folder() + "/a/b/", &NoPassword);
  store.Open();
  EXPECT_TRUE(fs::is_directory(Folder() + "/a/b"));
}

TEST_F(FileStoreTest, DoesNotOpenWhereAFileIsInTheWay) {
  WriteText(Folder(), "x");
  EXPECT_THROW(Opened(), std::runtime_error);
}

TEST_F(FileStoreTest, GivesNullForWhatIsNotThere) {
  FileStore store = Opened();
  EXPECT_EQ(store.GetCACertificate(), nullptr);
  EXPECT_EQ(store.GetCertificate(), nullptr);
  EXPECT_EQ(store.GetPrivateKey(), nullptr);
}

TEST_F(FileStoreTest, ThrowsForWhatDoesNotRead) {
  WriteStore(Folder(), "garbage", {"garbage", "garbage"});
  FileStore store = Opened();
  EXPECT_THROW(store.GetCACertificate(), std::runtime_error);
  EXPECT_THROW(store.GetCertificate(), std::runtime_error);
  EXPECT_THROW(store.GetPrivateKey(), std::runtime_error);
}

TEST_F(FileStoreTest, WhatIsStoredIsInForceOnlyAfterTheCommit) {
  WriteStore(Folder(), "", OldPair());
  FileStore store = Opened();
  store.StorePrivateKey(KeyOf(NewPair().keyPem));
  store.StoreCertificate(CertificateOf(NewPair().certificatePem));
  EXPECT_EQ(MessageRouter::CommonNameOf(store.GetCertificate()->GetX509().get()), "old");
  store.Commit();
  EXPECT_EQ(MessageRouter::CommonNameOf(store.GetCertificate()->GetX509().get()), "new");
  EXPECT_EQ(PairInForce(), "new");
  EXPECT_EQ(FilesInFolder(), 2u);
}

TEST_F(FileStoreTest, ACommitOfNothingChangesNothing) {
  WriteStore(Folder(), "", OldPair());
  Opened().Commit();
  EXPECT_EQ(PairInForce(), "old");
}

TEST_F(FileStoreTest, ThePrivateKeyIsTheOwnersAlone) {
  FileStore store = Opened();
  Exchange(store, NewPair());
  EXPECT_EQ(Platform::ModeOf(Path("key.pem")), 0600u);
}

TEST_F(FileStoreTest, ACertificateForAnotherKeyIsRefusedAndTheOldPairStays) {
  WriteStore(Folder(), "", OldPair());
  FileStore store = Opened();
  store.StorePrivateKey(KeyOf(NewPair().keyPem));
  store.StoreCertificate(CertificateOf(OldPair().certificatePem));
  EXPECT_THROW(store.Commit(), std::runtime_error);
  EXPECT_EQ(PairInForce(), "old");
  EXPECT_EQ(FilesInFolder(), 2u);
}

TEST_F(FileStoreTest, WhateverPointACrashHitsThePairIsTheOldOrTheNewOne) {
  bool finished = false;
  bool sawOld = false;
  bool sawNew = false;
  for (int changes = 0; !finished; ++changes) {
    fs::remove_all(Folder());
    WriteStore(Folder(), Ca().CaPem(), OldPair());
    try {
      MortalStore store(Folder(), changes);
      store.Open();
      Exchange(store, NewPair());
      finished = true;
    } catch (const Lost&) {
    }
    const std::string pair = PairInForce();
    EXPECT_TRUE(pair == "old" || pair == "new") << pair << " after " << changes << " changes";
    EXPECT_FALSE(sawNew && pair == "old") << changes;
    EXPECT_EQ(FilesInFolder(), 3u) << changes;
    sawOld = sawOld || pair == "old";
    sawNew = sawNew || pair == "new";
  }
  EXPECT_TRUE(sawOld);
  EXPECT_TRUE(sawNew);
}

TEST_F(FileStoreTest, ACrashDuringTheRecoveryFromACrashDoesNotTearThePairEither) {
  for (int changes = 0; changes < 8; ++changes) {
    for (int recovered = 0; recovered < 8; ++recovered) {
      fs::remove_all(Folder());
      WriteStore(Folder(), "", OldPair());
      try {
        MortalStore store(Folder(), changes);
        store.Open();
        Exchange(store, NewPair());
      } catch (const Lost&) {
      }
      try {
        MortalStore(Folder(), recovered).Open();
      } catch (const Lost&) {
      }
      const std::string pair = PairInForce();
      EXPECT_TRUE(pair == "old" || pair == "new") << pair << " " << changes << " " << recovered;
      EXPECT_EQ(FilesInFolder(), 2u) << changes << " " << recovered;
    }
  }
}

TEST_F(FileStoreTest, TheFirstPairOfAStoreAppearsWholeOrNotAtAll) {
  for (int changes = 0; changes < 8; ++changes) {
    fs::remove_all(Folder());
    try {
      MortalStore store(Folder(), changes);
      store.Open();
      Exchange(store, NewPair());
    } catch (const Lost&) {
    }
    FileStore store = Opened();
    EXPECT_EQ(store.GetCertificate() == nullptr, store.GetPrivateKey() == nullptr) << changes;
  }
}

TEST_F(FileStoreTest, AStoreThatIsUsedOnAfterAFailedCommitFinishesThatCommitFirst) {
  WriteStore(Folder(), "", OldPair());
  // Between the mark and the first rename.
  MortalStore store(Folder(), 3);
  store.Open();
  EXPECT_THROW(Exchange(store, NewPair()), Lost);
  ASSERT_TRUE(fs::exists(Path("commit")));
  store.StorePrivateKey(KeyOf(OldPair().keyPem));
  EXPECT_EQ(PairInForce(), "new");
}

TEST_F(FileStoreTest, AKeyThatOthersCanReadDrawsAWarning) {
  WriteStore(Folder(), "", OldPair());
  const std::string warning = "The private key " + Path("key.pem") + " can be read by others\n";
  Opened();
  EXPECT_FALSE(log_.Contains("can be read by others"));
  for (const unsigned mode : {0640u, 0604u}) {
    log_.Clear();
    Platform::SetMode(Path("key.pem"), mode);
    Opened();
    EXPECT_TRUE(log_.Has(MessageRouter::kLogWarning, warning)) << mode;
  }
}

TEST_F(FileStoreTest, WithAPassPhraseTheKeyIsEncryptedAndReadsBack) {
  MessageRouter::SetConfigString("CertPassword", "secret");
  FileStore store(Folder(), [] { return std::string("secret"); });
  store.Open();
  Exchange(store, NewPair());
  EXPECT_NE(ReadText(Path("key.pem")).find("ENCRYPTED PRIVATE KEY"), std::string::npos);
  EXPECT_EQ(PairInForce(), "new");
}

TEST_F(FileStoreTest, AnEncryptedKeyDoesNotReadWithAnotherPassPhraseOrNone) {
  FileStore store(Folder(), [] { return std::string("secret"); });
  store.Open();
  Exchange(store, NewPair());
  EXPECT_THROW(store.GetPrivateKey(), std::runtime_error);
  MessageRouter::SetConfigString("CertPassword", "other");
  EXPECT_THROW(store.GetPrivateKey(), std::runtime_error);
}

}  // namespace
