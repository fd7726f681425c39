#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "platform_test_util.h"

using namespace vx::os;
using vxtest::File;
using vxtest::TempDir;
using vxtest::Wide;

namespace {

TEST(Files, HandlesAreNeverStandardDescriptors) {
  TempDir dir;
  vxtest::WriteFile(dir / "a", {1, 2, 3});
  File f(OpenRead(Wide(dir / "a").c_str()));
  ASSERT_NE(f.h, kNoFile);
  EXPECT_GE(f.h, 3);
  EXPECT_EQ(OpenRead(Wide(dir / "missing").c_str()), kNoFile);
  EXPECT_EQ(OpenReadWrite(Wide(dir / "missing").c_str()), kNoFile);
  EXPECT_EQ(OpenRead(VXT("")), kNoFile);
  EXPECT_EQ(OpenRead(nullptr), kNoFile);
  // A directory is not a file to read, even though POSIX lets one open it.
  EXPECT_EQ(OpenRead(Wide(dir.path()).c_str()), kNoFile);
}

TEST(Files, PositionedTransfersBeyondFourGiBInSparseFile) {
  TempDir dir;
  File f(Create(Wide(dir / "big").c_str()));
  ASSERT_NE(f.h, kNoFile);
  const std::uint64_t far = (5ull << 30) + 123;  // above 32 bits: catches truncated offsets
  const char tail[] = "tail-bytes";
  std::uint32_t done = 0;
  ASSERT_TRUE(WriteAt(f.h, far, tail, sizeof tail, &done));
  EXPECT_EQ(done, sizeof tail);
  ASSERT_TRUE(WriteAt(f.h, 1ull << 32, "X", 1, &done));
  std::uint64_t size = 0;
  ASSERT_TRUE(Size(f.h, &size));
  EXPECT_EQ(size, far + sizeof tail);

  char back[sizeof tail] = {};
  ASSERT_TRUE(ReadAt(f.h, far, back, sizeof back, &done));
  EXPECT_EQ(done, sizeof back);
  EXPECT_STREQ(back, tail);
  char x[3] = {'?', '?', '?'};
  ASSERT_TRUE(ReadAt(f.h, (1ull << 32) - 1, x, 3, &done));
  EXPECT_EQ(done, 3u);
  EXPECT_EQ(std::memcmp(x, "\0X\0", 3), 0);  // holes around the byte
  // The low 32 bits of the far offset alone must hold nothing.
  ASSERT_TRUE(ReadAt(f.h, far & 0xFFFFFFFFu, back, 4, &done));
  EXPECT_EQ(std::memcmp(back, "\0\0\0\0", 4), 0);
}

TEST(Files, ShortReadAtEndReportsWhatWasRead) {
  TempDir dir;
  vxtest::WriteFile(dir / "f", {10, 11, 12, 13, 14});
  File f(OpenRead(Wide(dir / "f").c_str()));
  ASSERT_NE(f.h, kNoFile);
  std::uint8_t buf[16] = {};
  std::uint32_t done = 99;
  ASSERT_TRUE(ReadAt(f.h, 3, buf, sizeof buf, &done));
  EXPECT_EQ(done, 2u);
  EXPECT_EQ(std::memcmp(buf, "\x0D\x0E\0", 3), 0);  // nothing past the end touched
  ASSERT_TRUE(ReadAt(f.h, 5, buf, 4, &done));
  EXPECT_EQ(done, 0u);
  ASSERT_TRUE(ReadAt(f.h, 1ull << 40, buf, 4, &done));
  EXPECT_EQ(done, 0u);
  // Writing through a read-only handle is an OS error, not a short transfer.
  EXPECT_FALSE(WriteAt(f.h, 0, buf, 1, &done));
  EXPECT_EQ(done, 0u);
  EXPECT_FALSE(ReadAt(kNoFile, 0, buf, 1, &done));
}

TEST(Files, CreateTruncatesAndReadWriteKeeps) {
  TempDir dir;
  vxtest::WriteFile(dir / "f", std::vector<std::uint8_t>(100, 7));
  {
    File f(OpenReadWrite(Wide(dir / "f").c_str()));
    ASSERT_NE(f.h, kNoFile);
    std::uint32_t done = 0;
    ASSERT_TRUE(WriteAt(f.h, 10, "ab", 2, &done));
    ASSERT_TRUE(Truncate(f.h, 50));
  }
  auto bytes = vxtest::ReadFile(dir / "f");
  ASSERT_EQ(bytes.size(), 50u);
  EXPECT_EQ(std::string(bytes.begin() + 9, bytes.begin() + 13), "\x07\x61\x62\x07");  // 7 "ab" 7
  {
    File f(Create(Wide(dir / "f").c_str()));
    ASSERT_NE(f.h, kNoFile);
    std::uint64_t size = 1;
    ASSERT_TRUE(Size(f.h, &size));
    EXPECT_EQ(size, 0u);
  }
}

TEST(Files, PathQueriesRemoveReplaceAndNonAsciiNames) {
  TempDir dir;
  vxtest::WriteFile(dir / "a", {1});
  vxtest::WriteFile(dir / "b", {2, 2});
  EXPECT_TRUE(IsFile(Wide(dir / "a").c_str()));
  EXPECT_FALSE(IsFile(Wide(dir.path()).c_str()));
  EXPECT_TRUE(IsDirectory(Wide(dir.path()).c_str()));
  EXPECT_FALSE(IsDirectory(Wide(dir / "a").c_str()));
  EXPECT_FALSE(IsFile(Wide(dir / "none").c_str()));
  EXPECT_FALSE(IsDirectory(Wide(dir / "none").c_str()));
  // A folder's files, without its folders (with or without the trailing separator).
  std::filesystem::create_directory(dir / "sub");
  std::vector<VxString> names;
  for (const VxString& folder : {Wide(dir.path()), Wide(dir.path()) + VXT("/")}) {
    ASSERT_TRUE(ListFiles(folder.c_str(), &names));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<VxString>{VXT("a"), VXT("b")}));
  }
  EXPECT_FALSE(ListFiles(Wide(dir / "none").c_str(), &names));
  EXPECT_TRUE(names.empty());

  ASSERT_TRUE(Replace(Wide(dir / "b").c_str(), Wide(dir / "a").c_str()));
  EXPECT_FALSE(IsFile(Wide(dir / "b").c_str()));
  EXPECT_EQ(vxtest::ReadFile(dir / "a"), (std::vector<std::uint8_t>{2, 2}));
  EXPECT_TRUE(Remove(Wide(dir / "a").c_str()));
  EXPECT_FALSE(Remove(Wide(dir / "a").c_str()));

  // Names beyond ASCII reach the file system as UTF-8.
  const VxString name = Wide(dir.path()) + VXT("/\u00e9t\u00e9-\u6f22\U0001F600.dpx");
  {
    File f(Create(name.c_str()));
    ASSERT_NE(f.h, kNoFile);
  }
  EXPECT_TRUE(IsFile(name.c_str()));
  EXPECT_TRUE(std::filesystem::exists(
      dir.path() / std::filesystem::path(u8"\u00e9t\u00e9-\u6f22\U0001F600.dpx")));
}

