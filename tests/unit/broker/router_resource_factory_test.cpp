#include "broker/Router_Resource_Factory.h"

#include <gmock/gmock.h>

#include "config/Configuration.h"
#include "logging/Log.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace {

using MessageRouter::kLogInfo;
using MessageRouter::kLogWarning;
using MessageRouter::Router_Resource_Factory;
using MessageRouter::SetConfigInt;

class RouterResourceFactoryTest : public testing::Test {
 protected:
  TestSupport::ScratchConfiguration configuration_;
  TestSupport::LogCapture log_;
};

TEST_F(RouterResourceFactoryTest, LimitIsTenWithoutAValue) {
  EXPECT_EQ(Router_Resource_Factory(138, 1000).cache_maximum(), 10u);
  EXPECT_TRUE(log_.Has(kLogInfo, "Connection cache limit is 10\n"));
}

TEST_F(RouterResourceFactoryTest, ValueAboveTheDescriptorsIsCutWithAWarning) {
  SetConfigInt("ConnectionCache", 500);
  EXPECT_EQ(Router_Resource_Factory(138, 1000).cache_maximum(), 138u);
  EXPECT_TRUE(
      log_.Has(kLogWarning, "Connection cache limit (500) is greater than ACE_FD_SETSIZE (138)\n"));
  EXPECT_TRUE(log_.Has(kLogInfo, "Connection cache limit is 138\n"));
}

TEST_F(RouterResourceFactoryTest, ZeroStandsForTheBuiltInMaximum) {
  SetConfigInt("ConnectionCache", 0);
  EXPECT_EQ(Router_Resource_Factory(128, 1000).cache_maximum(), 1000u);
  EXPECT_TRUE(log_.Has(kLogInfo, "Connection cache limit is 1000\n"));
}

TEST_F(RouterResourceFactoryTest, ValueOfExactlyTheDescriptorsDrawsNoWarning) {
  SetConfigInt("ConnectionCache", 138);
  EXPECT_EQ(Router_Resource_Factory(138, 1000).cache_maximum(), 138u);
  EXPECT_FALSE(log_.Contains("is greater than"));
}

}  // namespace
