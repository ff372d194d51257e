#include "client_library/EnvelopeText.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "broker/Encoding.h"
#include "broker/TakeOut.h"

namespace ClientLibrary {

namespace {

bool IsUtf8(const std::string& text) {
  try {
    static_cast<void>(nlohmann::json(text).dump());
    return true;
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

const char* BasicName(CORBA::TCKind kind) {
  switch (kind) {
    case CORBA::tk_null:
    case CORBA::tk_void:
      return "empty";
    case CORBA::tk_short:
      return "short";
    case CORBA::tk_long:
      return "long";
    case CORBA::tk_longlong:
      return "long long";
    case CORBA::tk_ushort:
      return "unsigned short";
    case CORBA::tk_ulong:
      return "unsigned long";
    case CORBA::tk_ulonglong:
      return "unsigned long long";
    case CORBA::tk_float:
      return "float";
    case CORBA::tk_double:
      return "double";
    case CORBA::tk_boolean:
      return "boolean";
    case CORBA::tk_char:
      return "char";
    case CORBA::tk_wchar:
      return "wchar";
    case CORBA::tk_octet:
      return "octet";
    case CORBA::tk_any:
      return "any";
    case CORBA::tk_string:
      return "string";
    case CORBA::tk_wstring:
      return "wstring";
    case CORBA::tk_array:
      return "array";
    default:
      return "other";
  }
}

std::string TypeName(CORBA::TypeCode_ptr type) {
  switch (type->kind()) {
    case CORBA::tk_struct:
    case CORBA::tk_union:
    case CORBA::tk_enum:
    case CORBA::tk_alias:
    case CORBA::tk_except:
    case CORBA::tk_objref:
      return type->name();
    case CORBA::tk_sequence: {
      CORBA::TypeCode_var content = type->content_type();
      return "sequence<" + TypeName(content) + ">";
    }
    default:
      return BasicName(type->kind());
  }
}

// Whatever a peer sent must come out as JSON.
std::string Printable(const char* text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}
nlohmann::json Safe(const char* text) {
  return nlohmann::json::parse(Printable(text));
}

// The records that a router answers with, as what they say.
bool AddRecord(const CORBA::Any& payload, nlohmann::json& out) {
  const BrelixMessaging::RouterClient* client = nullptr;
  if (Broker::TakeOut(payload, client)) {
    out["payload"] = {{"name", Safe(client->name)},
                      {"isRouter", bool(client->isRouter)},
                      {"isParent", bool(client->isParent)},
                      {"isLoggedOn", bool(client->isLoggedOn)},
                      {"isPassiveConsumer", bool(client->isPassiveConsumer)}};
    return true;
  }
  const BrelixMessaging::String_seq* names = nullptr;
  if (!Broker::TakeOut(payload, names)) return false;
  out["payload"] = nlohmann::json::array();
  for (CORBA::ULong i = 0; i < names->length(); ++i) {
    out["payload"].push_back(Safe((*names)[i]));
  }
  return true;
}

void AddPayload(const CORBA::Any& payload, nlohmann::json& out) {
  const char* text = nullptr;
  if (Broker::TakeOut(payload, text)) {
    if (IsUtf8(text)) {
      out["payload"] = text;
      return;
    }
  }
  if (AddRecord(payload, out)) return;
  CORBA::TypeCode_var type = payload.type();
  out["payload_type"] = TypeName(type);
  out["payload_hex"] = Encoding::EncodeAny(payload);
}

}  // namespace

std::string FormatId(BrelixMessaging::MessageId id) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(id));
  return text;
}

bool ParseId(const std::string& text, BrelixMessaging::MessageId& id) {
  if (text.empty() || text.size() > 8) return false;
  for (const unsigned char c : text) {
    if (std::isxdigit(c) == 0) return false;
  }
  id = static_cast<BrelixMessaging::MessageId>(
      static_cast<std::uint32_t>(std::stoul(text, nullptr, 16)));
  return true;
}

nlohmann::json ToJson(const BrelixMessaging::Envelope& envelope) {
  const BrelixMessaging::Message& message = envelope.client_info;
  nlohmann::json out;
  out["id"] = FormatId(envelope.message_id);
  out["originator"] = Safe(envelope.originator);
  out["destination"] = Safe(message.destination);
  out["type"] = Safe(message.type);
  out["priority"] = message.prio;
  out["ttl"] = message.ttl;
  out["options"] = Safe(message.delivery_options);
  out["stamps"] = nlohmann::json::array();
  for (CORBA::ULong i = 0; i < envelope.timestamps.length(); ++i) {
    out["stamps"].push_back(
        {{"name", Safe(envelope.timestamps[i].name)}, {"time", envelope.timestamps[i].utc_time}});
  }
  AddPayload(message.custom_data, out);
  return out;
}

std::string AsJsonLine(const BrelixMessaging::Envelope& envelope) {
  return ToJson(envelope).dump() + "\n";
}

std::string AsText(const BrelixMessaging::Envelope& envelope) {
  const nlohmann::json json = ToJson(envelope);
  // Quoted like JSON, so that no line end or control character of a sender reaches the terminal.
  const auto quoted = [](const nlohmann::json& value) { return value.dump(); };
  std::string text = "message " + json["id"].get<std::string>() + "\n";
  for (const char* key : {"originator", "destination", "type", "priority", "ttl", "options"}) {
    text += std::string("  ") + key + ": " + quoted(json[key]) + "\n";
  }
  text += "  stamps:";
  for (const auto& stamp : json["stamps"]) {
    text += " (" + quoted(stamp["name"]) + ", " + quoted(stamp["time"]) + ")";
  }
  text += "\n";
  if (json.contains("payload")) {
    text += "  payload: " + quoted(json["payload"]) + "\n";
  } else {
    text += "  payload: " + json["payload_type"].get<std::string>() + " " +
            json["payload_hex"].get<std::string>() + "\n";
  }
  return text;
}

CORBA::Any MakePayload(const std::string& bytes) {
  CORBA::Any payload;
  if (bytes.find('\0') == std::string::npos) {
    payload <<= bytes.c_str();
    return payload;
  }
  CORBA::OctetSeq octets;
  octets.length(static_cast<CORBA::ULong>(bytes.size()));
  std::memcpy(octets.get_buffer(), bytes.data(), bytes.size());
  payload <<= octets;
  return payload;
}

}  // namespace ClientLibrary
