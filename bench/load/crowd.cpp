// A crowd of TLS connections to one router, from one process: clients of as many certificates that
// have logged on and stay silent, and strangers that finish TLS and send half a message.
//
// Makes its own certification authority and writes the identities "router" and "active" to the
// folder; then takes commands on standard input and answers each with a line:
//   router PORT    the IOR port of the router on this host
//   idle N         N more clients, registered and logged on
//   strangers N    N more half messages
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "TlsPeer.h"
#include "platform/Process.h"

namespace {

using Bench::Connection;
using Bench::Context;
using TestSupport::GiopReplyMessage;

class Crowd {
 public:
  explicit Crowd(const std::filesystem::path& folder) {
    Bench::WriteIdentity(folder / "router", ca_, "router", {1});
    Bench::WriteIdentity(folder / "active", ca_, "active", {});
  }

  void Aim(std::uint16_t port) { target_ = Bench::Target::Of("127.0.0.1", port); }
  void AddIdle(unsigned count) {
    const std::string nilReference("\1\0\0\0\0\0\0\0\0\0\0\0", 12);
    for (unsigned i = 0; i < count; ++i) {
      const TestSupport::Issued issued = ca_.Issue("idle-" + std::to_string(++clients_), {});
      auto connection =
          std::make_unique<Connection>(Bench::MakeContext(&issued), target_.host, target_.port);
      const std::string door = target_.KeyOf("Client");
      if (connection->Call(door, "Register").status != GiopReplyMessage::kNoException ||
          connection->Call(door, "LogonPushPull", nilReference).status !=
              GiopReplyMessage::kNoException) {
        throw std::runtime_error("cannot log on");
      }
      connections_.push_back(std::move(connection));
    }
  }
  // Returns how many the router let in.
  unsigned AddStrangers(unsigned count) {
    const Context context = Bench::MakeContext(nullptr);
    unsigned admitted = 0;
    for (unsigned i = 0; i < count; ++i) {
      try {
        auto connection = std::make_unique<Connection>(context, target_.host, target_.port);
        connection->Send("GIOP\1\2");
        connections_.push_back(std::move(connection));
        ++admitted;
      } catch (const std::runtime_error&) {
      }
    }
    return admitted;
  }

 private:
  TestSupport::TestCa ca_;
  Bench::Target target_;
  unsigned clients_ = 0;
  std::vector<std::unique_ptr<Connection>> connections_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench_crowd FOLDER\n");
    return 2;
  }
  try {
    Platform::RaiseDescriptorLimit();
    Crowd crowd(argv[1]);
    std::printf("made\n");
    std::fflush(stdout);
    std::string command;
    unsigned number = 0;
    while (std::cin >> command >> number) {
      if (command == "router") crowd.Aim(static_cast<std::uint16_t>(number));
      if (command == "idle") crowd.AddIdle(number);
      if (command == "strangers") number = crowd.AddStrangers(number);
      std::printf("%s %u\n", command.c_str(), number);
      std::fflush(stdout);
    }
    return 0;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "bench_crowd: %s\n", exception.what());
    return 1;
  }
}
