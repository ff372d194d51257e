#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "envelope/Envelope.h"

namespace MessageRouter {

// Envelopes in memory alone, for tests: no file, so that Retire does nothing, unless one is named.
// Without more they come from "Router.sender", go to "receiver" and hold an empty payload.
class EnvelopeBuilder {
 public:
  EnvelopeBuilder();

  EnvelopeBuilder& WithId(std::uint32_t id);
  EnvelopeBuilder& WithPriority(std::uint32_t priority);
  EnvelopeBuilder& WithOriginator(const std::string& originator);
  EnvelopeBuilder& WithCertificate(const std::string& certificate);
  // The address, and the hops that it has.
  EnvelopeBuilder& WithDestination(const std::string& destination);
  // Other hops than those of the address.
  EnvelopeBuilder& WithHops(const std::vector<std::string>& hops);
  EnvelopeBuilder& WithType(const std::string& type);
  EnvelopeBuilder& WithTtl(std::int64_t ttl);  // absolute; 0 never expires
  EnvelopeBuilder& WithOptions(const std::string& options);
  EnvelopeBuilder& WithStamp(const std::string& name, std::int64_t time);
  EnvelopeBuilder& WithData(const CORBA::Any& data);  // needs the codec
  // The payload as text, broken or not.
  EnvelopeBuilder& WithDataText(const std::string& data);
  EnvelopeBuilder& WithFile(const std::string& path);
  EnvelopeBuilder& FromParent(bool fromParent = true);
  // As it waits: payload and certificate are in the file alone.
  EnvelopeBuilder& Shrunk();

  Envelope Build() const { return envelope_; }
  operator Envelope() const { return envelope_; }

 private:
  Envelope envelope_;
};

EnvelopeBuilder AnEnvelope();

}  // namespace MessageRouter

namespace TestSupport {
using MessageRouter::AnEnvelope;
using MessageRouter::EnvelopeBuilder;
}  // namespace TestSupport