TEST(Files, AFifoWithoutWriterNeitherHangsNorReads) {
  TempDir dir;
  const std::string fifo = (dir / "pipe").string();
  if (std::system(("mkfifo '" + fifo + "'").c_str()) != 0) GTEST_SKIP() << "no mkfifo";
  File f(OpenRead(Wide(dir / "pipe").c_str()));  // must return at once
  std::uint8_t b[4];
  std::uint32_t done = 7;
  if (f.h != kNoFile) {
    EXPECT_FALSE(ReadAt(f.h, 0, b, 4, &done));  // no positioned reads on a pipe
    EXPECT_EQ(done, 0u);
  }
}

TEST(Files, TwoHandlesOfOneProcessExcludeEachOther) {
  TempDir dir;
  vxtest::WriteFile(dir / "l", {0});
  File a(OpenReadWrite(Wide(dir / "l").c_str()));
  File b(OpenReadWrite(Wide(dir / "l").c_str()));
  ASSERT_TRUE(LockFile(a.h));
  std::atomic<bool> got{false};
  std::thread t([&] {
    LockFile(b.h);
    got = true;
    UnlockFile(b.h);
  });
  SleepMs(100);
  EXPECT_FALSE(got.load());
  UnlockFile(a.h);
  t.join();
  EXPECT_TRUE(got.load());
}

}  // namespace
