#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/ConfigurationText.h"
#include "logging/Streamable.h"
#include "platform/Clock.h"
#include "platform/Files.h"

namespace MessageRouter {

// The hive that a store on a registry would open; on files it is accepted and not used.
inline constexpr std::uint32_t kLocalMachine = 0x80000002;

// One store of named sections with named values, bound to one section at a time. On this platform a
// text file in the form that ACE's configuration import and export read and write (see
// ConfigurationText.h).
//
// Several objects on one file, here and in other processes, don't overwrite each other: a write
// locks, reads the file again, applies its own change and replaces the file whole; it is on stable
// storage then. A read notices what another object of this process wrote at once, and any other
// change of the file. A file that can't be read or parsed, or has become empty, is never
// overwritten: the values read before stay, and one warning names the line. A file that is gone
// leaves the values as they are; the next write makes it anew.
// Threads: one at a time.
class ACE_XPlatform_Configuration : public Streamable {
 public:
  ACE_XPlatform_Configuration(std::uint32_t root, std::string filePath);
  ~ACE_XPlatform_Configuration() override;
  ACE_XPlatform_Configuration(const ACE_XPlatform_Configuration&) = delete;
  ACE_XPlatform_Configuration& operator=(const ACE_XPlatform_Configuration&) = delete;

  // The section becomes the current one. "\" separates the levels. False if it does not exist and
  // is not to be made or can't be; the current section stays as it was.
  bool OpenSection(const std::string& path, bool create);

  const std::string& FilePath() const { return filePath_; }

  // `found` and `ok` are true exactly when the operation worked. A value of another type is not
  // found. All work on the current section. A write waits for the file's lock; `held` is that lock
  // where the caller has waited already.
  std::string GetStringValue(const std::string& name, bool& found);
  void SetStringValue(const std::string& name, const std::string& value, bool& ok,
                      const Platform::FileLock* held = nullptr);
  std::uint32_t GetIntegerValue(const std::string& name, bool& found);
  void SetIntegerValue(const std::string& name, std::uint32_t value, bool& ok,
                       const Platform::FileLock* held = nullptr);
  bool GetBooleanValue(const std::string& name, bool& found);
  void SetBooleanValue(const std::string& name, bool value, bool& ok);
  // At most `length` bytes of it.
  std::vector<unsigned char> GetBinaryValue(const std::string& name, std::size_t length, bool& ok);
  void SetBinaryValue(const std::string& name, const void* data, std::size_t length, bool& ok);
  // False if there is none.
  bool RemoveValue(const std::string& name);
  bool RemoveSection(const std::string& name);  // with all below it
  // In the order of their names, from 0; false behind the last. The types are those of
  // ACE_Configuration: 0 string, 1 integer, 2 binary.
  bool EnumerateValues(int index, std::string& name, int& type);
  bool EnumerateSections(int index, std::string& name);
  // Whether all writes since the last call are on stable storage.
  bool Flush();
  // Writes all sections to another file.
  bool Export(const std::string& filePath);

 private:
  void Look();
  void Reload();
  void Accept(ConfigurationText content);
  void WarnOnce(std::size_t badLine, int error);
  void WarnOfEmpty();
  template <class T>
  const T* FindValue(const std::string& name);
  // Runs `change` on the file's content and puts the text that it returns in the file's place.
  template <class Change>
  bool Write(Change&& change, const Platform::FileLock* held = nullptr);
  bool SetValue(const std::string& name, const ConfigurationText::Value& value,
                const Platform::FileLock* held = nullptr);

  const std::string filePath_;
  std::string section_;  // the current one; empty: none
  ConfigurationText content_;
  const ConfigurationText::Values* values_ = nullptr;  // of the current section, in content_

  bool unreadable_ = false;   // the file is there and can't be read or parsed
  bool writeFailed_ = false;  // since the last Flush
  bool settled_ = false;      // the file was old enough when it was read for its version to tell
  std::optional<Platform::FileVersion> version_;
};

}  // namespace MessageRouter
