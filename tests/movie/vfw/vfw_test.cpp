// AVI through Video for Windows (run under wine): rows converted by hand-worked values, files
// ffmpeg made read back as ffmpeg decodes them, our own files read back, bad files refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "movie/source/movie_source.h"
#include "movie/vfw/vfw_pixels.h"
#include "vx/avi_file.h"
#include "test_util.h"

namespace {

using vx::ffmedia::PixelLayout;
using vx::ffmedia::SampleLayout;
using vx::ffmedia::Status;
using vx::movie::Container;
using vx::movie::vfw::RowFormat;
namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

std::string Utf8(const fs::path& p) {
  const std::u8string u = p.u8string();
  return std::string(u.begin(), u.end());
}

// ---- Rows ---------------------------------------------------------------------------------

TEST(VfwRows, ConvertsByHandWorkedValues) {
  struct Case {
    const char* what;
    RowFormat from;
    Bytes in;
    int width;
    PixelLayout to;
    bool hd;
    Bytes out;
    int tolerance;
  };
  const Case cases[] = {
      {"BGR to RGBA",
       RowFormat::kBgr24,
       {1, 2, 3, 4, 5, 6},
       2,
       PixelLayout::kRGBA8,
       false,
       {3, 2, 1, 255, 6, 5, 4, 255},
       0},
      {"BGRA to big-endian 16-bit",
       RowFormat::kBgra32,
       {0x10, 0x20, 0x30, 0x40},
       1,
       PixelLayout::kRGBA16BE,
       false,
       {0x30, 0x30, 0x20, 0x20, 0x10, 0x10, 0x40, 0x40},
       0},
      {"YUY2 to UYVY",
       RowFormat::kYuy2,
       {0x10, 0x20, 0x30, 0x40},
       2,
       PixelLayout::kUYVY8,
       false,
       {0x20, 0x10, 0x40, 0x30},
       0},
      {"white and black",
       RowFormat::kUyvy,
       {128, 235, 128, 16},
       2,
       PixelLayout::kRGB24,
       false,
       {255, 255, 255, 0, 0, 0},
       0},
      // BT.601 red: Y 81, Cb 90, Cr 240; read as BT.709 its red would be 233.
      {"601 red",
       RowFormat::kUyvy,
       {90, 81, 240, 81},
       2,
       PixelLayout::kBGR24,
       false,
       {0, 0, 254, 0, 0, 254},
       1},
      // BT.709 red: Y 63, Cb 102, Cr 240.
      {"709 red",
       RowFormat::kYuy2,
       {63, 102, 63, 240},
       2,
       PixelLayout::kRGB24,
       true,
       {255, 1, 0, 255, 1, 0},
       1},
      // Two pixels into the first 6-pixel group; the rest of the group and row stays zero.
      {"UYVY to v210",
       RowFormat::kUyvy,
       {0x80, 0x10, 0x80, 0xEB},
       2,
       PixelLayout::kV210,
       false,
       [] {
         Bytes b(128, 0);
         const Bytes head = {0x00, 0x02, 0x01, 0x20, 0xAC, 0x03};
         std::copy(head.begin(), head.end(), b.begin());
         return b;
       }(),
       0},
      // Y 65 and 1023 round to 16 and clip to 255 in 8 bits; Cb 514, Cr 510.
      {"v210 to UYVY",
       RowFormat::kV210,
       [] {
         Bytes b(128, 0);
         const std::uint32_t w0 = 514 | 65u << 10 | 510u << 20, w1 = 1023;
         for (int i = 0; i < 4; ++i) b[i] = static_cast<std::uint8_t>(w0 >> (8 * i));
         for (int i = 0; i < 4; ++i) b[4 + i] = static_cast<std::uint8_t>(w1 >> (8 * i));
         return b;
       }(),
       2,
       PixelLayout::kUYVY8,
       false,
       {129, 16, 128, 255},
       0},
  };
  for (const Case& c : cases) {
    Bytes out(c.out.size(), 0xEE);
    ASSERT_TRUE(vx::movie::vfw::ConvertRow(c.from, c.in.data(), c.width, c.to, out.data(), c.hd))
        << c.what;
    for (std::size_t i = 0; i < out.size(); ++i)
      EXPECT_LE(std::abs(out[i] - c.out[i]), c.tolerance) << c.what << " byte " << i;
  }
  // Deep host pictures written into 8-bit files: rounded, alpha made opaque when absent.
  const Bytes be = {0x12, 0x34, 0xFF, 0xFF, 0x00, 0x80, 0x80, 0x00};
  Bytes rgba8(4);
  ASSERT_TRUE(vx::movie::vfw::ToRgba8Row(PixelLayout::kRGBA16BE, be.data(), 1, rgba8.data()));
  EXPECT_EQ(rgba8, (Bytes{18, 255, 0, 128}));
  const float f[3] = {0.5f, 1.0f, -1.0f};
  ASSERT_TRUE(vx::movie::vfw::ToRgba8Row(
      PixelLayout::kRGBF32, reinterpret_cast<const std::uint8_t*>(f), 1, rgba8.data()));
  EXPECT_EQ(rgba8, (Bytes{128, 255, 0, 255}));
  Bytes rgb(6);
  EXPECT_FALSE(vx::movie::vfw::ConvertRow(RowFormat::kRgb24, rgb.data(), 2, PixelLayout::kV210,
                                          rgb.data(), false));
}

// ---- Files ffmpeg made --------------------------------------------------------------------

// VX_AVI_SAMPLES names the folder scripts/test-windows.sh fills; a path of the Linux side is
// reached through wine's drive of the root.
fs::path SampleDir() {
  const char* d = std::getenv("VX_AVI_SAMPLES");
  if (!d || !*d) return {};
  std::string s = d;
  if (s[0] == '/') {
    for (char& c : s)
      if (c == '/') c = '\\';
    s = "Z:" + s;
  }
  return fs::path(s);
}

TEST(VfwAvi, ReadsWhatFfmpegWrote) {
  const fs::path dir = SampleDir();
  if (dir.empty() || !fs::exists(dir / "uyvy.avi")) GTEST_SKIP() << "VX_AVI_SAMPLES not set";
  struct Case {
    const char* name;
    int width, height;
    std::int64_t rateNum, rateDen, frames;
    std::uint32_t fourcc;
    PixelLayout native;
    bool rgbRef;  // ffmpeg's RGB conversion beside it
    int audioRate, channels, bits;
  };
  const std::uint32_t kUyvy = vx::os::FourCC('U', 'Y', 'V', 'Y');
  const Case cases[] = {
      {"bgr24_bottomup", 97, 61, 30000, 1001, 9, 0, PixelLayout::kBGR24, false, 48000, 2, 16},
      {"bgr24_topdown", 97, 61, 25, 1, 8, 0, PixelLayout::kBGR24, false, 44100, 1, 24},
      {"bgra", 64, 36, 25, 1, 5, 0, PixelLayout::kBGRA8, false, 0, 0, 0},
      {"uyvy", 160, 90, 25, 1, 7, kUyvy, PixelLayout::kUYVY8, true, 48000, 2, 24},
      {"yuy2", 160, 90, 30000, 1001, 9, vx::os::FourCC('Y', 'U', 'Y', '2'), PixelLayout::kUYVY8,
       false, 0, 0, 0},
      {"v210", 160, 90, 25, 1, 5, vx::os::FourCC('v', '2', '1', '0'), PixelLayout::kV210, false, 0,
       0, 0},
      {"v210_hd", 1280, 720, 25, 1, 3, vx::os::FourCC('v', '2', '1', '0'), PixelLayout::kV210, true,
       0, 0, 0},
      {"mjpeg", 160, 90, 25, 1, 5, vx::os::FourCC('M', 'J', 'P', 'G'), PixelLayout::kBGRA8, false,
       0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto src = vx::movie::MakeMovieSource(Container::kAvi);
    ASSERT_TRUE(src);
    ASSERT_EQ(src->Open(Utf8(dir / (std::string(c.name) + ".avi"))), Status::kOk);
    const auto& info = src->Info();
    EXPECT_EQ(info.container, "avi");
    ASSERT_EQ(info.video.size(), 1u);
    const auto& v = info.video[0];
    EXPECT_EQ(v.width, c.width);
    EXPECT_EQ(v.height, c.height);
    EXPECT_EQ(v.rate, (vx::ffmedia::Rational{c.rateNum, c.rateDen}));
    EXPECT_EQ(v.frames, c.frames);
    EXPECT_EQ(v.fourcc, c.fourcc);

    const std::size_t row = vx::ffmedia::MinRowBytes(c.native, c.width);
    const std::size_t frame = row * static_cast<std::size_t>(c.height);
    const Bytes ref = vxtest::ReadFile(dir / (std::string(c.name) + ".native"));
    ASSERT_EQ(ref.size(), frame * static_cast<std::size_t>(c.frames));
    // Out of order, so a reader that only steps forward is caught.
    for (const std::int64_t n : {c.frames - 1, std::int64_t{0}, c.frames / 2}) {
      Bytes got(frame + 64, 0xEE);
      const Status st =
          src->ReadFrame(0, n, c.native, got.data(), static_cast<std::ptrdiff_t>(row));
      if (c.native == PixelLayout::kBGRA8 && c.fourcc != 0) {
        // Compressed: only where the system has a decompressor, then close to ffmpeg's decode.
        if (st == Status::kUnsupported) continue;
        ASSERT_EQ(st, Status::kOk);
        double sum = 0;
        for (std::size_t i = 0; i < frame; ++i) sum += std::abs(got[i] - ref[frame * n + i]);
        EXPECT_LT(sum / frame, 3.0) << "frame " << n;
        continue;
      }
      ASSERT_EQ(st, Status::kOk) << "frame " << n;
      EXPECT_TRUE(std::equal(got.begin(), got.begin() + frame, ref.begin() + frame * n))
          << "frame " << n;
      EXPECT_EQ(got[frame], 0xEE) << "wrote past the frame";
    }
    if (c.rgbRef) {
      // Conversions differ in chroma filtering only: close on average, never far off.
      const Bytes rgb = vxtest::ReadFile(dir / (std::string(c.name) + ".rgb"));
      const std::size_t rgbFrame = std::size_t{3} * c.width * c.height;
      ASSERT_EQ(rgb.size(), rgbFrame * c.frames);
      Bytes got(rgbFrame);
      ASSERT_EQ(src->ReadFrame(0, 1, PixelLayout::kRGB24, got.data(), 3 * c.width), Status::kOk);
      // The wrong matrix is off by 7 on average and 40 at most on these pictures.
      double sum = 0;
      int most = 0;
      for (std::size_t i = 0; i < rgbFrame; ++i) {
        const int d = std::abs(got[i] - rgb[rgbFrame + i]);
        sum += d;
        most = std::max(most, d);
      }
      EXPECT_LT(sum / rgbFrame, 2.0);
      EXPECT_LE(most, 8);
    }
    if (c.channels == 0) {
      EXPECT_TRUE(info.audio.empty());
      continue;
    }
    ASSERT_EQ(info.audio.size(), 1u);
    const auto& a = info.audio[0];
    EXPECT_EQ(a.sampleRate, c.audioRate);
    EXPECT_EQ(a.channels, c.channels);
    EXPECT_EQ(a.bits, c.bits);
    const Bytes pcm = vxtest::ReadFile(dir / (std::string(c.name) + ".pcm"));
    const std::size_t frameBytes = static_cast<std::size_t>(c.channels * c.bits / 8);
    ASSERT_EQ(a.samples * static_cast<std::int64_t>(frameBytes),
              static_cast<std::int64_t>(pcm.size()));
    // A range across the middle and one running past the end, which reads as silence.
    const SampleLayout layout = c.bits == 16 ? SampleLayout::kS16 : SampleLayout::kS24;
    const std::int64_t start = a.samples / 3, count = 5000;
    Bytes got(static_cast<std::size_t>(count) * frameBytes);
    std::int64_t real = 0;
    ASSERT_EQ(src->ReadAudio(0, start, count, layout, got.data(), &real), Status::kOk);
    EXPECT_EQ(real, count);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), pcm.begin() + start * frameBytes));
    ASSERT_EQ(src->ReadAudio(0, a.samples - 10, 20, layout, got.data(), &real), Status::kOk);
    EXPECT_EQ(real, 10);
    EXPECT_TRUE(
        std::equal(got.begin(), got.begin() + 10 * frameBytes, pcm.end() - 10 * frameBytes));
    EXPECT_TRUE(std::all_of(got.begin() + 10 * frameBytes, got.begin() + 20 * frameBytes,
                            [](std::uint8_t b) { return b == 0; }));
  }
}

