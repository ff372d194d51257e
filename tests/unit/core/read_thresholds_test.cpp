#include "core/ReadThresholds.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/Configuration.h"
#include "logging/Log.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace MessageRouter {
namespace {

class ThresholdKeys : public testing::Test {
 protected:
  TestSupport::ScratchConfiguration configuration_;
  TestSupport::LogCapture log_;
};

TEST_F(ThresholdKeys, HaveTheirDefaultsWithoutAWarning) {
  const Thresholds read = ReadThresholds();
  EXPECT_EQ(read.notificationThresholdInitialRetrySecs, 3600u);
  EXPECT_EQ(read.notificationThresholdMaxRetrySecs, 172800u);
  EXPECT_EQ(read.getterShortInterval, 120u);
  EXPECT_EQ(read.getterInterval, 900u);
  EXPECT_TRUE(read.randomizeGetterInterval);
  EXPECT_EQ(read.activeConsumerConnectionTimeout, 1800u);
  for (const auto& line : log_.Lines()) EXPECT_LT(line.level, unsigned{kLogWarning}) << line.text;
  EXPECT_TRUE(log_.Has(kLogDebug, "Setting NotificationThresholdInitialRetrySecs to 3600\n"));
  EXPECT_TRUE(log_.Has(kLogDebug, "Setting NotificationThresholdMaxRetrySecs to 172800\n"));
}

struct ZeroCase {
  const char* key;
  const char* warning;
  std::uint32_t Thresholds::*field;
  std::uint32_t result;
};

class ZeroThreshold : public ThresholdKeys, public testing::WithParamInterface<ZeroCase> {};

TEST_P(ZeroThreshold, IsReplacedByTheDefaultWithAWarning) {
  SetConfigInt(GetParam().key, 0);
  EXPECT_EQ(ReadThresholds().*GetParam().field, GetParam().result);
  EXPECT_TRUE(log_.Has(kLogWarning, GetParam().warning));
}

INSTANTIATE_TEST_SUITE_P(
    Keys, ZeroThreshold,
    testing::Values(
        ZeroCase{"NotificationThresholdInitialRetrySecs",
                 "NotificationThresholdInitialRetrySecs is 0, using default of 3600\n",
                 &Thresholds::notificationThresholdInitialRetrySecs, 3600},
        ZeroCase{"NotificationThresholdMaxRetrySecs",
                 "NotificationThresholdMaxRetrySecs is 0, using default of 172800\n",
                 &Thresholds::notificationThresholdMaxRetrySecs, 172800},
        ZeroCase{"GetterShortInterval",
                 "GetterShortInterval is zero, using value of 120 second/s\n",
                 &Thresholds::getterShortInterval, 120},
        ZeroCase{"GetterInterval", "GetterInterval is zero, using value of 900 second/s\n",
                 &Thresholds::getterInterval, 900},
        ZeroCase{"ActiveConsumerConnectionTimeout",
                 "ActiveConsumerConnectionTimeout is zero, using value of 1800 second/s\n",
                 &Thresholds::activeConsumerConnectionTimeout, 1800}));

TEST_F(ThresholdKeys, AnInitialRetryAboveTheMaximumIsLoweredToIt) {
  SetConfigInt("NotificationThresholdInitialRetrySecs", 500);
  SetConfigInt("NotificationThresholdMaxRetrySecs", 400);
  EXPECT_EQ(ReadThresholds().notificationThresholdInitialRetrySecs, 400u);
  EXPECT_TRUE(log_.Has(kLogWarning,
                       "NotificationThresholdInitialRetrySecs is greater than "
                       "NotificationThresholdMaxRetrySecs, using the same value of 400\n"));
}

TEST_F(ThresholdKeys, RetryTimesAreLoggedAsReadBeforeTheyAreMended) {
  SetConfigInt("NotificationThresholdInitialRetrySecs", 0);
  SetConfigInt("NotificationThresholdMaxRetrySecs", 400);
  ReadThresholds();
  std::vector<std::string> lines;
  for (const auto& line : log_.Lines()) lines.push_back(line.text);
  const std::vector<std::string> expected{
      "Setting NotificationThresholdInitialRetrySecs to 0\n",
      "Setting NotificationThresholdMaxRetrySecs to 400\n",
      "NotificationThresholdInitialRetrySecs is 0, using default of 3600\n",
      "NotificationThresholdInitialRetrySecs is greater than NotificationThresholdMaxRetrySecs, "
      "using the same value of 400\n"};
  EXPECT_EQ(lines, expected);
}

TEST_F(ThresholdKeys, AShortIntervalOf0CanBeAboveTheIntervalToo) {
  SetConfigInt("GetterShortInterval", 0);
  SetConfigInt("GetterInterval", 100);
  EXPECT_EQ(ReadThresholds().getterShortInterval, 100u);
  EXPECT_TRUE(log_.Has(kLogWarning, "GetterShortInterval is zero, using value of 120 second/s\n"));
  EXPECT_TRUE(log_.Contains("so adjusted to be the same value of 100 seconds"));
}

TEST_F(ThresholdKeys, TheSpreadOfIntervalsCanBeSwitchedOff) {
  SetConfigBool("RandomizeGetterInterval", false);
  EXPECT_FALSE(ReadThresholds().randomizeGetterInterval);
}

TEST_F(ThresholdKeys, ScansHaveTheirDefaultsWithoutAWarning) {
  EXPECT_EQ(ReadGetterScan(), (Scan{10, 2}));
  EXPECT_EQ(ReadTimeoutScan(), (Scan{70, 1}));
  EXPECT_EQ(ReadThresholdScan(), (Scan{600, 0}));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(ThresholdKeys, ScansAreAsConfigured) {
  SetConfigInt("GetterTickSecs", 3);
  SetConfigInt("NumGetterThreads", 4);
  SetConfigInt("TimeoutInterval", 0);
  SetConfigInt("NotificationThresholdThreadIntervalSecs", 0);
  SetConfigInt("NumNotificationThresholdThreads", 6);
  EXPECT_EQ(ReadGetterScan(), (Scan{3, 4}));
  EXPECT_EQ(ReadTimeoutScan(), (Scan{0, 1}));
  EXPECT_EQ(ReadThresholdScan(), (Scan{0, 6}));
}

TEST_F(ThresholdKeys, AGetterTickOfZeroIsTenSecondsWithAWarning) {
  SetConfigInt("GetterTickSecs", 0);
  SetConfigInt("NumGetterThreads", 4);
  EXPECT_EQ(ReadGetterScan(), (Scan{10, 4}));
  EXPECT_TRUE(log_.Has(kLogWarning, "GetterTickSecs is zero, using value of 10 second/s\n"));
}

TEST_F(ThresholdKeys, AShortIntervalAboveTheIntervalIsLoweredToIt) {
  SetConfigInt("GetterShortInterval", 500);
  SetConfigInt("GetterInterval", 400);
  EXPECT_EQ(ReadThresholds().getterShortInterval, 400u);
  EXPECT_TRUE(log_.Has(kLogWarning,
                       "GetterShortInterval is greater than GetterInterval, so adjusted to be the "
                       "same value of 400 seconds\n"));
}

}  // namespace
}  // namespace MessageRouter
