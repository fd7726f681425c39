// Helpers for the file-access tests: files opened as raw handles and chunk files over them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "fileio/chunk_file.h"
#include "test_util.h"
#include "vx/platform.h"

namespace fileio_test {

inline vx::os::FileHandle OpenRW(const std::filesystem::path& p) {
  return vx::os::OpenReadWrite(vxtest::Wide(p).c_str());
}

inline vx::os::FileHandle NewFile(const std::filesystem::path& p) {
  return vx::os::Create(vxtest::Wide(p).c_str());
}

// A file holding `bytes`, opened read-write as a chunk file of type T.
template <typename T>
std::unique_ptr<T> OpenWith(const std::filesystem::path& p, const std::vector<std::uint8_t>& bytes,
                            bool cached) {
  vxtest::WriteFile(p, bytes);
  vx::os::FileHandle h = OpenRW(p);
  EXPECT_NE(h, vx::os::kNoFile);
  return std::make_unique<T>(h, cached ? TRUE : FALSE);
}

inline std::vector<std::uint8_t> Bytes(std::initializer_list<int> v) {
  std::vector<std::uint8_t> out;
  for (int b : v) out.push_back(static_cast<std::uint8_t>(b));
  return out;
}

}  // namespace fileio_test
