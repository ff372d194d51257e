#include "envelope/EnvelopeText.h"

#include <gmock/gmock.h>

#include <utility>
#include <vector>

namespace MessageRouter::EnvelopeText {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::vector<std::pair<std::string, std::string>> Fields(std::string_view text) {
  std::vector<std::pair<std::string, std::string>> fields;
  FieldReader reader(text);
  Field field;
  while (reader.Next(field)) fields.emplace_back(field.key, field.value);
  return fields;
}

TEST(EnvelopeText, ALineIsAKeyAndAValue) {
  EXPECT_THAT(Fields("[A] 1\n[B] two words\n"),
              ElementsAre(Pair("A", "1"), Pair("B", "two words")));
}

TEST(EnvelopeText, ALastLineWithoutALineEndIsRead) {
  EXPECT_THAT(Fields("[A] 1\n[B] 2"), ElementsAre(Pair("A", "1"), Pair("B", "2")));
}

TEST(EnvelopeText, AKeyWithNothingBehindItsBlankIsSkipped) {
  EXPECT_THAT(Fields("[Options] \n"), IsEmpty());
}

TEST(EnvelopeText, AKeyWithoutBlankAndValueIsSkipped) {
  EXPECT_THAT(Fields("[Data]\n"), IsEmpty());
}

TEST(EnvelopeText, ABracketThatIsNotClosedIsSkipped) {
  EXPECT_THAT(Fields("[Data x\n"), IsEmpty());
}

TEST(EnvelopeText, ALineWithoutABracketGoesOnWithTheValue) {
  EXPECT_THAT(Fields("[A] 1\n2\n\n3\n[B] x\n"),
              ElementsAre(Pair("A", "1\n2\n\n3"), Pair("B", "x")));
}

TEST(EnvelopeText, ALastLineWithoutABracketCountsOnlyWithItsLineEnd) {
  EXPECT_THAT(Fields("[A] 1\n2"), ElementsAre(Pair("A", "1")));
  EXPECT_THAT(Fields("[A] 1\n2\n"), ElementsAre(Pair("A", "1\n2")));
}

TEST(EnvelopeText, ASkippedLineDoesNotEndTheFieldBeforeIt) {
  EXPECT_THAT(Fields("[A] 1\n[B]\n2\n[open\n3\n"), ElementsAre(Pair("A", "1\n2\n3")));
}

TEST(EnvelopeText, LinesBeforeTheFirstKeyAreIgnored) {
  EXPECT_THAT(Fields("x\n\ny\n[A] 1\n"), ElementsAre(Pair("A", "1")));
}

TEST(EnvelopeText, TheKeyMayStandBehindOtherText) {
  EXPECT_THAT(Fields("x]y[A] 1\n"), ElementsAre(Pair("A", "1")));
}

TEST(EnvelopeText, ACarriageReturnBelongsToTheValue) {
  EXPECT_THAT(Fields("[A] 1\r\n"), ElementsAre(Pair("A", "1\r")));
}

TEST(EnvelopeText, AValueMayHaveBracketsInItsFirstLine) {
  EXPECT_THAT(Fields("[A] [B] x]\n"), ElementsAre(Pair("A", "[B] x]")));
}

TEST(EnvelopeText, AnEmptyTextHasNoFields) {
  EXPECT_THAT(Fields(""), IsEmpty());
}

struct ValueRow {
  const char* value;
  bool readsBack;
};

class EnvelopeTextValue : public testing::TestWithParam<ValueRow> {};

TEST_P(EnvelopeTextValue, IsAcceptedExactlyIfItIsReadAsItWasWritten) {
  const ValueRow& row = GetParam();
  std::string text;
  AppendField(text, "Before", "1");
  AppendField(text, "Key", row.value);
  for (const bool last : {false, true}) {
    std::string whole = text;
    if (!last) AppendField(whole, "After", "2");
    std::string read;
    bool others = true;
    for (const auto& [key, value] : Fields(whole)) {
      if (key == "Key") {
        read = value;
      } else {
        others = others && ((key == "Before" && value == "1") || (key == "After" && value == "2"));
      }
    }
    EXPECT_EQ(read == row.value && others, row.readsBack) << row.value << (last ? " last" : "");
  }
  EXPECT_EQ(ReadsBack(row.value), row.readsBack) << row.value;
}

INSTANTIATE_TEST_SUITE_P(Table, EnvelopeTextValue,
                         testing::Values(ValueRow{"", true}, ValueRow{" ", true},
                                         ValueRow{"[", true}, ValueRow{"[Data] 00", true},
                                         ValueRow{"]", true}, ValueRow{"a\nb", true},
                                         ValueRow{"a\n", true}, ValueRow{"a\n\n", true},
                                         ValueRow{"a\n]b", true}, ValueRow{"a\r\nb\r", true},
                                         ValueRow{"\r", true}, ValueRow{"\r\n", true},
                                         ValueRow{"\n", false}, ValueRow{"\n\n", false},
                                         ValueRow{"\na", false}, ValueRow{"a\n[", false},
                                         ValueRow{"a\nb[c", false}, ValueRow{"a\n[Data] 00", false},
                                         ValueRow{"a\nb\n[OriginatorCertificate] 00", false},
                                         ValueRow{"a\n[Unknown] x", false}));

TEST(EnvelopeText, AMillionLinesOfOneValueAreReadInLinearTime) {
  std::string text = "[A] 1\n";
  for (int i = 0; i < 1000000; ++i) text += "x\n";
  const auto fields = Fields(text);
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_EQ(fields[0].second.size(), 2000001u);
}

TEST(EnvelopeText, NumbersSaturateAndTextsAreZero) {
  EXPECT_EQ(ParseUnsigned("42"), 42u);
  EXPECT_EQ(ParseUnsigned("4294967295"), 4294967295u);
  EXPECT_EQ(ParseUnsigned("4294967296"), 4294967295u);
  EXPECT_EQ(ParseUnsigned("99999999999999999999999999"), 4294967295u);
  EXPECT_EQ(ParseUnsigned("-1"), 4294967295u);
  EXPECT_EQ(ParseUnsigned("-0"), 0u);
  EXPECT_EQ(ParseUnsigned("+7"), 7u);
  EXPECT_EQ(ParseUnsigned("  7x"), 7u);
  EXPECT_EQ(ParseUnsigned("x"), 0u);
  EXPECT_EQ(ParseUnsigned("- 1"), 0u);
  EXPECT_EQ(ParseUnsigned(""), 0u);
}

TEST(EnvelopeText, AnyIntegerButZeroIsAFlag) {
  EXPECT_TRUE(ParseFlag("1"));
  EXPECT_TRUE(ParseFlag("-3"));
  EXPECT_TRUE(ParseFlag("0010"));
  EXPECT_TRUE(ParseFlag("99999999999999999999999"));
  EXPECT_FALSE(ParseFlag("0"));
  EXPECT_FALSE(ParseFlag("00x1"));
  EXPECT_FALSE(ParseFlag("true"));
  EXPECT_FALSE(ParseFlag(""));
}

}  // namespace
}  // namespace MessageRouter::EnvelopeText
