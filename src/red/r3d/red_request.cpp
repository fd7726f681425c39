#include "red/r3d/red_request.h"

namespace vx::red {

VxString RequestClipPath(const std::uint8_t* request) {
  VxString path;
  for (std::size_t i = 0; i < kReqClipPathUnits; ++i) {
    const VxChar c = static_cast<VxChar>(LoadLE16(request + kReqClipPath + 2 * i));
    if (!c) break;
    path += c;
  }
  return path;
}

bool SetRequestClipPath(std::uint8_t* request, VxStringView path) {
  if (path.size() >= kReqClipPathUnits) return false;
  for (std::size_t i = 0; i < kReqClipPathUnits; ++i) {
    const std::uint16_t c = i < path.size() ? static_cast<std::uint16_t>(path[i]) : 0;
    StoreLE16(request + kReqClipPath + 2 * i, c);
  }
  return true;
}

}  // namespace vx::red
