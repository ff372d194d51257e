#pragma once

#include <BrelixMessaging.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "envelope/TimeToLive.h"

namespace MessageRouter {

class Envelope;
class Logical;
class RouterTable;
class Routing;

// Whether the router is about to stop; empty: it never is.
using StopTest = std::function<bool()>;

// Handles the messages whose route ends at this router: decides who may ask, does what is asked,
// and answers with an envelope of its own. Who asks is told by the certificate that came with the
// message. Whoever may not is not answered, only logged.
// A payload that can't be decoded, where it is needed, leaves as std::runtime_error. After
// std::bad_alloc, PassingShortage and LockFailure the message can be handled again.
// Threads: the route thread.
class Dispatcher {
 public:
  explicit Dispatcher(Routing& routing) : routing_(routing) {}

  // `logical` may be null. False if the stop came before all was done: the envelope must stay on
  // disk then, and is handled anew at the next start.
  bool DispatchLocal(Envelope& envelope, RouterTable& table, Logical* logical,
                     const StopTest& stopping = {});

 private:
  void HandleManagement(Envelope& envelope, RouterTable& table);
  bool HandleSystem(Envelope& envelope, RouterTable& table, Logical* logical,
                    const StopTest& stopping);
  void HandleCertification(const Envelope& envelope);

  // News of routers further down; both add to the log line, and tell the parent what is news to it.
  bool HandleRouterRegistered(Envelope& envelope, RouterTable& table, Logical* logical,
                              const StopTest& stopping, std::string& line);
  bool HandleRouterUnregistered(Envelope& envelope, RouterTable& table, Logical* logical,
                                const StopTest& stopping, std::string& line);
  // To be called before MapMutex is taken where something may be forwarded beneath it: there may be
  // no id for a second.
  void DrawId();
  void Forward(const Envelope& envelope, const char* event, const CORBA::Any& data);
  void ForwardFarewell(const Envelope& envelope, const CORBA::Any& data);

  // "MS-UnknownMessageType", with the type.
  void ReplyUnknown(const Envelope& envelope);
  // To the originator, with the priority of its message.
  void Reply(const Envelope& envelope, const std::string& type, const CORBA::Any& data,
             TimeToLive ttl);
  void Send(const std::string& destination, const std::string& type, const CORBA::Any& data,
            std::uint32_t priority, TimeToLive ttl, std::uint32_t messageId = 0);

  // A message, as far as another may follow it: its id, and a hash of its originator.
  using Key = std::pair<std::uint32_t, std::size_t>;
  static Key KeyOf(const Envelope& envelope);

  Routing& routing_;
  // The message whose news has gone up. Handled again, it is not sent up twice.
  std::optional<Key> told_;
  // For what is forwarded next. What turns out to be no news leaves it to the next message.
  std::uint32_t drawnId_ = 0;
};

// The payload's text; empty for a payload of any other type.
std::string PayloadAsString(Envelope& envelope);

}  // namespace MessageRouter
