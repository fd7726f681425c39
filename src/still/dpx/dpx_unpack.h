// Sample unpackers of the DPX/Cineon reader: stored code values straight into 16-bit or float
// host pixels, never through 8 bits.
//
// Scaling: an integer code value v of b bits becomes round(v * 65535 / (2^b - 1)) in 16-bit
// pixels (exact bit replication for 8 and 16 bits) and v / (2^b - 1) in float pixels, so 10-bit
// 1023 is 65535 and 1.0. Float samples go to float pixels unchanged and to 16-bit pixels clamped
// to [0, 1] (NaN as 0) and rounded.
//
// Storage: 10- and 12-bit packed samples run back to back through 32-bit words of the file's
// byte order, first sample in the lowest bits. 10-bit filled words hold three samples, the first
// in the highest bits, with the two spare bits at the bottom (method A) or top (method B). 12-bit
// filled samples sit in 16-bit words, at the top (method A) or bottom (method B). 1-bit samples
// run through bytes, first sample in the lowest bit. 16-bit and float samples are in the file's
// byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vx {
class WorkerPool;
}

namespace vx::dpx {

struct DpxSampleLayout {
  std::uint32_t bits = 10;  // 1, 8, 10, 12, 16 or 32 (float)
  std::uint32_t packing = 1;
  std::uint32_t components = 3;  // samples per pixel in this element
  bool bigEndian = true;
};

// Bytes that `samples` samples of one line occupy (what the unpacker reads).
std::uint64_t DpxSampleBytes(const DpxSampleLayout& layout, std::uint64_t samples);

// One line: `count` integer samples (depth up to 16) into code values.
void UnpackCodes(const std::uint8_t* src, const DpxSampleLayout& layout, std::size_t count,
                 std::uint16_t* out);
// One line: `count` 32-bit float samples.
void UnpackFloats(const std::uint8_t* src, bool bigEndian, std::size_t count, float* out);

// Code value of `bits` bits to a 16-bit pixel value and to a float (see the scaling above).
std::uint16_t CodeTo16(std::uint32_t code, std::uint32_t bits);
float CodeToFloat(std::uint32_t code, std::uint32_t bits);

// Pixels to decode into: 16-bit or float samples, 1, 3 or 4 channels, row 0 at the top.
struct DpxTarget {
  std::uint8_t* pixels = nullptr;
  std::ptrdiff_t rowStride = 0;  // bytes
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t channels = 4;
  bool isFloat = false;
};

// One stored element and where its components go.
struct DpxElementJob {
  const std::uint8_t* data = nullptr;  // the element's first line
  std::size_t size = 0;                // bytes available from `data`
  std::uint64_t rowStride = 0;         // line bytes plus end-of-line padding
  DpxSampleLayout layout;
  std::int8_t channelOf[4] = {0, 1, 2, 3};  // target channel per component, -1 to drop it
  bool replicateLuma = false;               // component 0 also to channels 1 and 2
};

// True when every line of a width x height element lies inside the job's data.
bool DpxJobFits(const DpxElementJob& job, std::uint32_t width, std::uint32_t height);

// Orientation codes 0-3 mirror lines (1, 3) and line order (2, 3). Codes 4-7 store columns as
// lines: the target is then the element turned, lines-per-element wide and pixels-per-line high
// (4: lines left to right, each top to bottom; 5: lines right to left; 6: each line bottom to
// top; 7: both).
// Decodes every job into the target (otherwise of the elements' size), sets `fillChannel` (or
// none when negative) to full scale, and splits the lines into bands on `pool` (on the caller
// alone when null). False when a job does not fit its data or the target is unusable; nothing is
// decoded then. A column-wise element needs a turned copy of the picture: std::bad_alloc when
// it cannot be had.
bool DpxDecode(const DpxElementJob* jobs, int jobCount, const DpxTarget& target,
               std::uint32_t orientation, int fillChannel, WorkerPool* pool);

}  // namespace vx::dpx
