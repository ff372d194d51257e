#pragma once

#include <BrelixMessaging.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "client_library/RouterConnection.h"

namespace ClientLibrary {

// What a client can ask the router itself, by a message whose answer is a message too.
struct Query {
  // An answer has the priority of its question: every question has one of its own, drawn anew, of
  // those that nothing else has, and it is ahead of everything else that waits for the caller.
  static constexpr std::uint32_t kLowestPriority = 0xFF000000;

  static Query ClientStatus(const std::string& name);
  static Query Heartbeat();
  static Query ClientUpdates();  // from now on the router tells the caller of its clients
  static Query RouterUpdates();  // and of the routers below it

  std::string type;
  std::string name;  // whose status; empty for the other queries
  std::uint32_t priority = kLowestPriority;
};

// Expires with the limit, and so does the answer where the router lets it.
BrelixMessaging::Message AsMessage(const Query& query, std::chrono::milliseconds limit);
// Whether that is the router's answer: its reply, or that it does not know or understand the query.
bool IsAnswer(const BrelixMessaging::Envelope& envelope, const Query& query,
              const std::string& router);
// Whether that is the router's answer to any question of this program's.
bool IsAnyAnswer(const BrelixMessaging::Envelope& envelope, const std::string& router);
// Whether it is one that says that the router did not do what was asked.
bool IsRefusal(const BrelixMessaging::Envelope& answer);

// Asks, over a logon for fetching, and waits for the answer. Nothing else that waits for the caller
// is taken, but answers to earlier questions that came too late for whoever asked. Throws Failure:
// TimedOut if none comes, which is also what becomes of a query that needs a role.
std::unique_ptr<BrelixMessaging::Envelope> Ask(FetchingClient& router, const Query& query,
                                               std::chrono::milliseconds limit);

}  // namespace ClientLibrary
