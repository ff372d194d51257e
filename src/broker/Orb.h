#pragma once

#include <omniORB4/CORBA.h>
#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Broker {

// How one ORB is made. The process's own "-ORB" arguments win over what stands here.
struct OrbSettings {
  // Remote operations that run at once (see Gate).
  unsigned threads = 4;
  // Connections kept at once, in both directions together; the least recently used idle ones are
  // closed above it, within about a second. 0: no limit.
  unsigned connectionLimit = 0;
  // A peer that has vanished, on connections in both directions: after so long a silence it is
  // probed (0: never), and when what was sent to it stays unacknowledged for so long the connection
  // is broken, and the calls on it fail (0: no limit but the system's). Seconds.
  unsigned keepAliveSeconds = 60;
  unsigned peerTimeoutSeconds = 120;
  // False for programs that only call: no endpoint is opened.
  bool server = true;
  // Fills the TLS context of the new ORB. Throws std::runtime_error to give up.
  std::function<void(SSL_CTX*)> configureTls;
  // OpenSSL's information callback for each connection of the ORB; may be null.
  void (*tlsInfo)(const SSL*, int where, int ret) = nullptr;
};

// The process's ORB: at most one at a time. It can be destroyed and made again.
// Requests reach nobody before RootPOA is resolved; the endpoint is bound there, and a failure to
// bind comes from there, as CORBA::INITIALIZE (see IsEndpointFailure).
class Orb {
 public:
  // Takes "-ORB..." arguments out of argc and argv. Throws CORBA::SystemException or
  // std::runtime_error; also if the guard against hostile type codes is not in force.
  Orb(int& argc, char** argv, const OrbSettings& settings);
  // Destroys the ORB if Destroy has not; swallows what is thrown on the way.
  ~Orb();
  Orb(const Orb&) = delete;
  Orb& operator=(const Orb&) = delete;

  CORBA::ORB_ptr Get() const;  // not duplicated
  SSL_CTX* TlsContext() const;
  // The bound port, 0 before RootPOA is resolved.
  unsigned short ListeningPort() const;
  // For each adapter whose references leave the process: that they name this ORB's endpoints (see
  // PublishedEndpoints). By itself the ORB names those of all ORBs that the process has had. After
  // RootPOA is resolved; the caller owns it.
  CORBA::Policy_ptr PublishPolicy() const;
  // Closes all idle outgoing connections, so that later calls use the present credentials; waits
  // until they are closed, at most `seconds`.
  void CloseOutgoingConnections(unsigned seconds);
  void Destroy();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Of the endpoints that an ORB listens at those that its references name: the IPv4 ones, or all if
// there are no others. Whether a peer is local or the host has moved is told by IPv4 addresses, and
// a peer that once fails to connect would take the next address in its reference and stay there.
std::vector<std::string> PublishedEndpoints(const std::vector<std::string>& listening);

// True for the failure to open or bind an endpoint: a port in use, an address that isn't ours.
bool IsEndpointFailure(const CORBA::SystemException& exception);

}  // namespace Broker
