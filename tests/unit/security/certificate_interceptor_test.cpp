#include "security/CertificateInterceptor.h"

#include <BrelixMessaging.h>

#include <atomic>
#include <thread>

#include "fixture.h"
#include "logging/Log.h"
#include "platform/Clock.h"
#include "support/FakeClock.h"
#include "support/LogCapture.h"

namespace {

using namespace SecurityTest;
using MessageRouter::CertificateInterceptor;
using MessageRouter::PeerState;

const std::vector<CORBA::Octet> kCertifyId = {0xFF, 'R', 'o', 'u', 't', 'e', 'r', 'C', 0xFE};
const std::vector<CORBA::Octet> kCertifyKey = {0xFF, 'R', 'o', 'u', 't', 'e', 'r', 'C', 0xFE, 7, 0};
const std::vector<CORBA::Octet> kOtherKey = {0xFF, 'R', 'o', 'u', 't', 'e', 'r', 'P', 0xFE, 7, 0};

enum class Outcome { Passes, Rejected, Expired, NoPermission };

class InterceptorTest : public testing::Test {
 protected:
  InterceptorTest()
      : valid_(Decode(Ca().Issue("agent-1", {}).certificatePem)),
        checker_(Orvane::MakeCertificateRegenerationChecker()),
        interceptor_("RouterInterceptor", checker_.get()) {
    TestSupport::IssueOptions over;
    over.days = -1;
    expired_ = Decode(Ca().Issue("agent-1", {}, over).certificatePem);
    interceptor_.SetLogoff([this](const std::string& name) { loggedOff_.push_back(name); });
    interceptor_.SetCertifyAdapter(kCertifyId);
  }

  Outcome CallWith(Broker::Call call, const std::vector<CORBA::Octet>& key) {
    call.objectKey = key.data();
    call.objectKeySize = key.size();
    try {
      interceptor_.OnRequest(call);
      return Outcome::Passes;
    } catch (const BrelixMessaging::Rejected&) {
      return Outcome::Rejected;
    } catch (const BrelixMessaging::CertificateExpired&) {
      return Outcome::Expired;
    } catch (const CORBA::NO_PERMISSION&) {
      return Outcome::NoPermission;
    }
  }
  Outcome CallBy(X509* peer, const char* operation,
                 const std::vector<CORBA::Octet>& key = kOtherKey) {
    return CallWith(TlsCall(operation, peer), key);
  }

