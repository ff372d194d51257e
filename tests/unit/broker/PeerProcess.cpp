#include "PeerProcess.h"

#include <openssl/x509.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "TestServer.h"
#include "broker/CorbaExceptions.h"
#include "broker/CurrentCall.h"
#include "support/ScratchFolder.h"

namespace BrokerTest {
namespace {

constexpr char kPeerArgument[] = "--peer";

// The identities of this process, for the other one, which would need long to make its own.
const std::string& IdentityFolder() {
  static const TestSupport::ScratchFolder folder;
  static const std::string path = [] {
    folder.Write("ca.pem", Authority().CaPem());
    folder.Write("certificate.pem", PeerIdentity().certificatePem);
    folder.Write("key.pem", PeerIdentity().keyPem);
    return folder.Folder().string();
  }();
  return path;
}

std::string CallerName() {
  const Broker::Call* const call = Broker::CurrentCall();
  if (call == nullptr || call->certificate == nullptr) return "(none)";
  char name[128] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(call->certificate), NID_commonName, name,
                            sizeof name);
  return name;
}

class OtherOrb {
 public:
  explicit OtherOrb(const std::string& folder, bool server) {
    Broker::OrbSettings settings;
    settings.threads = 1;
    settings.server = server;
    settings.configureTls = [&folder](SSL_CTX* context) {
      const TestSupport::Issued identity{TestSupport::TextOf(folder + "/certificate.pem"),
                                         TestSupport::TextOf(folder + "/key.pem")};
      TestSupport::ConfigureTls(context, TestSupport::TextOf(folder + "/ca.pem"), &identity);
    };
    char argument[] = "-ORBendPoint";
    char endpoint[] = "giop:ssl:127.0.0.1:";
    char* arguments[] = {argument, endpoint, nullptr};
    int count = server ? 2 : 0;
    orb_ = std::make_unique<Broker::Orb>(count, server ? arguments : arguments + 2, settings);
  }

  Broker::Orb& Orb() { return *orb_; }

  template <class Interface>
  typename Interface::_ptr_type Find(unsigned short port, const char* key) {
    const CORBA::Object_var object = orb_->Get()->string_to_object(Locator(port, key).c_str());
    return Interface::_unchecked_narrow(object);
  }

 private:
  std::unique_ptr<Broker::Orb> orb_;
};

int RunCalls(OtherOrb& other, unsigned short port, unsigned threads, unsigned calls) {
  const BrelixMessaging::MessageRouter_var router =
      other.Find<BrelixMessaging::MessageRouter>(port, kRouterKey);
  std::atomic<unsigned> failures{0};
  std::vector<std::thread> workers;
  for (unsigned i = 0; i < threads; ++i) {
    workers.emplace_back([&, i] {
      for (unsigned call = 0; call < calls; ++call) {
        try {
          const CORBA::String_var name = Broker::RepeatOnce([&] { return router->GetName(); });
        } catch (const CORBA::Exception& exception) {
          std::fprintf(stderr, "%s\n", Broker::Describe(exception).c_str());
          ++failures;
        }
        // Now and then a pause that is long enough for a purge.
        if ((call + i) % 50 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(300));
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  return failures == 0 ? 0 : 1;
}

int RunServer(OtherOrb& other, unsigned short port, unsigned calls) {
  const CORBA::Object_var root = other.Orb().Get()->resolve_initial_references("omniINSPOA");
  const PortableServer::POA_var adapter = PortableServer::POA::_narrow(root);
  const auto activate = [&adapter](const char* key, PortableServer::Servant servant) {
    const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(key);
    adapter->activate_object_with_id(id, servant);
    servant->_remove_ref();
  };
  const BrelixMessaging::MessageConsumer_var consumer =
      other.Find<BrelixMessaging::MessageConsumer>(port, kConsumerKey);
  activate(kRouterKey, new TestRouter(&CallerName));
  activate(kConsumerKey, new TestConsumer);
  activate(kNotifyKey, new TestNotify([consumer] { consumer->Heartbeat(); }));
  const PortableServer::POAManager_var manager = adapter->the_POAManager();
  manager->activate();
  std::printf("%u\n", static_cast<unsigned>(other.Orb().ListeningPort()));
  std::fflush(stdout);

  const BrelixMessaging::NotifyConsumer_var notify =
      other.Find<BrelixMessaging::NotifyConsumer>(port, kNotifyKey);
  for (unsigned call = 0; call < calls; ++call) notify->Notify();
  std::printf("done\n");
  std::fflush(stdout);
  for (;;) ::pause();  // until killed
}

}  // namespace

PeerProcess PeerProcess::Serve(unsigned short port) {
  return PeerProcess({"serve", std::to_string(port), "0", "0"});
}

PeerProcess PeerProcess::Mutual(unsigned short port, unsigned calls) {
  return PeerProcess({"serve", std::to_string(port), "0", std::to_string(calls)});
}

PeerProcess PeerProcess::Call(unsigned short port, unsigned threads, unsigned calls) {
  return PeerProcess(
      {"call", std::to_string(port), std::to_string(threads), std::to_string(calls)});
}

PeerProcess::PeerProcess(const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {"peer", kPeerArgument, IdentityFolder()};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& argument : all) pointers.push_back(argument.data());
  pointers.push_back(nullptr);

  int ends[2];
  if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, ends[0]);
  const int error =
      posix_spawn(&process_, "/proc/self/exe", &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  output_ = ends[0];
  if (error != 0) throw std::runtime_error("no other process");
}

PeerProcess::PeerProcess(PeerProcess&& other) noexcept
    : process_(std::exchange(other.process_, -1)), output_(std::exchange(other.output_, -1)) {}

PeerProcess::~PeerProcess() {
  if (output_ >= 0) ::close(output_);
  if (process_ < 0) return;
  ::kill(process_, SIGKILL);
  Wait();
}

std::string PeerProcess::Line() {
  std::string line;
  char character = 0;
  while (::read(output_, &character, 1) == 1 && character != '\n') line += character;
  return line;
}

int PeerProcess::Wait() {
  int status = 0;
  ::waitpid(std::exchange(process_, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool IsPeer(int argc, char** argv) {
  return argc == 7 && std::strcmp(argv[1], kPeerArgument) == 0;
}

int RunPeer(int, char** argv) {
  const std::string folder = argv[2];
  const auto port = static_cast<unsigned short>(std::strtoul(argv[4], nullptr, 10));
  const auto threads = static_cast<unsigned>(std::strtoul(argv[5], nullptr, 10));
  const auto calls = static_cast<unsigned>(std::strtoul(argv[6], nullptr, 10));
  try {
    const bool server = std::strcmp(argv[3], "serve") == 0;
    OtherOrb other(folder, server);
    return server ? RunServer(other, port, calls) : RunCalls(other, port, threads, calls);
  } catch (const CORBA::Exception& exception) {
    std::fprintf(stderr, "peer: %s\n", Broker::Describe(exception).c_str());
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "peer: %s\n", exception.what());
  }
  return 1;
}

}  // namespace BrokerTest
