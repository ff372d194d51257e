#include "delivery/ScanThreads.h"

#include "delivery/GetterWorker.h"
#include "delivery/NotificationThresholdWorker.h"
#include "delivery/TimeoutWorker.h"
#include "envelope/Address.h"
#include "logging/Log.h"
#include "routing/Quietly.h"

namespace MessageRouter {

void RouterTableScanner::operator()(std::string name, RouterTableEntry& entry) {
  // The parent can stand under two names.
  if (name == entry.Name()) CheckEntry(entry);
}

ScanThread::ScanThread(const char* name, RouterTableEntry::Pool pool, RouterTable& table,
                       std::uint32_t periodSeconds)
    : manager_(pool), name_(name), table_(table), periodSeconds_(periodSeconds) {}

void ScanThread::Open() {
  manager_.Open();
}

void ScanThread::Configure(std::uint32_t periodSeconds, std::uint32_t workers) {
  periodSeconds_ = periodSeconds;
  workerCount_ = workers;
}

// The thread closes the pool itself; one that was never started has not.
void ScanThread::Stop() {
  StoppableThreadHelper::Stop();
  manager_.Stop();
}

void ScanThread::Process() {
  const auto factory = MakeFactory();
  manager_.Start(*factory, workerCount_);
  while (!IsTerminated()) {
    LogTrace("%s::Process() checking table\n", name_);
    table_.Scan(*this);
    Wait(periodSeconds_, 0);
  }
  manager_.Stop();
}

void ScanThread::AddEntry(RouterTableEntry& entry) {
  // An entry that is due, and that no worker learns of, would never be visited.
  if (LogEnabled(kLogDebug)) {
    Quietly([&] {
      LogDebug("%s::CheckEntry() adding entry: %s\n", name_, Shown(entry.Name()).c_str());
    });
  }
  // Scan after scan may find the same while all workers hang.
  manager_.AddOnce(entry);
}

GetterThread::GetterThread(RouterTable& table)
    : ScanThread("GetterThread", RouterTableEntry::kGetterPool, table, 1) {}

GetterThread::~GetterThread() {
  Stop();
}

void GetterThread::CheckEntry(RouterTableEntry& entry) {
  if (entry.readyForTimedPoll()) AddEntry(entry);
}

void GetterThread::NotifiedPoll(RouterTableEntry& entry) {
  if (entry.readyForNotifiedPoll()) manager_.Add(entry);
}

void GetterThread::Offer(RouterTableEntry& entry) {
  manager_.Add(entry);
}

std::unique_ptr<WorkerFactoryBase> GetterThread::MakeFactory() {
  return std::make_unique<GetterWorkerFactory>(observer_);
}

TimeoutThread::TimeoutThread(RouterTable& table)
    : ScanThread("TimeoutThread", RouterTableEntry::kTimeoutPool, table) {}

TimeoutThread::~TimeoutThread() {
  Stop();
}

void TimeoutThread::CheckEntry(RouterTableEntry& entry) {
  // The senders drop what has expired in the queue of a peer that is pushed to.
  const bool sendersLookAfterIt = entry.IsLoggedOn() && entry.IsPassiveConsumer();
  if ((!sendersLookAfterIt && entry.HasEnvelopes()) || entry.PullTimedOut()) AddEntry(entry);
}

std::unique_ptr<WorkerFactoryBase> TimeoutThread::MakeFactory() {
  return std::make_unique<TimeoutWorkerFactory>();
}

NotificationThresholdThread::NotificationThresholdThread(RouterTable& table)
    : ScanThread("NotificationThresholdThread", RouterTableEntry::kThresholdPool, table) {}

NotificationThresholdThread::~NotificationThresholdThread() {
  Stop();
}

void NotificationThresholdThread::CheckEntry(RouterTableEntry& entry) {
  if (entry.GetConsumerState() == RouterTableEntry::kNoNotification && entry.HasNotifyConsumer()) {
    AddEntry(entry);
  }
}

void NotificationThresholdThread::Offer(RouterTableEntry& entry) {
  manager_.AddOnce(entry);
}

std::unique_ptr<WorkerFactoryBase> NotificationThresholdThread::MakeFactory() {
  return std::make_unique<WorkerFactory<NotificationThresholdWorker>>();
}

}  // namespace MessageRouter
