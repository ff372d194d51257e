#include "logging/Backend.h"

#include <ace/Log_Record.h>
#include <ace/OS_NS_dirent.h>
#include <ace/OS_NS_stdio.h>
#include <ace/OS_NS_stdlib.h>
#include <ace/OS_NS_string.h>
#include <ace/OS_NS_time.h>
#include <ace/OS_NS_unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "logging/Log.h"
#include "platform/Clock.h"
#include "platform/Process.h"

namespace MessageRouter {
namespace {

constexpr std::uint32_t kSmallestMaximum = 1024;
constexpr std::uint32_t kFewestFiles = 2;
constexpr char kExtension[] = ".log";
constexpr std::size_t kExtensionLength = 4;
constexpr std::size_t kStampSize = 32;

// Shared by all backends: the folder's filter takes no context.
std::string& BaseName() {
  static std::string& name = *new std::string;
  return name;
}

// For the process's last words, which must not wait for a lock.
std::atomic<ACE_HANDLE> currentHandle{ACE_INVALID_HANDLE};

char LetterOf(unsigned level) {
  switch (level) {
    case kLogTrace:
      return 'T';
    case kLogDebug:
      return 'D';
    case kLogInfo:
      return 'I';
    case kLogNotice:
      return 'N';
    case kLogWarning:
      return 'W';
    case kLogError:
      return 'E';
    case kLogCritical:
      return 'C';
    default:
      return '?';
  }
}

std::string BaseNameOf(const char* name) {
  if (name == nullptr) {
    // The terminating character belongs to the name: a path made of it ends there.
    return "UNKNOWN-PROGRAM-" + std::to_string(Platform::ProcessId()) + '\0';
  }
  std::string base(name);
  for (const char separator : {'/', '\\'}) {
    const std::size_t position = base.rfind(separator);
    if (position != std::string::npos) base.erase(0, position + 1);
  }
  return base;
}

std::string DirectoryOf(const std::string& directory) {
  if (directory.empty()) return "./";
  return directory.back() == '/' ? directory : directory + '/';
}

// The thread's number in the kernel, cut to 16 bits, in four upper-case digits.
void AppendThread(std::string& line) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const std::uint32_t id = Platform::ThreadId();
  for (int shift = 12; shift >= 0; shift -= 4) line += kDigits[(id >> shift) & 0xF];
}

int IsLogFile(const ACE_DIRENT* entry) {
  const std::string& base = BaseName();
  const std::size_t length = ACE_OS::strlen(entry->d_name);
  if (length <= kExtensionLength) return 0;
  if (ACE_OS::strncmp(entry->d_name, base.data(), base.size()) != 0) return 0;
  // The count is the base name's length: a base name shorter than the extension compares only so
  // many of its characters.
  return ACE_OS::strncmp(entry->d_name + length - kExtensionLength, kExtension, base.size()) == 0;
}

int NewestFirst(const ACE_DIRENT** left, const ACE_DIRENT** right) {
  return ACE_OS::strcmp((*right)->d_name, (*left)->d_name);
}

}  // namespace

Backend::Backend(const char* name, const std::string& directory, std::uint32_t fileCount,
                 std::uint32_t maxSize, bool console)
    : maxSize_(static_cast<std::int32_t>(std::max(maxSize, kSmallestMaximum))),
      directory_(DirectoryOf(directory)),
      fileCount_(std::max(fileCount, kFewestFiles)),
      console_(console) {
  BaseName() = BaseNameOf(name);
  OpenFile();
  purgeOwed_ = !Purge();
}

Backend::~Backend() {
  if (stream_ == nullptr) return;
  // Written straight to the own file: by now a later backend may be the process's.
  inRotation_ = true;
  ACE_Log_Record record(LM_INFO, static_cast<time_t>(0), 0);
  record.msg_data(("EOF: " + path_ + "\n").c_str());
  Backend::log(record);
  CloseFile();
}

int Backend::open(const ACE_TCHAR*) {
  return 0;
}

int Backend::reset() {
  return 0;
}

int Backend::close() {
  return 0;
}

