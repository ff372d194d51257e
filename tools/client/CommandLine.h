#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

enum class Command : unsigned char {
  Register,
  Unregister,
  Send,
  Receive,
  Listen,
  Cancel,
  Ping,
  Status,
  Heartbeat,
  Subscribe,
};

struct Options {
  Command command = Command::Ping;

  std::string host = "localhost";
  std::uint16_t port = 8192;
  std::string identity;
  double timeout = 30;  // seconds, for each call
  bool json = false;

  std::string destination;  // send, cancel

  // send: exactly one of text, file and standard input
  std::string type = "Message";
  std::optional<std::string> text;
  std::optional<std::string> file;
  bool standardInput = false;
  std::int32_t priority = 0;
  std::int32_t ttl = 0;
  std::string deliveryOptions;

  std::string id;  // cancel

  std::string name;      // status
  bool routers = false;  // subscribe: to news of routers, not of clients

  // receive
  std::uint64_t count = 1;   // 0: no limit
  double receiveLimit = 60;  // seconds; 0: none
  bool pull = false;
  bool notify = false;
  double checkInterval = 5;  // seconds
};

// Nothing if the program is to end with `status` at once: help, version, bad usage. What is to be
// said has been printed then.
std::optional<Options> ParseCommandLine(int argc, char** argv, int& status);
