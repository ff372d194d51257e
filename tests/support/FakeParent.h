#pragma once

#include <BrelixMessaging.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace TestSupport {

// What a router finds behind its parent's reference: the root object and its door for routers,
// served in this process. It notes the calls; `onCall` runs in each, without a lock, and may throw
// what a parent raises, or wait.
// Threads: any.
class FakeParent {
 public:
  FakeParent();
  ~FakeParent();
  FakeParent(const FakeParent&) = delete;
  FakeParent& operator=(const FakeParent&) = delete;

  BrelixMessaging::MessageRouter_ptr Root();  // the caller owns neither reference
  BrelixMessaging::Router_ptr Door();
  // The door is gone: its object is no longer known to the parent.
  void CloseDoor();
  // It is there again after CloseDoor.
  void OpenDoor();
  // It answers with no door, or another's. Before anybody asks.
  void HideDoor();
  void ShowDoor(BrelixMessaging::Router_ptr door);

  std::size_t Calls(const std::string& operation) const;
  std::vector<std::string> AllCalls() const;
  // What the last logon brought, nil or not.
  struct Logon {
    bool consumer = false;
    bool supplier = false;
    bool notify = false;
  };
  Logon LastLogon() const;

  std::string name = "boss";
  // What a logon is answered with.
  BrelixMessaging::RouterSupplier_var supplier;
  BrelixMessaging::RouterConsumer_var consumer;
  BrelixMessaging::NotifyConsumer_var notify;

  using OnCall = std::function<void(const std::string& operation)>;
  void SetOnCall(OnCall onCall);

 private:
  class RootServant;
  class DoorServant;

  void Called(const std::string& operation);
  void Deactivate(PortableServer::ObjectId_var& id);

  mutable std::mutex mutex_;
  OnCall onCall_;
  std::vector<std::string> calls_;
  Logon logon_;

  PortableServer::POA_var adapter_;
  PortableServer::Servant_var<PortableServer::ServantBase> rootServant_;
  PortableServer::Servant_var<PortableServer::ServantBase> doorServant_;
  PortableServer::ObjectId_var rootId_;
  PortableServer::ObjectId_var doorId_;
  BrelixMessaging::MessageRouter_var root_;
  BrelixMessaging::Router_var door_;
};

}  // namespace TestSupport
