#include <filesystem>
#include <new>
#include <stdexcept>

#include "broker/Encoding.h"
#include "config/Configuration.h"
#include "envelope/Settings.h"
#include "fixture.h"
#include "logging/Log.h"
#include "support/AllocationFailure.h"
#include "support/EnvelopeBuilder.h"
#include "support/MemoryLimit.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class EnvelopeWire : public TestSupport::EnvelopeTest {};
class EnvelopeShrink : public TestSupport::EnvelopeTest {};
class EnvelopeQueries : public TestSupport::EnvelopeTest {};
class EnvelopeErrors : public TestSupport::EnvelopeTest {};

TEST_F(EnvelopeWire, CarriesWhatWasReceived) {
  Envelope envelope;
  BrelixMessaging::Envelope received = AWireEnvelope();
  received.client_info.delivery_options = "slowly";
  envelope.CreateFromRouter(received, false);
  const BrelixMessaging::Envelope_var wire = envelope.ToWire(false);
  EXPECT_STREQ(wire->originator, "router0.agent-1");
  EXPECT_STREQ(wire->originator_certificate, "agent's certificate");
  EXPECT_EQ(wire->message_id, received.message_id);
  ASSERT_EQ(wire->physical_destination.length(), 2u);
  EXPECT_STREQ(wire->physical_destination[0], "router1");
  EXPECT_STREQ(wire->physical_destination[1], "agent-2");
  EXPECT_STREQ(wire->client_info.destination, "router1.agent-2");
  EXPECT_EQ(wire->client_info.prio, 5);
  EXPECT_STREQ(wire->client_info.type, "Status.Report");
  EXPECT_STREQ(wire->client_info.delivery_options, "slowly");
  EXPECT_EQ(AnyText(wire->client_info.custom_data), "payload");
}

TEST_F(EnvelopeWire, HasOnlyTheHopsThatAreLeft) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  envelope.PopHop();
  const BrelixMessaging::Envelope_var wire = envelope.ToWire(false);
  ASSERT_EQ(wire->physical_destination.length(), 1u);
  EXPECT_STREQ(wire->physical_destination[0], "agent-2");
}

TEST_F(EnvelopeWire, QualifiesTheOriginatorForARouterAlone) {
  Envelope envelope = AnEnvelope().WithOriginator("router1");
  EXPECT_STREQ(BrelixMessaging::Envelope_var(envelope.ToWire(true))->originator, "router1");
  envelope = AnEnvelope().WithOriginator("other.agent");
  EXPECT_STREQ(BrelixMessaging::Envelope_var(envelope.ToWire(true))->originator,
               "router1.other.agent");
  EXPECT_STREQ(BrelixMessaging::Envelope_var(envelope.ToWire(false))->originator, "other.agent");
}

TEST_F(EnvelopeWire, TheLastStampLeavesAsTheSecondsThatTheEnvelopeSpentHere) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  clock_.AdvanceWall(42);
  const BrelixMessaging::Envelope_var wire = envelope.ToWire(false);
  ASSERT_EQ(wire->timestamps.length(), 3u);
  EXPECT_EQ(wire->timestamps[0].utc_time, 1352900000);
  EXPECT_EQ(wire->timestamps[1].utc_time, 3);
  EXPECT_STREQ(wire->timestamps[2].name, "router1");
  EXPECT_EQ(wire->timestamps[2].utc_time, 42);
  EXPECT_EQ(envelope.Stamps().stamps[2].time, Now() - 42) << "the envelope itself is unchanged";
}

TEST_F(EnvelopeWire, AStampsTimeIsCutTo32Bits) {
  Envelope envelope = AnEnvelope().WithStamp("a", (std::int64_t{1} << 32) + 7).WithStamp("b", 0);
  EXPECT_EQ(BrelixMessaging::Envelope_var(envelope.ToWire(false))->timestamps[0].utc_time, 7);
}

