#include <BrelixMessaging.h>
#include <CertificationMessages.h>
#include <gmock/gmock.h>

#include <string>
#include <vector>

// Names, order and types of the fields, as their type codes carry them to every peer.
namespace {

// "string", "long", ..., or the name of a declared type.
std::string TypeName(CORBA::TypeCode_ptr type) {
  switch (type->kind()) {
    case CORBA::tk_string:
      return "string";
    case CORBA::tk_long:
      return "long";
    case CORBA::tk_ulong:
      return "unsigned long";
    case CORBA::tk_ushort:
      return "unsigned short";
    case CORBA::tk_boolean:
      return "boolean";
    case CORBA::tk_octet:
      return "octet";
    case CORBA::tk_any:
      return "any";
    case CORBA::tk_sequence: {
      const CORBA::TypeCode_var content = type->content_type();
      return (type->length() == 0 ? "sequence of " : "bounded sequence of ") + TypeName(content);
    }
    default:
      return type->name();
  }
}

std::vector<std::string> Fields(CORBA::TypeCode_ptr type) {
  std::vector<std::string> fields;
  for (CORBA::ULong i = 0; i < type->member_count(); ++i) {
    const CORBA::TypeCode_var member = type->member_type(i);
    fields.push_back(TypeName(member) + " " + type->member_name(i));
  }
  return fields;
}

std::string Behind(CORBA::TypeCode_ptr alias) {
  const CORBA::TypeCode_var content = alias->content_type();
  return TypeName(content);
}

TEST(MessagingTypes, BasicTypesStandForTheirDefinitions) {
  namespace M = BrelixMessaging;
  EXPECT_EQ(Behind(M::_tc_Address), "string");
  EXPECT_EQ(Behind(M::_tc_time_t), "long");
  EXPECT_EQ(Behind(M::_tc_Time), "time_t");
  EXPECT_EQ(Behind(M::_tc_MessageId), "long");
  EXPECT_EQ(Behind(M::_tc_MessageType), "string");
  EXPECT_EQ(Behind(M::_tc_Priority), "long");
  EXPECT_EQ(Behind(M::_tc_Certificate), "string");
  EXPECT_EQ(Behind(M::_tc_CRL), "string");
  EXPECT_EQ(Behind(M::_tc_Options), "string");
}

TEST(MessagingTypes, SequencesAreUnbounded) {
  namespace M = BrelixMessaging;
  EXPECT_EQ(Behind(M::_tc_Timestamp_seq), "sequence of Timestamp");
  EXPECT_EQ(Behind(M::_tc_PhysicalAddress), "sequence of string");
  EXPECT_EQ(Behind(M::_tc_String_seq), "sequence of string");
  EXPECT_EQ(Behind(M::_tc_Long_seq), "sequence of long");
  EXPECT_EQ(Behind(M::_tc_Boolean_seq), "sequence of boolean");
  EXPECT_EQ(Behind(M::_tc_RouterClient_seq), "sequence of RouterClient");
}

TEST(MessagingTypes, FieldsOfEveryStructAreInTheirOrder) {
  namespace M = BrelixMessaging;
  using testing::ElementsAre;
  EXPECT_THAT(Fields(M::_tc_Timestamp), ElementsAre("string name", "Time utc_time"));
  EXPECT_THAT(Fields(M::_tc_Message),
              ElementsAre("Address destination", "Priority prio", "Time ttl", "MessageType type",
                          "Options delivery_options", "any custom_data"));
  EXPECT_THAT(Fields(M::_tc_Envelope),
              ElementsAre("Certificate originator_certificate", "Address originator",
                          "PhysicalAddress physical_destination", "Timestamp_seq timestamps",
                          "MessageId message_id", "Message client_info"));
  EXPECT_THAT(Fields(M::_tc_RouterClient),
              ElementsAre("string name", "boolean isRouter", "boolean isParent",
                          "boolean isLoggedOn", "boolean isPassiveConsumer"));
  EXPECT_THAT(Fields(M::_tc_Status),
              ElementsAre("string name", "String_seq clients", "String_seq routers",
                          "String_seq loggedOffClients", "String_seq loggedOffRouters",
                          "string parentRouter", "boolean loggedOn"));
  EXPECT_THAT(
      Fields(M::_tc_Configuration),
      testing::ElementsAreArray({"long NumGetterThreads",     "long GetterInterval",
                                 "long NumSenderThreads",     "long TimeoutInterval",
                                 "long IORSenderPort",        "string ParentAddress",
                                 "long ParentPort",           "boolean ActiveConsumer",
                                 "boolean ActiveSupplier",    "boolean NoRouterInterface",
                                 "boolean NoClientInterface", "boolean NoCertificationInterface",
                                 "boolean LocalClientsOnly",  "long LogonRetryInterval",
                                 "long LogFileMaxSize",       "long LogFileCount",
                                 "boolean LogConsole",        "long LogLevel",
                                 "long CertificationTimeout", "long RestartDelay",
                                 "boolean LogicalRouting",    "long ConnectionCache",
                                 "long HeartbeatInterval"}));
  EXPECT_THAT(Fields(M::_tc_CertificateIssue),
              ElementsAre("string Certificate", "string CertPassword"));
  EXPECT_THAT(Fields(M::_tc_CACertificateIssue), ElementsAre("string CACertificate"));
  EXPECT_THAT(Fields(M::_tc_CertificateStatus),
              ElementsAre("string Certificate", "string CACertificate"));
}

TEST(MessagingTypes, ExceptionsHaveNoMembers) {
  namespace M = BrelixMessaging;
  for (const CORBA::TypeCode_ptr type :
       {M::_tc_Rejected, M::_tc_AlreadyRegistered, M::_tc_NotRegistered, M::_tc_IllegalMessageType,
        M::_tc_CertificateExpired, M::_tc_NotLoggedOn, M::_tc_UnreachableConsumer,
        M::_tc_NoEnvelope, M::_tc_StoreFailed, M::_tc_AlreadyLoggedOn}) {
    EXPECT_EQ(type->kind(), CORBA::tk_except) << type->id();
    EXPECT_EQ(type->member_count(), 0u) << type->id();
  }
}

TEST(CertificationTypes, FieldsAreInTheirOrder) {
  namespace C = CertificationMessages;
  using testing::ElementsAre;
  EXPECT_THAT(Fields(C::_tc_Message),
              ElementsAre("unsigned short majorVersion", "unsigned short minorVersion",
                          "CorrelationId correlationIdentity", "any messageContent"));
  EXPECT_THAT(Fields(C::Message::_tc_CorrelationId), ElementsAre("unsigned long correlation"));
  EXPECT_THAT(Fields(C::_tc_SubjectIdentAttr), ElementsAre("string type", "any value"));
  EXPECT_EQ(Behind(C::_tc_DER_ASN1), "sequence of octet");
  EXPECT_EQ(Behind(C::_tc_SubjectIdentityAttrSet), "sequence of SubjectIdentAttr");
  EXPECT_THAT(Fields(C::_tc_CertReqMsgCtnt),
              ElementsAre("DER_ASN1 x509CertRequest", "SubjectIdentityAttrSet subjectIdentity"));
  EXPECT_THAT(Fields(C::_tc_CertRespMsgCtnt), ElementsAre("CertRespResult result"));
  EXPECT_THAT(Fields(C::CertRespMsgCtnt::_tc_CertRespResult),
              ElementsAre("DER_ASN1 x509Certificate", "CertReqFailureReason failureReason"));
  EXPECT_EQ(Behind(C::_tc_Token), "string");
  EXPECT_THAT(Fields(C::_tc_UniqTokenRespMsgCtnt), ElementsAre("Token uniqueToken"));
}

TEST(CertificationTypes, UnionsHaveNoDefaultMemberAndABooleanDiscriminator) {
  namespace C = CertificationMessages;
  for (const CORBA::TypeCode_ptr type :
       {C::Message::_tc_CorrelationId, C::CertRespMsgCtnt::_tc_CertRespResult}) {
    EXPECT_LT(type->default_index(), 0) << type->id();
    const CORBA::TypeCode_var discriminator = type->discriminator_type();
    EXPECT_EQ(discriminator->kind(), CORBA::tk_boolean) << type->id();
  }
}

TEST(CertificationTypes, FailureReasonsCountFromZero) {
  namespace C = CertificationMessages;
  EXPECT_EQ(C::SubjectIdentityInvalid, 0);
  EXPECT_EQ(C::SubjectIdentityUnproven, 1);
  EXPECT_EQ(C::InvalidCertRequest, 2);
  EXPECT_EQ(C::Undefined, 3);
}

}  // namespace
