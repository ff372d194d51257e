#pragma once

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "broker/Encoding.h"
#include "fixture.h"
#include "support/TestCertificates.h"

namespace TestSupport {

// Certificates with the roles that the dispatcher asks for; made once.
inline const std::string& CertificateWith(const std::vector<int>& roles) {
  static auto* const made = new std::vector<std::pair<std::vector<int>, std::string>>;
  for (const auto& [known, pem] : *made) {
    if (known == roles) return pem;
  }
  static auto* const ca = new TestCa;
  made->emplace_back(roles, ca->Issue("asker", roles).certificatePem);
  return made->back().second;
}
inline const std::string& NoRole() {
  return CertificateWith({});
}
inline const std::string& RouterRole() {
  return CertificateWith({1});
}
inline const std::string& ManagementRole() {
  return CertificateWith({2});
}

inline CORBA::Any TextPayload(const std::string& text) {
  CORBA::Any any;
  any <<= text.c_str();
  return any;
}
inline CORBA::Any ListPayload(const std::vector<std::string>& names) {
  BrelixMessaging::String_seq list;
  list.length(static_cast<CORBA::ULong>(names.size()));
  for (CORBA::ULong i = 0; i < list.length(); ++i) list[i] = names[i].c_str();
  CORBA::Any any;
  any <<= list;
  return any;
}
// The text of a payload, in brackets and with commas for a list of names.
inline std::string PayloadOf(MessageRouter::Envelope& envelope) {
  CORBA::Any any;
  envelope.GetData(any);
  const char* text = nullptr;
  if (any >>= text) return text;
  const BrelixMessaging::String_seq* list = nullptr;
  if (any >>= list) {
    std::string names = "[";
    for (CORBA::ULong i = 0; i < list->length(); ++i) {
      names += (i == 0 ? "" : ",") + std::string((*list)[i].in());
    }
    return names + "]";
  }
  const CORBA::TypeCode_var type = any.type();
  return type->kind() == CORBA::tk_null ? "(empty)" : "(other)";
}

// Encoded, with its last octet another one than the zero at the end of a string.
inline std::string WithoutItsEnd(const CORBA::Any& payload) {
  std::string text = Encoding::EncodeAny(payload);
  text.replace(text.size() - 2, 2, "64");
  return text;
}

// Payloads that are neither text nor a list of names.
inline std::vector<CORBA::Any> OtherPayloads() {
  std::vector<CORBA::Any> payloads(5);
  payloads[1] <<= CORBA::Long(7);
  BrelixMessaging::Long_seq numbers;
  numbers.length(3);
  payloads[2] <<= numbers;
  BrelixMessaging::RouterClient record;
  record.name = "child";
  payloads[3] <<= record;
  payloads[4] <<= CORBA::Any::from_wstring(const_cast<wchar_t*>(L"wide"), 0);
  // Strings that end elsewhere than their length says: one alone, an empty one, one in a list.
  for (const std::string& text :
       {std::string("12000000000000000400000061626364"), std::string("120000000000000000000000"),
        WithoutItsEnd(ListPayload({"abc"}))}) {
    Encoding::DecodeAny(text, payloads.emplace_back());
  }
  return payloads;
}

// What the parent knows after it has heard, in their order, of the names that went up.
class HeardAbove {
 public:
  explicit HeardAbove(std::set<std::string> names) : names_(std::move(names)) {}
  void Hear(MessageRouter::Envelope& news) {
    CORBA::Any any;
    news.GetData(any);
    const char* text = nullptr;
    const BrelixMessaging::String_seq* list = nullptr;
    if (any >>= text) Hear(news.Type(), text);
    if (any >>= list) {
      for (CORBA::ULong i = 0; i < list->length(); ++i) Hear(news.Type(), (*list)[i].in());
    }
  }
  bool Knows(const std::string& name) const { return names_.contains(name); }

 private:
  void Hear(const std::string& type, const std::string& name) {
    if (type == "MS-RouterRegistered") names_.insert(name);
    if (type == "MS-RouterUnregistered") names_.erase(name);
  }
  std::set<std::string> names_;
};

// A client "asker" of this router, what it sends to the router, and what comes back.
class DispatcherTest : public RoutingTest {
 protected:
  DispatcherTest() : asker_(AClient("asker")) {}

  MessageRouter::EnvelopeBuilder AMessage(const std::string& type, const std::string& certificate) {
    return AnEnvelope()
        .WithDestination(":")
        .WithType(type)
        .WithOriginator("router1.asker")
        .WithCertificate(certificate)
        .WithPriority(9);
  }
  // The message arrives and is handled; answers and news go their way, which must end.
  void Arrive(const Envelope& message) {
    constexpr int kMany = 50;
    routing_.QueueForRouting(message);
    for (int i = 0; i < kMany && routing_.RouteQueueSize() != 0; ++i) routing_.RouteNext(0, 0);
    EXPECT_EQ(routing_.RouteQueueSize(), 0u);
  }
  // The one answer to a message; none if there is none.
  std::optional<Envelope> AnswerTo(const Envelope& message) {
    Arrive(message);
    Envelope answer;
    if (!asker_.PopNext(answer)) return std::nullopt;
    EXPECT_FALSE(asker_.HasEnvelopes());
    return answer;
  }
  // A child router that fetches what waits for it.
  void LogOn(const std::string& child) {
    routing_.LogonRouterPeer(child, BrelixMessaging::RouterConsumer::_nil(),
                             BrelixMessaging::RouterSupplier::_nil(),
                             BrelixMessaging::NotifyConsumer::_nil(), 0);
  }
  bool Logged(const std::string& line) const { return log_.Has(MessageRouter::kLogInfo, line); }

  Entry& asker_;
};

}  // namespace TestSupport
