#include <stdexcept>

#include "broker/Encoding.h"
#include "broker/Limits.h"
#include "envelope/Address.h"
#include "envelope/Envelope.h"
#include "envelope/EnvelopeText.h"
#include "envelope/MessageIdGenerator.h"
#include "envelope/MessageType.h"
#include "envelope/Settings.h"
#include "logging/Log.h"
#include "security/OwnIdentity.h"

namespace MessageRouter {
namespace {

constexpr char kManager[] = "EM";
constexpr char kCreationFailed[] = "Failed to create persistent envelope";

// What only the management itself may send.
bool IsManagementCommand(const char* type) {
  return MatchMessageType(type, "EM", "DoAction") ||
         MatchMessageType(type, "EM", "SetConfiguration");
}

void Require(const char* field, bool readsBack) {
  if (readsBack) return;
  throw std::runtime_error(std::string("Refused an envelope whose ") + field +
                           " would not be read back as it is");
}

}  // namespace

void Envelope::CreateFromClient(const BrelixMessaging::Message& message,
                                const std::string& originator,
                                const std::string& originatorCertificate) {
  if (originator != kManager && IsManagementCommand(message.type)) {
    LogError("CreateFromClient: Message of type %s receieved from unexpected originator: %s\n",
             Shown(message.type.in()).c_str(), Shown(originator).c_str());
    throw BrelixMessaging::Rejected();
  }
  fromParent_ = false;
  messageId_ = MessageIdGenerator::Instance().NextMessageId();
  originator_ = QualifyWithRouter(originator);
  heavy_.Use().certificate = originatorCertificate;
  physicalDestination_ = TidyAddress(message.destination.in());
  timestamps_.stamps.reserve(2);
  timestamps_.Append(originator);
  timestamps_.Append(OwnIdentity::CommonName());
  FillFromMessage(message, Settings::Largest().beginsHere);
}

void Envelope::CreateFromRouter(const BrelixMessaging::Envelope& wire, bool fromParent) {
  if (!fromParent && IsManagementCommand(wire.client_info.type)) {
    LogError("CreateFromRouter: Message of type %s can only be receieved from the parent\n",
             wire.client_info.type.in());
    throw BrelixMessaging::Rejected();
  }
  fromParent_ = fromParent;
  messageId_ = static_cast<std::uint32_t>(wire.message_id);
  originator_ = wire.originator.in();
  heavy_.Use().certificate = wire.originator_certificate.in();
  physicalDestination_.clear();
  for (CORBA::ULong i = 0; i < wire.physical_destination.length(); ++i) {
    const std::string_view hop = wire.physical_destination[i].in();
    Require("physical destination", !hop.empty() && hop.find('.') == std::string_view::npos);
    if (i != 0) physicalDestination_ += '.';
    physicalDestination_ += hop;
  }
  const CORBA::ULong count = wire.timestamps.length();
  timestamps_.stamps.clear();
  timestamps_.stamps.reserve(count + 1);
  for (CORBA::ULong i = 0; i < count; ++i) {
    timestamps_.Append(wire.timestamps[i].name.in(), wire.timestamps[i].utc_time);
  }
  timestamps_.Append(OwnIdentity::CommonName());
  FillFromMessage(wire.client_info, Settings::LargestWithStamps(timestamps_.stamps.size()));
}

void Envelope::CreateLocal(const std::string& destination, std::uint32_t priority, TimeToLive ttl,
                           const std::string& type, const CORBA::Any& data,
                           const std::string& options, std::uint32_t messageId) {
  destination_ = destination;
  priority_ = priority;
  type_ = type;
  ttl_ = ttl.End();
  heavy_.Use().data = Encoding::EncodeAny(data);
  messageId_ = messageId != 0 ? messageId : MessageIdGenerator::Instance().NextMessageId();
  options_ = options;
  const std::string router = OwnIdentity::CommonName();
  originator_ = router;
  heavy_.Use().certificate = OwnIdentity::CertificateText();
  // Both stamps: the pair is the shape that a client's message has.
  timestamps_.stamps.reserve(2);
  timestamps_.Append(router);
  physicalDestination_ = TidyAddress(destination);
  timestamps_.Append(router);
  RequireTextsReadBack();
  if (const std::size_t size = WireSize(); size > Settings::Largest().beginsHere) {
    throw EnvelopeTooLarge(size);
  }
  WritePersistent();
}

void Envelope::FillFromMessage(const BrelixMessaging::Message& message, std::size_t largest) {
  destination_ = message.destination.in();
  priority_ = static_cast<std::uint32_t>(message.prio);
  type_ = message.type.in();
  options_ = message.delivery_options.in();
  heavy_.Use().data = Encoding::EncodeAny(message.custom_data);
  if (!options_.empty()) {
    LogTrace("Incoming message delivery options: %s\n", Shown(options_).c_str());
  }
  ttl_ = TimeToLive::Stated(message.ttl).End();
  RequireTextsReadBack();
  if (const std::size_t size = WireSize(); size > largest) {
    LogError("Refused a message of %zu bytes (%s), at most %zu can be passed on\n", size,
             Describe().c_str(), largest);
    throw BrelixMessaging::Rejected();
  }
  // A peer's message is the router's only once it is on disk.
  if (!WritePersistent()) throw std::runtime_error(kCreationFailed);
}

std::size_t Envelope::WireSize() const {
  constexpr std::size_t kFixed = 256;
  constexpr std::size_t kString = 8;  // its length, its end, and the way to the next one
  std::size_t size = kFixed + originator_.size() + destination_.size() + type_.size() +
                     options_.size() + physicalDestination_.size() + kString * HopCount();
  for (const Timestamp& stamp : timestamps_.stamps) {
    size += stamp.name.size() + kString + sizeof(CORBA::Long);
  }
  // The payload is kept as two digits a byte.
  if (heavy_) size += heavy_.get()->certificate.size() + heavy_.get()->data.size() / 2;
  return size;
}

void Envelope::RequireRoom(const std::string& originator, bool toRouter) const {
  const std::size_t size = WireSize() - originator_.size() + originator.size();
  const std::size_t stamps = timestamps_.stamps.size();
  // The next router stamps before it measures. An envelope for a client has no measure but the
  // ORB's.
  const bool fits =
      toRouter ? size + Broker::Limits::kHopBytes / 2 <= Settings::LargestWithStamps(stamps + 1)
               : size <= Settings::LargestWithStamps(Broker::Limits::kMaxGrownHops);
  if (!fits) throw EnvelopeTooLarge(size);
}

// A text that a peer chose must not turn into fields of its own in the file: a certificate of the
// peer's choice would be a role of its choice.
void Envelope::RequireTextsReadBack() const {
  Require("originator", EnvelopeText::ReadsBack(originator_));
  Require("physical destination", EnvelopeText::ReadsBack(physicalDestination_));
  Require("destination", EnvelopeText::ReadsBack(destination_));
  Require("type", EnvelopeText::ReadsBack(type_));
  Require("options", EnvelopeText::ReadsBack(options_));
  std::string stamps;
  timestamps_.AppendTo(stamps);
  // A comma in a stamp's name ends the list on reading: the message is worth more than its stamps.
  Require("timestamps", EnvelopeText::ReadsBack(stamps));
}

}  // namespace MessageRouter
