#include <gmock/gmock.h>

#include <sstream>

#include "routing/RouterTableText.h"

namespace MessageRouter {
namespace {

struct GoodLine {
  const char* text;
  const char* name;
  std::int32_t type;
  const char* ior;
};

TEST(TableTextParser, ReadsGoodLines) {
  const GoodLine lines[] = {
      {"alpha.0..\n", "alpha", 0, ""},
      {"beta.1.IOR:0100.\n", "beta", 1, "IOR:0100"},
      {"a b.3.IOR:00.\n", "a b", 3, "IOR:00"},
      {".0..\n", "", 0, ""},
      {"alpha.0..", "alpha", 0, ""},
      {"alpha.0..\r\n", "alpha", 0, ""},
      {"alpha.0.. what follows is passed over\n", "alpha", 0, ""},
      {"alpha.2\n", "alpha", 2, ""},
      {"alpha. 2..\n", "alpha", 2, ""},
      {"alpha.-7..\n", "alpha", -7, ""},
  };
  for (const GoodLine& line : lines) {
    const auto [records, badLine] = ParseTableText(line.text);
    ASSERT_EQ(records.size(), 1u) << line.text;
    EXPECT_EQ(badLine, 0u) << line.text;
    EXPECT_EQ(records[0].name, line.name) << line.text;
    EXPECT_EQ(records[0].type, line.type) << line.text;
    EXPECT_EQ(records[0].ior, line.ior) << line.text;
  }
}

TEST(TableTextParser, ABadLineEndsTheReadingAndIsNamedAndWhatWasReadStays) {
  const char* const lines[] = {
      "alpha",         "alpha.",        "alpha.x..",   "alpha...", "alpha.99999999999..",
      "beta.1.IOR:01", "no dot at all", "alpha.0.IOR", " ",
  };
  for (const char* line : lines) {
    const std::string text = std::string("good.0..\n\n") + line + "\nlater.0..\n";
    const auto [records, badLine] = ParseTableText(text);
    EXPECT_EQ(badLine, 3u) << line;
    ASSERT_EQ(records.size(), 1u) << line;
    EXPECT_EQ(records[0].name, "good") << line;
  }
}

TEST(TableTextParser, ALastLineThatHasLostItsClosingDotIsNotKept) {
  for (const char* line : {"beta.1.IOR:01", "beta.1", "beta.", "beta", "beta.1."}) {
    const auto [records, badLine] = ParseTableText(std::string("alpha.0..\n") + line);
    EXPECT_EQ(records.size(), 1u) << line;
    EXPECT_EQ(badLine, 2u) << line;
  }
}

TEST(TableTextParser, AnEmptyTextHasNoRecords) {
  const auto [records, badLine] = ParseTableText("");
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(badLine, 0u);
}

RegEntry ARecord(const std::string& name, std::int32_t type, const std::string& ior) {
  RegEntry record;
  record.name = name;
  record.type = type;
  record.ior = ior;
  return record;
}

TEST(TableText, HasALineForEachRecordInTheirOrder) {
  EXPECT_EQ(ComposeTableText({}), "");
  EXPECT_EQ(ComposeTableText({ARecord("beta", RegEntry::kRouterNotify, "IOR:01"),
                              ARecord("alpha", RegEntry::kClientConsumer, "")}),
            "beta.3.IOR:01.\nalpha.0..\n");
}

TEST(TableText, ANameThatCanBeStoredIsReadBack) {
  for (const std::string name : {"alpha", "a b", "", "+AAo-", "\x1b", ":"}) {
    EXPECT_TRUE(CanBeStored(name)) << name;
    const auto [records, badLine] = ParseTableText(ComposeTableText({ARecord(name, 1, "")}));
    ASSERT_EQ(records.size(), 1u) << name;
    EXPECT_EQ(records[0].name, name);
    EXPECT_EQ(badLine, 0u) << name;
  }
}

TEST(TableText, ANameWithADotOrALineEndCannotBeStored) {
  for (const char* name : {".", "a.b", "a.", ".a", "a\nb", "a\rb", "a\r"}) {
    EXPECT_FALSE(CanBeStored(name)) << name;
  }
}

TEST(RegEntryText, IsNameTypeAndReferenceEachWithADotBehindIt) {
  const RegEntry record = ARecord("beta", RegEntry::kRouterConsumer, "IOR:01");
  std::ostringstream stream;
  stream << std::hex << record;
  EXPECT_EQ(stream.str(), "beta.1.IOR:01.");
}

}  // namespace
}  // namespace MessageRouter
