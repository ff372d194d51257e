#include "logging/Log.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>
#include <ace/Singleton.h>
#include <ace/Synch_Traits.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string_view>
#include <system_error>

#include "logging/Backend.h"
#include "platform/Process.h"

namespace MessageRouter {
namespace {

// The process's backend. Guarded by ACE's logging lock.
Backend* currentBackend = nullptr;

class AceLogLock {
 public:
  AceLogLock() { ACE_LOG_MSG->acquire(); }
  ~AceLogLock() { ACE_LOG_MSG->release(); }
  AceLogLock(const AceLogLock&) = delete;
  AceLogLock& operator=(const AceLogLock&) = delete;
};

void WriteRecord(unsigned level, const char* text) {
  ACE_Log_Record record(static_cast<ACE_Log_Priority>(level), static_cast<time_t>(0), 0);
  record.msg_data(text);
  ACE_LOG_MSG->log(record);
}

// ACE's own output, in force before the log is opened, formats into a buffer of this size.
constexpr std::size_t kAceLimit = 4000;

void Write(unsigned level, const char* text, std::size_t length) {
  if (length <= kAceLimit || (ACE_LOG_MSG->flags() & ACE_Log_Msg::CUSTOM) != 0) {
    WriteRecord(level, text);
    return;
  }
  const AceLogLock lock;
  for (std::string_view rest(text, length); !rest.empty();
       rest.remove_prefix(std::min(rest.size(), kAceLimit))) {
    WriteRecord(level, std::string(rest.substr(0, kAceLimit)).c_str());
  }
}

void LogFormatted(unsigned level, const char* format, va_list arguments) {
  if (!LogEnabled(level)) return;
  const int savedError = errno;
  std::array<char, 1024> shortText;
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(shortText.data(), shortText.size(), format, arguments);
  if (length < 0) {
    // What can't be formatted (a wide character that has no form here) is shown unformatted.
    Write(level, format, std::char_traits<char>::length(format));
  } else if (static_cast<std::size_t>(length) < shortText.size()) {
    Write(level, shortText.data(), static_cast<std::size_t>(length));
  } else {
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    const auto longText = std::make_unique<char[]>(size);
    std::vsnprintf(longText.get(), size, format, again);
    Write(level, longText.get(), size - 1);
  }
  va_end(again);
  errno = savedError;
}

}  // namespace

#define BRELIX_LOG_FUNCTION(name, level)    \
  void name(const char* format, ...) {      \
    va_list arguments;                      \
    va_start(arguments, format);            \
    LogFormatted(level, format, arguments); \
    va_end(arguments);                      \
  }

BRELIX_LOG_FUNCTION(LogTrace, kLogTrace)
BRELIX_LOG_FUNCTION(LogDebug, kLogDebug)
BRELIX_LOG_FUNCTION(LogInfo, kLogInfo)
BRELIX_LOG_FUNCTION(LogNotice, kLogNotice)
BRELIX_LOG_FUNCTION(LogWarning, kLogWarning)
BRELIX_LOG_FUNCTION(LogError, kLogError)
BRELIX_LOG_FUNCTION(LogCritical, kLogCritical)

#undef BRELIX_LOG_FUNCTION

void LogAt(unsigned level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LogFormatted(level, format, arguments);
  va_end(arguments);
}

bool LogEnabled(unsigned level) {
  return ACE_LOG_MSG->log_priority_enabled(static_cast<ACE_Log_Priority>(level)) != 0;
}

void LogSystemError(unsigned level, const char* text, int error) {
  if (!LogEnabled(level)) return;
  LogAt(level, "%s: %s (%d)\n", text, std::generic_category().message(error).c_str(), error);
}

bool OpenLog(const char* name, const std::string& directory, std::uint32_t fileCount,
             std::uint32_t maxSize, bool console) {
  Platform::SetLastWords(&Backend::SyncCurrentFile);
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  // One owner of the lock from first to last: no line of another thread gets between the backends,
  // and none meets one that is being deleted.
  const AceLogLock lock;
  auto backend = std::make_unique<Backend>(name, directory, fileCount, maxSize, console);
  Backend* const earlier = currentBackend;
  const bool opened = backend->IsOpen();
  currentBackend = backend.release();
  ACE_Log_Msg::msg_backend(currentBackend);
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::CUSTOM);
  if (earlier != nullptr) {
    delete earlier;
  } else {
    // What the opening logged could not reach this backend yet.
    currentBackend->LogOpening();
  }
  return opened;
}

void CloseLog() {
  const AceLogLock lock;
  if (currentBackend == nullptr) return;
  Backend* const backend = currentBackend;
  currentBackend = nullptr;
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::CUSTOM);
  ACE_Log_Msg::msg_backend(nullptr);
  delete backend;
}

void SetLogMask(unsigned mask) {
  ACE_LOG_MSG->priority_mask(mask, ACE_Log_Msg::PROCESS);
}

unsigned LogMaskFor(unsigned logLevel) {
  unsigned mask =
      LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY;
  if (logLevel >= 1) mask |= LM_DEBUG;
  if (logLevel >= 2) mask |= LM_TRACE;
  return mask;
}

std::ostringstream* LogStream() {
  return ACE_TSS_Singleton<std::ostringstream, ACE_MT_SYNCH::MUTEX>::instance();
}

std::ostringstream* LogStreamFlush(std::ostringstream* stream, unsigned level) {
  if (stream == nullptr || stream != LogStream()) return stream;
  LogAt(level, "%s", stream->str().c_str());
  stream->clear();
  stream->seekp(0);
  stream->str(std::string());
  return stream;
}

void LogCaughtException(const char* where, const std::exception& exception, const char* detail) {
  LogError("%s: Caught %s %s\n", where == nullptr ? "" : where, exception.what(),
           detail == nullptr ? "" : detail);
}

}  // namespace MessageRouter

namespace Orvane {
namespace {

// The arguments are not passed on: a "%d" shows the address of the argument area, and every other
// conversion stands as it is, for a composed text can hold a peer's words.
int Forward(unsigned level, const char* format, const void* arguments) {
  std::string text;
  for (const char* p = format; *p != '\0'; ++p) {
    if (*p != '%' || (p[1] != 'd' && p[1] != '%')) {
      text += *p;
      continue;
    }
    ++p;
    if (*p == 'd') {
      text += std::to_string(static_cast<int>(reinterpret_cast<std::uintptr_t>(arguments)));
    } else {
      text += '%';
    }
  }
  MessageRouter::LogAt(level, "%s", text.c_str());
  return 0;
}

}  // namespace

#define BRELIX_FORWARD(name, level)                        \
  int Logger::name(const char* format, ...) {              \
    va_list arguments;                                     \
    va_start(arguments, format);                           \
    const int result = Forward(level, format, &arguments); \
    va_end(arguments);                                     \
    return result;                                         \
  }

BRELIX_FORWARD(Error, MessageRouter::kLogError)
BRELIX_FORWARD(Warning, MessageRouter::kLogWarning)
BRELIX_FORWARD(Info, MessageRouter::kLogInfo)
BRELIX_FORWARD(Debug, MessageRouter::kLogDebug)
BRELIX_FORWARD(Trace, MessageRouter::kLogTrace)

#undef BRELIX_FORWARD

}  // namespace Orvane