ssize_t Backend::log(ACE_Log_Record& record) {
  const char* const text = record.msg_data() == nullptr ? "" : record.msg_data();
  line_ = TimePrefix();
  AppendThread(line_);
  line_ += ' ';
  line_ += LetterOf(static_cast<unsigned>(record.type()));
  line_ += ' ';
  line_ += text;
  if (*text == '\0' || line_.back() != '\n') line_ += '\n';

  if (stream_ != nullptr) std::fputs(line_.c_str(), stream_);
  if (console_) std::fputs(line_.c_str(), stderr);
  if (!inRotation_) {
    inRotation_ = true;
    // Without memory the file is looked at again with the next record.
    try {
      CheckSize();
    } catch (const std::bad_alloc&) {
    }
    inRotation_ = false;
  } else if (stream_ != nullptr) {
    std::fflush(stream_);
  }
  return 0;
}

void Backend::SyncCurrentFile() {
  const ACE_HANDLE handle = currentHandle.load();
  if (handle != ACE_INVALID_HANDLE) ACE_OS::fsync(handle);
}

void Backend::OpenFile() {
  const std::time_t now = Platform::Clock::Instance().WallSeconds();
  std::tm utc{};
  ACE_OS::gmtime_r(&now, &utc);
  std::array<char, kStampSize> stamp{};
  std::strftime(stamp.data(), stamp.size(), "-%Y%m%d-%H%M%S.log", &utc);
  // In place: CheckSize has made room.
  path_ = directory_;
  path_ += BaseName();
  path_ += stamp.data();
  path_.erase(std::min(path_.find('\0'), path_.size()));

  stream_ = std::fopen(path_.c_str(), "wte");
  if (stream_ != nullptr) currentHandle = ACE_OS::fileno(stream_);
  LogOpening();
}

void Backend::LogOpening() const {
  if (stream_ == nullptr) {
    LogError("ERROR opening: %s\n", path_.c_str());
  } else {
    LogInfo("SOF: %s\n", path_.c_str());
  }
}

void Backend::CloseFile() {
  // A later backend's file stays the current one.
  ACE_HANDLE own = ACE_OS::fileno(stream_);
  currentHandle.compare_exchange_strong(own, ACE_INVALID_HANDLE);
  std::fclose(stream_);
  stream_ = nullptr;
}

void Backend::CheckSize() {
  if (stream_ == nullptr) return;
  std::fflush(stream_);
  if (static_cast<std::int32_t>(std::ftell(stream_)) >= maxSize_) {
    // Before one file is closed: another must follow it.
    path_.reserve(directory_.size() + BaseName().size() + kStampSize);
    LogInfo("EOF: %s\n", path_.c_str());
    CloseFile();
    purgeOwed_ = true;
    OpenFile();
  }
  if (!purgeOwed_) return;
  purgeOwed_ = !Purge();
}

bool Backend::Purge() {
  if (stream_ == nullptr) return true;
  struct Names {
    ACE_DIRENT** first = nullptr;
    int count = 0;
    ~Names() {
      for (int i = 0; i < count; ++i) std::free(first[i]);
      std::free(first);
    }
  } names;
  names.count = ACE_OS::scandir(directory_.c_str(), &names.first, &IsLogFile, &NewestFirst);
  // A folder that can't be read at all is not looked at again with each record.
  if (names.count < 0) return errno != ENOMEM;
  for (int i = 0; i < names.count; ++i) {
    if (static_cast<std::uint32_t>(i) < fileCount_) continue;
    const std::string path = directory_ + names.first[i]->d_name;
    LogInfo("UNLINK: %s\n", path.c_str());
    ACE_OS::unlink(path.c_str());
  }
  return true;
}

const std::string& Backend::TimePrefix() {
  const std::time_t now = Platform::Clock::Instance().WallSeconds();
  if (now != prefixSecond_) {
    std::tm local{};
    ACE_OS::localtime_r(&now, &local);
    std::array<char, 30> text{};
    std::strftime(text.data(), text.size(), "%d.%m.%Y %H:%M:%S ", &local);
    prefix_ = text.data();
    prefixSecond_ = now;
  }
  return prefix_;
}

}  // namespace MessageRouter
