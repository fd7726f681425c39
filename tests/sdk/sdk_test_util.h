// Helpers of the SDK tests: a private registry per test and environment overrides.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

#include "test_util.h"

namespace sdktest {

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

// A registry file of its own in a fresh folder, for one test.
class ScopedRegistry {
 public:
  ScopedRegistry() : env_("VXHOST_REGISTRY", (dir_ / "registry.json").string()) {}
  std::filesystem::path path() const { return dir_ / "registry.json"; }

 private:
  vxtest::TempDir dir_;
  ScopedEnv env_;
};

}  // namespace sdktest
