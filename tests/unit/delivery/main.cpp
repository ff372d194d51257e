#include <gmock/gmock.h>
#include <omniORB4/CORBA.h>

#include "broker/Encoding.h"
#include "logging/Log.h"

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  // Some tests end the process on purpose while threads run.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Tests that look at the log capture it.
  MessageRouter::SetLogMask(0);

  // The peers of these tests live in this process.
  const char* options[][2] = {{"endPoint", "giop:tcp:127.0.0.1:"}, {nullptr, nullptr}};
  int orbArgc = 0;
  CORBA::ORB_var orb = CORBA::ORB_init(orbArgc, nullptr, "omniORB4", options);
  Encoding::InitializeCodec();
  const int result = RUN_ALL_TESTS();
  orb->destroy();
  return result;
}
