#include "config/ConfigurationText.h"

#include <ace/Configuration.h>
#include <ace/Configuration_Import_Export.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace MessageRouter {
namespace {

using ::testing::ElementsAre;
using Binary = ConfigurationText::Binary;
using Value = ConfigurationText::Value;

ConfigurationText Parsed(const std::string& text) {
  std::size_t badLine = 0;
  auto parsed = ConfigurationText::Parse(text, &badLine);
  EXPECT_TRUE(parsed.has_value()) << "line " << badLine << " of " << text;
  return parsed.value_or(ConfigurationText());
}

Value ValueOf(const ConfigurationText& text, const std::string& section, const std::string& name) {
  const ConfigurationText::Values* const values = text.Find(section);
  if (values == nullptr || values->count(name) == 0) return Value(std::string("<absent>"));
  return values->at(name);
}

struct GoodRow {
  const char* name;
  const char* line;
  Value value;
};

class GoodLine : public ::testing::TestWithParam<GoodRow> {};

TEST_P(GoodLine, IsRead) {
  const GoodRow& row = GetParam();
  const ConfigurationText text = Parsed(std::string("[s]\n") + row.line + "\n");
  EXPECT_EQ(ValueOf(text, "s", "n"), row.value);
}

INSTANTIATE_TEST_SUITE_P(
    Table, GoodLine,
    ::testing::Values(
        GoodRow{"Text", R"("n"="text")", Value(std::string("text"))},
        GoodRow{"EmptyText", R"("n"="")", Value(std::string())},
        GoodRow{"QuotesWithin", R"("n"="a "b" c")", Value(std::string("a \"b\" c"))},
        GoodRow{"Backslashes", R"("n"="C:\new\%0a")", Value(std::string("C:\\new\\%0a"))},
        GoodRow{"EqualSigns", R"("n"="a=b")", Value(std::string("a=b"))},
        GoodRow{"Escaped", R"("n"="%escaped:a%0ab%25%00")", Value(std::string("a\nb%\0", 5))},
        GoodRow{"Number", R"("n"=dword:0000ffff)", Value(std::uint32_t{0xFFFF})},
        GoodRow{"ShortNumber", R"("n"=dword:1)", Value(std::uint32_t{1})},
        GoodRow{"LargestNumber", R"("n"=dword:FFFFFFFF)", Value(std::uint32_t{0xFFFFFFFF})},
        GoodRow{"Bytes", R"("n"=hex:00,7F,ff)", Value(Binary{0, 0x7F, 0xFF})},
        GoodRow{"NoBytes", R"("n"=hex:)", Value(Binary{})},
        GoodRow{"BlanksAround", "  \"n\"=dword:2 \t\r", Value(std::uint32_t{2})}),
    [](const auto& row) { return row.param.name; });

struct BadRow {
  const char* name;
  std::string text;
  std::size_t line;
};

class BadText : public ::testing::TestWithParam<BadRow> {};

TEST_P(BadText, IsRefusedWithTheNumberOfItsLine) {
  const BadRow& row = GetParam();
  std::size_t badLine = 0;
  EXPECT_FALSE(ConfigurationText::Parse(row.text, &badLine).has_value());
  EXPECT_EQ(badLine, row.line);
}

INSTANTIATE_TEST_SUITE_P(
    Table, BadText,
    ::testing::Values(
        BadRow{"NoEndOfHeader", "[s\n", 1}, BadRow{"NoLevel", "[]\n", 1},
        BadRow{"OnlySeparators", "[\\/]\n", 1}, BadRow{"BracketInHeader", "[a]b]\n", 1},
        BadRow{"LongPath", "[" + std::string(256, 'a') + "]\n", 1},
        BadRow{"NoSection", "; first\n\"n\"=dword:1\n", 2}, BadRow{"NoQuotes", "[s]\n\nn=1\n", 3},
        BadRow{"NoEndOfName", "[s]\n\"n=1\n", 2}, BadRow{"NoEqualSign", "[s]\n\"n\"\n", 2},
        BadRow{"NoValue", "[s]\n\"n\"=\n", 2},
        BadRow{"LongName", "[s]\n\"" + std::string(256, 'n') + "\"=dword:1\n", 2},
        BadRow{"BackslashInName", "[s]\n\"a\\b\"=dword:1\n", 2},
        BadRow{"UnknownType", "[s]\n\"n\"=qword:1\n", 2},
        BadRow{"EmptyNumber", "[s]\n\"n\"=dword:\n", 2},
        BadRow{"LargeNumber", "[s]\n\"n\"=dword:100000000\n", 2},
        BadRow{"NumberWithTail", "[s]\n\"n\"=dword:1x\n", 2},
        BadRow{"NegativeNumber", "[s]\n\"n\"=dword:-1\n", 2},
        BadRow{"LargeByte", "[s]\n\"n\"=hex:100\n", 2},
        BadRow{"CommaAtEnd", "[s]\n\"n\"=hex:00,\n", 2},
        BadRow{"NoEndOfText", "[s]\n\"n\"=\"text\n", 2}, BadRow{"OneQuote", "[s]\n\"n\"=\"\n", 2},
        BadRow{"TailBehindText", "[s]\n\"n\"=\"text\" x\n", 2},
        BadRow{"EscapeCutShort", "[s]\n\"n\"=\"%escaped:%0\"\n", 2},
        BadRow{"EscapeOfNothing", "[s]\n\"n\"=\"%escaped:%zz\"\n", 2},
        BadRow{"NullCharacter", std::string("[s]\n\"n\"=\"a\0b\"\n", 14), 2}),
    [](const auto& row) { return row.param.name; });

TEST(ConfigurationText, LaterValueOfANameReplacesTheEarlier) {
  const ConfigurationText text = Parsed("[s]\n\"n\"=dword:1\n[t]\n[s]\n\"n\"=dword:2\n");
  EXPECT_EQ(ValueOf(text, "s", "n"), Value(std::uint32_t{2}));
}

TEST(ConfigurationText, LastLineNeedsNoLineEnd) {
  EXPECT_EQ(ValueOf(Parsed("[s]\n\"n\"=dword:1"), "s", "n"), Value(std::uint32_t{1}));
}

TEST(ConfigurationText, SlashAndBackslashBothSeparateLevels) {
  const ConfigurationText text = Parsed("[a/b\\c]\n\"n\"=dword:1\n");
  EXPECT_EQ(ValueOf(text, "a\\b\\c", "n"), Value(std::uint32_t{1}));
}

TEST(ConfigurationText, SectionExistsWhenOneBelowItDoes) {
  const ConfigurationText text = Parsed("[a b]\n[a\\b\\c]\n[a\\d]\n");
  EXPECT_NE(text.Find("a"), nullptr);
  EXPECT_NE(text.Find("a\\b"), nullptr);
  EXPECT_EQ(text.Find("a\\x"), nullptr);
  EXPECT_EQ(text.Find("a\\b\\c\\d"), nullptr);
  EXPECT_THAT(text.Below("a"), ElementsAre("b", "d"));
}

TEST(ConfigurationTextChange, KeepsCommentsAndOrder) {
  const ConfigurationText text =
      Parsed("; why\n[s]\n# about b\n\"b\"=dword:1\n\"a\"=\"x\"\n\n[t]\n\"b\"=dword:7\n");
  EXPECT_EQ(text.WithValue("s", "b", std::uint32_t{2}),
            "; why\n[s]\n# about b\n\"b\"=dword:00000002\n\"a\"=\"x\"\n\n[t]\n\"b\"=dword:7\n");
}

TEST(ConfigurationTextChange, PutsANewValueBehindTheLastOfItsSection) {
  const ConfigurationText text = Parsed("[s]\n\"b\"=dword:1\n\n; of t\n[t]\n");
  EXPECT_EQ(text.WithValue("s", "a", std::string("x")),
            "[s]\n\"b\"=dword:1\n\"a\"=\"x\"\n\n; of t\n[t]\n");
}

TEST(ConfigurationTextChange, ReplacesTheValueThatCounts) {
  const ConfigurationText text = Parsed("[s]\n\"n\"=dword:1\n\"n\"=dword:2\n\"m\"=dword:3\n");
  const ConfigurationText changed = Parsed(text.WithValue("s", "n", std::uint32_t{9}));
  EXPECT_EQ(ValueOf(changed, "s", "n"), Value(std::uint32_t{9}));
}

TEST(ConfigurationTextChange, EndsAnUnfinishedLastLine) {
  EXPECT_EQ(Parsed("[s]\n\"a\"=dword:1").WithValue("s", "b", std::uint32_t{2}),
            "[s]\n\"a\"=dword:1\n\"b\"=dword:00000002\n");
  EXPECT_EQ(Parsed("[s]").WithSection("t"), "[s]\n\n[t]\n");
}

TEST(ConfigurationTextChange, OfNothingLeavesTheTextAsItIs) {
  const std::string text = "[s]\n  \"n\"=dword:1 \n";
  EXPECT_EQ(Parsed(text).WithValue("s", "n", std::uint32_t{1}), text);
  EXPECT_EQ(Parsed(text).WithSection("s"), text);
  EXPECT_EQ(Parsed(text).WithoutValue("s", "m"), text);
  EXPECT_EQ(Parsed(text).WithoutSection("t"), text);
}

TEST(ConfigurationTextChange, RemovesAllValuesOfAName) {
  EXPECT_EQ(Parsed("[s]\n\"n\"=dword:1\n\"m\"=dword:1\n\"n\"=dword:2\n").WithoutValue("s", "n"),
            "[s]\n\"m\"=dword:1\n");
}

TEST(ConfigurationTextChange, RemovesASectionWithAllBelowItAndNoOther) {
  const ConfigurationText text =
      Parsed("[a]\n\"n\"=dword:1\n[a\\b]\n\"n\"=dword:1\n[a b]\n\"n\"=dword:1\n[a\\b\\c]\n");
  EXPECT_EQ(text.WithoutSection("a\\b"), "[a]\n\"n\"=dword:1\n[a b]\n\"n\"=dword:1\n");
}

class AnyText : public ::testing::TestWithParam<std::string> {};

TEST_P(AnyText, ComesBackAsItWasWritten) {
  const ConfigurationText text = Parsed(ConfigurationText().WithValue("s", "n", GetParam()));
  EXPECT_EQ(ValueOf(text, "s", "n"), Value(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Table, AnyText,
                         ::testing::Values("", "one\ntwo\r\nthree", std::string("a\0b", 3),
                                           "%escaped:", "100%", "C:\\new\\ready", "\"", "\"\"",
                                           "a\"\n\"b", "Grüße", " blanks ", "; no comment",
                                           "[no section]", std::string(100000, 'x')));

// What ACE's own import makes of a text.
class AceFile {
 public:
  AceFile() : path_(std::filesystem::temp_directory_path() / "brelix-ace-XXXXXX") {
    std::string pattern = path_.string();
    std::fclose(fdopen(mkstemp(pattern.data()), "w"));
    path_ = pattern;
    heap_.open();
  }
  ~AceFile() { std::filesystem::remove(path_); }
  AceFile(const AceFile&) = delete;
  AceFile& operator=(const AceFile&) = delete;

  ACE_Configuration_Heap& Heap() { return heap_; }

  bool Import(const std::string& text) {
    std::ofstream(path_) << text;
    return ACE_Registry_ImpExp(heap_).import_config(path_.c_str()) == 0;
  }

  std::string Export() {
    EXPECT_EQ(ACE_Registry_ImpExp(heap_).export_config(path_.c_str()), 0);
    std::ifstream stream(path_);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  ACE_Configuration_Section_Key Section(const char* path) {
    ACE_Configuration_Section_Key key;
    EXPECT_EQ(heap_.open_section(heap_.root_section(), path, 1, key), 0);
    return key;
  }

 private:
  std::filesystem::path path_;
  ACE_Configuration_Heap heap_;
};

TEST(AceForm, WhatWeWriteIsReadByAce) {
  ConfigurationText text = Parsed(ConfigurationText().WithValue("a\\b", "text", Value("x \"y\"")));
  text = Parsed(text.WithValue("a\\b", "number", std::uint32_t{4000000000}));
  text = Parsed(text.WithValue("a", "bytes", Binary{0, 0xFF}));

  AceFile file;
  ASSERT_TRUE(file.Import(text.Text()));
  ACE_TString value;
  ASSERT_EQ(file.Heap().get_string_value(file.Section("a\\b"), "text", value), 0);
  EXPECT_STREQ(value.c_str(), "x \"y\"");
  u_int number = 0;
  ASSERT_EQ(file.Heap().get_integer_value(file.Section("a\\b"), "number", number), 0);
  EXPECT_EQ(number, 4000000000);
  void* data = nullptr;
  std::size_t length = 0;
  ASSERT_EQ(file.Heap().get_binary_value(file.Section("a"), "bytes", data, length), 0);
  ASSERT_EQ(length, 2u);
  EXPECT_EQ(static_cast<unsigned char*>(data)[1], 0xFF);
  delete[] static_cast<char*>(data);
}

TEST(AceForm, WhatAceWritesIsReadByUs) {
  AceFile file;
  file.Heap().set_string_value(file.Section("a\\b"), "text", "C:\\new \"quoted\"");
  file.Heap().set_integer_value(file.Section("a\\b"), "number", 4000000000);
  const unsigned char bytes[] = {0, 0xFF};
  file.Heap().set_binary_value(file.Section("a"), "bytes", bytes, sizeof bytes);

  const ConfigurationText text = Parsed(file.Export());
  EXPECT_EQ(ValueOf(text, "a\\b", "text"), Value("C:\\new \"quoted\""));
  EXPECT_EQ(ValueOf(text, "a\\b", "number"), Value(std::uint32_t{4000000000}));
  EXPECT_EQ(ValueOf(text, "a", "bytes"), Value(Binary{0, 0xFF}));
}

}  // namespace
}  // namespace MessageRouter
