#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

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
// Between Clear and the next ReadTable the table is closed: nothing is found, entries are refused,
// and WriteTable does nothing.
// Threads: any. Lock order: the table's lock, then an entry's.
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

  RouterTableEntry* Find(const std::string& name) const;  // also entries that are not registered
  RouterTableEntry* Parent() const;                       // no lock
  void Register(const std::string& name, bool isRouter);  // throws AlreadyRegistered
  void Unregister(const std::string& name);               // throws NotRegistered
  void AddParent(const std::string& name);
  void SetParentName(const std::string& name);
  void AddCertificationEntry(const std::string& name);

  // Opens the table and fills it from the file; a damaged line ends the reading with one warning.
  void ReadTable(bool createParent);
  // At most once a minute unless forced; a write that is put off is made by Tick.
  void WriteTable(bool force);
  void Tick();
  void Scan(FunctionClassBase& function) const;
  // Empties and closes the table. The entries are detached: their peers are forgotten, but they
  // stay good until FreeDetached.
  void Clear();
  // Deletes the detached entries. No thread may hold a pointer to one.
  void FreeDetached();

 private:
  // to be completed by the implementation
};

}  // namespace MessageRouter
