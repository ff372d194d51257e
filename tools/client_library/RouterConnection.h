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

// What a client does that fetches what waits for it. Every failure is a Failure.
class FetchingClient {
 public:
  virtual ~FetchingClient() = default;

  virtual std::string RouterName() = 0;
  // The envelopes wait until they are fetched. `notified`, unless it is empty, is called on the
  // ORB's threads when the router says that something waits; it counts from the first logon on, and
  // must not call this object. A notification can get lost, and then no other comes.
  virtual void LogonPull(std::function<void()> notified) = 0;
  virtual void Logoff() = 0;

  // The rest needs a logon.
  virtual BrelixMessaging::MessageId Send(const BrelixMessaging::Message& message) = 0;
  // Null if nothing waits. What is not acknowledged comes again.
  virtual std::unique_ptr<BrelixMessaging::Envelope> Get() = 0;
  virtual void Acknowledge(const BrelixMessaging::Envelope& envelope) = 0;
};

// A program's connection to one router, as one client. It has the process's ORB, so there is one
// at a time.
// Every failure is a Failure. Threads: one at a time; the sink is called on the ORB's.
class RouterConnection : public FetchingClient {
 public:
  RouterConnection(const Identity& identity, ConnectionSettings settings);
  // Ends the ORB; a sink is no longer called after it.
  ~RouterConnection() override;
  RouterConnection(const RouterConnection&) = delete;
  RouterConnection& operator=(const RouterConnection&) = delete;

  // Fetches the router's reference anew, and forgets everything obtained through the old one. The
  // operations below do so by themselves the first time.
  void Open();

  std::string RouterName() override;
  void Register();
  void Unregister();

  // The router calls back while the logon is in progress. The sink must outlive the connection.
  void LogonPush(EnvelopeSink& sink);
  void LogonPull(std::function<void()> notified = nullptr) override;
  void Logoff() override;

  // The rest needs a logon.
  BrelixMessaging::MessageId Send(const BrelixMessaging::Message& message) override;
  // Whether the message was still there to be withdrawn.
  bool Cancel(const std::string& destination, BrelixMessaging::MessageId id);
  // Fails if the router no longer knows this logon.
  void Heartbeat();
  std::unique_ptr<BrelixMessaging::Envelope> Get() override;
  void Acknowledge(const BrelixMessaging::Envelope& envelope) override;

  // Takes no further envelopes, and returns when the router has its answer for the ones under way.
  void CloseDoor();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace ClientLibrary
