// Behaviour the component relies on where the operating systems differ most: byte-range locks
// that are mandatory on one system, the C library's stream limit, unattended message boxes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform_test_util.h"

using namespace vx::os;
using vxtest::File;
using vxtest::TempDir;
using vxtest::Wide;

namespace {

// The lock only serialises lockers: the registry is read and rewritten through other handles
// while one writer holds it, so a lock that covered the data would break those transfers.
TEST(FileLocks, LockedFileStaysReadableAndWritableThroughOtherHandles) {
  TempDir dir;
  vxtest::WriteFile(dir / "r", std::vector<std::uint8_t>(4096, 7));
  File holder(OpenReadWrite(Wide(dir / "r").c_str()));
  File other(OpenReadWrite(Wide(dir / "r").c_str()));
  ASSERT_NE(holder.h, kNoFile);
  ASSERT_NE(other.h, kNoFile);
  ASSERT_TRUE(LockFile(holder.h));

  std::uint8_t buf[4096] = {};
  std::uint32_t done = 0;
  ASSERT_TRUE(ReadAt(other.h, 0, buf, sizeof buf, &done));
  EXPECT_EQ(done, sizeof buf);
  EXPECT_EQ(std::count(buf, buf + sizeof buf, 7), 4096);
  const std::uint8_t patch[3] = {1, 2, 3};
  ASSERT_TRUE(WriteAt(other.h, 4094, patch, 3, &done));  // across the old end of file
  EXPECT_EQ(done, 3u);
  ASSERT_TRUE(Truncate(other.h, 100));
  std::uint64_t size = 0;
  ASSERT_TRUE(Size(holder.h, &size));
  EXPECT_EQ(size, 100u);
  UnlockFile(holder.h);

  // Once released, another handle takes the lock at once.
  ASSERT_TRUE(LockFile(other.h));
  UnlockFile(other.h);
  EXPECT_FALSE(LockFile(kNoFile));
  UnlockFile(kNoFile);
}

// Long numbered sequences keep hundreds of streams open; the default Windows C library allows
// about 510 until the module start-up raises it.
TEST(ModuleStartup, ManyStdioStreamsCanBeOpenAtOnce) {
  ModuleProcessAttach(nullptr);
  TempDir dir;
  vxtest::WriteFile(dir / "s", {42});
  const std::string name = (dir / "s").string();
  std::vector<std::FILE*> streams;
  for (int i = 0; i < 600; ++i) {
    std::FILE* f = std::fopen(name.c_str(), "rb");
    if (!f) break;
    streams.push_back(f);
  }
  const std::size_t opened = streams.size();
  for (std::FILE* f : streams) std::fclose(f);
  EXPECT_EQ(opened, 600u);
  ModuleProcessAttach(nullptr);  // a second attach is harmless
}

TEST(MessageBox, UnattendedRunsNeverWaitForAClick) {
  // ctest sets VX_NO_MSGBOX for the Windows runs; elsewhere there is no box to show at all.
  std::string value;
  if (!GetEnv("VX_NO_MSGBOX", &value) && !GetEnv("CI", &value)) {
#ifdef _WIN32
    GTEST_SKIP() << "would show a real message box";
#endif
  }
  EXPECT_FALSE(ShowMessageBox(VXT("Error Message"), VXT("a test asked for a box")));
}

}  // namespace
