#include "base/bytes.h"

#include <algorithm>

namespace vx {

void SwapInPlace(void* data, std::size_t count, int width) {
  auto* p = static_cast<std::uint8_t*>(data);
  switch (width) {
    case 2:
      for (std::size_t i = 0; i < count; ++i, p += 2)
        StoreRaw(p, Swap16(LoadRaw<std::uint16_t>(p)));
      break;
    case 3:
      for (std::size_t i = 0; i < count; ++i, p += 3) std::swap(p[0], p[2]);
      break;
    case 4:
      for (std::size_t i = 0; i < count; ++i, p += 4)
        StoreRaw(p, Swap32(LoadRaw<std::uint32_t>(p)));
      break;
    case 8:
      for (std::size_t i = 0; i < count; ++i, p += 8)
        StoreRaw(p, Swap64(LoadRaw<std::uint64_t>(p)));
      break;
    default:
      break;
  }
}

}  // namespace vx
