#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace Platform {

// A regular file that is read and written in place. Results are 0 or the system's error number.
// Threads: one at a time.
class PlacedFile {
 public:
  struct Mode {
    bool write = false;
    bool create = false;       // if it is missing
    bool truncate = false;     // to nothing, if it is there
    unsigned permissions = 0;  // of a new file
  };

  PlacedFile();
  ~PlacedFile();  // closes
  PlacedFile(PlacedFile&&) noexcept;
  PlacedFile& operator=(PlacedFile&&) noexcept;
  PlacedFile(const PlacedFile&) = delete;
  PlacedFile& operator=(const PlacedFile&) = delete;

  // Closes what was open before.
  int Open(const std::string& path, const Mode& mode);
  int Size(std::uint64_t& size) const;
  // The bytes that it takes on the disk, without its holes.
  int Allocated(std::uint64_t& size) const;
  // `count` bytes are read: fewer than asked for only where the file ends.
  int Read(std::uint64_t offset, void* buffer, std::size_t size, std::size_t& count) const;
  int Write(std::uint64_t offset, const void* data, std::size_t size);
  // The first place at or behind `offset` that was ever written: a file may have holes far larger
  // than its content. Nothing behind the last.
  int NextContent(std::uint64_t offset, std::optional<std::uint64_t>& found) const;

 private:
  struct State;
  std::unique_ptr<State> state_;  // null while nothing is open
};

}  // namespace Platform
