#include "config/ACE_XPlatform_Configuration.h"

#include <ace/SString.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "logging/Log.h"

namespace MessageRouter {
namespace {

using Binary = ConfigurationSection::Binary;

// A configuration that an administrator would write is far smaller.
constexpr std::size_t kMaxFileSize = 16 * 1024 * 1024;
// How long a read may trust what it saw of the file: settings are read for every message.
constexpr std::chrono::milliseconds kLookInterval{100};
// It may hold the password of the private key.
constexpr unsigned kNewFileMode = 0600;

}  // namespace

ACE_XPlatform_Configuration::ACE_XPlatform_Configuration(std::uint32_t, std::string filePath)
    : filePath_(std::move(filePath)) {
  ACE_Configuration_Heap::open();
  current_ = root_section();
  ReloadIfChanged();
}

ACE_XPlatform_Configuration::~ACE_XPlatform_Configuration() = default;

void ACE_XPlatform_Configuration::ReloadIfChanged() {
  const auto now = Platform::Clock::Instance().SteadyNow();
  if (lastLook_ && now >= *lastLook_ && now - *lastLook_ < kLookInterval) return;
  lastLook_ = now;
  if (const auto version = Platform::VersionOf(filePath_); version && version != version_) Reload();
}

void ACE_XPlatform_Configuration::Reload() {
  // Before the reading: what changes meanwhile is noticed at the next look.
  version_ = Platform::VersionOf(filePath_);
  if (!version_) return;
  int error = 0;
  const std::optional<std::string> text = Platform::ReadFile(filePath_, kMaxFileSize, &error);
  if (!text) {
    unreadable_ = true;
    LogSystemError(kLogWarning, ("Cannot read the configuration " + filePath_).c_str(), error);
    return;
  }
  const ParsedConfiguration parsed = ParseConfiguration(*text);
  unreadable_ = parsed.badLine != 0;
  if (unreadable_) {
    LogWarning(
        "Line %u of the configuration %s cannot be read; the values read before stay in force\n",
        parsed.badLine, filePath_.c_str());
    return;
  }
  Replace(parsed);
}

void ACE_XPlatform_Configuration::Replace(const ParsedConfiguration& parsed) {
  ACE_TString name;
  while (enumerate_sections(root_section(), 0, name) == 0) {
    if (remove_section(root_section(), name.c_str(), true) != 0) break;
  }
  for (const ConfigurationSection& section : parsed.sections) {
    ACE_Configuration_Section_Key key;
    if (expand_path(root_section(), section.path.c_str(), key, 1) != 0) continue;
    for (const ConfigurationSection::Item& item : section.items) {
      if (const auto* number = std::get_if<std::uint32_t>(&item.value)) {
        set_integer_value(key, item.name.c_str(), *number);
      } else if (const auto* bytes = std::get_if<Binary>(&item.value)) {
        set_binary_value(key, item.name.c_str(), bytes->data(), bytes->size());
      } else {
        set_string_value(key, item.name.c_str(), std::get<std::string>(item.value).c_str());
      }
    }
  }
  isOpen_ = Reopen();
}

// The key of a section does not outlive a reload.
bool ACE_XPlatform_Configuration::Reopen() {
  if (currentPath_.empty()) return false;
  return expand_path(root_section(), currentPath_.c_str(), current_, 0) == 0;
}

template <class Change>
bool ACE_XPlatform_Configuration::Write(Change&& change) {
  const Platform::FileLock lock(filePath_ + ".lock");
  if (!lock.Locked()) return false;
  if (Platform::VersionOf(filePath_) != version_) Reload();
  if (unreadable_ || !change()) return false;
  if (Platform::ReplaceFile(filePath_, Text(), kNewFileMode) != 0) {
    version_.reset();  // what is in memory is not what is on disk
    lastLook_.reset();
    return false;
  }
  version_ = Platform::VersionOf(filePath_);
  return true;
}

std::string ACE_XPlatform_Configuration::Text() {
  std::string text;
  AppendTo(text, root_section(), "");
  return text;
}

void ACE_XPlatform_Configuration::AppendTo(std::string& text,
                                           const ACE_Configuration_Section_Key& key,
                                           const std::string& path) {
  if (!path.empty()) AppendSection(text, path);
  ACE_TString name;
  VALUETYPE type;
  for (int i = 0; !path.empty() && enumerate_values(key, i, name, type) == 0; ++i) {
    ConfigurationSection::Item item{name.c_str(), {}};
    if (type == INTEGER) {
      u_int value = 0;
      get_integer_value(key, name.c_str(), value);
      item.value = static_cast<std::uint32_t>(value);
    } else if (type == BINARY) {
      void* data = nullptr;
      std::size_t length = 0;
      get_binary_value(key, name.c_str(), data, length);
      const auto* bytes = static_cast<const unsigned char*>(data);
      item.value = Binary(bytes, bytes + length);
      delete[] static_cast<char*>(data);
    } else {
      ACE_TString value;
      get_string_value(key, name.c_str(), value);
      item.value = std::string(value.c_str(), value.length());
    }
    AppendItem(text, item);
  }
  for (int i = 0; enumerate_sections(key, i, name) == 0; ++i) {
    ACE_Configuration_Section_Key child;
    if (open_section(key, name.c_str(), 0, child) != 0) continue;
    AppendTo(text, child, path.empty() ? name.c_str() : path + "\\" + name.c_str());
  }
}

bool ACE_XPlatform_Configuration::OpenSection(const std::string& path, bool create) {
  if (path.empty() || validate_name(path.c_str(), 1) != 0) return false;
  ReloadIfChanged();
  ACE_Configuration_Section_Key key;
  if (expand_path(root_section(), path.c_str(), key, 0) != 0) {
    if (!create || !Write([&] { return expand_path(root_section(), path.c_str(), key, 1) == 0; })) {
      return false;
    }
  }
  currentPath_ = path;
  isOpen_ = Reopen();
  return isOpen_;
}

std::string ACE_XPlatform_Configuration::GetStringValue(const std::string& name, bool& found) {
  ReloadIfChanged();
  ACE_TString value;
  found = isOpen_ && get_string_value(current_, name.c_str(), value) >= 0;
  return found ? std::string(value.c_str(), value.length()) : std::string();
}

void ACE_XPlatform_Configuration::SetStringValue(const std::string& name, const std::string& value,
                                                 bool& ok) {
  ok = isOpen_ && Write([&] {
         return isOpen_ && set_string_value(current_, name.c_str(), value.c_str()) >= 0;
       });
}

std::uint32_t ACE_XPlatform_Configuration::GetIntegerValue(const std::string& name, bool& found) {
  ReloadIfChanged();
  u_int value = 0;
  found = isOpen_ && get_integer_value(current_, name.c_str(), value) >= 0;
  return found ? value : 0;
}

void ACE_XPlatform_Configuration::SetIntegerValue(const std::string& name, std::uint32_t value,
                                                  bool& ok) {
  ok = isOpen_ &&
       Write([&] { return isOpen_ && set_integer_value(current_, name.c_str(), value) >= 0; });
}

bool ACE_XPlatform_Configuration::GetBooleanValue(const std::string& name, bool& found) {
  return GetIntegerValue(name, found) != 0;
}

void ACE_XPlatform_Configuration::SetBooleanValue(const std::string& name, bool value, bool& ok) {
  SetIntegerValue(name, value ? 1 : 0, ok);
}

std::vector<unsigned char> ACE_XPlatform_Configuration::GetBinaryValue(const std::string& name,
                                                                       std::size_t length,
                                                                       bool& ok) {
  ReloadIfChanged();
  void* data = nullptr;
  std::size_t size = 0;
  ok = isOpen_ && get_binary_value(current_, name.c_str(), data, size) >= 0;
  if (!ok) return {};
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::vector<unsigned char> result(bytes, bytes + std::min(size, length));
  delete[] static_cast<char*>(data);
  return result;
}

void ACE_XPlatform_Configuration::SetBinaryValue(const std::string& name, const void* data,
                                                 std::size_t length, bool& ok) {
  ok = isOpen_ && Write([&] {
         return isOpen_ && set_binary_value(current_, name.c_str(), data, length) >= 0;
       });
}

bool ACE_XPlatform_Configuration::RemoveValue(const std::string& name) {
  return isOpen_ && Write([&] { return isOpen_ && remove_value(current_, name.c_str()) >= 0; });
}

bool ACE_XPlatform_Configuration::RemoveSection(const std::string& name) {
  return isOpen_ &&
         Write([&] { return isOpen_ && remove_section(current_, name.c_str(), true) >= 0; });
}

bool ACE_XPlatform_Configuration::EnumerateValues(int index, std::string& name, int& type) {
  ReloadIfChanged();
  ACE_TString found;
  VALUETYPE valueType;
  if (!isOpen_ || enumerate_values(current_, index, found, valueType) != 0) return false;
  name = found.c_str();
  type = valueType;
  return true;
}

bool ACE_XPlatform_Configuration::EnumerateSections(int index, std::string& name) {
  ReloadIfChanged();
  ACE_TString found;
  if (!isOpen_ || enumerate_sections(current_, index, found) != 0) return false;
  name = found.c_str();
  return true;
}

// Every change is on stable storage when it is made; what remains to be told is whether it could
// be.
bool ACE_XPlatform_Configuration::Flush() {
  return !unreadable_ && version_.has_value();
}

bool ACE_XPlatform_Configuration::Export(const std::string& filePath) {
  ReloadIfChanged();
  return Platform::ReplaceFile(filePath, Text(), kNewFileMode) == 0;
}

}  // namespace MessageRouter
