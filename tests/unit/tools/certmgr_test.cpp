#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>

#include "security/OpenSsl.h"
#include "support/ScratchFolder.h"

namespace {

namespace fs = std::filesystem;

using OpenSsl::BioPtr;
using OpenSsl::KeyPtr;
using OpenSsl::X509Ptr;

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs the built program in a folder of the test's own.
class Certmgr : public testing::Test, protected TestSupport::ScratchFolder {
 protected:
  Result Run(const std::string& arguments) const {
    const std::string command = "cd '" + folder_.string() + "' && '" BRELIX_CERTMGR "' " +
                                arguments + " >out.txt 2>err.txt";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Text("out.txt"), Text("err.txt")};
  }
  // An authority with a small key, to be quick.
  void MakeAuthority(const std::string& name = "ca") const {
    const Result result = Run("init --dir " + name + " --bits 2048");
    ASSERT_EQ(result.status, 0) << result.err;
  }
  X509Ptr Certificate(const std::string& name) const {
    const BioPtr file(BIO_new_file((folder_ / name).c_str(), "r"));
    return X509Ptr(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
  }
  KeyPtr Key(const std::string& name) const {
    const BioPtr file(BIO_new_file((folder_ / name).c_str(), "r"));
    return KeyPtr(PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr));
  }
  fs::perms ModeOf(const std::string& name) const {
    return fs::status(folder_ / name).permissions();
  }

  static constexpr fs::perms kOwnerOnly = fs::perms::owner_read | fs::perms::owner_write;
};

std::string CommonName(X509* certificate) {
  char text[128] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, text, sizeof text);
  return text;
}

X509_EXTENSION* RoleOf(X509* certificate, int index) {
  const std::string oid = "2.39." + std::to_string(index);
  ASN1_OBJECT* const object = OBJ_txt2obj(oid.c_str(), 1);
  const int place = X509_get_ext_by_OBJ(certificate, object, -1);
  ASN1_OBJECT_free(object);
  return place < 0 ? nullptr : X509_get_ext(certificate, place);
}

int DaysFromNow(const ASN1_TIME* time) {
  int days = 0;
  int seconds = 0;
  ASN1_TIME_diff(&days, &seconds, nullptr, time);
  return days;
}

TEST_F(Certmgr, InitMakesAnAuthorityWithItsKeyForTheOwnerAlone) {
  MakeAuthority();
  const X509Ptr ca = Certificate("ca/ca.pem");
  ASSERT_NE(ca, nullptr);
  EXPECT_EQ(X509_check_ca(ca.get()), 1);
  EXPECT_NE(X509_get_key_usage(ca.get()) & KU_KEY_CERT_SIGN, 0u);
  EXPECT_EQ(X509_get_signature_nid(ca.get()), NID_sha256WithRSAEncryption);
  EXPECT_EQ(X509_check_private_key(ca.get(), Key("ca/ca.key").get()), 1);
  EXPECT_EQ(ModeOf("ca/ca.key"), kOwnerOnly);
  EXPECT_EQ(ModeOf("ca"), fs::perms::owner_all);
}

TEST_F(Certmgr, InitTakesNameDaysAndBits) {
  ASSERT_EQ(Run("init --dir deep/ca --name 'Our CA' --days 20 --bits 1024").status, 0);
  const X509Ptr ca = Certificate("deep/ca/ca.pem");
  EXPECT_EQ(CommonName(ca.get()), "Our CA");
  EXPECT_NEAR(DaysFromNow(X509_get0_notAfter(ca.get())), 20, 1);
  EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(ca.get())), 1024);
}

TEST_F(Certmgr, ABackslashSeparatesFolders) {
  ASSERT_EQ(Run("init --dir 'deep\\ca' --bits 1024").status, 0);
  ASSERT_EQ(Run("issue --ca 'deep\\ca' --name r1 --role router --out 'new\\r1'").status, 0);
  EXPECT_NE(Certificate("deep/ca/ca.pem"), nullptr);
  EXPECT_NE(Certificate("new/r1/certificate.pem"), nullptr);
}

TEST_F(Certmgr, InitNeverReplacesAnAuthority) {
  for (const char* const remaining : {"ca/ca.pem", "ca/ca.key"}) {
    fs::remove_all(folder_ / "ca");
    fs::create_directory(folder_ / "ca");
    std::ofstream(folder_ / remaining) << "precious";
    const Result result = Run("init --dir ca");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "brelix-certmgr: " + std::string(remaining) + " exists already\n");
    EXPECT_EQ(Text(remaining), "precious");
  }
}

