#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "routing/RegEntry.h"
#include "routing/RouterTableEntry.h"
#include "routing/RouterTableFile.h"
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
// Threads: any. Lock order: the table's lock, then an entry's. Neither is held while the file is
// read or written.
class RouterTable : private RouterTableFile::Table {
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

  // Opens the table and fills it with what RouterTableFile reads.
  void ReadTable(
      bool createParent, const std::function<void()>& pause = [] {});
  // The writes of RouterTableFile. A forced one closes the table, unless it ends in an exception.
  void WriteTable(bool force) { file_.Write(force); }
  void Tick() { file_.Tick(); }
  void WriteOwed() { file_.WriteOwed(); }
  void WriteLast(const std::function<void()>& pause) { file_.WriteLast(pause); }
  // False if the lock can't be taken.
  bool Scan(FunctionClassBase& function) const;
  // Empties and closes the table. The entries are detached: their peers are forgotten, what they
  // held stays on disk alone, but they stay good until FreeDetached.
  void Clear();
  // Deletes the detached entries. No thread may hold a pointer to one.
  void FreeDetached();

 private:
  friend class RouterTableEntry;  // PeerLoggedOff

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
  // The entries, whose rows are gone, until FreeDetached.
  void KeepDetachedLocked() REQUIRES(mutex_);

  void Open();
  void Restore(const RegEntry& record);
  void RestoreLogon(const RegEntry& record);

  bool IsClosed() const override;
  bool CollectRows(bool close, std::vector<RouterTableFile::Row>& rows) override;
  void Reopen() noexcept override { closed_ = false; }

  RoutingHost& host_;
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

  RouterTableFile file_;
};

}  // namespace MessageRouter
