// Movies through FFmpeg's libraries: tracks, frames by index into host pixel layouts, PCM by
// sample range, and MOV writing. Nothing of FFmpeg appears here, so the decoder program and the
// in-process parsers include a plain header. One reader or writer object per thread; they keep
// no global state of their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vx::ffmedia {

enum class Status {
  kOk,
  kFail,         // malformed or unreadable file, decoder error
  kOutOfMemory,  // an allocation failed
  kInvalidArg,   // index out of range, bad buffer, bad settings
  kUnsupported,  // the frame cannot be delivered in the asked pixel layout
};

struct Rational {
  std::int64_t num = 0;
  std::int64_t den = 1;
  double Value() const { return den ? static_cast<double>(num) / static_cast<double>(den) : 0.0; }
  bool operator==(const Rational&) const = default;
};

enum class FieldOrder { kUnknown, kProgressive, kTopFirst, kBottomFirst };

// The layouts frames are delivered in and handed over in. Multi-byte samples are host order
// unless the name says otherwise.
enum class PixelLayout {
  kRGB24,     // R G B
  kBGR24,     // B G R ("24BG")
  kRGBA8,     // R G B A
  kBGRA8,     // B G R A
  kUYVY8,     // Cb Y0 Cr Y1 ("2vuy")
  kV210,      // 10-bit 4:2:2, 6 pixels in 16 bytes, rows of 48-pixel groups
  kRGBA16BE,  // 16-bit R G B A, big-endian ("b64a")
  kRGB16,     // 16-bit R G B
  kRGBA16,    // 16-bit R G B A
  kRGBF32,    // float R G B, 0..1
  kRGBAF32,   // float R G B A, 0..1
};

// Bytes of one row of `width` pixels without padding; v210 rows are rounded to 128 bytes.
// Inline, so builds without FFmpeg (the Windows backend of the movie seam) share it.
inline std::size_t MinRowBytes(PixelLayout layout, int width) {
  if (width <= 0) return 0;
  const auto w = static_cast<std::size_t>(width);
  switch (layout) {
    case PixelLayout::kRGB24:
    case PixelLayout::kBGR24:
      return 3 * w;
    case PixelLayout::kRGBA8:
    case PixelLayout::kBGRA8:
      return 4 * w;
    case PixelLayout::kUYVY8:
      return 2 * (w + (w & 1));
    case PixelLayout::kV210:
      return (w + 47) / 48 * 128;
    case PixelLayout::kRGBA16BE:
    case PixelLayout::kRGBA16:
      return 8 * w;
    case PixelLayout::kRGB16:
      return 6 * w;
    case PixelLayout::kRGBF32:
      return 12 * w;
    case PixelLayout::kRGBAF32:
      return 16 * w;
  }
  return 0;
}

enum class SampleLayout { kS16, kS24, kS32, kF32 };  // interleaved, little-endian; kS24 packed
inline int SampleBytes(SampleLayout layout) {
  switch (layout) {
    case SampleLayout::kS16:
      return 2;
    case SampleLayout::kS24:
      return 3;
    case SampleLayout::kS32:
    case SampleLayout::kF32:
      return 4;
  }
  return 0;
}

struct VideoTrack {
  int stream = -1;           // stream index in the file
  std::string codec;         // FFmpeg's codec name ("h264", "prores", ...)
  std::uint32_t fourcc = 0;  // the file's codec tag, first letter in the low byte; 0 if none
  int width = 0;
  int height = 0;
  Rational rate;            // frames per second
  std::int64_t frames = 0;  // presentation frames
  Rational pixelAspect{1, 1};
  FieldOrder fieldOrder = FieldOrder::kUnknown;
  bool alpha = false;
  int bitDepth = 8;
  std::string nativeFormat;  // the decoder's own pixel format name
  std::string timecode;      // the track's own start time code (MOV tmcd, MXF source), or ""
};

struct AudioTrack {
  int stream = -1;
  std::string codec;
  int sampleRate = 0;
  int channels = 0;
  int bits = 0;  // bits per sample of the coded data, or of the decoder's output when compressed
  bool floating = false;
  std::uint64_t channelMask = 0;  // speaker bits as in WAVE_FORMAT_EXTENSIBLE; 0 if unknown
  std::string channelLayout;      // "stereo", "5.1", ...
  std::int64_t samples = 0;       // sample frames the decoder delivers
  std::string timecode;           // the track's own start time code, or ""
};

