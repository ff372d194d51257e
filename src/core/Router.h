#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "broker/Orb.h"
#include "broker/Router_Resource_Factory.h"
#include "delivery/RouterThread.h"
#include "delivery/ScanThreads.h"
#include "delivery/SenderWorker.h"
#include "parent/IOR_Sender.h"
#include "parent/ParentLogon.h"
#include "routing/Routing.h"
#include "status/StatusReporter.h"
#include "threads/Mutex.h"

namespace MessageRouter {

class ACE_XPlatform_Configuration;

// The one object that holds a running router together: the table, the route queue, every
// long-running thread and the broker. Start is the whole life of the process. A change of the
// host's addresses or a new certificate throws away the broker and all that hangs on it and builds
// them again inside the process: one such life of the broker is a cycle (see RouterCycle).
//
// Threads: Start makes and destroys everything on the main thread. Shutdown, Reinitialize,
// RequestReload, IsStopping and the operations of RoutingHost may be called from any.
class Router : public RoutingHost, public ParentLogonHost {
 public:
  enum State : std::int32_t { kStarting = 0, kRunning = 1, kStopping = 3 };

  // What a test replaces.
  struct Surroundings {
    std::function<void(unsigned milliseconds)> sleep;
  };

  static Router& instance();
  static bool Exists();

  Router(std::string name, int argc, char** argv);
  ~Router() override;

  // 0 after a requested stop, 1 otherwise.
  int Start();
  // Stops for good.
  void Shutdown();
  // Takes the cycle down and builds the next one.
  void Reinitialize() override;
  // The operator's wish for a reinitialisation: kept until the router runs, unlike Reinitialize.
  void RequestReload();
  // Leaves the state alone once it is kStopping.
  void SetState(State state);
  State GetState() const { return state_.load(); }
  bool IsStopping() const { return state_.load() == kStopping; }

  void QueueForRouting(Envelope envelope);
  // A peer refused our certificate. Main thread.
  void ReportInvalidCertificate(std::uint32_t peerAddress);
  std::int32_t InvalidCertificateCount() const { return invalidCertificateCount_; }

  const std::string& ProgramName() const { return programName_; }
  void SetLogDirectory(const std::string& directory) { logDirectory_ = directory; }
  void SetStatusReporter(std::unique_ptr<StatusReporting::StatusReporter> reporter);
  void SetSurroundings(Surroundings surroundings) { surroundings_ = std::move(surroundings); }
  bool HasParent() const { return hasParent_; }
  std::string ParentAddresses() const;

  // RoutingHost
  LocalObjects& Objects() override;
  Thresholds GetThresholds() const override;
  void OfferToSenders(RouterTableEntry& entry) override;
  bool CountsBusyOffers() const override { return monitorEmSender_; }
  void NotifiedPoll(RouterTableEntry& entry) override;
  void OfferToGetters(RouterTableEntry& entry) override;
  void OfferToThreshold(RouterTableEntry& entry) override;
  void ParentLinkLost() override;
  CORBA::Object_ptr StringToObject(const std::string& ior) override;
  std::string ObjectToString(CORBA::Object_ptr object) override;

  // ParentLogonHost
  StatusReporting::StatusReporter& Status() override { return *statusReporter_; }
  void SetParentAddresses(const std::string& ior) override;
  void EndProcess(int status) override;

 private:
  friend class RouterCycle;
  friend class RouterAccess;  // tests play a refreshed certificate

  void PrepareProcess();
  void RunCycles();
  // Step by step through the host's addresses; false while there are none.
  bool RunOneCycle();
  void Tick();
  void RunSystemChecks();
  // A router with a parent obtains its certificate through it; decides whether there is a parent.
  void GetCertificate();
  // Before the first request can come in: what it offers waits for the threads.
  void PrepareRouting();
  void doStartRouting();
  void doStopRouting();
  void ReadConnectRetry();
  void FreeCycleLeftovers();
  // Between two attempts to read or write the table's file.
  static void PauseForTable();
  void SetOrb(CORBA::ORB_ptr orb);
  CORBA::ORB_var GetOrb() const;
  void SleepUnlessStopping(unsigned milliseconds);

  const std::string programName_;
  const int argc_;
  char** const argv_;
  Surroundings surroundings_;

  mutable ThreadHelper::Mutex mutex_;  // a leaf: guards writes of the state word
  std::atomic<State> state_{kRunning};
  std::atomic<bool> reloadRequested_{false};

  RouterTable routerTable_;
  Routing routing_;
  GetterThread getterThread_;
  TimeoutThread timeoutThread_;
  WorkerManagerBase senderPool_{RouterTableEntry::kSenderPool};
  RouterThread routerThread_;
  IOR_Sender iorSender_;
  ParentLogon parentLogon_;
  std::unique_ptr<NotificationThresholdThread> notificationThresholdOwner_;
  std::atomic<NotificationThresholdThread*> notificationThresholdThread_{nullptr};

  std::atomic<bool> hasParent_{false};
  std::atomic<bool> monitorEmSender_{false};
  std::string logDirectory_;
  bool iorValid_ = false;
  std::int32_t invalidCertificateCount_ = 0;
  unsigned hostFailures_ = 0;
  bool debugBreakpoints_ = false;
  bool trimWhenRouted_ = false;
  bool tableRead_ = false;  // in this cycle
  std::unique_ptr<StatusReporting::StatusReporter> statusReporter_;
  std::unique_ptr<Router_Resource_Factory> resourceFactory_;

  mutable ThreadHelper::Mutex textMutex_;  // a leaf
  std::string parentAddresses_ GUARDED_BY(textMutex_);
  CORBA::ORB_var orb_ GUARDED_BY(textMutex_);
  Thresholds thresholds_ GUARDED_BY(textMutex_);
};

// Makes the configuration the process's own and makes the one Router. `argv` must outlive it.
// Throws std::invalid_argument for a null configuration, std::runtime_error if the section can't be
// opened.
void InitializeRouter(ACE_XPlatform_Configuration* configuration, const std::string& sectionPath,
                      const std::string& name, int argc, char** argv);
// Destroys the Router. For the end of the process.
void DestroyRouter();

// The body of the process: makes the folders and runs the router. The result is the exit code.
int RunRouter();

}  // namespace MessageRouter
