#pragma once

#include <BrelixMessaging.h>

#include <nlohmann/json.hpp>
#include <string>

namespace ClientLibrary {

// The id as it is shown everywhere: eight upper-case hexadecimal digits.
std::string FormatId(BrelixMessaging::MessageId id);
// One to eight hexadecimal digits of either case. False for anything else.
bool ParseId(const std::string& text, BrelixMessaging::MessageId& id);

// A payload as programs see it: a string where it is one that is valid UTF-8, a list of strings and
// a RouterClient as such, and otherwise the name of its type and the bytes of the encoded any in
// hexadecimal.
// {"payload": "text"} or {"payload_type": "Status", "payload_hex": "0f00..."} are merged into the
// object by ToJson. Needs an ORB in the process.
nlohmann::json ToJson(const BrelixMessaging::Envelope& envelope);

// One line of JSON, or a block of lines for people, each with a line end.
std::string AsJsonLine(const BrelixMessaging::Envelope& envelope);
std::string AsText(const BrelixMessaging::Envelope& envelope);

// The payload that carries some bytes: a string, or a sequence of octets if there is a zero byte
// among them.
CORBA::Any MakePayload(const std::string& bytes);

}  // namespace ClientLibrary
