#include <chrono>
#include <filesystem>
#include <new>

#include "broker/Encoding.h"
#include "config/Configuration.h"
#include "fixture.h"
#include "logging/Log.h"
#include "support/AllocationFailure.h"
#include "support/EnvelopeBuilder.h"
#include "support/NoDescriptors.h"

namespace MessageRouter {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class EnvelopeFile : public TestSupport::EnvelopeTest {
 protected:
  // The envelope of a file with that text; FromPersistent must give `loads`.
  Envelope Load(const std::string& text, bool loads = true) {
    WriteFile("00000000.msg", text);
    Envelope envelope(Path("00000000.msg"));
    EXPECT_EQ(envelope.FromPersistent(), loads) << text;
    return envelope;
  }
  std::string Failure(const std::string& key, const std::string& error) const {
    return "Failed to read envelope data from \"" + Path("00000000.msg") + "\" for value: \"" +
           key + ".\" Error: " + error + " \n";
  }
};

class EnvelopeRetire : public TestSupport::EnvelopeTest {};
class EnvelopeInvalid : public TestSupport::EnvelopeTest {};

TEST_F(EnvelopeFile, IsReadAsItWasWritten) {
  Envelope made;
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.client_info.delivery_options = "slowly";
  made.CreateFromRouter(wire, true);
  Envelope read(made.FileName());
  ASSERT_TRUE(read.FromPersistent());
  EXPECT_EQ(read.PersistentIndex(), made.PersistentIndex());
  EXPECT_TRUE(read.FromParent());
  EXPECT_EQ(read.Originator(), made.Originator());
  EXPECT_EQ(read.PhysicalDestination(), made.PhysicalDestination());
  EXPECT_EQ(read.MessageId(), made.MessageId());
  EXPECT_EQ(read.Destination(), made.Destination());
  EXPECT_EQ(read.Priority(), made.Priority());
  EXPECT_EQ(read.Ttl(), made.Ttl());
  EXPECT_EQ(read.Type(), made.Type());
  EXPECT_EQ(read.Stamps().stamps.size(), 3u);
  EXPECT_EQ(read.Options(), "slowly");
  EXPECT_EQ(read.State(), Envelope::ShrinkState::Expanded);
  EXPECT_EQ(read.GetOriginatorCert(), "agent's certificate");
  CORBA::Any data;
  read.GetData(data);
  EXPECT_EQ(AnyText(data), "payload");
  EXPECT_TRUE(
      log_.Has(kLogDebug, "Loaded \"" + made.FileName() + "\" for [" + made.Describe() + "]\n"));
}

TEST_F(EnvelopeFile, HasTheHopsOfItsCreationAfterTheyWerePopped) {
  Envelope made;
  made.CreateFromRouter(AWireEnvelope(), true);
  made.PopHop();
  Envelope read(made.FileName());
  ASSERT_TRUE(read.FromPersistent());
  EXPECT_THAT(read.PhysicalDestination(), ElementsAre("router1", "agent-2"));
}

TEST_F(EnvelopeFile, WithoutALineEndInItsLastLineIsReadWhole) {
  EXPECT_EQ(Load("[Type] T\n[Options] slowly").Options(), "slowly");
}

TEST_F(EnvelopeFile, WithNothingBehindTheBlankOfOptionsLeavesThemEmpty) {
  const Envelope envelope = Load("[Type] T\n[Options] \n");
  EXPECT_EQ(envelope.Options(), "");
  EXPECT_EQ(envelope.Type(), "T");
}

TEST_F(EnvelopeFile, WithADataLineWithoutBlankAndValueSkipsIt) {
  EXPECT_EQ(Load("[Type] T\n[Data]\n[Options] o\n").Options(), "o");
}

TEST_F(EnvelopeFile, AnOriginatorWithALineEndInItIsReadBackWhole) {
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.originator = "two\nlines";
  Envelope made;
  made.CreateFromRouter(wire, true);
  Envelope read(made.FileName());
  ASSERT_TRUE(read.FromPersistent());
  EXPECT_EQ(read.Originator(), "two\nlines");
  EXPECT_EQ(read.GetOriginatorCert(), "agent's certificate");
}

TEST_F(EnvelopeFile, WithAnUnknownSectionLoads) {
  EXPECT_EQ(Load("[Foo] bar\n[Type] T\n").Type(), "T");
}

TEST_F(EnvelopeFile, KeysAreComparedExactly) {
  EXPECT_EQ(Load("[type] T\n").Type(), "");
}

TEST_F(EnvelopeFile, TheOrderOfItsLinesDoesNotMatter) {
  const Envelope envelope = Load("[Options] o\n[Type] T\n[MessageId] 7\n");
  EXPECT_EQ(envelope.Options(), "o");
  EXPECT_EQ(envelope.MessageId(), 7u);
}

TEST_F(EnvelopeFile, TheLastOfSeveralLinesWithOneKeyCounts) {
  EXPECT_EQ(Load("[Type] A\n[Type] B\n").Type(), "B");
}

TEST_F(EnvelopeFile, EmptyLoadsWithoutComplaintAsAnEnvelopeWithNoHops) {
  const Envelope envelope = Load("");
  EXPECT_EQ(envelope.HopCount(), 0u);
  EXPECT_EQ(envelope.Originator(), "");
  EXPECT_EQ(envelope.Ttl(), 0);
  EXPECT_FALSE(log_.Contains("Failed"));
}

TEST_F(EnvelopeFile, ATtlThatDoesNotFitIsTheLargest32BitNumber) {
  EXPECT_EQ(Load("[TTL] 4294967295\n").Ttl(), 4294967295);
  EXPECT_EQ(Load("[TTL] 4294967296\n").Ttl(), 4294967295);
  EXPECT_EQ(Load("[TTL] 99999999999999999999\n").Ttl(), 4294967295);
  EXPECT_EQ(Load("[TTL] -5\n").Ttl(), 4294967295);
}

TEST_F(EnvelopeFile, AnyIntegerButZeroIsFromTheParent) {
  EXPECT_TRUE(Load("[FromParent] -2\n").FromParent());
  EXPECT_FALSE(Load("[FromParent] 0\n").FromParent());
  EXPECT_FALSE(Load("[FromParent] yes\n").FromParent());
}

TEST_F(EnvelopeFile, UpperCaseDigitsDecodeAsWellAsLowerCaseOnes) {
  std::string certificate = Encoding::EncodeAny(TextAny("jklmno"));
  std::string data = Encoding::EncodeAny(TextAny("zzz"));
  for (std::string* text : {&certificate, &data}) {
    for (char& c : *text) c = static_cast<char>(std::toupper(c));
  }
  Envelope envelope = Load("[OriginatorCertificate] " + certificate + "\n[Data] " + data + "\n");
  EXPECT_EQ(envelope.GetOriginatorCert(), "jklmno");
  CORBA::Any any;
  envelope.GetData(any);
  EXPECT_EQ(AnyText(any), "zzz");
}

TEST_F(EnvelopeFile, AnEmptyAnyIsAShortTextAndAnEmptyAnyAgain) {
  const std::string text = Encoding::EncodeAny(CORBA::Any());
  EXPECT_EQ(text, "00000000");
  Envelope envelope = Load("[Data] " + text + "\n");
  CORBA::Any any = TextAny("replaced");
  envelope.GetData(any);
  const CORBA::TypeCode_var type = any.type();
  EXPECT_EQ(type->kind(), CORBA::tk_null);
}

TEST_F(EnvelopeFile, ACertificateOfAnotherTypeGivesAnEmptyField) {
  CORBA::Any number;
  number <<= CORBA::Long{7};
  Envelope envelope = Load("[OriginatorCertificate] " + Encoding::EncodeAny(number) + "\n");
  EXPECT_EQ(envelope.GetOriginatorCert(), "");
}

TEST_F(EnvelopeFile, ACertificateThatCannotBeDecodedFailsTheReading) {
  Load("[Type] T\n[OriginatorCertificate] 12\n[Options] o\n", false);
  EXPECT_TRUE(log_.Has(
      kLogWarning,
      Failure("OriginatorCertificate", "Encoding::DecodeAny failed to extract from TAO_InputCDR")));
  EXPECT_FALSE(log_.Contains("Loaded"));
}

TEST_F(EnvelopeFile, ACertificateWhoseFirstLineCannotBeDecodedFailsTheReading) {
  const std::string text = Encoding::EncodeAny(TextAny("certificate"));
  Load("[OriginatorCertificate] " + text.substr(0, 8) + "\n" + text.substr(8) + "\n", false);
}

TEST_F(EnvelopeFile, WhatStandsBehindACertificateDoesNotCount) {
  const std::string text = Encoding::EncodeAny(TextAny("certificate"));
  EXPECT_EQ(Load("[OriginatorCertificate] " + text + "\nff\n").GetOriginatorCert(), "certificate");
}

TEST_F(EnvelopeFile, AnUnreadableCountOfTimestampsFailsTheReading) {
  Load("[Timestamps] (x,(a,1))\n", false);
  EXPECT_TRUE(
      log_.Has(kLogWarning, Failure("Timestamps", "the count of timestamps is unreadable")));
}

TEST_F(EnvelopeFile, ACountOfTimestampsInTheSecondLineIsUnreadable) {
  Load("[Timestamps] (\n1,(a,1))\n", false);
}

TEST_F(EnvelopeFile, ABrokenTimestampEndsTheListAndKeepsTheMessage) {
  const Envelope envelope = Load("[Timestamps] (3,(a,1),(b,x),(c,3))\n[Type] T\n");
  EXPECT_EQ(envelope.Type(), "T");
  ASSERT_EQ(envelope.Stamps().stamps.size(), 1u);
  EXPECT_EQ(envelope.Stamps().stamps[0].name, "a");
}

TEST_F(EnvelopeFile, WithoutTimestampsSendsAnEmptyList) {
  Envelope envelope = Load("[Originator] agent-1\n[Type] T\n[Data] 00000000\n");
  EXPECT_THAT(envelope.Stamps().stamps, IsEmpty());
  const BrelixMessaging::Envelope_var wire = envelope.ToWire(false);
  EXPECT_EQ(wire->timestamps.length(), 0u);
  EXPECT_STREQ(wire->client_info.type, "T");
}

TEST_F(EnvelopeFile, ADamagedPayloadIsNotNoticedWhenItIsRead) {
  Load("[Data] not a payload\n");
  EXPECT_FALSE(log_.Contains("Failed"));
}

TEST_F(EnvelopeFile, ThatIsMissingRaisesAnError) {
  Envelope envelope(Path("00000000.msg"));
  try {
    envelope.FromPersistent();
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "Envelope::FromPersistent could not access persisted envelope file " +
                                Path("00000000.msg"));
  }
}

