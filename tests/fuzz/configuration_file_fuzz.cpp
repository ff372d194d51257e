// The configuration file's reader: it reads or refuses whatever bytes there are, and what it has
// read survives being changed and written again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "config/ConfigurationText.h"

namespace {

using MessageRouter::ConfigurationText;

void Require(bool condition) {
  if (!condition) std::abort();
}

ConfigurationText Again(const std::string& text) {
  auto parsed = ConfigurationText::Parse(text, nullptr);
  Require(parsed.has_value());
  return *parsed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::size_t badLine = 0;
  const auto parsed = ConfigurationText::Parse(text, &badLine);
  if (!parsed) {
    Require(badLine > 0);
    return 0;
  }
  Require(parsed->Text() == text);
  const ConfigurationText plain = Again(parsed->Plain());
  Require(plain.Plain() == parsed->Plain());

  // The input also serves as a value.
  const std::string section = "Fuzz\\Section";
  const ConfigurationText::Value value = text;
  const ConfigurationText with = Again(parsed->WithValue(section, "name", value));
  const ConfigurationText::Values* const values = with.Find(section);
  Require(values != nullptr && values->at("name") == value);
  const ConfigurationText without = Again(with.WithoutValue(section, "name"));
  Require(without.Find(section)->count("name") == 0);
  Require(Again(without.WithoutSection("Fuzz")).Find("Fuzz") == nullptr);
  return 0;
}
