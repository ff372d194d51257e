#pragma once

#include <BrelixMessaging.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "routing/ChildNews.h"
#include "routing/Dispatcher.h"
#include "routing/Logical.h"
#include "routing/RouteQueue.h"
#include "routing/RouterTable.h"
#include "routing/UpdateNotifier.h"

namespace MessageRouter {

// The parent of whichever router makes the envelope: it need not know the parent's name.
inline constexpr char kParentAddress[] = ":.:";

// Where every envelope goes next, and the operations on peers that servants and threads share.
// Threads: any, RouteNext excepted, which belongs to the route thread.
class Routing {
 public:
  // The table's leftovers and notices come here while this lives.
  Routing(RoutingHost& host, RouterTable& table);
  ~Routing();
  Routing(const Routing&) = delete;
  Routing& operator=(const Routing&) = delete;

  RouterTable& Table() { return table_; }
  RoutingHost& Host() { return host_; }
  UpdateNotifier& RouterUpdates() { return routerUpdateNotifier_; }
  UpdateNotifier& ClientUpdates() { return clientUpdateNotifier_; }
  ChildNews& News() { return news_; }
  // The map of routers further down, or null. An old one is freed: replace it while no request and
  // no thread routes.
  void SetLogical(std::unique_ptr<Logical> logical);
  const Logical* Map() const { return logical_; }

  void QueueForRouting(Envelope envelope);
  // One pass of the route thread. What escapes it ends the process. An envelope in whose middle the
  // stop comes is left on disk. A message to the router that finds no memory is handled anew.
  void RouteNext(unsigned seconds, unsigned milliseconds, const StopTest& stopping = {});
  // Retires an envelope that still waits for its decision. False if there is none.
  bool CancelInRouteQueue(const std::string& originator, std::uint32_t messageId);
  void EmptyRouteQueue();
  std::size_t RouteQueueSize() const;
  // The entry to which a name leads, or null: its own, or that of the child on the way to it.
  RouterTableEntry* FindRoute(const std::string& name);

  // Both write the table file and tell subscribers; AlreadyRegistered and NotRegistered go through.
  // A child router that is registered already is announced to the parent again: it may have been
  // elsewhere meanwhile, or the news may have been lost.
  void RegisterPeer(const std::string& name, bool isRouter);
  void UnregisterPeer(const std::string& name, bool isRouter);

  // Logons throw NotRegistered, and Rejected where the entry's lock can't be taken or the table has
  // been closed meanwhile. They return the objects activated for the peer, never none: a session
  // that stands counts, whatever fails after that.
  RouterTableEntry::LocalPeerObjects LogonClientPeer(const std::string& name,
                                                     BrelixMessaging::EnvelopeConsumer_ptr consumer,
                                                     BrelixMessaging::NotifyConsumer_ptr notify,
                                                     std::int32_t threshold);
  RouterTableEntry::LocalPeerObjects LogonRouterPeer(const std::string& name,
                                                     BrelixMessaging::RouterConsumer_ptr consumer,
                                                     BrelixMessaging::RouterSupplier_ptr supplier,
                                                     BrelixMessaging::NotifyConsumer_ptr notify,
                                                     std::int32_t threshold);
  void LogoffPeer(const std::string& name);
  void OfferForDelivery(RouterTableEntry& entry);

  // The one way for the router itself to speak. Where it throws, no file is left that the next
  // start would send, whatever has happened by then. `messageId` as in Envelope::CreateLocal.
  void SendLocalMessage(const std::string& destination, const std::string& type,
                        const CORBA::Any& data, std::uint32_t priority, TimeToLive ttl,
                        std::uint32_t messageId = 0);

 private:
  // `reachedAs` is the name under which the entry was found.
  RouterTableEntry* FindRoute(const std::string& name, std::string& reachedAs);
  RouterTableEntry& FindForLogon(const std::string& name);
  // A message whose route ends here. What can't be handled for now is the next one again.
  void Handle(Envelope& envelope, std::chrono::milliseconds pause, const StopTest& stopping);
  // Whether it is the one that could not be handled.
  bool IsWaiting(const Envelope& envelope) const;
  // One that has found no memory for so long, and is so large, that it gets out of the way. False
  // if it is not.
  bool SetAsideIfHopeless(Envelope& envelope);

  RoutingHost& host_;
  RouterTable& table_;
  RouteQueue queue_;
  std::unique_ptr<Logical> logicalOwner_;
  std::atomic<Logical*> logical_{nullptr};
  ChildNews news_{table_, queue_, logical_};
  // The route thread's: the message at the head that can't be handled, and since when.
  struct Shortage {
    std::uint32_t messageId;
    std::size_t originator;  // its hash: copies take memory
    Platform::Clock::SteadyTime since;
  };
  std::optional<Shortage> shortage_;
  UpdateNotifier routerUpdateNotifier_{*this, true};
  UpdateNotifier clientUpdateNotifier_{*this, false};
  Dispatcher dispatcher_{*this};
  // Routes anew, at its end, what waits for an entry that is no longer registered.
  class Drain {
   public:
    Drain(Routing& routing, RouterTableEntry* entry) : routing_(routing), entry_(entry) {}
    ~Drain();
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

   private:
    Routing& routing_;
    RouterTableEntry* const entry_;
  };
};

// Logs that an envelope will not be delivered. No failure message is sent.
void ReportDeliveryFailure(const Envelope& envelope, const char* reason);

// The objects of the running cycle, as everything that a peer can wake sees them: null while no
// cycle runs.
class Cycle {
 public:
  static Routing* Current();
  static void Set(Routing* routing);
};

}  // namespace MessageRouter
