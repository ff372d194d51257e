#include "routing/HashPage.h"

#include <cstring>

namespace MessageRouter {
namespace {

constexpr std::size_t kWord = 2;                            // bytes
constexpr std::size_t kOffsetsLimit = PBLKSIZ / kWord - 2;  // even, and beside word 0

}  // namespace

std::uint32_t HashOfKey(std::string_view key) {
  constexpr std::uint32_t kFactor = 65599;
  std::uint32_t hash = 0;
  for (const char c : key) {
    hash = hash * kFactor + static_cast<std::uint32_t>(static_cast<signed char>(c));
  }
  return hash;
}

std::size_t HashPage::Word(std::size_t index) const {
  const auto low = static_cast<unsigned char>(bytes_[index * kWord]);
  const auto high = static_cast<unsigned char>(bytes_[index * kWord + 1]);
  return low | static_cast<std::size_t>(high) << 8;
}

void HashPage::SetWord(std::size_t index, std::size_t value) {
  bytes_[index * kWord] = static_cast<char>(value & 0xFF);
  bytes_[index * kWord + 1] = static_cast<char>(value >> 8);
}

// Negative words are above every limit here.
bool HashPage::IsValid() const {
  const std::size_t offsets = Word(0);
  if (offsets % 2 != 0 || offsets > kOffsetsLimit) return false;
  std::size_t above = PBLKSIZ;
  for (std::size_t index = 1; index <= offsets; ++index) {
    if (Word(index) > above) return false;
    above = Word(index);
  }
  return above >= (offsets + 1) * kWord;
}

std::string_view HashPage::Key(std::size_t pair) const {
  const std::size_t begin = Word(2 * pair + 1);
  return {bytes_.data() + begin, EndOf(pair) - begin};
}

std::string_view HashPage::Value(std::size_t pair) const {
  const std::size_t begin = Word(2 * pair + 2);
  return {bytes_.data() + begin, Word(2 * pair + 1) - begin};
}

std::optional<std::size_t> HashPage::Find(std::string_view key) const {
  for (std::size_t pair = 0; pair < Pairs(); ++pair) {
    if (Key(pair) == key) return pair;
  }
  return std::nullopt;
}

bool HashPage::HasRoomFor(std::size_t size) const {
  const std::size_t free = EndOf(Pairs()) - (Word(0) + 1) * kWord;
  return size + 2 * kWord <= free;
}

void HashPage::Add(std::string_view key, std::string_view value) {
  const std::size_t offsets = Word(0);
  const std::size_t keyBegin = EndOf(Pairs()) - key.size();
  const std::size_t valueBegin = keyBegin - value.size();
  key.copy(bytes_.data() + keyBegin, key.size());
  value.copy(bytes_.data() + valueBegin, value.size());
  SetWord(offsets + 1, keyBegin);
  SetWord(offsets + 2, valueBegin);
  SetWord(0, offsets + 2);
}

void HashPage::Remove(std::size_t pair) {
  const std::size_t offsets = Word(0);
  const std::size_t lowest = EndOf(Pairs());
  const std::size_t begin = Word(2 * pair + 2);
  const std::size_t size = EndOf(pair) - begin;
  std::memmove(bytes_.data() + lowest + size, bytes_.data() + lowest, begin - lowest);
  for (std::size_t index = 2 * pair + 1; index + 2 <= offsets; ++index) {
    SetWord(index, Word(index + 2) + size);
  }
  SetWord(0, offsets - 2);
}

void HashPage::Divide(std::uint32_t bit, HashPage& kept, HashPage& moved) const {
  for (std::size_t pair = 0; pair < Pairs(); ++pair) {
    HashPage& page = (HashOfKey(Key(pair)) & bit) != 0 ? moved : kept;
    page.Add(Key(pair), Value(pair));
  }
}

}  // namespace MessageRouter
