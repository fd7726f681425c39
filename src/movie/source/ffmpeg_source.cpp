// The FFmpeg backend of the movie seam: both containers through the FFmpeg media library.
#include <memory>
#include <mutex>
#include <new>

#include "movie/source/movie_source.h"

namespace vx::movie {
namespace {

using ffmedia::Status;

class FfmpegSource final : public MovieSource {
 public:
  Status Open(const std::string& path) override { return reader_.Open(path); }
  const ffmedia::MediaInfo& Info() const override { return reader_.Info(); }
  Status ReadFrame(int track, std::int64_t index, ffmedia::PixelLayout layout, std::uint8_t* dst,
                   std::ptrdiff_t stride) override {
    std::lock_guard<std::mutex> hold(lock_);
    return reader_.ReadFrame(track, index, layout, dst, stride);
  }
  Status ReadAudio(int track, std::int64_t start, std::int64_t count, ffmedia::SampleLayout layout,
                   void* dst, std::int64_t* got) override {
    std::lock_guard<std::mutex> hold(lock_);
    return reader_.ReadAudio(track, start, count, layout, dst, got);
  }

 private:
  // The picture streams and the sound parsers share one reader, and a host may read pictures
  // and sound from different threads.
  std::mutex lock_;
  ffmedia::MediaReader reader_;
};

class FfmpegSink final : public MovieSink {
 public:
  explicit FfmpegSink(Container c) : container_(c) {}
  Status Open(const std::string& path, const ffmedia::VideoSettings* video,
              const std::vector<ffmedia::AudioSettings>& audio, const std::string& timecode,
              const std::vector<std::pair<std::string, std::string>>& metadata) override {
    return writer_.Open(path, video, audio, timecode, metadata,
                        container_ == Container::kAvi ? ffmedia::OutputContainer::kAvi
                                                      : ffmedia::OutputContainer::kMxf);
  }
  Status WriteFrame(const std::uint8_t* src, std::ptrdiff_t stride,
                    ffmedia::PixelLayout layout) override {
    return writer_.WriteFrame(src, stride, layout);
  }
  Status WriteAudio(int track, const void* src, std::int64_t count,
                    ffmedia::SampleLayout layout) override {
    return writer_.WriteAudio(track, src, count, layout);
  }
  Status Finish() override { return writer_.Finish(); }

 private:
  Container container_;
  ffmedia::MovWriter writer_;
};

}  // namespace

std::unique_ptr<MovieSource> MakeMovieSource(Container) {
  return std::unique_ptr<MovieSource>(new (std::nothrow) FfmpegSource);
}

std::unique_ptr<MovieSink> MakeMovieSink(Container container) {
  return std::unique_ptr<MovieSink>(new (std::nothrow) FfmpegSink(container));
}

}  // namespace vx::movie
