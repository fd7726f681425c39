#include <gtest/gtest.h>

#include "vx/platform.h"

namespace {

TEST(ProcessIsRunning, SeesItselfAndRefusesPidZero) {
  EXPECT_TRUE(vx::os::ProcessIsRunning(vx::os::CurrentProcessId()));
  EXPECT_FALSE(vx::os::ProcessIsRunning(0));
}

}  // namespace
