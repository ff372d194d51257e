#include "routing/RouterTable.h"

#include <new>
#include <utility>

#include "broker/CorbaExceptions.h"
#include "config/Configuration.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/FindFreeEntries.h"
#include "routing/Quietly.h"
#include "security/OwnIdentity.h"

namespace MessageRouter {

using ThreadHelper::ReadGuard;
using ThreadHelper::WriteGuard;

namespace {

// The empty name, under which the parent begins, goes on being its own; it is also what an entry
// gives that can't be asked.
bool IsFormerParentsName(const RouterTableEntry& entry, const std::string& name) {
  if (name.empty() || !entry.IsParent()) return false;
  const std::string present = entry.Name();
  return !present.empty() && present != name;
}

// An entry that stands under another name than its own is the parent, or another peer's by now.
bool IsChildRouter(const RouterTableEntry& entry, const std::string& name) {
  return entry.IsRegistered() && entry.IsRouter() && !entry.IsParent() && entry.StandingOf(name);
}

bool IsOfRouter(const RegEntry& record) {
  return record.type == RegEntry::kRouterConsumer || record.type == RegEntry::kRouterNotify;
}

}  // namespace

RouterTable::RouterTable(RoutingHost& host, std::string filePath)
    : host_(host), file_(*this, host, std::move(filePath)) {}

RouterTable::~RouterTable() = default;

void RouterTable::SetReroute(Reroute reroute) {
  reroute_ = std::move(reroute);
}

void RouterTable::SetLoggedOffNotice(LoggedOffNotice notice) {
  loggedOffNotice_ = std::move(notice);
}

void RouterTable::RouteAnew(std::vector<Envelope>& envelopes) const {
  if (!reroute_) return;
  // What finds no memory waits on disk for the next cycle.
  for (Envelope& envelope : envelopes) Quietly([&] { reroute_(std::move(envelope)); });
}

void RouterTable::PeerLoggedOff(const std::string& name, bool isRouter) const {
  if (loggedOffNotice_) loggedOffNotice_(name, isRouter);
}

// A row that is in the table while this lives, and stays if it is filled.
class RouterTable::PendingRow {
 public:
  PendingRow(Rows& rows, const std::string& name)
      : rows_(rows), row_(rows.try_emplace(name, nullptr).first) {}
  ~PendingRow() {
    if (row_->second == nullptr) rows_.erase(row_);
  }
  PendingRow(const PendingRow&) = delete;
  PendingRow& operator=(const PendingRow&) = delete;

  // Returns what stood in it.
  RouterTableEntry* Fill(RouterTableEntry& entry) { return std::exchange(row_->second, &entry); }

