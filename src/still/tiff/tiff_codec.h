// TIFF through libtiff over files held in memory: one page's description, its decoding into
// 8-bit, 16-bit or float RGBA rows (bands of strips or tiles side by side, one libtiff handle per
// worker), and the writer. No libtiff type leaves tiff_codec.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vx {
class WorkerPool;
}

namespace vx::tiff {

// False on builds without libtiff: every read and write then fails.
bool Available();

enum class Depth { k8, k16, kFloat };

struct TiffPage {
  std::uint32_t width = 0, height = 0;  // as stored, before the orientation
  std::uint16_t bits = 0, samples = 0, sampleFormat = 1, photometric = 0, planar = 1;
  std::uint16_t compression = 1, predictor = 1, orientation = 1, inkSet = 1;
  std::uint16_t alpha = 0;  // 0 none, 1 associated, 2 unassociated, 3 unspecified extra sample
  bool tiled = false;
  bool rgbaInterface = false;  // decoded by libtiff's RGBA interface (YCbCr, Lab, ...)
  float xres = 0, yres = 0;
  std::uint16_t resolutionUnit = 2;
  int pages = 1;
  std::string description, software, dateTime, artist, copyright, documentName;

  bool Transposed() const { return orientation >= 5 && orientation <= 8; }
  int ShownWidth() const { return static_cast<int>(Transposed() ? height : width); }
  int ShownHeight() const { return static_cast<int>(Transposed() ? width : height); }
  bool HasAlpha() const { return alpha != 0; }
  bool Grey() const { return !rgbaInterface && (photometric == 0 || photometric == 1); }
  Depth NativeDepth() const;
};

// Page `page` of the file; false (with libtiff's message in `error`) for anything libtiff or our
// checks refuse, including data that does not lie inside the file.
bool ReadTiffPage(const std::uint8_t* data, std::size_t size, int page, TiffPage* out,
                  std::string* error);

struct TiffTarget {
  std::uint8_t* pixels = nullptr;
  std::int64_t rowStride = 0;
  Depth depth = Depth::k8;  // RGBA of 8-bit, 16-bit or float samples
};

// Decodes page `page` (described by `p`) into `t`, shown as its orientation says.
bool DecodeTiff(const std::uint8_t* data, std::size_t size, int page, const TiffPage& p,
                const TiffTarget& t, vx::WorkerPool* pool, std::string* error);

enum class Compression { kNone, kLzw, kDeflate, kPackBits };

struct TiffWriteInfo {
  int width = 0, height = 0;
  int channels = 3;  // 1 grey, 3 RGB, 4 RGBA (unassociated)
  Depth depth = Depth::k8;
  Compression compression = Compression::kDeflate;
  double aspect = 0.0;                                   // 0: none written
  std::string description, artist, copyright, dateTime;  // dateTime "YYYY:MM:DD HH:MM:SS"
};

// `pixels` hold `channels` samples per pixel of the depth's type, lines `stride` bytes apart.
bool EncodeTiff(const TiffWriteInfo& info, const std::uint8_t* pixels, std::int64_t stride,
                std::vector<std::uint8_t>* out, std::string* error);

const char* CompressionName(std::uint16_t code);
const char* PhotometricName(std::uint16_t code);

}  // namespace vx::tiff
