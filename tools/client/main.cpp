// brelix-client: sends and receives messages from the command line.

#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>

#include "client/CommandLine.h"
#include "client/Output.h"
#include "client/Receive.h"
#include "client_library/EnvelopeText.h"
#include "client_library/Failure.h"
#include "client_library/Query.h"
#include "client_library/RouterConnection.h"
#include "logging/Log.h"
#include "platform/Clock.h"
#include "platform/Files.h"

using ClientLibrary::Failure;
using ClientLibrary::Outcome;
using ClientLibrary::RouterConnection;

namespace {

// A router takes no message of more than 100 MiB.
constexpr std::size_t kMaxPayload = 96 * 1024 * 1024;

std::chrono::milliseconds FromSeconds(double seconds) {
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

std::string ReadPayload(const Options& options) {
  if (options.text) return *options.text;
  if (options.file) {
    int error = 0;
    auto content = Platform::ReadFile(*options.file, kMaxPayload, &error);
    if (content) return std::move(*content);
    throw Failure(Outcome::Failed, "cannot read " + *options.file + ": " + std::strerror(error));
  }
  std::string content;
  char buffer[65536];
  while (std::cin.read(buffer, sizeof buffer) || std::cin.gcount() > 0) {
    content.append(buffer, static_cast<std::size_t>(std::cin.gcount()));
    if (content.size() > kMaxPayload) {
      throw Failure(Outcome::Failed, "standard input: " + std::string(std::strerror(EFBIG)));
    }
  }
  return content;
}

// The name's one logon may be taken over by another program between our logon and the call behind
// it; that is no reason to give up at once.
template <class Function>
auto UnlessDisplaced(Function&& call) {
  try {
    return call();
  } catch (const Failure& failure) {
    const bool displaced =
        failure.Exception() == "OBJECT_NOT_EXIST" || failure.Exception() == "NotLoggedOn";
    if (!displaced) throw;
  }
  return call();
}

void LogOffIfLoggedOn(RouterConnection& router) {
  try {
    router.Logoff();
  } catch (const Failure&) {
    // Another program's logon has ended ours; what was asked for is done.
  }
}

template <class Function>
auto LoggedOn(RouterConnection& router, Function&& call) {
  return UnlessDisplaced([&] {
    router.LogonPull();
    auto result = call();
    LogOffIfLoggedOn(router);
    return result;
  });
}

std::string Send(const Options& options, RouterConnection& router) {
  BrelixMessaging::Message message;
  message.destination = options.destination.c_str();
  message.prio = options.priority;
  message.ttl = options.ttl;
  message.type = options.type.c_str();
  message.delivery_options = options.deliveryOptions.c_str();
  message.custom_data = ClientLibrary::MakePayload(ReadPayload(options));
  const auto id = ClientLibrary::FormatId(LoggedOn(router, [&] { return router.Send(message); }));
  return options.json ? nlohmann::json{{"id", id}}.dump() : id;
}

std::string Cancel(const Options& options, BrelixMessaging::MessageId id,
                   RouterConnection& router) {
  if (!LoggedOn(router, [&] { return router.Cancel(options.destination, id); })) {
    throw Failure(Outcome::Failed,
                  "no message " + ClientLibrary::FormatId(id) + " of ours waits at the router");
  }
  return options.json ? nlohmann::json{{"cancelled", ClientLibrary::FormatId(id)}}.dump()
                      : "cancelled " + ClientLibrary::FormatId(id);
}

std::string Ping(const Options& options, RouterConnection& router) {
  // The first call also opens the connection.
  router.RouterName();
  const auto start = Platform::Clock::Instance().SteadyNow();
  const std::string name = router.RouterName();
  const auto time = std::chrono::duration_cast<std::chrono::microseconds>(
                        Platform::Clock::Instance().SteadyNow() - start)
                        .count();
  return options.json ? nlohmann::json{{"router", name}, {"microseconds", time}}.dump()
                      : name + " " + std::to_string(time) + " us";
}

ClientLibrary::Query QueryFor(const Options& options) {
  if (options.command == Command::Status) return ClientLibrary::Query::ClientStatus(options.name);
  if (options.command == Command::Heartbeat) return ClientLibrary::Query::Heartbeat();
  return options.routers ? ClientLibrary::Query::RouterUpdates()
                         : ClientLibrary::Query::ClientUpdates();
}

std::string Ask(const Options& options, RouterConnection& router) {
  const ClientLibrary::Query query = QueryFor(options);
  const auto answer = UnlessDisplaced([&] {
    auto result = ClientLibrary::Ask(router, query, FromSeconds(options.timeout));
    LogOffIfLoggedOn(router);
    return result;
  });
  if (ClientLibrary::IsRefusal(*answer)) {
    throw Failure(
        Outcome::Refused,
        "refused by the router: " + std::string(answer->client_info.type) + " to " + query.type);
  }
  const CORBA::TypeCode_var payload = answer->client_info.custom_data.type();
  if (options.command == Command::Status && payload->kind() == CORBA::tk_null) {
    std::fprintf(stderr, "brelix-client: the router does not know %s\n", options.name.c_str());
  }
  std::string text =
      options.json ? ClientLibrary::AsJsonLine(*answer) : ClientLibrary::AsText(*answer);
  text.pop_back();  // the line end
  return text;
}

std::string Done(const Options& options, const char* what, const std::string& name) {
  return options.json ? nlohmann::json{{what, name}}.dump() : what + (" " + name);
}

// The line that the command prints.
std::string RunOnce(const Options& options, const ClientLibrary::Identity& identity) {
  BrelixMessaging::MessageId id = 0;
  if (options.command == Command::Cancel && !ClientLibrary::ParseId(options.id, id)) {
    throw Failure(Outcome::BadUsage, options.id + " is no message id");
  }
  ClientLibrary::ConnectionSettings settings;
  settings.host = options.host;
  settings.port = options.port;
  settings.callLimit = FromSeconds(options.timeout);
  RouterConnection router(identity, settings);
  router.Open();
  switch (options.command) {
    case Command::Register:
      router.Register();
      return Done(options, "registered", identity.CommonName());
    case Command::Unregister:
      router.Unregister();
      return Done(options, "unregistered", identity.CommonName());
    case Command::Send:
      return Send(options, router);
    case Command::Cancel:
      return Cancel(options, id, router);
    case Command::Status:
    case Command::Heartbeat:
    case Command::Subscribe:
      return Ask(options, router);
    default:
      return Ping(options, router);
  }
}

int Run(const Options& options) {
  Output output;
  const bool anonymous = options.command == Command::Ping &&
                         !Platform::FileExists(options.identity + "/certificate.pem");
  const auto identity = anonymous ? ClientLibrary::Identity::Anonymous(options.identity)
                                  : ClientLibrary::Identity::FromFolder(options.identity);
  if (options.command == Command::Receive || options.command == Command::Listen) {
    return Receive(options, identity, output);
  }
  if (!output.Write(RunOnce(options, identity) + "\n")) {
    throw Failure(Outcome::Failed, "cannot write to standard output");
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int status = 0;
  const auto options = ParseCommandLine(argc, argv, status);
  if (!options) return status;
  // What the libraries below have to say is for a router's log.
  MessageRouter::SetLogMask(0);
  omniORB::traceLevel = 0;
  try {
    return Run(*options);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "brelix-client: %s\n", failure.what());
    return static_cast<int>(failure.GetOutcome());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "brelix-client: %s\n", error.what());
    return static_cast<int>(Outcome::Failed);
  }
}
