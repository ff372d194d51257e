#include "servants/ServantHelper.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "ServantWorld.h"

namespace ServantTests {
namespace {

using RouterServants::DestroyServantHelper;
using RouterServants::InitializeServantHelper;
using RouterServants::ServantHelper;

std::string FailureOfInstance() {
  try {
    ServantHelper::instance();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

TEST(ServantHelperTest, ThereIsNoneBeforeTheStart) {
  EXPECT_EQ(FailureOfInstance(), "ServantHelper not initialized");
}

TEST(ServantHelperTest, ThereIsNoneAfterTheStop) {
  Adapters adapters;
  InitializeServantHelper(adapters.transient, adapters.certify);
  DestroyServantHelper();
  EXPECT_EQ(FailureOfInstance(), "ServantHelper not initialized");
}

TEST(ServantHelperTest, ASecondStartAndStopAreHarmless) {
  Adapters adapters;
  InitializeServantHelper(adapters.transient, adapters.certify);
  InitializeServantHelper(adapters.transient, adapters.certify);
  EXPECT_EQ(FailureOfInstance(), "");
  DestroyServantHelper();
  DestroyServantHelper();
}

class ServantHelperObjects : public testing::Test {
 protected:
  ServantHelperObjects() { InitializeServantHelper(adapters.transient, adapters.certify); }
  ~ServantHelperObjects() override { DestroyServantHelper(); }

  ServantHelper& Helper() { return ServantHelper::instance(); }
  static bool StandsOn(PortableServer::POA_ptr adapter, CORBA::Object_ptr object) {
    try {
      const PortableServer::Servant servant = adapter->reference_to_servant(object);
      servant->_remove_ref();
      return true;
    } catch (const PortableServer::POA::WrongAdapter&) {
      return false;
    } catch (const PortableServer::POA::ObjectNotActive&) {
      return false;
    }
  }

  Adapters adapters;
};

TEST_F(ServantHelperObjects, PeerObjectsStandOnTheTransientAdapter) {
  const BrelixMessaging::MessageConsumer_var clientConsumer = Helper().CreateClientConsumer();
  const BrelixMessaging::EnvelopeSupplier_var clientSupplier = Helper().CreateClientSupplier();
  const BrelixMessaging::RouterConsumer_var routerConsumer = Helper().CreateRouterConsumer();
  const BrelixMessaging::RouterSupplier_var routerSupplier = Helper().CreateRouterSupplier();
  const BrelixMessaging::NotifyConsumer_var notify = Helper().CreateNotifyConsumer();
  EXPECT_TRUE(StandsOn(adapters.transient, clientConsumer));
  EXPECT_TRUE(StandsOn(adapters.transient, clientSupplier));
  EXPECT_TRUE(StandsOn(adapters.transient, routerConsumer));
  EXPECT_TRUE(StandsOn(adapters.transient, routerSupplier));
  EXPECT_TRUE(StandsOn(adapters.transient, notify));
}

TEST_F(ServantHelperObjects, CertificationObjectsStandOnTheCertifyAdapter) {
  const BrelixMessaging::MessageConsumer_var consumer = Helper().CreateCertConsumer("new-peer");
  const BrelixMessaging::EnvelopeSupplier_var supplier = Helper().CreateCertSupplier("new-peer");
  EXPECT_TRUE(StandsOn(adapters.certify, consumer));
  EXPECT_TRUE(StandsOn(adapters.certify, supplier));
  EXPECT_FALSE(StandsOn(adapters.transient, consumer));
}

TEST_F(ServantHelperObjects, EachObjectIsANewOne) {
  const BrelixMessaging::NotifyConsumer_var first = Helper().CreateNotifyConsumer();
  const BrelixMessaging::NotifyConsumer_var second = Helper().CreateNotifyConsumer();
  EXPECT_FALSE(first->_is_equivalent(second));
}

// The first count is the adapter's, the second this test's.
TEST_F(ServantHelperObjects, TheAdapterIsTheOnlyOwnerOfAServant) {
  const BrelixMessaging::NotifyConsumer_var object = Helper().CreateNotifyConsumer();
  const PortableServer::ServantBase_var servant = adapters.transient->reference_to_servant(object);
  EXPECT_EQ(servant->_refcount_value(), 2u);
  Helper().Deactivate(object);
  EXPECT_EQ(servant->_refcount_value(), 1u);
}

TEST_F(ServantHelperObjects, DeactivateOfANilReferenceDoesNothing) {
  EXPECT_NO_THROW(Helper().Deactivate(CORBA::Object::_nil()));
}

TEST_F(ServantHelperObjects, DeactivateTakesAPeersObjectAway) {
  const BrelixMessaging::MessageConsumer_var object = Helper().CreateClientConsumer();
  Helper().Deactivate(object);
  EXPECT_FALSE(StandsOn(adapters.transient, object));
  EXPECT_THROW(object->Heartbeat(), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(ServantHelperObjects, DeactivateTakesACertificationConsumerAway) {
  const BrelixMessaging::MessageConsumer_var object = Helper().CreateCertConsumer("new-peer");
  Helper().Deactivate(object);
  EXPECT_FALSE(StandsOn(adapters.certify, object));
}

TEST_F(ServantHelperObjects, AnObjectOfNeitherAdapterIsRefused) {
  const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId("Other");
  const CORBA::Object_var object =
      adapters.persistent->create_reference_with_id(id, "IDL:BrelixMessaging/Client:1.0");
  EXPECT_THROW(Helper().Deactivate(object), PortableServer::POA::WrongAdapter);
}

}  // namespace
}  // namespace ServantTests
