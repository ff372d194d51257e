#include "security/Celdane.h"

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <cstring>

#include "fixture.h"

namespace {

using namespace SecurityTest;

const Celdane::RSAKey& GeneratedKey() {
  static const std::unique_ptr<Celdane::RSAKey> key(
      Celdane::RSAKeyGenerator(2048, nullptr, nullptr, 0, 65537).GenerateKey());
  return *key;
}

Celdane::DistinguishedName NameOf(const std::string& commonName) {
  Celdane::DistinguishedName name;
  name.SetName(commonName, "", "", "", "", "");
  return name;
}

TEST(MemBuff, IsNullWhileEmpty) {
  Celdane::MemBuff buffer;
  EXPECT_EQ(buffer.BuffPtr(), nullptr);
  EXPECT_EQ(buffer.BuffSize(), 0u);
}

TEST(MemBuff, HoldsACopy) {
  Celdane::MemBuff buffer;
  std::string text = "abc";
  buffer.MemCpy(text.data(), text.size());
  text = "xyz";
  ASSERT_EQ(buffer.BuffSize(), 3u);
  EXPECT_EQ(std::memcmp(buffer.BuffPtr(), "abc", 3), 0);
}

TEST(MemBuff, OfNothingIsEmptyAgain) {
  Celdane::MemBuff buffer;
  buffer.MemCpy("abc", 3);
  buffer.MemCpy(nullptr, 0);
  EXPECT_EQ(buffer.BuffPtr(), nullptr);
}

TEST(RSAKeyGenerator, MakesAKeyOfTheSizeAndExponentAskedFor) {
  EXPECT_EQ(GeneratedKey().GetRSAKeyBitSize(), 2048);
  BIGNUM* exponent = nullptr;
  ASSERT_EQ(EVP_PKEY_get_bn_param(GeneratedKey().GetKey(), "e", &exponent), 1);
  EXPECT_EQ(BN_get_word(exponent), 65537u);
  BN_free(exponent);
}

TEST(RSAKeyGenerator, RefusesASizeThatIsTooSmallAndLeavesNoTraceInTheErrorQueue) {
  EXPECT_THROW(Celdane::RSAKeyGenerator(64, nullptr, nullptr, 0, 65537).GenerateKey(),
               std::runtime_error);
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(RSAKey, RefusesAKeyOfAnotherKind) {
  EXPECT_THROW(Celdane::RSAKey(EVP_EC_gen("P-256")), std::runtime_error);
  EXPECT_THROW(Celdane::RSAKey(nullptr), std::runtime_error);
}

TEST(DistinguishedName, LeavesEmptyPartsOut) {
  const Celdane::DistinguishedName name = NameOf("r$host:T");
  ASSERT_EQ(X509_NAME_entry_count(name.Get()), 1);
  char text[64] = "";
  X509_NAME_get_text_by_NID(name.Get(), NID_commonName, text, sizeof text);
  EXPECT_STREQ(text, "r$host:T");
}

TEST(DistinguishedName, HoldsAllSixParts) {
  Celdane::DistinguishedName name;
  name.SetName("cn", "NO", "state", "place", "firm", "unit");
  EXPECT_EQ(X509_NAME_entry_count(name.Get()), 6);
}

TEST(DistinguishedName, TakesACommonNameOfMoreThan64Characters) {
  const Celdane::DistinguishedName name = NameOf(std::string(90, 'n'));
  char text[128] = "";
  EXPECT_EQ(X509_NAME_get_text_by_NID(name.Get(), NID_commonName, text, sizeof text), 90);
}

class CertRequestDigest : public testing::TestWithParam<std::pair<const EVP_MD* (*)(), int>> {};

TEST_P(CertRequestDigest, SignsWithTheDigestAskedFor) {
  Celdane::MemBuff der;
  const Celdane::CertRequest request(GeneratedKey(), NameOf("r"), GetParam().first());
  ASSERT_EQ(request.GetDERCertRequest(der), 0);
  const unsigned char* next = der.BuffPtr();
  const std::unique_ptr<X509_REQ, OpenSsl::Deleter<&X509_REQ_free>> decoded(
      d2i_X509_REQ(nullptr, &next, static_cast<long>(der.BuffSize())));
  ASSERT_NE(decoded, nullptr);
  EXPECT_EQ(X509_REQ_get_signature_nid(decoded.get()), GetParam().second);
  EXPECT_EQ(X509_REQ_verify(decoded.get(), GeneratedKey().GetKey()), 1);
}

INSTANTIATE_TEST_SUITE_P(Digests, CertRequestDigest,
                         testing::Values(std::pair(&EVP_sha256, NID_sha256WithRSAEncryption),
                                         std::pair(&EVP_sha1, NID_sha1WithRSAEncryption)));

TEST(CertRequest, NeedsAName) {
  const Celdane::DistinguishedName unset;
  EXPECT_THROW(Celdane::CertRequest(GeneratedKey(), unset, EVP_sha256()), std::runtime_error);
}

TEST(Certificate, IsReadFromDer) {
  const OpenSsl::X509Ptr original = Decode(Ca().Issue("a", {}).certificatePem);
  unsigned char* der = nullptr;
  const int length = i2d_X509(original.get(), &der);
  Celdane::MemBuff buffer;
  buffer.MemCpy(der, static_cast<std::size_t>(length));
  OPENSSL_free(der);
  const Celdane::Certificate certificate(buffer);
  EXPECT_EQ(X509_cmp(certificate.GetX509().get(), original.get()), 0);
}

TEST(Certificate, RefusesWhatDoesNotDecode) {
  Celdane::MemBuff buffer;
  EXPECT_THROW(Celdane::Certificate{buffer}, std::runtime_error);
  buffer.MemCpy("garbage", 7);
  EXPECT_THROW(Celdane::Certificate{buffer}, std::runtime_error);
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(Certificate, NamesItsSignatureAlgorithm) {
  EXPECT_EQ(CertificateOf(Ca().Issue("a", {}).certificatePem).GetHashingAlgorithm(),
            "sha256WithRSAEncryption");
  TestSupport::IssueOptions sha1;
  sha1.digest = "SHA1";
  EXPECT_EQ(CertificateOf(Ca().Issue("a", {}, sha1).certificatePem).GetHashingAlgorithm(),
            "sha1WithRSAEncryption");
}

}  // namespace
