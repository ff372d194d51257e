#include "envelope/Envelope.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <typeinfo>

#include "broker/Encoding.h"
#include "envelope/Address.h"
#include "envelope/EnvelopeStore.h"
#include "envelope/Settings.h"
#include "logging/Log.h"
#include "platform/Clock.h"
#include "platform/Files.h"

namespace MessageRouter {

// Queues move envelopes about.
static_assert(std::is_nothrow_move_constructible_v<Envelope>);
static_assert(std::is_nothrow_move_assignable_v<Envelope>);

namespace {

std::int64_t Now() {
  return Platform::Clock::Instance().WallSeconds();
}

CORBA::Long Low32(std::int64_t value) {
  return static_cast<CORBA::Long>(value);
}

// Unsigned, since a damaged file can hold any number.
CORBA::Long Difference(std::int64_t a, std::int64_t b) {
  return static_cast<CORBA::Long>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

// What is left to live, as it travels: 32 bits, and never the 0 that would mean "for ever".
CORBA::Long WireTtl(std::int64_t ttl, std::int64_t now) {
  if (ttl == 0) return 0;
  const CORBA::Long left = Difference(ttl, now);
  return left == 0 ? -1 : left;
}

}  // namespace

EnvelopeTooLarge::EnvelopeTooLarge(std::size_t size)
    : runtime_error("An envelope of " + std::to_string(size) + " bytes can't be passed on") {}

Envelope::Envelope()
    : shrinkState_(Settings::ShrinkEnvelopes() ? ShrinkState::Expanded
                                               : ShrinkState::ShrinkingOff) {}

Envelope::Envelope(const std::string& fileName) : Envelope() {
  SetFileName(fileName);
}

void Envelope::SetFileName(const std::string& fileName) {
  const EnvelopeStore* store = EnvelopeStore::Existing();
  inStoreFolder_ = store != nullptr && fileName.starts_with(store->Directory()) &&
                   fileName.find('/', store->Directory().size()) == std::string::npos;
  file_ = inStoreFolder_ ? fileName.substr(store->Directory().size()) : fileName;
}

std::string Envelope::FileName() const {
  if (file_.empty() || !inStoreFolder_) return file_;
  return EnvelopeStore::Instance().Directory() + file_;
}

BrelixMessaging::Envelope* Envelope::ToWire(bool qualifyOriginator) {
  auto wire = std::make_unique<BrelixMessaging::Envelope>();
  const std::string originator = qualifyOriginator ? EnsureQualified(originator_) : originator_;
  wire->originator = originator.c_str();

  // The payload has to be decoded for its check when the envelope expands: that one is kept.
  LogTrace("Envelope::GetOriginatorCert\n");
  const bool decoded = ExpandWithData(wire->client_info.custom_data);
  RequireRoom(originator, qualifyOriginator);
  if (heavy_) wire->originator_certificate = heavy_.get()->certificate.c_str();
  wire->message_id = static_cast<CORBA::Long>(messageId_);
  wire->physical_destination.length(static_cast<CORBA::ULong>(HopCount()));
  std::size_t start = 0;
  for (CORBA::ULong i = 0; i < wire->physical_destination.length(); ++i) {
    const std::size_t end =
        std::min(physicalDestination_.find('.', start), physicalDestination_.size());
    wire->physical_destination[i] = physicalDestination_.substr(start, end - start).c_str();
    start = end + 1;
  }
  wire->client_info.destination = destination_.c_str();
  wire->client_info.prio = static_cast<CORBA::Long>(priority_);
  wire->client_info.type = type_.c_str();
  wire->client_info.delivery_options = options_.c_str();
  if (decoded) {
    LogTrace("Envelope::GetData\n");
    LogTrace("Envelope::Expand\n");
  } else {
    GetData(wire->client_info.custom_data);
  }

  const std::int64_t now = Now();
  const std::vector<Timestamp>& stamps = timestamps_.stamps;
  wire->timestamps.length(static_cast<CORBA::ULong>(stamps.size()));
  for (CORBA::ULong i = 0; i < stamps.size(); ++i) {
    const bool last = i + 1 == stamps.size();
    wire->timestamps[i].name = stamps[i].name.c_str();
    wire->timestamps[i].utc_time = last ? Difference(now, stamps[i].time) : Low32(stamps[i].time);
  }
  wire->client_info.ttl = WireTtl(ttl_, now);
  return wire.release();
}

void Envelope::GetData(CORBA::Any& data) {
  LogTrace("Envelope::GetData\n");
  if (ExpandWithData(data)) return;
  Encoding::DecodeAny(heavy_ ? heavy_.get()->data : std::string(), data);
}

const std::string& Envelope::GetOriginatorCert() {
  static const std::string none;
  LogTrace("Envelope::GetOriginatorCert\n");
  Expand();
  return heavy_ ? heavy_.get()->certificate : none;
}

void Envelope::Shrink() {
  LogTrace("Envelope::Shrink\n");
  if (shrinkState_ != ShrinkState::Expanded) return;
  heavy_.Reset();
  shrinkState_ = ShrinkState::Shrunk;
  LogDebug("Shrunk Envelope, id=%08X\n", messageId_);
}

void Envelope::Expand() {
  CORBA::Any checked;
  ExpandWithData(checked);
}

bool Envelope::ExpandWithData(CORBA::Any& data) {
  LogTrace("Envelope::Expand\n");
  if (shrinkState_ != ShrinkState::Shrunk) return false;
  Envelope stored;
  stored.file_ = file_;
  stored.inStoreFolder_ = inStoreFolder_;
  try {
    stored.FromPersistent();
  } catch (const PassingShortage&) {
    throw;
  } catch (const std::runtime_error&) {
    // The holder drops the envelope, and the file with it.
    if (Platform::FileExists(FileName())) {
      MarkInvalid();
      file_.clear();
    }
    throw;
  }
  HeavyFields heavy = std::move(stored.heavy_.Use());
  Encoding::DecodeAny(heavy.data, data);
  if (heavy.data.empty()) {
    LogWarning("Expanded Envelope, id=%08X, type=%s, no Data\n", messageId_, Shown(type_).c_str());
  }
  if (heavy.certificate.empty()) {
    LogWarning("Expanded Envelope, id=%08X, type=%s, no Originator Cert\n", messageId_,
               Shown(type_).c_str());
  }
  heavy_.Use() = std::move(heavy);
  shrinkState_ = ShrinkState::Expanded;
  LogDebug("Expanded Envelope, id=%08X\n", messageId_);
  return true;
}

std::string Envelope::NextHop() const {
  return physicalDestination_.substr(0, physicalDestination_.find('.'));
}

std::size_t Envelope::HopCount() const {
  if (physicalDestination_.empty()) return 0;
  return 1 + static_cast<std::size_t>(
                 std::count(physicalDestination_.begin(), physicalDestination_.end(), '.'));
}

void Envelope::PopHop() {
  const std::size_t dot = physicalDestination_.find('.');
  hopPopped_ = hopPopped_ || !physicalDestination_.empty();
  physicalDestination_.erase(0, dot == std::string::npos ? dot : dot + 1);
}

bool Envelope::IsExpired() const {
  return ttl_ != 0 && ttl_ < Now();
}

std::string Envelope::DescribeShort() const {
  char text[16];
  std::snprintf(text, sizeof text, "id=%08X", static_cast<unsigned>(messageId_));
  return text;
}

std::string Envelope::Describe() const {
  return DescribeShort() + ", origin=" + ShownName(originator_) +
         ", dest=" + ShownName(destination_) + ", type=" + Shown(type_);
}

std::vector<std::string> Envelope::PhysicalDestination() const {
  return SplitAddress(physicalDestination_);
}

bool IsDiscardableError(const std::exception& exception, const Envelope& envelope) {
  if (typeid(exception) != typeid(EnvelopeTooLarge)) {
    if (typeid(exception) != typeid(std::runtime_error)) return false;
    const std::string_view text = exception.what();
    if (text.find("Encoding::DecodeAny") == std::string_view::npos &&
        text.find("Envelope::FromPersistent") == std::string_view::npos) {
      return false;
    }
  }
  // Without memory for the line it is no less broken.
  try {
    LogError("Discarding invalid envelope id=%08X, type=%s\n", envelope.MessageId(),
             Shown(envelope.Type()).c_str());
  } catch (const std::bad_alloc&) {
  }
  return true;
}

}  // namespace MessageRouter
