#include "broker/TypeCodeGuard.h"

#include <BrelixMessaging.h>
#include <gmock/gmock.h>

#include <ctime>
#include <string>
#include <vector>

#include "Hexadecimal.h"
#include "TypeCodeBytes.h"
#include "broker/Encoding.h"
#include "platform/Process.h"

namespace {

// A sanitizer makes everything slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::clock_t kProcessorTimeLimit = 5 * CLOCKS_PER_SEC;
#else
constexpr std::clock_t kProcessorTimeLimit = CLOCKS_PER_SEC;
#endif

using namespace BrokerTest;  // the builders of type codes
using namespace Broker::TypeCodeGuard;

class TypeCodeGuardTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { Encoding::InitializeCodec(); }

  static bool Accepts(const std::string& any) {
    CORBA::Any decoded;
    try {
      Encoding::DecodeAny(ToHexadecimal(any), decoded);
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }
};

std::string NestedAnys(unsigned depth) {
  CdrWriter writer;
  for (unsigned i = 0; i < depth; ++i) writer.ULong(CORBA::tk_any);
  return writer.ULong(CORBA::tk_null).Bytes();
}

std::string NestedSequences(unsigned depth) {
  std::string type = StringType();
  for (unsigned i = 0; i < depth; ++i) type = Sequence(type);
  return CdrWriter().Raw(type).ULong(0).Bytes();
}

std::string WithZeros(const std::string& type, std::size_t zeros) {
  return type + std::string(zeros, '\0');
}

// double[2^28 - 1] and a long: the sizes wrap in 32 bits.
std::string WrappingStruct() {
  return Struct({Array(Simple(CORBA::tk_double), (1U << 28) - 1), Simple(CORBA::tk_long)});
}

// struct x { x m; } by an indirection to itself.
std::string SelfContaining() {
  CdrWriter body = NamedBody().ULong(1).Text("m").ULong(0xffffffff);
  const auto back = static_cast<std::uint32_t>(-static_cast<int>(body.Bytes().size() + 8));
  return Encapsulated(CORBA::tk_struct, body.ULong(back));
}

// struct x { sequence<x> m; } by an indirection out of the sequence.
std::string RecursiveThroughSequence() {
  CdrWriter body = NamedBody().ULong(1).Text("m").ULong(CORBA::tk_sequence).ULong(16);
  body.Octet(1).ULong(0xffffffff);
  const auto back = static_cast<std::uint32_t>(-static_cast<int>(body.Bytes().size() + 8));
  return Encapsulated(CORBA::tk_struct, body.ULong(back).ULong(0));
}

TEST_F(TypeCodeGuardTest, IsInForce) {
  EXPECT_TRUE(SelfTest());
}

TEST_F(TypeCodeGuardTest, CraftedAttacksAreRefusedAtOnceAndWithLittleMemory) {
  CdrWriter deepValue = CdrWriter().Raw(RecursiveThroughSequence());
  for (int i = 0; i < 100000; ++i) deepValue.ULong(1);
  deepValue.ULong(0);
  const std::string wrapping = Sequence(WrappingStruct());
  const struct {
    const char* name;
    std::string bytes;
  } table[] = {
      {"any nested 22 deep", NestedAnys(22)},
      {"any nested 100 deep", NestedAnys(100)},
      {"any nested 100,000 deep", NestedAnys(100000)},
      {"sequences nested 100 deep", NestedSequences(100)},
      {"sequences nested 1,000 deep", NestedSequences(1000)},
      {"sequences nested 10,000 deep", NestedSequences(10000)},
      {"encapsulation of nearly 4 GB",
       CdrWriter().ULong(CORBA::tk_struct).ULong(0xfffffff0).Octet(1).Bytes()},
      {"encapsulation of 2 GB",
       CdrWriter().ULong(CORBA::tk_struct).ULong(0x7fffffff).Octet(1).Bytes()},
      {"array of 2 G void", Array(Simple(CORBA::tk_void), 0x7fffffff)},
      {"array of 2 G empty structs", Array(Struct({}), 0x7fffffff)},
      {"sequence of arrays of empty structs",
       WithZeros(CdrWriter().Raw(Sequence(Array(Struct({}), 65535))).ULong(2000).Bytes(), 4000)},
      {"array of 4 G strings in a sequence",
       CdrWriter().Raw(Sequence(Array(StringType(), 0xffffffff))).ULong(1).Bytes()},
      {"size that wraps in 32 bits", WithZeros(CdrWriter().Raw(wrapping).ULong(2).Bytes(), 64)},
      {"the same, shifted by four",
       WithZeros(
           CdrWriter().Raw(Struct({Simple(CORBA::tk_long), wrapping})).ULong(1).ULong(2).Bytes(),
           64)},
      {"string of 4 GB", CdrWriter().Raw(StringType()).ULong(0xffffffff).Octet('a').Bytes()},
      {"wide string of 4 GB",
       CdrWriter().ULong(CORBA::tk_wstring).ULong(0).ULong(0xfffffffe).Octet('a').Bytes()},
      {"4 G octets", CdrWriter().Raw(Sequence(Simple(CORBA::tk_octet))).ULong(0xffffffff).Bytes()},
      {"more doubles than 32 bits count bytes of",
       WithZeros(CdrWriter().Raw(Sequence(Simple(CORBA::tk_double))).ULong(0x20000001).Bytes(),
                 64)},
      {"reference with 4 G profiles", CdrWriter()
                                          .Raw(Encapsulated(CORBA::tk_objref, NamedBody()))
                                          .Text("IDL:x:1.0")
                                          .ULong(0xffffffff)
                                          .Bytes()},
      {"reference with a profile of 2 GB", CdrWriter()
                                               .Raw(Encapsulated(CORBA::tk_objref, NamedBody()))
                                               .Text("IDL:x:1.0")
                                               .ULong(1)
                                               .ULong(0)
                                               .ULong(0x7ffffff0)
                                               .Octet(1)
                                               .Bytes()},
      {"fixed<99,1>", CdrWriter().ULong(CORBA::tk_fixed).UShort(99).UShort(1).Bytes()},
      {"value type that ends early",
       CdrWriter().ULong(CORBA::tk_value).ULong(8).ULong(1).ULong(5).Bytes()},
      {"struct that ends after its id", Encapsulated(CORBA::tk_struct, Body().Text("IDL:x:1.0"))},
      {"struct that contains itself", SelfContaining()},
      {"recursive type, value 100,000 deep", deepValue.Bytes()},
  };
  const std::size_t memoryBefore = Platform::ResidentMemory();
  for (const auto& [name, bytes] : table) {
    const std::clock_t begin = std::clock();
    EXPECT_FALSE(Accepts(bytes)) << name;
    EXPECT_LT(std::clock() - begin, kProcessorTimeLimit) << name;
  }
  EXPECT_LT(Platform::ResidentMemory(), memoryBefore + 64 * 1024 * 1024);
}

TEST_F(TypeCodeGuardTest, LimitsAreExact) {
  std::string deepest = Simple(CORBA::tk_long);
  for (unsigned i = 0; i < kMaxDepth; ++i) deepest = Alias(deepest);
  const std::string element(4, '\0');
  EXPECT_TRUE(Accepts(deepest + element));
  EXPECT_FALSE(Accepts(Alias(deepest) + element));

  EXPECT_TRUE(Accepts(NestedAnys(kMaxAnyDepth - 1)));
  EXPECT_FALSE(Accepts(NestedAnys(kMaxAnyDepth)));

  EXPECT_TRUE(Accepts(WithZeros(Array(Simple(CORBA::tk_octet), kMaxLeaves), kMaxLeaves)));
  EXPECT_FALSE(Accepts(WithZeros(Array(Simple(CORBA::tk_octet), kMaxLeaves + 1), kMaxLeaves + 1)));

  const auto sequenceOf = [](unsigned leaves) {
    const std::string type = Sequence(Array(Simple(CORBA::tk_long), leaves));
    return WithZeros(CdrWriter().Raw(type).ULong(1).Bytes(), 4 * leaves);
  };
  EXPECT_TRUE(Accepts(sequenceOf(kMaxSimpleLeaves)));
  EXPECT_FALSE(Accepts(sequenceOf(kMaxSimpleLeaves + 1)));

  const auto structOf = [](unsigned members) {
    const std::string type = Struct(std::vector<std::string>(members, Simple(CORBA::tk_octet)));
    return WithZeros(type, members);
  };
  EXPECT_TRUE(Accepts(structOf(kMaxMembers)));
  EXPECT_FALSE(Accepts(structOf(kMaxMembers + 1)));
}

// Each is small by itself, and together they would be gigabytes.
TEST_F(TypeCodeGuardTest, ManyLargeTypesInOneAreRefused) {
  std::vector<std::string> members;
  for (int i = 0; i < 16; ++i) members.push_back(Array(Simple(CORBA::tk_octet), kMaxLeaves / 2));
  EXPECT_FALSE(Accepts(WithZeros(Struct(members), 16 * kMaxLeaves / 2)));
}

// The ORB reads each level twice, so a few deep anys cost as much as many.
TEST_F(TypeCodeGuardTest, WorkOfOneAnyIsBounded) {
  const auto anys = static_cast<std::uint32_t>(kMaxWorkPerAny / kWorkPerTypeCode);
  const std::string type = Sequence(Simple(CORBA::tk_any));
  EXPECT_FALSE(Accepts(WithZeros(CdrWriter().Raw(type).ULong(anys).Bytes(), 4UL * anys)));
  EXPECT_TRUE(Accepts(WithZeros(CdrWriter().Raw(type).ULong(1000).Bytes(), 4000)));
}

TEST_F(TypeCodeGuardTest, IndirectionToAFinishedTypeIsAccepted) {
  // struct x { string<0> m; string<0> m; } with the second member written as an indirection.
  CdrWriter body = NamedBody().ULong(2).Text("m").Align(4);
  const std::size_t first = body.Bytes().size();
  body.Raw(Sequence(Simple(CORBA::tk_octet))).Text("m").ULong(0xffffffff);
  const auto back =
      static_cast<std::uint32_t>(static_cast<int>(first) - static_cast<int>(body.Bytes().size()));
  const std::string type = Encapsulated(CORBA::tk_struct, body.ULong(back));
  EXPECT_TRUE(Accepts(WithZeros(type, 8)));
}

TEST_F(TypeCodeGuardTest, BigEndianTypeCodeIsRead) {
  // In the encapsulation of sequence<octet>.
  const std::string body("\0\0\0\0\0\0\0\x0a\0\0\0\0", 12);
  const std::string type =
      CdrWriter().ULong(CORBA::tk_sequence).ULong(12).Raw(body).ULong(1).Octet('x').Bytes();
  EXPECT_TRUE(Accepts(type));
}

TEST_F(TypeCodeGuardTest, EveryTypeOfTheContractPasses) {
  for (const CORBA::TypeCode_ptr type :
       {BrelixMessaging::_tc_Envelope, BrelixMessaging::_tc_Status,
        BrelixMessaging::_tc_Configuration, BrelixMessaging::_tc_RouterClient_seq,
        BrelixMessaging::_tc_Rejected, BrelixMessaging::_tc_Client}) {
    CORBA::Any any;
    any <<= type;
    CORBA::Any decoded;
    Encoding::DecodeAny(Encoding::EncodeAny(any), decoded);
    CORBA::TypeCode_ptr read = CORBA::TypeCode::_nil();
    ASSERT_TRUE(decoded >>= read);
    EXPECT_TRUE(type->equal(read)) << type->id();
  }
}

// The ORB's compact form takes names out of an object that it believes to be its own.
TEST_F(TypeCodeGuardTest, CompactFormLeavesOtherTypeCodesAlone) {
  CORBA::Any any;
  any <<= BrelixMessaging::Status();
  CORBA::Any first;
  CORBA::Any second;
  Encoding::DecodeAny(Encoding::EncodeAny(any), first);
  Encoding::DecodeAny(Encoding::EncodeAny(any), second);
  const CORBA::TypeCode_var type = first.type();
  const CORBA::TypeCode_var compact = type->get_compact_typecode();
  const CORBA::TypeCode_var other = second.type();
  EXPECT_STREQ(other->name(), "Status");
}

}  // namespace
