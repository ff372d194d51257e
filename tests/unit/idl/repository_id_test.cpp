#include <BrelixMessaging.h>
#include <CertificationMessages.h>
#include <gmock/gmock.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

// The ids are what programs built elsewhere know these types by.
namespace {

namespace M = BrelixMessaging;
namespace C = CertificationMessages;

struct Row {
  const CORBA::TypeCode_ptr* type;  // made while the program starts, like this table
  const char* id;
};
using Table = std::vector<Row>;

const Table& Messaging() {
  static const Table table = {
      {&M::_tc_Address, "IDL:BrelixMessaging/Address:1.0"},
      {&M::_tc_time_t, "IDL:BrelixMessaging/time_t:1.0"},
      {&M::_tc_Time, "IDL:BrelixMessaging/Time:1.0"},
      {&M::_tc_MessageId, "IDL:BrelixMessaging/MessageId:1.0"},
      {&M::_tc_MessageType, "IDL:BrelixMessaging/MessageType:1.0"},
      {&M::_tc_Priority, "IDL:BrelixMessaging/Priority:1.0"},
      {&M::_tc_Certificate, "IDL:BrelixMessaging/Certificate:1.0"},
      {&M::_tc_CRL, "IDL:BrelixMessaging/CRL:1.0"},
      {&M::_tc_Options, "IDL:BrelixMessaging/Options:1.0"},
      {&M::_tc_Timestamp, "IDL:BrelixMessaging/Timestamp:1.0"},
      {&M::_tc_Timestamp_seq, "IDL:BrelixMessaging/Timestamp_seq:1.0"},
      {&M::_tc_PhysicalAddress, "IDL:BrelixMessaging/PhysicalAddress:1.0"},
      {&M::_tc_Message, "IDL:BrelixMessaging/Message:1.0"},
      {&M::_tc_Envelope, "IDL:BrelixMessaging/Envelope:1.0"},
      {&M::_tc_Rejected, "IDL:BrelixMessaging/Rejected:1.0"},
      {&M::_tc_AlreadyRegistered, "IDL:BrelixMessaging/AlreadyRegistered:1.0"},
      {&M::_tc_NotRegistered, "IDL:BrelixMessaging/NotRegistered:1.0"},
      {&M::_tc_IllegalMessageType, "IDL:BrelixMessaging/IllegalMessageType:1.0"},
      {&M::_tc_CertificateExpired, "IDL:BrelixMessaging/CertificateExpired:1.0"},
      {&M::_tc_NotLoggedOn, "IDL:BrelixMessaging/NotLoggedOn:1.0"},
      {&M::_tc_UnreachableConsumer, "IDL:BrelixMessaging/UnreachableConsumer:1.0"},
      {&M::_tc_NoEnvelope, "IDL:BrelixMessaging/NoEnvelope:1.0"},
      {&M::_tc_StoreFailed, "IDL:BrelixMessaging/StoreFailed:1.0"},
      {&M::_tc_AlreadyLoggedOn, "IDL:BrelixMessaging/AlreadyLoggedOn:1.0"},
      {&M::_tc_MessageConsumer, "IDL:BrelixMessaging/MessageConsumer:1.0"},
      {&M::_tc_NotifyConsumer, "IDL:BrelixMessaging/NotifyConsumer:1.0"},
      {&M::_tc_EnvelopeConsumer, "IDL:BrelixMessaging/EnvelopeConsumer:1.0"},
      {&M::_tc_RouterConsumer, "IDL:BrelixMessaging/RouterConsumer:1.0"},
      {&M::_tc_EnvelopeSupplier, "IDL:BrelixMessaging/EnvelopeSupplier:1.0"},
      {&M::_tc_RouterSupplier, "IDL:BrelixMessaging/RouterSupplier:1.0"},
      {&M::_tc_Router, "IDL:BrelixMessaging/Router:1.0"},
      {&M::_tc_Client, "IDL:BrelixMessaging/Client:1.0"},
      {&M::_tc_Certification, "IDL:BrelixMessaging/Certification:1.0"},
      {&M::_tc_MessageRouter, "IDL:BrelixMessaging/MessageRouter:1.0"},
      {&M::_tc_String_seq, "IDL:BrelixMessaging/String_seq:1.0"},
      {&M::_tc_Long_seq, "IDL:BrelixMessaging/Long_seq:1.0"},
      {&M::_tc_Boolean_seq, "IDL:BrelixMessaging/Boolean_seq:1.0"},
      {&M::_tc_RouterClient, "IDL:BrelixMessaging/RouterClient:1.0"},
      {&M::_tc_RouterClient_seq, "IDL:BrelixMessaging/RouterClient_seq:1.0"},
      {&M::_tc_Status, "IDL:BrelixMessaging/Status:1.0"},
      {&M::_tc_Configuration, "IDL:BrelixMessaging/Configuration:1.0"},
      {&M::_tc_CertificateIssue, "IDL:BrelixMessaging/CertificateIssue:1.0"},
      {&M::_tc_CACertificateIssue, "IDL:BrelixMessaging/CACertificateIssue:1.0"},
      {&M::_tc_CertificateStatus, "IDL:BrelixMessaging/CertificateStatus:1.0"},
  };
  return table;
}

const Table& Certification() {
  static const Table table = {
      {&C::_tc_Message, "IDL:CertificationMessages/Message:1.0"},
      {&C::Message::_tc_CorrelationId, "IDL:CertificationMessages/Message/CorrelationId:1.0"},
      {&C::_tc_SubjectIdentAttr, "IDL:CertificationMessages/SubjectIdentAttr:1.0"},
      {&C::_tc_DER_ASN1, "IDL:CertificationMessages/DER_ASN1:1.0"},
      {&C::_tc_SubjectIdentityAttrSet, "IDL:CertificationMessages/SubjectIdentityAttrSet:1.0"},
      {&C::_tc_CertReqMsgCtnt, "IDL:CertificationMessages/CertReqMsgCtnt:1.0"},
      {&C::_tc_CertReqFailureReason, "IDL:CertificationMessages/CertReqFailureReason:1.0"},
      {&C::_tc_CertRespMsgCtnt, "IDL:CertificationMessages/CertRespMsgCtnt:1.0"},
      {&C::CertRespMsgCtnt::_tc_CertRespResult,
       "IDL:CertificationMessages/CertRespMsgCtnt/CertRespResult:1.0"},
      {&C::_tc_Token, "IDL:CertificationMessages/Token:1.0"},
      {&C::_tc_UniqTokenRespMsgCtnt, "IDL:CertificationMessages/UniqTokenRespMsgCtnt:1.0"},
  };
  return table;
}

// "CorrelationId" of "IDL:CertificationMessages/Message/CorrelationId:1.0".
std::vector<std::string> Names(const Table& table) {
  std::vector<std::string> names;
  for (const Row& row : table) {
    const std::string id = row.id;
    const std::size_t begin = id.rfind('/') + 1;
    names.push_back(id.substr(begin, id.rfind(':') - begin));
  }
  return names;
}

// The types of a module that have a type code, as the compiled contract declares them.
std::vector<std::string> Declared(const std::string& module) {
  std::ifstream stream(std::string(BRELIX_GENERATED) + "/" + module + ".h");
  const std::string text((std::istreambuf_iterator<char>(stream)), {});
  const std::regex declaration("TypeCode_ptr _tc_(\\w+);");
  std::vector<std::string> names;
  for (std::sregex_iterator found(text.begin(), text.end(), declaration), end; found != end;
       ++found) {
    names.push_back((*found)[1]);
  }
  return names;
}

class RepositoryId : public testing::TestWithParam<Row> {};

TEST_P(RepositoryId, IsExact) {
  std::cout << (*GetParam().type)->id() << '\n';
  EXPECT_STREQ((*GetParam().type)->id(), GetParam().id);
}

std::string TestName(const testing::TestParamInfo<Row>& row) {
  return std::regex_replace(std::string(row.param.id), std::regex("\\W"), "_");
}

INSTANTIATE_TEST_SUITE_P(Messaging, RepositoryId, testing::ValuesIn(Messaging()), TestName);
INSTANTIATE_TEST_SUITE_P(Certification, RepositoryId, testing::ValuesIn(Certification()), TestName);

TEST(RepositoryIds, AreThoseOfEveryTypeOfTheMessagingModule) {
  EXPECT_THAT(Declared("BrelixMessaging"), testing::UnorderedElementsAreArray(Names(Messaging())));
}

TEST(RepositoryIds, AreThoseOfEveryTypeOfTheCertificationModule) {
  EXPECT_THAT(Declared("CertificationMessages"),
              testing::UnorderedElementsAreArray(Names(Certification())));
}

}  // namespace
