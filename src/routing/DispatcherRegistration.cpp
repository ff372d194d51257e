// What the dispatcher makes of the news that routers further down come and go.
#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "broker/TakeOut.h"
#include "envelope/Envelope.h"
#include "envelope/MessageIdGenerator.h"
#include "envelope/MessageType.h"
#include "routing/Dispatcher.h"
#include "routing/Logical.h"
#include "routing/NameList.h"
#include "routing/Passing.h"
#include "routing/RouterTable.h"
#include "routing/Routing.h"

namespace MessageRouter {
namespace {

using BrelixMessaging::String_seq;

constexpr char kNoMap[] = " - router has no logical routing table";
constexpr char kNotOurChild[] = " - not from a child router of ours,";
constexpr char kBadlyFormatted[] = " - badly formatted";

// The one name that a payload may hold instead of a list; empty if it does not.
std::string NameIn(const CORBA::Any& data) {
  const char* text = nullptr;
  return Broker::TakeOut(data, text) ? text : "";
}

// Names between two looks at the stop, and in one hold of the lock.
constexpr CORBA::ULong kNamesAtOnce = 256;

bool IsTime(CORBA::ULong position, const StopTest& stopping) {
  return position % kNamesAtOnce == 0 && stopping && stopping();
}

}  // namespace

// The map is changed last where it decides what is told: a name that is known here counts as known
// above, and a crash in between must not make it so. A list goes on whatever is known of it.
bool Dispatcher::HandleRouterRegistered(Envelope& envelope, RouterTable& table, Logical* logical,
                                        const StopTest& stopping, std::string& line) {
  const std::string& originator = envelope.Originator();
  const bool forward = table.Parent() != nullptr;
  CORBA::Any data;
  envelope.GetData(data);
  // Two routers that name each other as their parent would pass it to and fro for as long as it
  // lives.
  if (envelope.FromParent()) {
    line += kNotOurChild;
    return true;
  }
  if (logical == nullptr) {
    line += kNoMap;
    if (forward) Forward(envelope, "RouterRegistered", data);
    return true;
  }

  const std::string name = NameIn(data);
  const String_seq* names = nullptr;
  const bool isList = name.empty() && Broker::TakeOut(data, names);
  const CORBA::ULong count = isList ? names->length() : 0;
  // Of a router that is logged on here the news is late.
  const auto store = [&](const char* text) {
    if (!table.HasChildRouterHere(text)) logical->Store(text, originator);
  };
  CORBA::ULong done = 0;
  do {
    if (IsTime(done, stopping)) return false;
    if (forward) DrawId();
    const ThreadHelper::Guard guard(routing_.News().MapMutex());
    if (!guard) throw MapLockFailure();
    if (!table.HasChildRouter(originator)) {
      line += kNotOurChild;
      return true;
    }
    if (!name.empty()) {
      if (logical->Lookup(name) == originator) return true;
      if (forward) Forward(envelope, "RouterRegistered", data);
      store(name.c_str());
      return true;
    }
    if (!isList) {
      line += kBadlyFormatted;
      return true;
    }
    for (const CORBA::ULong end = std::min(count, done + kNamesAtOnce); done < end; ++done) {
      const char* const text = (*names)[done].in();
      if (logical->Lookup(text) != originator) store(text);
    }
    if (done == count && forward) Forward(envelope, "RouterRegistered", data);
  } while (done < count);
  return true;
}

// As above: what is no longer in the map is not told. Nor is what became a child of ours, to which
// the routers above go on to come through here.
bool Dispatcher::HandleRouterUnregistered(Envelope& envelope, RouterTable& table, Logical* logical,
                                          const StopTest& stopping, std::string& line) {
  const std::string& originator = envelope.Originator();
  const bool forward = table.Parent() != nullptr;
  CORBA::Any data;
  envelope.GetData(data);
  if (envelope.FromParent()) {
    line += kNotOurChild;
    return true;
  }
  if (logical == nullptr) {
    line += kNoMap;
    if (forward) DrawId();
    const ThreadHelper::Guard guard(routing_.News().MapMutex());
    if (!guard) throw MapLockFailure();
    if (forward) ForwardFarewell(envelope, data);
    return true;
  }

  const std::string name = NameIn(data);
  const String_seq* names = nullptr;
  const bool isList = name.empty() && Broker::TakeOut(data, names);
  // Of a list only the names that do not lead through another child by now.
  const CORBA::ULong all = isList ? names->length() : 0;
  std::vector<const char*> gone;
  std::unordered_set<std::string_view> removable;
  CORBA::ULong done = 0;
  do {
    if (IsTime(done, stopping)) return false;
    if (forward) DrawId();
    const ThreadHelper::Guard guard(routing_.News().MapMutex());
    if (!guard) throw MapLockFailure();
    if (!table.HasChildRouter(originator)) {
      line += kNotOurChild;
      return true;
    }
    if (!name.empty()) {
      if (logical->MayRemove(name, originator) == Logical::kOtherOwner) return true;
      if (forward && !table.HasChildRouter(name)) ForwardFarewell(envelope, data);
      logical->Remove(name, originator);
      return true;
    }
    if (!isList) {
      line += kBadlyFormatted;
      return true;
    }
    for (const CORBA::ULong end = std::min(all, done + kNamesAtOnce); done < end; ++done) {
      const char* const text = (*names)[done].in();
      const int result = logical->MayRemove(text, originator);
      if (result == Logical::kOtherOwner) continue;
      // The second of two has no owner any more.
      if (result == 0 && !removable.insert(text).second) continue;
      gone.push_back(text);
    }
    if (done < all || !forward) continue;
    // Looked at in the hold in which it is told: one may have come here in between. No other child
    // can have announced one meanwhile, since that is news for this thread.
    std::vector<const char*> told;
    for (const char* const text : gone) {
      if (!table.HasChildRouter(text)) told.push_back(text);
    }
    if (!told.empty()) ForwardFarewell(envelope, told.size() == all ? data : AsNameList(told));
  } while (done < all);
  // Without the lock: a name that leads elsewhere by now stays, and that it leads to this child
  // again would be news for this thread.
  for (std::size_t i = 0; i < gone.size(); ++i) {
    if (IsTime(static_cast<CORBA::ULong>(i), stopping)) return false;
    logical->Remove(gone[i], originator);
  }
  return true;
}

void Dispatcher::DrawId() {
  if (drawnId_ == 0) drawnId_ = MessageIdGenerator::Instance().NextMessageId();
}

void Dispatcher::Forward(const Envelope& envelope, const char* event, const CORBA::Any& data) {
  if (told_ == KeyOf(envelope)) return;
  Send(kParentAddress, SystemMessageType(event), data, envelope.Priority(),
       TimeToLive::Until(envelope.Ttl()), std::exchange(drawnId_, 0));
  told_ = KeyOf(envelope);
}

void Dispatcher::ForwardFarewell(const Envelope& envelope, const CORBA::Any& data) {
  Forward(envelope, "RouterUnregistered", data);
  routing_.News().FarewellMade();
}

}  // namespace MessageRouter
