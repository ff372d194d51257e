#include "envelope/Timestamps.h"

#include <gmock/gmock.h>

#include <sstream>

#include "support/FakeClock.h"

namespace MessageRouter {
namespace {

std::string Written(const Timestamps& timestamps) {
  std::ostringstream stream;
  stream << std::hex;
  timestamps.write(stream);
  return stream.str();
}

TEST(Timestamps, AreWrittenInDecimalWhateverTheStreamsBase) {
  Timestamps timestamps;
  timestamps.Append("client1", 1352900000);
  timestamps.Append("router1", -1);
  EXPECT_EQ(Written(timestamps), "(2,(client1,1352900000),(router1,-1))");
  EXPECT_EQ(Written({}), "(0)");
}

TEST(Timestamp, IsWrittenInParentheses) {
  std::ostringstream stream;
  Timestamp("client1", 1352900000).write(stream);
  EXPECT_EQ(stream.str(), "(client1,1352900000)");
}

TEST(Timestamp, IsNeverEmpty) {
  EXPECT_FALSE(Timestamp().isEmpty());
}

TEST(Timestamps, AnAppendWithoutATimeTakesTheCurrentTime) {
  const TestSupport::FakeClock clock(1700000000);
  Timestamps timestamps;
  timestamps.Append("router1");
  EXPECT_EQ(timestamps.stamps.at(0).time, 1700000000);
}

TEST(Timestamps, ReadReplacesWhatWasThere) {
  Timestamps timestamps;
  timestamps.Append("old", 1);
  std::istringstream stream("(1,(new,2))");
  timestamps.read(stream);
  EXPECT_EQ(Written(timestamps), "(1,(new,2))");
}

struct ReadRow {
  const char* text;
  bool readable;
  const char* result;
};

class TimestampsRead : public testing::TestWithParam<ReadRow> {};

TEST_P(TimestampsRead, KeepsWhatCanBeRead) {
  Timestamps timestamps;
  std::istringstream stream(GetParam().text);
  timestamps.read(stream);
  EXPECT_EQ(!stream.fail(), GetParam().readable) << GetParam().text;
  EXPECT_EQ(Written(timestamps), GetParam().result) << GetParam().text;
}

TEST_P(TimestampsRead, IsTheSameFromAText) {
  Timestamps timestamps;
  timestamps.Append("old", 1);
  EXPECT_EQ(timestamps.Parse(GetParam().text), GetParam().readable) << GetParam().text;
  EXPECT_EQ(Written(timestamps), GetParam().result) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Table, TimestampsRead,
    testing::Values(
        ReadRow{"(2,(client1,1352900000),(router1,1352900000))", true,
                "(2,(client1,1352900000),(router1,1352900000))"},
        ReadRow{"(0)", true, "(0)"}, ReadRow{"(0", true, "(0)"},
        ReadRow{"(1,(,7))", true, "(1,(,7))"}, ReadRow{"(1,(a, +7))", true, "(1,(a,7))"},
        ReadRow{"(01,(a,-07)) and more", true, "(1,(a,-7))"},
        ReadRow{"(1,(a,9223372036854775807))", true, "(1,(a,9223372036854775807))"},
        ReadRow{"(1,(a\nb,7))", true, "(1,(a\nb,7))"},
        // fewer stamps than the count says, or more
        ReadRow{"(3,(a,1),(b,2))", true, "(2,(a,1),(b,2))"},
        ReadRow{"(4294967295,(a,1))", true, "(1,(a,1))"},
        ReadRow{"(1,(a,1),(b,2))", true, "(1,(a,1))"},
        // a broken stamp ends the list
        ReadRow{"(2,(a,1),(b", true, "(1,(a,1))"}, ReadRow{"(2,(a,1),(b,x))", true, "(1,(a,1))"},
        ReadRow{"(2,(a,b,1),(c,2))", true, "(0)"},
        ReadRow{"(1,(a,9223372036854775808))", true, "(0)"}, ReadRow{"(1,(a,12", true, "(0)"},
        // the count itself
        ReadRow{"", false, "(0)"}, ReadRow{"(", false, "(0)"}, ReadRow{"(x)", false, "(0)"},
        ReadRow{"(99999999999,(a,1))", false, "(0)"}));

TEST(Timestamps, ANameWithACommaDoesNotSurviveARead) {
  Timestamps timestamps;
  timestamps.Append("a,b", 1);
  std::istringstream stream(Written(timestamps));
  Timestamps read;
  read.read(stream);
  EXPECT_TRUE(read.stamps.empty());
}

}  // namespace
}  // namespace MessageRouter
