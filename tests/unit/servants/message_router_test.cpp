#include "servants/MessageRouter_i.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "ServantWorld.h"
#include "config/Configuration.h"
#include "platform/Network.h"
#include "security/CertificateInterceptor.h"
#include "servants/Certification_i.h"
#include "servants/Client_i.h"
#include "servants/Router_i.h"

namespace ServantTests {
namespace {

using BrelixMessaging::Certification_var;
using BrelixMessaging::Client_var;
using BrelixMessaging::Rejected;
using BrelixMessaging::Router_var;
using MessageRouter::SetConfigBool;
using RouterServants::MessageRouter_i;

constexpr std::uint32_t kLoopback = 0x7F000001;

// Both ends of a TCP connection on this machine; the caller's end has the given address.
class Connection {
 public:
  explicit Connection(std::uint32_t address) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(address);
    socklen_t size = sizeof at;
    Require(bind(listener, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0 &&
            listen(listener, 1) == 0 &&
            getsockname(listener, reinterpret_cast<sockaddr*>(&at), &size) == 0);
    caller_ = socket(AF_INET, SOCK_STREAM, 0);
    Require(connect(caller_, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0);
    accepted_ = accept(listener, nullptr, nullptr);
    close(listener);
    Require(accepted_ >= 0);
  }
  ~Connection() {
    close(caller_);
    close(accepted_);
  }
  int Accepted() const { return accepted_; }

 private:
  static void Require(bool condition) {
    if (!condition) throw std::runtime_error("no connection on this machine");
  }
  int caller_ = -1;
  int accepted_ = -1;
};

// While it lives, the thread serves a call that came over that connection.
class CallOver {
 public:
  explicit CallOver(const Connection& connection)
      : context_(SSL_CTX_new(TLS_server_method())), ssl_(SSL_new(context_)) {
    SSL_set_fd(ssl_, connection.Accepted());
    Broker::Call call;
    call.operation = "GetClient";
    call.tls = true;
    call.ssl = ssl_;
    call.socket = connection.Accepted();
    call_ = std::make_unique<Broker::ScopedCall>(call);
  }
  ~CallOver() {
    call_.reset();
    SSL_free(ssl_);
    SSL_CTX_free(context_);
  }

 private:
  SSL_CTX* context_;
  SSL* ssl_;
  std::unique_ptr<Broker::ScopedCall> call_;
};

// An address of this machine that is not a loopback address, or 0.
std::uint32_t LanAddress() {
  for (const std::uint32_t address : Platform::HostAddresses()) {
    if ((address >> 24) != 127) return address;
  }
  return 0;
}

class MessageRouterTest : public ServantWorld {
 protected:
  PortableServer::Servant_var<MessageRouter_i> root{new MessageRouter_i(adapters.persistent)};
};

TEST_F(MessageRouterTest, GetNameIsTheOwnCommonName) {
  const CORBA::String_var name = root->GetName();
  EXPECT_STREQ(name, kRouterName);
  EXPECT_TRUE(log.Has(MessageRouter::kLogTrace, "MessageRouter::GetName() called\n"));
}

TEST_F(MessageRouterTest, GetCACertificateIsEmptyAndNeverFails) {
  const AnonymousCall call;
  const CORBA::String_var text = root->GetCACertificate();
  EXPECT_STREQ(text, "");
  EXPECT_TRUE(log.Has(MessageRouter::kLogTrace, "MessageRouter::GetCACertificate() called\n"));
}

TEST_F(MessageRouterTest, GetCrlIsEmptyAndNeverFails) {
  const AnonymousCall call;
  const CORBA::String_var text = root->GetCRL();
  EXPECT_STREQ(text, "");
  EXPECT_TRUE(log.Has(MessageRouter::kLogTrace, "MessageRouter::GetCRL() called\n"));
}

TEST_F(MessageRouterTest, TheDoorsStandUnderFixedIdsOnThePersistentAdapter) {
  for (const char* name : {"Client", "Router", "Certification"}) {
    const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(name);
    EXPECT_NO_THROW(const CORBA::Object_var object = adapters.persistent->id_to_reference(id))
        << name;
  }
  const Certification_var door = root->GetCertification();
  const PortableServer::ObjectId_var id = adapters.persistent->reference_to_id(door);
  const CORBA::String_var text = PortableServer::ObjectId_to_string(id);
  EXPECT_STREQ(text, "Certification");
}

TEST_F(MessageRouterTest, GetCertificationWorksForAnyCaller) {
  const AnonymousCall call;
  const Certification_var door = root->GetCertification();
  EXPECT_FALSE(CORBA::is_nil(door));
  EXPECT_TRUE(log.Has(MessageRouter::kLogTrace, "MessageRouter::GetCertification() called\n"));
}

TEST_F(MessageRouterTest, GetCertificationIsNilWhereTheInterfaceIsClosed) {
  SetConfigBool("NoCertificationInterface", true);
  const Certification_var door = root->GetCertification();
  EXPECT_TRUE(CORBA::is_nil(door));
}

TEST_F(MessageRouterTest, AClosedClientInterfaceIsRejectedWithoutALine) {
  SetConfigBool("NoClientInterface", true);
  SetConfigBool("LocalClientsOnly", false);
  const CallFrom call("agent-1");
  EXPECT_THROW(root->GetClient(), Rejected);
  EXPECT_EQ(log.Lines().size(), 1u);  // the trace line
}

TEST_F(MessageRouterTest, ACallerFromTheLoopbackAddressIsLocal) {
  const Connection connection(kLoopback);
  const CallOver call(connection);
  const Client_var door = root->GetClient();
  EXPECT_FALSE(CORBA::is_nil(door));
  EXPECT_TRUE(log.Has(MessageRouter::kLogTrace, "MessageRouter::GetClient() called\n"));
}

TEST_F(MessageRouterTest, ACallerFromTheHostsOwnLanAddressIsLocal) {
  const std::uint32_t address = LanAddress();
  if (address == 0) GTEST_SKIP() << "this machine has no address but the loopback one";
  const Connection connection(address);
  const CallOver call(connection);
  const Client_var door = root->GetClient();
  EXPECT_FALSE(CORBA::is_nil(door));
}

TEST_F(MessageRouterTest, ACallerFromAnotherHostIsRejectedAndLogged) {
  const std::uint32_t address = LanAddress();
  if (address == 0) GTEST_SKIP() << "this machine has no address but the loopback one";
  const Connection connection(address);
  const CallOver call(connection);
  // To a host with other addresses that caller is a stranger.
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0xC6336401}; });
  EXPECT_THROW(root->GetClient(), Rejected);
  Platform::SetHostAddressSource(nullptr);
  EXPECT_TRUE(
      log.Has(MessageRouter::kLogError, "Attempt to get client interface from non-local caller\n"));
}

