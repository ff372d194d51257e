#pragma once

#include <gtest/gtest.h>

#include "support/ScratchFolder.h"

namespace Platform {

// A folder of its own for each test.
class Folder : public ::testing::Test, protected TestSupport::ScratchFolder {};

}  // namespace Platform
