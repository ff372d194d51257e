#pragma once

#include <BrelixMessaging.h>

#include <cstdint>
#include <nlohmann/json.hpp>

// How messages and failures stand in the peer's commands and answers.
namespace Peer {

using Json = nlohmann::json;

// {"destination", "type", "prio", "ttl", "options", "text"}; what is missing is empty or 0. In
// place of a text the payload may be a list of "strings" or a "number".
BrelixMessaging::Message MessageFrom(const Json& json);
// {"originator", "certificate", "id", "route": [...], "stamps": [[name, time]...], "message"}
BrelixMessaging::Envelope EnvelopeFrom(const Json& json);

// {"ok": false, "exception": "Rejected", "kind": "user"} and for system exceptions "minor" and
// "completed".
Json AsJson(const CORBA::Exception& exception);

// The host's steady clock, which all its processes share.
std::int64_t SteadyMilliseconds();

// Raises the exception of that name: one of the contract's, or a CORBA system exception.
[[noreturn]] void Raise(const std::string& name);

}  // namespace Peer
