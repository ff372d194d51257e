#include "TestServer.h"

#include <chrono>
#include <filesystem>
#include <thread>

namespace BrokerTest {

using TestSupport::CdrReader;
using TestSupport::GiopReplyMessage;
using TestSupport::RawPeer;

namespace {

std::size_t CountEntries(const char* folder) {
  const std::filesystem::directory_iterator begin(folder);
  return static_cast<std::size_t>(std::distance(begin, std::filesystem::directory_iterator()));
}

}  // namespace

TestSupport::TestCa& Authority() {
  static TestSupport::TestCa authority;
  return authority;
}

const TestSupport::Issued& RouterIdentity() {
  static const TestSupport::Issued identity = Authority().Issue("router", {1});
  return identity;
}

const TestSupport::Issued& PeerIdentity() {
  static const TestSupport::Issued identity = Authority().Issue("agent-1", {});
  return identity;
}

TestServer::TestServer(const Options& options) {
  Broker::OrbSettings settings;
  settings.threads = options.threads;
  settings.connectionLimit = options.connectionLimit;
  settings.keepAliveSeconds = options.keepAliveSeconds;
  settings.peerTimeoutSeconds = options.peerTimeoutSeconds;
  settings.tlsInfo = options.tlsInfo;
  settings.configureTls = [withIdentity = options.withIdentity](SSL_CTX* context) {
    TestSupport::ConfigureTls(context, Authority().CaPem(),
                              withIdentity ? &RouterIdentity() : nullptr);
  };
  std::vector<std::string> arguments = options.arguments;
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  int count = static_cast<int>(pointers.size());
  pointers.push_back(nullptr);
  orb_ = std::make_unique<Broker::Orb>(count, pointers.data(), settings);

  // The adapter whose object keys are the object ids.
  const CORBA::Object_var root = orb_->Get()->resolve_initial_references("omniINSPOA");
  adapter_ = PortableServer::POA::_narrow(root);
  Activate(kRouterKey, new TestRouter(options.name));
  Activate(kConsumerKey, new TestConsumer);
  Activate(kNotifyKey, new TestNotify(options.callBack));
  const PortableServer::POAManager_var manager = adapter_->the_POAManager();
  manager->activate();
}

TestServer::~TestServer() = default;

void TestServer::Activate(const char* key, PortableServer::Servant servant) {
  const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(key);
  adapter_->activate_object_with_id(id, servant);
  servant->_remove_ref();
}

std::string NameIn(const GiopReplyMessage& reply) {
  if (reply.status != GiopReplyMessage::kNoException) return "exception " + reply.exceptionId;
  return CdrReader(reply.body).Text();
}

std::string Locator(unsigned short port, const char* key) {
  return "corbaloc:ssliop:1.2@127.0.0.1:" + std::to_string(port) + "/" + key;
}

std::size_t Descriptors() {
  return CountEntries("/proc/self/fd");
}
std::size_t Threads() {
  return CountEntries("/proc/self/task");
}

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + RawPeer::kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace BrokerTest
