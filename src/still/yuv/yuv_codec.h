// Raw 4:2:2 Y'CbCr frames without a header, as finishing hosts exchange them: the layouts, the
// raster a file's size stands for, and the conversions to and from RGB.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vx {
class WorkerPool;
}

namespace vx::yuv {

enum class YuvLayout {
  Uyvy8,     // "YUV": Cb Y0 Cr Y1 bytes (FFmpeg uyvy422)
  Planar10,  // "YUV16": Y, Cb, Cr planes of 16-bit little-endian words holding 10 bits
             // (FFmpeg yuv422p10le)
};

struct YuvRaster {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
};

// Bits per code value of the layout (8 or 10).
int LayoutBits(YuvLayout layout);
// The layout's name in FFmpeg's words, as the metadata record carries it.
const char* LayoutName(YuvLayout layout);
// Bytes of one frame; 0 for an empty raster, an odd width or a frame past 4 GiB.
std::uint64_t FrameBytes(YuvLayout layout, YuvRaster raster);
// The standard raster whose frame is exactly `fileSize` bytes; false when none is.
bool RasterFromFileSize(YuvLayout layout, std::uint64_t fileSize, YuvRaster* out);
// "WxH" with an even width; false for anything else.
bool ParseRaster(std::string_view text, YuvRaster* out);

// Standard-definition rasters use the Rec. 601 matrix, all others Rec. 709.
inline bool IsStandardDefinition(YuvRaster r) {
  return r.height <= 576;
}

// An RGB picture of 8- or 16-bit samples, 3 or 4 channels (alpha opaque on decode, ignored on
// encode), rows `rowStride` bytes apart.
struct RgbPicture {
  std::uint8_t* pixels = nullptr;
  std::ptrdiff_t rowStride = 0;
  int channels = 3;
  bool deep = false;  // 16-bit samples
};

// Video-range Y'CbCr to full-range RGB: integer tables, chroma repeated over its two pixels (as
// FFmpeg's scaler does without full chroma interpolation). `data` holds FrameBytes of `raster`.
void DecodeFrame(YuvLayout layout, const std::uint8_t* data, YuvRaster raster,
                 const RgbPicture& out, WorkerPool* pool);

// Full-range 16-bit RGB to video-range Y'CbCr: luma per pixel, chroma from the average of each
// pair, rounded to nearest and clamped to the video range. `out` takes FrameBytes of `raster`.
void EncodeFrame(YuvLayout layout, const RgbPicture& in, YuvRaster raster, std::uint8_t* out,
                 WorkerPool* pool);

}  // namespace vx::yuv
