#include "parent/Ior.h"

#include <gmock/gmock.h>
#include <omniORB4/CORBA.h>

#include <cctype>
#include <stdexcept>

#include "logging/Log.h"
#include "parent/IorParser.h"
#include "support/LogCapture.h"
#include "unit/parent/ior_text.h"

namespace MessageRouter {
namespace {

using ParentTests::CdrText;
using ParentTests::Head;
using ParentTests::IorOf;
using ParentTests::Profile;

// Knows dotted addresses alone.
ACE_INET_Addr NoNames(const std::string& host, std::uint16_t port) {
  if (IsDottedAddress(host)) return ResolveHost(host, port);
  return ACE_INET_Addr(port, static_cast<ACE_UINT32>(0));
}

std::vector<std::string> Endpoints(const std::string& ior) {
  std::vector<ACE_INET_Addr> addresses;
  ReadIiopAddresses(ior, NoNames, addresses);
  std::vector<std::string> texts;
  for (const ACE_INET_Addr& address : addresses) {
    char text[64];
    address.addr_to_string(text, sizeof text, 1);
    texts.emplace_back(text);
  }
  return texts;
}

std::string Complaint(const std::string& ior) {
  try {
    Endpoints(ior);
  } catch (const std::invalid_argument& exception) {
    return exception.what();
  }
  return "none";
}

using testing::ElementsAre;
using testing::IsEmpty;

TEST(IorEndpoints, OneProfileGivesHostAndPort) {
  EXPECT_THAT(Endpoints(IorOf("192.0.2.7", 54321)), ElementsAre("192.0.2.7:54321"));
}

TEST(IorEndpoints, EachIiopProfileGivesOne) {
  const std::string ior = Head(2)
                              .ULong(0)
                              .Encapsulation(Profile("192.0.2.7", 1))
                              .ULong(0)
                              .Encapsulation(Profile("192.0.2.8", 2))
                              .Ior();
  EXPECT_THAT(Endpoints(ior), ElementsAre("192.0.2.7:1", "192.0.2.8:2"));
}

TEST(IorEndpoints, AreAppended) {
  std::vector<ACE_INET_Addr> addresses(1);
  ReadIiopAddresses(IorOf("192.0.2.7"), NoNames, addresses);
  EXPECT_EQ(addresses.size(), 2u);
}

TEST(IorEndpoints, BigEndianTextIsRead) {
  const std::string ior =
      Head(1, false).ULong(0).Encapsulation(Profile("192.0.2.7", 258, 2, false)).Ior();
  EXPECT_THAT(Endpoints(ior), ElementsAre("192.0.2.7:258"));
}

TEST(IorEndpoints, AProfileHasAByteOrderOfItsOwn) {
  const std::string ior =
      Head(1, true).ULong(0).Encapsulation(Profile("192.0.2.7", 258, 2, false)).Ior();
  EXPECT_THAT(Endpoints(ior), ElementsAre("192.0.2.7:258"));
}

TEST(IorEndpoints, TextOfTheOrbItselfIsRead) {
  int argc = 0;
  CORBA::ORB_var orb = CORBA::ORB_init(argc, nullptr);
  CORBA::Object_var object = orb->string_to_object("corbaloc:iiop:1.2@192.0.2.7:9123/Key");
  CORBA::String_var text = orb->object_to_string(object);
  EXPECT_THAT(Endpoints(text.in()), ElementsAre("192.0.2.7:9123"));
  orb->destroy();
}

TEST(IorEndpoints, UpperCaseHexPartDecodesLikeLowerCase) {
  std::string ior = Head(1).ULong(0).Encapsulation(Profile("192.0.2.7", 0xABCD)).Hex();
  for (char& digit : ior) digit = static_cast<char>(std::toupper(digit));
  EXPECT_THAT(Endpoints("IOR:" + ior), ElementsAre("192.0.2.7:43981"));
}

TEST(IorEndpoints, OddLastDigitCountsAsAbsent) {
  EXPECT_THAT(Endpoints(IorOf("192.0.2.7", 80) + "f"), ElementsAre("192.0.2.7:80"));
  EXPECT_THAT(Endpoints(IorOf("192.0.2.7", 80) + "?"), ElementsAre("192.0.2.7:80"));
}

TEST(IorEndpoints, HostNameThatDoesNotResolveGivesAddressZero) {
  EXPECT_THAT(Endpoints(IorOf("no-such-host.invalid", 80)), ElementsAre("0.0.0.0:80"));
}

TEST(IorEndpoints, HostEndsAtItsFirstNul) {
  EXPECT_THAT(Endpoints(IorOf(std::string("127.0.0.1\0.example", 18), 80)),
              ElementsAre("127.0.0.1:80"));
}

TEST(IorEndpoints, HostWithoutItsNulIsCutAtItsLength) {
  CdrText profile;
  profile.Octet(1).Octet(2).ULong(9).Raw("192.0.2.7").UShort(80);
  EXPECT_THAT(Endpoints(Head(1).ULong(0).Encapsulation(profile).Ior()),
              ElementsAre("192.0.2.7:80"));
}

TEST(IorEndpoints, ForeignTagsAloneGiveNone) {
  EXPECT_THAT(Endpoints(Head(2).ULong(1).ULong(7).Ior()), IsEmpty());
}

// What the length and the octets of that profile look like decides: here they look like two more
// foreign tags and then like the IIOP profile.
TEST(IorEndpoints, ProfileOfForeignTagIsNotSkipped) {
  TestSupport::LogCapture log;
  const std::string ior =
      Head(4).ULong(1).ULong(4).ULong(7).ULong(0).Encapsulation(Profile("192.0.2.7", 80)).Ior();
  EXPECT_THAT(Endpoints(ior), ElementsAre("192.0.2.7:80"));
  EXPECT_EQ(log.Count("Ignoring non-IIOP tag\n"), 3u);
}

TEST(IorEndpoints, ForeignProfileInFrontOfIiopProfileGoesWrong) {
  const std::string ior = Head(2)
                              .ULong(1)
                              .Encapsulation(CdrText().Raw("\1\2\3"))
                              .ULong(0)
                              .Encapsulation(Profile("192.0.2.7", 80))
                              .Ior();
  EXPECT_THAT(Endpoints(ior), IsEmpty());
}

TEST(IorEndpoints, EachIsTraced) {
  TestSupport::LogCapture log;
  Endpoints(IorOf("192.0.2.7", 80));
  EXPECT_TRUE(log.Has(kLogTrace, "Endpoint found: 192.0.2.7:80\n"));
}

struct BadIor {
  const char* name;
  std::string ior;
  const char* complaint;
};

class MalformedIor : public testing::TestWithParam<BadIor> {};

TEST_P(MalformedIor, IsRefusedWithItsText) {
  EXPECT_EQ(Complaint(GetParam().ior), GetParam().complaint);
}

std::vector<BadIor> BadIors() {
  const auto withProfile = [](const CdrText& profile) {
    return Head(1).ULong(0).Encapsulation(profile).Ior();
  };
  CdrText names = Head(33);
  for (int i = 0; i < 33; ++i) names.ULong(0).Encapsulation(Profile("name", 1));
  return {
      {"Empty", "", "Empty IOR string"},
      {"LowerCasePrefix", "ior:00", "Missing IOR prefix"},
      {"ShorterThanPrefix", "IO", "Missing IOR prefix"},
      {"OtherScheme", "corbaloc::host/key", "Missing IOR prefix"},
      {"NotADigit", "IOR:0g", "Invalid character in the IOR"},
      {"NulCharacter", std::string("IOR:0\0", 6), "Invalid character in the IOR"},
      {"NegativeCharacter", "IOR:0\xe9", "Invalid character in the IOR"},
      {"PrefixAlone", "IOR:", "Cannot read type hint string"},
      {"OneDigit", "IOR:0", "Cannot read type hint string"},
      {"ByteOrderAlone", "IOR:01", "Cannot read type hint string"},
      {"TypeHintBeyondTheEnd", CdrText().ULong(0xFFFFFFFF).Raw("x").Ior(),
       "Cannot read type hint string"},
      {"NoProfileCount", CdrText().String("IDL:x:1.0").Ior(), "Cannot read the profile count"},
      {"NoProfiles", Head(0).Ior(), "No profiles found in the IOR"},
      {"NoTag", Head(1).Ior(), "Cannot read the profile tag"},
      {"NoSecondTag", Head(2).ULong(0).Encapsulation(Profile("192.0.2.7", 1)).Ior(),
       "Cannot read the profile tag"},
      {"MoreForeignTagsThanOctets", Head(0xFFFFFFFF).ULong(1).Ior(), "Cannot read the profile tag"},
      {"NoLength", Head(1).ULong(0).Ior(), "Cannot read encap length"},
      {"LengthBeyondTheEnd", Head(1).ULong(0).ULong(100).Raw("x").Ior(),
       "Cannot create decoding stream"},
      {"HugeLength", Head(1).ULong(0).ULong(0xFFFFFFFF).Raw("x").Ior(),
       "Cannot create decoding stream"},
      {"EmptyProfile", Head(1).ULong(0).ULong(0).Ior(), "Cannot create decoding stream"},
      {"NoMajor", withProfile(CdrText()), "Cannot read the IIOP's major version"},
      {"NoMinor", withProfile(CdrText().Octet(1)), "Cannot read the IIOP's minor version"},
      {"Giop13", withProfile(Profile("192.0.2.7", 1, 3)),
       "Detected newer IIOP version in the profile"},
      {"Giop20", withProfile(CdrText().Octet(2).Octet(0).String("192.0.2.7").UShort(1)),
       "Detected newer IIOP version in the profile"},
      {"Giop02", withProfile(CdrText().Octet(0).Octet(2).String("192.0.2.7").UShort(1)),
       "Detected newer IIOP version in the profile"},
      {"NoHost", withProfile(CdrText().Octet(1).Octet(2)), "Cannot read the hostname"},
      {"HostBeyondTheEnd", withProfile(CdrText().Octet(1).Octet(2).ULong(100).Raw("x")),
       "Cannot read the hostname"},
      {"NoPort", withProfile(CdrText().Octet(1).Octet(2).String("192.0.2.7")),
       "Cannot read the port number"},
      {"MoreNamesThanAnyRouterHas", names.Ior(), "Too many host names in the IOR"},
  };
}

INSTANTIATE_TEST_SUITE_P(Texts, MalformedIor, testing::ValuesIn(BadIors()),
                         [](const auto& info) { return std::string(info.param.name); });

class KnownVersion : public testing::TestWithParam<unsigned> {};

TEST_P(KnownVersion, IsRead) {
  EXPECT_THAT(Endpoints(IorOf("192.0.2.7", 80, GetParam())), ElementsAre("192.0.2.7:80"));
}

INSTANTIATE_TEST_SUITE_P(Minor, KnownVersion, testing::Values(0u, 1u, 2u));

struct Validity {
  const char* name;
  std::string ior;
  bool valid;
};

class IorValidity : public testing::TestWithParam<Validity> {};

TEST_P(IorValidity, IsAsStated) {
  EXPECT_EQ(ValidateIor(GetParam().ior, NoNames), GetParam().valid);
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, IorValidity,
    testing::Values(Validity{"Localhost", IorOf("127.0.0.1"), false},
                    Validity{"OtherLoopback", IorOf("127.200.1.1"), false},
                    Validity{"NextNet", IorOf("128.0.0.1"), true},
                    Validity{"UnresolvedName", IorOf("no-such-host.invalid"), true},
                    Validity{"ForeignTagsAlone", Head(1).ULong(1).Ior(), true},
                    Validity{"LoopbackAmongOthers",
                             Head(2)
                                 .ULong(0)
                                 .Encapsulation(Profile("192.0.2.7", 1))
                                 .ULong(0)
                                 .Encapsulation(Profile("127.0.0.1", 1))
                                 .Ior(),
                             false},
                    Validity{"Malformed", "IOR:zz", false}, Validity{"Empty", "", false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(IorValidityLog, LoopbackIsAnError) {
  TestSupport::LogCapture log;
  EXPECT_FALSE(validateIOR(IorOf("127.0.0.1")));
  EXPECT_TRUE(log.Has(kLogTrace, "MessageRouter::validateIOR called\n"));
  EXPECT_TRUE(log.Has(kLogError, "Localhost address (e.g. 127/8) found in the IOR\n"));
}

TEST(IorValidityLog, MalformedTextIsLoggedWithItsComplaint) {
  TestSupport::LogCapture log;
  EXPECT_FALSE(validateIOR("IOR:zz"));
  EXPECT_TRUE(log.Contains("validateIOR"));
  EXPECT_TRUE(log.Contains("Invalid character in the IOR"));
}

TEST(IorEndpoints, SystemResolverKnowsDottedAddresses) {
  std::vector<ACE_INET_Addr> addresses;
  iiopAddressesInIOR(IorOf("192.0.2.7", 80), addresses);
  ASSERT_EQ(addresses.size(), 1u);
  EXPECT_EQ(addresses[0].get_ip_address(), 0xC0000207u);
  EXPECT_EQ(addresses[0].get_port_number(), 80);
}

}  // namespace
}  // namespace MessageRouter
