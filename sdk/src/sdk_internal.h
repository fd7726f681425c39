// Helpers shared by the SDK's own sources; not part of its interface.
#pragma once

#include <filesystem>
#include <string>

#include "vx/vxchar.h"

namespace vx::sdk {

inline std::filesystem::path ToPath(VxStringView s) {
#ifdef _WIN32
  return std::filesystem::path(std::wstring(s));
#else
  return std::filesystem::path(std::u16string(s));
#endif
}

inline VxString FromPath(const std::filesystem::path& p) {
#ifdef _WIN32
  return p.wstring();
#else
  return p.u16string();
#endif
}

}  // namespace vx::sdk
