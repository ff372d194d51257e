// What the dispatcher makes of the news that routers further down come and go.
#include "envelope/Envelope.h"
#include "envelope/MessageType.h"
#include "routing/Dispatcher.h"
#include "routing/Logical.h"
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
  return (data >>= text) ? text : "";
}

// A name may lead neither to a client nor up again.
bool IsChildRouter(const std::string& name, const RouterTable& table) {
  const RouterTableEntry* const entry = table.Find(name);
  return entry != nullptr && entry->IsRegistered() && entry->IsRouter() && !entry->IsParent() &&
         entry->Name() == name;
}

// Nothing that came down goes up again: two routers that name each other as their parent would pass
// it to and fro for as long as it lives. Who else sends is looked at only for the map's sake.
bool MayBeAChilds(const Envelope& news, const RouterTable& table, const Logical* logical) {
  if (news.FromParent()) return false;
  return logical == nullptr || IsChildRouter(news.Originator(), table);
}

// False if the map led there already.
bool Update(Logical& logical, const std::string& name, const std::string& child) {
  if (logical.Lookup(name) == child) return false;
  logical.Store(name, child);
  return true;
}

}  // namespace

void Dispatcher::HandleRouterRegistered(Envelope& envelope, RouterTable& table, Logical* logical,
                                        std::string& line) {
  const std::string& originator = envelope.Originator();
  bool forward = table.Parent() != nullptr;
  CORBA::Any data;
  envelope.GetData(data);
  const String_seq* names = nullptr;
  if (!MayBeAChilds(envelope, table, logical)) {
    line += kNotOurChild;
    forward = false;
  } else if (logical == nullptr) {
    line += kNoMap;
  } else if (const std::string name = NameIn(data); !name.empty()) {
    // What is known here is known above.
    if (!Update(*logical, name, originator)) forward = false;
  } else if (data >>= names) {
    for (CORBA::ULong i = 0; i < names->length(); ++i) {
      Update(*logical, (*names)[i].in(), originator);
    }
  } else {
    line += kBadlyFormatted;
    forward = false;
  }
  if (forward) Forward(envelope, "RouterRegistered", data);
}

void Dispatcher::HandleRouterUnregistered(Envelope& envelope, RouterTable& table, Logical* logical,
                                          std::string& line) {
  const std::string& originator = envelope.Originator();
  bool forward = table.Parent() != nullptr;
  CORBA::Any data;
  envelope.GetData(data);
  const String_seq* names = nullptr;
  if (!MayBeAChilds(envelope, table, logical)) {
    line += kNotOurChild;
    forward = false;
  } else if (logical == nullptr) {
    line += kNoMap;
  } else if (const std::string name = NameIn(data); !name.empty()) {
    if (logical->Remove(name, originator) == Logical::kOtherOwner) forward = false;
  } else if (data >>= names) {
    // Names that lead through another child by now are still there for those above.
    const CORBA::ULong all = names->length();
    String_seq gone(all);
    gone.length(all);
    CORBA::ULong count = 0;
    for (CORBA::ULong i = 0; i < all; ++i) {
      const char* const text = (*names)[i].in();
      if (logical->Remove(text, originator) == Logical::kOtherOwner) continue;
      gone[count++] = text;
    }
    gone.length(count);
    if (count == 0) forward = false;
    if (count != all) data <<= gone;
  } else {
    line += kBadlyFormatted;
    forward = false;
  }
  if (forward) Forward(envelope, "RouterUnregistered", data);
}

void Dispatcher::Forward(const Envelope& envelope, const char* event, const CORBA::Any& data) {
  Send(kParentAddress, SystemMessageType(event), data, envelope.Priority(),
       TimeToLive::Until(envelope.Ttl()));
}

}  // namespace MessageRouter