TEST_F(EnvelopeFile, ThatIsTooLongFailsTheReadingWithoutBeingRead) {
  WriteFile("00000000.msg", "");
  std::filesystem::resize_file(Path("00000000.msg"), std::uintmax_t{1} << 40);
  Envelope envelope(Path("00000000.msg"));
  EXPECT_FALSE(envelope.FromPersistent());
  EXPECT_TRUE(log_.Has(kLogWarning, Failure("", "the file is too long")));
}

TEST_F(EnvelopeFile, HasACommaInAStampNameThatEndsTheList) {
  EXPECT_THAT(Load("[Timestamps] (1,(a,b,1))\n").Stamps().stamps, IsEmpty());
}

// Retire

TEST_F(EnvelopeRetire, RemovesTheFileOnce) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  log_.Clear();
  envelope.Retire();
  EXPECT_THAT(Leaves(), IsEmpty());
  EXPECT_EQ(envelope.FileName(), "");
  envelope.Retire();
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(EnvelopeRetire, OfASecondCopyLogsTheFailure) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  Envelope copy = envelope;
  envelope.Retire();
  copy.Retire();
  EXPECT_TRUE(log_.Has(kLogError, "Failed to delete envelope file " + Path("00000000.msg") + "\n"));
  EXPECT_EQ(copy.FileName(), "");
}

