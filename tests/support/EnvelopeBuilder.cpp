#include "support/EnvelopeBuilder.h"

#include "broker/Encoding.h"
#include "envelope/Address.h"

namespace MessageRouter {

EnvelopeBuilder::EnvelopeBuilder() {
  envelope_.shrinkState_ = Envelope::ShrinkState::Expanded;
  WithOriginator("Router.sender");
  WithDestination("receiver");
  WithType("Test.Message");
  WithDataText("00000000");
}

EnvelopeBuilder& EnvelopeBuilder::WithId(std::uint32_t id) {
  envelope_.messageId_ = id;
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithPriority(std::uint32_t priority) {
  envelope_.priority_ = priority;
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithOriginator(const std::string& originator) {
  envelope_.originator_ = originator;
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithCertificate(const std::string& certificate) {
  envelope_.heavy_.Use().certificate = certificate;
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithDestination(const std::string& destination) {
  envelope_.destination_ = destination;
  return WithHops(SplitAddress(destination));
}

EnvelopeBuilder& EnvelopeBuilder::WithHops(const std::vector<std::string>& hops) {
  envelope_.physicalDestination_ = JoinAddress(hops);
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithType(const std::string& type) {
  envelope_.type_ = type;
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithTtl(std::int64_t ttl) {
  envelope_.ttl_ = ttl;
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithOptions(const std::string& options) {
  envelope_.options_ = options;
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithStamp(const std::string& name, std::int64_t time) {
  envelope_.timestamps_.Append(name, time);
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithData(const CORBA::Any& data) {
  return WithDataText(Encoding::EncodeAny(data));
}

EnvelopeBuilder& EnvelopeBuilder::WithDataText(const std::string& data) {
  envelope_.heavy_.Use().data = data;
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::WithFile(const std::string& path) {
  envelope_.SetFileName(path);
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::FromParent(bool fromParent) {
  envelope_.fromParent_ = fromParent;
  return *this;
}

EnvelopeBuilder& EnvelopeBuilder::Shrunk() {
  envelope_.Shrink();
  return *this;
}

EnvelopeBuilder AnEnvelope() {
  return {};
}

}  // namespace MessageRouter
