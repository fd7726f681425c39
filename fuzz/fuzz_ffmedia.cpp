// Whole movie files through the FFmpeg media library from memory: open (probe, track list, the
// packet index pass, sound decoded once to count it), the first and last frame in a layout the
// input picks, and a sound range. Bad input must end in a status, never a crash, hang or leak;
// findings inside FFmpeg itself are told apart by their stack.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_seeds.h"
#include "movie/ffmpeg/ffmedia.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

namespace fm = vx::ffmedia;
using Bytes = std::vector<std::uint8_t>;

Bytes Slurp(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), {}};
}

std::vector<Bytes> Seeds() {
  std::vector<Bytes> seeds;
  const auto dir = std::filesystem::temp_directory_path();
  // Our own MOV writer's files, then small files of FFmpeg's command line where it is installed.
  const fm::VideoCodec codecs[] = {fm::VideoCodec::kV210, fm::VideoCodec::kProRes4444,
                                   fm::VideoCodec::kRGB24};
  for (fm::VideoCodec codec : codecs) {
    const auto p = dir / "fuzz_ffmedia_seed.mov";
    fm::VideoSettings vs;
    vs.codec = codec;
    vs.width = 48;
    vs.height = 16;
    fm::MovWriter w;
    if (w.Open(p.string(), &vs, {{48000, 2, 16}}, "01:00:00:00") != fm::Status::kOk) continue;
    std::vector<std::uint8_t> pic(48 * 16 * 3, 90);
    std::vector<std::int16_t> pcm(2 * 1920, 1000);
    for (int f = 0; f < 2; ++f) {
      w.WriteFrame(pic.data(), 48 * 3, fm::PixelLayout::kRGB24);
      w.WriteAudio(0, pcm.data(), 1920, fm::SampleLayout::kS16);
    }
    if (w.Finish() == fm::Status::kOk) seeds.push_back(Slurp(p));
    std::filesystem::remove(p);
  }
  const char* made[][2] = {
      {"-c:v libx264 -g 3 -bf 1 -c:a aac", "ts"},
      {"-c:v mpeg2video -bf 1 -c:a mp2", "mpg"},
      {"-c:v mjpeg -c:a pcm_s16le", "avi"},
      {"-c:v dnxhd -profile:v dnxhr_lb -c:a pcm_s16le", "mxf"},
      {"-vn -c:a libmp3lame", "mp3"},
  };
  for (const auto& m : made) {
    const auto p = dir / (std::string("fuzz_ffmedia_seed.") + m[1]);
    const std::string cmd =
        "ffmpeg -v quiet -y -f lavfi -i testsrc2=size=256x120:rate=25 -f lavfi "
        "-i sine=sample_rate=48000 -t 0.2 " +
        std::string(m[0]) + " '" + p.string() + "' >/dev/null 2>&1";
    if (std::system(cmd.c_str()) == 0) seeds.push_back(Slurp(p));
    std::filesystem::remove(p);
  }
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  av_log_set_level(AV_LOG_QUIET);
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), ".bin");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fm::MediaReader r;
  if (r.OpenMemory(data, size) != fm::Status::kOk) return 0;
  static const fm::PixelLayout kLayouts[] = {fm::PixelLayout::kRGB24, fm::PixelLayout::kUYVY8,
                                             fm::PixelLayout::kV210, fm::PixelLayout::kRGBA16BE,
                                             fm::PixelLayout::kRGBAF32};
  if (!r.Info().video.empty()) {
    const fm::VideoTrack& v = r.Info().video[0];
    // Pictures beyond a few megapixels only test the allocator.
    if (static_cast<std::int64_t>(v.width) * v.height <= 4 << 20 && v.frames > 0) {
      const fm::PixelLayout layout = kLayouts[size % 5];
      const std::size_t row = fm::MinRowBytes(layout, v.width);
      std::vector<std::uint8_t> buf(row * static_cast<std::size_t>(v.height));
      r.ReadFrame(0, 0, layout, buf.data(), static_cast<std::ptrdiff_t>(row));
      r.ReadFrame(0, v.frames - 1, layout, buf.data(), static_cast<std::ptrdiff_t>(row));
    }
  }
  if (!r.Info().audio.empty()) {
    const fm::AudioTrack& a = r.Info().audio[0];
    std::vector<std::uint8_t> buf(std::size_t{512} * 4 * static_cast<std::size_t>(a.channels));
    r.ReadAudio(0, a.samples / 2, 512, fm::SampleLayout::kS24, buf.data());
  }
  return 0;
}
