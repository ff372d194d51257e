#include "security/Roles.h"

#include <openssl/err.h>

#include "fixture.h"

namespace {

using namespace MessageRouter;
using namespace SecurityTest;

struct RoleRow {
  int index;
  bool (*ofCertificate)(const Celdane::Certificate&);
  bool (*ofText)(const std::string&);
};

const RoleRow kRows[] = {
    {0, &HasCertificationManagerRole, &HasCertificationManagerRole},
    {1, &HasRouterRole, &HasRouterRole},
    {2, &HasManagementRole, &HasManagementRole},
    {4, &HasFifthRole, &HasFifthRole},
};

TEST(Roles, EachTestSeesExactlyItsOwnRole) {
  for (const int issued : {0, 1, 2, 3, 4}) {
    const std::string pem = Ca().Issue("a", {issued}).certificatePem;
    for (const RoleRow& row : kRows) {
      EXPECT_EQ(row.ofCertificate(CertificateOf(pem)), row.index == issued) << issued;
      EXPECT_EQ(row.ofText(pem), row.index == issued) << issued;
    }
  }
}

TEST(Roles, ACertificateMayBearSeveral) {
  const std::string pem = Ca().Issue("a", {0, 2}).certificatePem;
  EXPECT_TRUE(HasCertificationManagerRole(pem));
  EXPECT_TRUE(HasManagementRole(pem));
  EXPECT_FALSE(HasRouterRole(pem));
}

TEST(Roles, ATextThatDoesNotReadHasNoRoleAndLeavesNoTraceInTheErrorQueue) {
  for (const char* const text :
       {"", "garbage", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"}) {
    EXPECT_FALSE(HasRouterRole(std::string(text))) << text;
    EXPECT_EQ(ERR_peek_error(), 0u) << text;
  }
}

TEST(CertificateText, IsPemAndReadsBack) {
  const std::string pem = Ca().Issue("a", {1}).certificatePem;
  EXPECT_EQ(CertificateAsText(Decode(pem).get()), pem);
}

TEST(CertificateText, OfNothingIsEmpty) {
  EXPECT_EQ(CertificateAsText(nullptr), "");
}

TEST(CommonName, IsTheSubjects) {
  EXPECT_EQ(CommonNameOf(Decode(Ca().Issue("agent-1", {}).certificatePem).get()), "agent-1");
}

// A certificate with a subject of that common name; nothing else in it is filled in.
OpenSsl::X509Ptr WithCommonName(const std::string& value) {
  OpenSsl::X509Ptr certificate(X509_new());
  Celdane::DistinguishedName name;
  name.SetName(value, "", "", "", "firm", "");
  X509_set_subject_name(certificate.get(), name.Get());
  return certificate;
}

std::string FailureOf(X509* certificate) {
  try {
    return "no failure: " + CommonNameOf(certificate);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

TEST(CommonName, MissingIsAFailure) {
  EXPECT_EQ(FailureOf(WithCommonName("").get()), "No common name in certificate");
}

TEST(CommonName, WithANulInItIsNotTakenForItsBeginning) {
  EXPECT_EQ(FailureOf(WithCommonName(std::string("root\0x", 6)).get()),
            "No common name in certificate");
}

TEST(CommonName, OfMoreThan511OctetsIsCut) {
  EXPECT_EQ(CommonNameOf(WithCommonName(std::string(600, 'n')).get()), std::string(511, 'n'));
}

}  // namespace