TEST_F(MessageRouterTest, ACallerWhoseAddressIsUnknownIsNotLocal) {
  const CallFrom call("agent-1");
  EXPECT_THROW(root->GetClient(), Rejected);
}

TEST_F(MessageRouterTest, AnyCallerGetsTheClientInterfaceWithoutLocalClientsOnly) {
  SetConfigBool("LocalClientsOnly", false);
  const CallFrom call("agent-1");
  const Client_var door = root->GetClient();
  EXPECT_FALSE(CORBA::is_nil(door));
}

// As the broker does it: the interceptor first, then the operation.
TEST_F(MessageRouterTest, GetClientWithAnExpiredCertificateEndsAtTheInterceptor) {
  LogOnClient("agent-1");
  MessageRouter::CertificateInterceptor interceptor("RouterInterceptor", nullptr);
  interceptor.SetLogoff([this](const std::string& name) { routing.LogoffPeer(name); });
  const CallFrom call("agent-1", {}, Validity::Expired);
  const auto getClient = [&] {
    interceptor.OnRequest(*Broker::CurrentCall());
    root->GetClient();
  };
  EXPECT_THROW(getClient(), BrelixMessaging::CertificateExpired);
  EXPECT_FALSE(log.Contains("MessageRouter::GetClient() called"));
  EXPECT_FALSE(Entry("agent-1").IsLoggedOn());
}

TEST_F(MessageRouterTest, AChangedKeyCountsAtTheNextCall) {
  SetConfigBool("LocalClientsOnly", false);
  const CallFrom call("agent-1");
  const Client_var first = root->GetClient();
  SetConfigBool("NoClientInterface", true);
  EXPECT_THROW(root->GetClient(), Rejected);
  SetConfigBool("NoClientInterface", false);
  const Client_var second = root->GetClient();
  EXPECT_TRUE(first->_is_equivalent(second));
}

TEST_F(MessageRouterTest, ARouterGetsTheRouterInterface) {
  const CallFrom call("child-1", {kRouterRole});
  const Router_var door = root->GetRouter();
  EXPECT_FALSE(CORBA::is_nil(door));
  EXPECT_TRUE(log.Has(MessageRouter::kLogTrace, "MessageRouter::GetRouter() called\n"));
}

TEST_F(MessageRouterTest, ACallerThatIsNoRouterIsRejectedWithoutALine) {
  const CallFrom call("agent-1");
  EXPECT_THROW(root->GetRouter(), Rejected);
  EXPECT_EQ(log.Lines().size(), 1u);
}

TEST_F(MessageRouterTest, ACallerWithoutACertificateGetsNoRouterInterface) {
  const AnonymousCall call;
  EXPECT_THROW(root->GetRouter(), Rejected);
}

TEST_F(MessageRouterTest, AClosedRouterInterfaceIsRejected) {
  SetConfigBool("NoRouterInterface", true);
  const CallFrom call("child-1", {kRouterRole});
  EXPECT_THROW(root->GetRouter(), Rejected);
}

}  // namespace
}  // namespace ServantTests
