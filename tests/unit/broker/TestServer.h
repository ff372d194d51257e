#pragma once

#include <omniORB4/CORBA.h>

#include <functional>
#include <string>
#include <vector>

#include "TestServants.h"
#include "broker/Orb.h"
#include "support/RawPeer.h"
#include "support/TestCertificates.h"

namespace BrokerTest {

// The authority that everyone in these tests trusts.
TestSupport::TestCa& Authority();
const TestSupport::Issued& RouterIdentity();  // "router"
const TestSupport::Issued& PeerIdentity();    // "agent-1"

// The process's ORB on a port of this machine, with a few objects. Made and destroyed any number of
// times, one at a time.
class TestServer {
 public:
  struct Options {
    unsigned threads = 4;
    unsigned connectionLimit = 0;
    unsigned keepAliveSeconds = Broker::OrbSettings().keepAliveSeconds;
    unsigned peerTimeoutSeconds = Broker::OrbSettings().peerTimeoutSeconds;
    bool withIdentity = true;
    std::vector<std::string> arguments = {"-ORBendPoint", "giop:ssl:127.0.0.1:"};
    std::function<std::string()> name = [] { return "router"; };
    std::function<void()> callBack = [] {};
    void (*tlsInfo)(const SSL*, int, int) = nullptr;
  };

  TestServer() : TestServer(Options()) {}
  explicit TestServer(const Options& options);
  ~TestServer();

  Broker::Orb& Orb() { return *orb_; }
  unsigned short Port() const { return orb_->ListeningPort(); }
  // Each object has its name as its object key.
  void Activate(const char* key, PortableServer::Servant servant);

  TestSupport::RawPeer Peer() const { return {Port(), Authority(), &PeerIdentity()}; }
  TestSupport::RawPeer Stranger() const { return {Port(), Authority(), nullptr}; }

 private:
  std::unique_ptr<Broker::Orb> orb_;
  PortableServer::POA_var adapter_;
};

// The name that a reply to GetName carries.
std::string NameIn(const TestSupport::GiopReplyMessage& reply);
// "corbaloc:ssliop:..." of an object of a server on this machine.
std::string Locator(unsigned short port, const char* key);

// Of this process.
std::size_t Descriptors();
std::size_t Threads();

// Waits for something that another thread brings about. False if it doesn't happen.
bool Eventually(const std::function<bool()>& condition);

}  // namespace BrokerTest
