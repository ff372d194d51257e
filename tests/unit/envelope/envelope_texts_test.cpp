#include "fixture.h"

namespace MessageRouter {
namespace {

using testing::IsEmpty;

class EnvelopeTexts : public TestSupport::EnvelopeTest {};

struct TextRow {
  const char* text;
  bool accepted;
};

const TextRow kTexts[] = {
    {"plain", true},         {"", true},
    {"two\nlines", true},    {"line end at end\n", true},
    {"[Data] 00", true},     {"carriage\r\nreturn\r", true},
    {"\xC3\xA9+AOk-", true}, {"x\n[OriginatorCertificate] 00", false},
    {"x\n[", false},         {"x\ny[z]", false},
    {"\nx", false},          {"\n", false},
};

// Accepted exactly if the row says so; what was accepted is the same after a restart, and what was
// refused leaves nothing behind.
void ExpectRoundTrip(const TextRow& row, const BrelixMessaging::Envelope& wire) {
  SCOPED_TRACE(row.text);
  Envelope envelope;
  if (!row.accepted) {
    EXPECT_THROW(envelope.CreateFromRouter(wire, false), std::runtime_error);
    EXPECT_EQ(envelope.FileName(), "");
    return;
  }
  ASSERT_NO_THROW(envelope.CreateFromRouter(wire, false));
  Envelope loaded(envelope.FileName());
  ASSERT_TRUE(loaded.FromPersistent());
  EXPECT_EQ(loaded.Originator(), wire.originator.in());
  EXPECT_EQ(loaded.Destination(), wire.client_info.destination.in());
  EXPECT_EQ(loaded.Type(), wire.client_info.type.in());
  EXPECT_EQ(loaded.Options(), wire.client_info.delivery_options.in());
  EXPECT_EQ(loaded.PhysicalDestination(), envelope.PhysicalDestination());
  EXPECT_EQ(loaded.GetOriginatorCert(), wire.originator_certificate.in());
  ASSERT_EQ(loaded.Stamps().stamps.size(), wire.timestamps.length() + 1);
  for (CORBA::ULong i = 0; i < wire.timestamps.length(); ++i) {
    EXPECT_EQ(loaded.Stamps().stamps[i].name, wire.timestamps[i].name.in());
    EXPECT_EQ(loaded.Stamps().stamps[i].time, wire.timestamps[i].utc_time);
  }
  envelope.Retire();
}

TEST_F(EnvelopeTexts, OptionsThatWouldNotReadBackAreRefused) {
  for (const TextRow& row : kTexts) {
    BrelixMessaging::Envelope wire = AWireEnvelope();
    wire.client_info.delivery_options = row.text;
    ExpectRoundTrip(row, wire);
  }
  EXPECT_THAT(Leaves(), IsEmpty());
}

TEST_F(EnvelopeTexts, AnOriginatorThatWouldNotReadBackIsRefused) {
  for (const TextRow& row : kTexts) {
    BrelixMessaging::Envelope wire = AWireEnvelope();
    wire.originator = row.text;
    ExpectRoundTrip(row, wire);
  }
  EXPECT_THAT(Leaves(), IsEmpty());
}

TEST_F(EnvelopeTexts, ADestinationThatWouldNotReadBackIsRefused) {
  for (const TextRow& row : kTexts) {
    BrelixMessaging::Envelope wire = AWireEnvelope();
    wire.client_info.destination = row.text;
    ExpectRoundTrip(row, wire);
  }
  EXPECT_THAT(Leaves(), IsEmpty());
}

TEST_F(EnvelopeTexts, ATypeThatWouldNotReadBackIsRefused) {
  for (const TextRow& row : kTexts) {
    BrelixMessaging::Envelope wire = AWireEnvelope();
    wire.client_info.type = row.text;
    ExpectRoundTrip(row, wire);
  }
  EXPECT_THAT(Leaves(), IsEmpty());
}

TEST_F(EnvelopeTexts, ACertificateOfAnyShapeReadsBack) {
  for (const TextRow& row : kTexts) {
    BrelixMessaging::Envelope wire = AWireEnvelope();
    wire.originator_certificate = row.text;
    ExpectRoundTrip({row.text, true}, wire);
  }
}

TEST_F(EnvelopeTexts, AHopThatWouldNotReadBackIsRefused) {
  for (const TextRow& row :
       {TextRow{":", true}, TextRow{"two\nlines", true}, TextRow{"", false}, TextRow{"a.b", false},
        TextRow{"a.", false}, TextRow{"x\n[Type] y", false}, TextRow{"\nx", false}}) {
    BrelixMessaging::Envelope wire = AWireEnvelope();
    wire.physical_destination[0] = row.text;
    ExpectRoundTrip(row, wire);
  }
  EXPECT_THAT(Leaves(), IsEmpty());
}

TEST_F(EnvelopeTexts, ABracketInTheSecondLineOfAHopIsRefusedAtAnyPlace) {
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.physical_destination[0] = "two\nlines";
  wire.physical_destination[1] = "[Type] y";
  EXPECT_THROW(Envelope().CreateFromRouter(wire, false), std::runtime_error);
}

TEST_F(EnvelopeTexts, AStampNameThatWouldNotReadBackIsRefused) {
  for (const TextRow& row : {TextRow{"", true}, TextRow{"two\nlines", true}, TextRow{"(x)", true},
                             TextRow{"\nx", true}, TextRow{"x\n[Type] y", false}}) {
    BrelixMessaging::Envelope wire = AWireEnvelope();
    wire.timestamps[1].name = row.text;
    ExpectRoundTrip(row, wire);
  }
  EXPECT_THAT(Leaves(), IsEmpty());
}

TEST_F(EnvelopeTexts, AClientWithACommaInItsNameIsServedAndItsStampEndsTheListOnReading) {
  Envelope envelope;
  envelope.CreateFromClient(AMessage(), "a,b", "");
  EXPECT_EQ(envelope.Stamps().stamps.size(), 2u);
  Envelope read(envelope.FileName());
  EXPECT_TRUE(read.FromPersistent());
  EXPECT_EQ(read.Originator(), envelope.Originator());
  EXPECT_LT(read.Stamps().stamps.size(), 2u);
}

TEST_F(EnvelopeTexts, AClientsTextsAreHeldToTheSameRule) {
  BrelixMessaging::Message message = AMessage();
  message.delivery_options = "x\n[OriginatorCertificate] 00";
  EXPECT_THROW(Envelope().CreateFromClient(message, "agent-1", ""), std::runtime_error);
  EXPECT_THROW(Envelope().CreateFromClient(AMessage(), "agent\n[Type] y", ""), std::runtime_error);
  EXPECT_THAT(Leaves(), IsEmpty());
}

TEST_F(EnvelopeTexts, TheRoutersOwnTextsAreHeldToTheSameRule) {
  EXPECT_THROW(Envelope().CreateLocal("x\n[", 0, MessageRouter::TimeToLive::Until(0), "EM-NoOp",
                                      CORBA::Any(), ""),
               std::runtime_error);
  EXPECT_THAT(Leaves(), IsEmpty());
}

}  // namespace
}  // namespace MessageRouter
