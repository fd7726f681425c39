// Helpers shared by the test areas.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
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

// The built vxhost run through the shell in `dir` with a registry of that folder's own (tests run
// in parallel, and another process's first-run registration must not be seen). `args` go to the
// shell as they are. code is -1 when vxhost could not be run.
struct HostRun {
  int code = -1;
  std::string out, err;
};
HostRun RunHost(const std::filesystem::path& dir, const std::string& args);
// A path quoted for the shell.
std::string Quote(const std::filesystem::path& p);

// Sets (or with nullopt removes) an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    Set(value);
  }
  ~ScopedEnv() { Set(old_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void Set(const std::optional<std::string>& v) {
#ifdef _WIN32
    _putenv_s(name_.c_str(), v ? v->c_str() : "");
#else
    if (v)
      setenv(name_.c_str(), v->c_str(), 1);
    else
      unsetenv(name_.c_str());
#endif
  }
  std::string name_;
  std::optional<std::string> old_;
};

}  // namespace vxtest
