#include "client/CommandLine.h"

#include <CLI/CLI.hpp>
#include <limits>

#include "client_library/Failure.h"
#include "command_line/ParseFailure.h"

namespace {

constexpr const char* kFooter =
    "Exit status:\n"
    "  0  done\n"
    "  1  failed\n"
    "  2  bad usage\n"
    "  3  timed out, or nothing received in time\n"
    "  4  refused by the router (Rejected, NotRegistered, CertificateExpired ...)\n"
    "\n"
    "Data goes to standard output, messages to standard error. One name has one logon at a\n"
    "router: a command that logs on under a name takes the place of a program that is logged on\n"
    "under it; listen and receive then log on again by themselves. A message can arrive more than\n"
    "once, with the same originator and id.";

// For a limit that is handed on in milliseconds as 32 bits.
constexpr double kMaxSeconds = 1e6;

void AddGlobal(CLI::App& app, Options& options, bool& text) {
  app.add_option("--host", options.host, "host of the router")->capture_default_str();
  app.add_option("--port", options.port, "the router's IOR port")
      ->capture_default_str()
      ->check(CLI::Range(1, 65535));
  app.add_option("--identity", options.identity,
                 "folder with ca.pem, certificate.pem and key.pem; ping does with ca.pem alone")
      ->envname("BRELIX_IDENTITY")
      ->required();
  app.add_option("--timeout", options.timeout, "limit of each call to the router, in seconds")
      ->capture_default_str()
      ->check(CLI::Range(0.001, kMaxSeconds));
  auto* json = app.add_flag("--json", options.json, "print JSON");
  app.add_flag("--text", text, "print text for people (default)")->excludes(json);
}

void AddSend(CLI::App& app, Options& options, std::string& source) {
  app.add_option("DEST", options.destination, "address of the receiver")->required();
  app.add_option("--type", options.type, "message type")->capture_default_str();
  auto* text = app.add_option("--text", options.text, "the payload");
  auto* file = app.add_option("--file", options.file, "file with the payload")->excludes(text);
  app.add_option("SOURCE", source, "- takes the payload from standard input")
      ->check(CLI::IsMember({"-"}))
      ->excludes(text)
      ->excludes(file);
  app.add_option("--priority", options.priority, "a higher number is delivered earlier")
      ->capture_default_str();
  app.add_option("--ttl", options.ttl, "seconds to live; 0 for ever")->capture_default_str();
  app.add_option("--options", options.deliveryOptions, "delivery options, carried unread");
}

void AddPull(CLI::App& app, Options& options) {
  auto* pull =
      app.add_flag("--pull", options.pull,
                   "fetch the envelopes instead of having them pushed; looks twice a second");
  app.add_flag("--notify", options.notify,
               "have the router tell us when something waits, and look then and at each check")
      ->needs(pull);
}

void AddCheckInterval(CLI::App& app, Options& options) {
  app.add_option("--check", options.checkInterval,
                 "seconds between checks that the router still knows us")
      ->capture_default_str()
      ->check(CLI::Range(0.05, kMaxSeconds));
}

void AddReceive(CLI::App& app, Options& options) {
  app.add_option("--count", options.count, "end after so many envelopes; 0 for no limit")
      ->capture_default_str()
      ->check(CLI::Range(std::int64_t{0}, std::numeric_limits<std::int64_t>::max()));
  app.add_option("--timeout", options.receiveLimit, "end after so many seconds; 0 for no limit")
      ->capture_default_str()
      ->check(CLI::Range(0.0, kMaxSeconds));
  AddPull(app, options);
  AddCheckInterval(app, options);
}

}  // namespace

std::optional<Options> ParseCommandLine(int argc, char** argv, int& status) {
  Options options;
  bool text = false;
  std::string source;
  std::string kind;
  CLI::App app("Sends and receives messages through a Brelix Message Router.", "brelix-client");
  app.set_version_flag("--version", "brelix-client " BRELIX_VERSION);
  app.footer(kFooter);
  app.require_subcommand(1);
  app.fallthrough();
  AddGlobal(app, options, text);

  const auto command = [&](const char* name, const char* help, Command which) {
    auto* sub = app.add_subcommand(name, help);
    sub->callback([&options, which] { options.command = which; });
    return sub;
  };
  command("register", "make our name known to the router, once", Command::Register);
  command("unregister", "take our name back", Command::Unregister);
  auto* send = command("send", "send one message and print its id; whether it arrives is not told",
                       Command::Send);
  AddSend(*send, options, source);
  auto* receive = command("receive", "print what arrives", Command::Receive);
  AddReceive(*receive, options);
  auto* listen = command("listen", "print what arrives until SIGINT or SIGTERM", Command::Listen);
  AddPull(*listen, options);
  AddCheckInterval(*listen, options);
  auto* cancel = command("cancel", "withdraw a message that has not left yet", Command::Cancel);
  cancel->add_option("DEST", options.destination, "the address it was sent to")->required();
  cancel->add_option("ID", options.id, "the id that send printed")->required();
  command("ping", "print the router's name and the time of a round trip", Command::Ping);
  auto* query = command("status", "ask the router about one client or router", Command::Status);
  query->add_option("NAME", options.name, "the name to ask about")->required();
  command("heartbeat", "have the router answer; needs the management role", Command::Heartbeat);
  auto* subscribe = command("subscribe",
                            "have the router tell us, and nobody else any more, who registers and "
                            "logs on; routers needs the management role",
                            Command::Subscribe);
  subscribe->add_option("KIND", kind, "clients or routers")
      ->required()
      ->check(CLI::IsMember({"clients", "routers"}));

  try {
    app.parse(argc, argv);
    options.standardInput = source == "-";
    options.routers = kind == "routers";
    const bool payload = options.text || options.file || options.standardInput;
    if (options.command == Command::Send && !payload) {
      throw CLI::RequiredError("send: one of --text, --file and -");
    }
  } catch (const CLI::ParseError& error) {
    status = CommandLine::Explain(error, app, static_cast<int>(ClientLibrary::Outcome::BadUsage));
    return std::nullopt;
  }
  if (options.command == Command::Listen) {
    options.count = 0;
    options.receiveLimit = 0;
  }
  return options;
}
