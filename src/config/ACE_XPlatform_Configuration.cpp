#include "config/ACE_XPlatform_Configuration.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <map>
#include <utility>

#include "logging/Log.h"
#include "threads/Mutex.h"

namespace MessageRouter {
namespace {

using Binary = ConfigurationText::Binary;
using Value = ConfigurationText::Value;

// A configuration that an administrator would write is far smaller.
constexpr std::size_t kMaxFileSize = std::size_t{16} * 1024 * 1024;
// Two writes in place within one tick of the file system's clock look alike, so a file that is as
// young as this is read once more.
constexpr std::int64_t kSettledNanoseconds = 50'000'000;
constexpr std::int64_t kNanosecondsPerMicrosecond = 1'000;
// It may hold the password of the private key.
constexpr unsigned kNewFileMode = 0600;

// The unreadable versions that were told of.
struct Told {
  ThreadHelper::Mutex mutex;
  std::map<std::string, Platform::FileVersion> versions GUARDED_BY(mutex);
};

bool IsNews(const std::string& path, const Platform::FileVersion& version) {
  static Told& told = *new Told;
  const ThreadHelper::Guard guard(told.mutex);
  if (!guard) return true;
  const auto [entry, isNew] = told.versions.try_emplace(path, version);
  if (!isNew && entry->second == version) return false;
  entry->second = version;
  return true;
}

}  // namespace

ACE_XPlatform_Configuration::ACE_XPlatform_Configuration(std::uint32_t, std::string filePath)
    : filePath_(std::move(filePath)) {}

ACE_XPlatform_Configuration::~ACE_XPlatform_Configuration() = default;

void ACE_XPlatform_Configuration::Look() {
  const auto version = Platform::VersionOf(filePath_);
  if (version && (version != version_ || !settled_)) Reload();
}

void ACE_XPlatform_Configuration::Reload() {
  // Before the reading: what changes meanwhile is noticed at the next look.
  version_ = Platform::VersionOf(filePath_);
  unreadable_ = false;
  if (!version_) return;
  settled_ = Platform::Clock::Instance().WallMicroseconds() * kNanosecondsPerMicrosecond -
                 version_->modifiedNanoseconds >
             kSettledNanoseconds;
  int error = 0;
  std::optional<std::string> text = Platform::ReadFile(filePath_, kMaxFileSize, &error);
  if (!text && error == ENOENT) return;
  if (text && *text == content_.Text()) return;
  // An editor that writes in place makes it empty first.
  if (text && text->empty()) {
    unreadable_ = true;
    if (settled_) WarnOfEmpty();
    return;
  }
  std::size_t badLine = 0;
  std::optional<ConfigurationText> content;
  if (text) content = ConfigurationText::Parse(std::move(*text), &badLine);
  unreadable_ = !content;
  if (content) {
    Accept(std::move(*content));
  } else {
    WarnOnce(badLine, error);
  }
}

void ACE_XPlatform_Configuration::Accept(ConfigurationText content) {
  content_ = std::move(content);
  values_ = section_.empty() ? nullptr : content_.Find(section_);
}

void ACE_XPlatform_Configuration::WarnOnce(std::size_t badLine, int error) {
  if (!IsNews(filePath_, *version_)) return;
  if (badLine == 0) {
    LogSystemError(kLogWarning, ("Cannot read the configuration " + filePath_).c_str(), error);
    return;
  }
  LogWarning(
      "Line %zu of the configuration %s cannot be read; the values read before stay in force\n",
      badLine, filePath_.c_str());
}

void ACE_XPlatform_Configuration::WarnOfEmpty() {
  if (!IsNews(filePath_, *version_)) return;
  LogWarning("The configuration %s is empty; the values read before stay in force\n",
             filePath_.c_str());
}

template <class Change>
bool ACE_XPlatform_Configuration::Write(Change&& change, const Platform::FileLock* held) {
  // A failure stays known until the next Flush, whatever works after it.
  const bool failedBefore = std::exchange(writeFailed_, true);
  std::optional<Platform::FileLock> own;
  if (held == nullptr) held = &own.emplace(filePath_);
  if (!held->Locked()) return false;
  Reload();
  if (unreadable_) return false;
  const std::string text = change();
  std::optional<ConfigurationText> content = ConfigurationText::Parse(text, nullptr);
  if (!content || text.size() > kMaxFileSize) return false;
  if (!version_ || text != content_.Text()) {
    if (Platform::ReplaceFile(filePath_, text, kNewFileMode) != 0) return false;
    Accept(std::move(*content));
    version_ = Platform::VersionOf(filePath_);
  }
  writeFailed_ = failedBefore;
  return true;
}

bool ACE_XPlatform_Configuration::OpenSection(const std::string& path, bool create) {
  const std::optional<std::string> section = ConfigurationText::SectionPath(path);
  if (!section) return false;
  Look();
  if (content_.Find(*section) == nullptr) {
    if (!create || !Write([&] { return content_.WithSection(*section); })) return false;
  }
  section_ = *section;
  values_ = content_.Find(section_);
  return values_ != nullptr;
}

template <class T>
const T* ACE_XPlatform_Configuration::FindValue(const std::string& name) {
  Look();
  if (values_ == nullptr) return nullptr;
  const auto found = values_->find(name);
  return found == values_->end() ? nullptr : std::get_if<T>(&found->second);
}

bool ACE_XPlatform_Configuration::SetValue(const std::string& name, const Value& value,
                                           const Platform::FileLock* held) {
  return !section_.empty() && ConfigurationText::IsValueName(name) &&
         Write([&] { return content_.WithValue(section_, name, value); }, held);
}

std::string ACE_XPlatform_Configuration::GetStringValue(const std::string& name, bool& found) {
  const auto* const value = FindValue<std::string>(name);
  found = value != nullptr;
  return found ? *value : std::string();
}

void ACE_XPlatform_Configuration::SetStringValue(const std::string& name, const std::string& value,
                                                 bool& ok, const Platform::FileLock* held) {
  ok = SetValue(name, value, held);
}

std::uint32_t ACE_XPlatform_Configuration::GetIntegerValue(const std::string& name, bool& found) {
  const auto* const value = FindValue<std::uint32_t>(name);
  found = value != nullptr;
  return found ? *value : 0;
}

void ACE_XPlatform_Configuration::SetIntegerValue(const std::string& name, std::uint32_t value,
                                                  bool& ok, const Platform::FileLock* held) {
  ok = SetValue(name, value, held);
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
  const auto* const value = FindValue<Binary>(name);
  ok = value != nullptr;
  if (!ok) return {};
  return {value->data(), value->data() + std::min(value->size(), length)};
}

void ACE_XPlatform_Configuration::SetBinaryValue(const std::string& name, const void* data,
                                                 std::size_t length, bool& ok) {
  const auto* const bytes = static_cast<const unsigned char*>(data);
  ok = SetValue(name, Binary(bytes, bytes + length));
}

bool ACE_XPlatform_Configuration::RemoveValue(const std::string& name) {
  bool found = false;
  const bool written = !section_.empty() && Write([&] {
    found = values_ != nullptr && values_->find(name) != values_->end();
    return content_.WithoutValue(section_, name);
  });
  return written && found;
}

bool ACE_XPlatform_Configuration::RemoveSection(const std::string& name) {
  const std::optional<std::string> path = ConfigurationText::SectionPath(section_ + '\\' + name);
  if (section_.empty() || !ConfigurationText::SectionPath(name) || !path) return false;
  bool found = false;
  const bool written = Write([&] {
    found = content_.Find(*path) != nullptr;
    return content_.WithoutSection(*path);
  });
  return written && found;
}

bool ACE_XPlatform_Configuration::EnumerateValues(int index, std::string& name, int& type) {
  Look();
  if (values_ == nullptr || index < 0 || static_cast<std::size_t>(index) >= values_->size()) {
    return false;
  }
  const auto& [found, value] = *std::next(values_->begin(), index);
  name = found;
  type = static_cast<int>(value.index());
  return true;
}

bool ACE_XPlatform_Configuration::EnumerateSections(int index, std::string& name) {
  Look();
  if (section_.empty()) return false;
  const std::vector<std::string> names = content_.Below(section_);
  if (index < 0 || static_cast<std::size_t>(index) >= names.size()) return false;
  name = names[static_cast<std::size_t>(index)];
  return true;
}

bool ACE_XPlatform_Configuration::Flush() {
  return !std::exchange(writeFailed_, false);
}

bool ACE_XPlatform_Configuration::Export(const std::string& filePath) {
  Look();
  return Platform::ReplaceFile(filePath, content_.Plain(), kNewFileMode) == 0;
}

}  // namespace MessageRouter
