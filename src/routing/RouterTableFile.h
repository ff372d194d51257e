#pragma once

#include <BrelixMessaging.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "routing/RegEntry.h"
#include "threads/Mutex.h"

namespace MessageRouter {

class RoutingHost;

// The text file that keeps the router table over a restart: when it is written, what is tried
// again, and what is set aside. The file is replaced whole.
// Threads: any; writers come one after the other. Lock order: the file's lock, then the table's.
class RouterTableFile {
 public:
  // What one line is made of. A client has no references.
  struct Row {
    std::string name;
    bool isRouter = false;
    BrelixMessaging::RouterConsumer_var consumer;
    BrelixMessaging::NotifyConsumer_var notify;
  };

  // The table, as its file sees it.
  class Table {
   public:
    virtual ~Table() = default;
    // No, if the lock can't be taken: whoever writes looks again.
    virtual bool IsClosed() const = 0;
    // False if the table is closed. Closes it if asked to, in the same step.
    virtual bool CollectRows(bool close, std::vector<Row>& rows) = 0;
    // Whatever locks there are.
    virtual void Reopen() noexcept = 0;
  };

  RouterTableFile(Table& table, RoutingHost& host, std::string path);

  // Gives the records of the file to `fill`, once. A damaged line ends the reading with one
  // warning. A file that can't be read is set aside, and there are no records; one that could not
  // be read for a shortage that may pass is tried again a few times first, after `pause` each.
  // What the table was closed with and the disk did not take is read in place of the file, and
  // written.
  using Fill = std::function<void(const std::vector<RegEntry>& records)>;
  void Read(const Fill& fill, const std::function<void()>& pause);

  // At most once a minute unless forced; a write that is put off, or fails, is made by Tick. A
  // forced one closes the table, unless it ends in an exception. None is made of a closed table.
  void Write(bool force);
  void Tick();
  // A write that is owed, at once: for a stop, whose forced write may never come.
  void WriteOwed();
  // The forced write of a stop. One that fails is tried again a few times, after `pause` each; the
  // last exception leaves. What the disk does not take even so is kept for the next Read.
  void WriteLast(const std::function<void()>& pause);

 private:
  using SteadyTime = Platform::Clock::SteadyTime;

  std::vector<RegEntry> ReadFile(const std::function<void()>& pause) const;
  std::vector<RegEntry> RecordsIn(const std::string& text) const;

  // Whether a write may start now; notes it where it may not.
  bool Claim(bool force);
  bool IsOwed();
  void NoteEnd(bool owed);
  // Whatever the interval. The caller has claimed the write; one that fails, or for which there is
  // a lock too few, is owed. `close` closes the table in the step in which the rows are taken, and
  // an exception after that opens it again; what the disk did not take of a closed one is kept.
  void WriteNow(bool close);
  std::vector<RegEntry> RecordsOf(const std::vector<Row>& rows) REQUIRES(mutex_);
  RegEntry RecordOf(const Row& row) const;

  std::optional<std::string> KeptText();
  // False if a closed table has left no text to write.
  bool WriteKeptText();
  void ForgetKeptText();

  Table& table_;
  RoutingHost& host_;
  const std::string path_;

  // Writers, one after the other.
  ThreadHelper::Mutex mutex_;
  std::set<std::string> namesWarnedOf_ GUARDED_BY(mutex_);
  // What a table was closed with and the disk did not take.
  std::optional<std::string> unwritten_ GUARDED_BY(mutex_);

  // A leaf.
  ThreadHelper::Mutex timeMutex_;
  std::optional<SteadyTime> lastWrite_ GUARDED_BY(timeMutex_);
  bool owed_ GUARDED_BY(timeMutex_) = false;
};

}  // namespace MessageRouter
