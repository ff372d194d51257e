// The table's text file: what survives a restart.
#include <cerrno>
#include <chrono>
#include <sstream>
#include <utility>

#include "broker/CorbaExceptions.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "platform/Files.h"
#include "routing/Quietly.h"
#include "routing/RouterTable.h"
#include "security/OwnIdentity.h"

namespace MessageRouter {

using ThreadHelper::Guard;
using ThreadHelper::ReadGuard;
using ThreadHelper::WriteGuard;

namespace {

constexpr std::chrono::milliseconds kWriteInterval(60001);
constexpr std::size_t kLargestFile = std::size_t{64} << 20;
constexpr unsigned kFileMode = 0600;
constexpr unsigned kTries = 3;

bool CanBeStored(const std::string& name) {
  return name.find_first_of(".\r\n") == std::string::npos;
}

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

std::vector<RegEntry> ParseTableFile(const std::string& text, std::size_t& badLine) {
  std::vector<RegEntry> records;
  std::size_t number = 0;
  badLine = 0;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = text.find('\n', start);
    const std::size_t next = end == std::string::npos ? text.size() : end + 1;
    // With its line end, where it has one: a last line that was cut short reads up to the end of
    // the text, and is not kept.
    const std::string lineText = text.substr(start, next - start);
    start = next;
    ++number;
    if (lineText.find_first_not_of("\r\n") == std::string::npos) continue;
    std::istringstream line(lineText);
    // Too little memory is not damage: a stream would keep it to itself.
    line.exceptions(std::ios::badbit);
    RegEntry record;
    record.read(line);
    if (!line.good()) {
      badLine = number;
      break;
    }
    records.push_back(std::move(record));
  }
  return records;
}

void RouterTable::ReadTable(bool createParent, const std::function<void()>& pause) {
  LogInfo("Reading router table file\n");
  {
    WriteGuard guard(mutex_);
    if (guard) {
      closed_ = false;
      clearedChildren_.clear();
    }
  }
  int error = 0;
  const std::optional<std::string> kept = KeptText();
  if (const auto text = kept ? kept : ReadPatiently(filePath_, pause, error)) {
    std::size_t badLine = 0;
    const std::vector<RegEntry> records = ParseTableFile(*text, badLine);
    if (badLine != 0) {
      LogWarning("Line %zu of the router table file is damaged; it and what follows are ignored\n",
                 badLine);
      // The next write replaces the file: what could not be read stays for the administrator.
      Platform::ReplaceFile(filePath_ + ".bad", *text, kFileMode);
    }
    for (const RegEntry& record : records) Restore(record);
  } else if (error != ENOENT) {
    LogSystemError(kLogWarning, "Cannot read the router table file", error);
    Platform::RenameFile(filePath_, filePath_ + ".bad");
  }
  if (createParent) AddParent("");
  // From here on the rows are what a write is made of.
  const bool owed = kept && Platform::ReplaceFile(filePath_, *kept, kFileMode) != 0;
  ForgetKeptText();
  Guard guard(writeTimeMutex_);
  if (!guard) return;
  lastWrite_ = Platform::Clock::Instance().SteadyNow();
  writeOwed_ = owed;
}

std::optional<std::string> RouterTable::KeptText() {
  Guard guard(fileMutex_);
  return guard ? unwritten_ : std::nullopt;
}

void RouterTable::ForgetKeptText() {
  Guard guard(fileMutex_);
  if (guard) unwritten_.reset();
}

// A peer is not called here: it may be down, and its type is known from when it logged on.
void RouterTable::Restore(const RegEntry& record) {
  static constexpr char kSource[] = "RouterTable::ReadTable";
  if (record.name.empty() || record.name == OwnIdentity::CommonName()) return;
  try {
    Register(record.name,
             record.type == RegEntry::kRouterConsumer || record.type == RegEntry::kRouterNotify);
    if (record.ior.empty()) return;
    LogInfo("Restoring logon for %s\n", ShownName(record.name).c_str());
    RouterTableEntry* const entry = Find(record.name);
    if (entry == nullptr) return;
    const CORBA::Object_var object = host_.StringToObject(record.ior);
    switch (record.type) {
      case RegEntry::kClientConsumer: {
        const BrelixMessaging::EnvelopeConsumer_var consumer =
            BrelixMessaging::EnvelopeConsumer::_unchecked_narrow(object);
        entry->LogonClient(record.name, consumer, BrelixMessaging::NotifyConsumer::_nil(), 0,
                           false);
        break;
      }
      case RegEntry::kRouterConsumer: {
        const BrelixMessaging::RouterConsumer_var consumer =
            BrelixMessaging::RouterConsumer::_unchecked_narrow(object);
        entry->LogonRouter(record.name, consumer, BrelixMessaging::RouterSupplier::_nil(),
                           BrelixMessaging::NotifyConsumer::_nil(), 0, false);
        break;
      }
      case RegEntry::kClientNotify: {
        const BrelixMessaging::NotifyConsumer_var notify =
            BrelixMessaging::NotifyConsumer::_unchecked_narrow(object);
        entry->LogonClient(record.name, BrelixMessaging::EnvelopeConsumer::_nil(), notify, 0,
                           false);
        break;
      }
      case RegEntry::kRouterNotify: {
        const BrelixMessaging::NotifyConsumer_var notify =
            BrelixMessaging::NotifyConsumer::_unchecked_narrow(object);
        entry->LogonRouter(record.name, BrelixMessaging::RouterConsumer::_nil(),
                           BrelixMessaging::RouterSupplier::_nil(), notify, 0, false);
        break;
      }
      default:
        break;
    }
  } catch (const BrelixMessaging::AlreadyRegistered& exception) {
    const std::string detail = ". Discarding duplicate entry for '" + Shown(record.name) + "'";
    LogCaughtCorbaException(kSource, exception, detail.c_str());
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException(kSource, exception, "");
  }
}

bool RouterTable::ClaimWrite(bool force) {
  const SteadyTime now = Platform::Clock::Instance().SteadyNow();
  Guard guard(writeTimeMutex_);
  if (!guard) return false;
  if (!force && lastWrite_ && now - *lastWrite_ < kWriteInterval) {
    writeOwed_ = true;
    return false;
  }
  lastWrite_ = now;
  writeOwed_ = false;
  return true;
}

void RouterTable::WriteDone(bool complete) {
  Guard guard(writeTimeMutex_);
  if (!guard) return;
  lastWrite_ = Platform::Clock::Instance().SteadyNow();
  if (!complete) writeOwed_ = true;
}

bool RouterTable::CollectRows(bool close, std::vector<Row>& rows) {
  WriteGuard guard(mutex_);
  if (!guard || closed_) return false;
  for (const auto& [name, entry] : rows_) {
    if (!entry->IsRegistered() || entry->IsParent()) continue;
    Row& row = rows.emplace_back();
    row.name = name;
    row.isRouter = entry->IsRouter();
    if (!row.isRouter) continue;
    RouterTableEntry::PeerReferences references = entry->References();
    row.consumer = references.routerConsumer._retn();
    row.notify = references.notifyConsumer._retn();
  }
  // In the step in which the rows are taken: nobody is told of a registration that the file does
  // not hold.
  closed_ = close;
  return true;
}

// A client is written without a reference: it logs on again by itself, while a router below must be
// reachable at once.
RegEntry RouterTable::RecordOf(const Row& row) {
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

std::string RouterTable::ComposeFile(const std::vector<Row>& rows) {
  std::ostringstream text;
  // A row that finds no memory must not be missing from the file.
  text.exceptions(std::ios::badbit);
  for (const Row& row : rows) {
    if (CanBeStored(row.name)) {
      RecordOf(row).write(text) << '\n';
    } else if (namesWarnedOf_.insert(row.name).second) {
      LogWarning(
          "The registration of %s is not kept over a restart: the name has a dot or a line "
          "end\n",
          ShownName(row.name).c_str());
    }
  }
  return text.str();
}

void RouterTable::WriteTable(bool force) {
  if (IsClosed() || !ClaimWrite(force)) return;
  Write(force);
}

// A table that an exception has opened again is written anew, with what has come in meanwhile; of
// a closed one the text.
void RouterTable::WriteLast(const std::function<void()>& pause) {
  for (unsigned left = kTries; left != 0; --left) {
    if (left != kTries) {
      Quietly([] { LogWarning("Trying again to write the router table file\n"); });
      pause();
    }
    try {
      if (!WriteKeptText()) WriteTable(true);
      if (IsClosed() && !IsWriteOwed()) return;
    } catch (...) {
      if (left == 1) throw;
    }
  }
}

void RouterTable::Write(bool close) {
  LogInfo("Writing router table file\n");
  Guard guard(fileMutex_);
  int error = 0;
  bool collected = false;
  // Whatever is not written is still owed, though the claim has cleared that.
  try {
    std::vector<Row> rows;
    collected = guard && CollectRows(close, rows);
    if (!collected) return WriteDone(false);
    std::string text = ComposeFile(rows);
    error = Platform::ReplaceFile(filePath_, text, kFileMode);
    if (error == 0) {
      unwritten_.reset();
    } else if (close) {
      unwritten_ = std::move(text);
    }
  } catch (...) {
    if (close && collected) closed_ = false;
    WriteDone(false);
    throw;
  }
  LogWriteFailure(error);
  WriteDone(error == 0);
}

bool RouterTable::WriteKeptText() {
  Guard guard(fileMutex_);
  if (!guard || !unwritten_) return false;
  const int error = Platform::ReplaceFile(filePath_, *unwritten_, kFileMode);
  LogWriteFailure(error);
  if (error != 0) return true;
  unwritten_.reset();
  ClaimWrite(true);
  return true;
}

bool RouterTable::IsWriteOwed() {
  Guard guard(writeTimeMutex_);
  return guard && writeOwed_;
}

void RouterTable::Tick() {
  if (IsWriteOwed()) WriteTable(false);
}

void RouterTable::WriteOwed() {
  if (IsWriteOwed() && !IsClosed() && ClaimWrite(true)) Write(false);
}

}  // namespace MessageRouter
