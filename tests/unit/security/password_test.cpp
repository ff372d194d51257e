#include "security/Password.h"

#include <gtest/gtest.h>

#include "config/Configuration.h"
#include "support/LogCapture.h"
#include "support/ScratchConfiguration.h"

namespace {

using MessageRouter::PasswordCallback;

class PasswordTest : public testing::Test {
 protected:
  PasswordTest() { MessageRouter::SetConfigString("CertPassword", "secret"); }

  TestSupport::ScratchConfiguration scratch_;
  TestSupport::LogCapture log_;
};

TEST_F(PasswordTest, IsTheValueOfCertPassword) {
  char buffer[32] = "";
  EXPECT_EQ(PasswordCallback(buffer, sizeof buffer, 0, nullptr), 6);
  EXPECT_STREQ(buffer, "secret");
}

TEST_F(PasswordTest, IsEmptyIfNoneIsSet) {
  MessageRouter::SetConfigString("CertPassword", "");
  char buffer[32] = "x";
  EXPECT_EQ(PasswordCallback(buffer, sizeof buffer, 0, nullptr), 0);
}

TEST_F(PasswordTest, NeedsABuffer) {
  char buffer[1];
  EXPECT_EQ(PasswordCallback(nullptr, 32, 0, nullptr), 0);
  EXPECT_EQ(PasswordCallback(buffer, 0, 0, nullptr), 0);
  EXPECT_EQ(PasswordCallback(buffer, -1, 0, nullptr), 0);
}

TEST_F(PasswordTest, FitsWithItsEndingNulOrNotAtAll) {
  char buffer[8] = "";
  EXPECT_EQ(PasswordCallback(buffer, 7, 0, nullptr), 6);
  EXPECT_EQ(PasswordCallback(buffer, 6, 0, nullptr), 0);
}

}  // namespace
