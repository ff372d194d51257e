#include "Json.h"

#include <stdexcept>

#include "client_library/EnvelopeText.h"
#include "client_library/Failure.h"
#include "platform/Clock.h"

namespace Peer {

namespace {

std::string Text(const Json& json, const char* key) {
  return json.value(key, std::string());
}

}  // namespace

BrelixMessaging::Message MessageFrom(const Json& json) {
  BrelixMessaging::Message message;
  message.destination = Text(json, "destination").c_str();
  message.prio = json.value("prio", 0);
  message.ttl = json.value("ttl", 0);
  message.type = json.value("type", std::string("Test")).c_str();
  message.delivery_options = Text(json, "options").c_str();
  if (json.contains("strings")) {
    const Json& texts = json["strings"];
    BrelixMessaging::String_seq strings;
    strings.length(static_cast<CORBA::ULong>(texts.size()));
    for (CORBA::ULong i = 0; i < texts.size(); ++i) {
      strings[i] = texts[i].get<std::string>().c_str();
    }
    message.custom_data <<= strings;
  } else if (json.contains("number")) {
    message.custom_data <<= json["number"].get<CORBA::Long>();
  } else {
    message.custom_data = ClientLibrary::MakePayload(Text(json, "text"));
  }
  return message;
}

BrelixMessaging::Envelope EnvelopeFrom(const Json& json) {
  BrelixMessaging::Envelope envelope;
  envelope.originator_certificate = Text(json, "certificate").c_str();
  envelope.originator = Text(json, "originator").c_str();
  envelope.message_id = json.value("id", 0);
  const Json route = json.value("route", Json::array());
  envelope.physical_destination.length(static_cast<CORBA::ULong>(route.size()));
  for (CORBA::ULong i = 0; i < route.size(); ++i) {
    envelope.physical_destination[i] = route[i].get<std::string>().c_str();
  }
  const Json stamps = json.value("stamps", Json::array());
  envelope.timestamps.length(static_cast<CORBA::ULong>(stamps.size()));
  for (CORBA::ULong i = 0; i < stamps.size(); ++i) {
    envelope.timestamps[i].name = stamps[i][0].get<std::string>().c_str();
    envelope.timestamps[i].utc_time = stamps[i][1].get<CORBA::Long>();
  }
  envelope.client_info = MessageFrom(json.value("message", Json::object()));
  return envelope;
}

Json AsJson(const CORBA::Exception& exception) {
  Json out{{"ok", false}, {"exception", ClientLibrary::ShortName(exception)}};
  const auto* system = CORBA::SystemException::_downcast(&exception);
  out["kind"] = system == nullptr ? "user" : "system";
  if (system != nullptr) {
    out["minor"] = system->minor();
    out["completed"] = system->completed() == CORBA::COMPLETED_YES  ? "yes"
                       : system->completed() == CORBA::COMPLETED_NO ? "no"
                                                                    : "maybe";
  }
  return out;
}

std::int64_t SteadyMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             Platform::Clock::Instance().SteadyNow().time_since_epoch())
      .count();
}

void Raise(const std::string& name) {
  if (name == "Rejected") throw BrelixMessaging::Rejected();
  if (name == "NotLoggedOn") throw BrelixMessaging::NotLoggedOn();
  if (name == "NoEnvelope") throw BrelixMessaging::NoEnvelope();
  if (name == "CertificateExpired") throw BrelixMessaging::CertificateExpired();
  if (name == "TRANSIENT") throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  if (name == "COMM_FAILURE") throw CORBA::COMM_FAILURE(0, CORBA::COMPLETED_MAYBE);
  if (name == "NO_RESOURCES") throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
  throw CORBA::UNKNOWN(0, CORBA::COMPLETED_NO);
}

}  // namespace Peer
