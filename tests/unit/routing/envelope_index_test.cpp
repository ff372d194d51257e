#include "routing/EnvelopeIndex.h"

#include <gmock/gmock.h>

#include <deque>
#include <random>
#include <vector>

namespace MessageRouter {
namespace {

using Link = EnvelopeIndex::Link;

bool Holds(const EnvelopeIndex& index, const Link& wanted, std::uint32_t hash) {
  for (const Link* link = index.First(hash); link != nullptr; link = link->next) {
    if (link == &wanted) return true;
  }
  return false;
}

TEST(EnvelopeIndexSize, AnEmptyIndexHasNoBuckets) {
  EnvelopeIndex index;
  EXPECT_EQ(index.Buckets(), 0u);
  EXPECT_EQ(index.First(7), nullptr);
}

TEST(EnvelopeIndexSize, BucketsFollowWhatItHoldsAndAllGoWithTheLast) {
  EnvelopeIndex index;
  std::deque<Link> links(10000);
  std::uint32_t hash = 0;
  for (Link& link : links) index.Insert(link, hash++);
  EXPECT_EQ(index.Buckets(), links.size());
  for (std::size_t i = 0; i < links.size(); ++i) {
    index.Remove(links[i]);
    ASSERT_LE(index.Buckets(), 2 * (links.size() - i - 1));
  }
  EXPECT_EQ(index.Buckets(), 0u);
}

TEST(EnvelopeIndexChains, ALinkIsFoundBesideOthersOfItsHash) {
  EnvelopeIndex index;
  std::deque<Link> links(5);
  for (Link& link : links) index.Insert(link, 42);
  index.Remove(links[2]);
  EXPECT_FALSE(Holds(index, links[2], 42));
  for (const std::size_t i : {0, 1, 3, 4}) EXPECT_TRUE(Holds(index, links[i], 42)) << i;
}

TEST(EnvelopeIndexChains, EveryLinkStaysFoundWhileOthersComeAndGo) {
  std::mt19937 random(20);
  EnvelopeIndex index;
  std::deque<Link> links(3000);
  std::vector<std::uint32_t> hashes(links.size());
  for (std::size_t step = 0; step < 20000; ++step) {
    const bool growing = (step / 4000) % 2 == 0;
    const std::size_t i = random() % links.size();
    const bool isIn = links[i].slot != nullptr;
    if (!isIn && (growing || random() % 4 == 0)) {
      hashes[i] = random();
      index.Insert(links[i], hashes[i]);
    } else if (isIn && (!growing || random() % 4 == 0)) {
      index.Remove(links[i]);
      EXPECT_FALSE(Holds(index, links[i], hashes[i]));
    }
    if (step % 500 != 0) continue;
    for (std::size_t j = 0; j < links.size(); ++j) {
      if (links[j].slot == nullptr) continue;
      ASSERT_TRUE(Holds(index, links[j], hashes[j]));
    }
  }
}

}  // namespace
}  // namespace MessageRouter