TEST_F(Certmgr, IssueWritesAnIdentityInTheFormOfAStore) {
  MakeAuthority();
  const Result result = Run("issue --ca ca --name agent-1 --out a/b/agent");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out + result.err, "");
  const X509Ptr ca = Certificate("ca/ca.pem");
  const X509Ptr certificate = Certificate("a/b/agent/certificate.pem");
  EXPECT_EQ(Text("a/b/agent/ca.pem"), Text("ca/ca.pem"));
  EXPECT_EQ(X509_verify(certificate.get(), X509_get0_pubkey(ca.get())), 1);
  EXPECT_EQ(X509_check_issued(ca.get(), certificate.get()), X509_V_OK);
  EXPECT_EQ(X509_check_private_key(certificate.get(), Key("a/b/agent/key.pem").get()), 1);
  EXPECT_EQ(CommonName(certificate.get()), "agent-1");
  EXPECT_EQ(X509_get_signature_nid(certificate.get()), NID_sha256WithRSAEncryption);
  EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(certificate.get())), 2048);
  EXPECT_EQ(X509_check_ca(certificate.get()), 0);
  EXPECT_EQ(ModeOf("a/b/agent"), fs::perms::owner_all);
  EXPECT_EQ(ModeOf("a/b/agent/key.pem"), kOwnerOnly);
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder_ / "a/b/agent")) ++files;
  EXPECT_EQ(files, 3u);
}

TEST_F(Certmgr, RolesAreExtensionsThatAreNotCriticalAndHoldNull) {
  MakeAuthority();
  ASSERT_EQ(Run("issue --ca ca --name r --role router --role certification-manager --out r").status,
            0);
  const X509Ptr certificate = Certificate("r/certificate.pem");
  for (const int index : {0, 1}) {
    X509_EXTENSION* const role = RoleOf(certificate.get(), index);
    ASSERT_NE(role, nullptr) << index;
    EXPECT_EQ(X509_EXTENSION_get_critical(role), 0);
    const ASN1_OCTET_STRING* const value = X509_EXTENSION_get_data(role);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                          static_cast<std::size_t>(ASN1_STRING_length(value))),
              std::string("\x05\x00", 2));
  }
  EXPECT_EQ(RoleOf(certificate.get(), 2), nullptr);
}

TEST_F(Certmgr, EachRoleNameIsItsRole) {
  MakeAuthority();
  const std::map<std::string, int> roles = {
      {"certification-manager", 0}, {"router", 1}, {"management", 2}, {"none", -1}};
  for (const auto& [name, index] : roles) {
    ASSERT_EQ(Run("issue --ca ca --name a --bits 1024 --out a --role " + name).status, 0);
    const X509Ptr certificate = Certificate("a/certificate.pem");
    for (const int other : {0, 1, 2, 3, 4}) {
      EXPECT_EQ(RoleOf(certificate.get(), other) != nullptr, other == index) << name;
    }
  }
}

TEST_F(Certmgr, ValidityCanBeGivenInDaysOrAsTimes) {
  MakeAuthority();
  ASSERT_EQ(Run("issue --ca ca --name a --bits 1024 --days 7 --out a").status, 0);
  X509Ptr certificate = Certificate("a/certificate.pem");
  EXPECT_NEAR(DaysFromNow(X509_get0_notAfter(certificate.get())), 7, 1);
  EXPECT_LT(X509_cmp_current_time(X509_get0_notBefore(certificate.get())), 0);

  ASSERT_EQ(Run("issue --ca ca --name a --bits 1024 --not-before 2019-12-31T23:59:58Z"
                " --not-after 2020-01-01T00:00:00Z --out a")
                .status,
            0);
  certificate = Certificate("a/certificate.pem");
  EXPECT_EQ(ASN1_TIME_cmp_time_t(X509_get0_notBefore(certificate.get()), 1577836798), 0);
  EXPECT_EQ(ASN1_TIME_cmp_time_t(X509_get0_notAfter(certificate.get()), 1577836800), 0);

  ASSERT_EQ(Run("issue --ca ca --name a --bits 1024 --not-before 2030-01-01T00:00:00Z --days 2"
                " --out a")
                .status,
            0);
  certificate = Certificate("a/certificate.pem");
  EXPECT_EQ(ASN1_TIME_cmp_time_t(X509_get0_notAfter(certificate.get()), 1893456000 + 2 * 86400), 0);
}

