// Radiance RGBE pictures at the byte level: the text header and resolution line, the three
// scanline schemes (run-length per component, flat pixels, and the older repeat-pixel runs),
// and RGBE to float and back. Pure functions over memory; the parser does the file work.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vx::hdr {

// Orientation bits of the resolution line; 6 (-Y H +X W, rows top first) is the only one read.
enum : std::uint32_t {
  kYMajor = 4,  // the Y term comes first: rows run along X
  kXNegative = 1,
  kYNegative = 2,
  kTopDownRows = kYMajor | kYNegative,
};

struct HdrHeader {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::uint32_t orientation = 0;
  std::size_t dataOffset = 0;  // first byte of the first scanline
  std::string format;          // values of the FORMAT=, EXPOSURE=, PRIMARIES=, PIXASPECT= lines
  std::string exposure;        // several EXPOSURE= lines multiply, as the values are factors
  std::string primaries;
  std::string pixelAspect;
};

enum class HeaderResult { Ok, Malformed, NeedMore };

// Parses the header from the file's first `size` bytes. NeedMore when those end inside the
// header and `whole` says they are not the whole file.
HeaderResult ParseHdrHeader(const std::uint8_t* data, std::size_t size, bool whole, HdrHeader* out);

// The header our writer puts before the scanlines of a w x h picture.
std::string HdrHeaderText(std::int32_t width, std::int32_t height);

// Where each scanline starts: `starts` gets height + 1 offsets into `data` (the last is the end
// of the last scanline). False when any scanline is short, or a run overflows it.
bool IndexScanlines(const std::uint8_t* data, std::size_t size, std::size_t offset,
                    std::int32_t width, std::int32_t height, std::vector<std::size_t>* starts);

// Decodes the scanline in [p, p + size) into width RGBE quadruples.
bool DecodeScanline(const std::uint8_t* p, std::size_t size, std::int32_t width,
                    std::uint8_t* rgbe);

// Per exponent byte: the factor of (mantissa + 0.5), 2^(e - 136) x 2^exposure; 0 for e = 0.
void ExponentFactors(double exposureStops, float factors[256]);

// One row of RGBE quadruples to float RGBA (alpha 1).
void RgbeToFloat(const std::uint8_t* rgbe, std::int32_t width, const float factors[256],
                 float* rgba);

// One float pixel as RGBE.
void FloatToRgbe(float r, float g, float b, std::uint8_t out[4]);

// Appends one scanline of `width` float RGBA pixels: flat below 8 or above 32767 pixels, else
// the run-length scheme. `scratch` holds width x 4 bytes between calls.
void EncodeScanline(const float* rgba, std::int32_t width, std::vector<std::uint8_t>* scratch,
                    std::vector<std::uint8_t>* out);

}  // namespace vx::hdr
