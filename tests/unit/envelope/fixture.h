#pragma once

#include <gmock/gmock.h>

#include <filesystem>
#include <string>
#include <vector>

#include "envelope/Envelope.h"
#include "envelope/EnvelopeStore.h"
#include "support/FakeClock.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace TestSupport {

// A store whose next writes fail, with an error of the test's choice.
class FaultyStore : public MessageRouter::EnvelopeStore {
 public:
  using EnvelopeStore::EnvelopeStore;
  int Write(const std::string& name, const std::string& content) override;

  int failWith = 0;    // until it is 0 again
  int failTimes = -1;  // that many times; for ever if negative
};

// A router named "router1" with an empty folder of envelopes and a clock that stands still.
class EnvelopeTest : public testing::Test {
 protected:
  enum class Syncs { Never, AsWithoutSetting };

  explicit EnvelopeTest(Syncs syncs = Syncs::Never);
  ~EnvelopeTest() override;

  std::string Path(const std::string& leaf) const { return store_.Directory() + leaf; }
  void WriteFile(const std::string& leaf, const std::string& text) const;
  std::string ReadBack(const std::string& leaf) const;
  std::vector<std::string> Leaves() const;  // sorted
  std::int64_t Now() const { return clock_.WallSeconds(); }

  static CORBA::Any TextAny(const std::string& text);
  static std::string AnyText(const CORBA::Any& any);
  static BrelixMessaging::Message AMessage(const std::string& type = "Status.Report");
  static BrelixMessaging::Envelope AWireEnvelope(const std::string& type = "Status.Report");

  ScratchConfiguration configuration_;
  LogCapture log_;
  FakeClock clock_;
  FaultyStore store_;
};

}  // namespace TestSupport
