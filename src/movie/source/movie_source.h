// What the in-process movie parsers (AVI, MXF) read and write through. On Linux both containers
// go through FFmpeg's libraries; on Windows AVI goes through Video for Windows and MXF has no
// backend. The types are the FFmpeg media library's plain ones: that header pulls in nothing of
// FFmpeg, so the Windows build uses them too without linking it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "movie/ffmpeg/ffmedia.h"

namespace vx::movie {

enum class Container { kAvi, kMxf };

class MovieSource {
 public:
  virtual ~MovieSource() = default;
  virtual ffmedia::Status Open(const std::string& path) = 0;
  virtual const ffmedia::MediaInfo& Info() const = 0;
  // Frame `index` of video track `track` into `dst`, rows `stride` bytes apart, top row first.
  // kUnsupported when this track cannot be delivered in `layout`.
  virtual ffmedia::Status ReadFrame(int track, std::int64_t index, ffmedia::PixelLayout layout,
                                    std::uint8_t* dst, std::ptrdiff_t stride) = 0;
  // Sample frames [start, start + count) of audio track `track`, interleaved; past the end the
  // rest is silence and `*got` (when given) says how many were real.
  virtual ffmedia::Status ReadAudio(int track, std::int64_t start, std::int64_t count,
                                    ffmedia::SampleLayout layout, void* dst,
                                    std::int64_t* got) = 0;
};

// Writes under a temporary name and renames on Finish; destroyed without Finish it leaves no
// file. kUnsupported from Open for a codec or layout this backend cannot write.
class MovieSink {
 public:
  virtual ~MovieSink() = default;
  virtual ffmedia::Status Open(
      const std::string& path, const ffmedia::VideoSettings* video,
      const std::vector<ffmedia::AudioSettings>& audio, const std::string& timecode,
      const std::vector<std::pair<std::string, std::string>>& metadata) = 0;
  virtual ffmedia::Status WriteFrame(const std::uint8_t* src, std::ptrdiff_t stride,
                                     ffmedia::PixelLayout layout) = 0;
  virtual ffmedia::Status WriteAudio(int track, const void* src, std::int64_t count,
                                     ffmedia::SampleLayout layout) = 0;
  virtual ffmedia::Status Finish() = 0;
};

// Null where this build has no backend for the container.
std::unique_ptr<MovieSource> MakeMovieSource(Container container);
std::unique_ptr<MovieSink> MakeMovieSink(Container container);

}  // namespace vx::movie
