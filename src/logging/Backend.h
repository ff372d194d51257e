#pragma once

#include <ace/Log_Msg_Backend.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace MessageRouter {

// Writes each log record as one line to a file of its own and, where wanted, to standard error:
//
//   14.11.2026 12:48:13 0A1C I text
//
// with the local time, the low 16 bits of the kernel's thread number and the level's letter. The
// file is named after the moment of its making, in UTC: <base>-YYYYmmdd-HHMMSS.log. The line that
// takes it to its maximum size is followed by "EOF: <path>", and the next file begins with
// "SOF: <path>".
//
// A file that can't be opened is not tried again: logging goes on to the console alone. Failed
// writes are not noticed.
// Threads: `log` is called under ACE's logging lock, one at a time; everything else through OpenLog
// and CloseLog.
class Backend : public ACE_Log_Msg_Backend {
 public:
  // `name`: its last part is the base name; null: "UNKNOWN-PROGRAM-<process id>", and the file has
  // then no time stamp and no extension. `directory`: with or without a slash at its end, empty for
  // the working folder. `fileCount`: files kept, this one included, at least 2. `maxSize` in bytes,
  // at least 1024, compared as a signed number.
  Backend(const char* name, const std::string& directory, std::uint32_t fileCount,
          std::uint32_t maxSize, bool console);
  // Writes "EOF" to its own file as the last line, and closes it.
  ~Backend() override;
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  bool IsOpen() const { return stream_ != nullptr; }
  // "SOF: <path>", or "ERROR opening: <path>" where the file could not be opened.
  void LogOpening() const;

  // Nothing to do: the file lives as long as the object.
  int open(const ACE_TCHAR* name) override;
  int reset() override;
  int close() override;
  ssize_t log(ACE_Log_Record& record) override;

  // Gets what was written to the newest open file onto the disk. Callable at any time.
  static void SyncCurrentFile();

 private:
  void OpenFile();
  void CloseFile();
  void CheckSize();
  bool Purge();  // false if there was no memory for it
  const std::string& TimePrefix();

  std::FILE* stream_ = nullptr;
  std::int32_t maxSize_;
  std::string directory_;
  std::uint32_t fileCount_;
  std::string path_;
  bool inRotation_ = false;
  bool purgeOwed_ = false;  // of a rotation
  bool console_;

  // Formatting a local time costs more than the rest of a line: it is done once a second.
  std::time_t prefixSecond_ = -1;
  std::string prefix_;
  std::string line_;
};

}  // namespace MessageRouter
