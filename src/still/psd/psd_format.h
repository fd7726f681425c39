// Photoshop documents (PSD, and PSB for large documents): the header, colour mode data, image
// resources, the layer records' count and names, and the merged picture that follows them.
// Everything big-endian. The reader takes what a picture needs and checks every length against
// the file before it allocates.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vx/platform.h"

namespace vx {
class WorkerPool;
}

namespace vx::psd {

inline constexpr std::size_t kHeaderSize = 26;

enum Mode : std::uint16_t {
  kBitmap = 0,
  kGrey = 1,
  kIndexed = 2,
  kRgb = 3,
  kCmyk = 4,
  kMultichannel = 7,
  kDuotone = 8,
  kLab = 9,
};

enum Compression : std::uint16_t { kRaw = 0, kRle = 1, kZip = 2, kZipPredicted = 3 };

const char* ModeName(std::uint16_t mode);

struct PsdDocument {
  bool large = false;  // PSB
  std::uint16_t channels = 0, depth = 0, mode = 0, compression = 0;
  std::uint32_t width = 0, height = 0;
  int colourChannels = 0;  // of the merged picture, before any alpha
  bool alpha = false;      // the first extra channel is the merged transparency
  int transparentIndex = -1;
  std::vector<std::uint8_t> palette;  // 256 R, 256 G, 256 B
  // Resolution in pixels per inch (0 when the file has none) and Photoshop's own pixel aspect.
  double xResolution = 0.0, yResolution = 0.0, pixelAspect = 0.0;
  std::string writer;  // of the version info resource
  bool layersPresent = false;
  int layerCount = 0;
  std::vector<std::string> layerNames;  // UTF-8, bottom layer first
  std::uint64_t dataOffset = 0;         // of the merged picture's compression field
  std::uint64_t fileSize = 0;

  int ReadChannels() const { return colourChannels + (alpha ? 1 : 0); }
  std::uint64_t RowBytes() const { return (std::uint64_t{width} * depth + 7) / 8; }
};

// Reads and checks everything before the merged picture. False for what this reader cannot
// take (modes without an RGB meaning, depths other than 1/8/16/32, ZIP-compressed pictures) or a
// length that runs past its section or the file.
bool ReadPsdDocument(vx::os::FileHandle file, PsdDocument* doc);

// The merged picture's channels as stored: for RLE, where each row of each channel to read lies
// within `data`.
struct PsdPicture {
  std::vector<std::uint8_t> data;
  std::vector<std::uint64_t> rowOffset;  // channels x height + 1, RLE only
  std::uint64_t planeBytes = 0;          // raw only: one channel's rows
};

// Reads the channels the picture needs and checks that every RLE row fills its line within its
// byte count (nothing is decoded into a caller's picture before this answers true).
bool ReadPsdPicture(vx::os::FileHandle file, const PsdDocument& doc, PsdPicture* picture,
                    vx::WorkerPool* pool);

// One packed row into exactly `size` bytes. False when a run passes the line or the row ends
// before the line is full.
bool UnpackRow(const std::uint8_t* in, std::size_t inSize, std::uint8_t* out, std::size_t size);

// Decodes into rows of four channels of the document's sample type (8-bit for 1/8-bit
// documents, 16-bit for 16, float for 32), top line first. Opaque alpha when the document has
// none.
bool DecodePsd(const PsdDocument& doc, const PsdPicture& picture, std::uint8_t* pixels,
               std::int64_t rowStride, vx::WorkerPool* pool);

struct PsdWriteInfo {
  int width = 0, height = 0;
  int depth = 8;  // 8 or 16
  bool alpha = false;
  double pixelAspect = 1.0;
  double resolution = 72.0;  // horizontal, pixels per inch
};

// The whole file: RLE merged picture from rows of four channels (8-bit, or 16-bit in host
// order), with resolution, pixel aspect and version info, and for alpha a layer section that
// marks the first extra channel as the merged transparency.
bool EncodePsd(const PsdWriteInfo& info, const std::uint8_t* pixels, std::int64_t rowStride,
               vx::WorkerPool* pool, std::vector<std::uint8_t>* out);

}  // namespace vx::psd
