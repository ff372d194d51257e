// Any bytes as the two files of a hash database: every operation ends, with a result or a failure,
// and what is stored is found. An input is the length of the directory in two bytes, least
// significant first, the directory, and the pages.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "routing/HashDatabase.h"
#include "scratch_file.h"

namespace {

using namespace MessageRouter;

const std::string& InputPath() {
  static const FuzzTarget::ScratchFile file("map");
  return file.Path();
}

void Write(const std::string& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

// No page has more than 255 pairs.
std::vector<std::string> Walk(HashDatabase* database, std::size_t limit) {
  std::vector<std::string> keys;
  for (auto key = sdbm_firstkey(database); key; key = sdbm_nextkey(database)) {
    keys.emplace_back(*key);
    if (keys.size() > limit) std::abort();
  }
  return keys;
}

void StoreAndFind(HashDatabase* database, const std::string& key, const std::string& value) {
  if (sdbm_store(database, key, value, kReplace) == 0 && sdbm_fetch(database, key) != value) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  InputPath();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  if (size < 2) return 0;
  const std::size_t directory = std::min<std::size_t>(data[0] | data[1] << 8, size - 2);
  Write(InputPath() + ".dir", input.substr(2, directory));
  Write(InputPath() + ".pag", input.substr(2 + directory));
  const HashDatabasePtr database = sdbm_open(InputPath(), kReadWrite, 0600);
  if (database == nullptr) std::abort();

  const std::size_t limit = (size / PBLKSIZ + 1) * 255;
  const std::vector<std::string> keys = Walk(database.get(), limit);
  for (const std::string& key : keys) sdbm_fetch(database.get(), key);
  // What was deleted is not found, and what was not found can't be deleted; before any store, which
  // would mend a page that has a key twice.
  for (std::size_t i = 0; i < keys.size(); i += 2) {
    const bool found = sdbm_fetch(database.get(), keys[i]).has_value();
    if ((sdbm_delete(database.get(), keys[i]) == 0) != found) std::abort();
    if (sdbm_fetch(database.get(), keys[i])) std::abort();
  }
  for (const char* key : {"a", "b", "leaf", "router-with-a-longer-name"}) {
    StoreAndFind(database.get(), key, "child");
    StoreAndFind(database.get(), key, std::string(700, 'v'));
    sdbm_delete(database.get(), key);
    if (sdbm_fetch(database.get(), key) == std::string(700, 'v')) std::abort();
  }
  for (const std::string& key : keys) {
    StoreAndFind(database.get(), key, "changed");
    if (keys.size() > 100) break;
  }
  // Splits add pages: as many as there were stores, ten at most for each.
  Walk(database.get(), limit + 255 * 11 * (8 + keys.size()));
  return 0;
}