TEST_F(EnvelopeWire, AnEnvelopeWithNoStampsSendsItsListAsItIs) {
  Envelope envelope = AnEnvelope();
  EXPECT_EQ(BrelixMessaging::Envelope_var(envelope.ToWire(false))->timestamps.length(), 0u);
}

TEST_F(EnvelopeWire, ATtlTravelsAsTheTimeThatIsLeft) {
  Envelope envelope = AnEnvelope().WithTtl(Now() + 60);
  EXPECT_EQ(BrelixMessaging::Envelope_var(envelope.ToWire(false))->client_info.ttl, 60);
  envelope = AnEnvelope().WithTtl(Now() - 60);
  EXPECT_EQ(BrelixMessaging::Envelope_var(envelope.ToWire(false))->client_info.ttl, -60);
}

TEST_F(EnvelopeWire, ATtlOfZeroStaysZero) {
  Envelope envelope = AnEnvelope().WithTtl(0);
  EXPECT_EQ(BrelixMessaging::Envelope_var(envelope.ToWire(false))->client_info.ttl, 0);
}

TEST_F(EnvelopeWire, ARemainingTimeOfExactlyZeroLeavesAsMinusOne) {
  Envelope envelope = AnEnvelope().WithTtl(Now());
  EXPECT_EQ(BrelixMessaging::Envelope_var(envelope.ToWire(false))->client_info.ttl, -1);
  envelope = AnEnvelope().WithTtl(Now() + (std::int64_t{1} << 32));
  EXPECT_EQ(BrelixMessaging::Envelope_var(envelope.ToWire(false))->client_info.ttl, -1);
}

TEST_F(EnvelopeWire, LogsTheStepsOfItsHeavyFields) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  log_.Clear();
  const BrelixMessaging::Envelope_var wire = envelope.ToWire(false);
  EXPECT_TRUE(log_.Has(kLogTrace, "Envelope::GetOriginatorCert\n"));
  EXPECT_TRUE(log_.Has(kLogTrace, "Envelope::GetData\n"));
  EXPECT_TRUE(log_.Has(kLogTrace, "Envelope::Expand\n"));
  EXPECT_TRUE(log_.Has(kLogDebug, "Expanded Envelope, id=8A0B0C0D\n"));
}

TEST_F(EnvelopeWire, ReadsTheFileOnceAndServesFurtherCallsFromMemory) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  BrelixMessaging::Envelope_var wire = envelope.ToWire(false);
  std::filesystem::remove(envelope.FileName());
  wire = envelope.ToWire(false);
  EXPECT_EQ(AnyText(wire->client_info.custom_data), "payload");
  EXPECT_STREQ(wire->originator_certificate, "agent's certificate");
}

TEST_F(EnvelopeShrink, GivesUpTheHeavyFieldsOnceAndSaysSo) {
  Envelope envelope = AnEnvelope().WithId(0x2A);
  envelope.Shrink();
  EXPECT_EQ(envelope.State(), Envelope::ShrinkState::Shrunk);
  EXPECT_TRUE(log_.Has(kLogTrace, "Envelope::Shrink\n"));
  EXPECT_TRUE(log_.Has(kLogDebug, "Shrunk Envelope, id=0000002A\n"));
  log_.Clear();
  envelope.Shrink();
  EXPECT_TRUE(log_.Has(kLogTrace, "Envelope::Shrink\n"));
  EXPECT_FALSE(log_.Contains("Shrunk Envelope"));
}

TEST_F(EnvelopeShrink, ExpandBringsTheHeavyFieldsBackFromTheFile) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  log_.Clear();
  envelope.Expand();
  EXPECT_EQ(envelope.State(), Envelope::ShrinkState::Expanded);
  EXPECT_TRUE(log_.Has(kLogTrace, "Envelope::Expand\n"));
  EXPECT_TRUE(log_.Has(kLogDebug, "Expanded Envelope, id=8A0B0C0D\n"));
  std::filesystem::remove(envelope.FileName());
  EXPECT_EQ(envelope.GetOriginatorCert(), "agent's certificate");
  CORBA::Any data;
  envelope.GetData(data);
  EXPECT_EQ(AnyText(data), "payload");
}

