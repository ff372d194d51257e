#include <BrelixMessaging.h>

#include <functional>
#include <string>

#include "lone_router.h"
#include "servants/ServantHelper.h"
#include "support/RawPeer.h"

namespace MessageRouter {

class RouterAccess {
 public:
  static void RefreshCertificate() { Router::instance().GetCertificate(); }
  static ParentLogon& TheParentLogon() { return Router::instance().parentLogon_; }
};

namespace {

using TestSupport::GiopReplyMessage;
using TestSupport::RawPeer;

// A whole router, with its own adapters and their keys.
class StartedRouter : public CertifiedRouter {
 protected:
  // Runs on the main thread while the router serves requests.
  static void WhileItRuns(const std::function<void()>& body) {
    bool done = false;
    Router::Surroundings surroundings;
    surroundings.sleep = [&](unsigned) {
      if (!done) body();
      done = true;
      Router::instance().Shutdown();
    };
    Router::instance().SetSurroundings(surroundings);
    EXPECT_EQ(RunRouter(), 0);
    EXPECT_TRUE(done);
  }

  bool Logged(const std::string& line) const { return Count(LogText(), line + "\n") > 0; }

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
};

constexpr char kRejected[] = "IDL:BrelixMessaging/Rejected:1.0";
constexpr char kExpired[] = "IDL:BrelixMessaging/CertificateExpired:1.0";
constexpr char kLoggedOff[] = "Heartbeat() called with expired certificate, logging caller off...";
constexpr char kReached[] = "CertMessageConsumer::Heartbeat() called";

TEST_F(StartedRouter, LetsAHeartbeatWithAnExpiredCertificateReachAnObjectOfTheCertifyAdapter) {
  const TestSupport::Issued expired = Expired("agent-1");
  WhileItRuns([&] {
    const BrelixMessaging::MessageConsumer_var object =
        RouterServants::ServantHelper::instance().CreateCertConsumer("agent-1");
    EXPECT_EQ(Heartbeat(object, &expired), kRejected);  // the object's own answer
  });
  EXPECT_TRUE(Logged(kReached));
  EXPECT_FALSE(Logged(kLoggedOff));
}

TEST_F(StartedRouter, LetsAHeartbeatWithoutACertificateReachAnObjectOfTheCertifyAdapter) {
  WhileItRuns([] {
    const BrelixMessaging::MessageConsumer_var object =
        RouterServants::ServantHelper::instance().CreateCertConsumer("agent-1");
    EXPECT_EQ(Heartbeat(object, nullptr), kRejected);
  });
  EXPECT_TRUE(Logged(kReached));
}

TEST_F(StartedRouter, RefusesAHeartbeatWithAnExpiredCertificateOnTheTransientAdapter) {
  const TestSupport::Issued expired = Expired("agent-1");
  WhileItRuns([&] {
    const BrelixMessaging::MessageConsumer_var object =
        RouterServants::ServantHelper::instance().CreateClientConsumer();
    EXPECT_EQ(Heartbeat(object, &expired), kExpired);
  });
  EXPECT_TRUE(Logged(kLoggedOff));
  EXPECT_FALSE(Logged("ClientMessageConsumer::Heartbeat() called"));
}

TEST_F(StartedRouter, ForgetsTheAddressTowardsItsParentWhenItStops) {
  WhileItRuns([] { SetConfigInt("HostIPToParent", 0x0A000001); });
  EXPECT_EQ(GetConfigInt("HostIPToParent", 99), 0u);
}

TEST_F(StartedRouter, WithAReferenceThatOthersCannotUseSearchesNoParent) {
  SetConfigString("ParentAddress", "127.0.0.1");
  WhileItRuns([] {});
  const std::string log = LogText();
  EXPECT_EQ(Count(log, "This router's IOR is invalid\n"), 1u);
  EXPECT_EQ(Count(log, "MessageRouter::IOR_Sender derived from"), 1u);
  EXPECT_EQ(Count(log, "MessageRouter::ParentLogon derived from"), 0u);
}

// The parent's address goes while the thread runs, and a refreshed certificate makes the router one
// without a parent. The name has two dots in a row, so that nobody is asked for it.
TEST_F(StartedRouter, StopsItsParentLogonThoughItHasNoParentAnyMore) {
  SetConfigString("ParentAddress", "no..name");
  ParentLogon& logon = RouterAccess::TheParentLogon();
  WhileItRuns([&] {
    // A router whose reference others can use has started it.
    logon.Start();
    SetConfigString("ParentAddress", "");
    RouterAccess::RefreshCertificate();
    EXPECT_FALSE(Router::instance().HasParent());
  });
  EXPECT_NO_THROW(logon.Start()) << "it runs still";
  logon.Stop();
}

}  // namespace
}  // namespace MessageRouter
