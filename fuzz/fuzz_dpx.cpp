// DPX and Cineon header readers and the sample unpackers over arbitrary bytes. The first byte
// picks what is driven: a DPX header (whose first element is then decoded from the bytes that
// follow it), a Cineon header (likewise), or a raw unpack whose layout comes from the next bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "still/dpx/dpx_header.h"
#include "still/dpx/dpx_unpack.h"

namespace {

using namespace vx::dpx;

constexpr std::uint32_t kMaxPixels = 1u << 14;  // keeps every input quick

void Decode(const DpxElementJob& job, std::uint32_t width, std::uint32_t height,
            std::uint32_t orientation, std::uint32_t channels, bool isFloat) {
  if (width == 0 || height == 0 || std::uint64_t{width} * height > kMaxPixels) return;
  const std::size_t sample = isFloat ? 4 : 2;
  // Exactly the picture, no slack: any write past it is caught.
  std::vector<std::uint8_t> pixels(std::size_t{width} * height * channels * sample);
  DpxTarget t;
  t.pixels = pixels.data();
  t.rowStride = static_cast<std::ptrdiff_t>(std::size_t{width} * channels * sample);
  t.width = width;
  t.height = height;
  t.channels = channels;
  t.isFloat = isFloat;
  DpxDecode(&job, 1, t, orientation, channels == 4 ? 3 : -1, nullptr);
}

// The parsed header's first element over the bytes behind the header: the data handed over is
// a copy of exactly what the file holds from the element's offset on.
void DecodeHeader(const DpxHeaderState& s, bool dpx, const std::uint8_t* data, std::size_t size,
                  std::uint8_t pick) {
  const DpxElementInfo& e = s.elements[0];
  if (e.dataOffset >= size) return;
  std::vector<std::uint8_t> rest(data + e.dataOffset, data + size);
  DpxElementJob job;
  job.data = rest.data();
  job.size = rest.size();
  job.layout.bits = e.bitDepth;
  job.layout.packing = e.packing;
  job.layout.components = e.components;
  job.layout.bigEndian = s.bigEndian;
  const std::uint64_t line = dpx ? DpxLineBytes(e.bitDepth, e.packing, s.width, e.components, false)
                                 : CineonLineBytes(e.bitDepth, s.width, e.components);
  job.rowStride = line + e.eolPadding;
  job.replicateLuma = e.components == 1;
  const std::uint32_t channels = (pick & 1) ? 4 : 3;
  // Column-wise orientations show the element turned.
  const bool turned = s.orientation >= 4;
  Decode(job, turned ? s.height : s.width, turned ? s.width : s.height, s.orientation, channels,
         (pick & 2) != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::uint8_t mode = data[0] % 3;
  const std::uint8_t pick = data[0] >> 2;
  ++data;
  --size;
  // A copy of exactly `size` bytes, so that the sanitizer sees the end of the input.
  std::vector<std::uint8_t> bytes(data, data + size);
  DpxHeaderState s;
  if (mode == 0) {
    if (ParseDpxHeader(bytes.data(), bytes.size(), &s)) {
      DecodeHeader(s, true, bytes.data(), bytes.size(), pick);
    }
    return 0;
  }
  if (mode == 1) {
    CineonHeaderBytes(bytes.data(), bytes.size());
    if (ParseCineonHeader(bytes.data(), bytes.size(), &s)) {
      DecodeHeader(s, false, bytes.data(), bytes.size(), pick);
    }
    return 0;
  }
  // Raw unpack: eight bytes of layout, then the samples.
  if (size < 8) return 0;
  static const std::uint32_t kBits[] = {1, 8, 10, 12, 16, 32};
  static const std::uint32_t kComponents[] = {1, 3, 4};
  DpxElementJob job;
  job.layout.bits = kBits[bytes[0] % 6];
  job.layout.packing = bytes[1] % 3;
  job.layout.components = kComponents[bytes[2] % 3];
  job.layout.bigEndian = (bytes[3] & 1) != 0;
  const std::uint32_t width = 1 + bytes[4] % 64;
  const std::uint32_t height = 1 + bytes[5] % 16;
  const std::uint32_t orientation = bytes[6] % 8;
  const std::uint8_t flags = bytes[7];
  for (int k = 0; k < 4; ++k)
    job.channelOf[k] = static_cast<std::int8_t>(((flags >> k) & 1) ? k : 3 - k);
  std::vector<std::uint8_t> samples(bytes.begin() + 8, bytes.end());
  job.data = samples.data();
  job.size = samples.size();
  job.rowStride = DpxLineBytes(job.layout.bits, job.layout.packing, width, job.layout.components,
                               (flags & 0x10) != 0) +
                  (flags >> 5);
  job.replicateLuma = job.layout.components == 1 && (flags & 0x20);
  const std::uint32_t channels = kComponents[(flags >> 6) % 3];
  Decode(job, width, height, orientation, channels, (flags & 0x80) != 0);
  return 0;
}
