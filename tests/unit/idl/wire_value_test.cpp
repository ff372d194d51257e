#include <BrelixMessaging.h>
#include <CertificationMessages.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "broker/Encoding.h"

// Values at the edges of what is legal, there and back over the wire format.
namespace {

class WireValues : public testing::Test {
 protected:
  static void SetUpTestSuite() { Encoding::InitializeCodec(); }

  template <class T>
  static CORBA::Any ThereAndBack(const T& value) {
    CORBA::Any any;
    any <<= value;
    CORBA::Any received;
    Encoding::DecodeAny(Encoding::EncodeAny(any), received);
    return received;
  }

  // The value as its receiver has it.
  template <class T>
  static T Received(const T& value) {
    const CORBA::Any any = ThereAndBack(value);
    const T* received = nullptr;
    if (!(any >>= received)) throw std::runtime_error("a value of another type came back");
    return *received;
  }

  static CertificationMessages::Message AMessage() {
    CertificationMessages::Message message;
    message.majorVersion = 0;
    message.minorVersion = 0;
    return message;
  }
};

TEST_F(WireValues, EmptyTimestampSequenceAndEmptyPhysicalAddressAreLegal) {
  BrelixMessaging::Envelope envelope;
  const BrelixMessaging::Envelope received = Received(envelope);
  EXPECT_EQ(received.timestamps.length(), 0u);
  EXPECT_EQ(received.physical_destination.length(), 0u);
}

TEST_F(WireValues, MessageWithoutCorrelationIsLegal) {
  CertificationMessages::Message message = AMessage();
  message.correlationIdentity._default();
  const CertificationMessages::Message received = Received(message);
  EXPECT_FALSE(received.correlationIdentity._d());
}

TEST_F(WireValues, CorrelationOfThirtyTwoBitsComesBack) {
  CertificationMessages::Message message = AMessage();
  message.correlationIdentity.correlation(0xfedcba98);
  const CertificationMessages::Message received = Received(message);
  ASSERT_TRUE(received.correlationIdentity._d());
  EXPECT_EQ(received.correlationIdentity.correlation(), 0xfedcba98);
}

TEST_F(WireValues, RefusalForAnUndefinedFailureIsLegal) {
  CertificationMessages::CertRespMsgCtnt response;
  response.result.failureReason(CertificationMessages::Undefined);
  const CertificationMessages::CertRespMsgCtnt received = Received(response);
  EXPECT_FALSE(received.result._d());
  EXPECT_EQ(received.result.failureReason(), CertificationMessages::Undefined);
}

TEST_F(WireValues, TokenRequestWithoutContentComesBackWithTheNullTypeCode) {
  CertificationMessages::Message message = AMessage();
  message.correlationIdentity.correlation(1);
  const CertificationMessages::Message received = Received(message);
  const CORBA::TypeCode_var type = received.messageContent.type();
  EXPECT_EQ(type->kind(), CORBA::tk_null);
}

TEST_F(WireValues, CertificateOfNoBytesIsLegal) {
  CertificationMessages::CertRespMsgCtnt response;
  response.result.x509Certificate(CertificationMessages::DER_ASN1());
  const CertificationMessages::CertRespMsgCtnt received = Received(response);
  ASSERT_TRUE(received.result._d());
  EXPECT_EQ(received.result.x509Certificate().length(), 0u);
}

TEST_F(WireValues, ContentIsToldApartByItsTypeCode) {
  CertificationMessages::UniqTokenRespMsgCtnt token;
  token.uniqueToken = "t";
  const CORBA::Any any = ThereAndBack(token);
  const CertificationMessages::CertRespMsgCtnt* certificate = nullptr;
  EXPECT_FALSE(any >>= certificate);
  const CertificationMessages::UniqTokenRespMsgCtnt* received = nullptr;
  ASSERT_TRUE(any >>= received);
  EXPECT_STREQ(received->uniqueToken, "t");
}

}  // namespace
