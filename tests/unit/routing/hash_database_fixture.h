#pragma once

#include <gmock/gmock.h>

#include <bit>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/PlacedFile.h"
#include "platform/linux/FileFaults.h"
#include "routing/HashDatabase.h"
#include "support/ScratchConfiguration.h"

namespace MessageRouter {

// A database "map" in a scratch folder.
class HashDatabaseTest : public testing::Test {
 protected:
  HashDatabaseTest() { Open(); }
  ~HashDatabaseTest() override {
    AllowWrites();
    FailReadAfter(-1);
    FailSearch(0);
  }

  HashDatabase* Get() const { return database_.get(); }
  void Open(unsigned flags = kReadWrite | kCreate) {
    database_.reset();
    database_ = sdbm_open("map", flags, 0600);
  }
  std::string Fetch(const std::string& key) const {
    return std::string(sdbm_fetch(Get(), key).value_or("(absent)"));
  }
  int Store(const std::string& key, const std::string& value) const {
    return sdbm_store(Get(), key, value, kReplace);
  }
  std::vector<std::string> Keys() const {
    std::vector<std::string> keys;
    for (auto key = sdbm_firstkey(Get()); key; key = sdbm_nextkey(Get())) keys.emplace_back(*key);
    return keys;
  }
  static std::string Read(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
  }
  static void Write(const std::string& file, const std::string& bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
  }
  static void FailWritesAfter(int successes) { Platform::Faults().placedWritesLeft = successes; }
  static void AllowWrites() { FailWritesAfter(-1); }
  // One read alone: those behind it work again.
  static void FailReadAfter(int successes) { Platform::Faults().placedReadToFail = successes; }
  static void FailSearch(int error) { Platform::Faults().placedSearchError = error; }
  // How many nodes have been split.
  static int DirectoryBits() {
    int bits = 0;
    for (const char byte : Read("map.dir")) bits += std::popcount(static_cast<unsigned char>(byte));
    return bits;
  }
  static std::uint64_t Allocated() {
    std::uint64_t all = 0;
    for (const char* name : {"map.dir", "map.pag"}) {
      Platform::PlacedFile file;
      std::uint64_t size = 0;
      EXPECT_EQ(file.Open(name, {}), 0);
      EXPECT_EQ(file.Allocated(size), 0);
      all += size;
    }
    return all;
  }
  static std::string RandomKey(std::mt19937& random) {
    std::string key(8, ' ');
    for (char& c : key) c = static_cast<char>('a' + random() % 26);
    return key;
  }
  // Four keys with one and the same hash: of two that have it, any two make another.
  static std::vector<std::string> OfOneHash() {
    std::mt19937 random(11);
    std::map<std::uint32_t, std::string> known;
    while (true) {
      const std::string a = RandomKey(random);
      const std::string b = known.try_emplace(HashOfKey(a), a).first->second;
      if (a != b) return {a + a, a + b, b + a, b + b};
    }
  }

  // Two keys whose hashes are the same in so many of the lowest bits and a third that differs from
  // them in the bit behind those.
  static std::vector<std::string> PartedByBit(unsigned bit) {
    std::mt19937 random(13);
    std::vector<std::string> keys;
    while (keys.size() < 3) {
      const std::string key = RandomKey(random);
      const std::uint32_t wanted = keys.size() < 2 ? 0 : std::uint32_t{1} << bit;
      if (HashOfKey(key) % (std::uint32_t{2} << bit) == wanted) keys.push_back(key);
    }
    return keys;
  }

  TestSupport::ScratchConfiguration folder_;
  HashDatabasePtr database_;
};

}  // namespace MessageRouter
