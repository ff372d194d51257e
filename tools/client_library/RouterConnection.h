#pragma once

#include <BrelixMessaging.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "client_library/Identity.h"
#include "client_library/IorPort.h"

namespace ClientLibrary {

// Takes the envelopes that a router pushes.
class EnvelopeSink {
 public:
  virtual ~EnvelopeSink() = default;
  // True once the envelope is safe: the router then forgets it. False: the router keeps it and
  // regards us as gone. Threads: the ORB's, several at once.
  virtual bool Take(const BrelixMessaging::Envelope& envelope) = 0;
};

struct ConnectionSettings {
  std::string host = "localhost";
  std::uint16_t port = kDefaultIorPort;
  // For each remote call, and for fetching the router's reference.
  std::chrono::milliseconds callLimit{30000};
  // Needed for a push logon, and to be notified: opens an endpoint that the router calls.
  bool server = false;
};

// A program's connection to one router, as one client. It has the process's ORB, so there is one
// at a time.
// Every failure is a Failure. Threads: one at a time; the sink is called on the ORB's.
class RouterConnection {
 public:
  RouterConnection(const Identity& identity, ConnectionSettings settings);
  // Ends the ORB; a sink is no longer called after it.
  ~RouterConnection();
  RouterConnection(const RouterConnection&) = delete;
  RouterConnection& operator=(const RouterConnection&) = delete;

  // Fetches the router's reference anew, and forgets everything obtained through the old one. The
  // operations below do so by themselves the first time.
  void Open();

  std::string RouterName();
  void Register();
  void Unregister();

  // The router calls back while the logon is in progress. The sink must outlive the connection.
  void LogonPush(EnvelopeSink& sink);
  // The envelopes wait until they are fetched. `notified`, unless it is empty, is called on the
  // ORB's threads when the router says that something waits; it counts from the first logon on, and
  // must not call this object. A notification can get lost, and then no other comes.
  void LogonPull(std::function<void()> notified = nullptr);
  void Logoff();

  // The rest needs a logon.
  BrelixMessaging::MessageId Send(const BrelixMessaging::Message& message);
  // Whether the message was still there to be withdrawn.
  bool Cancel(const std::string& destination, BrelixMessaging::MessageId id);
  // Fails if the router no longer knows this logon.
  void Heartbeat();
  // Null if nothing waits. What is not acknowledged comes again.
  std::unique_ptr<BrelixMessaging::Envelope> Get();
  void Acknowledge(const BrelixMessaging::Envelope& envelope);

  // Takes no further envelopes, and returns when the router has its answer for the ones under way.
  void CloseDoor();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace ClientLibrary
