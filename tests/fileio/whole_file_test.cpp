#include "fileio/whole_file.h"

#include <filesystem>
#include <algorithm>
#include <iterator>
#include <vector>

#include "fileio_test_util.h"

using namespace fileio_test;

namespace {

std::size_t EntriesIn(const std::filesystem::path& dir) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

// An export replaces the old file only when it succeeded, and never leaves its temporary behind.
TEST(WholeFile, WriteReplacingKeepsTheOldFileOnFailureAndLeavesNoTemporary) {
  vxtest::TempDir dir;
  const auto target = dir / "frame.bin";
  vxtest::WriteFile(target, Bytes({9, 9}));
  const VxString path = vxtest::Wide(target);

  bool wrote = vx::fileio::WriteReplacing(path.c_str(), [](const VxChar* temp) {
    vx::os::UniqueFile f(vx::os::Create(temp));
    const std::uint8_t half[3] = {1, 2, 3};
    return f && vx::fileio::WriteAll(f.get(), 0, half, 3) && false;  // fails after writing
  });
  EXPECT_FALSE(wrote);
  EXPECT_EQ(vxtest::ReadFile(target), Bytes({9, 9}));
  EXPECT_EQ(EntriesIn(dir.path()), 1u);

  const std::uint8_t head[2] = {0xAA, 0xBB};
  const std::vector<std::uint8_t> body = Bytes({1, 2, 3});
  const std::vector<std::uint8_t> empty;
  ASSERT_TRUE(vx::fileio::WriteReplacing(path.c_str(), {head, empty, body}));
  EXPECT_EQ(vxtest::ReadFile(target), Bytes({0xAA, 0xBB, 1, 2, 3}));
  EXPECT_EQ(EntriesIn(dir.path()), 1u);

  // A folder that does not exist: nothing is created anywhere.
  const VxString missing = vxtest::Wide(dir / "no" / "such.bin");
  EXPECT_FALSE(vx::fileio::WriteReplacing(missing.c_str(), {body}));
  EXPECT_EQ(EntriesIn(dir.path()), 1u);
}

// Pieces land where they belong, whether read in one call or side by side on the pool.
TEST(WholeFile, ReadAllAndReadAllParallelAgreeWithTheFileAndRefuseShortFiles) {
  vxtest::TempDir dir;
  std::vector<std::uint8_t> bytes(9u << 20);
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<std::uint8_t>(i * 7 + (i >> 12));
  vxtest::WriteFile(dir / "big.bin", bytes);
  vx::os::UniqueFile f(vx::os::OpenRead(vxtest::Wide(dir / "big.bin").c_str()));
  ASSERT_TRUE(f);
  // Odd offsets and lengths, so a piece boundary off by one shows as a wrong byte.
  const std::uint64_t at = 4097, n = bytes.size() - at - 3;
  std::vector<std::uint8_t> one(n), many(n);
  ASSERT_TRUE(vx::fileio::ReadAll(f.get(), at, one.data(), n));
  ASSERT_TRUE(vx::fileio::ReadAllParallel(f.get(), at, many.data(), n));
  EXPECT_TRUE(std::equal(one.begin(), one.end(), bytes.begin() + at));
  EXPECT_TRUE(one == many);
  // Past the end of the file: refused, not padded.
  std::vector<std::uint8_t> past(n + 4);
  EXPECT_FALSE(vx::fileio::ReadAll(f.get(), at, past.data(), past.size()));
  EXPECT_FALSE(vx::fileio::ReadAllParallel(f.get(), at, past.data(), past.size()));
}

}  // namespace
