#include <gmock/gmock.h>

#include <csignal>

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
