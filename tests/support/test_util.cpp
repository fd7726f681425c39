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

HostRun RunHost(const std::filesystem::path& dir, const std::string& args) {
  HostRun r;
  const auto host = BinDir() / "vxhost";
  if (!std::filesystem::exists(host)) return r;
  const auto out = dir / "stdout.txt", err = dir / "stderr.txt", rc = dir / "rc.txt";
  const std::string cmd = "cd " + Quote(dir) +
                          " && VXHOST_REGISTRY=" + Quote(dir / "registry.json") + " " +
                          Quote(host) + " " + args + " > " + Quote(out) + " 2> " + Quote(err) +
                          "; echo $? > " + Quote(rc);
  if (std::system(cmd.c_str()) != 0) return r;
  const auto code = ReadFile(rc), o = ReadFile(out), e = ReadFile(err);
  r.code = std::atoi(std::string(code.begin(), code.end()).c_str());
  r.out.assign(o.begin(), o.end());
  r.err.assign(e.begin(), e.end());
  for (const auto& p : {rc, out, err}) std::filesystem::remove(p);
  return r;
}

std::string Quote(const std::filesystem::path& p) {
  std::string q = "'";
  for (char c : p.string()) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

}  // namespace vxtest
