#pragma once

#include <ace/Configuration.h>

#include <cstdint>
#include <string>
#include <vector>

#include "logging/Streamable.h"

namespace MessageRouter {

// The hive that a store on a registry would open; on files it is accepted and not used.
inline constexpr std::uint32_t kLocalMachine = 0x80000002;

// One store of named sections with named values, bound to one section at a time. On this platform a
// text file in the form that ACE's configuration import and export read and write.
//
// Several objects on one file, here and in other processes, don't overwrite each other: a write
// locks, reloads if the file has changed, applies its own change and replaces the file whole. A
// read notices a changed file. A file that can't be parsed is never overwritten: the values read
// before stay, and one warning names the line.
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
  // to be completed by the implementation
};

}  // namespace MessageRouter
