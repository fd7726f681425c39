#include "dpx_write_test_util.h"

namespace dpxtest {

using namespace vx;
using namespace vx::dpx;

bool ReadElement(const std::vector<std::uint8_t>& file, std::uint32_t index, ElementSamples* out) {
  if (file.size() < kHeaderSize) return false;
  const bool big = file[0] == 'S';
  const std::uint8_t* h = file.data();
  const std::uint8_t* e = h + ElementOffset(index);
  const std::uint32_t width = Load32(h + kOffPixelsPerLine, big);
  const std::uint32_t height = Load32(h + kOffLinesPerElement, big);
  out->descriptor = e[kElDescriptor];
  out->bits = e[kElBitSize];
  out->packing = Load16(e + kElPacking, big);
  const std::uint32_t d = out->descriptor;
  out->components = d == kDescRGBA || d == kDescABGR ? 4 : d == kDescRGB || d == kDescBGR ? 3 : 1;
  const std::uint64_t offset = Load32(e + kElDataOffset, big);
  const std::uint64_t line =
      WrittenLine(out->bits, out->packing, std::uint64_t{width} * out->components) +
      Load32(e + kElEolPadding, big);
  if (offset + line * height > file.size()) return false;
  const std::size_t n = std::size_t{width} * out->components;
  DpxSampleLayout layout;
  layout.bits = out->bits;
  layout.packing = out->packing;
  layout.components = out->components;
  layout.bigEndian = big;
  std::vector<std::uint16_t> codes(n);
  std::vector<float> floats(n);
  for (std::uint32_t y = 0; y < height; ++y) {
    const std::uint8_t* src = h + offset + line * y;
    if (out->bits == 32) {
      UnpackFloats(src, big, n, floats.data());
      out->floats.insert(out->floats.end(), floats.begin(), floats.end());
    } else {
      UnpackCodes(src, layout, n, codes.data());
      out->codes.insert(out->codes.end(), codes.begin(), codes.end());
    }
  }
  return true;
}

}  // namespace dpxtest
