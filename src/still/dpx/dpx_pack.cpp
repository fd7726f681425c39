#include "still/dpx/dpx_pack.h"

#include <bit>
#include <cstring>

#include "still/dpx/dpx_format.h"

namespace vx::dpx {
namespace {

constexpr bool kHostBig = std::endian::native == std::endian::big;

template <bool Big>
inline void Put32(std::uint8_t* p, std::uint32_t v) {
  if constexpr (Big != kHostBig) v = Swap32(v);
  std::memcpy(p, &v, 4);
}

template <bool Big>
inline void Put16(std::uint8_t* p, std::uint16_t v) {
  if constexpr (Big != kHostBig) v = Swap16(v);
  std::memcpy(p, &v, 2);
}

// Samples of `Bits` bits filled into 32-bit words from the least significant bit up.
template <unsigned Bits, bool Big>
void PackStream(const float* s, std::size_t count, std::uint8_t* out) {
  constexpr float kMax = static_cast<float>((1u << Bits) - 1);
  std::uint64_t acc = 0;
  unsigned have = 0;
  for (std::size_t i = 0; i < count; ++i) {
    acc |= static_cast<std::uint64_t>(ToCode(s[i], kMax)) << have;
    have += Bits;
    if (have >= 32) {
      Put32<Big>(out, static_cast<std::uint32_t>(acc));
      out += 4;
      acc >>= 32;
      have -= 32;
    }
  }
  if (have) Put32<Big>(out, static_cast<std::uint32_t>(acc));
}

template <bool Big>
void Pack10Filled(const float* s, std::size_t count, bool methodA, std::uint8_t* out) {
  const unsigned base = methodA ? 2 : 0;
  std::size_t i = 0;
  for (; i + 3 <= count; i += 3, out += 4) {
    const std::uint32_t w = ToCode(s[i], 1023.0f) << (base + 20) |
                            ToCode(s[i + 1], 1023.0f) << (base + 10) |
                            ToCode(s[i + 2], 1023.0f) << base;
    Put32<Big>(out, w);
  }
  if (i < count) {
    std::uint32_t w = ToCode(s[i], 1023.0f) << (base + 20);
    if (i + 1 < count) w |= ToCode(s[i + 1], 1023.0f) << (base + 10);
    Put32<Big>(out, w);
  }
}

template <bool Big>
void Pack12Filled(const float* s, std::size_t count, bool methodA, std::uint8_t* out) {
  const unsigned shift = methodA ? 4 : 0;
  for (std::size_t i = 0; i < count; ++i, out += 2)
    Put16<Big>(out, static_cast<std::uint16_t>(ToCode(s[i], 4095.0f) << shift));
}

template <bool Big>
void Pack16(const float* s, std::size_t count, std::uint8_t* out) {
  for (std::size_t i = 0; i < count; ++i, out += 2)
    Put16<Big>(out, static_cast<std::uint16_t>(ToCode(s[i], 65535.0f)));
}

template <bool Big>
void PackFloat(const float* s, std::size_t count, std::uint8_t* out) {
  for (std::size_t i = 0; i < count; ++i, out += 4) {
    std::uint32_t u;
    std::memcpy(&u, &s[i], 4);
    Put32<Big>(out, u);
  }
}

void Pack8(const float* s, std::size_t count, std::uint8_t* out) {
  for (std::size_t i = 0; i < count; ++i) out[i] = static_cast<std::uint8_t>(ToCode(s[i], 255.0f));
}

void Pack1(const float* s, std::size_t count, std::uint8_t* out) {
  std::uint8_t byte = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (ToCode(s[i], 1.0f)) byte |= static_cast<std::uint8_t>(1u << (i & 7));
    if ((i & 7) == 7) {
      *out++ = byte;
      byte = 0;
    }
  }
  if (count & 7) *out = byte;
}

template <bool Big>
bool Pack(const float* s, std::size_t count, std::uint32_t bits, std::uint32_t packing,
          std::uint8_t* out) {
  if (packing > 2) return false;
  switch (bits) {
    case 1:
      Pack1(s, count, out);
      return true;
    case 8:
      Pack8(s, count, out);
      return true;
    case 10:
      if (packing == kPackPacked)
        PackStream<10, Big>(s, count, out);
      else
        Pack10Filled<Big>(s, count, packing == kPackFillA, out);
      return true;
    case 12:
      if (packing == kPackPacked)
        PackStream<12, Big>(s, count, out);
      else
        Pack12Filled<Big>(s, count, packing == kPackFillA, out);
      return true;
    case 16:
      Pack16<Big>(s, count, out);
      return true;
    case 32:
      PackFloat<Big>(s, count, out);
      return true;
    default:
      return false;
  }
}

}  // namespace

std::uint64_t LineBytes(std::uint32_t width, std::uint32_t components, std::uint32_t bits,
                        std::uint32_t packing, bool eightBitRows) {
  const std::uint64_t n = std::uint64_t{width} * components;
  std::uint64_t bytes;
  switch (bits) {
    case 1:
      bytes = (n + 7) / 8;
      break;
    case 8:
    case 16:
    case 32:
    case 64:
      bytes = bits / 8 * n;
      break;
    case 10:
      bytes = packing != kPackPacked ? (n + 2) / 3 * 4 : (n * 10 + 31) / 32 * 4;
      break;
    case 12:
      bytes = packing != kPackPacked ? n * 2 : (n * 12 + 31) / 32 * 4;
      break;
    default:
      return 0;
  }
  if ((bits == 8) != eightBitRows) bytes = (bytes + 3) & ~std::uint64_t{3};
  return bytes;
}

float MaxCode(std::uint32_t bits) {
  if (bits >= 32) return 1.0f;
  return static_cast<float>((std::uint64_t{1} << bits) - 1);
}

bool PackSamples(const float* samples, std::size_t count, std::uint32_t bits, std::uint32_t packing,
                 bool bigEndian, std::uint8_t* out) {
  return bigEndian ? Pack<true>(samples, count, bits, packing, out)
                   : Pack<false>(samples, count, bits, packing, out);
}

void GatherChannels(const float* rgba, std::size_t width, const std::uint8_t* order,
                    std::uint32_t components, float* out) {
  // Four channels at a time keeps the common layouts branch-free in the loop.
  if (components == 4) {
    const unsigned a = order[0], b = order[1], c = order[2], d = order[3];
    for (std::size_t x = 0; x < width; ++x, rgba += 4, out += 4) {
      out[0] = rgba[a];
      out[1] = rgba[b];
      out[2] = rgba[c];
      out[3] = rgba[d];
    }
  } else if (components == 3) {
    const unsigned a = order[0], b = order[1], c = order[2];
    for (std::size_t x = 0; x < width; ++x, rgba += 4, out += 3) {
      out[0] = rgba[a];
      out[1] = rgba[b];
      out[2] = rgba[c];
    }
  } else {
    for (std::size_t x = 0; x < width; ++x, rgba += 4)
      for (std::uint32_t k = 0; k < components; ++k) *out++ = rgba[order[k]];
  }
}

}  // namespace vx::dpx
