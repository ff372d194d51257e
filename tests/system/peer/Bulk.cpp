#include "Bulk.h"

#include <fstream>
#include <map>
#include <vector>

#include "client_library/EnvelopeText.h"
#include "client_library/Failure.h"

namespace Peer {

using Platform::Clock;
using std::chrono::milliseconds;

struct Bulk::Job {
  BrelixMessaging::Message message;
  BrelixMessaging::Envelope envelope;
  std::string tag;
  unsigned count = 0;
  std::size_t size = 0;
  double rate = 0;
  bool asRouter = false;
  bool reconnect = false;
  Clock::SteadyTime start;
  Clock::SteadyTime deadline;
  std::vector<std::thread> threads;
  std::atomic<unsigned> next{0};
  std::atomic<unsigned> accepted{0};
  std::atomic<unsigned> failed{0};

  // One thread at a time connects anew, and no other does for the same failure.
  ThreadHelper::Mutex reconnecting;
  std::atomic<unsigned> reconnected{0};
  ThreadHelper::Mutex mutex;
  ThreadHelper::Condition changed{mutex};
  std::ofstream ledger GUARDED_BY(mutex);
  std::map<std::string, unsigned> exceptions GUARDED_BY(mutex);
  unsigned running GUARDED_BY(mutex) = 0;
  Clock::SteadyTime end GUARDED_BY(mutex);
};

namespace {

std::string TagOf(const std::string& tag, unsigned index) {
  char number[16];
  std::snprintf(number, sizeof number, "-%06u", index);
  return tag + number;
}

}  // namespace

Bulk::~Bulk() {
  stopping_ = true;
  if (!job_) return;
  for (auto& thread : job_->threads) thread.join();
}

void Bulk::Start(const Json& arguments) {
  if (job_) throw std::runtime_error("a bulk job is there already; wait for it");
  auto job = std::make_shared<Job>();
  job->message = MessageFrom(arguments);
  job->envelope = EnvelopeFrom(arguments);
  job->tag = arguments.value("tag", std::string("m"));
  job->count = arguments.at("count").get<unsigned>();
  job->size = arguments.value("size", std::size_t{0});
  job->rate = arguments.value("rate", 0.0);
  job->asRouter = arguments.value("as_router", false);
  job->reconnect = arguments.value("reconnect", false);
  job->start = Clock::Instance().SteadyNow();
  job->deadline = job->start + std::chrono::seconds(arguments.value("deadline", 60));
  const unsigned threads = arguments.value("threads", 1U);
  {
    ThreadHelper::Guard guard(job->mutex);
    const std::string ledger = arguments.value("ledger", std::string());
    if (!ledger.empty()) job->ledger.open(ledger, std::ios::app);
    job->running = threads;
  }
  stopping_ = false;
  job_ = job;
  for (unsigned i = 0; i < threads; ++i) {
    job->threads.emplace_back([this, job, i] { Run(*job, i); });
  }
}

void Bulk::Run(Job& job, unsigned) {
  for (;;) {
    const unsigned index = job.next++;
    if (index >= job.count || stopping_) break;
    Pace(job, index);
    const unsigned links = job.reconnected;
    if (SendOne(job, index)) continue;
    if (!job.reconnect) continue;
    ThreadHelper::Guard guard(job.reconnecting);
    while (job.reconnected == links && !stopping_ && Clock::Instance().SteadyNow() < job.deadline) {
      try {
        links_.Reconnect();
        ++job.reconnected;
        break;
      } catch (const CORBA::Exception&) {
      } catch (const std::exception&) {
      }
      std::this_thread::sleep_for(milliseconds(50));
    }
  }
  ThreadHelper::Guard guard(job.mutex);
  if (--job.running == 0) job.end = Clock::Instance().SteadyNow();
  job.changed.Broadcast();
}

void Bulk::Pace(const Job& job, unsigned index) const {
  if (job.rate <= 0) return;
  const auto due =
      job.start + std::chrono::microseconds(static_cast<std::int64_t>(index * 1e6 / job.rate));
  std::this_thread::sleep_until(due);
}

bool Bulk::SendOne(Job& job, unsigned index) {
  const std::string tag = TagOf(job.tag, index);
  std::string text = tag;
  if (text.size() + 1 < job.size) text += " " + std::string(job.size - text.size() - 1, 'x');
  std::string failure;
  const std::int64_t began = SteadyMilliseconds();
  try {
    const References now = links_.Get();
    CORBA::Long id = 0;
    if (job.asRouter) {
      BrelixMessaging::Envelope envelope = job.envelope;
      id = static_cast<CORBA::Long>(index + 1);
      envelope.message_id = id;
      envelope.client_info.custom_data = ClientLibrary::MakePayload(text);
      if (CORBA::is_nil(now.routerConsumer)) throw BrelixMessaging::NotLoggedOn();
      now.routerConsumer->SendEnvelope(envelope);
    } else {
      BrelixMessaging::Message message = job.message;
      message.custom_data = ClientLibrary::MakePayload(text);
      if (CORBA::is_nil(now.messages)) throw BrelixMessaging::NotLoggedOn();
      id = now.messages->SendMessage(message);
    }
    ++job.accepted;
    ThreadHelper::Guard guard(job.mutex);
    if (job.ledger.is_open()) {
      job.ledger << ClientLibrary::FormatId(id) << ' ' << tag << ' ' << began << std::endl;
    }
    return true;
  } catch (const CORBA::Exception& exception) {
    failure = ClientLibrary::ShortName(exception);
  } catch (const std::exception& exception) {
    failure = exception.what();
  }
  ++job.failed;
  ThreadHelper::Guard guard(job.mutex);
  ++job.exceptions[failure];
  return false;
}

Json Bulk::Wait(milliseconds time) {
  if (!job_) throw std::runtime_error("no bulk job");
  const auto end = Clock::Instance().SteadyNow() + time;
  Json out;
  {
    ThreadHelper::Guard guard(job_->mutex);
    while (job_->running != 0) {
      const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
          end - Clock::Instance().SteadyNow());
      if (left.count() <= 0) {
        return {{"running", true}, {"accepted", job_->accepted.load()}};
      }
      job_->changed.WaitFor(left);
    }
    out = {{"accepted", job_->accepted.load()},
           {"failed", job_->failed.load()},
           {"seconds", std::chrono::duration<double>(job_->end - job_->start).count()},
           {"exceptions", job_->exceptions}};
  }
  for (auto& thread : job_->threads) thread.join();
  job_.reset();
  return out;
}

}  // namespace Peer
