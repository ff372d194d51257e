#include <omniORB4/CORBA.h>
#include <omniORB4/cdrStream.h>

#include <filesystem>
#include <string>

#include "broker/Limits.h"
#include "envelope/Settings.h"
#include "fixture.h"
#include "security/OwnIdentity.h"
#include "support/EnvelopeBuilder.h"

namespace MessageRouter {
namespace {

using testing::IsEmpty;

class EnvelopeSize : public TestSupport::EnvelopeTest {
 protected:
  static constexpr std::size_t kBase = 4000;  // what a router takes without stamps

  EnvelopeSize() { Settings::SetLargest({kBase, kBase}); }

  // The longest name that a certificate can have.
  static std::string NameOfRouter(unsigned number) {
    std::string name = "r" + std::to_string(number);
    name.resize(64, 'x');
    return name;
  }
  // Whether this router takes it. What it would send to the next one replaces it then.
  bool Taken(BrelixMessaging::Envelope& wire) {
    Envelope envelope;
    try {
      envelope.CreateFromRouter(wire, false);
    } catch (const BrelixMessaging::Rejected&) {
      return false;
    }
    const BrelixMessaging::Envelope_var sent = envelope.ToWire(true);
    wire = sent.in();
    envelope.Retire();
    return true;
  }
  // The largest one with that many stamps that this router takes.
  static BrelixMessaging::Envelope Largest(CORBA::ULong stamps) {
    BrelixMessaging::Envelope wire = AWireEnvelope();
    wire.timestamps.length(stamps);
    for (CORBA::ULong i = 0; i < stamps; ++i) wire.timestamps[i].name = "r";
    std::size_t fits = 0;
    for (std::size_t step = std::size_t{1} << 23; step != 0; step /= 2) {
      wire.client_info.custom_data <<= std::string(fits + step, 'x').c_str();
      try {
        Envelope envelope;
        envelope.CreateFromRouter(wire, false);
        envelope.Retire();
        fits += step;
      } catch (const BrelixMessaging::Rejected&) {
      }
    }
    wire.client_info.custom_data <<= std::string(fits, 'x').c_str();
    return wire;
  }
  static std::string AddressOf(std::size_t hops) {
    std::string address;
    for (std::size_t i = 0; i < hops; ++i) address += ".a";
    return address;
  }
};

TEST_F(EnvelopeSize, AMessageThatIsTooLargeIsRejectedToldAndNotStored) {
  Settings::SetLargest({3000, 4000});
  BrelixMessaging::Message message = AMessage();
  message.custom_data <<= std::string(3000, 'x').c_str();
  EXPECT_THROW(Envelope().CreateFromClient(message, "agent-1", ""), BrelixMessaging::Rejected);
  EXPECT_TRUE(log_.Contains("at most 3000 can be passed on"));
  EXPECT_FALSE(std::filesystem::exists(Path("00000000.msg")));
  message.custom_data <<= std::string(2000, 'x').c_str();
  EXPECT_NO_THROW(Envelope().CreateFromClient(message, "agent-1", ""));
  EXPECT_THROW(Envelope().CreateFromClient(message, "agent-1", std::string(1000, 'c')),
               BrelixMessaging::Rejected);
}

TEST_F(EnvelopeSize, ARoutersEnvelopeMayHaveGrownOnItsWay) {
  Settings::SetLargest({3000, 4000});
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.client_info.custom_data <<= std::string(6000, 'x').c_str();
  EXPECT_NO_THROW(Envelope().CreateFromRouter(wire, false));  // three stamps, with ours
  wire.client_info.custom_data <<= std::string(7000, 'x').c_str();
  EXPECT_THROW(Envelope().CreateFromRouter(wire, false), BrelixMessaging::Rejected);
  EXPECT_TRUE(log_.Contains("at most 7072 can be passed on"));
}

// What is counted is never less than what goes out, stamps and hops included.
TEST_F(EnvelopeSize, AnEnvelopeJustBelowTheLimitTakesNoMoreOnTheWireThanThat) {
  Settings::Forget();
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.originator = std::string(51, 'o').c_str();
  wire.originator_certificate = std::string(150000, 'c').c_str();
  wire.client_info.destination = std::string(77, 'd').c_str();
  wire.client_info.type = std::string(41, 't').c_str();
  wire.client_info.delivery_options = std::string(65, 'o').c_str();
  wire.physical_destination.length(100);
  wire.timestamps.length(100);
  for (CORBA::ULong i = 0; i < 100; ++i) {
    wire.physical_destination[i] = "r";
    wire.timestamps[i].name = "r";
    wire.timestamps[i].utc_time = 1;
  }
  const auto onWire = [](Envelope& envelope) {
    const BrelixMessaging::Envelope_var sent = envelope.ToWire(false);
    cdrMemoryStream stream;
    sent.in() >>= stream;
    return stream.bufSize();
  };
  Envelope envelope;
  envelope.CreateFromRouter(wire, false);
  const std::size_t size = onWire(envelope);
  const std::size_t grown = 101 * Broker::Limits::kHopBytes;
  Settings::SetLargest({1, size - 1 - grown});
  EXPECT_THROW(Envelope().CreateFromRouter(wire, false), BrelixMessaging::Rejected);
  Settings::SetLargest({1, size + 2048 - grown});
  EXPECT_NO_THROW(Envelope().CreateFromRouter(wire, false));
}

TEST_F(EnvelopeSize, WhatOneRouterHasJustTakenEveryNextOneTakes) {
  OwnIdentity::Set(NameOfRouter(0), "");
  BrelixMessaging::Envelope wire = Largest(3);
  ASSERT_TRUE(Taken(wire));
  for (unsigned hop = 1; hop < 100; ++hop) {
    OwnIdentity::Set(NameOfRouter(hop), "");
    ASSERT_TRUE(Taken(wire)) << hop;
  }
}

TEST_F(EnvelopeSize, AnEnvelopeThatCannotGrowAnyMoreGoesToClientsAndIsDroppedBeforeARouter) {
  const BrelixMessaging::Envelope wire = Largest(Broker::Limits::kMaxGrownHops);
  Envelope envelope;
  envelope.CreateFromRouter(wire, false);
  try {
    delete envelope.ToWire(true);
    FAIL() << "nothing was thrown";
  } catch (const std::exception& error) {
    EXPECT_TRUE(IsDiscardableError(error, envelope));
  }
  EXPECT_TRUE(log_.Contains("Discarding invalid envelope "));
  EXPECT_NO_THROW(delete envelope.ToWire(false));
}

TEST_F(EnvelopeSize, AStoredEnvelopeThatIsTooLargeForAnyPeerIsDropped) {
  BrelixMessaging::Envelope wire = AWireEnvelope();
  wire.client_info.custom_data <<= std::string(std::size_t{4} << 20, 'x').c_str();
  Settings::Forget();
  Envelope envelope;
  envelope.CreateFromRouter(wire, false);
  Settings::SetLargest({kBase, kBase});
  EXPECT_THROW(delete envelope.ToWire(true), EnvelopeTooLarge);
  EXPECT_THROW(delete envelope.ToWire(false), EnvelopeTooLarge);
}

TEST_F(EnvelopeSize, TheLargestOneOfTheRoutersOwnIsTakenByTheNextRouter) {
  const auto make = [](std::size_t size) {
    Envelope envelope;
    envelope.CreateLocal(":.:", 5, TimeToLive::Stated(60), "T", TextAny(std::string(size, 'x')),
                         "");
    return envelope;
  };
  std::size_t fits = 0;
  for (std::size_t step = kBase; step != 0; step /= 2) {
    try {
      make(fits + step);
      fits += step;
    } catch (const EnvelopeTooLarge&) {
    }
  }
  EXPECT_GT(fits, kBase / 2);
  Envelope envelope = make(fits);
  const BrelixMessaging::Envelope_var sent = envelope.ToWire(true);
  BrelixMessaging::Envelope wire = sent.in();
  OwnIdentity::Set(NameOfRouter(0), "");
  EXPECT_TRUE(Taken(wire));
}

TEST_F(EnvelopeSize, OneOfTheRoutersOwnThatIsTooLargeIsNotStored) {
  Envelope envelope;
  EXPECT_THROW(envelope.CreateLocal("agent", 5, TimeToLive::Stated(60), "T",
                                    TextAny(std::string(kBase, 'x')), ""),
               EnvelopeTooLarge);
  EXPECT_THAT(Leaves(), IsEmpty());
}

// An address counts as it stands and once more at each of its hops.
TEST_F(EnvelopeSize, AnAddressOfVeryManyHopsIsTooLargeLongBeforeItsText) {
  const std::string address = AddressOf(kBase / 10);
  ASSERT_LT(2 * address.size(), kBase / 2);
  EXPECT_THROW(Envelope().CreateLocal(address, 5, TimeToLive::Stated(60), "T", TextAny(""), ""),
               EnvelopeTooLarge);
  BrelixMessaging::Message message = AMessage();
  message.destination = address.c_str();
  EXPECT_THROW(Envelope().CreateFromClient(message, "agent-1", ""), BrelixMessaging::Rejected);
  EXPECT_THAT(Leaves(), IsEmpty());
}

}  // namespace
}  // namespace MessageRouter
