#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace BrokerTest {

// A peer on a port of this machine, with TLS and a good certificate, whose answers are no ORB's.
// It says of every object that it has it, and answers each request with what the test says.
// Threads: its own; the answer is set while no call is under way.
class LyingServer {
 public:
  // The bytes that answer a request of that id.
  using Answer = std::function<std::string(std::uint32_t requestId)>;
  enum class Then { GoOn, Close };  // what it does with the connection

  LyingServer();
  ~LyingServer();
  LyingServer(const LyingServer&) = delete;
  LyingServer& operator=(const LyingServer&) = delete;

  unsigned short Port() const { return port_; }
  void SetAnswer(Answer answer, Then then = Then::GoOn) {
    answer_ = std::move(answer);
    then_ = then;
  }

 private:
  void Run();
  void Serve(int connection);

  Answer answer_;
  Then then_ = Then::GoOn;
  int listener_;
  unsigned short port_ = 0;
  std::thread thread_;
};

}  // namespace BrokerTest
