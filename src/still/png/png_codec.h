// PNG files over memory: our own walk over the chunks (structure, colour information, texts,
// pHYs) and libpng for the pixels, both ways. libpng's errors end in a false return, never in a
// jump through C++ frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "vx/sdk.h"

namespace vx::png {

enum ColorType : int { kGrey = 0, kRgb = 2, kPalette = 3, kGreyAlpha = 4, kRgba = 6 };

using Texts = std::vector<std::pair<std::string, std::string>>;

struct PngInfo {
  std::uint32_t width = 0, height = 0;
  int bitDepth = 0;
  int colorType = 0;
  bool interlaced = false;
  bool hasTrns = false;
  std::uint32_t gamma = 0;  // gAMA times 100000; 0 when absent
  int srgbIntent = -1;      // sRGB rendering intent; -1 when absent
  std::string iccName;      // iCCP profile name
  bool hasChrm = false;
  double chrm[8] = {};  // x, y of red, green, blue and white
  bool hasPhys = false;
  std::uint32_t physX = 0, physY = 0;
  int physUnit = 0;  // 1: metre
  std::string time;  // tIME as "YYYY-MM-DDTHH:MM:SS"
  Texts texts;       // tEXt, zTXt and iTXt in file order, values UTF-8
  std::uint64_t idatBytes = 0;

  bool Alpha() const { return colorType == kGreyAlpha || colorType == kRgba || hasTrns; }
  bool Grey() const { return colorType == kGrey || colorType == kGreyAlpha; }
  const char* ColorTypeName() const;
};

// Walks the whole file: signature, IHDR first and valid, every chunk inside the file, PLTE where
// a palette needs one, IDAT present, IEND reached, and a picture its IDAT bytes could inflate
// to. Ancillary chunks we read are skipped when their CRC is wrong, as libpng does.
bool ParsePng(const std::uint8_t* data, std::size_t size, PngInfo* info);

// Where and how the pixels go: RGBA8, BGRA8, RGB8, RGBA16, RGB16 (host byte order) any file;
// GRAY8/GRAY16 only grey files. Depth must match: 16-bit files into 16-bit formats only.
struct PngTarget {
  std::uint8_t* pixels = nullptr;
  std::int64_t rowStride = 0;
  VxPixelFormat format = VX_PF_UNKNOWN;
};
bool CanDecodeInto(const PngInfo& info, VxPixelFormat format);

// Decodes a file ParsePng accepted. False on any libpng error (rows may be partly written).
bool DecodePng(const std::uint8_t* data, std::size_t size, const PngInfo& info,
               const PngTarget& target);

struct PngWriteInfo {
  int width = 0, height = 0;
  int channels = 4;  // 1 grey, 2 grey + alpha, 3 RGB, 4 RGBA
  int bitDepth = 8;
  int level = 6;      // zlib level
  Texts texts;        // keyword, UTF-8 value (tEXt when Latin-1 fits, else iTXt)
  double aspect = 0;  // pixel aspect for pHYs; 0: none
  bool srgb = false;
  int srgbIntent = 0;
  std::uint32_t gamma = 0;  // gAMA times 100000; 0: none
  bool hasChrm = false;
  double chrm[8] = {};
};

// `rows`: height rows of width * channels samples in file order (16-bit samples big-endian).
bool EncodePng(const PngWriteInfo& info, const std::uint8_t* rows, std::vector<std::uint8_t>* out);

}  // namespace vx::png
