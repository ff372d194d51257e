#pragma once

#include <cstdint>
#include <utility>

#include "delivery/GetEntryGuard.h"
#include "delivery/Workers.h"
#include "routing/RouterTable.h"

namespace MessageRouter {

// Looks at each entry of the table once: a row counts only where its name is the entry's own.
class RouterTableScanner : public FunctionClassBase {
 public:
  void operator()(std::string name, RouterTableEntry& entry) override;
  virtual void CheckEntry(RouterTableEntry& entry) = 0;
};

// A thread that wakes at a fixed period, walks the table and offers each entry that qualifies to
// its pool. It never calls a peer. A period of 0 scans once and then sleeps until the stop.
class ScanThread : public ThreadHelper::StoppableThreadHelper, public RouterTableScanner {
 public:
  // Opens the pool, which otherwise takes entries only from the first steps of the thread on.
  void Open();
  // Before Start.
  void Configure(std::uint32_t periodSeconds, std::uint32_t workers);
  std::uint32_t Workers() const { return workerCount_; }
  // Ends the thread, if it was started, and closes the pool.
  void Stop() override;
  void Process() override;

 protected:
  ScanThread(const char* name, RouterTableEntry::Pool pool, RouterTable& table,
             std::uint32_t periodSeconds = 0);
  virtual std::unique_ptr<WorkerFactoryBase> MakeFactory() = 0;
  // Logs "<name>::CheckEntry() adding entry: %s\n" and adds it.
  void AddEntry(RouterTableEntry& entry);
  WorkerManagerBase manager_;

 private:
  const char* const name_;
  RouterTable& table_;
  std::uint32_t periodSeconds_;
  std::uint32_t workerCount_ = 0;
};

// Decides when a peer that must be asked is due.
class GetterThread : public ScanThread {
 public:
  explicit GetterThread(RouterTable& table);
  ~GetterThread() override;
  void CheckEntry(RouterTableEntry& entry) override;
  // A poll at once, if the entry waits for its poll time. Any thread.
  void NotifiedPoll(RouterTableEntry& entry);
  // A visit at once, whatever the state of the entry. Any thread.
  void Offer(RouterTableEntry& entry);
  // Before Start.
  void SetPollObserver(PollObserver observer) { observer_ = std::move(observer); }

 protected:
  std::unique_ptr<WorkerFactoryBase> MakeFactory() override;

 private:
  PollObserver observer_;
};

// Retires envelopes that expired while nobody pushed them, and logs off routers that stopped
// pulling.
class TimeoutThread : public ScanThread {
 public:
  explicit TimeoutThread(RouterTable& table);
  ~TimeoutThread() override;
  void CheckEntry(RouterTableEntry& entry) override;

 protected:
  std::unique_ptr<WorkerFactoryBase> MakeFactory() override;
};

// Retries, with a back-off, the call that tells which peers can be notified.
class NotificationThresholdThread : public ScanThread {
 public:
  explicit NotificationThresholdThread(RouterTable& table);
  ~NotificationThresholdThread() override;
  void CheckEntry(RouterTableEntry& entry) override;
  void Offer(RouterTableEntry& entry);

 protected:
  std::unique_ptr<WorkerFactoryBase> MakeFactory() override;
};

}  // namespace MessageRouter
