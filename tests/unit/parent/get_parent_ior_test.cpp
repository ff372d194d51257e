#include "parent_logon_fixture.h"

namespace MessageRouter {
namespace {

TEST(GetParentIor, FetchesTheTextFromTheConfiguredParent) {
  TestSupport::ScratchConfiguration configuration;
  IOR_Sender parent;
  parent.SetPort(0);
  parent.SetIOR("IOR:0102");
  parent.Start();
  ASSERT_TRUE(Eventually([&] { return parent.ListeningPort() != 0; }));
  SetConfigString("ParentAddress", "127.0.0.1");
  SetConfigInt("ParentPort", parent.ListeningPort());
  StatusReporting::StatusReporter reporter("");
  EXPECT_EQ(ParentLogon::GetParentIOR({&reporter, nullptr}), "IOR:0102");
}

TEST(GetParentIor, FetchesTheTextForTwoAtOnce) {
  TestSupport::ScratchConfiguration configuration;
  const std::string text = "IOR:" + std::string(20000, '1');
  IOR_Sender parent;
  parent.SetPort(0);
  parent.SetIOR(text);
  parent.Start();
  ASSERT_TRUE(Eventually([&] { return parent.ListeningPort() != 0; }));
  SetConfigString("ParentAddress", "127.0.0.1");
  SetConfigInt("ParentPort", parent.ListeningPort());
  StatusReporting::StatusReporter reporter("");
  std::atomic<int> right{0};
  const auto fetch = [&] {
    for (int i = 0; i < 20; ++i) right += ParentLogon::GetParentIOR({&reporter, nullptr}) == text;
  };
  std::thread other(fetch);
  fetch();
  other.join();
  EXPECT_EQ(right, 40);
}

TEST(GetParentIor, EmptyParentAddressGivesAnEmptyResult) {
  TestSupport::ScratchConfiguration configuration;
  TestSupport::LogCapture log;
  EXPECT_EQ(ParentLogon::GetParentIOR({}), "");
  EXPECT_FALSE(log.Contains("Getting parent router IOR"));
}

}  // namespace
}  // namespace MessageRouter