TEST_F(EnvelopeShrink, ExpandTakesNothingButTheHeavyFieldsFromTheFile) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  envelope.PopHop();
  envelope.Expand();
  EXPECT_THAT(envelope.PhysicalDestination(), ElementsAre("agent-2"));
}

TEST_F(EnvelopeShrink, ExpandWarnsOfAMissingCertificate) {
  Envelope envelope;
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.originator_certificate = "";
  envelope.CreateFromRouter(wire, false);
  envelope.Expand();
  EXPECT_TRUE(log_.Has(kLogWarning,
                       "Expanded Envelope, id=8A0B0C0D, type=Status.Report, no Originator Cert\n"));
}

TEST_F(EnvelopeShrink, ExpandRaisesTheDecodingErrorOfABrokenPayloadAndLeavesTheEnvelopeShrunk) {
  WriteFile("00000000.msg", "[MessageId] 1\n[Data] 1200\n");
  Envelope envelope(Path("00000000.msg"));
  ASSERT_TRUE(envelope.FromPersistent());
  envelope.Shrink();
  try {
    envelope.Expand();
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Encoding::DecodeAny failed to extract from TAO_InputCDR");
    EXPECT_TRUE(IsDiscardableError(error, envelope));
  }
  EXPECT_EQ(envelope.State(), Envelope::ShrinkState::Shrunk);
}

TEST_F(EnvelopeShrink, ExpandOfAFileWithoutAPayloadRaisesTheDecodingError) {
  WriteFile("00000000.msg", "[MessageId] 1\n");
  Envelope envelope(Path("00000000.msg"));
  ASSERT_TRUE(envelope.FromPersistent());
  envelope.Shrink();
  CORBA::Any data;
  EXPECT_THROW(envelope.GetData(data), std::runtime_error);
}

TEST_F(EnvelopeShrink, ABrokenPayloadIsNoticedWhenItIsAskedFor) {
  Envelope envelope = AnEnvelope().WithDataText("1200");
  CORBA::Any data;
  EXPECT_THROW(envelope.GetData(data), std::runtime_error);
  EXPECT_THROW(BrelixMessaging::Envelope_var(envelope.ToWire(false)), std::runtime_error);
}

TEST_F(EnvelopeShrink, ExpandOfAnEnvelopeWhoseFileWasRemovedRaisesAnErrorThatIsRecognised) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  std::filesystem::remove(envelope.FileName());
  try {
    envelope.Expand();
    FAIL() << "nothing was thrown";
  } catch (const std::exception& error) {
    EXPECT_EQ(error.what(), "Envelope::FromPersistent could not access persisted envelope file " +
                                Path("00000000.msg"));
    EXPECT_TRUE(IsDiscardableError(error, envelope));
  }
}

TEST_F(EnvelopeShrink, AFileThatIsThereAndCannotBeReadIsSetAsideAndNotLost) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  const std::string file = envelope.FileName();
  std::filesystem::remove(file);
  std::filesystem::create_symlink("/proc/self/mem", file);  // opens, and fails to be read
  try {
    envelope.Expand();
    FAIL() << "nothing was thrown";
  } catch (const std::exception& error) {
    EXPECT_TRUE(IsDiscardableError(error, envelope));
  }
  log_.Clear();
  envelope.Retire();
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(Leaves(), ElementsAre("00000000.msg.bad"));
}