// ---- Our own files ------------------------------------------------------------------------

TEST(VfwAvi, WritesWhatItReadsBack) {
  struct Case {
    vx::ffmedia::VideoCodec codec;
    PixelLayout layout;
    int width, height;
    int audioBits;
  };
  const Case cases[] = {
      {vx::ffmedia::VideoCodec::kRGB24, PixelLayout::kBGR24, 37, 11, 16},  // rows padded
      {vx::ffmedia::VideoCodec::kRGBA8, PixelLayout::kBGRA8, 20, 8, 24},
      {vx::ffmedia::VideoCodec::kV210, PixelLayout::kV210, 96, 6, 24},
  };
  vxtest::TempDir tmp;
  std::uint32_t seed = 12345;
  auto next = [&seed] { return seed = seed * 1664525u + 1013904223u; };
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.codec));
    const fs::path path = tmp / ("out" + std::to_string(static_cast<int>(c.codec)) + ".avi");
    const std::size_t row = vx::ffmedia::MinRowBytes(c.layout, c.width);
    const int kFrames = 3, kChannels = 2, kSamples = 4000;
    std::vector<Bytes> frames(kFrames, Bytes(row * c.height));
    for (Bytes& f : frames)
      for (std::size_t i = 0; i < f.size(); i += 4) {
        const std::uint32_t v = next() >> (c.layout == PixelLayout::kV210 ? 2 : 0);
        std::memcpy(&f[i], &v, std::min<std::size_t>(4, f.size() - i));
      }
    const int sampleBytes = c.audioBits / 8;
    Bytes pcm(std::size_t{kSamples} * kChannels * sampleBytes);
    for (std::uint8_t& b : pcm) b = static_cast<std::uint8_t>(next() >> 24);
    const SampleLayout sl = c.audioBits == 16 ? SampleLayout::kS16 : SampleLayout::kS24;

    vx::ffmedia::VideoSettings vs;
    vs.codec = c.codec;
    vs.width = c.width;
    vs.height = c.height;
    vs.rate = {30000, 1001};
    {
      auto sink = vx::movie::MakeMovieSink(Container::kAvi);
      ASSERT_TRUE(sink);
      ASSERT_EQ(sink->Open(Utf8(path), &vs, {{48000, kChannels, c.audioBits}}, "", {}),
                Status::kOk);
      for (const Bytes& f : frames)
        ASSERT_EQ(sink->WriteFrame(f.data(), static_cast<std::ptrdiff_t>(row), c.layout),
                  Status::kOk);
      ASSERT_EQ(sink->WriteAudio(0, pcm.data(), kSamples / 2, sl), Status::kOk);
      ASSERT_EQ(sink->WriteAudio(0, pcm.data() + pcm.size() / 2, kSamples / 2, sl), Status::kOk);
      EXPECT_FALSE(fs::exists(path)) << "visible before Finish";
      ASSERT_EQ(sink->Finish(), Status::kOk);
    }
    auto src = vx::movie::MakeMovieSource(Container::kAvi);
    ASSERT_EQ(src->Open(Utf8(path)), Status::kOk);
    ASSERT_EQ(src->Info().video.size(), 1u);
    EXPECT_EQ(src->Info().video[0].frames, kFrames);
    EXPECT_EQ(src->Info().video[0].rate, (vx::ffmedia::Rational{30000, 1001}));
    for (int n = kFrames - 1; n >= 0; --n) {
      Bytes got(row * c.height);
      ASSERT_EQ(src->ReadFrame(0, n, c.layout, got.data(), static_cast<std::ptrdiff_t>(row)),
                Status::kOk);
      EXPECT_EQ(got, frames[static_cast<std::size_t>(n)]) << "frame " << n;
    }
    ASSERT_EQ(src->Info().audio.size(), 1u);
    EXPECT_EQ(src->Info().audio[0].samples, kSamples);
    Bytes got(pcm.size());
    ASSERT_EQ(src->ReadAudio(0, 0, kSamples, sl, got.data(), nullptr), Status::kOk);
    EXPECT_EQ(got, pcm);
  }
  // Dropped unfinished: nothing left behind. Codecs without a compressor here: refused.
  {
    auto sink = vx::movie::MakeMovieSink(Container::kAvi);
    vx::ffmedia::VideoSettings vs;
    vs.codec = vx::ffmedia::VideoCodec::kRGB24;
    vs.width = vs.height = 8;
    ASSERT_EQ(sink->Open(Utf8(tmp / "dropped.avi"), &vs, {}, "", {}), Status::kOk);
    Bytes f(8 * 8 * 3);
    ASSERT_EQ(sink->WriteFrame(f.data(), 24, PixelLayout::kBGR24), Status::kOk);
  }
  EXPECT_FALSE(fs::exists(tmp / "dropped.avi"));
  EXPECT_FALSE(fs::exists(tmp / "dropped.avi.partial.avi"));
  vx::ffmedia::VideoSettings prores;
  prores.width = prores.height = 16;
  EXPECT_EQ(
      vx::movie::MakeMovieSink(Container::kAvi)->Open(Utf8(tmp / "p.avi"), &prores, {}, "", {}),
      Status::kUnsupported);
  EXPECT_FALSE(vx::movie::MakeMovieSource(Container::kMxf));
}

