#include "core/IPAddressSet.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "logging/Log.h"
#include "platform/Network.h"
#include "support/LogCapture.h"

namespace ACEHelpers {
namespace {

constexpr std::uint32_t kLoopback = 0x7F000001;
constexpr std::uint32_t kLow = 0x0A000001;   // 10.0.0.1
constexpr std::uint32_t kHigh = 0xC0000201;  // 192.0.2.1

class AddressSet : public testing::Test {
 protected:
  ~AddressSet() override { Platform::SetHostAddressSource(nullptr); }
};

TEST_F(AddressSet, IsSortedAndHasNoLoopbackAddresses) {
  Platform::SetHostAddressSource([] {
    return std::vector<std::uint32_t>{kHigh, kLoopback, kLow, 0x7FC80101};
  });
  IPAddressSet set;
  InitialiseWithHost(set);
  EXPECT_EQ(set.Text(), "10.0.0.1 192.0.2.1");
}

TEST_F(AddressSet, IsEqualWhateverTheOrderOfTheHost) {
  IPAddressSet first;
  IPAddressSet second;
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{kHigh, kLow}; });
  InitialiseWithHost(first);
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{kLow, kHigh}; });
  InitialiseWithHost(second);
  EXPECT_TRUE(first == second);
}

TEST_F(AddressSet, OfAHostWithOnlyLoopbackIsEmpty) {
  Platform::SetHostAddressSource([] { return std::vector<std::uint32_t>{kLoopback}; });
  IPAddressSet set;
  InitialiseWithHost(set);
  EXPECT_TRUE(set.IsEmpty());
}

TEST_F(AddressSet, OfAHostThatRefusesToListItsAddressesIsEmpty) {
  TestSupport::LogCapture log;
  Platform::SetHostAddressSource(
      []() -> std::vector<std::uint32_t> { throw std::runtime_error("refused"); });
  IPAddressSet set;
  set.Add(ACE_INET_Addr(static_cast<u_short>(0), kLow));
  InitialiseWithHost(set);
  EXPECT_TRUE(set.IsEmpty());
  EXPECT_TRUE(log.Has(MessageRouter::kLogDebug, "No host network interfaces found\n"));
}

}  // namespace
}  // namespace ACEHelpers
