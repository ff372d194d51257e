#include "routing/RouterTableEntry.h"

#include <new>
#include <stdexcept>
#include <utility>

#include "routing/Quietly.h"
#include "routing/Routing.h"

namespace MessageRouter {

using ThreadHelper::ReadGuard;
using ThreadHelper::WriteGuard;

namespace {
constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;
constexpr std::size_t kExpiredAtOnce = 1000;
}  // namespace

RouterTableEntry::RouterTableEntry(const std::string& name, bool isRouter, bool isParent,
                                   RouterTable& table, RoutingHost& host)
    : table_(table),
      host_(host),
      isParent_(isParent),
      isRouter_(isRouter),
      name_(name),
      supplier_(static_cast<std::uint32_t>(Platform::Clock::Instance().WallMicroseconds() %
                                           kMicrosecondsPerSecond)) {}

RouterTableEntry::~RouterTableEntry() = default;

std::string RouterTableEntry::Name() const {
  ReadGuard guard(lock_);
  return guard ? name_ : std::string();
}

std::optional<RouterTableEntry::Standing> RouterTableEntry::StandingOf(
    const std::string& name) const {
  ReadGuard guard(lock_);
  if (!guard || !IsCallersLocked(name)) return std::nullopt;
  return Standing{IsLoggedOn(), IsRouter()};
}

std::optional<BrelixMessaging::RouterClient> RouterTableEntry::StatusOf(
    const std::string& name) const {
  ReadGuard guard(lock_);
  if (!guard || !BelongsToLocked(name) || !registered_) return std::nullopt;
  BrelixMessaging::RouterClient status;
  status.name = name.c_str();
  status.isRouter = IsRouter();
  status.isParent = IsParent();
  status.isLoggedOn = IsLoggedOn();
  status.isPassiveConsumer = IsPassiveConsumer();
  return status;
}

bool RouterTableEntry::IsRegistered() const {
  return registered_;
}

bool RouterTableEntry::IsParent() const {
  return isParent_;
}

bool RouterTableEntry::IsRouter() const {
  return isRouter_;
}

bool RouterTableEntry::IsLoggedOn() const {
  const std::uint32_t state = logonState_;
  return state == kLoggedOn || state == kCertification || state == kCertificationReserved;
}

bool RouterTableEntry::IsRoutable() const {
  return registered_ || logonState_ == kCertification;
}

bool RouterTableEntry::IsPassiveConsumer() const {
  return logonState_ == kLoggedOn && ConsumerSide::IsPassive(consumerState_);
}

bool RouterTableEntry::HasEnvelopes() const {
  ReadGuard guard(lock_);
  return guard && !envelopes_.Empty();
}

std::uint32_t RouterTableEntry::GetLogonState() const {
  return logonState_;
}

std::uint32_t RouterTableEntry::GetSupplierState() const {
  return supplierState_;
}

std::uint32_t RouterTableEntry::GetConsumerState() const {
  return consumerState_;
}

LogonGeneration RouterTableEntry::Generation() const {
  return generation_;
}

RouterTableEntry::PeerReferences RouterTableEntry::References() const {
  ReadGuard guard(lock_);
  return guard ? references_ : PeerReferences();
}

bool RouterTableEntry::HasNotifyConsumer() const {
  return hasNotifyConsumer_;
}

bool RouterTableEntry::IsCallersLocked(const std::string& name) const {
  return !detached_ && name == name_;
}

bool RouterTableEntry::BelongsToLocked(const std::string& name) const {
  return !detached_ && (isParent_ || name == name_);
}

// The parent takes what is sent up even while its name is not registered.
bool RouterTableEntry::RoutableLocked(const std::string& name) const {
  return BelongsToLocked(name) && (isParent_ || IsRoutable());
}

bool RouterTableEntry::Enqueue(const Envelope& envelope, const std::string& name) {
  Envelope copy = envelope;
  bool senderAtWork = false;
  return TryEnqueue(copy, name, senderAtWork);
}

bool RouterTableEntry::TryEnqueue(Envelope& envelope, const std::string& name, bool& senderAtWork) {
  WriteGuard guard(lock_);
  if (!guard || !RoutableLocked(name)) return false;
  envelopes_.Enqueue(std::move(envelope));
  senderAtWork = logonState_ == kLoggedOn && consumerState_ == kPushBusy;
  return true;
}

bool RouterTableEntry::Requeue(EnvelopeQueue::Taken& taken, const std::string& name) {
  WriteGuard guard(lock_);
  if (!guard || !RoutableLocked(name)) return false;
  envelopes_.Requeue(taken);
  return true;
}

bool RouterTableEntry::PopNext(Envelope& out) {
  WriteGuard guard(lock_);
  return guard && envelopes_.PopNext(out);
}

bool RouterTableEntry::PopNext(EnvelopeQueue::Taken& out, LogonGeneration session) {
  WriteGuard guard(lock_);
  return guard && generation_ == session && envelopes_.PopNext(out);
}

bool RouterTableEntry::PeekNext(Envelope& out, const std::string& name) {
  WriteGuard guard(lock_);
  if (!guard) return false;
  if (!IsCallersLocked(name)) throw BrelixMessaging::Rejected();
  const Envelope* next = envelopes_.Next();
  if (next == nullptr) {
    consumer_.PulledNothing();
    return false;
  }
  out = *next;
  return true;
}

void RouterTableEntry::PeekCertification(Envelope& out, const std::string& name) {
  WriteGuard guard(lock_);
  if (!guard) throw NoCertificationMessage();
  if (!IsCallersLocked(name)) throw BrelixMessaging::Rejected();
  const Envelope* next = envelopes_.NextCertification();
  if (next == nullptr) throw NoCertificationMessage();
  out = *next;
}

bool RouterTableEntry::Cancel(const std::string& originator, std::uint32_t messageId) {
  Envelope cancelled;
  {
    WriteGuard guard(lock_);
    if (!guard) return false;
    if (!envelopes_.Take(originator, messageId, cancelled)) return false;
  }
  cancelled.Retire();
  return true;
}

bool RouterTableEntry::CancelSupplied(const std::vector<std::string>& originators,
                                      std::uint32_t messageId, const std::string& name) {
  Envelope cancelled;
  {
    WriteGuard guard(lock_);
    if (!guard) return false;
    if (!IsCallersLocked(name)) throw BrelixMessaging::Rejected();
    bool taken = false;
    for (const std::string& originator : originators) {
      taken = taken || envelopes_.TakeIfNext(originator, messageId, cancelled);
    }
    for (const std::string& originator : originators) {
      taken = taken || envelopes_.Take(originator, messageId, cancelled);
    }
    if (!taken) return false;
  }
  cancelled.Retire();
  return true;
}

// Few at a time: whoever brings or fetches an envelope does not wait for a million files to go.
void RouterTableEntry::RetireExpired(const std::function<bool()>& goOn) {
  std::vector<Envelope> expired;
  do {
    expired.clear();
    {
      WriteGuard guard(lock_);
      if (!guard) return;
      envelopes_.TakeExpired(expired, kExpiredAtOnce);
    }
    for (Envelope& envelope : expired) {
      // Each for itself: the rest is in no queue any more.
      Quietly([&] { ReportDeliveryFailure(envelope, "Timeout"); });
      envelope.Retire();
    }
  } while (expired.size() == kExpiredAtOnce && (!goOn || goOn()));
}

std::vector<Envelope> RouterTableEntry::TakeAll() {
  std::vector<Envelope> taken;
  WriteGuard guard(lock_);
  if (guard) envelopes_.TakeAll(taken);
  return taken;
}

bool RouterTableEntry::PopUnroutable(Envelope& out) {
  WriteGuard guard(lock_);
  return guard && !RoutableLocked(name_) && envelopes_.PopNext(out);
}

void RouterTableEntry::MarkRegistered(bool isRouter) {
  Dismissed dismissed;
  MarkRegistered(isRouter, dismissed);
  Finish(dismissed);
}

void RouterTableEntry::MarkRegistered(bool isRouter, Dismissed& dismissed) {
  WriteGuard guard(lock_);
  if (!guard || detached_) return;
  // Whoever is logged on for certification is not logged on any more, and its objects go.
  if (IsLoggedOn()) ResetLocked(dismissed);
  logonState_ = kLoggedOff;
  isRouter_ = isRouter;
  registered_ = true;
}

void RouterTableEntry::MarkUnregistered() {
  Dismissed dismissed;
  MarkUnregistered(Name(), dismissed);
  Finish(dismissed);
}

bool RouterTableEntry::MarkUnregistered(const std::string& name, Dismissed& dismissed) {
  WriteGuard guard(lock_);
  if (!guard || !IsCallersLocked(name)) return false;
  ResetLocked(dismissed);
  return registered_.exchange(false);
}

void RouterTableEntry::Detach(Dismissed& dismissed, std::vector<Envelope>& leftovers) {
  WriteGuard guard(lock_);
  if (!guard) return;
  detached_ = true;
  ResetLocked(dismissed);
  registered_ = false;
  try {
    envelopes_.TakeAll(leftovers);
  } catch (const std::bad_alloc&) {
    // What finds no memory goes with the entry.
  }
}

void RouterTableEntry::SettleNews(std::uint64_t debt) {
  std::uint64_t settled = newsSettled_;
  while (settled < debt && !newsSettled_.compare_exchange_weak(settled, debt)) {
  }
}

void RouterTableEntry::CancelNews(std::uint64_t debt) {
  std::uint64_t before = debt - 1;
  newsSettled_.compare_exchange_strong(before, debt);
}

bool RouterTableEntry::TakeOver(const std::string& name, std::vector<Envelope>& leftovers) {
  WriteGuard guard(lock_);
  if (!guard || detached_ || isParent_ || registered_ || IsLoggedOn()) return false;
  // Another peer must not wait for a call that the former one does not end.
  if (supplier_.Visited() || consumer_.Visited() || OwesNews()) return false;
  std::string taken = name;
  // Nothing has been changed yet where there is no memory.
  envelopes_.TakeAll(leftovers);
  ++generation_;
  // Nothing of the former peer is left but the place.
  isRouter_ = false;
  supplier_.Clear();
  consumer_.Clear();
  name_.swap(taken);
  logonState_ = kCertificationReserved;
  return true;
}

bool RouterTableEntry::SetName(const std::string& name) {
  if (!isParent_) throw std::logic_error("Only the parent TableEntry name may be changed");
  WriteGuard guard(lock_);
  if (guard) name_ = name;
  return static_cast<bool>(guard);
}

}  // namespace MessageRouter
