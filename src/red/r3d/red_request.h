// The 688-byte decode request the R3D parser fills and the decoder pool hands to its decoder
// processes (copied whole into each slot's instruction block). All words little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bytes.h"
#include "vx/vxchar.h"

namespace vx::red {

inline constexpr std::size_t kRequestBytes = 688;
inline constexpr std::size_t kReqDecodeMode = 0;  // u32 decode mode (four-character code)
inline constexpr std::size_t kReqClipPath = 4;    // UTF-16 path, NUL-terminated
inline constexpr std::size_t kReqClipPathUnits = 260;
inline constexpr std::size_t kReqFrame = 524;       // i32 frame to decode
inline constexpr std::size_t kReqTag = 528;         // u32 handed through to card jobs
inline constexpr std::size_t kReqLook = 532;        // look record fields 1..23 (11: ISO, integer)
inline constexpr std::size_t kReqBlackLevel = 624;  // f32
inline constexpr std::size_t kReqColorSpace = 628;  // u32
inline constexpr std::size_t kReqGamma = 632;       // u32
inline constexpr std::size_t kReqDetail = 636;      // u32
inline constexpr std::size_t kReqReserved = 640;    // u32, 0
inline constexpr std::size_t kReqPixels = 644;      // u32: 2 = 8-bit BGRA, else 16-bit RGB
inline constexpr std::size_t kReqPrefetch = 648;    // u8: 0 = this frame only
inline constexpr std::size_t kReqFurther = 652;     // nine words, 0 for now
// The words a card job carries as its settings: 532 up to the end, 39 words.
inline constexpr std::size_t kReqSettingsWords = (kRequestBytes - kReqLook) / 4;

inline std::uint32_t ReqU32(const std::uint8_t* r, std::size_t at) {
  return LoadLE32(r + at);
}
inline void SetReqU32(std::uint8_t* r, std::size_t at, std::uint32_t v) {
  StoreLE32(r + at, v);
}
// The clip path of a request (stops at the first NUL or the field's end).
VxString RequestClipPath(const std::uint8_t* request);
// False when the path does not fit the field (259 units and a NUL).
bool SetRequestClipPath(std::uint8_t* request, VxStringView path);

}  // namespace vx::red
