#include "still/dpx/dpx_pack.h"

#include <algorithm>
#include <cstring>

#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_header.h"

namespace vx::dpx {
namespace {

// Samples of `Bits` bits filled into 32-bit words from the least significant bit up.
template <unsigned Bits, bool Big>
void PackStream(const std::uint16_t* s, std::size_t count, std::uint8_t* out) {
  std::uint64_t acc = 0;
  unsigned have = 0;
  for (std::size_t i = 0; i < count; ++i) {
    acc |= std::uint64_t{s[i]} << have;
    have += Bits;
    if (have >= 32) {
      Store32(out, static_cast<std::uint32_t>(acc), Big);
      out += 4;
      acc >>= 32;
      have -= 32;
    }
  }
  if (have) Store32(out, static_cast<std::uint32_t>(acc), Big);
}

template <bool Big, unsigned Base>
void Pack10Filled(const std::uint16_t* s, std::size_t count, std::uint8_t* out) {
  std::size_t i = 0;
  for (; i + 3 <= count; i += 3, out += 4) {
    const std::uint32_t w = std::uint32_t{s[i]} << (Base + 20) |
                            std::uint32_t{s[i + 1]} << (Base + 10) |
                            std::uint32_t{s[i + 2]} << Base;
    Store32(out, w, Big);
  }
  if (i < count) {
    std::uint32_t w = std::uint32_t{s[i]} << (Base + 20);
    if (i + 1 < count) w |= std::uint32_t{s[i + 1]} << (Base + 10);
    Store32(out, w, Big);
  }
}

template <bool Big>
void Pack16Bit(const std::uint16_t* s, std::size_t count, unsigned shift, std::uint8_t* out) {
  for (std::size_t i = 0; i < count; ++i, out += 2)
    Store16(out, static_cast<std::uint16_t>(s[i] << shift), Big);
}

void Pack8(const std::uint16_t* s, std::size_t count, std::uint8_t* out) {
  for (std::size_t i = 0; i < count; ++i) out[i] = static_cast<std::uint8_t>(s[i]);
}

void Pack1(const std::uint16_t* s, std::size_t count, std::uint8_t* out) {
  std::uint8_t byte = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (s[i]) byte |= static_cast<std::uint8_t>(1u << (i & 7));
    if ((i & 7) == 7) {
      *out++ = byte;
      byte = 0;
    }
  }
  if (count & 7) *out = byte;
}

template <bool Big>
bool Pack(const std::uint16_t* s, std::size_t count, std::uint32_t bits, std::uint32_t packing,
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
      else if (packing == kPackFillA)
        Pack10Filled<Big, 2>(s, count, out);
      else
        Pack10Filled<Big, 0>(s, count, out);
      return true;
    case 12:
      if (packing == kPackPacked)
        PackStream<12, Big>(s, count, out);
      else
        Pack16Bit<Big>(s, count, packing == kPackFillA ? 4 : 0, out);
      return true;
    case 16:
      Pack16Bit<Big>(s, count, 0, out);
      return true;
    default:
      return false;
  }
}

}  // namespace

bool PackCodes(const std::uint16_t* codes, std::size_t count, std::uint32_t bits,
               std::uint32_t packing, bool bigEndian, std::uint8_t* out) {
  return bigEndian ? Pack<true>(codes, count, bits, packing, out)
                   : Pack<false>(codes, count, bits, packing, out);
}

void PackFloats(const float* s, std::size_t count, bool bigEndian, std::uint8_t* out) {
  for (std::size_t i = 0; i < count; ++i, out += 4) StoreFloat(out, s[i], bigEndian);
}

bool PackSamples(const float* samples, std::size_t count, std::uint32_t bits, std::uint32_t packing,
                 bool bigEndian, std::uint8_t* out) {
  if (packing > 2) return false;
  if (bits == 32) {
    PackFloats(samples, count, bigEndian, out);
    return true;
  }
  if (DpxLineBytes(bits, packing, 1, 1, bits == 8) == 0 || bits > 16) return false;
  // Chunks of a multiple of 48 samples end on a whole word for every depth and packing.
  constexpr std::size_t kChunk = 48 * 32;
  std::uint16_t codes[kChunk];
  const float top = static_cast<float>(MaxCode(bits));
  for (std::size_t done = 0; done < count; done += kChunk) {
    const std::size_t n = std::min(kChunk, count - done);
    for (std::size_t i = 0; i < n; ++i)
      codes[i] = static_cast<std::uint16_t>(ToCode(samples[done + i], top));
    if (!PackCodes(codes, n, bits, packing, bigEndian,
                   out + DpxLineBytes(bits, packing, done, 1, bits == 8)))
      return false;
  }
  return true;
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
