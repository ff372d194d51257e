#include "envelope/Address.h"

#include <gmock/gmock.h>

#include "security/OwnIdentity.h"

namespace MessageRouter {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class AddressTest : public testing::Test {
 protected:
  AddressTest() { OwnIdentity::Set("router1", ""); }
};

TEST_F(AddressTest, SplitsAtDotsAndDropsEmptyComponents) {
  EXPECT_THAT(SplitAddress("a.b.c"), ElementsAre("a", "b", "c"));
  EXPECT_THAT(SplitAddress("a..b."), ElementsAre("a", "b"));
  EXPECT_THAT(SplitAddress(".a"), ElementsAre("a"));
  EXPECT_THAT(SplitAddress(":.:"), ElementsAre(":", ":"));
  EXPECT_THAT(SplitAddress("..."), IsEmpty());
  EXPECT_THAT(SplitAddress(""), IsEmpty());
}

TEST_F(AddressTest, ATidyAddressIsWhatJoiningItsComponentsGives) {
  for (const char* const text :
       {"", ".", "...", "a", ".a", "a.", "a..b", "..a...b..", "a.b.c", ":.:", "a b. "}) {
    EXPECT_EQ(TidyAddress(text), JoinAddress(SplitAddress(text))) << text;
  }
}

TEST_F(AddressTest, JoinsWithNoDotAtEitherEnd) {
  EXPECT_EQ(JoinAddress({"a", "b", "c"}), "a.b.c");
  EXPECT_EQ(JoinAddress({"a"}), "a");
  EXPECT_EQ(JoinAddress({}), "");
}

TEST_F(AddressTest, QualifiesWithTheRoutersName) {
  EXPECT_EQ(QualifyWithRouter("agent"), "router1.agent");
}

TEST_F(AddressTest, EnsureQualifiedLooksAtTheFirstComponentExactly) {
  EXPECT_EQ(EnsureQualified("router1.agent"), "router1.agent");
  EXPECT_EQ(EnsureQualified("agent"), "router1.agent");
  EXPECT_EQ(EnsureQualified("router10.agent"), "router1.router10.agent");
  EXPECT_EQ(EnsureQualified("Router1.agent"), "router1.Router1.agent");
}

TEST_F(AddressTest, EnsureQualifiedComparesANameWithoutADotAsAWhole) {
  EXPECT_EQ(EnsureQualified("router1"), "router1");
}

TEST_F(AddressTest, StripsTheRoutersNameWhereSomethingStandsBehindItsDot) {
  EXPECT_EQ(StripRouterPrefix("router1.agent"), "agent");
  EXPECT_EQ(StripRouterPrefix("router1.a.b"), "a.b");
  EXPECT_EQ(StripRouterPrefix("router1."), "router1.");
  EXPECT_EQ(StripRouterPrefix("router1"), "router1");
  EXPECT_EQ(StripRouterPrefix("router2.agent"), "router2.agent");
  EXPECT_EQ(StripRouterPrefix("router10.agent"), "router10.agent");
}

TEST_F(AddressTest, EveryNameIsAmongTheFormsOfWhatItIsQualifiedTo) {
  for (const char* const router : {"router1", "router.1", "r"}) {
    OwnIdentity::Set(router, "");
    for (const char* const name : {"", ".", "agent", "router1", "router1.", "router1.agent",
                                   "router.1.agent", "r.r.agent"}) {
      EXPECT_THAT(UnqualifiedForms(EnsureQualified(name)), Contains(name)) << router;
    }
  }
}

TEST_F(AddressTest, ANameIsTheFirstOfItsOwnForms) {
  EXPECT_EQ(UnqualifiedForms("router1.agent").front(), "router1.agent");
  EXPECT_THAT(UnqualifiedForms("router2.agent"), Each("router2.agent"));
}

TEST_F(AddressTest, FirstComponentIsTheFirstThatIsNotEmpty) {
  EXPECT_EQ(FirstComponent("a.b"), "a");
  EXPECT_EQ(FirstComponent("..a.b"), "a");
  EXPECT_EQ(FirstComponent("a"), "a");
  EXPECT_EQ(FirstComponent("."), "");
  EXPECT_EQ(FirstComponent(""), "");
}

TEST_F(AddressTest, DisplayDecodesUtf7) {
  EXPECT_EQ(ToDisplayString("caf+AOk-"), "caf\xC3\xA9");
}

TEST_F(AddressTest, DisplayLeavesWhatIsNotUtf7AsItIs) {
  EXPECT_EQ(ToDisplayString(""), "");
  EXPECT_EQ(ToDisplayString("plain"), "plain");
  EXPECT_EQ(ToDisplayString("a~b\\c\xFF"), "a~b\\c\xFF");
  EXPECT_EQ(ToDisplayString("\xFF+AOk-"), "\xFF+AOk-");
}

TEST_F(AddressTest, WhatIsShownHasNoControlCharacters) {
  EXPECT_EQ(Shown(""), "");
  EXPECT_EQ(Shown("a.b \xC3\xA9~"), "a.b \xC3\xA9~");
  EXPECT_EQ(Shown(std::string_view("a\nb\r\0\x1b\x7f\tc", 9)), "a?b?????c");
}

TEST_F(AddressTest, ANameIsShownDecodedAndWithoutTheControlCharactersThatItEncodes) {
  EXPECT_EQ(ShownName("caf+AOk-"), "caf\xC3\xA9");
  EXPECT_EQ(ShownName("a+AAo-b+ABs-"), "a?b?");
  EXPECT_EQ(ShownName(std::string(1025, 'x')), std::string(1024, 'x') + "...");
}

TEST_F(AddressTest, WhatIsShownIsCutAfter1024Bytes) {
  EXPECT_EQ(Shown(std::string(1024, 'x')), std::string(1024, 'x'));
  EXPECT_EQ(Shown(std::string(1025, 'x')), std::string(1024, 'x') + "...");
}

}  // namespace
}  // namespace MessageRouter
