#include <gmock/gmock.h>

#include <sstream>

#include "routing/RouterTable.h"

namespace MessageRouter {
namespace {

struct GoodLine {
  const char* text;
  const char* name;
  std::int32_t type;
  const char* ior;
};

TEST(TableFileParser, ReadsGoodLines) {
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
    std::size_t badLine = 99;
    const std::vector<RegEntry> records = ParseTableFile(line.text, badLine);
    ASSERT_EQ(records.size(), 1u) << line.text;
    EXPECT_EQ(badLine, 0u) << line.text;
    EXPECT_EQ(records[0].name, line.name) << line.text;
    EXPECT_EQ(records[0].type, line.type) << line.text;
    EXPECT_EQ(records[0].ior, line.ior) << line.text;
  }
}

TEST(TableFileParser, ABadLineEndsTheReadingAndIsNamedAndWhatWasReadStays) {
  const char* const lines[] = {
      "alpha",         "alpha.",        "alpha.x..",   "alpha...", "alpha.99999999999..",
      "beta.1.IOR:01", "no dot at all", "alpha.0.IOR", " ",
  };
  for (const char* line : lines) {
    const std::string text = std::string("good.0..\n\n") + line + "\nlater.0..\n";
    std::size_t badLine = 0;
    const std::vector<RegEntry> records = ParseTableFile(text, badLine);
    EXPECT_EQ(badLine, 3u) << line;
    ASSERT_EQ(records.size(), 1u) << line;
    EXPECT_EQ(records[0].name, "good") << line;
  }
}

TEST(TableFileParser, ALastLineThatHasLostItsClosingDotIsNotKept) {
  for (const char* line : {"beta.1.IOR:01", "beta.1", "beta.", "beta", "beta.1."}) {
    std::size_t badLine = 0;
    const auto records = ParseTableFile(std::string("alpha.0..\n") + line, badLine);
    EXPECT_EQ(records.size(), 1u) << line;
    EXPECT_EQ(badLine, 2u) << line;
  }
}

TEST(TableFileParser, AnEmptyTextHasNoRecords) {
  std::size_t badLine = 1;
  EXPECT_TRUE(ParseTableFile("", badLine).empty());
  EXPECT_EQ(badLine, 0u);
}

TEST(RegEntryText, IsNameTypeAndReferenceEachWithADotBehindIt) {
  RegEntry record;
  record.name = "beta";
  record.type = RegEntry::kRouterConsumer;
  record.ior = "IOR:01";
  std::ostringstream stream;
  stream << std::hex << record;
  EXPECT_EQ(stream.str(), "beta.1.IOR:01.");
}

}  // namespace
}  // namespace MessageRouter
