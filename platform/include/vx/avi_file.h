// AVI files through the system's AVI file library (Video for Windows). The component reads the
// streams' formats and raw samples through it and parses them itself; compressed pictures go
// through the system's decompressors. Null everywhere outside Windows, where FFmpeg reads AVI.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "vx/vxchar.h"

namespace vx::os {

// Four-character codes with the first letter in the low byte, as files store them.
constexpr std::uint32_t FourCC(char a, char b, char c, char d) {
  return static_cast<std::uint8_t>(a) | std::uint32_t{static_cast<std::uint8_t>(b)} << 8 |
         std::uint32_t{static_cast<std::uint8_t>(c)} << 16 |
         std::uint32_t{static_cast<std::uint8_t>(d)} << 24;
}

struct AviStreamInfo {
  std::uint32_t type = 0;     // "vids", "auds", ...
  std::uint32_t handler = 0;  // the codec's fourcc, 0 when none
  std::uint32_t scale = 1;    // rate / scale = samples per second
  std::uint32_t rate = 0;
  std::int64_t start = 0;   // first sample
  std::int64_t length = 0;  // samples (frames for video, blocks for sound)
  std::uint32_t suggestedBuffer = 0;
  std::uint32_t sampleSize = 0;  // bytes per sample, 0 when samples vary (video)
};

class AviStream {
 public:
  virtual ~AviStream() = default;
  virtual const AviStreamInfo& Info() const = 0;
  // The stream's format record as stored (BITMAPINFOHEADER with its palette or extra bytes,
  // WAVEFORMATEX with its cbSize bytes). False when it cannot be read.
  virtual bool ReadFormat(std::vector<std::uint8_t>* format) = 0;
  // Positions are the stream's own: the first sample is Info().start.
  // Raw samples [start, start + count) into `dst` of `capacity` bytes: one frame's bytes for
  // video, a run of blocks for sound. `*bytes` and `*samples` say what arrived.
  virtual bool Read(std::int64_t start, std::int64_t count, void* dst, std::size_t capacity,
                    std::size_t* bytes, std::int64_t* samples) = 0;
  // Whether the system has a decompressor that gives this stream's frames as `bits`-bit DIBs.
  virtual bool CanDecompress(int bits) = 0;
  // Frame `index` through the system's decompressor as a 24- or 32-bit DIB: the header
  // (BITMAPINFOHEADER, 40 bytes) followed by the rows as the header orders them. False when the
  // system has no decompressor for the stream or the frame fails.
  virtual bool Decompress(std::int64_t index, int bits, std::vector<std::uint8_t>* dib) = 0;
};

class AviFile {
 public:
  virtual ~AviFile() = default;
  virtual int StreamCount() const = 0;
  virtual AviStream* Stream(int index) = 0;  // owned by the file, valid while it lives
};

// Null when the file cannot be opened as AVI (or outside Windows).
std::unique_ptr<AviFile> OpenAviFile(const VxChar* path);

// A new AVI file (AVI 1.0: the library writes one RIFF of at most 2 GiB). Streams are released,
// then the file, when the writer is closed or destroyed.
class AviWriter {
 public:
  virtual ~AviWriter() = default;
  // The new stream's index, or -1. `info.length` and `info.start` are ignored.
  virtual int AddStream(const AviStreamInfo& info, const void* format, std::size_t formatBytes) = 0;
  // `samples` samples at `start` (-1: after the last) from `bytes` bytes; key frames marked so.
  virtual bool Write(int stream, std::int64_t start, std::int64_t samples, const void* data,
                     std::size_t bytes, bool key) = 0;
  // Releases streams and file; false when the library reported a failure on the way.
  virtual bool Close() = 0;
};

// Null when the file cannot be created (or outside Windows).
std::unique_ptr<AviWriter> CreateAviFile(const VxChar* path);

}  // namespace vx::os