TEST_F(EnvelopeShrink, HoweverLittleMemoryThereIsAnEnvelopeIsNotTakenForBroken) {
  if (!TestSupport::MemoryLimit::Works()) GTEST_SKIP() << "the sanitizer has a heap of its own";
  constexpr std::size_t kStep = std::size_t{8} << 20;
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.client_info.custom_data <<= std::string(2 * kStep, 'x').c_str();
  Envelope envelope;
  envelope.CreateFromRouter(wire, false);
  unsigned failures = 0;
  bool expanded = false;
  for (std::size_t bytes = 0; !expanded && bytes < 40 * kStep; bytes += kStep) {
    const TestSupport::MemoryLimit limit(bytes);
    try {
      Envelope(envelope).Expand();
      expanded = true;
    } catch (const std::bad_alloc&) {
      ++failures;
    }
  }
  EXPECT_TRUE(expanded);
  EXPECT_GE(failures, 3u);  // at the file, its fields and the payload
  EXPECT_FALSE(log_.Contains("Failed to read"));
}

TEST_F(EnvelopeShrink, WithTheSettingAtZeroEnvelopesKeepTheirHeavyFieldsAndLeaveTheDiskAlone) {
  SetConfigInt("ShrinkEnvelopes", 0);
  Settings::Forget();
  Envelope envelope;
  EXPECT_EQ(envelope.State(), Envelope::ShrinkState::ShrinkingOff);
  envelope.CreateFromRouter(AWireEnvelope(), false);
  EXPECT_EQ(envelope.State(), Envelope::ShrinkState::ShrinkingOff);
  std::filesystem::remove(envelope.FileName());
  CORBA::Any data;
  envelope.GetData(data);
  EXPECT_EQ(AnyText(data), "payload");
  EXPECT_EQ(envelope.GetOriginatorCert(), "agent's certificate");
  EXPECT_EQ(envelope.State(), Envelope::ShrinkState::ShrinkingOff);
}

TEST_F(EnvelopeShrink, TheSettingIsReadOnceAndKept) {
  EXPECT_EQ(Envelope().State(), Envelope::ShrinkState::Expanded);
  SetConfigInt("ShrinkEnvelopes", 0);
  EXPECT_EQ(Envelope().State(), Envelope::ShrinkState::Expanded);
}

TEST_F(EnvelopeShrink, TheMessageTimeoutIsReadOnceAndKept) {
  EXPECT_EQ(MessageTimeoutSeconds(), 43200u);
  SetConfigInt("MessageTimeoutSec", 5);
  EXPECT_EQ(MessageTimeoutSeconds(), 43200u);
  Settings::Forget();
  EXPECT_EQ(MessageTimeoutSeconds(), 5u);
}

TEST_F(EnvelopeShrink, ACopyHasItsOwnHeavyFieldsAndTheSameState) {
  const Envelope envelope = AnEnvelope().WithDataText("00000000").WithCertificate("cert");
  Envelope copy = envelope;
  Envelope assigned;
  assigned = envelope;
  copy.Shrink();
  EXPECT_EQ(assigned.GetOriginatorCert(), "cert");
  EXPECT_EQ(Envelope(envelope).GetOriginatorCert(), "cert");
  EXPECT_EQ(Envelope(copy).State(), Envelope::ShrinkState::Shrunk);
}

TEST_F(EnvelopeShrink, AMovedEnvelopeGivesUpItsFile) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  const Envelope taken = std::move(envelope);
  envelope.Retire();  // NOLINT(bugprone-use-after-move): it must do nothing
  EXPECT_THAT(Leaves(), ElementsAre("00000000.msg"));
}

TEST_F(EnvelopeQueries, HopsLeaveAtTheFront) {
  Envelope envelope = AnEnvelope().WithDestination("a.b");
  EXPECT_EQ(envelope.NextHop(), "a");
  EXPECT_EQ(envelope.HopCount(), 2u);
  EXPECT_FALSE(envelope.HopPopped());
  envelope.PopHop();
  EXPECT_TRUE(envelope.HopPopped());
  EXPECT_EQ(envelope.NextHop(), "b");
  EXPECT_EQ(envelope.HopCount(), 1u);
  envelope.PopHop();
  EXPECT_EQ(envelope.NextHop(), "");
  EXPECT_EQ(envelope.HopCount(), 0u);
  envelope.PopHop();
  EXPECT_EQ(envelope.HopCount(), 0u);
  EXPECT_EQ(envelope.Destination(), "a.b");
}

