// Helpers for the platform tests.
#pragma once

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "test_util.h"
#include "vx/platform.h"

namespace vxtest {

#ifdef _WIN32
inline constexpr const char* kExeSuffix = ".exe";
#else
inline constexpr const char* kExeSuffix = "";
#endif

// Folder holding vx_platform_child: VX_BIN under ctest, else beside this test program.
inline std::filesystem::path ChildDir() {
  if (std::getenv("VX_BIN")) return BinDir();
  return std::filesystem::path(vx::ToUtf8(vx::os::ExecutablePath())).parent_path();
}

// Object names unique to this process and call, so parallel test runs never meet.
inline std::string UniqueName(const std::string& tag) {
  static std::atomic<int> counter{0};
  return "vxt" + std::to_string(vx::os::CurrentProcessId()) + "_" + std::to_string(++counter) +
         "_" + tag;
}

// Closes on scope exit so a failed assertion does not leak the descriptor.
struct File {
  vx::os::FileHandle h;
  explicit File(vx::os::FileHandle f) : h(f) {}
  ~File() { vx::os::Close(h); }
};

inline VxString U(const std::string& s) {
  return vx::FromUtf8(s);
}

}  // namespace vxtest
