// Helpers of the DPX writer tests: test pictures with known code values and reading elements
// back through the reader's unpackers.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_header.h"
#include "still/dpx/dpx_unpack.h"
#include "still/dpx/dpx_writer.h"
#include "vx/com_ptr.h"
#include "vx/sdk.h"

namespace dpxtest {

using ImagePtr = vx::ComPtr<IVxImage>;

// Code value of channel `ch` (0 R .. 3 A) of pixel (x, y) at `bits`: spreads over the range and
// hits 0 and the top code.
inline std::uint32_t TestCode(std::uint32_t x, std::uint32_t y, std::uint32_t ch,
                              std::uint32_t bits) {
  const std::uint64_t top = (std::uint64_t{1} << bits) - 1;
  const std::uint32_t k = x * 7 + y * 13 + ch * 5;
  if (k % 11 == 0) return 0;
  if (k % 11 == 1) return static_cast<std::uint32_t>(top);
  return static_cast<std::uint32_t>((std::uint64_t{k} * 2654435761u >> 7) % (top + 1));
}

inline float TestFloat(std::uint32_t x, std::uint32_t y, std::uint32_t ch) {
  const std::uint32_t k = x * 7 + y * 13 + ch * 5;
  return static_cast<float>(k % 97) / 64.0f - 0.25f;  // some out of [0, 1], all exact in f32
}

// A w x h RGBA picture whose samples become TestCode(..., bits) when written at `bits`
// (16-bit pixels for integer depths, float pixels for 32).
inline IVxImage* MakeTestImage(std::uint32_t w, std::uint32_t h, std::uint32_t bits) {
  IVxImage* img = nullptr;
  const VxPixelFormat f = bits == 32 ? VX_PF_RGBAF32 : VX_PF_RGBA16;
  if (FAILED(VxCreateImage(static_cast<int>(w), static_cast<int>(h), f, &img))) return nullptr;
  for (std::uint32_t y = 0; y < h; ++y) {
    std::uint8_t* row = img->GetBuffer() + std::ptrdiff_t{img->GetRowStride()} * y;
    for (std::uint32_t x = 0; x < w; ++x)
      for (std::uint32_t c = 0; c < 4; ++c) {
        if (bits == 32) {
          reinterpret_cast<float*>(row)[x * 4 + c] = TestFloat(x, y, c);
        } else {
          reinterpret_cast<std::uint16_t*>(row)[x * 4 + c] =
              vx::dpx::CodeTo16(TestCode(x, y, c, bits), bits);
        }
      }
  }
  return img;
}

// Bytes of one written line, worked out apart from the writer: 1 bit eight to a byte, 10 bits
// three to a word (filled) or back to back in words (packed), 12 bits filled one to a 16-bit
// word, 8-bit lines rounded up to a whole word.
inline std::uint64_t WrittenLine(std::uint32_t bits, std::uint32_t packing, std::uint64_t samples) {
  switch (bits) {
    case 1:
      return (samples + 7) / 8;
    case 8:
      return (samples + 3) / 4 * 4;
    case 10:
      return packing ? (samples + 2) / 3 * 4 : (samples * 10 + 31) / 32 * 4;
    case 12:
      return packing ? samples * 2 : (samples * 12 + 31) / 32 * 4;
    default:
      return samples * (bits / 8);
  }
}

// One element of a written file, unpacked: `components` samples per pixel, row 0 on top.
struct ElementSamples {
  std::uint32_t descriptor = 0;
  std::uint32_t components = 0;
  std::uint32_t bits = 0;
  std::uint32_t packing = 0;
  std::vector<std::uint32_t> codes;  // integer depths
  std::vector<float> floats;         // 32-bit float
};

// Unpacks element `index` of a whole DPX file with the reader's unpackers; false when it does
// not fit the file.
bool ReadElement(const std::vector<std::uint8_t>& file, std::uint32_t index, ElementSamples* out);

}  // namespace dpxtest
