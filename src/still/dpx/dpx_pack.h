// Sample packers of the DPX writer: one image line of code values into the file's bytes.
//
// Byte order of the packed data (the unpacker must agree):
//   - Every packing of 10 and 12 bits is a run of 32-bit words stored in the file's byte order.
//     Packed (code 0) fills each word from its least significant bit up, a sample crossing a word
//     boundary continuing in the low bits of the next word. A little-endian file therefore holds
//     the plain LSB-first stream (10 bits: four samples in five bytes; 12 bits: two in three);
//     a big-endian file holds the same words with their four bytes reversed. ImageMagick reads
//     big-endian packed files this way.
//   - 10-bit filled: three samples per word, method A s0<<22|s1<<12|s2<<2, method B
//     s0<<20|s1<<10|s2.
//   - 12-bit filled: one sample per 16-bit word in the file's order, method A in the top 12
//     bits (s<<4), method B in the bottom 12 bits.
//   - 16 bits: 16-bit words; 32 bits: IEEE floats, both in the file's byte order.
//   - 1 bit: a plain byte stream, eight samples per byte, first sample in the lowest bit; byte
//     order does not apply.
// Line length: DpxLineBytes(..., eightBitFlag = false) is what the writer lays out: 8-bit lines are
// rounded up to whole 32-bit words, every other depth keeps its natural length, and the
// end-of-line padding field is written as 0.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx::dpx {

// Rounds a code value as the writer does: clamped to [0, maxCode], +0.5, truncated; NaN is 0.
inline std::uint32_t ToCode(float v, float maxCode) {
  if (!(v > 0.0f)) return 0;
  if (v >= maxCode) return static_cast<std::uint32_t>(maxCode);
  return static_cast<std::uint32_t>(v + 0.5f);
}

// Packs `count` integer code values (depth 1 to 16) into `out`, which holds at least the natural
// line length (DpxLineBytes with eightBitFlag = (bits == 8)); bytes past the samples' last word
// are not touched. False for an unsupported depth/packing.
bool PackCodes(const std::uint16_t* codes, std::size_t count, std::uint32_t bits,
               std::uint32_t packing, bool bigEndian, std::uint8_t* out);
// 32-bit float samples in the file's byte order.
void PackFloats(const float* samples, std::size_t count, bool bigEndian, std::uint8_t* out);
// Code-value samples as floats: rounded with ToCode and packed with PackCodes, or stored as they
// are for 32 bits. Same contract as PackCodes.
bool PackSamples(const float* samples, std::size_t count, std::uint32_t bits, std::uint32_t packing,
                 bool bigEndian, std::uint8_t* out);

// Gathers `components` channels of `width` interleaved RGBA pixels into `out`, channel
// `order[k]` (0 R, 1 G, 2 B, 3 A) becoming the k-th sample of each pixel.
void GatherChannels(const float* rgba, std::size_t width, const std::uint8_t* order,
                    std::uint32_t components, float* out);

}  // namespace vx::dpx
