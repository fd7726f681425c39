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
// Line length: LineBytes(..., eightBitRows = false) is what the writer lays out: 8-bit lines are
// rounded up to whole 32-bit words, every other depth keeps its natural length, and the
// end-of-line padding field is written as 0.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx::dpx {

// Bytes of one line of one element before its end-of-line padding: the natural length of
// `width * components` samples, rounded up to a multiple of 4 when (bits == 8) differs from
// `eightBitRows`. 0 for an unsupported depth.
std::uint64_t LineBytes(std::uint32_t width, std::uint32_t components, std::uint32_t bits,
                        std::uint32_t packing, bool eightBitRows);

// The largest code value of a depth (1.0 for 32-bit float samples).
float MaxCode(std::uint32_t bits);

// Rounds a code value as the writer does: clamped to [0, maxCode], +0.5, truncated; NaN is 0.
inline std::uint32_t ToCode(float v, float maxCode) {
  if (!(v > 0.0f)) return 0;
  if (v >= maxCode) return static_cast<std::uint32_t>(maxCode);
  return static_cast<std::uint32_t>(v + 0.5f);
}

// Packs `count` code-value samples into `out`, which holds at least the natural line length
// (LineBytes with eightBitRows = (bits == 8)); bytes past the samples' last word are not touched.
// Samples of 32-bit float lines are stored as they are. False for an unsupported depth/packing.
bool PackSamples(const float* samples, std::size_t count, std::uint32_t bits, std::uint32_t packing,
                 bool bigEndian, std::uint8_t* out);

// Gathers `components` channels of `width` interleaved RGBA pixels into `out`, channel
// `order[k]` (0 R, 1 G, 2 B, 3 A) becoming the k-th sample of each pixel.
void GatherChannels(const float* rgba, std::size_t width, const std::uint8_t* order,
                    std::uint32_t components, float* out);

}  // namespace vx::dpx
