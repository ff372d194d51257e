#include "broker/Encoding.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>

#include "Hexadecimal.h"
#include "SampleAnys.h"
#include "support/MemoryLimit.h"

namespace {

using Encoding::DecodeAny;
using Encoding::EncodeAny;

constexpr char kDecodeFailure[] = "Encoding::DecodeAny failed to extract from TAO_InputCDR";

class EncodingTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { Encoding::InitializeCodec(); }

  static std::string FailureOf(const std::string& text) {
    CORBA::Any any;
    try {
      DecodeAny(text, any);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }
};

template <class T>
CORBA::Any AnyOf(const T& value) {
  CORBA::Any any;
  any <<= value;
  return any;
}

TEST_F(EncodingTest, KnownValuesHaveKnownText) {
  BrelixMessaging::String_seq strings;
  strings.length(2);
  strings[0] = "ab";
  strings[1] = "c";
  const struct {
    const char* name;
    CORBA::Any any;
    std::string text;
  } table[] = {
      {"empty", CORBA::Any(), "00000000"},
      {"string", AnyOf("abc"), "12000000000000000400000061626300"},
      {"long", AnyOf(CORBA::Long(-2)), "03000000feffffff"},
      {"boolean", AnyOf(CORBA::Any::from_boolean(true)), "0800000001"},
      {"wide string, with a byte order mark",
       AnyOf(CORBA::Any::from_wstring(const_cast<wchar_t*>(L"h\u20ac"), 0)),
       "1b0000000000000006000000fffe6800ac20"},
      {"alias of a sequence of strings", AnyOf(strings),
       "1500000054000000010000002300000049444c3a4272656c69784d6573736167696e672f537472696e675f7365"
       "713a312e3000000b000000537472696e675f736571000013000000100000000100000012000000000000000000"
       "0000020000000300000061620000020000006300"},
  };
  for (const auto& row : table) {
    EXPECT_EQ(EncodeAny(row.any), row.text) << row.name;
    CORBA::Any decoded;
    DecodeAny(row.text, decoded);
    EXPECT_EQ(EncodeAny(decoded), row.text) << row.name;
  }
}

TEST_F(EncodingTest, StringHasTheTextOfAnAnyWithIt) {
  const std::string cut("ab\0cd", 5);
  for (const std::string& text :
       {std::string(), std::string("abc"), std::string("\xe4\n"), cut, std::string(70000, 'x')}) {
    EXPECT_EQ(Encoding::EncodeString(text), EncodeAny(AnyOf(text.c_str())));
    EXPECT_EQ(Encoding::DecodeString(Encoding::EncodeString(text)), text.c_str());
  }
}

TEST_F(EncodingTest, StringIsReadFromWhateverAnAnyIsReadFrom) {
  const struct {
    const char* name;
    std::string text;
    std::string string;
  } table[] = {
      {"no value", "00000000", ""},
      {"another type", "03000000feffffff", ""},
      {"digits after the end", "1200000000000000040000006162630099", "abc"},
      {"a last odd digit", "120000000000000004000000616263009", "abc"},
      {"upper case digits", "1200000000000000020000004A00", "J"},
      {"a zero within", "12000000000000000400000061006300", "a"},
      {"a bounded string, another type", "12000000050000000400000061626300", ""},
  };
  for (const auto& row : table) {
    CORBA::Any any;
    DecodeAny(row.text, any);
    const char* string = nullptr;
    EXPECT_STREQ((any >>= string) ? string : "", row.string.c_str()) << row.name;
    EXPECT_EQ(Encoding::DecodeString(row.text), row.string) << row.name;
  }
}

TEST_F(EncodingTest, BrokenStringsFailLikeOtherBrokenTexts) {
  for (const char* text : {"", "12", "1200000000000000", "120000000000000004000000",
                           "12000000000000000500000061626300", "ffffffff00"}) {
    EXPECT_NE(FailureOf(text), "") << text;
    EXPECT_THAT([&] { Encoding::DecodeString(text); },
                testing::ThrowsMessage<std::runtime_error>(kDecodeFailure))
        << text;
  }
  // One whose end is not where its length says: the Any is read, and its value is not.
  EXPECT_THAT([&] { Encoding::DecodeString("120000000000000004000000616263646500"); },
              testing::ThrowsMessage<std::runtime_error>(kDecodeFailure));
}

TEST_F(EncodingTest, AnonymousSequenceHasKnownText) {
  const std::string text =
      "1300000010000000010000001200000000000000000000000200000003000000616200000200000063"
      "00";
  CORBA::Any any;
  DecodeAny(text, any);
  EXPECT_EQ(EncodeAny(any), text);
}

TEST_F(EncodingTest, EverySampleComesBackTheSame) {
  for (const auto& [name, any] : BrokerTest::SampleAnys()) {
    const std::string text = EncodeAny(any);
    CORBA::Any decoded;
    DecodeAny(text, decoded);
    EXPECT_EQ(EncodeAny(decoded), text) << name;
    const CORBA::TypeCode_var before = any.type();
    const CORBA::TypeCode_var after = decoded.type();
    EXPECT_TRUE(before->equal(after)) << name;
  }
}

TEST_F(EncodingTest, DecodedValueCanBeExtracted) {
  CORBA::Any decoded;
  DecodeAny("12000000000000000400000061626300", decoded);
  const char* text = nullptr;
  ASSERT_TRUE(decoded >>= text);
  EXPECT_STREQ(text, "abc");
}

TEST_F(EncodingTest, SameValueGivesSameTextEachTime) {
  for (const auto& [name, any] : BrokerTest::SampleAnys()) {
    const std::string first = EncodeAny(any);
    for (int i = 0; i < 5; ++i) {
      CORBA::Any copy;
      DecodeAny(first, copy);
      EXPECT_EQ(EncodeAny(copy), first) << name;
    }
  }
}

TEST_F(EncodingTest, UnionThatNeedsNoDefaultIsWrittenWithoutTheOrbsPrivateMark) {
  CertificationMessages::CertRespMsgCtnt response;
  response.result.failureReason(CertificationMessages::Undefined);
  EXPECT_THAT(EncodeAny(AnyOf(response)), testing::Not(testing::HasSubstr("feffffff")));
}

TEST_F(EncodingTest, LastOddDigitIsIgnored) {
  CORBA::Any decoded;
  DecodeAny("03000000feffffff7", decoded);
  EXPECT_EQ(EncodeAny(decoded), "03000000feffffff");
}

TEST_F(EncodingTest, UpperCaseDigitsCountAsLowerCase) {
  CORBA::Any decoded;
  DecodeAny("03000000FEFFFFFF", decoded);
  EXPECT_EQ(EncodeAny(decoded), "03000000feffffff");
}

TEST_F(EncodingTest, CharacterThatIsNoDigitGivesAWrongByteAndNoError) {
  CORBA::Any decoded;
  DecodeAny("0800000001", decoded);
  // "g" counts as 16, so "0g" is the byte 16; "@" counts as 9; ":" counts as 3.
  DecodeAny("020000000g@:", decoded);
  CORBA::Short value = 0;
  ASSERT_TRUE(decoded >>= value);
  EXPECT_EQ(static_cast<unsigned short>(value), 16u + ((9u * 16 + 3) << 8));
}

TEST_F(EncodingTest, EveryProperPrefixOfAMessageIsTheOneError) {
  for (const auto& [name, any] : BrokerTest::SampleAnys()) {
    if (std::string(name) != "message") continue;
    const std::string text = EncodeAny(any);
    for (std::size_t size = 0; size < text.size(); size += 2) {
      ASSERT_EQ(FailureOf(text.substr(0, size)), kDecodeFailure) << size;
    }
  }
}

TEST_F(EncodingTest, EmptyTextIsTheOneError) {
  EXPECT_EQ(FailureOf(""), kDecodeFailure);
}

TEST_F(EncodingTest, FatalExceptionOfTheOrbIsTheOneError) {
  EXPECT_EQ(FailureOf("1c00000063000100"), kDecodeFailure);  // fixed<99,1>
}

TEST_F(EncodingTest, BytesAfterTheValueAreIgnored) {
  CORBA::Any decoded;
  DecodeAny("0800000001ffff", decoded);
  EXPECT_EQ(EncodeAny(decoded), "0800000001");
}

TEST_F(EncodingTest, AnAnyThatFailedToDecodeIsEmptyAndUsable) {
  CORBA::Any any = AnyOf("before");
  EXPECT_THROW(DecodeAny("120000000000000004000000", any), std::runtime_error);
  EXPECT_EQ(EncodeAny(any), "00000000");
}

TEST_F(EncodingTest, LargePayloadComesBackTheSame) {
  CertificationMessages::DER_ASN1 bytes;
  bytes.length(5'000'000);
  for (CORBA::ULong i = 0; i < bytes.length(); ++i) bytes[i] = static_cast<CORBA::Octet>(i * 7);
  const std::string text = EncodeAny(AnyOf(bytes));
  CORBA::Any decoded;
  DecodeAny(text, decoded);
  EXPECT_EQ(EncodeAny(decoded), text);
}

// Decodes with more and more memory until that succeeds. How often there was too little; 0 if it
// never succeeds, or if a failure is told as anything else or leaves something behind.
int FailuresForWantOfMemory(const std::string& text) {
  constexpr std::size_t kStep = std::size_t{2} << 20;
  int failures = 0;
  for (std::size_t bytes = 0; bytes < 40 * kStep; bytes += kStep) {
    const TestSupport::MemoryLimit limit(bytes);
    CORBA::Any any;
    try {
      DecodeAny(text, any);
      return failures;
    } catch (const std::bad_alloc&) {
      ++failures;
      if (any.type()->kind() != CORBA::tk_null) return 0;
    } catch (...) {
      return 0;
    }
  }
  return 0;
}

TEST_F(EncodingTest, TooLittleMemoryIsNoFaultOfTheText) {
  if (!TestSupport::MemoryLimit::Works()) GTEST_SKIP() << "the sanitizer has a heap of its own";
  CORBA::Any whole;
  whole <<= std::string(16'000'000, 'x').c_str();
  const std::string text = EncodeAny(whole);
  // In a process of its own: threads of other tests that end just then would give memory back.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::_Exit(FailuresForWantOfMemory(text) > 4 ? 0 : 1), testing::ExitedWithCode(0),
              "");
}

}  // namespace