// ffmpeg's decode written back through the sink as "written_<name>.avi"; the script then checks
// with ffmpeg that it reads our files as these same frames and sound.
TEST(VfwAvi, WritesFilesFfmpegReads) {
  const fs::path dir = SampleDir();
  if (dir.empty() || !fs::exists(dir / "uyvy.avi")) GTEST_SKIP() << "VX_AVI_SAMPLES not set";
  struct Case {
    const char* name;
    vx::ffmedia::VideoCodec codec;
    PixelLayout layout;
    int width, height, audioRate, channels, bits;
  };
  const Case cases[] = {
      {"bgr24_topdown", vx::ffmedia::VideoCodec::kRGB24, PixelLayout::kBGR24, 97, 61, 44100, 1, 24},
      {"bgra", vx::ffmedia::VideoCodec::kRGBA8, PixelLayout::kBGRA8, 64, 36, 0, 0, 0},
      {"uyvy", vx::ffmedia::VideoCodec::kV210, PixelLayout::kUYVY8, 160, 90, 48000, 2, 24},
      {"v210", vx::ffmedia::VideoCodec::kV210, PixelLayout::kV210, 160, 90, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes frames = vxtest::ReadFile(dir / (std::string(c.name) + ".native"));
    const std::size_t row = vx::ffmedia::MinRowBytes(c.layout, c.width);
    const std::size_t frame = row * static_cast<std::size_t>(c.height);
    ASSERT_GT(frames.size(), 0u);
    vx::ffmedia::VideoSettings vs;
    vs.codec = c.codec;
    vs.width = c.width;
    vs.height = c.height;
    std::vector<vx::ffmedia::AudioSettings> audio;
    if (c.channels) audio.push_back({c.audioRate, c.channels, c.bits});
    auto sink = vx::movie::MakeMovieSink(Container::kAvi);
    ASSERT_EQ(
        sink->Open(Utf8(dir / ("written_" + std::string(c.name) + ".avi")), &vs, audio, "", {}),
        Status::kOk);
    for (std::size_t at = 0; at + frame <= frames.size(); at += frame)
      ASSERT_EQ(sink->WriteFrame(&frames[at], static_cast<std::ptrdiff_t>(row), c.layout),
                Status::kOk);
    if (c.channels) {
      const Bytes pcm = vxtest::ReadFile(dir / (std::string(c.name) + ".pcm"));
      const std::size_t fb = static_cast<std::size_t>(c.channels * c.bits / 8);
      ASSERT_EQ(sink->WriteAudio(0, pcm.data(), static_cast<std::int64_t>(pcm.size() / fb),
                                 SampleLayout::kS24),
                Status::kOk);
    }
    ASSERT_EQ(sink->Finish(), Status::kOk);
  }
}

TEST(VfwAvi, RefusesBrokenFiles) {
  vxtest::TempDir tmp;
  const fs::path good = tmp / "good.avi";
  {
    auto sink = vx::movie::MakeMovieSink(Container::kAvi);
    vx::ffmedia::VideoSettings vs;
    vs.codec = vx::ffmedia::VideoCodec::kRGB24;
    vs.width = 16;
    vs.height = 16;
    ASSERT_EQ(sink->Open(Utf8(good), &vs, {{48000, 2, 16}}, "", {}), Status::kOk);
    Bytes f(16 * 16 * 3, 0x55), pcm(4000, 0x11);
    for (int i = 0; i < 4; ++i) {
      ASSERT_EQ(sink->WriteFrame(f.data(), 48, PixelLayout::kBGR24), Status::kOk);
      ASSERT_EQ(sink->WriteAudio(0, pcm.data(), 1000, SampleLayout::kS16), Status::kOk);
    }
    ASSERT_EQ(sink->Finish(), Status::kOk);
  }
  const Bytes bytes = vxtest::ReadFile(good);
  ASSERT_GT(bytes.size(), 3000u);
  auto at = [&](const char* id) {
    return static_cast<std::size_t>(std::search(bytes.begin(), bytes.end(), id, id + 4) -
                                    bytes.begin());
  };
  struct Case {
    const char* what;
    Bytes data;
    bool openFails;  // else the open may pass and the reads must fail or hold
  };
  Bytes zeroRate = bytes;
  const std::size_t strh = at("strh");
  ASSERT_LT(strh + 32, bytes.size());
  std::memset(&zeroRate[strh + 8 + 24], 0, 4);  // dwRate of the video stream
  Bytes hugeSize = bytes;
  const std::size_t strf = at("strf");
  hugeSize[strf + 8 + 4] = 0xFF, hugeSize[strf + 8 + 5] = 0xFF, hugeSize[strf + 8 + 6] = 0xFF;
  const Case cases[] = {
      {"empty", {}, true},
      {"garbage", Bytes(5000, 0xA7), true},
      {"header cut", Bytes(bytes.begin(), bytes.begin() + 100), true},
      {"zero rate", zeroRate, true},
      {"huge width", hugeSize, true},
      {"data and index cut", Bytes(bytes.begin(), bytes.end() - 1500), true},
      {"index cut", Bytes(bytes.begin(), bytes.end() - 40), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const fs::path p = tmp / "bad.avi";
    vxtest::WriteFile(p, c.data);
    auto src = vx::movie::MakeMovieSource(Container::kAvi);
    const Status st = src->Open(Utf8(p));
    if (c.openFails) {
      EXPECT_EQ(st, Status::kFail);
      continue;
    }
    if (st != Status::kOk) continue;
    Bytes f(16 * 16 * 4);
    for (std::int64_t n = 0; n < src->Info().video[0].frames; ++n) {
      const Status r = src->ReadFrame(0, n, PixelLayout::kBGRA8, f.data(), 64);
      EXPECT_TRUE(r == Status::kOk || r == Status::kFail);
    }
    Bytes pcm(4000 * 4);
    for (const auto& a : src->Info().audio) {
      (void)a;
      const Status r = src->ReadAudio(0, 0, 4000, SampleLayout::kS16, pcm.data(), nullptr);
      EXPECT_TRUE(r == Status::kOk || r == Status::kFail);
    }
  }
}

}  // namespace
