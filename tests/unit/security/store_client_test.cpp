#include <gtest/gtest.h>

#include <filesystem>

#include "fixture.h"
#include "platform/Clock.h"
#include "security/CeldaneStoreClient.h"
#include "support/FakeClock.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace {

using namespace SecurityTest;
using CeldaneStoreClient::CCeldaneStoreClient;

class StoreClient : public testing::Test {
 protected:
  std::unique_ptr<CeldaneStoreClient::IStore> StoreOf(const std::string& caPem) {
    WriteStore(scratch_.Folder() / "own", caPem, {});
    return CCeldaneStoreClient::GetStore("section", scratch_.Folder() / "own");
  }
  bool Verifies(CeldaneStoreClient::IStore& store, const std::string& pem) {
    try {
      CCeldaneStoreClient::GetCryptoIf()->VerifyCertificate(store, CertificateOf(pem));
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  TestSupport::ScratchConfiguration scratch_;
  TestSupport::LogCapture log_;
};

TEST_F(StoreClient, WithoutAPrivateLocationTheStoreStandsBelowTheRoutersFolder) {
  ASSERT_NE(CCeldaneStoreClient::GetStore("section", ""), nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(scratch_.RouterFolder() / "Private"));
}

TEST_F(StoreClient, WithAPrivateLocationTheStoreStandsThere) {
  const std::filesystem::path folder = scratch_.Folder() / "elsewhere";
  ASSERT_NE(CCeldaneStoreClient::GetStore("section", folder), nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(folder));
  EXPECT_FALSE(std::filesystem::exists(scratch_.RouterFolder() / "Private"));
}

TEST_F(StoreClient, IsNullIfTheFolderCannotBeMade) {
  WriteText(scratch_.Folder() / "file", "x");
  EXPECT_EQ(CCeldaneStoreClient::GetStore("section", scratch_.Folder() / "file" / "store"),
            nullptr);
}

TEST_F(StoreClient, ACertificateOfTheStoresAuthorityVerifies) {
  const auto store = StoreOf(Ca().CaPem());
  EXPECT_TRUE(Verifies(*store, Ca().Issue("a", {1}).certificatePem));
}

TEST_F(StoreClient, AWeakCertificateVerifies) {
  const auto store = StoreOf(Ca().CaPem());
  TestSupport::IssueOptions weak;
  weak.bits = 1024;
  weak.digest = "SHA1";
  EXPECT_TRUE(Verifies(*store, Ca().Issue("a", {1}, weak).certificatePem));
}

TEST_F(StoreClient, ACertificateOfAnotherAuthorityDoesNotVerify) {
  TestSupport::TestCa other("Other CA");
  const auto store = StoreOf(Ca().CaPem());
  EXPECT_FALSE(Verifies(*store, other.Issue("a", {1}).certificatePem));
}

TEST_F(StoreClient, ACertificateVerifiesUntilItExpires) {
  TestSupport::FakeClock clock(Platform::Clock::Instance().WallSeconds());
  const auto store = StoreOf(Ca().CaPem());
  const std::string pem = Ca().Issue("a", {1}).certificatePem;
  EXPECT_TRUE(Verifies(*store, pem));
  clock.AdvanceWall(31L * 24 * 60 * 60);
  EXPECT_FALSE(Verifies(*store, pem));
}

TEST_F(StoreClient, WithoutAnAuthorityNothingVerifies) {
  const auto store = StoreOf("");
  EXPECT_FALSE(Verifies(*store, Ca().Issue("a", {1}).certificatePem));
}

}  // namespace