TEST_F(EnvelopeRetire, TheDestructorNeverTouchesTheFile) {
  { Envelope().CreateFromRouter(AWireEnvelope(), false); }
  EXPECT_THAT(Leaves(), ElementsAre("00000000.msg"));
}

TEST_F(EnvelopeRetire, ATrailThatFailsIsReportedAndTheFileIsRemovedAllTheSame) {
  SetConfigBool("MessageTrail", true);
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  envelope.Retire();
  EXPECT_TRUE(log_.Has(kLogError, "Failed to leave trail for file " + Path("00000000.msg") +
                                      " (Error: message trails are not available in this "
                                      "version)\n"));
  EXPECT_THAT(Leaves(), IsEmpty());
}

// Whichever allocation it is: the file stays at the worst.
TEST_F(EnvelopeRetire, LetsNothingOutWhereThereIsNoMemory) {
  bool kept = false;
  bool removed = false;
  for (const bool trail : {false, true}) {
    SetConfigBool("MessageTrail", trail);
    bool complete = false;
    for (std::size_t successes = 0; !complete; ++successes) {
      ASSERT_LT(successes, 100u);
      Envelope envelope;
      envelope.CreateFromRouter(AWireEnvelope(), false);
      {
        const TestSupport::AllocationFailure failure(successes, 1);
        EXPECT_NO_THROW(envelope.Retire());
        complete = !TestSupport::AllocationFailure::Happened();
      }
      EXPECT_EQ(envelope.FileName(), "");
      const bool isThere = !Leaves().empty();
      (isThere ? kept : removed) = true;
      if (isThere) std::filesystem::remove(Path(Leaves().front()));
    }
  }
  EXPECT_TRUE(kept);
  EXPECT_TRUE(removed);
}

