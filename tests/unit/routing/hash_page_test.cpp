#include "routing/HashPage.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace MessageRouter {
namespace {

// A page with these words in front.
HashPage WithWords(const std::vector<unsigned>& words) {
  HashPage page;
  for (std::size_t i = 0; i < words.size(); ++i) {
    page.Bytes()[2 * i] = static_cast<char>(words[i] & 0xFF);
    page.Bytes()[2 * i + 1] = static_cast<char>(words[i] >> 8);
  }
  return page;
}

std::vector<std::string> Pairs(const HashPage& page) {
  std::vector<std::string> pairs;
  for (std::size_t i = 0; i < page.Pairs(); ++i) {
    pairs.push_back(std::string(page.Key(i)) + "=" + std::string(page.Value(i)));
  }
  return pairs;
}

TEST(HashOfKey, MultipliesBy65599AndAddsEachByteAsASignedNumber) {
  struct Case {
    std::string key;
    std::uint32_t hash;
  };
  const Case cases[] = {
      {"", 0},
      {"a", 97},
      {"ab", 97u * 65599u + 98u},
      {"\xff", 0xFFFFFFFFu},
      {"\x80", 0xFFFFFF80u},
      {std::string("\0a", 2), 97},
      {"\xff\x01", 0u - 65599u + 1u},
      {"abcdefgh",
       ((((((97u * 65599u + 98u) * 65599u + 99u) * 65599u + 100u) * 65599u + 101u) * 65599u +
         102u) *
            65599u +
        103u) * 65599u +
           104u},
  };
  for (const Case& c : cases) EXPECT_EQ(HashOfKey(c.key), c.hash) << c.key;
}

TEST(HashPageTest, BeginsEmptyAndValid) {
  const HashPage page;
  EXPECT_TRUE(page.IsValid());
  EXPECT_EQ(page.Pairs(), 0u);
}

TEST(HashPageTest, KeysGrowDownFromTheEndWithTheValueBelow) {
  HashPage page;
  page.Add("key", "value");
  page.Add("k2", "");
  const std::string bytes(page.Bytes(), PBLKSIZ);
  EXPECT_EQ(bytes.substr(PBLKSIZ - 10), "k2valuekey");
  // 4 offsets; 1021, 1016; 1014, 1014.
  EXPECT_EQ(bytes.substr(0, 10), std::string("\x04\0\xFD\x03\xF8\x03\xF6\x03\xF6\x03", 10));
  EXPECT_TRUE(page.IsValid());
}

TEST(HashPageTest, APairOf1008BytesFitsIntoAnEmptyPageAndOneOf1018AtMost) {
  const HashPage page;
  EXPECT_TRUE(page.HasRoomFor(PAIRMAX));
  EXPECT_TRUE(page.HasRoomFor(1018));
  EXPECT_FALSE(page.HasRoomFor(1019));
}

TEST(HashPageTest, RoomIsWhatLiesBetweenTheWordsAndTheData) {
  HashPage page;
  page.Add(std::string(500, 'k'), std::string(500, 'v'));
  // 24 bytes are left for 3 words that are there, 2 new ones, and the pair.
  EXPECT_TRUE(page.HasRoomFor(14));
  EXPECT_FALSE(page.HasRoomFor(15));
}

TEST(HashPageTest, RemovingAPairMovesTheOnesBehindItUp) {
  for (const std::size_t gone : {0u, 1u, 2u}) {
    HashPage page;
    page.Add("first", "1");
    page.Add("second", "22");
    page.Add("third", "");
    std::vector<std::string> left = Pairs(page);
    left.erase(left.begin() + static_cast<std::ptrdiff_t>(gone));
    page.Remove(gone);
    EXPECT_TRUE(page.IsValid());
    EXPECT_EQ(Pairs(page), left);
    page.Add("fourth", "4444");
    left.emplace_back("fourth=4444");
    EXPECT_EQ(Pairs(page), left);
  }
}

TEST(HashPageTest, FindComparesLengthAndBytes) {
  HashPage page;
  page.Add("ab", "1");
  page.Add("abc", "2");
  page.Add(std::string("a\0b", 3), "3");
  EXPECT_EQ(page.Find("abc"), 1u);
  EXPECT_EQ(page.Find(std::string_view("a\0b", 3)), 2u);
  EXPECT_EQ(page.Find("a"), std::nullopt);
  EXPECT_EQ(page.Find("AB"), std::nullopt);
}

TEST(HashPageTest, DividesByABitOfTheHashInTheOrderOfThePairs) {
  HashPage page;
  // The hash of one letter is its code: a and c have bit 0, b and d have not.
  for (const char* key : {"a", "b", "c", "d"}) page.Add(key, "v");
  HashPage kept;
  HashPage moved;
  page.Divide(1, kept, moved);
  EXPECT_THAT(Pairs(kept), testing::ElementsAre("b=v", "d=v"));
  EXPECT_THAT(Pairs(moved), testing::ElementsAre("a=v", "c=v"));
}

TEST(HashPageTest, IsValidOnlyIfAllPairsLieInThePageInTheirOrder) {
  struct Case {
    const char* what;
    std::vector<unsigned> words;
    bool valid;
  };
  const Case cases[] = {
      {"no pairs", {0}, true},
      {"one pair", {2, 1020, 1000}, true},
      {"an empty value", {2, 1020, 1020}, true},
      {"an empty key", {2, 1024, 1000}, true},
      {"two pairs", {4, 1020, 1000, 999, 900}, true},
      {"data down to the words", {2, 1020, 6}, true},
      {"data over the words", {2, 1020, 5}, false},
      {"an odd number of offsets", {1, 1020}, false},
      {"three offsets", {3, 1020, 1000, 900}, false},
      {"a negative number of offsets", {0xFFFE}, false},
      {"the smallest number", {0x8000}, false},
      {"more offsets than a page has", {512, 1020, 1000}, false},
      {"as many as memory would allow", {0x7FFE, 1020, 1000}, false},
      {"a key beyond the page", {2, 1025, 1000}, false},
      {"a negative key", {2, 0xFFFF, 1000}, false},
      {"a negative value", {2, 1000, 0xFFF0}, false},
      {"a value above its key", {2, 1000, 1001}, false},
      {"a key above the value before", {4, 1020, 1000, 1001, 900}, false},
      {"a value above its key, second", {4, 1020, 1000, 900, 901}, false},
  };
  for (const Case& c : cases) EXPECT_EQ(WithWords(c.words).IsValid(), c.valid) << c.what;
}

TEST(HashPageTest, TheMostOffsetsThatAPageHoldsAre510) {
  std::vector<unsigned> words(511, 1022);
  words[0] = 510;
  EXPECT_TRUE(WithWords(words).IsValid());
  words.push_back(1022);
  words[0] = 512;
  EXPECT_FALSE(WithWords(words).IsValid());
}

}  // namespace
}  // namespace MessageRouter
