#include "routing/RouterTableFile.h"

#include <cerrno>
#include <chrono>
#include <utility>

#include "broker/CorbaExceptions.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "platform/Files.h"
#include "routing/Quietly.h"
#include "routing/RouterTableText.h"
#include "routing/RoutingHost.h"

namespace MessageRouter {

using ThreadHelper::Guard;

namespace {

constexpr std::chrono::milliseconds kWriteInterval(60001);
constexpr std::size_t kLargestFile = std::size_t{64} << 20;
constexpr unsigned kFileMode = 0600;
constexpr unsigned kTries = 3;

// Whether that error of replacing a file came before a byte could be written.
bool IsOpenFailure(int error) {
  switch (error) {
    case EACCES:
    case EISDIR:
    case ELOOP:
    case EMFILE:
    case ENAMETOOLONG:
    case ENFILE:
    case ENOENT:
    case ENOTDIR:
    case EPERM:
    case EROFS:
      return true;
    default:
      return false;
  }
}

void LogWriteFailure(int error) {
  if (IsOpenFailure(error)) {
    LogWarning("Cannot open the router table file for writing.\n");
  } else if (error != 0) {
    LogWarning("Cannot write the router table file.\n");
  }
}

// What is short for a moment must not cost all registrations.
std::optional<std::string> ReadPatiently(const std::string& path,
                                         const std::function<void()>& pause, int& error) {
  for (unsigned left = kTries;; --left) {
    std::optional<std::string> text = Platform::ReadFile(path, kLargestFile, &error);
    if (text || !Platform::IsShortage(error) || left == 1) return text;
    LogSystemError(kLogWarning, "Trying again to read the router table file", error);
    pause();
  }
}

}  // namespace

RouterTableFile::RouterTableFile(Table& table, RoutingHost& host, std::string path)
    : table_(table), host_(host), path_(std::move(path)) {}

void RouterTableFile::Read(const Fill& fill, const std::function<void()>& pause) {
  const std::optional<std::string> kept = KeptText();
  fill(kept ? RecordsIn(*kept) : ReadFile(pause));
  // From here on the rows are what a write is made of.
  const bool owed = kept && Platform::ReplaceFile(path_, *kept, kFileMode) != 0;
  ForgetKeptText();
  Guard guard(timeMutex_);
  if (!guard) return;
  lastWrite_ = Platform::Clock::Instance().SteadyNow();
  owed_ = owed;
}

std::vector<RegEntry> RouterTableFile::ReadFile(const std::function<void()>& pause) const {
  int error = 0;
  if (const auto text = ReadPatiently(path_, pause, error)) return RecordsIn(*text);
  if (error != ENOENT) {
    LogSystemError(kLogWarning, "Cannot read the router table file", error);
    Platform::RenameFile(path_, path_ + ".bad");
  }
  return {};
}

std::vector<RegEntry> RouterTableFile::RecordsIn(const std::string& text) const {
  ParsedTableText parsed = ParseTableText(text);
  if (parsed.badLine != 0) {
    LogWarning("Line %zu of the router table file is damaged; it and what follows are ignored\n",
               parsed.badLine);
    // The next write replaces the file: what could not be read stays for the administrator.
    Platform::ReplaceFile(path_ + ".bad", text, kFileMode);
  }
  return std::move(parsed.records);
}

bool RouterTableFile::Claim(bool force) {
  const SteadyTime now = Platform::Clock::Instance().SteadyNow();
  Guard guard(timeMutex_);
  if (!guard) return false;
  if (!force && lastWrite_ && now - *lastWrite_ < kWriteInterval) {
    owed_ = true;
    return false;
  }
  lastWrite_ = now;
  owed_ = false;
  return true;
}

bool RouterTableFile::IsOwed() {
  Guard guard(timeMutex_);
  return guard && owed_;
}

void RouterTableFile::NoteEnd(bool owed) {
  Guard guard(timeMutex_);
  if (!guard) return;
  lastWrite_ = Platform::Clock::Instance().SteadyNow();
  // It may be owed anew since the claim.
  if (owed) owed_ = true;
}

void RouterTableFile::Write(bool force) {
  if (table_.IsClosed() || !Claim(force)) return;
  WriteNow(force);
}

void RouterTableFile::Tick() {
  if (IsOwed()) Write(false);
}

void RouterTableFile::WriteOwed() {
  if (IsOwed() && !table_.IsClosed() && Claim(true)) WriteNow(false);
}

// A table that an exception has opened again is written anew, with what has come in meanwhile; of
// a closed one the text.
void RouterTableFile::WriteLast(const std::function<void()>& pause) {
  for (unsigned left = kTries; left != 0; --left) {
    if (left != kTries) {
      Quietly([] { LogWarning("Trying again to write the router table file\n"); });
      pause();
    }
    try {
      if (!WriteKeptText()) Write(true);
      if (table_.IsClosed() && !IsOwed()) return;
    } catch (...) {
      if (left == 1) throw;
    }
  }
}

void RouterTableFile::WriteNow(bool close) {
  LogInfo("Writing router table file\n");
  Guard guard(mutex_);
  int error = 0;
  bool collected = false;
  // Whatever is not written is still owed, though the claim has cleared that.
  try {
    std::vector<Row> rows;
    collected = guard && table_.CollectRows(close, rows);
    if (!collected) return NoteEnd(true);
    std::string text = ComposeTableText(RecordsOf(rows));
    error = Platform::ReplaceFile(path_, text, kFileMode);
    if (error == 0) {
      unwritten_.reset();
    } else if (close) {
      unwritten_ = std::move(text);
    }
  } catch (...) {
    if (close && collected) table_.Reopen();
    NoteEnd(true);
    throw;
  }
  LogWriteFailure(error);
  NoteEnd(error != 0);
}

std::vector<RegEntry> RouterTableFile::RecordsOf(const std::vector<Row>& rows) {
  std::vector<RegEntry> records;
  for (const Row& row : rows) {
    if (CanBeStored(row.name)) {
      records.push_back(RecordOf(row));
    } else if (namesWarnedOf_.insert(row.name).second) {
      LogWarning(
          "The registration of %s is not kept over a restart: the name has a dot or a line "
          "end\n",
          ShownName(row.name).c_str());
    }
  }
  return records;
}

// A client is written without a reference: it logs on again by itself, while a router below must be
// reachable at once.
RegEntry RouterTableFile::RecordOf(const Row& row) const {
  RegEntry record;
  record.name = row.name;
  if (!row.isRouter) return record;
  record.type = RegEntry::kRouterConsumer;
  try {
    if (!CORBA::is_nil(row.consumer)) {
      record.ior = host_.ObjectToString(row.consumer);
    } else if (!CORBA::is_nil(row.notify)) {
      record.type = RegEntry::kRouterNotify;
      record.ior = host_.ObjectToString(row.notify);
    }
  } catch (const CORBA::Exception& exception) {
    // The registration is worth more than the way back.
    LogCaughtCorbaException("RouterTable::WriteTable", exception, Shown(row.name).c_str());
  }
  return record;
}

std::optional<std::string> RouterTableFile::KeptText() {
  Guard guard(mutex_);
  return guard ? unwritten_ : std::nullopt;
}

bool RouterTableFile::WriteKeptText() {
  Guard guard(mutex_);
  if (!guard || !unwritten_) return false;
  const int error = Platform::ReplaceFile(path_, *unwritten_, kFileMode);
  LogWriteFailure(error);
  if (error != 0) return true;
  unwritten_.reset();
  Claim(true);
  return true;
}

void RouterTableFile::ForgetKeptText() {
  Guard guard(mutex_);
  if (guard) unwritten_.reset();
}

}  // namespace MessageRouter