TEST_F(EnvelopeQueries, NothingIsPoppedWhereNoHopIsLeft) {
  Envelope envelope = AnEnvelope().WithDestination("");
  envelope.PopHop();
  EXPECT_FALSE(envelope.HopPopped());
}

TEST_F(EnvelopeQueries, DescriptionsShowTheIdInUpperCaseAndNamesDecoded) {
  const Envelope envelope = AnEnvelope()
                                .WithId(0xABC)
                                .WithOriginator("r.caf+AOk-")
                                .WithDestination("+AOk-")
                                .WithType("T");
  EXPECT_EQ(envelope.DescribeShort(), "id=00000ABC");
  EXPECT_EQ(envelope.Describe(), "id=00000ABC, origin=r.caf\xC3\xA9, dest=\xC3\xA9, type=T");
}

TEST_F(EnvelopeQueries, ADefaultEnvelopeIsEmpty) {
  const Envelope envelope;
  EXPECT_EQ(envelope.FileName(), "");
  EXPECT_EQ(envelope.HopCount(), 0u);
  EXPECT_EQ(envelope.MessageId(), 0u);
  EXPECT_EQ(envelope.Ttl(), 0);
  EXPECT_FALSE(envelope.IsExpired());
}

TEST_F(EnvelopeQueries, AFileNameIsKeptAsItIsInsideAndOutsideTheStoresFolder) {
  for (const std::string& name :
       {Path("0000002a.msg"), Path("deep/0000002a.msg"), std::string("0000002a.msg"),
        std::string("/elsewhere/0000002a.msg"), std::string()}) {
    EXPECT_EQ(Envelope(name).FileName(), name);
  }
}

TEST_F(EnvelopeErrors, OnlyBrokenStoredDataIsDiscardable) {
  const Envelope envelope = AnEnvelope().WithId(0x2A).WithType("T");
  EXPECT_TRUE(IsDiscardableError(std::runtime_error("x Encoding::DecodeAny y"), envelope));
  EXPECT_TRUE(IsDiscardableError(std::runtime_error("Envelope::FromPersistent y"), envelope));
  EXPECT_EQ(log_.Count("Discarding invalid envelope id=0000002A, type=T\n"), 2u);
  EXPECT_TRUE(log_.Has(kLogError, "Discarding invalid envelope id=0000002A, type=T\n"));
  log_.Clear();
  EXPECT_FALSE(IsDiscardableError(std::runtime_error("something else"), envelope));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(EnvelopeErrors, BrokenStoredDataIsDiscardableThoughThereIsNoMemoryForTheLine) {
  const Envelope envelope = AnEnvelope().WithType("a type that takes memory wherever it is copied");
  const std::runtime_error error("Encoding::DecodeAny");
  const TestSupport::AllocationFailure failure;
  EXPECT_TRUE(IsDiscardableError(error, envelope));
  EXPECT_TRUE(TestSupport::AllocationFailure::Happened());
}

TEST_F(EnvelopeErrors, AnExceptionThatIsNotExactlyTheRuntimeErrorIsNotDiscardable) {
  class Derived : public std::runtime_error {
   public:
    using runtime_error::runtime_error;
  };
  const Envelope envelope = AnEnvelope();
  EXPECT_FALSE(IsDiscardableError(Derived("Encoding::DecodeAny"), envelope));
  EXPECT_FALSE(IsDiscardableError(std::logic_error("Encoding::DecodeAny"), envelope));
}

}  // namespace
}  // namespace MessageRouter
