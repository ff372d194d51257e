#include <BrelixMessaging.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "config/ACE_XPlatform_Configuration.h"
#include "config/Configuration.h"
#include "core/Router.h"
#include "logging/Log.h"
#include "platform/Network.h"
#include "servants/ServantHelper.h"
#include "support/RawPeer.h"
#include "support/ScratchConfiguration.h"
#include "support/TestCertificates.h"

namespace MessageRouter {
namespace {

using TestSupport::GiopReplyMessage;
using TestSupport::RawPeer;

TestSupport::TestCa& Ca() {
  static TestSupport::TestCa ca;
  return ca;
}

// A whole router in this process, with its own adapters and their keys.
class StartedRouter : public testing::Test {
 protected:
  StartedRouter() {
    const std::filesystem::path store = configuration_.RouterFolder() / "Private";
    std::filesystem::create_directories(store);
    const TestSupport::Issued identity = Ca().Issue("router-1", {1});
    std::ofstream(store / "ca.pem") << Ca().CaPem();
    std::ofstream(store / "certificate.pem") << identity.certificatePem;
    std::ofstream(store / "key.pem") << identity.keyPem;
    Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{0x0A000001}; });
    SetConfigBool("LogConsole", false);
    SetConfigInt("LogLevel", 2);
    SetConfigInt("IORSenderPort", 0);
    InitializeRouter(new ACE_XPlatform_Configuration(kLocalMachine, kSharedStorePath),
                     std::string(kSectionRoot) + "\\Router", "Router", 3, argv_);
    thread_ = std::thread([this] {
      RunRouter();
      ended_ = true;
    });
    while (Cycle::Current() == nullptr && !ended_) std::this_thread::yield();
  }
  ~StartedRouter() override {
    Router::instance().Shutdown();
    thread_.join();
    DestroyRouter();
    CloseLog();
    Platform::SetHostAddressSource(nullptr);
  }

  void SetUp() override { ASSERT_FALSE(ended_) << LogText(); }

  std::string LogText() const {
    std::string text;
    for (const auto& file :
         std::filesystem::directory_iterator(configuration_.RouterFolder() / "Logs")) {
      std::ifstream stream(file.path());
      text.append(std::istreambuf_iterator<char>(stream), {});
    }
    return text;
  }
  bool Logged(const std::string& line) const {
    return LogText().find(line + "\n") != std::string::npos;
  }

  // What the router answers to a Heartbeat at the object, by the exception's name.
  static std::string Heartbeat(CORBA::Object_ptr object, const TestSupport::Issued* identity) {
    const std::string ior = Router::instance().ObjectToString(object);
    RawPeer peer(TestSupport::TlsPortOf(ior), Ca(), identity);
    const GiopReplyMessage reply = peer.Call(TestSupport::ObjectKeyOf(ior), "Heartbeat");
    return reply.status == GiopReplyMessage::kUserException ? reply.exceptionId : "none";
  }

  static TestSupport::Issued Expired(const std::string& name) {
    TestSupport::IssueOptions over;
    over.days = -1;
    return Ca().Issue(name, {}, over);
  }

  TestSupport::ScratchConfiguration configuration_;
  std::string arguments_[3] = {"router", "-ORBendPoint", "giop:ssl:127.0.0.1:"};
  char* argv_[4] = {arguments_[0].data(), arguments_[1].data(), arguments_[2].data(), nullptr};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

constexpr char kRejected[] = "IDL:BrelixMessaging/Rejected:1.0";
constexpr char kExpired[] = "IDL:BrelixMessaging/CertificateExpired:1.0";
constexpr char kLoggedOff[] = "Heartbeat() called with expired certificate, logging caller off...";
constexpr char kReached[] = "CertMessageConsumer::Heartbeat() called";

TEST_F(StartedRouter, LetsAHeartbeatWithAnExpiredCertificateReachAnObjectOfTheCertifyAdapter) {
  const BrelixMessaging::MessageConsumer_var object =
      RouterServants::ServantHelper::instance().CreateCertConsumer("agent-1");
  const TestSupport::Issued expired = Expired("agent-1");
  EXPECT_EQ(Heartbeat(object, &expired), kRejected);  // the object's own answer
  EXPECT_TRUE(Logged(kReached));
  EXPECT_FALSE(Logged(kLoggedOff));
}

TEST_F(StartedRouter, LetsAHeartbeatWithoutACertificateReachAnObjectOfTheCertifyAdapter) {
  const BrelixMessaging::MessageConsumer_var object =
      RouterServants::ServantHelper::instance().CreateCertConsumer("agent-1");
  EXPECT_EQ(Heartbeat(object, nullptr), kRejected);
  EXPECT_TRUE(Logged(kReached));
}

TEST_F(StartedRouter, RefusesAHeartbeatWithAnExpiredCertificateOnTheTransientAdapter) {
  const BrelixMessaging::MessageConsumer_var object =
      RouterServants::ServantHelper::instance().CreateClientConsumer();
  const TestSupport::Issued expired = Expired("agent-1");
  EXPECT_EQ(Heartbeat(object, &expired), kExpired);
  EXPECT_TRUE(Logged(kLoggedOff));
  EXPECT_FALSE(Logged("ClientMessageConsumer::Heartbeat() called"));
}

}  // namespace
}  // namespace MessageRouter
