#include <openssl/ssl.h>

#include <memory>

#include "broker/Orb.h"
#include "config/Configuration.h"
#include "fixture.h"
#include "security/OwnIdentity.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/ScratchConfiguration.h"

namespace {

using namespace SecurityTest;
using TestSupport::RawPeer;

// A router's ORB, made as a cycle makes it.
class OrbProtocols : public testing::Test {
 protected:
  OrbProtocols() : context_(MessageRouter::CertificateContextAccess::Make()) {
    const std::string store = (scratch_.Folder() / "store").string();
    context_->SetPrivateLocation(store);
    WriteStore(store, Ca().CaPem(), Ca().Issue("router-1", {1}));
  }
  ~OrbProtocols() override {
    orb_.reset();
    Broker::SetRequestHook(nullptr);
    MessageRouter::OwnIdentity::Set("", "");
  }

  void MakeOrb() {
    context_->Initialise();
    context_->ConfigureSslContext();
    Broker::OrbSettings settings;
    settings.configureTls = [this](SSL_CTX* context) { context_->ConfigureCycle(context); };
    std::string arguments[] = {"router", "-ORBendPoint", "giop:ssl:127.0.0.1:"};
    char* argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
    int argc = 3;
    orb_ = std::make_unique<Broker::Orb>(argc, argv, settings);
    context_->LoadCredentials(orb_->TlsContext());
    // The level of the system refuses the old versions by itself; here the options have to.
    SSL_CTX_set_security_callback(orb_->TlsContext(), [](const SSL*, const SSL_CTX*, int, int, int,
                                                         void*, void*) { return 1; });
    const CORBA::Object_var root = orb_->Get()->resolve_initial_references("RootPOA");
  }

  bool Speaks(int version) {
    return RawPeer(orb_->ListeningPort(), Ca(), nullptr, version).Connected();
  }

  TestSupport::ScratchConfiguration scratch_;
  TestSupport::LogCapture log_;
  std::unique_ptr<MessageRouter::CertificateContext> context_;
  std::unique_ptr<Broker::Orb> orb_;
};

TEST_F(OrbProtocols, OldOnesStayByDefault) {
  MakeOrb();
  EXPECT_TRUE(Speaks(TLS1_VERSION));
  EXPECT_TRUE(Speaks(TLS1_1_VERSION));
  EXPECT_TRUE(Speaks(TLS1_2_VERSION));
  EXPECT_TRUE(Speaks(TLS1_3_VERSION));
}

TEST_F(OrbProtocols, OldOnesAreRefusedWithoutLegacyProtocolSupport) {
  MessageRouter::SetConfigInt("LegacyProtocolSupport", 0);
  MakeOrb();
  EXPECT_FALSE(Speaks(TLS1_VERSION));
  EXPECT_FALSE(Speaks(TLS1_1_VERSION));
  EXPECT_TRUE(Speaks(TLS1_2_VERSION));
  EXPECT_TRUE(Speaks(TLS1_3_VERSION));
}

}  // namespace
