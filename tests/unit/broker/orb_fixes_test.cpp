#include "broker/OrbFixes.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include <stdexcept>
#include <string>

#include "Hexadecimal.h"
#include "TypeCodeBytes.h"
#include "broker/Encoding.h"

namespace {

std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// An Any with a reference whose one profile is long and of an unknown version.
std::string AnyWithDamagedReference(std::size_t profileSize) {
  using namespace BrokerTest;
  const std::string type = Encapsulated(CORBA::tk_objref, Body().Text("IDL:X:1.0").Text("X"));
  CdrWriter text;
  text.Raw(type).Text("IDL:X:1.0").ULong(1).ULong(0);
  text.ULong(static_cast<std::uint32_t>(profileSize)).Octet(1).Octet(9);
  return ToHexadecimal(text.Raw(std::string(profileSize - 2, 'p')).Bytes());
}

TEST(OrbFixes, AreInForce) {
  EXPECT_NO_THROW(Broker::RequireOrbFixes());
}

// What is lost here also shows under a leak checker.
TEST(OrbFixes, WhatComesWithADamagedReferenceIsFreed) {
  Encoding::InitializeCodec();
  constexpr std::size_t kProfileSize = 64 * 1024;
  constexpr std::size_t kTimes = 100;
  const std::string text = AnyWithDamagedReference(kProfileSize);
  CORBA::Any any;
  EXPECT_THROW(Encoding::DecodeAny(text, any), std::runtime_error);
  const std::size_t before = HeapInUse();
  for (std::size_t i = 0; i < kTimes; ++i) {
    EXPECT_THROW(Encoding::DecodeAny(text, any), std::runtime_error);
  }
  EXPECT_LT(HeapInUse(), before + kProfileSize * kTimes / 2);
}

}  // namespace
