// Registrations, logons and their ends.
#include <exception>
#include <utility>

#include "broker/CorbaExceptions.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"
#include "routing/Routing.h"

namespace MessageRouter {

namespace {

// False, logged, if that fails. What it follows from has been done, and stays done.
template <class Work>
bool Attempt(const char* where, const std::string& what, Work&& work) {
  try {
    work();
    return true;
  } catch (const CORBA::Exception& exception) {
    Quietly([&] { LogCaughtCorbaException(where, exception, Shown(what).c_str()); });
  } catch (const std::exception& exception) {
    Quietly([&] { LogCaughtException(where, exception, Shown(what).c_str()); });
  }
  return false;
}

// A table that was closed during a logon has taken the session along.
void RequireEntry(const RouterTable& table, const std::string& name) {
  if (table.Find(name) == nullptr) throw BrelixMessaging::Rejected();
}

}  // namespace

void Routing::RegisterPeer(const std::string& name, bool isRouter) {
  if (!isRouter && table_.IsParentsName(name)) throw BrelixMessaging::AlreadyRegistered();
  const bool hasParent = table_.Parent() != nullptr;
  try {
    table_.Register(name, isRouter);
  } catch (const BrelixMessaging::AlreadyRegistered&) {
    if (isRouter && table_.HasChildRouter(name)) news_.AnnounceChild(name, true, hasParent);
    throw;
  }
  Attempt("Routing::RegisterPeer", name, [&] { table_.WriteTable(false); });
  Attempt("Routing::RegisterPeer", name,
          [&] { (isRouter ? routerUpdateNotifier_ : clientUpdateNotifier_).Registered(name); });
  if (isRouter) news_.AnnounceChild(name, false, hasParent);
}

Routing::Drain::~Drain() {
  if (entry_ == nullptr) return;
  // What finds no memory waits on disk for the next cycle.
  Quietly([this] {
    Envelope waiting;
    while (entry_->PopUnroutable(waiting)) routing_.QueueForRouting(std::move(waiting));
  });
}

void Routing::UnregisterPeer(const std::string& name, bool isRouter) {
  if (!isRouter && table_.IsParentsName(name)) throw BrelixMessaging::NotRegistered();
  const bool tells = isRouter && table_.Parent() != nullptr;
  RouterTableEntry* const entry = table_.Find(name);
  // Before it can be another peer's.
  const std::uint64_t debt = tells && entry != nullptr ? entry->OweNews() : 0;
  try {
    table_.Unregister(name);
  } catch (...) {
    if (debt != 0) entry->CancelNews(debt);
    throw;
  }
  // Whatever goes wrong with the news, what waited for the peer is routed anew.
  const Drain drain(*this, entry);
  Attempt("Routing::UnregisterPeer", name, [&] { table_.WriteTable(false); });
  Attempt("Routing::UnregisterPeer", name,
          [&] { (isRouter ? routerUpdateNotifier_ : clientUpdateNotifier_).Unregistered(name); });
  if (tells && news_.AnnounceEnd(name) && debt != 0) entry->SettleNews(debt);
}

RouterTableEntry& Routing::FindForLogon(const std::string& name) {
  RouterTableEntry* const entry = table_.Find(name);
  if (entry == nullptr) throw BrelixMessaging::NotRegistered();
  return *entry;
}

RouterTableEntry::LocalPeerObjects Routing::LogonClientPeer(
    const std::string& name, BrelixMessaging::EnvelopeConsumer_ptr consumer,
    BrelixMessaging::NotifyConsumer_ptr notify, std::int32_t threshold) {
  RouterTableEntry& entry = FindForLogon(name);
  const auto activated = entry.LogonClient(name, consumer, notify, threshold, true);
  Attempt("Routing::LogonClientPeer", name, [&] { table_.WriteTable(false); });
  Attempt("Routing::LogonClientPeer", name, [&] { OfferForDelivery(entry); });
  clientUpdateNotifier_.Logon(name);
  RequireEntry(table_, name);
  return activated;
}

RouterTableEntry::LocalPeerObjects Routing::LogonRouterPeer(
    const std::string& name, BrelixMessaging::RouterConsumer_ptr consumer,
    BrelixMessaging::RouterSupplier_ptr supplier, BrelixMessaging::NotifyConsumer_ptr notify,
    std::int32_t threshold) {
  RouterTableEntry& entry = FindForLogon(name);
  const auto activated = entry.LogonRouter(name, consumer, supplier, notify, threshold, true);
  Attempt("Routing::LogonRouterPeer", name, [&] { table_.WriteTable(false); });
  // Late news of its former way here would keep its end from being told.
  Attempt("Routing::LogonRouterPeer", name, [&] { news_.TakeFromMapIfHere(name); });
  Attempt("Routing::LogonRouterPeer", name, [&] { host_.NotifiedPoll(entry); });
  Attempt("Routing::LogonRouterPeer", name, [&] { OfferForDelivery(entry); });
  routerUpdateNotifier_.Logon(name);
  RequireEntry(table_, name);
  return activated;
}

void Routing::LogoffPeer(const std::string& name) {
  FindForLogon(name).Logoff(name);
}

void Routing::OfferForDelivery(RouterTableEntry& entry) {
  if (entry.HasNotifyConsumer() && entry.GetConsumerState() == RouterTableEntry::kNothingSent) {
    host_.OfferToThreshold(entry);
  } else {
    host_.OfferToSenders(entry);
  }
}

}  // namespace MessageRouter
