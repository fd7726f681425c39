#include <gtest/gtest.h>

#include "vx/platform.h"

namespace {

TEST(ProcessAlive, SeesItselfAndRefusesPidZero) {
  EXPECT_TRUE(vx::os::ProcessAlive(vx::os::CurrentProcessId()));
  EXPECT_FALSE(vx::os::ProcessAlive(0));
}

}  // namespace
