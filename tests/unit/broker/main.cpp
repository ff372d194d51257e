#include <gmock/gmock.h>

#include <csignal>

#include "PeerProcess.h"
#include "logging/Log.h"

int main(int argc, char** argv) {
  // A peer that has gone is an error of one connection.
  std::signal(SIGPIPE, SIG_IGN);
  if (BrokerTest::IsPeer(argc, argv)) return BrokerTest::RunPeer(argc, argv);
  MessageRouter::SetLogMask(MessageRouter::LogMaskFor(0));
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
