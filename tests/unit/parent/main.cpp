#include <gmock/gmock.h>

#include "logging/Log.h"

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  // Tests that look at the log capture it.
  MessageRouter::SetLogMask(0);
  return RUN_ALL_TESTS();
}