TEST_F(Certmgr, AnExpiredCertificateHasBegunToo) {
  MakeAuthority();
  ASSERT_EQ(
      Run("issue --ca ca --name a --bits 1024 --not-after 2020-01-01T00:00:00Z --out a").status, 0);
  const X509Ptr certificate = Certificate("a/certificate.pem");
  EXPECT_EQ(ASN1_TIME_compare(X509_get0_notBefore(certificate.get()),
                              X509_get0_notAfter(certificate.get())),
            -1);
}

TEST_F(Certmgr, SerialNumbersDiffer) {
  MakeAuthority();
  ASSERT_EQ(Run("issue --ca ca --name a --bits 1024 --out a").status, 0);
  ASSERT_EQ(Run("issue --ca ca --name a --bits 1024 --out b").status, 0);
  const X509Ptr a = Certificate("a/certificate.pem");
  const X509Ptr b = Certificate("b/certificate.pem");
  EXPECT_NE(ASN1_INTEGER_cmp(X509_get0_serialNumber(a.get()), X509_get0_serialNumber(b.get())), 0);
  BIGNUM* const number = ASN1_INTEGER_to_BN(X509_get0_serialNumber(a.get()), nullptr);
  EXPECT_GT(BN_num_bits(number), 64);
  BN_free(number);
}

TEST_F(Certmgr, IssuingAgainReplacesThePair) {
  MakeAuthority();
  ASSERT_EQ(Run("issue --ca ca --name a --bits 1024 --out a").status, 0);
  ASSERT_EQ(Run("issue --ca ca --name b --bits 1024 --out a").status, 0);
  const X509Ptr certificate = Certificate("a/certificate.pem");
  EXPECT_EQ(CommonName(certificate.get()), "b");
  EXPECT_EQ(X509_check_private_key(certificate.get(), Key("a/key.pem").get()), 1);
}

TEST_F(Certmgr, FailuresAreOneLineAndStatus1) {
  MakeAuthority();
  std::ofstream(folder_ / "file") << "x";
  fs::create_directory(folder_ / "odd");
  fs::copy(folder_ / "ca/ca.pem", folder_ / "odd/ca.pem");
  std::ofstream(folder_ / "odd/ca.key") << "garbage";
  for (const char* const arguments :
       {"issue --ca nowhere --name a --out a", "issue --ca odd --name a --out a",
        "issue --ca ca --name a --bits 1024 --out file/a", "init --dir file/ca --bits 1024"}) {
    const Result result = Run(arguments);
    EXPECT_EQ(result.status, 1) << arguments;
    EXPECT_EQ(result.err.rfind("brelix-certmgr: ", 0), 0u) << arguments;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << arguments;
    EXPECT_EQ(result.out, "") << arguments;
  }
}

TEST_F(Certmgr, BadUsageIsOneLineAndStatus2) {
  for (const char* const arguments : {
           "",
           "unknown",
           "init",
           "issue --name a --out a",
           "issue --ca ca --out a",
           "issue --ca ca --name a",
           "issue --ca ca --name '' --out a",
           "issue --ca ca --name a --out a --role king",
           "issue --ca ca --name a --out a --role none --role router",
           "issue --ca ca --name a --out a --bits 512",
           "issue --ca ca --name a --out a --days 0",
           "issue --ca ca --name a --out a --days many",
           "issue --ca ca --name a --out a --days 3 --not-after 2030-01-01T00:00:00Z",
           "issue --ca ca --name a --out a --not-after 2030-02-30T00:00:00Z",
           "issue --ca ca --name a --out a --not-after 2030-01-01T24:00:00Z",
           "issue --ca ca --name a --out a --not-after 2030-01-01",
           "issue --ca ca --name a --out a --not-after 1949-01-01T00:00:00Z",
           "issue --ca ca --name a --out a --not-before 2031-01-01T00:00:00Z"
           " --not-after 2030-01-01T00:00:00Z",
           "init --dir ca --role router",
           "init --dir ca surplus",
       }) {
    const Result result = Run(arguments);
    EXPECT_EQ(result.status, 2) << arguments;
    EXPECT_EQ(result.err.rfind("brelix-certmgr: ", 0), 0u) << arguments;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << arguments << result.err;
    EXPECT_EQ(result.out, "") << arguments;
  }
  EXPECT_FALSE(fs::exists(folder_ / "a"));
}

TEST_F(Certmgr, HelpAndVersionGoToStandardOutput) {
  for (const char* const arguments : {"--help", "init --help", "issue --help", "--version"}) {
    const Result result = Run(arguments);
    EXPECT_EQ(result.status, 0) << arguments;
    EXPECT_NE(result.out.find("brelix-certmgr"), std::string::npos) << arguments;
    EXPECT_EQ(result.err, "") << arguments;
  }
}

}  // namespace