 private:
  Rows& rows_;
  const Rows::iterator row_;
};

// While the table is closed there are no rows.
RouterTableEntry* RouterTable::FindLocked(const std::string& name) const {
  if (closed_) return nullptr;
  const auto row = rows_.find(name);
  return row == rows_.end() ? nullptr : row->second;
}

RouterTableEntry& RouterTable::AddLocked(const std::string& name, bool isRouter, bool isParent) {
  PendingRow row(rows_, name);
  entries_.push_back(std::make_unique<RouterTableEntry>(name, isRouter, isParent, *this, host_));
  RouterTableEntry& entry = *entries_.back();
  row.Fill(entry);
  return entry;
}

RouterTableEntry* RouterTable::Find(const std::string& name) const {
  ReadGuard guard(mutex_);
  return guard ? FindLocked(name) : nullptr;
}

RouterTableEntry* RouterTable::Parent() const {
  return parent_;
}

// The rows of a table that is closed and not yet cleared no longer change.
bool RouterTable::HasChildRouter(const std::string& name) const {
  ReadGuard guard(mutex_);
  if (!guard) return false;
  const auto row = rows_.find(name);
  return row == rows_.end() ? clearedChildren_.contains(name) : IsChildRouter(*row->second, name);
}

bool RouterTable::HasChildRouterHere(const std::string& name) const {
  const RouterTableEntry* const entry = Find(name);
  return entry != nullptr && IsChildRouter(*entry, name) && entry->IsLoggedOn();
}

bool RouterTable::IsParentsName(const std::string& name) const {
  const RouterTableEntry* const entry = Find(name);
  return entry != nullptr && entry->IsParent() && !IsFormerParentsName(*entry, name);
}

void RouterTable::Register(const std::string& name, bool isRouter) {
  RouterTableEntry* entry = Find(name);
  // A former parent, or a client of that name, may come below; the row of the name is not the
  // parent's any more then.
  const auto isOthers = [&] { return IsFormerParentsName(*entry, name); };
  if (entry != nullptr && entry->IsRegistered() && !isOthers()) {
    throw BrelixMessaging::AlreadyRegistered();
  }
  RouterTableEntry::Dismissed dismissed;
  {
    WriteGuard guard(mutex_);
    if (!guard) return;
    if (closed_) throw BrelixMessaging::Rejected();
    entry = FindLocked(name);
    if (entry == nullptr || isOthers()) {
      entry = &AddLocked(name, isRouter, false);
    } else if (entry->IsRegistered()) {
      throw BrelixMessaging::AlreadyRegistered();
    }
    entry->MarkRegistered(isRouter, dismissed);
  }
  entry->Finish(dismissed);
}

void RouterTable::Unregister(const std::string& name) {
  RouterTableEntry* entry = nullptr;
  RouterTableEntry::Dismissed dismissed;
  {
    // Held until the entry is marked: a forced write sees the peer as it is told that it is.
    ReadGuard guard(mutex_);
    if (!guard) return;
    entry = FindLocked(name);
    if (entry == nullptr || !entry->IsRegistered() || !entry->MarkUnregistered(name, dismissed)) {
      throw BrelixMessaging::NotRegistered();
    }
  }
  entry->Finish(dismissed);
}

void RouterTable::AddParent(const std::string& name) {
  WriteGuard guard(mutex_);
  if (!guard || closed_ || FindLocked(name) != nullptr) return;
  RouterTableEntry& entry = AddLocked(name, true, true);
  entry.MarkRegistered(true);
  parent_ = &entry;
}

void RouterTable::SetParentName(const std::string& name) {
  RouterTableEntry* displaced = nullptr;
  RouterTableEntry::Dismissed dismissed;
  std::vector<Envelope> leftovers;
  {
    WriteGuard guard(mutex_);
    if (!guard || closed_) return;
    RouterTableEntry* const parent = parent_;
    if (parent == nullptr || parent->Name() == name) return;
    PendingRow row(rows_, name);
    if (!parent->SetName(name)) return;
    displaced = row.Fill(*parent);
    if (displaced == parent) displaced = nullptr;
    // Nothing leads to it any more; whoever found it before must not leave an envelope there.
    if (displaced != nullptr) displaced->Detach(dismissed, leftovers);
  }
  if (displaced != nullptr) displaced->Finish(dismissed);
  RouteAnew(leftovers);
}

bool RouterTable::ReuseFreeEntryLocked(const std::vector<RouterTableEntry*>& free,
                                       const std::string& name, std::vector<Envelope>& leftovers) {
  PendingRow row(rows_, name);
  for (RouterTableEntry* entry : free) {
    const std::string former = entry->Name();
    if (!entry->TakeOver(name, leftovers)) continue;
    rows_.erase(former);
    row.Fill(*entry);
    return true;
  }
  return false;
}

void RouterTable::AddCertificationEntry(const std::string& name) {
  const std::uint32_t limit = GetConfigInt("ActiveCertificationLogonLimit", 0);
  std::vector<Envelope> leftovers;
  {
    // One step, so that of many newcomers at once no more get in than the limit allows.
    WriteGuard guard(mutex_);
    if (!guard || closed_) return;
    const RouterTableEntry* const present = FindLocked(name);
    if (present != nullptr && !IsFormerParentsName(*present, name)) return;
    FindFreeEntries entries;
    ScanLocked(entries);
    if (!ReuseFreeEntryLocked(entries.Free(), name, leftovers)) {
      // Counted now: one that was free when it was looked at may have logged on since, which needs
      // no lock of the table.
      FindFreeEntries now;
      ScanLocked(now);
      if (limit != 0 && now.Active() >= limit) return;
      AddLocked(name, false, false);
    }
  }
  RouteAnew(leftovers);
}

void RouterTable::ReadTable(bool createParent, const std::function<void()>& pause) {
  LogInfo("Reading router table file\n");
  Open();
  const auto fill = [&](const std::vector<RegEntry>& records) {
    for (const RegEntry& record : records) Restore(record);
    if (createParent) AddParent("");
  };
  file_.Read(fill, pause);
}

void RouterTable::Open() {
  WriteGuard guard(mutex_);
  if (!guard) return;
  closed_ = false;
  clearedChildren_.clear();
}

void RouterTable::Restore(const RegEntry& record) {
  static constexpr char kSource[] = "RouterTable::ReadTable";
  if (record.name.empty() || record.name == OwnIdentity::CommonName()) return;
  try {
    Register(record.name, IsOfRouter(record));
    if (!record.ior.empty()) RestoreLogon(record);
  } catch (const BrelixMessaging::AlreadyRegistered& exception) {
    const std::string detail = ". Discarding duplicate entry for '" + Shown(record.name) + "'";
    LogCaughtCorbaException(kSource, exception, detail.c_str());
  } catch (const CORBA::Exception& exception) {
    LogCaughtCorbaException(kSource, exception, "");
  }
}

// A peer is not called here: it may be down, and its type is known from when it logged on.
void RouterTable::RestoreLogon(const RegEntry& record) {
  LogInfo("Restoring logon for %s\n", ShownName(record.name).c_str());
  RouterTableEntry* const entry = Find(record.name);
  if (entry == nullptr) return;
  const CORBA::Object_var object = host_.StringToObject(record.ior);
  BrelixMessaging::EnvelopeConsumer_var consumer;
  BrelixMessaging::RouterConsumer_var routerConsumer;
  BrelixMessaging::NotifyConsumer_var notify;
  switch (record.type) {
    case RegEntry::kClientConsumer:
      consumer = BrelixMessaging::EnvelopeConsumer::_unchecked_narrow(object);
      break;
    case RegEntry::kRouterConsumer:
      routerConsumer = BrelixMessaging::RouterConsumer::_unchecked_narrow(object);
      break;
    case RegEntry::kClientNotify:
    case RegEntry::kRouterNotify:
      notify = BrelixMessaging::NotifyConsumer::_unchecked_narrow(object);
      break;
    default:
      return;
  }
  if (IsOfRouter(record)) {
    entry->LogonRouter(record.name, routerConsumer, BrelixMessaging::RouterSupplier::_nil(), notify,
                       0, false);
  } else {
    entry->LogonClient(record.name, consumer, notify, 0, false);
  }
}

bool RouterTable::IsClosed() const {
  ReadGuard guard(mutex_);
  return guard && closed_;
}

bool RouterTable::CollectRows(bool close, std::vector<RouterTableFile::Row>& rows) {
  WriteGuard guard(mutex_);
  if (!guard || closed_) return false;
  for (const auto& [name, entry] : rows_) {
    if (!entry->IsRegistered() || entry->IsParent()) continue;
    RouterTableFile::Row& row = rows.emplace_back();
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

bool RouterTable::Scan(FunctionClassBase& function) const {
  ReadGuard guard(mutex_);
  if (guard) ScanLocked(function);
  return static_cast<bool>(guard);
}

void RouterTable::ScanLocked(FunctionClassBase& function) const {
  if (closed_) return;
  for (const auto& [name, entry] : rows_) function(name, *entry);
}

// Whatever memory there is: the next cycle must not begin with what is left of this one.
void RouterTable::Clear() {
  // Released, and their envelopes freed, when no lock is held.
  std::vector<RouterTableEntry::Dismissed> dismissed;
  std::vector<Envelope> leftovers;
  WriteGuard guard(mutex_);
  if (!guard) return;
  closed_ = true;
  parent_ = nullptr;
  try {
    for (const auto& [name, entry] : rows_) {
      if (IsChildRouter(*entry, name)) clearedChildren_.insert(name);
    }
    dismissed.reserve(entries_.size());
  } catch (const std::bad_alloc&) {
    // What has no place among the dismissed is released here and now.
  }
  rows_.clear();
  for (const std::unique_ptr<RouterTableEntry>& entry : entries_) {
    RouterTableEntry::Dismissed released;
    const bool hasPlace = dismissed.size() < dismissed.capacity();
    entry->Detach(hasPlace ? dismissed.emplace_back() : released, leftovers);
  }
  KeepDetachedLocked();
}

void RouterTable::KeepDetachedLocked() {
  // There are some only where a cycle's end did not free them.
  if (detached_.empty()) detached_.swap(entries_);
  try {
    detached_.reserve(detached_.size() + entries_.size());
  } catch (const std::bad_alloc&) {
    // Without rows they do no harm, and the next Clear finds them.
    return;
  }
  for (std::unique_ptr<RouterTableEntry>& entry : entries_) detached_.push_back(std::move(entry));
  entries_.clear();
}

void RouterTable::FreeDetached() {
  std::vector<std::unique_ptr<RouterTableEntry>> freed;
  WriteGuard guard(mutex_);
  if (guard) freed.swap(detached_);
}

}  // namespace MessageRouter
