#include "test_util.h"

#include <cstdlib>
#include <fstream>
#include <random>

namespace vxtest {

TempDir::TempDir() {
  std::random_device rd;
  auto base = std::filesystem::temp_directory_path();
  for (;;) {
    path_ = base / ("vxtest-" + std::to_string(rd()) + std::to_string(rd()));
    if (std::filesystem::create_directory(path_)) break;
  }
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void WriteFile(const std::filesystem::path& p, const std::vector<std::uint8_t>& bytes) {
  std::ofstream f(p, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::uint8_t> ReadFile(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(f), {});
}

// u8string, not string: on Windows string() is in the ANSI code page.
VxString Wide(const std::filesystem::path& p) {
  const std::u8string u = p.u8string();
  return vx::FromUtf8(std::string_view(reinterpret_cast<const char*>(u.data()), u.size()));
}

std::filesystem::path CorpusDir() {
  const char* env = std::getenv("VX_CORPUS");
  std::filesystem::path p = env ? env : "../shared/corpus";
  std::error_code ec;
  if (std::filesystem::is_directory(p, ec)) return p;
  return {};
}

std::filesystem::path BinDir() {
  const char* env = std::getenv("VX_BIN");
  return env ? std::filesystem::path(env) : std::filesystem::path(".");
}

}  // namespace vxtest
