#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace MessageRouter {

inline constexpr std::size_t PBLKSIZ = 1024;  // bytes of a page
inline constexpr std::size_t PAIRMAX = 1008;  // bytes of the largest pair, key and value together

// The hash of a key, which decides on its page.
std::uint32_t HashOfKey(std::string_view key);

// One page of pairs. In front stand 16-bit little-endian words: the number of offsets, then for
// each pair the offset of its key and that of its value. The data grows down from the page's end:
// a key reaches up to the value before it, a value up to its own key.
// Starts empty. Everything but Bytes and IsValid needs a valid page, which every page stays that
// was changed by the operations here alone.
// Threads: one at a time.
class HashPage {
 public:
  char* Bytes() { return bytes_.data(); }
  const char* Bytes() const { return bytes_.data(); }
  // Whether all pairs lie in the page, behind the words, in their order.
  bool IsValid() const;

  std::size_t Pairs() const { return Word(0) / 2; }
  std::string_view Key(std::size_t pair) const;
  std::string_view Value(std::size_t pair) const;
  std::optional<std::size_t> Find(std::string_view key) const;

  // Whether a pair of that size, key and value together, can be added.
  bool HasRoomFor(std::size_t size) const;
  void Add(std::string_view key, std::string_view value);
  void Remove(std::size_t pair);
  // The pairs whose key's hash has that bit go to `moved`, the others to `kept`, both empty before.
  void Divide(std::uint32_t bit, HashPage& kept, HashPage& moved) const;

 private:
  std::size_t Word(std::size_t index) const;
  void SetWord(std::size_t index, std::size_t value);
  // Where the data of the pair before begins.
  std::size_t EndOf(std::size_t pair) const { return pair == 0 ? PBLKSIZ : Word(2 * pair); }

  std::array<char, PBLKSIZ> bytes_{};
};

}  // namespace MessageRouter
