#include <gmock/gmock.h>

#include "broker/Encoding.h"

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  Encoding::InitializeCodec();
  return RUN_ALL_TESTS();
}
