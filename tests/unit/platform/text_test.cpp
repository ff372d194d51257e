#include "platform/Text.h"

#include <gtest/gtest.h>

#include <thread>

namespace Platform {
namespace {

struct Row {
  std::string utf7;
  std::string local;
};

class Name : public ::testing::TestWithParam<Row> {};

TEST_P(Name, TravelsAsUtf7AndComesBack) {
  EXPECT_EQ(LocalToUtf7(GetParam().local), GetParam().utf7);
  EXPECT_EQ(Utf7ToLocal(GetParam().utf7), GetParam().local);
}

INSTANTIATE_TEST_SUITE_P(Table, Name,
                         ::testing::Values(Row{"", ""}, Row{"agent-1.site (x)", "agent-1.site (x)"},
                                           Row{"Z+APw-rich", "Zürich"}, Row{"a+-b", "a+b"},
                                           Row{"+2D3eCg-", "😊"}, Row{"+AH4-", "~"},
                                           Row{"+ZeVnLIqe-", "日本語"}));

TEST(Name, OfAnyLengthIsConverted) {
  std::string local;
  for (int i = 0; i < 5000; ++i) local += "ü-";
  const auto utf7 = LocalToUtf7(local);
  ASSERT_TRUE(utf7.has_value());
  EXPECT_EQ(Utf7ToLocal(*utf7), local);
}

TEST(Name, ThatIsNotValidGivesNothing) {
  EXPECT_EQ(LocalToUtf7("\xFF"), std::nullopt);
  EXPECT_EQ(LocalToUtf7("\xC3"), std::nullopt);
  EXPECT_EQ(Utf7ToLocal("\xC3\xBC"), std::nullopt);
}

TEST(Name, AfterAnInvalidOneIsConverted) {
  EXPECT_EQ(Utf7ToLocal("+APw\xFF"), std::nullopt);
  EXPECT_EQ(Utf7ToLocal("Z+APw-rich"), "Zürich");
}

TEST(Name, IsConvertedOnEveryThread) {
  std::thread([] { EXPECT_EQ(LocalToUtf7("ü"), "+APw-"); }).join();
}

}  // namespace
}  // namespace Platform
