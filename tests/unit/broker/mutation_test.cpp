#include <CertificationMessages.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Hexadecimal.h"
#include "SampleAnys.h"
#include "broker/Encoding.h"
#include "platform/Process.h"

// Inputs that are nearly right. The process dies if one of them crashes or hangs the decoder.
namespace {

constexpr unsigned long kDefaultInputs = 200'000;
constexpr unsigned kSecondsPerBatch = 20;
constexpr unsigned long kBatch = 1000;
constexpr std::size_t kMemoryGrowth = 64UL * 1024 * 1024;

unsigned long InputCount() {
  const char* const asked = std::getenv("BRELIX_MUTATIONS");
  return asked == nullptr ? kDefaultInputs : std::strtoul(asked, nullptr, 10);
}

class Mutator {
 public:
  explicit Mutator(unsigned seed) : random_(seed) {
    for (const auto& [name, any] : BrokerTest::SampleAnys()) {
      seeds_.push_back(BrokerTest::FromHexadecimal(Encoding::EncodeAny(any)));
    }
  }

  std::string Mutated() {
    std::string bytes = seeds_[Below(seeds_.size())];
    for (std::size_t changes = 1 + Below(4); changes > 0 && !bytes.empty(); --changes) {
      Change(bytes);
    }
    return bytes;
  }

  std::string Random() {
    std::string bytes(Below(200), '\0');
    for (char& byte : bytes) byte = static_cast<char>(random_());
    // Mostly with a kind in front, else hardly any gets past the first test.
    if (bytes.size() >= 12 && Below(4) != 0) {
      bytes.replace(0, 4, {static_cast<char>(Below(34)), 0, 0, 0});
      if (Below(2) != 0) bytes.replace(5, 4, {0, 0, 0, 1});
    }
    return bytes;
  }

 private:
  std::size_t Below(std::size_t limit) { return random_() % limit; }

  void Change(std::string& bytes) {
    const std::size_t at = Below(bytes.size());
    switch (Below(6)) {
      case 0:
        bytes[at] = static_cast<char>(random_());
        break;
      case 1:
        bytes[at] = static_cast<char>(bytes[at] ^ 1 << Below(8));
        break;
      case 2:
        for (std::size_t i = at; i < std::min(at + 4, bytes.size()); ++i) bytes[i] = '\xff';
        break;
      case 3:
        bytes[at & ~std::size_t{3}] = static_cast<char>(Below(34));
        break;
      case 4:
        if (bytes.size() > 8) bytes.resize(bytes.size() - Below(8));
        break;
      default: {
        const std::string part = bytes.substr(Below(bytes.size()), Below(16));
        bytes.replace(at, std::min(part.size(), bytes.size() - at), part, 0,
                      std::min(part.size(), bytes.size() - at));
        break;
      }
    }
  }

  std::mt19937 random_;
  std::vector<std::string> seeds_;
};

// A payload that a router has accepted and written can be read from the file again.
void RequireReadable(const std::string& stored) {
  CORBA::Any any;
  EXPECT_NO_THROW(Encoding::DecodeAny(stored, any)) << stored;
}

// What a router does with a payload: decode, copy, look at, encode.
bool Passes(const std::string& bytes) {
  CORBA::Any any;
  try {
    Encoding::DecodeAny(BrokerTest::ToHexadecimal(bytes), any);
  } catch (const std::runtime_error&) {
    return false;
  }
  std::string stored;
  try {
    const CORBA::Any copy(any);
    stored = Encoding::EncodeAny(copy);
    const CertificationMessages::Message* message = nullptr;
    (void)(copy >>= message);
    const CORBA::TypeCode_var type = copy.type();
    (void)type->equivalent(CertificationMessages::_tc_Message);
  } catch (const CORBA::SystemException&) {
  } catch (const std::runtime_error&) {
  }
  if (!stored.empty()) RequireReadable(stored);
  return true;
}

TEST(MutatedAny, NeverCrashesHangsOrEatsMemory) {
  Encoding::InitializeCodec();
  Mutator mutator(20261121);
  Passes(mutator.Mutated());
  const std::size_t before = Platform::ResidentMemory();
  const unsigned long inputs = InputCount();
  unsigned long passed = 0;
  for (unsigned long i = 0; i < inputs; ++i) {
    if (i % kBatch == 0) ::alarm(kSecondsPerBatch);
    passed += Passes(i % 4 == 0 ? mutator.Random() : mutator.Mutated()) ? 1 : 0;
  }
  ::alarm(0);
  EXPECT_GT(passed, inputs / 100);  // else the mutations test nothing
  EXPECT_LT(Platform::ResidentMemory(), before + kMemoryGrowth);
}

}  // namespace
