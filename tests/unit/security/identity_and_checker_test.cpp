#include <gtest/gtest.h>

#include "security/CertificateRegenerationChecker.h"
#include "security/OwnIdentity.h"
#include "threads/Mutex.h"

namespace {

TEST(OwnIdentity, IsWhatWasSetLast) {
  MessageRouter::OwnIdentity::Set("router", "text");
  EXPECT_EQ(MessageRouter::OwnIdentity::CommonName(), "router");
  EXPECT_EQ(MessageRouter::OwnIdentity::CertificateText(), "text");
  MessageRouter::OwnIdentity::Set("", "");
  EXPECT_EQ(MessageRouter::OwnIdentity::CommonName(), "");
}

TEST(OwnIdentity, IsEmptyIfItsLockCannotBeTaken) {
  MessageRouter::OwnIdentity::Set("router", "text");
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(MessageRouter::OwnIdentity::CommonName(), "");
  EXPECT_EQ(MessageRouter::OwnIdentity::CommonName(), "router");
  MessageRouter::OwnIdentity::Set("", "");
}

TEST(RegenerationChecker, NeverAsksForANewCertificate) {
  const auto checker = Orvane::MakeCertificateRegenerationChecker();
  EXPECT_FALSE(checker->IsNewCertificateRequired(512, "md5WithRSAEncryption"));
  EXPECT_FALSE(checker->IsItTimeToRefreshCertificate());
}

TEST(RegenerationChecker, KeepsItsFlags) {
  const auto checker = Orvane::MakeCertificateRegenerationChecker();
  EXPECT_FALSE(checker->GetServerSupportsSHA());
  EXPECT_TRUE(checker->SetServerSupportsSHA(true));
  EXPECT_TRUE(checker->GetServerSupportsSHA());
  EXPECT_FALSE(checker->SetServerSupportsSHA(false));
  EXPECT_TRUE(checker->SetInitialized(true));
  checker->Persist();
}

}  // namespace
