// Our files in the hands of Perl's SDBM_File, and its files in ours.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "routing/HashDatabase.h"
#include "support/ScratchConfiguration.h"

namespace MessageRouter {
namespace {

constexpr int kPairs = 10000;
using Pairs = std::map<std::string, std::string>;

// One change a line: "s KEY VALUE" stores, "d KEY" deletes; both in hexadecimal, after a dot, so
// that none is empty.
constexpr char kApply[] = R"(
use strict; use Fcntl; use SDBM_File;
tie(my %map, 'SDBM_File', 'map', O_RDWR | O_CREAT, 0600) or die "cannot open: $!";
while (<STDIN>) {
  my ($what, $key, $value) = split;
  ($key, $value) = map { pack('H*', substr($_ // '.', 1)) } $key, $value;
  if ($what eq 's') { $map{$key} = $value } else { delete $map{$key} }
}
)";

// All pairs, as the walk gives them, and each looked up by its key again.
constexpr char kDump[] = R"(
use strict; use Fcntl; use SDBM_File;
tie(my %map, 'SDBM_File', 'map', O_RDONLY, 0600) or die "cannot open: $!";
foreach my $key (keys %map) {
  print '.', unpack('H*', $key), ' .', unpack('H*', $map{$key}), "\n";
}
)";

std::string Hexadecimal(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text = ".";
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

class SdbmExchange : public testing::Test {
 protected:
  struct Change {
    std::string key;
    std::string value;
    bool stores;
  };

  // Changes that store more than `kPairs` pairs of many sizes, with any bytes, replace some and
  // delete some.
  static std::vector<Change> Changes(unsigned seed) {
    std::mt19937 random(seed);
    std::vector<Change> changes;
    for (int i = 0; i < kPairs + kPairs / 2; ++i) {
      std::string key = std::to_string(i) + '.';
      for (std::size_t more = random() % 20; more > 0; --more) key += static_cast<char>(random());
      std::string value(random() % 60, '\0');
      for (char& c : value) c = static_cast<char>(random());
      changes.push_back({key, value, true});
      const std::string earlier = changes[random() % changes.size()].key;
      if (i % 3 == 0) changes.push_back({earlier, "", false});
      if (i % 7 == 0) changes.push_back({earlier, "replaced", true});
    }
    changes.push_back({std::string(8, 'k'), std::string(1000, 'v'), true});
    return changes;
  }
  static Pairs Expected(const std::vector<Change>& changes) {
    Pairs pairs;
    for (const Change& change : changes) {
      if (change.stores) {
        pairs[change.key] = change.value;
      } else {
        pairs.erase(change.key);
      }
    }
    return pairs;
  }

  static void ApplyHere(const std::vector<Change>& changes) {
    const HashDatabasePtr database = sdbm_open("map", kReadWrite | kCreate, 0600);
    for (const Change& change : changes) {
      if (change.stores) {
        ASSERT_EQ(sdbm_store(database.get(), change.key, change.value, kReplace), 0);
      } else {
        sdbm_delete(database.get(), change.key);
      }
    }
    EXPECT_EQ(sdbm_error(database.get()), 0);
  }
  static void ApplyInPerl(const std::vector<Change>& changes) {
    std::ofstream input("input");
    for (const Change& change : changes) {
      input << (change.stores ? "s " : "d ") << Hexadecimal(change.key) << ' '
            << Hexadecimal(change.value) << '\n';
    }
    input.close();
    Perl(kApply);
  }

  static Pairs ReadHere() {
    const HashDatabasePtr database = sdbm_open("map", kReadOnly, 0600);
    Pairs pairs;
    for (auto key = sdbm_firstkey(database.get()); key; key = sdbm_nextkey(database.get())) {
      const std::string copy(*key);
      EXPECT_EQ(pairs.count(copy), 0u);
      pairs[copy] = sdbm_fetch(database.get(), copy).value_or("(absent)");
    }
    EXPECT_EQ(sdbm_error(database.get()), 0);
    return pairs;
  }
  // Each pair in one line of hexadecimal, in order.
  static std::vector<std::string> ReadInPerl() {
    Perl(kDump);
    std::vector<std::string> lines;
    std::ifstream output("output");
    for (std::string line; std::getline(output, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
  }
  static std::vector<std::string> Lines(const Pairs& pairs) {
    std::vector<std::string> lines;
    for (const auto& [key, value] : pairs) {
      lines.push_back(Hexadecimal(key) + ' ' + Hexadecimal(value));
    }
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  static void Perl(const char* program) {
    std::ofstream("program.pl") << program;
    std::ofstream("input", std::ios::app).flush();
    ASSERT_EQ(std::system("perl program.pl < input > output"), 0) << "needs the package perl";
  }

  TestSupport::ScratchConfiguration folder_;
};

TEST_F(SdbmExchange, PerlReadsTenThousandPairsOfOursAfterSplitsAndDeletions) {
  const std::vector<Change> changes = Changes(1);
  ApplyHere(changes);
  const Pairs expected = Expected(changes);
  EXPECT_GT(expected.size(), std::size_t{kPairs});
  EXPECT_EQ(ReadInPerl(), Lines(expected));
}

TEST_F(SdbmExchange, TenThousandPairsOfPerlsAreReadHereAfterSplitsAndDeletions) {
  const std::vector<Change> changes = Changes(2);
  ApplyInPerl(changes);
  EXPECT_EQ(ReadHere(), Expected(changes));
}

TEST_F(SdbmExchange, EachGoesOnWithTheFilesOfTheOther) {
  std::vector<Change> all = Changes(3);
  ApplyInPerl(all);
  const std::vector<Change> more = Changes(4);
  ApplyHere(more);
  all.insert(all.end(), more.begin(), more.end());
  EXPECT_EQ(ReadInPerl(), Lines(Expected(all)));
  const std::vector<Change> last = Changes(5);
  ApplyInPerl(last);
  all.insert(all.end(), last.begin(), last.end());
  EXPECT_EQ(ReadHere(), Expected(all));
}

TEST_F(SdbmExchange, TheSameChangesMakeTheSameFiles) {
  const std::vector<Change> changes = Changes(6);
  const auto read = [](const char* file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
  };
  ApplyHere(changes);
  const std::string directory = read("map.dir");
  const std::string pages = read("map.pag");
  std::filesystem::remove("map.dir");
  std::filesystem::remove("map.pag");
  ApplyInPerl(changes);
  EXPECT_EQ(directory, read("map.dir"));
  EXPECT_EQ(pages, read("map.pag"));
}

}  // namespace
}  // namespace MessageRouter
