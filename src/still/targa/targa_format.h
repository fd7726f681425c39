// Targa files: the 18-byte header, the colour map, the version 2 footer and extension area, and
// the pixel decoder and encoder. Everything little-endian, loaded through base/bytes.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vx/platform.h"

namespace vx {
class WorkerPool;
}

namespace vx::targa {

inline constexpr std::size_t kHeaderSize = 18;
inline constexpr std::size_t kFooterSize = 26;
inline constexpr std::size_t kExtensionSize = 495;
inline constexpr char kSignature[] = "TRUEVISION-XFILE.";  // 18 bytes with its NUL

// Image types.
enum : std::uint8_t {
  kTypeMapped = 1,
  kTypeTrueColor = 2,
  kTypeGrey = 3,
  kTypeMappedRle = 9,
  kTypeTrueColorRle = 10,
  kTypeGreyRle = 11,
};

// Offsets in the extension area.
enum : std::size_t {
  kExtAuthor = 2,             // 41 bytes
  kExtComment = 43,           // 4 lines of 81 bytes
  kExtDate = 367,             // month, day, year, hour, minute, second
  kExtJob = 379,              // 41 bytes
  kExtJobTime = 420,          // hours, minutes, seconds
  kExtSoftware = 426,         // 41 bytes
  kExtSoftwareVersion = 467,  // number x 100, then a letter
  kExtKeyColor = 470,
  kExtAspect = 474,  // numerator, denominator
  kExtGamma = 478,
  kExtAttributes = 494,
};

// The extension area's attributes type: what the alpha bits hold.
enum class AlphaKind { None, Undefined, Straight, Premultiplied };
const char* AlphaKindName(AlphaKind kind);
const char* OriginName(std::uint8_t descriptor);

struct TargaExtension {
  bool present = false;
  std::string author, comment, job, software, softwareVersion;
  std::uint16_t date[6] = {};  // month, day, year, hour, minute, second
  std::uint16_t jobTime[3] = {};
  std::uint32_t keyColor = 0;  // A:R:G:B
  std::uint16_t aspect[2] = {};
  std::uint16_t gamma[2] = {};
  std::uint8_t attributes = 0;
};

struct TargaHeader {
  std::uint8_t mapType = 0, imageType = 0, mapEntryBits = 0, pixelBits = 0, descriptor = 0;
  std::uint16_t mapFirst = 0, mapLength = 0, width = 0, height = 0;
  std::string imageId;
  std::uint64_t dataOffset = 0;
  std::uint64_t fileSize = 0;
  TargaExtension ext;

  bool Rle() const { return imageType >= kTypeMappedRle; }
  bool Mapped() const { return (imageType & 7) == kTypeMapped; }
  bool Grey() const { return (imageType & 7) == kTypeGrey; }
  int PixelBytes() const { return (pixelBits + 7) / 8; }
  int AlphaBits() const { return descriptor & 15; }
  bool RightToLeft() const { return (descriptor & 0x10) != 0; }
  bool TopToBottom() const { return (descriptor & 0x20) != 0; }
  // Whether the alpha the pixels (or map entries) carry is used as alpha; otherwise it reads
  // opaque.
  bool UsesAlpha() const;
  AlphaKind Alpha() const;
};

// Reads and checks the header, image id, footer and extension of an open file, and the colour
// map as BGRA values (index - mapFirst). False for anything this reader cannot take or a file too
// short for the picture it claims (before anything of the picture's size is allocated).
bool ReadTargaHeader(vx::os::FileHandle file, TargaHeader* header, std::vector<std::uint32_t>* map);

// Where the decoder puts pixels: 8-bit four-channel rows, top line first.
struct TargaTarget {
  std::uint8_t* pixels = nullptr;
  std::int64_t rowStride = 0;
  bool rgba = false;  // R, G, B, A rather than B, G, R, A
};

// Decodes the pixel data (`data`, `size` bytes from the header's dataOffset) into `target`.
// False for truncated data, a run past the last pixel or an index outside the map; lines
// already decoded stay in the target then.
bool DecodeTarga(const TargaHeader& h, const std::vector<std::uint32_t>& map,
                 const std::uint8_t* data, std::size_t size, const TargaTarget& target,
                 vx::WorkerPool* pool);

// Checks that the run-length data (or the uncompressed lines) cover the picture; no pixels.
bool CheckTargaData(const TargaHeader& h, const std::uint8_t* data, std::size_t size);

struct TargaWriteInfo {
  bool rle = true;
  bool topToBottom = false;
  bool alpha = false;  // 32-bit with straight alpha, else 24-bit
  std::string imageId, author, comment, job, software = "vxprsr";
  std::uint16_t date[6] = {};
  std::uint16_t jobTime[3] = {};
  std::uint32_t keyColor = 0;
  std::uint16_t aspect[2] = {};
  std::uint16_t gamma[2] = {};
};

// The whole file for a picture of 8-bit BGRA or RGBA rows, top line first.
bool EncodeTarga(const TargaWriteInfo& info, const std::uint8_t* pixels, std::int64_t rowStride,
                 bool rgba, int width, int height, vx::WorkerPool* pool,
                 std::vector<std::uint8_t>* out);

// The closest fraction n / d of `value` with both at most 65535 (0 / 0 for an unusable value).
void Fraction(double value, std::uint16_t out[2]);

}  // namespace vx::targa
