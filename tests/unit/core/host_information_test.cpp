#include "core/HostInformation.h"

#include <gtest/gtest.h>

#include "logging/Log.h"
#include "support/LogCapture.h"

namespace MessageRouter {
namespace {

TEST(CpuAffinity, Of32LogsTheFirstWarningAndSetsNone) {
  TestSupport::LogCapture log;
  SetCpuAffinity(32);
  EXPECT_TRUE(log.Has(kLogWarning,
                      "Ignoring CPU affinity since CPU 32 was requested but this application only "
                      "supports CPUs 0 through 31.\n"));
  EXPECT_EQ(log.Lines().size(), 1u);
}

TEST(CpuAffinity, OfANegativeProcessorIsIgnored) {
  TestSupport::LogCapture log;
  SetCpuAffinity(-2);
  EXPECT_TRUE(
      log.Has(kLogWarning, "Ignoring CPU affinity since an invalid CPU i.e. -2 was requested.\n"));
}

TEST(CpuAffinity, OfAProcessorThatTheHostLacksIsRefused) {
  TestSupport::LogCapture log;
  SetCpuAffinity(31);
  EXPECT_TRUE(log.Has(kLogWarning,
                      "Request to set process CPU affinity to CPU 31 failed since CPU 31 is not "
                      "available.\n"));
}

TEST(HostInformation, NamesTheHostAndItsAddresses) {
  TestSupport::LogCapture log;
  LogHostInformation();
  EXPECT_TRUE(log.Contains("Host name: "));
  EXPECT_TRUE(log.Contains("Local IP addresses: "));
}

}  // namespace
}  // namespace MessageRouter
