#pragma once

#include <string>
#include <vector>

namespace BrokerTest {

// Another process with an ORB of its own, from the same program: calls between two ORBs can't be
// tried in one process.
class PeerProcess {
 public:
  // Serves: GetName tells the caller's common name, or "(none)"; Notify calls the Heartbeat of the
  // consumer at `port` back.
  static PeerProcess Serve(unsigned short port);
  // Calls GetName at the port, so often on so many threads, and then ends.
  static PeerProcess Call(unsigned short port, unsigned threads, unsigned calls);
  // Serves, and calls Notify at the port so often meanwhile.
  static PeerProcess Mutual(unsigned short port, unsigned calls);
  ~PeerProcess();
  PeerProcess(PeerProcess&& other) noexcept;
  PeerProcess& operator=(PeerProcess&&) = delete;

  // The next line that it writes; empty at its end.
  std::string Line();
  // Its exit status; -1 if it was killed.
  int Wait();

 private:
  explicit PeerProcess(const std::vector<std::string>& arguments);

  int process_ = -1;
  int output_ = -1;
};

// What main does for the other process.
bool IsPeer(int argc, char** argv);
int RunPeer(int argc, char** argv);

}  // namespace BrokerTest
