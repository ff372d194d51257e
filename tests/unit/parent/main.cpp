#include <gmock/gmock.h>
#include <omniORB4/CORBA.h>

#include "logging/Log.h"

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  // Tests that look at the log capture it.
  MessageRouter::SetLogMask(0);
  // As the router's.
  const char* options[][2] = {{"supportPerThreadTimeOut", "1"}, {nullptr, nullptr}};
  const CORBA::ORB_var orb = CORBA::ORB_init(argc, argv, "omniORB4", options);
  return RUN_ALL_TESTS();
}
