#include "Behaviour.h"

#include <algorithm>

#include "client_library/EnvelopeText.h"

namespace Peer {

void Behaviour::Set(const std::string& method, const Rule& rule) {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  rules_[method] = rule;
  released_ = false;
}

void Behaviour::Release() {
  ThreadHelper::Guard guard(mutex_);
  if (!guard) return;
  released_ = true;
  rules_.clear();
  changed_.Broadcast();
}

void Behaviour::OnCall(const std::string& method) {
  std::string raise;
  {
    ThreadHelper::Guard guard(mutex_);
    if (!guard) return;
    ++calls_[method];
    changed_.Broadcast();
    const auto found = rules_.find(method);
    if (found == rules_.end() || found->second.times == 0) return;
    Rule& rule = found->second;
    if (rule.times > 0) --rule.times;
    raise = rule.raise;
    const int delay = rule.delayMilliseconds;
    const auto end =
        Platform::Clock::Instance().SteadyNow() + std::chrono::milliseconds(delay < 0 ? 0 : delay);
    while (!released_ && delay != 0) {
      if (delay < 0) {
        changed_.Wait();
        continue;
      }
      const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
          end - Platform::Clock::Instance().SteadyNow());
      if (left.count() <= 0) break;
      changed_.WaitFor(left);
    }
  }
  if (!raise.empty()) Raise(raise);
}

Json Behaviour::Calls() const {
  ThreadHelper::Guard guard(mutex_);
  return calls_;
}

void Behaviour::RecordInto(const std::string& path) {
  ThreadHelper::Guard guard(mutex_);
  if (record_.is_open()) record_.close();
  record_.clear();
  record_.open(path, std::ios::app);
}

void Behaviour::Received(const BrelixMessaging::Envelope& envelope) {
  Json json = ClientLibrary::ToJson(envelope);
  json["hops"] = envelope.physical_destination.length();
  const Json payload = json.value("payload", Json());
  const std::string text = payload.is_string() ? payload.get<std::string>() : "";
  ThreadHelper::Guard guard(mutex_);
  if (!guard) throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
  if (record_.is_open()) {
    record_ << json["id"].get<std::string>() << ' ' << json["originator"].get<std::string>() << ' '
            << text.substr(0, text.find(' ')) << ' ' << SteadyMilliseconds() << std::endl;
    if (!record_) throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
  }
  ++received_;
  if (last_.size() == kKept) last_.erase(last_.begin());
  last_.push_back(json);
  changed_.Broadcast();
}

std::uint64_t Behaviour::ReceivedCount() const {
  ThreadHelper::Guard guard(mutex_);
  return received_;
}

Json Behaviour::Last() const {
  ThreadHelper::Guard guard(mutex_);
  return last_;
}

bool Behaviour::WaitForReceived(std::uint64_t count, std::chrono::milliseconds time) {
  const auto end = Platform::Clock::Instance().SteadyNow() + time;
  ThreadHelper::Guard guard(mutex_);
  while (received_ < count) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        end - Platform::Clock::Instance().SteadyNow());
    if (left.count() <= 0) return false;
    changed_.WaitFor(left);
  }
  return true;
}

void Behaviour::Supply(const BrelixMessaging::Envelope& envelope) {
  ThreadHelper::Guard guard(mutex_);
  toSupply_.push_back(envelope);
}

BrelixMessaging::Envelope* Behaviour::NextToSupply() const {
  ThreadHelper::Guard guard(mutex_);
  if (toSupply_.empty()) throw BrelixMessaging::NoEnvelope();
  return new BrelixMessaging::Envelope(toSupply_.front());
}

void Behaviour::Acknowledge(const std::string& originator, BrelixMessaging::MessageId id) {
  ThreadHelper::Guard guard(mutex_);
  const auto found = std::find_if(toSupply_.begin(), toSupply_.end(), [&](const auto& one) {
    return one.message_id == id && originator == one.originator.in();
  });
  if (found == toSupply_.end()) throw BrelixMessaging::NoEnvelope();
  toSupply_.erase(found);
}

std::size_t Behaviour::ToSupply() const {
  ThreadHelper::Guard guard(mutex_);
  return toSupply_.size();
}

}  // namespace Peer
