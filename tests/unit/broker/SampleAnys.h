#pragma once

#include <BrelixMessaging.h>
#include <CertificationMessages.h>

#include <utility>
#include <vector>

namespace BrokerTest {

struct SampleAny {
  const char* name;
  CORBA::Any value;
};

// One of each kind that travels in this system, and the basic ones that clients use.
inline std::vector<SampleAny> SampleAnys() {
  std::vector<SampleAny> samples;
  const auto add = [&samples](const char* name, const auto& value) {
    CORBA::Any any;
    any <<= value;
    samples.push_back({name, any});
  };
  samples.push_back({"empty", CORBA::Any()});
  add("string", "abc");
  add("long", CORBA::Long(-2));
  add("double", CORBA::Double(2.5));
  add("boolean", CORBA::Any::from_boolean(true));
  add("wide string", CORBA::Any::from_wstring(const_cast<wchar_t*>(L"wide"), 0));
  add("type code", BrelixMessaging::_tc_Envelope);

  BrelixMessaging::String_seq strings;
  strings.length(2);
  strings[0] = "ab";
  strings[1] = "c";
  add("alias of a sequence", strings);

  CertificationMessages::Message refusal;
  refusal.majorVersion = 0;
  refusal.minorVersion = 0;
  refusal.correlationIdentity.correlation(7);
  CertificationMessages::CertRespMsgCtnt response;
  response.result.failureReason(CertificationMessages::Undefined);
  refusal.messageContent <<= response;
  add("struct with a union and an any", refusal);

  CertificationMessages::CertReqMsgCtnt request;
  request.x509CertRequest.length(40);
  for (CORBA::ULong i = 0; i < 40; ++i) request.x509CertRequest[i] = static_cast<CORBA::Octet>(i);
  request.subjectIdentity.length(2);
  request.subjectIdentity[0].type = "token";
  request.subjectIdentity[0].value <<= "secret";
  request.subjectIdentity[1].type = "nothing";
  add("sequence of structs with anys", request);

  BrelixMessaging::Envelope envelope;
  envelope.originator_certificate = "certificate";
  envelope.originator = "agent-1";
  envelope.physical_destination.length(2);
  envelope.physical_destination[0] = "r1";
  envelope.physical_destination[1] = "r2";
  envelope.timestamps.length(1);
  envelope.timestamps[0].name = "n";
  envelope.timestamps[0].utc_time = 5;
  envelope.message_id = 9;
  envelope.client_info.destination = "CM";
  envelope.client_info.prio = 0;
  envelope.client_info.ttl = 5;
  envelope.client_info.type = "T";
  envelope.client_info.delivery_options = "";
  envelope.client_info.custom_data <<= refusal;
  add("message", envelope.client_info);
  add("envelope", envelope);

  BrelixMessaging::Status status;
  status.name = "router";
  status.clients.length(3);
  status.loggedOn = true;
  add("status", status);
  return samples;
}

}  // namespace BrokerTest
