#pragma once

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/linux/FileFaults.h"
#include "routing/HashDatabase.h"
#include "support/ScratchConfiguration.h"

namespace MessageRouter {

// A database "map" in a scratch folder.
class HashDatabaseTest : public testing::Test {
 protected:
  HashDatabaseTest() { Open(); }
  ~HashDatabaseTest() override { Platform::Faults().placedWritesLeft = -1; }

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

  TestSupport::ScratchConfiguration folder_;
  HashDatabasePtr database_;
};

}  // namespace MessageRouter
