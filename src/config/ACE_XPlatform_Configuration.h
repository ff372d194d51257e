#pragma once

#include <ace/Configuration.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/ConfigurationText.h"
#include "logging/Streamable.h"
#include "platform/Clock.h"
#include "platform/Files.h"

namespace MessageRouter {

// The hive that a store on a registry would open; on files it is accepted and not used.
inline constexpr std::uint32_t kLocalMachine = 0x80000002;

// One store of named sections with named values, bound to one section at a time. On this platform a
// text file in the form that ACE's configuration import and export read and write.
//
// Several objects on one file, here and in other processes, don't overwrite each other: a write
// locks, reloads if the file has changed, applies its own change and replaces the file whole. A
// read notices a changed file within a tenth of a second. A file that can't be parsed is never
// overwritten: the values read before stay, and one warning names the line. A file that is gone
// leaves the values as they are; the next write makes it anew.
// Threads: one at a time.
class ACE_XPlatform_Configuration : private ACE_Configuration_Heap, public Streamable {
 public:
  ACE_XPlatform_Configuration(std::uint32_t root, std::string filePath);
  ~ACE_XPlatform_Configuration() override;

  // The section becomes the current one. "\" separates the levels.
  bool OpenSection(const std::string& path, bool create);

  // `found` and `ok` are true exactly when the operation worked.
  std::string GetStringValue(const std::string& name, bool& found);
  void SetStringValue(const std::string& name, const std::string& value, bool& ok);
  std::uint32_t GetIntegerValue(const std::string& name, bool& found);
  void SetIntegerValue(const std::string& name, std::uint32_t value, bool& ok);
  bool GetBooleanValue(const std::string& name, bool& found);
  void SetBooleanValue(const std::string& name, bool value, bool& ok);
  std::vector<unsigned char> GetBinaryValue(const std::string& name, std::size_t length, bool& ok);
  void SetBinaryValue(const std::string& name, const void* data, std::size_t length, bool& ok);
  bool RemoveValue(const std::string& name);
  bool RemoveSection(const std::string& name);  // with all below it
  bool EnumerateValues(int index, std::string& name, int& type);
  bool EnumerateSections(int index, std::string& name);
  // Onto stable storage.
  bool Flush();
  bool Export(const std::string& filePath);

 private:
  void ReloadIfChanged();
  void Reload();
  void Replace(const ParsedConfiguration& parsed);
  bool Reopen();
  std::string Text();
  void AppendTo(std::string& text, const ACE_Configuration_Section_Key& key,
                const std::string& path);
  // Runs `change` on the latest content and writes the result. False if either fails.
  template <class Change>
  bool Write(Change&& change);

  const std::string filePath_;
  std::string currentPath_;
  ACE_Configuration_Section_Key current_;
  bool isOpen_ = false;      // current_ is a section that exists
  bool unreadable_ = false;  // the file is there and can't be read or parsed
  std::optional<Platform::FileVersion> version_;
  std::optional<Platform::Clock::SteadyTime> lastLook_;
};

}  // namespace MessageRouter
