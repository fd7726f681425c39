// Rows of the uncompressed AVI picture formats to and from the host layouts. Pure byte code,
// no OS: the Video for Windows backend reads these formats raw and converts them itself.
#pragma once

#include <cstddef>
#include <cstdint>

#include "movie/ffmpeg/ffmedia.h"

namespace vx::movie::vfw {

// Row formats as they lie in a file or a host buffer.
enum class RowFormat {
  kBgr24,   // B G R
  kRgb24,   // R G B
  kBgra32,  // B G R A
  kRgba32,  // R G B A
  kUyvy,    // Cb Y0 Cr Y1
  kYuy2,    // Y0 Cb Y1 Cr
  kV210,    // 10-bit 4:2:2, 6 pixels in four little-endian words
};

std::size_t FormatRowBytes(RowFormat format, int width);

// The format a host layout's rows already have, if any (false for 16-bit and float layouts).
bool FormatOfLayout(ffmedia::PixelLayout layout, RowFormat* format);

// Converts one row. YCbCr is video range, BT.709 when `hd` else BT.601; chroma is taken per
// pixel pair. False when the pair is not converted (RGB into YCbCr).
bool ConvertRow(RowFormat from, const std::uint8_t* src, int width, ffmedia::PixelLayout to,
                std::uint8_t* dst, bool hd);

// A row of a 16-bit or float RGB(A) host layout as 8-bit R G B A, for writing 8-bit files.
// False for the other layouts.
bool ToRgba8Row(ffmedia::PixelLayout from, const std::uint8_t* src, int width, std::uint8_t* dst);

// Pictures of this size are HD and use BT.709.
inline bool IsHd(int width, int height) {
  return width >= 1280 || height > 576;
}

}  // namespace vx::movie::vfw
