// Byte order: loads and stores of unaligned little- and big-endian values, and swaps. The one
// place these live; formats include this rather than writing their own.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace vx {

inline constexpr bool kHostBigEndian = std::endian::native == std::endian::big;

constexpr std::uint16_t Swap16(std::uint16_t v) {
  return __builtin_bswap16(v);
}
constexpr std::uint32_t Swap32(std::uint32_t v) {
  return __builtin_bswap32(v);
}
constexpr std::uint64_t Swap64(std::uint64_t v) {
  return __builtin_bswap64(v);
}

template <class T>
inline T LoadRaw(const void* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
template <class T>
inline void StoreRaw(void* p, T v) {
  std::memcpy(p, &v, sizeof v);
}

inline std::uint16_t LoadLE16(const void* p) {
  const auto v = LoadRaw<std::uint16_t>(p);
  return kHostBigEndian ? Swap16(v) : v;
}
inline std::uint32_t LoadLE32(const void* p) {
  const auto v = LoadRaw<std::uint32_t>(p);
  return kHostBigEndian ? Swap32(v) : v;
}
inline std::uint64_t LoadLE64(const void* p) {
  const auto v = LoadRaw<std::uint64_t>(p);
  return kHostBigEndian ? Swap64(v) : v;
}
inline std::uint16_t LoadBE16(const void* p) {
  const auto v = LoadRaw<std::uint16_t>(p);
  return kHostBigEndian ? v : Swap16(v);
}
inline std::uint32_t LoadBE32(const void* p) {
  const auto v = LoadRaw<std::uint32_t>(p);
  return kHostBigEndian ? v : Swap32(v);
}
inline std::uint64_t LoadBE64(const void* p) {
  const auto v = LoadRaw<std::uint64_t>(p);
  return kHostBigEndian ? v : Swap64(v);
}
// Either order, chosen at run time.
inline std::uint16_t Load16(const void* p, bool big) {
  return big ? LoadBE16(p) : LoadLE16(p);
}
inline std::uint32_t Load32(const void* p, bool big) {
  return big ? LoadBE32(p) : LoadLE32(p);
}
inline std::uint64_t Load64(const void* p, bool big) {
  return big ? LoadBE64(p) : LoadLE64(p);
}

inline void StoreLE16(void* p, std::uint16_t v) {
  StoreRaw(p, kHostBigEndian ? Swap16(v) : v);
}
inline void StoreLE32(void* p, std::uint32_t v) {
  StoreRaw(p, kHostBigEndian ? Swap32(v) : v);
}
inline void StoreLE64(void* p, std::uint64_t v) {
  StoreRaw(p, kHostBigEndian ? Swap64(v) : v);
}
inline void StoreBE16(void* p, std::uint16_t v) {
  StoreRaw(p, kHostBigEndian ? v : Swap16(v));
}
inline void StoreBE32(void* p, std::uint32_t v) {
  StoreRaw(p, kHostBigEndian ? v : Swap32(v));
}
inline void StoreBE64(void* p, std::uint64_t v) {
  StoreRaw(p, kHostBigEndian ? v : Swap64(v));
}
inline void Store16(void* p, std::uint16_t v, bool big) {
  big ? StoreBE16(p, v) : StoreLE16(p, v);
}
inline void Store32(void* p, std::uint32_t v, bool big) {
  big ? StoreBE32(p, v) : StoreLE32(p, v);
}
inline void Store64(void* p, std::uint64_t v, bool big) {
  big ? StoreBE64(p, v) : StoreLE64(p, v);
}

inline float LoadFloat(const void* p, bool big) {
  return std::bit_cast<float>(Load32(p, big));
}
inline double LoadDouble(const void* p, bool big) {
  return std::bit_cast<double>(Load64(p, big));
}
inline void StoreFloat(void* p, float v, bool big) {
  Store32(p, std::bit_cast<std::uint32_t>(v), big);
}
inline void StoreDouble(void* p, double v, bool big) {
  Store64(p, std::bit_cast<std::uint64_t>(v), big);
}

// Swaps `count` values of `width` bytes (2, 3, 4 or 8) in place: sample data of the other order.
void SwapInPlace(void* data, std::size_t count, int width);

// `count` pixels of 16-bit RGB (`alpha` false; opaque alpha added) or RGBA, big-endian or in the
// host's order, to host RGBA16. `in` may be read up to 16 bytes past its last pixel, so pad it.
// Written past the cache: the destination is a whole picture nobody reads back soon.
void WidenRgb16ToRgba16(const std::uint8_t* in, std::uint8_t* out, std::size_t count, bool alpha,
                        bool big);

}  // namespace vx
