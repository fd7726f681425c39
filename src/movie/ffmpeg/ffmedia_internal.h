// What the reader and writer share; FFmpeg types stay behind this header.
#pragma once

#include <cstdint>
#include <vector>

#include "movie/ffmpeg/ffmedia.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace vx::ffmedia::detail {

// Frames larger than this are refused before anything is allocated for them.
constexpr int kMaxDimension = 16384;

Status FromAv(int err);

// v210 rows of 10-bit 4:2:2 planes (host-order 16-bit samples) and back.
void PackV210Row(const std::uint16_t* y, const std::uint16_t* cb, const std::uint16_t* cr,
                 int width, std::uint8_t* dst);
void UnpackV210Row(const std::uint8_t* src, int width, std::uint16_t* y, std::uint16_t* cb,
                   std::uint16_t* cr);

// Converts between frames and caller buffers with a cached scaler. The conversion follows what
// FFmpeg's own command line does (bicubic, the frame's matrix and range), so our frames and its
// decode agree.
class PixelConverter {
 public:
  ~PixelConverter();
  // A decoded frame into the caller's buffer.
  Status ToLayout(const AVFrame* frame, PixelLayout layout, std::uint8_t* dst,
                  std::ptrdiff_t stride);
  // The caller's buffer into an encoder's frame (allocated by the caller in its format).
  Status FromLayout(const std::uint8_t* src, std::ptrdiff_t stride, PixelLayout layout,
                    AVFrame* frame);

 private:
  Status Scale(const std::uint8_t* const src[4], const int srcStride[4], AVPixelFormat srcFormat,
               int srcSpace, int srcRange, int width, int height, std::uint8_t* const dst[4],
               const int dstStride[4], AVPixelFormat dstFormat, int dstSpace, int dstRange);

  // One scaler per band of rows converted side by side; [0] converts whole pictures.
  std::vector<SwsContext*> sws_;
  std::vector<std::uint8_t> scratch_;
  std::vector<std::uint8_t> bounceSrc_;
  std::vector<std::uint8_t> bounceDst_;
};

}  // namespace vx::ffmedia::detail
