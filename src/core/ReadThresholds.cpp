#include "core/ReadThresholds.h"

#include "config/Configuration.h"
#include "logging/Log.h"

namespace MessageRouter {
namespace {

void ReadNotificationRetry(Thresholds& thresholds) {
  auto& initial = thresholds.notificationThresholdInitialRetrySecs;
  auto& maximum = thresholds.notificationThresholdMaxRetrySecs;
  initial = GetConfigInt("NotificationThresholdInitialRetrySecs", 3600);
  LogDebug("Setting NotificationThresholdInitialRetrySecs to %d\n", static_cast<int>(initial));
  maximum = GetConfigInt("NotificationThresholdMaxRetrySecs", 172800);
  LogDebug("Setting NotificationThresholdMaxRetrySecs to %d\n", static_cast<int>(maximum));
  if (initial == 0) {
    initial = 3600;
    LogWarning("NotificationThresholdInitialRetrySecs is 0, using default of %d\n", 3600);
  }
  if (maximum == 0) {
    maximum = 172800;
    LogWarning("NotificationThresholdMaxRetrySecs is 0, using default of %d\n", 172800);
  }
  if (initial > maximum) {
    initial = maximum;
    LogWarning(
        "NotificationThresholdInitialRetrySecs is greater than NotificationThresholdMaxRetrySecs, "
        "using the same value of %d\n",
        static_cast<int>(maximum));
  }
}

void ReadPolling(Thresholds& thresholds) {
  auto& shortInterval = thresholds.getterShortInterval;
  auto& interval = thresholds.getterInterval;
  shortInterval = GetConfigInt("GetterShortInterval", 120);
  interval = GetConfigInt("GetterInterval", 900);
  thresholds.randomizeGetterInterval = GetConfigBool("RandomizeGetterInterval", true);
  if (shortInterval == 0) {
    shortInterval = 120;
    LogWarning("GetterShortInterval is zero, using value of %d second/s\n", 120);
  }
  if (interval == 0) {
    interval = 900;
    LogWarning("GetterInterval is zero, using value of %d second/s\n", 900);
  }
  if (shortInterval > interval) {
    shortInterval = interval;
    LogWarning(
        "GetterShortInterval is greater than GetterInterval, so adjusted to be the same value of "
        "%d seconds\n",
        static_cast<int>(interval));
  }
}

}  // namespace

Thresholds ReadThresholds() {
  Thresholds thresholds;
  ReadNotificationRetry(thresholds);
  ReadPolling(thresholds);
  auto& timeout = thresholds.activeConsumerConnectionTimeout;
  timeout = GetConfigInt("ActiveConsumerConnectionTimeout", 1800);
  if (timeout == 0) {
    timeout = 1800;
    LogWarning("ActiveConsumerConnectionTimeout is zero, using value of %d second/s\n", 1800);
  }
  return thresholds;
}

Scan ReadGetterScan() {
  std::uint32_t seconds = GetConfigInt("GetterTickSecs", 10);
  if (seconds == 0) {
    seconds = 10;
    LogWarning("GetterTickSecs is zero, using value of %d second/s\n", 10);
  }
  return {seconds, GetConfigInt("NumGetterThreads", 2)};
}

Scan ReadTimeoutScan() {
  return {GetConfigInt("TimeoutInterval", 70), 1};
}

Scan ReadThresholdScan() {
  return {GetConfigInt("NotificationThresholdThreadIntervalSecs", 600),
          GetConfigInt("NumNotificationThresholdThreads", 0)};
}

}  // namespace MessageRouter
