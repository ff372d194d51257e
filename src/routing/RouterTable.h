#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "routing/RegEntry.h"
#include "routing/RouterTableEntry.h"
#include "threads/Mutex.h"

namespace MessageRouter {

// Base of what Scan runs over the rows of the table.
class FunctionClassBase {
 public:
  virtual ~FunctionClassBase() = default;
  // Runs under the table's read lock and must not change the table.
  virtual void operator()(std::string name, RouterTableEntry& entry) = 0;
};

// The neighbours of this router, by name. The table owns its entries; they stay after logoff and
// unregistering, and a pointer to one stays good until FreeDetached. The same entry can stand under
// two names: the parent begins under the empty one, which goes on leading to it.
//
// From the forced write, with which routing stops, until the next ReadTable the table is closed:
// nothing is found, entries are refused, and WriteTable does nothing. HasChildRouter alone goes on
// answering as when the table was closed: what was registered in time must still be told.
// Threads: any. Lock order: the table's lock, then an entry's. The file is read and written while
// neither is held.
class RouterTable {
 public:
  // `filePath` is the table file.
  RouterTable(RoutingHost& host, std::string filePath);
  ~RouterTable();
  RouterTable(const RouterTable&) = delete;
  RouterTable& operator=(const RouterTable&) = delete;

  // What displaced or renamed entries held is routed anew through this.
  using Reroute = std::function<void(Envelope)>;
  void SetReroute(Reroute reroute);
  // Hears of each logoff of a client or child router. Both are set before threads run.
  using LoggedOffNotice = std::function<void(const std::string& name, bool isRouter)>;
  void SetLoggedOffNotice(LoggedOffNotice notice);

  RouterTableEntry* Find(const std::string& name) const;  // also entries that are not registered
  RouterTableEntry* Parent() const;                       // no lock
  // Whether a router of that name is registered below this one.
  bool HasChildRouter(const std::string& name) const;
  // Whether that one is logged on.
  bool HasChildRouterHere(const std::string& name) const;
  // Whether the parent bears that name, or began under it. A former name is anybody's.
  bool IsParentsName(const std::string& name) const;
  // Throws AlreadyRegistered; Rejected while the table is closed. Whoever bears a name that the
  // parent had before gets an entry of its own.
  void Register(const std::string& name, bool isRouter);
  // Throws NotRegistered, for a former parent too.
  void Unregister(const std::string& name);
  void AddParent(const std::string& name);
  void SetParentName(const std::string& name);
  // Makes room for a peer that wants a certificate before it is registered; LogonCertification must
  // follow. Nothing happens where the limit of such peers is reached.
  void AddCertificationEntry(const std::string& name);

  // Opens the table and fills it from the file; a damaged line ends the reading with one warning. A
  // file that can't be read is set aside, and the table is empty; one that could not be read for a
  // shortage that may pass is tried again a few times first, after `pause` each.
  void ReadTable(
      bool createParent, const std::function<void()>& pause = [] {});
  // At most once a minute unless forced; a write that is put off, or fails, is made by Tick. A
  // forced one closes the table, unless it ends in an exception. The file is replaced whole.
  void WriteTable(bool force);
  void Tick();
  // A write that is owed, at once: for a stop, whose forced write may never come.
  void WriteOwed();
  // The forced write of a stop. One that fails is tried again a few times, after `pause` each; the
  // last exception leaves. What the disk does not take even so is kept for the next ReadTable,
  // which takes it for the file's text and writes it.
  void WriteLast(const std::function<void()>& pause);
  // False if the lock can't be taken.
  bool Scan(FunctionClassBase& function) const;
  // Empties and closes the table. The entries are detached: their peers are forgotten, what they
  // held stays on disk alone, but they stay good until FreeDetached.
  void Clear();
  // Deletes the detached entries. No thread may hold a pointer to one.
  void FreeDetached();

 private:
  friend class RouterTableEntry;  // PeerLoggedOff

  using SteadyTime = Platform::Clock::SteadyTime;
  // What one line of the file is made of.
  struct Row {
    std::string name;
    bool isRouter = false;
    BrelixMessaging::RouterConsumer_var consumer;
    BrelixMessaging::NotifyConsumer_var notify;
  };

  using Rows = std::map<std::string, RouterTableEntry*>;
  class PendingRow;

  RouterTableEntry* FindLocked(const std::string& name) const REQUIRES_SHARED(mutex_);
  RouterTableEntry& AddLocked(const std::string& name, bool isRouter, bool isParent)
      REQUIRES(mutex_);
  void ScanLocked(FunctionClassBase& function) const REQUIRES_SHARED(mutex_);
  // True if one of the free entries has taken the name.
  bool ReuseFreeEntryLocked(const std::vector<RouterTableEntry*>& free, const std::string& name,
                            std::vector<Envelope>& leftovers) REQUIRES(mutex_);
  void RouteAnew(std::vector<Envelope>& envelopes) const;
  void PeerLoggedOff(const std::string& name, bool isRouter) const;

  void Restore(const RegEntry& record);
  // Whatever the interval. The caller has claimed the write; one that fails, or for which there is
  // a lock too few, is owed. `close` closes the table in the step in which the rows are taken, and
  // an exception after that opens it again; what the disk did not take of a closed one is kept.
  void Write(bool close);
  // Whether a write may start now; notes it where it may not.
  bool ClaimWrite(bool force);
  bool IsWriteOwed();
  void WriteDone(bool complete);
  bool IsClosed() const;  // no, if the lock can't be taken: whoever writes looks again
  // False if the table is closed. Closes it if asked to, in the same step.
  bool CollectRows(bool close, std::vector<Row>& rows);
  // False if a closed table has left no text to write.
  bool WriteKeptText();
  std::optional<std::string> KeptText();
  void ForgetKeptText();
  RegEntry RecordOf(const Row& row);
  std::string ComposeFile(const std::vector<Row>& rows) REQUIRES(fileMutex_);

  RoutingHost& host_;
  const std::string filePath_;
  Reroute reroute_;
  LoggedOffNotice loggedOffNotice_;

  mutable ThreadHelper::RWMutex mutex_;
  // Changed under the lock, but for a write that has failed: it opens the table again whatever
  // locks there are.
  std::atomic<bool> closed_{false};
  // The parent can stand in it twice, an entry that lost its name not at all.
  Rows rows_ GUARDED_BY(mutex_);
  std::vector<std::unique_ptr<RouterTableEntry>> entries_ GUARDED_BY(mutex_);
  std::vector<std::unique_ptr<RouterTableEntry>> detached_ GUARDED_BY(mutex_);
  std::atomic<RouterTableEntry*> parent_{nullptr};
  // The child routers of a table that has been cleared.
  std::set<std::string> clearedChildren_ GUARDED_BY(mutex_);

  // Writers of the file, one after the other; taken before mutex_.
  ThreadHelper::Mutex fileMutex_;
  std::set<std::string> namesWarnedOf_ GUARDED_BY(fileMutex_);
  // What a table was closed with and the disk did not take.
  std::optional<std::string> unwritten_ GUARDED_BY(fileMutex_);

  // A leaf.
  ThreadHelper::Mutex writeTimeMutex_;
  std::optional<SteadyTime> lastWrite_ GUARDED_BY(writeTimeMutex_);
  bool writeOwed_ GUARDED_BY(writeTimeMutex_) = false;
};

// The records of a table file's text, up to the first line that does not parse, whose number is
// left in `badLine`; 0 if all do. Empty lines are passed over.
std::vector<RegEntry> ParseTableFile(const std::string& text, std::size_t& badLine);

}  // namespace MessageRouter
