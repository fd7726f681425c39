// Helpers shared by the test areas.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "vx/vxchar.h"

namespace vxtest {

// A fresh empty folder under the system temp dir, removed with the object.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

void WriteFile(const std::filesystem::path& p, const std::vector<std::uint8_t>& bytes);
std::vector<std::uint8_t> ReadFile(const std::filesystem::path& p);
VxString Wide(const std::filesystem::path& p);

// ../shared/corpus when present (VX_CORPUS overrides); empty path when absent.
std::filesystem::path CorpusDir();
// Folder of the built binaries (module, host, decoders): VX_BIN.
std::filesystem::path BinDir();

}  // namespace vxtest