// A track of an MXF package: one stream of the file.
struct PackageTrack {
  int stream = -1;       // stream index in the file
  std::string kind;      // "picture", "sound" or "data"
  std::string name;      // the track's name, or ""
  std::string timecode;  // its own start time code where it differs from the package's, or ""
};

enum class PackageKind { kMaterial, kSource };

// An MXF package as libavformat reports it: the material package (what editing systems show)
// and the file (source) packages that hold the essence.
struct Package {
  PackageKind kind = PackageKind::kMaterial;
  std::string name;
  std::string umid;      // "0x060A2B34..." (32 bytes in hex) or ""
  std::string timecode;  // start time code, or ""
  std::string reel;      // the physical source (tape) the package came from, or ""
  std::vector<PackageTrack> tracks;
};

struct MediaInfo {
  std::string container;  // libavformat's format name
  double duration = 0;    // seconds
  std::vector<VideoTrack> video;
  std::vector<AudioTrack> audio;
  std::string timecode;  // start time code "HH:MM:SS:FF" (";" before FF when drop-frame), or ""
  std::vector<std::pair<std::string, std::string>> metadata;  // container items in file order
  std::vector<Package> packages;   // MXF: the material package first, then the source packages
  std::string operationalPattern;  // MXF: "OP1a" ... "OP3c", "OPAtom", the UL when neither, or ""
};

class MediaReader {
 public:
  MediaReader();
  ~MediaReader();
  MediaReader(const MediaReader&) = delete;
  MediaReader& operator=(const MediaReader&) = delete;

  // Opens, lists the tracks and builds the packet index of every track (one pass of demuxing;
  // compressed sound is decoded once to count its samples exactly).
  Status Open(const std::string& path);
  // The same over bytes the caller keeps alive until Close.
  Status OpenMemory(const std::uint8_t* data, std::size_t size);
  void Close();
  bool IsOpen() const;
  const MediaInfo& Info() const;

  // Frame `index` (presentation order) of video track `track` into `dst`, rows `stride` bytes
  // apart. kUnsupported when the layout cannot be delivered for this track.
  Status ReadFrame(int track, std::int64_t index, PixelLayout layout, std::uint8_t* dst,
                   std::ptrdiff_t stride);
  // Sample frames [start, start + count) of audio track `track`, interleaved; past the end the
  // buffer is filled with silence and `*got` (when given) says how many were real.
  Status ReadAudio(int track, std::int64_t start, std::int64_t count, SampleLayout layout,
                   void* dst, std::int64_t* got = nullptr);

  // How often a read had to seek (tests check that sequential reads do not).
  std::int64_t SeekCount() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

enum class VideoCodec {
  kProRes422HQ,
  kProRes4444,
  kDNxHRHQ,
  kDNxHRHQX,
  kV210,
  kRGB24,
  kRGBA8,
  kBGR24,  // AVI: uncompressed 24-bit DIB
  kBGRA8,  // AVI: uncompressed 32-bit DIB
  kMJPEG,  // motion JPEG, 4:2:2
};

// What MovWriter writes. AVI switches to OpenDML indexes by itself past its 1 GB limit; MXF is
// OP1a.
enum class OutputContainer { kMov, kAvi, kMxf };

struct VideoSettings {
  VideoCodec codec = VideoCodec::kProRes422HQ;
  int width = 0;
  int height = 0;
  Rational rate{25, 1};
  FieldOrder fieldOrder = FieldOrder::kProgressive;
};

struct AudioSettings {
  int sampleRate = 48000;
  int channels = 2;
  int bits = 24;  // 16 or 24
};

// Writes a MOV (or an AVI or MXF) under a temporary name and renames it on Finish; a writer
// destroyed without Finish leaves no file.
class MovWriter {
 public:
  MovWriter();
  ~MovWriter();
  MovWriter(const MovWriter&) = delete;
  MovWriter& operator=(const MovWriter&) = delete;

  // `video` may be null for a sound-only movie; `timecode` "HH:MM:SS:FF" (or "" for none).
  Status Open(const std::string& path, const VideoSettings* video,
              const std::vector<AudioSettings>& audio, const std::string& timecode = "",
              const std::vector<std::pair<std::string, std::string>>& metadata = {},
              OutputContainer container = OutputContainer::kMov);
  Status WriteFrame(const std::uint8_t* src, std::ptrdiff_t stride, PixelLayout layout);
  Status WriteAudio(int track, const void* src, std::int64_t count, SampleLayout layout);
  Status Finish();
  std::int64_t FramesWritten() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vx::ffmedia
