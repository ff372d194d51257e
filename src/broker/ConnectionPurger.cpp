#include "broker/ConnectionPurger.h"

#include <algorithm>
#include <chrono>

#include "broker/ConnectionTable.h"
#include "broker/Limits.h"
#include "broker/OrbInternals.h"
#include "broker/StrandConnection.h"
#include "platform/Process.h"

namespace Broker {
namespace {

using omni::giopStrand;
using omni::IOP_S;
using omni::StrandList;
using Platform::Clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// A strand whose counter of idle periods stands at this is closed at the ORB's next scan. If it is
// used before that, the ORB itself stops the counter: one in use is never cut.
constexpr CORBA::Long kExpiresNow = 1;

template <class Function>
void ForEach(StrandList& list, Function&& function) {
  for (StrandList* link = list.next; link != &list; link = link->next) {
    auto* const strand = static_cast<giopStrand*>(link);
    if (strand->state() != giopStrand::DYING) function(*strand);
  }
}

bool IsIdle(const giopStrand& strand) {
  return strand.idlebeats > kExpiresNow;
}

enum class Doing { kNothing, kReceiving, kSending };

struct Activity {
  Doing doing = Doing::kNothing;
  bool holdsPoolThread = false;
};

// Whether a thread of the pool is at it. A record that no thread has claimed still names the worker
// that had it last, and that one may be gone: not to be asked of those.
bool IsHeldByPool(omni::GIOP_S& claimed) {
  return claimed.worker() != nullptr && claimed.worker()->singleshot();
}

// What the requests of an incoming connection are at. A connection with a thread of its own waits
// for the next request in the same state as for the rest of one, so there the bytes tell.
Activity ActivityOf(giopStrand& strand, const Connection* connection) {
  const bool hasUnusedBytes =
      connection != nullptr && connection->received > connection->receivedAtRequest;
  Activity activity;
  for (omni::giopStreamList* link = strand.servers.next; link != &strand.servers;
       link = link->next) {
    auto* const request = static_cast<omni::GIOP_S*>(link);
    bool ofPool = false;
    switch (request->state()) {
      case IOP_S::Idle:
      case IOP_S::WaitForRequestHeader:
        ofPool = IsHeldByPool(*request);
        if (!ofPool && !hasUnusedBytes) break;
        activity.doing = Doing::kReceiving;
        break;
      case IOP_S::RequestHeaderIsBeingProcessed:
      case IOP_S::RequestIsBeingProcessed:
        ofPool = IsHeldByPool(*request);
        activity.doing = Doing::kReceiving;
        break;
      case IOP_S::InputPartiallyBuffered:
        activity.doing = Doing::kReceiving;
        break;
      case IOP_S::ReplyIsBeingComposed:
        ofPool = IsHeldByPool(*request);
        if (activity.doing == Doing::kNothing) activity.doing = Doing::kSending;
        break;
      default:
        break;
    }
    activity.holdsPoolThread |= ofPool;
  }
  return activity;
}

}  // namespace

// What a scan needs of one connection. Valid under the ORB's transport lock.
struct ConnectionPurger::Strand {
  giopStrand* strand;
  Connection* connection;  // null without TLS
  Activity activity;
};

ConnectionPurger::ConnectionPurger(unsigned limit) : limit_(limit) {}

ConnectionPurger::~ConnectionPurger() {
  Stop();
}

void ConnectionPurger::Process() {
  Platform::SetThreadName("purger");
  while (!IsTerminated()) {
    Scan();
    Wait(0, Limits::kScanMilliseconds);
  }
}

void ConnectionPurger::Scan() {
  ConnectionTable::Instance().EnforceDeadlines();
  std::vector<Strand> incoming;
  // Only a walk over pointers happens under this lock, which every call takes too.
  const omni_tracedmutex_lock lock(*omni::omniTransportLock);
  ForEach(giopStrand::passive, [&](giopStrand& strand) {
    Connection* const connection = ConnectionOf(strand);
    incoming.push_back({&strand, connection, ActivityOf(strand, connection)});
  });
  ScanMessages(incoming);
  if (limit_ == 0) return;
  // An outgoing one is looked into only once it has been used: until then its thread opens it
  // without any lock.
  const auto addOutgoing = [&](giopStrand& strand) {
    incoming.push_back({&strand, IsIdle(strand) ? ConnectionOf(strand) : nullptr, {}});
  };
  ForEach(giopStrand::active, addOutgoing);
  ForEach(giopStrand::active_timedout, addOutgoing);
  if (incoming.size() > limit_) Purge(incoming);
}

// The watch on what the connection is at now, begun anew if that is something else than before.
ConnectionPurger::Watch& ConnectionPurger::WatchOf(const Strand& strand) {
  const Clock::SteadyTime now = Clock::Instance().SteadyNow();
  const Connection* const connection = strand.connection;
  const bool sending = strand.activity.doing == Doing::kSending;
  const std::uint64_t number = connection == nullptr ? 0 : connection->number;
  const std::uint64_t requests = connection == nullptr ? 0 : connection->requests.load();
  std::uint64_t bytes = 0;
  if (connection != nullptr) bytes = sending ? connection->sent : connection->received;

  Watch& watch = watched_[strand.strand];
  if (watch.since == Clock::SteadyTime() || watch.sending != sending || watch.number != number ||
      watch.requests != requests) {
    watch = {};
    watch.sending = sending;
    watch.number = number;
    watch.requests = requests;
    watch.before = bytes;
    watch.since = now;
    watch.progressAt = now;
  } else if (watch.progress != bytes) {
    watch.progressAt = now;
  }
  watch.progress = bytes;
  watch.holdsPoolThread = strand.activity.holdsPoolThread;
  watch.seen = true;
  return watch;
}

void ConnectionPurger::ScanMessages(const std::vector<Strand>& strands) {
  struct Suspect {
    const Strand* strand;
    const Watch* watch;
  };
  std::vector<Suspect> suspects;
  std::size_t heldPoolThreads = 0;
  for (auto& [strand, watch] : watched_) watch.seen = false;
  for (const Strand& strand : strands) {
    if (strand.activity.doing == Doing::kNothing) continue;
    const Watch& watch = WatchOf(strand);
    suspects.push_back({&strand, &watch});
    if (watch.holdsPoolThread) ++heldPoolThreads;
  }
  std::erase_if(watched_, [](const auto& entry) { return !entry.second.seen; });

  const Clock::SteadyTime now = Clock::Instance().SteadyNow();
  const bool scarce = heldPoolThreads >= Limits::kPoolScarce;
  const milliseconds scarceLimit(
      heldPoolThreads >= 2 * Limits::kPoolScarce ? 0 : Limits::kScarceMessageMilliseconds);
  for (const auto& [strand, watch] : suspects) {
    const auto age = now - watch->since;
    const bool stalled = now - watch->progressAt > seconds(Limits::kMessageSeconds);
    bool shut = stalled;
    if (age > seconds(Limits::kMessageSeconds)) {
      const std::uint64_t bytes = watch->progress - watch->before;
      const auto whole =
          static_cast<std::uint64_t>(std::chrono::duration_cast<seconds>(age).count());
      const bool trusted =
          strand->connection != nullptr && strand->connection->stage == Connection::Stage::kPeer;
      shut |= !trusted || bytes < whole * Limits::kMinBytesPerSecond;
    }
    shut |= scarce && watch->holdsPoolThread && age > scarceLimit;
    if (shut) ShutStrand(*strand->strand, strand->connection);
  }
}

void ConnectionPurger::Purge(std::vector<Strand>& strands) const {
  const auto alreadyGoing = std::count_if(strands.begin(), strands.end(), [](const Strand& strand) {
    return strand.strand->idlebeats == kExpiresNow;
  });
  const std::size_t remaining = strands.size() - static_cast<std::size_t>(alreadyGoing);
  if (remaining <= limit_) return;
  std::erase_if(strands, [](const Strand& strand) { return !IsIdle(*strand.strand); });
  const auto lastUse = [](const Strand& strand) {
    return strand.connection == nullptr ? Clock::SteadyTime() : strand.connection->lastUse.load();
  };
  std::vector<std::pair<Clock::SteadyTime, giopStrand*>> idle;
  idle.reserve(strands.size());
  for (const Strand& strand : strands) idle.emplace_back(lastUse(strand), strand.strand);
  std::sort(idle.begin(), idle.end());
  const std::size_t excess = std::min(remaining - limit_, idle.size());
  for (std::size_t i = 0; i < excess; ++i) idle[i].second->idlebeats = kExpiresNow;
}

std::size_t ConnectionPurger::ExpireOutgoing() {
  std::size_t count = 0;
  const auto expire = [&count](giopStrand& strand) {
    ++count;
    if (IsIdle(strand)) strand.idlebeats = kExpiresNow;
  };
  const omni_tracedmutex_lock lock(*omni::omniTransportLock);
  ForEach(giopStrand::active, expire);
  ForEach(giopStrand::active_timedout, expire);
  return count;
}

}  // namespace Broker
