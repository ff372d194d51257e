#pragma once

#include <BrelixMessaging.h>

#include <chrono>
#include <memory>
#include <string>

#include "client_library/RouterConnection.h"

namespace ClientLibrary {

// What a client can ask the router itself, by a message whose answer is a message too.
struct Query {
  static Query ClientStatus(const std::string& name);
  static Query Heartbeat();
  static Query ClientUpdates();  // from now on the router tells the caller of its clients
  static Query RouterUpdates();  // and of the routers below it

  std::string type;
  std::string name;  // whose status; empty for the other queries
};

// Ahead of everything that waits for the caller, and so is the answer, which gets the same
// priority. Nobody waits for either after the limit.
BrelixMessaging::Message AsMessage(const Query& query, std::chrono::milliseconds limit);
// Whether that is the router's answer: its reply, or that it does not know or understand the query.
bool IsAnswer(const BrelixMessaging::Envelope& envelope, const Query& query,
              const std::string& router);
// Whether it is one that says that the router did not do what was asked.
bool IsRefusal(const BrelixMessaging::Envelope& answer);

// Asks, over a logon for fetching, and waits for the answer. Nothing else that waits for the caller
// is taken, but answers to the same query that came too late for whoever asked. Throws Failure:
// TimedOut if none comes, which is also what becomes of a query that needs a role.
std::unique_ptr<BrelixMessaging::Envelope> Ask(RouterConnection& router, const Query& query,
                                               std::chrono::milliseconds limit);

}  // namespace ClientLibrary