TEST_F(EnvelopeRetire, RemovesTheFileThoughItsTrailFindsNoMemory) {
  SetConfigBool("MessageTrail", true);
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  const auto canBeNamed = [&](std::size_t successes) {
    const TestSupport::AllocationFailure failure(successes);
    try {
      return !envelope.FileName().empty();
    } catch (const std::bad_alloc&) {
      return false;
    }
  };
  std::size_t forTheName = 0;
  while (!canBeNamed(forTheName)) ++forTheName;
  {
    const TestSupport::AllocationFailure failure(forTheName);
    EXPECT_NO_THROW(envelope.Retire());
    EXPECT_TRUE(TestSupport::AllocationFailure::Happened());
  }
  EXPECT_THAT(Leaves(), IsEmpty());
}

TEST_F(EnvelopeRetire, ANoOpLeavesNoTrailWithCase) {
  SetConfigBool("MessageTrail", true);
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope("x-EM-NoOp-Reply"), false);
  envelope.Retire();
  EXPECT_FALSE(log_.Contains("trail"));
  Envelope other;
  other.CreateFromRouter(AWireEnvelope("em-noop"), false);
  other.Retire();
  EXPECT_TRUE(log_.Contains("trail"));
}

TEST_F(EnvelopeRetire, TheTrailIsOffByDefaultAndTheKeyIsReadEachTime) {
  Envelope envelope;
  envelope.CreateFromRouter(AWireEnvelope(), false);
  envelope.Retire();
  EXPECT_FALSE(log_.Contains("trail"));
  SetConfigBool("MessageTrail", true);
  envelope = Envelope();
  envelope.CreateFromRouter(AWireEnvelope(), false);
  envelope.Retire();
  EXPECT_TRUE(log_.Contains("trail"));
}

TEST_F(EnvelopeRetire, WithAnEmptyFileNameLeavesNoTrail) {
  SetConfigBool("MessageTrail", true);
  Envelope envelope = AnEnvelope();
  envelope.Retire();
  EXPECT_FALSE(log_.Contains("trail"));
}

// Files set aside

TEST_F(EnvelopeInvalid, KeepsItsNameAndGetsBadBehindIt) {
  WriteFile("0000002a.msg", "text");
  Envelope(Path("0000002a.msg")).MarkInvalid();
  EXPECT_THAT(Leaves(), ElementsAre("0000002a.msg.bad"));
  EXPECT_EQ(ReadBack("0000002a.msg.bad"), "text");
  EXPECT_TRUE(log_.Has(kLogInfo, "Renamed invalid envelope file '" + Path("0000002a.msg") +
                                     "' to' " + Path("0000002a.msg.bad") + "'\n"));
}

TEST_F(EnvelopeInvalid, ReplacesAnEarlierOne) {
  WriteFile("0000002a.msg.bad", "old");
  WriteFile("0000002a.msg", "new");
  Envelope(Path("0000002a.msg")).MarkInvalid();
  EXPECT_EQ(ReadBack("0000002a.msg.bad"), "new");
}

TEST_F(EnvelopeInvalid, ThatCannotBeRenamedIsReported) {
  Envelope(Path("0000002a.msg")).MarkInvalid();
  EXPECT_TRUE(log_.Has(kLogWarning, "Failed to rename invalid envelope file '" +
                                        Path("0000002a.msg") + "' to '" + Path("0000002a.msg.bad") +
                                        "'\n"));
}

TEST_F(EnvelopeFile, AShortageOfDescriptorsDoesNotPassForABrokenEnvelope) {
  Envelope envelope;
  envelope.CreateFromClient(AMessage(), "agent-1", "");
  try {
    const TestSupport::NoDescriptors shortage;
    envelope.Expand();
    FAIL() << "expanded without a descriptor";
  } catch (const std::exception& exception) {
    EXPECT_FALSE(IsDiscardableError(exception, envelope)) << exception.what();
  }
  envelope.Expand();
  EXPECT_EQ(envelope.State(), Envelope::ShrinkState::Expanded);
}

}  // namespace
}  // namespace MessageRouter
