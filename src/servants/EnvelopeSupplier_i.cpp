#include "servants/EnvelopeSupplier_i.h"

#include <cstdint>
#include <exception>
#include <string>

#include "envelope/Address.h"
#include "logging/Log.h"
#include "servants/Caller.h"
#include "servants/Frame.h"

namespace RouterServants {

using MessageRouter::Envelope;
using MessageRouter::LogError;
using MessageRouter::LogInfo;
using MessageRouter::LogTrace;
using MessageRouter::RouterTableEntry;
using MessageRouter::Shown;

namespace {

// A copy of the caller's next envelope.
void PeekFor(const Caller& caller, Envelope& envelope) {
  RouterTableEntry& entry = caller.entry;
  if (entry.PeekNext(envelope, caller.name)) return;
  if (MessageRouter::LogEnabled(MessageRouter::kLogTrace)) {
    LogTrace("EnvelopeSupplier::GetEnvelope() - no envelope to supply for %s\n",
             Shown(entry.Name()).c_str());
  }
  throw BrelixMessaging::NoEnvelope();
}

}  // namespace

BrelixMessaging::Envelope* EnvelopeSupplier_i::GetEnvelope() {
  return OpenOperation("EnvelopeSupplier::GetEnvelope", [this] {
    while (true) {
      Envelope envelope;
      try {
        const Caller caller = Caller::LoggedOn();
        caller.entry.TouchLastPull(caller.name);
        PeekFor(caller, envelope);
        BrelixMessaging::Envelope_var wire = envelope.ToWire(isRouterSupplier_);
        if (MessageRouter::LogEnabled(MessageRouter::kLogInfo)) {
          LogInfo("Supplying message (%s) to %s\n", envelope.DescribeShort().c_str(),
                  Shown(caller.entry.Name()).c_str());
        }
        return wire._retn();
      } catch (const BrelixMessaging::NoEnvelope&) {
        throw;
      } catch (const std::exception& exception) {
        MessageRouter::LogCaughtException("EnvelopeSupplier_i", exception, "");
        if (MessageRouter::IsDiscardableError(exception, envelope)) {
          // The file of one that was acknowledged or has expired meanwhile is gone, not broken.
          if (!Discard(envelope)) continue;
        } else {
          LogError("Failed to supply message (%s) because of exception: %s\n",
                   envelope.DescribeShort().c_str(), exception.what());
        }
      } catch (...) {
        LogError("Failed to supply message (%s) because of unknown exception\n",
                 envelope.DescribeShort().c_str());
      }
      throw BrelixMessaging::Rejected();
    }
  });
}

// The broken one would stand in front of all others for ever.
bool EnvelopeSupplier_i::Discard(const Envelope& broken) {
  try {
    Acknowledge(broken.Originator(), broken.MessageId(), false);
  } catch (const BrelixMessaging::NoEnvelope&) {
    return false;
  } catch (...) {  // the caller is told Rejected whatever came of it
  }
  return true;
}

void EnvelopeSupplier_i::AcknowledgeEnvelope(const char* originator,
                                             BrelixMessaging::MessageId message_id) {
  const Broker::Gate::Pass pass;
  Acknowledge(originator, static_cast<std::uint32_t>(message_id), isRouterSupplier_);
}

void EnvelopeSupplier_i::Acknowledge(const std::string& originator, std::uint32_t messageId,
                                     bool mayBeQualified) {
  Framed("EnvelopeSupplier::AcknowledgeEnvelope", [&] {
    const Caller caller = Caller::LoggedOn();
    caller.entry.TouchLastPull(caller.name);
    // A router hands back the form that it was given; the queue holds the stored one.
    const std::vector<std::string> originators =
        mayBeQualified ? MessageRouter::UnqualifiedForms(originator) : std::vector{originator};
    if (!caller.entry.CancelSupplied(originators, messageId, caller.name)) {
      throw BrelixMessaging::NoEnvelope();
    }
  });
}

void EnvelopeSupplier_i::Heartbeat() {
  OpenOperation("EnvelopeSupplier::Heartbeat", [] {
    const auto name = CallerNameIfAny();
    RouterTableEntry* entry = name ? FindEntry(*name) : nullptr;
    if (entry != nullptr) entry->TouchLastPull(*name);
  });
}

}  // namespace RouterServants
