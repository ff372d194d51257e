#include "envelope/MessageType.h"

#include <gmock/gmock.h>

namespace MessageRouter {
namespace {

TEST(MessageType, JoinsPrefixNameAndSuffix) {
  EXPECT_EQ(FormatMessageType("EM", "NoOp"), "EM-NoOp");
  EXPECT_EQ(FormatMessageType("EM", "NoOp", "Reply"), "EM-NoOp-Reply");
  EXPECT_EQ(ManagementMessageType("Heartbeat"), "EM-Heartbeat");
  EXPECT_EQ(ManagementReplyType("Heartbeat"), "EM-Heartbeat-Reply");
  EXPECT_EQ(SystemMessageType("RouterRegistered"), "MS-RouterRegistered");
  EXPECT_EQ(SystemMessageType("RouterRegistered", "x"), "MS-RouterRegistered-x");
}

struct MatchRow {
  const char* type;
  const char* prefix;
  const char* name;
  const char* suffix;
  bool matches;
};

class MessageTypeMatch : public testing::TestWithParam<MatchRow> {};

TEST_P(MessageTypeMatch, FollowsTheGrammar) {
  const MatchRow& row = GetParam();
  EXPECT_EQ(MatchMessageType(row.type, row.prefix, row.name, row.suffix), row.matches)
      << row.type << " against " << row.prefix << "-" << row.name << "-" << row.suffix;
}

INSTANTIATE_TEST_SUITE_P(Table, MessageTypeMatch,
                         testing::Values(MatchRow{"EM-NoOp", "EM", "NoOp", "", true},
                                         MatchRow{"em-noop", "EM", "NoOp", "", true},
                                         MatchRow{"EM-NoOp", "EM", "NoOp", "*", true},
                                         MatchRow{"EM-NoOp", "EM", "NoOp", "Reply", false},
                                         MatchRow{"EM-NoOp-Reply", "EM", "NoOp", "", false},
                                         MatchRow{"EM-NoOp-Reply", "EM", "NoOp", "*", true},
                                         MatchRow{"EM-NoOp-Reply", "EM", "NoOp", "Reply", true},
                                         MatchRow{"EM-NoOp-Reply", "EM", "NoOp", "rep", true},
                                         MatchRow{"EM-NoOp-Reply", "EM", "NoOp", "x", false},
                                         MatchRow{"EM-NoOpX", "EM", "NoOp", "", false},
                                         MatchRow{"EM-NoOpX", "EM", "NoOp", "*", false},
                                         MatchRow{"EM-NoOp-", "EM", "NoOp", "", false},
                                         MatchRow{"EM-NoOp-", "EM", "NoOp", "*", true},
                                         MatchRow{"EMNoOp", "EM", "NoOp", "", false},
                                         MatchRow{"EM", "EM", "NoOp", "", false},
                                         MatchRow{"EM-", "EM", "", "", true},
                                         MatchRow{"EM-NoOp", "EM", "", "*", false},
                                         MatchRow{"NoOp", "", "NoOp", "", true},
                                         MatchRow{"NoOp-Reply", "", "NoOp", "Reply", true},
                                         MatchRow{"MS-NoOp", "EM", "NoOp", "", false},
                                         MatchRow{"", "EM", "NoOp", "", false},
                                         MatchRow{"", "", "", "", true}));

TEST(MessageType, FamiliesAreToldByTheirFirstCharactersWhateverTheirCase) {
  EXPECT_TRUE(IsManagementType("EM-NoOp"));
  EXPECT_TRUE(IsManagementType("emergency"));
  EXPECT_FALSE(IsManagementType("E"));
  EXPECT_TRUE(IsSystemType("ms-x"));
  EXPECT_FALSE(IsSystemType("EM-x"));
  EXPECT_TRUE(IsCertificationType("CERTIFICATION.x"));
  EXPECT_TRUE(IsCertificationType("Certification"));
  EXPECT_FALSE(IsCertificationType("Certificatio"));
}

TEST(MessageType, OnlyTwoWholeTypesAreCertificationRequests) {
  EXPECT_TRUE(IsCertificationRequest("Certification.CertRequest"));
  EXPECT_TRUE(IsCertificationRequest("certification.uniquetokenrequest"));
  EXPECT_FALSE(IsCertificationRequest("Certification.CertRequest2"));
  EXPECT_FALSE(IsCertificationRequest("Certification.CertReques"));
}

}  // namespace
}  // namespace MessageRouter