  TestSupport::LogCapture log_;
  OpenSsl::X509Ptr valid_;
  OpenSsl::X509Ptr expired_;
  std::unique_ptr<Orvane::ICertificateRegenerationChecker> checker_;
  CertificateInterceptor interceptor_;
  std::vector<std::string> loggedOff_;
};

constexpr const char* kOpen[] = {"GetName",          "GetCACertificate", "GetCRL",
                                 "GetCertification", "CertLogon",        "CertLogoff"};
constexpr const char* kCertify[] = {"GetEnvelope", "AcknowledgeEnvelope", "Heartbeat",
                                    "SendMessage", "Cancel"};
constexpr const char* kClosed[] = {
    "Logon",        "Logoff",         "Register", "Unregister",      "GetClient", "GetRouter",
    "SendEnvelope", "NotifyEnvelope", "getname",  "NoSuchOperation", ""};

TEST_F(InterceptorTest, AValidCertificateMayCallEverythingEverywhere) {
  for (const char* operation : kOpen) EXPECT_EQ(CallBy(valid_.get(), operation), Outcome::Passes);
  for (const char* operation : kCertify) {
    EXPECT_EQ(CallBy(valid_.get(), operation), Outcome::Passes);
  }
  for (const char* operation : kClosed) EXPECT_EQ(CallBy(valid_.get(), operation), Outcome::Passes);
  EXPECT_TRUE(loggedOff_.empty());
}

TEST_F(InterceptorTest, WhatLeadsToACertificateIsOpenToAnyCallerOnAnyAdapter) {
  for (X509* const peer : {static_cast<X509*>(nullptr), expired_.get()}) {
    for (const char* operation : kOpen) {
      EXPECT_EQ(CallBy(peer, operation), Outcome::Passes) << operation;
      EXPECT_EQ(CallBy(peer, operation, kCertifyKey), Outcome::Passes) << operation;
    }
  }
  EXPECT_TRUE(loggedOff_.empty());
}

TEST_F(InterceptorTest, GetNameWorksWithNoClientCertificate) {
  EXPECT_EQ(CallBy(nullptr, "GetName"), Outcome::Passes);
}

TEST_F(InterceptorTest, LogonWithNoClientCertificateIsRejected) {
  EXPECT_EQ(CallBy(nullptr, "Logon"), Outcome::Rejected);
}

TEST_F(InterceptorTest, TheCertifyAdapterIsOpenToAnyCallerForTheExchangeOfEnvelopes) {
  for (const char* operation : kCertify) {
    EXPECT_EQ(CallBy(nullptr, operation, kCertifyKey), Outcome::Passes) << operation;
    EXPECT_EQ(CallBy(nullptr, operation, kOtherKey), Outcome::Rejected) << operation;
    EXPECT_EQ(CallBy(expired_.get(), operation, kCertifyKey), Outcome::Passes) << operation;
    EXPECT_EQ(CallBy(expired_.get(), operation, kOtherKey), Outcome::Expired) << operation;
  }
}

TEST_F(InterceptorTest, AllElseNeedsAValidCertificateOnEveryAdapter) {
  for (const char* operation : kClosed) {
    EXPECT_EQ(CallBy(nullptr, operation, kCertifyKey), Outcome::Rejected) << operation;
    EXPECT_EQ(CallBy(expired_.get(), operation, kCertifyKey), Outcome::Expired) << operation;
  }
}

TEST_F(InterceptorTest, HeartbeatWithAnExpiredCertificatePassesOnTheCertifyAdapter) {
  EXPECT_EQ(CallBy(expired_.get(), "Heartbeat", kCertifyKey), Outcome::Passes);
  EXPECT_TRUE(loggedOff_.empty());
}

TEST_F(InterceptorTest, HeartbeatWithAnExpiredCertificateElsewhereLogsTheCallerOff) {
  EXPECT_EQ(CallBy(expired_.get(), "Heartbeat"), Outcome::Expired);
  EXPECT_EQ(loggedOff_, std::vector<std::string>{"agent-1"});
  EXPECT_TRUE(log_.Has(MessageRouter::kLogInfo,
                       "Heartbeat() called with expired certificate, logging caller off...\n"));
}

TEST_F(InterceptorTest, WhatTheLogoffThrowsIsSwallowed) {
  interceptor_.SetLogoff([](const std::string&) { throw BrelixMessaging::NotRegistered(); });
  EXPECT_EQ(CallBy(expired_.get(), "Heartbeat"), Outcome::Expired);
  interceptor_.SetLogoff([](const std::string&) { throw std::runtime_error("x"); });
  EXPECT_EQ(CallBy(expired_.get(), "Heartbeat"), Outcome::Expired);
}

TEST_F(InterceptorTest, AnExpiredCertificateWithoutANameIsRefusedWithoutALogoff) {
  const Celdane::DistinguishedName nobody = [] {
    Celdane::DistinguishedName name;
    name.SetName("", "", "", "", "firm", "");
    return name;
  }();
  X509_set_subject_name(expired_.get(), nobody.Get());
  EXPECT_EQ(CallBy(expired_.get(), "Heartbeat"), Outcome::Expired);
  EXPECT_TRUE(loggedOff_.empty());
  EXPECT_FALSE(log_.Contains("expired certificate"));
}

TEST_F(InterceptorTest, ACertificateThatExpiresMeanwhileIsRefusedAtTheNextCall) {
  TestSupport::FakeClock clock(Platform::Clock::Instance().WallSeconds());
  EXPECT_EQ(CallBy(valid_.get(), "SendMessage"), Outcome::Passes);
  clock.AdvanceWall(31L * 24 * 60 * 60);
  EXPECT_EQ(CallBy(valid_.get(), "SendMessage"), Outcome::Expired);
  EXPECT_EQ(loggedOff_, std::vector<std::string>{"agent-1"});
}

TEST_F(InterceptorTest, ACertificateThatIsNotValidYetIsAsGoodAsAValidOne) {
  TestSupport::FakeClock clock(1'000'000'000);
  EXPECT_EQ(CallBy(valid_.get(), "SendMessage"), Outcome::Passes);
}

TEST_F(InterceptorTest, ACallWithoutTlsHasNoPermissionWhateverItCalls) {
  for (const char* operation : {"GetName", "Logon", "Heartbeat"}) {
    Broker::Call call;
    call.operation = operation;
    EXPECT_EQ(CallWith(call, kCertifyKey), Outcome::NoPermission) << operation;
  }
}

TEST_F(InterceptorTest, WithoutACertifyAdapterNoKeyIsTakenForIts) {
  interceptor_.SetCertifyAdapter({});
  EXPECT_EQ(CallBy(nullptr, "Heartbeat", kCertifyKey), Outcome::Rejected);
  EXPECT_EQ(CallBy(nullptr, "Heartbeat", {}), Outcome::Rejected);
}

TEST_F(InterceptorTest, AKeyThatIsShorterThanTheAdaptersIdIsNotIts) {
  EXPECT_EQ(CallBy(nullptr, "Heartbeat", {0xFF, 'R'}), Outcome::Rejected);
}

TEST_F(InterceptorTest, RefusesIfTheAdapterCannotBeCompared) {
  ThreadHelper::FailNextLocks(1);
  EXPECT_EQ(CallBy(nullptr, "Heartbeat", kCertifyKey), Outcome::Rejected);
}

TEST_F(InterceptorTest, TheFirstStepClassifiesAndOpensWhatIsOpenToAnyone) {
  const auto state = [&](X509* peer, const char* operation) {
    return interceptor_.receive_request_service_contexts(TlsCall(operation, peer));
  };
  EXPECT_EQ(state(valid_.get(), "Logon"), PeerState::Valid);
  EXPECT_EQ(state(nullptr, "Cancel"), PeerState::Missing);
  EXPECT_EQ(state(expired_.get(), "Cancel"), PeerState::Expired);
  EXPECT_EQ(state(expired_.get(), "GetName"), PeerState::Valid);
}

TEST_F(InterceptorTest, AShaCertificateOfAnyPeerTellsThatTheManagerIssuesThem) {
  CallBy(expired_.get(), "Logon");
  EXPECT_TRUE(checker_->GetServerSupportsSHA());
  EXPECT_TRUE(log_.Has(MessageRouter::kLogTrace,
                       "Peer certificate hashing algorithm: sha256WithRSAEncryption"));
  EXPECT_TRUE(
      log_.Has(MessageRouter::kLogDebug,
               "The Certification Manager can issue certificates using a SHA hashing algorithm."));
}

TEST_F(InterceptorTest, OnceThatIsKnownCertificatesAreNotLookedAtForIt) {
  checker_->SetServerSupportsSHA(true);
  CallBy(valid_.get(), "GetName");
  EXPECT_FALSE(log_.Contains("hashing algorithm"));
}

TEST_F(InterceptorTest, ACertificateWithAnotherDigestTellsNothing) {
  TestSupport::IssueOptions sha1;
  sha1.digest = "SHA1";
  const OpenSsl::X509Ptr weak = Decode(Ca().Issue("agent-1", {}, sha1).certificatePem);
  EXPECT_EQ(CallBy(weak.get(), "Logon"), Outcome::Passes);
  CallBy(nullptr, "GetName");
  EXPECT_FALSE(checker_->GetServerSupportsSHA());
}

TEST_F(InterceptorTest, DoesWithoutAChecker) {
  CertificateInterceptor alone("alone", nullptr);
  EXPECT_NO_THROW(alone.OnRequest(TlsCall("Logon", valid_.get())));
  EXPECT_EQ(alone.Name(), "alone");
}

TEST_F(InterceptorTest, ServesManyThreadsWhileTheAdapterChanges) {
  std::atomic<int> passed{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      for (int n = 0; n < 200; ++n) {
        if (CallBy(valid_.get(), "SendMessage") == Outcome::Passes) ++passed;
        CallBy(nullptr, "Heartbeat", kCertifyKey);
      }
    });
  }
  for (int n = 0; n < 200; ++n) {
    interceptor_.SetCertifyAdapter({});
    interceptor_.SetCertifyAdapter(kCertifyId);
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(passed, 800);
}

}  // namespace
