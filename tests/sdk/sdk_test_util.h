// Helpers of the SDK tests: a private registry per test and environment overrides.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

#include "test_util.h"

namespace sdktest {

using vxtest::ScopedEnv;

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
