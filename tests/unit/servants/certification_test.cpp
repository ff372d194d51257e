#include "servants/Certification_i.h"

#include <gtest/gtest.h>

#include "ServantWorld.h"
#include "logging/Log.h"
#include "servants/CertEnvelopeSupplier_i.h"
#include "servants/CertMessageConsumer_i.h"
#include "servants/ServantHelper.h"
#include "support/LogCapture.h"

namespace ServantTests {
namespace {

using BrelixMessaging::EnvelopeSupplier_var;
using BrelixMessaging::Message;
using BrelixMessaging::MessageConsumer_var;
using BrelixMessaging::Rejected;
using BrelixMessaging::RouterSupplier;
using BrelixMessaging::RouterSupplier_var;

TEST(Certification, LogonIsRejectedWithOneWarning) {
  const TestSupport::LogCapture log;
  PortableServer::Servant_var<RouterServants::Certification_i> servant(
      new RouterServants::Certification_i);
  MessageConsumer_var consumer;
  EnvelopeSupplier_var supplier;
  EXPECT_THROW(servant->CertLogon("new-peer", consumer.out(), supplier.out()), Rejected);
  ASSERT_EQ(log.Lines().size(), 2u);
  EXPECT_EQ(log.Lines()[0].text, "Certification::CertLogon() called\n");
  EXPECT_EQ(log.Lines()[1].level, MessageRouter::kLogWarning);
}

TEST(Certification, LogoffIsRejectedWithOneWarning) {
  const TestSupport::LogCapture log;
  PortableServer::Servant_var<RouterServants::Certification_i> servant(
      new RouterServants::Certification_i);
  EXPECT_THROW(servant->CertLogoff("new-peer"), Rejected);
  ASSERT_EQ(log.Lines().size(), 2u);
  EXPECT_EQ(log.Lines()[0].text, "Certification::CertLogoff() called\n");
  EXPECT_EQ(log.Lines()[1].level, MessageRouter::kLogWarning);
}

TEST(Certification, TheConsumerRejectsEverything) {
  const TestSupport::LogCapture log;
  PortableServer::Servant_var<RouterServants::CertMessageConsumer_i> servant(
      new RouterServants::CertMessageConsumer_i("new-peer"));
  EXPECT_THROW(servant->SendMessage(Message()), Rejected);
  EXPECT_THROW(servant->Heartbeat(), Rejected);
  EXPECT_THROW(servant->Cancel("new-peer", 1), Rejected);
}

TEST(Certification, TheSupplierRejectsEverything) {
  const TestSupport::LogCapture log;
  PortableServer::Servant_var<RouterServants::CertEnvelopeSupplier_i> servant(
      new RouterServants::CertEnvelopeSupplier_i("new-peer"));
  EXPECT_THROW(servant->GetEnvelope(), Rejected);
  EXPECT_THROW(servant->AcknowledgeEnvelope("new-peer", 1), Rejected);
}

class CertificationObjects : public testing::Test {
 protected:
  CertificationObjects() {
    RouterServants::InitializeServantHelper(adapters_.transient, adapters_.certify);
  }
  ~CertificationObjects() override { RouterServants::DestroyServantHelper(); }

  Adapters adapters_;
};

TEST_F(CertificationObjects, SupplierIsNoRouterSupplierAsANeighboursIs) {
  auto& helper = RouterServants::ServantHelper::instance();
  const EnvelopeSupplier_var certify = helper.CreateCertSupplier("new-peer");
  const EnvelopeSupplier_var neighbours = helper.CreateRouterSupplier();
  const RouterSupplier_var fromCertify = RouterSupplier::_narrow(certify);
  const RouterSupplier_var fromNeighbours = RouterSupplier::_narrow(neighbours);
  EXPECT_FALSE(CORBA::is_nil(certify));
  EXPECT_TRUE(CORBA::is_nil(fromCertify));
  EXPECT_FALSE(CORBA::is_nil(fromNeighbours));
}

}  // namespace
}  // namespace ServantTests
