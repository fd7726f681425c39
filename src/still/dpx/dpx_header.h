// DPX and Cineon header readers: turn the first bytes of a file into the plain state the parser
// works from. The byte parsers are pure functions over memory; the file wrappers only read.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vx/platform.h"
#include "vx/sdk.h"

namespace vx::dpx {

// One per channel slot: 0 red (or luma, or the interleaved element), 1 green, 2 blue, 3 alpha.
struct DpxElementInfo {
  std::uint32_t dataOffset = 0;  // bytes from the file start
  std::uint32_t eolPadding = 0;  // bytes after each line
  std::uint32_t spare = 0;
  std::uint32_t components = 0;
  std::uint32_t bitDepth = 0;
  std::uint32_t transfer = 0;
  std::uint32_t packing = 0;
  std::uint32_t descriptor = 0;
};

struct DpxHeaderState {
  bool isDpx = true;
  bool bigEndian = false;
  // Element bookkeeping: how many times each channel was supplied.
  std::uint8_t hasAlpha = 0;
  std::uint8_t redSeen = 0;
  std::uint8_t greenOrLumaSeen = 0;
  std::uint8_t blueSeen = 0;
  std::uint8_t alphaSeen = 0;
  std::uint8_t reversedOrder = 0;  // ABGR or BGR element
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::int32_t fieldMode = 3;  // 0/1 interlaced with that field first, 2 progressive, 3 unknown
  std::uint32_t timeCode = 0xFFFFFFFFu;  // BCD word as stored; all bits set when unknown
  std::uint32_t userBits = 0xFFFFFFFFu;
  std::uint32_t maxBits = 0;
  std::uint32_t elementCount = 0;  // accepted elements
  DpxElementInfo elements[4];
  bool aspectKnown = false;
  double pixelAspect = 1.0;
  double frameRate = -1.0;  // frames per second, -1 when unknown
  std::uint32_t orientation = 0;
  EdgeCode edgeCode;
  double gamma = 2.2222223;
  double blackLevel = 0.0;
  double blackGain = 4.5;
  double breakPoint = 0.018;
  double whiteLevel = 1023.0;
  char inputDevice[32] = {};  // NUL-terminated

  // True when the colour comes from separate red, green and blue elements.
  bool Planar() const { return elements[0].descriptor == 1; }
  // The alpha element when one exists apart from the colour (descriptor 4), else null.
  const DpxElementInfo* SeparateAlpha() const {
    return alphaSeen && elements[3].descriptor == 4 ? &elements[3] : nullptr;
  }
};

// Parse a DPX header from the first `size` bytes of a file (2048 for a whole header). False on
// any header fault; `out` is written only on success.
bool ParseDpxHeader(const std::uint8_t* data, std::size_t size, DpxHeaderState* out);
// Bytes a Cineon header needs from the file start, from its first 192 bytes; 0 on a bad magic
// or a generic header length above kCinMaxGenericSize.
std::uint64_t CineonHeaderBytes(const std::uint8_t* data, std::size_t size);
// Parse a Cineon header; same contract as ParseDpxHeader.
bool ParseCineonHeader(const std::uint8_t* data, std::size_t size, DpxHeaderState* out);

// Read and parse the header of an open file (DPX when `dpx`, else Cineon).
bool ReadDpxHeaderFile(vx::os::FileHandle file, bool dpx, DpxHeaderState* out);

// Bytes of one line of one element in a DPX file, end-of-line padding not included; the one
// line-size rule of reader and writer. 8-bit lines are rounded up to whole 32-bit words unless
// `eightBitFlag`; when the flag is set it is the other depths that get rounded. Readers and the
// writer pass false; `eightBitFlag == (bits == 8)` gives the natural length of the samples.
// 0 for an unsupported depth.
std::uint64_t DpxLineBytes(std::uint32_t bits, std::uint32_t packing, std::uint64_t width,
                           std::uint32_t components, bool eightBitFlag);
// Bytes of one Cineon line.
std::uint64_t CineonLineBytes(std::uint32_t bits, std::uint64_t width, std::uint32_t components);

}  // namespace vx::dpx
