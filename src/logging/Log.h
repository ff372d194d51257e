#pragma once

#include <cstdint>
#include <exception>
#include <sstream>
#include <string>

// Logging for the whole process, through ACE's logging singleton and a backend of our own that
// writes one line per record to rotating files (see Backend.h).
// Threads: any. A line has left the process's buffers when the call returns.
namespace MessageRouter {

// The values are ACE's log priorities.
enum LogLevel : unsigned {
  kLogTrace = 2,
  kLogDebug = 4,
  kLogInfo = 8,
  kLogNotice = 16,
  kLogWarning = 32,
  kLogError = 128,
  kLogCritical = 256,
};

// printf formats. A record of any length is written whole.
#define BRELIX_PRINTF(text, first) __attribute__((format(printf, text, first)))
void LogTrace(const char* format, ...) BRELIX_PRINTF(1, 2);
void LogDebug(const char* format, ...) BRELIX_PRINTF(1, 2);
void LogInfo(const char* format, ...) BRELIX_PRINTF(1, 2);
void LogNotice(const char* format, ...) BRELIX_PRINTF(1, 2);
void LogWarning(const char* format, ...) BRELIX_PRINTF(1, 2);
void LogError(const char* format, ...) BRELIX_PRINTF(1, 2);
void LogCritical(const char* format, ...) BRELIX_PRINTF(1, 2);
void LogAt(unsigned level, const char* format, ...) BRELIX_PRINTF(2, 3);

// Whether a record of that level would be written: spare the work of composing it where that costs.
bool LogEnabled(unsigned level);

// "text: system's text for error (error)\n"
void LogSystemError(unsigned level, const char* text, int error);

// Replaces the process's backend; see Backend for what the arguments mean. Returns whether the file
// could be opened; logging goes on (to the console) if not.
bool OpenLog(const char* name, const std::string& directory, std::uint32_t fileCount,
             std::uint32_t maxSize, bool console);
// Ends logging to the file: writes "EOF" as its last line, detaches and closes. For the end of the
// process; nothing is logged to a file after it.
void CloseLog();
// Process-wide priority mask.
void SetLogMask(unsigned mask);
// The mask for a value of the key LogLevel.
unsigned LogMaskFor(unsigned logLevel);

// The calling thread's own stream, for lines that are composed; null if it cannot be made.
std::ostringstream* LogStream();
// Writes the stream's text as one record, as it stands, and empties the stream. Does nothing with a
// stream that is not the calling thread's own. Returns the stream.
std::ostringstream* LogStreamFlush(std::ostringstream* stream, unsigned level);

// "<where>: Caught <what> <detail>\n" at error level. Null counts as empty.
void LogCaughtException(const char* where, const std::exception& exception, const char* detail);

}  // namespace MessageRouter

namespace Orvane {

// The logger that certificate and shared-state code gets by reference. The arguments are not passed
// on: a "%d" shows some number, every other conversion stands in the line as it is, so callers
// compose what matters beforehand. All return 0.
class ILogger {
 public:
  virtual ~ILogger() = default;
  virtual int Error(const char* format, ...) = 0;
  virtual int Warning(const char* format, ...) = 0;
  virtual int Info(const char* format, ...) = 0;
  virtual int Debug(const char* format, ...) = 0;
  virtual int Trace(const char* format, ...) = 0;
};

class Logger : public ILogger {
 public:
  int Error(const char* format, ...) override;
  int Warning(const char* format, ...) override;
  int Info(const char* format, ...) override;
  int Debug(const char* format, ...) override;
  int Trace(const char* format, ...) override;
};

}  // namespace Orvane
