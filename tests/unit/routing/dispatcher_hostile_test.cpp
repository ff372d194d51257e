// Messages to this router that lie about where they come from, or hold what they should not.
#include <filesystem>
#include <fstream>

#include "config/Configuration.h"
#include "dispatcher_fixture.h"
#include "envelope/Address.h"
#include "security/OwnIdentity.h"

namespace TestSupport {
namespace {

using MessageRouter::GetConfigString;

constexpr char kArrived[] = "Received message for this router\n";
constexpr char kUndecodable[] = "12000000ffffffff";

class HostileMessageTest : public DispatcherTest {
 protected:
  // This router's own messages bear a certificate with these roles from now on.
  static void BeARouterWith(const std::vector<int>& roles) {
    MessageRouter::OwnIdentity::Set("router1", CertificateWith(roles));
  }
  // There are only so many ids for the answers of one second.
  void InTheNextSecond() { clock_.SetWall(++lastSecond_); }
  std::size_t StoredFiles() const {
    const std::filesystem::directory_iterator files(store_.Directory());
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
  }
  // A message as it waits, its payload and certificate in a file of the store.
  Envelope AWaitingMessage(const std::string& leaf, const std::string& type,
                           const std::string& data) {
    std::ofstream(store_.Directory() + leaf)
        << "[Originator] router1.asker\n[OriginatorCertificate] "
        << Encoding::EncodeString(CertificateWith({1, 2})) << "\n[PhysicalDestination] :\n[Type] "
        << type << "\n[Data] " << data << "\n";
    return AMessage(type, "").WithFile(store_.Directory() + leaf).Shrunk();
  }
};

// What this router sends itself

TEST_F(HostileMessageTest, AMessageThatSeemsToBeThisRoutersOwnEndsAfterTwoAnswersAtMost) {
  struct Case {
    const char* type;
    const char* text;
    // What arrives here, the message included, if the router's own certificate has these roles.
    std::size_t none, router, management, both;
  };
  const Case cases[] = {
      {"EM-GetClientStatus", "asker", 2, 2, 3, 3},
      {"EM-GetClientStatus", "", 2, 3, 2, 3},
      {"EM-NotifyClientUpdates", "", 2, 3, 2, 3},
      {"EM-NotifyRouterUpdates", "", 2, 3, 2, 3},
      {"EM-Heartbeat", "", 2, 2, 3, 3},
      {"EM-Anything", "", 2, 2, 2, 2},
      {"EM-Heartbeat-Reply", "", 2, 2, 2, 2},
      {"MS-DeliveryFailed", "", 1, 1, 1, 1},
      {"MS-UnknownMessageType", "", 1, 1, 1, 1},
      {"MS-RouterRegistered", "leaf", 1, 1, 1, 1},
      {"MS-RouterUnregistered", "leaf", 1, 1, 1, 1},
      {"MS-BadMessageFormat", "", 2, 2, 2, 2},
      {"MS-Anything", "", 2, 2, 2, 2},
      {"Certification.Anything", "", 2, 2, 2, 2},
      {"Anything", "", 2, 2, 2, 2},
  };
  for (const char* originator : {"router1", ":", ":.", ".router1"}) {
    for (const Case& c : cases) {
      const std::pair<std::vector<int>, std::size_t> own[] = {
          {{}, c.none}, {{1}, c.router}, {{2}, c.management}, {{1, 2}, c.both}};
      for (const auto& [roles, arrived] : own) {
        BeARouterWith(roles);
        InTheNextSecond();
        log_.Clear();
        Arrive(AMessage(c.type, CertificateWith({1, 2}))
                   .WithOriginator(originator)
                   .WithData(TextPayload(c.text)));
        EXPECT_EQ(log_.Count(kArrived), arrived)
            << c.type << " '" << c.text << "' " << originator << testing::PrintToString(roles);
        EXPECT_EQ(StoredFiles(), 0u) << c.type;
      }
    }
  }
}

// Originators

TEST_F(HostileMessageTest, AnAnswerToAForgedOriginatorArrivesOrIsAWarning) {
  BeARouterWith({1, 2});
  const std::pair<const char*, const char*> origins[] = {
      {"", "Cannot route message to nowhere\n"},
      {".", "Cannot route message to nowhere\n"},
      {"...", "Cannot route message to nowhere\n"},
      {":.:", "Cannot route message to :\n"},
      {":.x", "Cannot route message to x\n"},
      {"router1.:", "Cannot route message to :\n"},
      {"x.:", "Cannot route message to x\n"},
      {":.router1", "Cannot route message to router1\n"},
  };
  for (const auto& [originator, warning] : origins) {
    for (const char* type :
         {"EM-GetClientStatus", "EM-NotifyClientUpdates", "EM-Heartbeat", "EM-NotifyRouterUpdates",
          "EM-Nothing", "MS-Nothing", "Certification.Nothing", "Nothing"}) {
      InTheNextSecond();
      log_.Clear();
      Arrive(AStoredEnvelope("1.msg")
                 .WithDestination(":")
                 .WithType(type)
                 .WithOriginator(originator)
                 .WithCertificate(CertificateWith({1, 2})));
      EXPECT_TRUE(log_.Has(MessageRouter::kLogWarning, warning)) << type << " " << originator;
      EXPECT_EQ(log_.Count(kArrived), 1u) << type << " " << originator;
      EXPECT_EQ(StoredFiles(), 0u) << type << " " << originator;
    }
  }
}

TEST_F(HostileMessageTest, AnAnswerToAForgedOriginatorGoesToTheParentOrToWhomItNames) {
  table_.AddParent("boss");
  Entry& named = AClient("x");
  struct Case {
    const char* originator;
    Entry& takes;
    const char* hops;  // as the next router reads them
  };
  const Case cases[] = {{"", *table_.Parent(), ""},
                        {".", *table_.Parent(), ""},
                        {":.:", *table_.Parent(), ":"},
                        {":.:.y", *table_.Parent(), ":.y"},
                        {":.x", named, "x"},
                        {"x.:", named, "x.:"}};
  for (const Case& c : cases) {
    for (const char* type : {"EM-GetClientStatus", "EM-Heartbeat", "MS-Nothing", "Nothing"}) {
      Arrive(AMessage(type, CertificateWith({1, 2})).WithOriginator(c.originator));
      Envelope answer;
      ASSERT_TRUE(c.takes.PopNext(answer)) << type << " " << c.originator;
      EXPECT_EQ(answer.Destination(), c.originator);
      EXPECT_EQ(answer.PhysicalDestination(), MessageRouter::SplitAddress(c.hops));
      EXPECT_FALSE(table_.Parent()->HasEnvelopes());
      EXPECT_FALSE(named.HasEnvelopes());
      EXPECT_FALSE(asker_.HasEnvelopes());
    }
  }
}

TEST_F(HostileMessageTest, WhoHasNoAddressOrThisRoutersDoesNotSubscribeInAnothersPlace) {
  BeARouterWith({1, 2});
  const std::pair<const char*, const char*> kinds[] = {
      {"EM-NotifyClientUpdates", "NotifyClientUpdate"},
      {"EM-NotifyRouterUpdates", "NotifyRouterUpdate"}};
  for (const auto& [type, key] : kinds) {
    ASSERT_TRUE(AnswerTo(AMessage(type, ManagementRole())));
    for (const char* originator : {"", ".", "..", ":", ":.", "router1", ".router1.", "router1."}) {
      InTheNextSecond();
      log_.Clear();
      Arrive(AMessage(type, ManagementRole()).WithOriginator(originator));
      EXPECT_TRUE(
          Logged(std::string(type) + " - Badly formatted message originator " + originator + "\n"));
      EXPECT_EQ(GetConfigString(key, ""), "router1.asker") << originator;
    }
  }
  routing_.ClientUpdates().Logon("agent");
  routing_.RouterUpdates().Logon("child");
  routing_.RouteNext(0, 0);
  routing_.RouteNext(0, 0);
  EXPECT_EQ(Drain(asker_).size(), 2u);
}

TEST_F(HostileMessageTest, WhoHasNoAddressIsToldTheRefusalByWayOfTheParent) {
  table_.AddParent("boss");
  Arrive(AMessage("EM-NotifyClientUpdates", NoRole()).WithOriginator(""));
  Envelope answer;
  ASSERT_TRUE(table_.Parent()->PopNext(answer));
  EXPECT_EQ(answer.Type(), "MS-BadMessageFormat");
  EXPECT_EQ(PayloadOf(answer), "EM-NotifyClientUpdates");
}

// Payloads

TEST_F(HostileMessageTest, WhatIgnoresItsPayloadDoesTheSameWithAnyPayload) {
  struct Case {
    const char* type;
    const char* reply;  // null: none
    const char* text;   // of the reply
    const char* line;
  };
  const Case cases[] = {
      {"EM-Heartbeat", "EM-Heartbeat-Reply", "(empty)", "EM-Heartbeat"},
      {"EM-NotifyClientUpdates", "EM-NotifyClientUpdates-Reply", "(empty)",
       "EM-NotifyClientUpdates"},
      {"EM-NotifyRouterUpdates", "EM-NotifyRouterUpdates-Reply", "(empty)",
       "EM-NotifyRouterUpdates"},
      {"EM-Nothing", "MS-UnknownMessageType", "EM-Nothing",
       "Management message (EM-Nothing) - unknown,"},
      {"EM-DoAction", "MS-UnknownMessageType", "EM-DoAction",
       "Management message (EM-DoAction) - unknown,"},
      {"MS-DeliveryFailed", nullptr, "", "MS-MS-DeliveryFailed"},
      {"MS-DeliveryFailed-Timeout", nullptr, "", "MS-MS-DeliveryFailed-Timeout"},
      {"MS-UnknownMessageType", nullptr, "", "MS-UnknownMessageType"},
      {"MS-Nothing", "MS-UnknownMessageType", "MS-Nothing",
       "System message (MS-Nothing) - not implemented"},
      {"Certification.Nothing", "MS-UnknownMessageType", "Certification.Nothing",
       "Certification message (Certification.Nothing) unknown,"},
      {"Nothing", "MS-UnknownMessageType", "Nothing", "Unknown Message type (Nothing)"},
  };
  std::vector<CORBA::Any> payloads = OtherPayloads();
  payloads.push_back(TextPayload(""));
  payloads.push_back(TextPayload("asker"));
  payloads.push_back(ListPayload({}));
  payloads.push_back(ListPayload({"asker", ""}));
  for (const Case& c : cases) {
    for (std::size_t i = 0; i < payloads.size(); ++i) {
      for (const bool waiting : {false, true}) {
        InTheNextSecond();
        log_.Clear();
        auto answer = AnswerTo(
            waiting ? AWaitingMessage("1.msg", c.type, Encoding::EncodeAny(payloads[i]))
                    : AMessage(c.type, CertificateWith({1, 2})).WithData(payloads[i]).Build());
        ASSERT_EQ(answer.has_value(), c.reply != nullptr) << c.type << " " << i;
        EXPECT_TRUE(Logged(std::string(c.line) + " originator router1.asker\n")) << c.type << i;
        EXPECT_FALSE(FileExists("1.msg")) << c.type << " " << i;
        if (!answer) continue;
        EXPECT_EQ(answer->Type(), c.reply) << i;
        EXPECT_EQ(PayloadOf(*answer), c.text) << i;
        answer->Retire();
      }
    }
  }
}

TEST_F(HostileMessageTest, AWaitingMessageThatCannotBeDecodedEndsTheThreadAndItsFileIsMetAgain) {
  // All that look at the payload, or at the certificate that stands in the file with it.
  for (const char* type : {"EM-GetClientStatus", "EM-Heartbeat", "EM-Nothing", "MS-DeliveryFailed",
                           "MS-RouterRegistered", "MS-RouterUnregistered"}) {
    const Envelope message = AWaitingMessage("00000001.msg", type, kUndecodable);
    EXPECT_THROW(Route(message), std::runtime_error) << type;
    ASSERT_TRUE(FileExists("00000001.msg")) << type;
    EXPECT_EQ(routing_.RouteQueueSize(), 0u) << type;
    std::vector<Envelope> loaded;
    MessageRouter::LoadPersistentEnvelopes(loaded);
    EXPECT_TRUE(loaded.empty()) << type;
    EXPECT_FALSE(FileExists("00000001.msg")) << type;
    EXPECT_TRUE(FileExists("00000001.msg.bad")) << type;
  }
}

TEST_F(HostileMessageTest, AWaitingMessageWhosePayloadNobodyLooksAtIsHandledWhateverItHolds) {
  for (const char* type : {"EM-NotifyClientUpdates", "Certification.Nothing", "Nothing"}) {
    auto answer = AnswerTo(AWaitingMessage("1.msg", type, kUndecodable));
    EXPECT_TRUE(answer) << type;
    EXPECT_FALSE(FileExists("1.msg")) << type;
  }
}

}  // namespace
}  // namespace TestSupport
