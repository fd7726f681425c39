// The FFmpeg media library against FFmpeg's own command-line decode of the same files: track
// lists, frames at random indices in several pixel layouts, sound ranges across seeks, MOV
// files we write read back by ffprobe/ffmpeg, and damaged input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "movie/ffmpeg/ffmedia.h"
#include "test_util.h"

namespace fm = vx::ffmedia;
namespace fs = std::filesystem;

namespace {

bool Shell(const std::string& cmd) {
  return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

std::string Capture(const std::string& cmd) {
  std::string out;
  if (std::FILE* p = popen(cmd.c_str(), "r")) {
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
  }
  return out;
}

bool HaveFfmpeg() {
  static const bool have = Shell("ffmpeg -version") && Shell("ffprobe -version");
  return have;
}

std::vector<std::uint8_t> Slurp(const fs::path& p) {
  std::ifstream f(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), {}};
}

// Largest difference between two buffers read as samples of `bytes` (1 or 2) bytes: unsigned
// pixels (16-bit big-endian when `be`) or, for sound, signed 16-bit little-endian.
int MaxDiff(const std::uint8_t* a, const std::uint8_t* b, std::size_t n, int bytes, bool be,
            bool sound = false) {
  int worst = 0;
  for (std::size_t i = 0; i + bytes <= n; i += bytes) {
    int x = a[i], y = b[i];
    if (bytes == 2) {
      x = be ? a[i] << 8 | a[i + 1] : a[i + 1] << 8 | a[i];
      y = be ? b[i] << 8 | b[i + 1] : b[i + 1] << 8 | b[i];
      if (sound) {
        x = static_cast<std::int16_t>(x);
        y = static_cast<std::int16_t>(y);
      }
    }
    worst = std::max(worst, std::abs(x - y));
  }
  return worst;
}

// v210 rows as the 10-bit samples of the real pixels (Y, then Cb and Cr), so padding after the
// last pixel, which encoders fill as they like, is not compared.
std::vector<std::uint8_t> V210Samples(const std::uint8_t* p, int width, int height) {
  std::vector<std::uint8_t> out;
  const std::size_t row = (static_cast<std::size_t>(width) + 47) / 48 * 128;
  for (int y = 0; y < height; ++y) {
    std::vector<int> s;  // Cb Y Cr Y Cb Y Cr Y ... in stream order
    for (std::size_t w = 0; w < row / 4; ++w) {
      const std::uint8_t* q = p + y * row + 4 * w;
      const std::uint32_t v =
          q[0] | q[1] << 8 | q[2] << 16 | static_cast<std::uint32_t>(q[3]) << 24;
      for (int k = 0; k < 3; ++k) s.push_back(static_cast<int>(v >> (10 * k) & 1023));
    }
    const std::size_t used = 2 * static_cast<std::size_t>(width + (width & 1));
    for (std::size_t i = 0; i < used; ++i) {
      out.push_back(static_cast<std::uint8_t>(s[i] >> 2));
      out.push_back(static_cast<std::uint8_t>(s[i] & 3));
    }
  }
  return out;
}

struct Layout {
  fm::PixelLayout layout;
  const char* ffmpegArgs;  // how ffmpeg's command line makes the same bytes
  int sampleBytes;         // compared as 8- or 16-bit samples
  bool bigEndian;
};
const Layout kRGB24{fm::PixelLayout::kRGB24, "-pix_fmt rgb24", 1, false};
const Layout kUYVY{fm::PixelLayout::kUYVY8, "-pix_fmt uyvy422", 1, false};
const Layout kBGRA{fm::PixelLayout::kBGRA8, "-pix_fmt bgra", 1, false};
const Layout kB64A{fm::PixelLayout::kRGBA16BE, "-pix_fmt rgba64be", 2, true};
const Layout kV210{fm::PixelLayout::kV210, "-c:v v210", 1, false};

struct MediaCase {
  const char* name;
  const char* file;
  const char* make;  // ffmpeg arguments after the inputs
  int width, height;
  int rateNum, rateDen;  // also the generator's rate
  int frames;            // 0: sound only
  const char* codec;
  const char* timecode;
  bool exact;  // intra codec: frames equal ffmpeg's to the bit
  Layout extra;
  int channels;  // 0: no sound
  int sampleRate;
  const char* audioCodec;
  bool alpha = false;
};

const MediaCase kCases[] = {
    {"h264_mp4", "a.mp4", "-c:v libx264 -g 12 -bf 2 -pix_fmt yuv420p -c:a aac -aac_pns 0", 320, 180,
     24000, 1001, 40, "h264", "", false, kUYVY, 2, 48000, "aac"},
    {"h264_ts", "a.ts", "-c:v libx264 -g 10 -bf 3 -pix_fmt yuv420p -c:a mp2", 256, 144, 30000, 1001,
     36, "h264", "", false, kRGB24, 2, 48000, "mp2"},
    {"mpeg2_ps", "a.mpg", "-c:v mpeg2video -g 12 -bf 2 -c:a mp2", 352, 288, 25, 1, 30, "mpeg2video",
     "", false, kUYVY, 2, 48000, "mp2"},
    {"mpeg2_es", "a.m2v", "-c:v mpeg2video -g 15 -bf 2", 320, 240, 60000, 1001, 36, "mpeg2video",
     "", false, kRGB24, 0, 0, ""},
    {"prores_hq_mov", "a.mov", "-c:v prores_ks -profile:v hq -timecode 01:00:00:00 -c:a pcm_s24le",
     322, 180, 25, 1, 12, "prores", "01:00:00:00", true, kV210, 6, 48000, "pcm_s24le"},
    {"prores_4444_alpha", "b.mov", "-c:v prores_ks -profile:v 4444 -pix_fmt yuva444p10le", 240, 136,
     24, 1, 8, "prores", "", true, kB64A, 0, 0, "", true},
    {"dnxhr_hqx_mov", "c.mov",
     "-c:v dnxhd -profile:v dnxhr_hqx -pix_fmt yuv422p10le -timecode '00:59:59;28' -c:a pcm_s16le",
     400, 226, 30000, 1001, 16, "dnxhd", "00:59:59;28", true, kV210, 1, 48000, "pcm_s16le"},
    {"v210_mov", "d.mov", "-c:v v210 -c:a pcm_s16le", 326, 98, 50, 1, 24, "v210", "", true, kV210,
     8, 48000, "pcm_s16le"},
    {"mjpeg_avi", "a.avi", "-c:v mjpeg -pix_fmt yuvj444p -q:v 3 -c:a pcm_s16le", 199, 101, 25, 1,
     16, "mjpeg", "", true, kBGRA, 1, 44100, "pcm_s16le"},
    {"dv_avi", "b.avi", "-c:v dvvideo -pix_fmt yuv420p -c:a pcm_s16le", 720, 576, 25, 1, 12,
     "dvvideo", "", true, kUYVY, 2, 48000, "pcm_s16le"},
    {"raw_avi", "c.avi", "-c:v rawvideo -pix_fmt bgr24", 97, 33, 25, 1, 6, "rawvideo", "", true,
     kRGB24, 0, 0, ""},
    {"yuy2_avi", "e.avi", "-c:v rawvideo -pix_fmt yuyv422", 64, 36, 25, 1, 6, "rawvideo", "", true,
     kUYVY, 0, 0, ""},
    {"uyvy_avi", "f.avi", "-c:v rawvideo -pix_fmt uyvy422 -c:a pcm_s24le", 66, 20, 50, 1, 24,
     "rawvideo", "", true, kUYVY, 8, 48000, "pcm_s24le"},
    {"v210_avi", "g.avi", "-c:v v210 -c:a pcm_s16le", 134, 40, 30000, 1001, 9, "v210", "", true,
     kV210, 2, 48000, "pcm_s16le"},
    {"dnxhd_mxf", "a.mxf",
     "-c:v dnxhd -b:v 36M -pix_fmt yuv422p -timecode 10:00:00:00 -c:a "
     "pcm_s24le",
     1920, 1080, 25, 1, 12, "dnxhd", "10:00:00:00", true, kUYVY, 1, 48000, "pcm_s24le"},
    {"mp3", "a.mp3", "-c:a libmp3lame -b:a 128k", 0, 0, 0, 0, 0, "", "", false, kRGB24, 2, 44100,
     "mp3"},
    {"aac_m4a", "a.m4a", "-c:a aac -aac_pns 0", 0, 0, 0, 0, 0, "", "", false, kRGB24, 1, 48000,
     "aac"},
};

// AAC is made without perceptual noise substitution: its noise comes from a generator in the
// decoder whose state no seek can restore, so after a seek only noise-free sound is bit-exact.

// Frames in the order a caller jumping around would ask for them: backwards, far, near, then a
// sequential run.
std::vector<int> FrameOrder(int frames, std::mt19937& rng) {
  std::vector<int> order = {frames - 1, 0, frames / 2, frames / 2 - 1};
  for (int i = 0; i < 3; ++i)
    order.push_back(std::uniform_int_distribution<int>(0, frames - 1)(rng));
  for (int k = 1; k <= 3 && k < frames; ++k) order.push_back(k);
  return order;
}

class FfmediaTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef _WIN32
    GTEST_SKIP() << "FFmpeg is Linux-only here";
#endif
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  }
  vxtest::TempDir dir_;
};

TEST_F(FfmediaTest, ReadsLikeFfmpeg) {
  std::mt19937 rng(7);
  for (const MediaCase& c : kCases) {
    SCOPED_TRACE(c.name);
    const fs::path file = dir_ / c.file;
    std::string inputs;
    const double seconds = c.frames ? static_cast<double>(c.frames) * c.rateDen / c.rateNum : 2.3;
    if (c.frames) {
      // testsrc2 rounds sizes down to even; testsrc keeps odd ones.
      inputs += std::string(" -f lavfi -i ") + (c.width % 2 ? "testsrc" : "testsrc2") +
                "=size=" + std::to_string(c.width) + "x" + std::to_string(c.height) +
                ":rate=" + std::to_string(c.rateNum) + "/" + std::to_string(c.rateDen) +
                (c.alpha ? ":alpha=160" : "");
    }
    if (c.channels) {
      inputs += " -f lavfi -i sine=frequency=440:beep_factor=3:sample_rate=" +
                std::to_string(c.sampleRate) + ":duration=" + std::to_string(seconds + 0.2) +
                " -ac " + std::to_string(c.channels);
    }
    // A duration rather than -frames:v, which cuts the MXF muxer's sound and pictures short.
    const std::string limit = " -t " + std::to_string(seconds - 0.0001);
    ASSERT_TRUE(
        Shell("ffmpeg -v error -y" + inputs + " " + c.make + limit + " " + vxtest::Quote(file)));

    fm::MediaReader r;
    ASSERT_EQ(r.Open(file.string()), fm::Status::kOk);
    const fm::MediaInfo& info = r.Info();
    EXPECT_EQ(info.timecode, c.timecode);
    ASSERT_EQ(info.video.size(), c.frames ? 1u : 0u);
    ASSERT_EQ(info.audio.size(), c.channels ? 1u : 0u);

    if (c.frames) {
      const fm::VideoTrack& v = info.video[0];
      EXPECT_EQ(v.codec, c.codec);
      EXPECT_EQ(v.width, c.width);
      EXPECT_EQ(v.height, c.height);
      EXPECT_DOUBLE_EQ(v.rate.Value(), static_cast<double>(c.rateNum) / c.rateDen);
      EXPECT_EQ(v.frames, c.frames);
      EXPECT_EQ(v.alpha, c.alpha);
      for (const Layout& l : {kRGB24, c.extra}) {
        const fs::path all = dir_ / "all.raw";
        ASSERT_TRUE(Shell("ffmpeg -v error -y -i " + vxtest::Quote(file) +
                          " -map 0:v:0 -fps_mode passthrough " + l.ffmpegArgs + " -f rawvideo " +
                          vxtest::Quote(all)));
        const std::vector<std::uint8_t> theirs = Slurp(all);
        const std::size_t row = fm::MinRowBytes(l.layout, c.width);
        const std::size_t size = row * c.height;
        ASSERT_EQ(theirs.size(), size * c.frames) << "ffmpeg decodes another frame count";
        std::vector<std::uint8_t> ours(size);
        const std::vector<int> order = FrameOrder(c.frames, rng);
        std::int64_t seeksBeforeRun = 0;
        for (std::size_t i = 0; i < order.size(); ++i) {
          const int k = order[i];
          if (i + 2 == order.size()) seeksBeforeRun = r.SeekCount();
          ASSERT_EQ(r.ReadFrame(0, k, l.layout, ours.data(), static_cast<std::ptrdiff_t>(row)),
                    fm::Status::kOk)
              << "frame " << k;
          int diff = 0;
          if (l.layout == fm::PixelLayout::kV210) {
            const auto a = V210Samples(ours.data(), c.width, c.height);
            const auto b = V210Samples(theirs.data() + size * k, c.width, c.height);
            diff = a == b ? 0 : 1024;
          } else {
            diff = MaxDiff(ours.data(), theirs.data() + size * k, size, l.sampleBytes, l.bigEndian);
          }
          EXPECT_LE(diff, c.exact ? 0 : 1) << "frame " << k << " layout " << l.ffmpegArgs;
        }
        // The last reads were frames 1, 2, 3 in order: 2 and 3 follow without a seek.
        EXPECT_EQ(r.SeekCount(), seeksBeforeRun) << "sequential reads seek";
      }
      std::vector<std::uint8_t> small(16);
      EXPECT_EQ(r.ReadFrame(0, c.frames, fm::PixelLayout::kRGB24, small.data(), 3 * c.width),
                fm::Status::kInvalidArg);
      EXPECT_EQ(r.ReadFrame(0, 0, fm::PixelLayout::kRGB24, small.data(), 3 * c.width - 1),
                fm::Status::kInvalidArg);
    }

    if (c.channels) {
      const fm::AudioTrack& a = info.audio[0];
      EXPECT_EQ(a.codec, c.audioCodec);
      EXPECT_EQ(a.channels, c.channels);
      EXPECT_EQ(a.sampleRate, c.sampleRate);
      const fs::path pcm = dir_ / "all.pcm";
      ASSERT_TRUE(Shell("ffmpeg -v error -y -i " + vxtest::Quote(file) +
                        " -map 0:a:0 -f s16le -c:a pcm_s16le " + vxtest::Quote(pcm)));
      const std::vector<std::uint8_t> theirs = Slurp(pcm);
      const std::size_t frameBytes = 2 * static_cast<std::size_t>(c.channels);
      const std::int64_t total = static_cast<std::int64_t>(theirs.size() / frameBytes);
      EXPECT_EQ(a.samples, total);
      ASSERT_GT(total, 10000);
      // Backwards, forwards, adjacent and one-sample ranges.
      const std::int64_t ranges[][2] = {{total - 3000, 3000}, {0, 1000},         {total / 2, 4096},
                                        {1000, 1500},         {2500, 777},       {3277, 2000},
                                        {total / 3, 1},       {total - 700, 700}};
      for (const auto& [start, count] : ranges) {
        std::vector<std::uint8_t> ours(static_cast<std::size_t>(count) * frameBytes);
        std::int64_t got = 0;
        ASSERT_EQ(r.ReadAudio(0, start, count, fm::SampleLayout::kS16, ours.data(), &got),
                  fm::Status::kOk)
            << start;
        EXPECT_EQ(got, count);
        EXPECT_LE(
            MaxDiff(ours.data(), theirs.data() + start * frameBytes, ours.size(), 2, false, true),
            1)
            << "samples from " << start;
      }
      // Past the end: silence after the real samples.
      std::vector<std::uint8_t> tail(200 * frameBytes, 0xAA);
      std::int64_t got = -1;
      EXPECT_EQ(r.ReadAudio(0, total - 100, 200, fm::SampleLayout::kS16, tail.data(), &got),
                fm::Status::kOk);
      EXPECT_EQ(got, 100);
      EXPECT_TRUE(std::all_of(tail.begin() + 100 * frameBytes, tail.end(),
                              [](std::uint8_t b) { return b == 0; }));
    }
  }
}

// MXF wrappings ffmpeg writes: operational pattern, packages with their names, UMIDs (as
// ffprobe reports them) and tracks, the start time code and the rate.
TEST_F(FfmediaTest, MxfPackagesLikeFfprobe) {
  struct MxfCase {
    const char* name;
    const char* make;  // ffmpeg arguments: inputs, codecs, wrapping
    const char* pattern;
    const char* timecode;
    const char* materialName;
    const char* sourceName;
    const char* kinds;  // the material package's tracks: p(icture), s(ound)
    int rateNum, rateDen;
    int frames;
  };
  const MxfCase cases[] = {
      {"op1a_dnxhr_2997df",
       "-f lavfi -i testsrc2=size=320x240:rate=30000/1001 -f lavfi -i sine=sample_rate=48000 -t 1 "
       "-c:v dnxhd -profile:v dnxhr_hq -pix_fmt yuv422p -c:a pcm_s16le -ac 2 -timecode "
       "'01:00:00;00' -f mxf",
       "OP1a", "01:00:00;00", "", "", "ps", 30000, 1001, 30},
      {"opatom_video",
       "-f lavfi -i testsrc2=size=320x240:rate=25 -t 1 -c:v dnxhd -profile:v "
       "dnxhr_hq -pix_fmt yuv422p -timecode 10:00:00:00 -f mxf_opatom",
       "OPAtom", "10:00:00:00", "", "", "p", 25, 1, 25},
      {"opatom_sound",
       "-f lavfi -i sine=sample_rate=48000 -t 1 -c:a pcm_s24le -ac 1 -r 25 "
       "-timecode 00:00:00:05 -f mxf_opatom",
       "OPAtom", "00:00:00:05", "", "", "s", 0, 0, 0},
      {"d10_named",
       "-f lavfi -i testsrc2=size=720x608:rate=25 -f lavfi -i sine=sample_rate=48000 -t 0.4 -c:v "
       "mpeg2video -pix_fmt yuv422p -g 1 -b:v 30M -minrate 30M -maxrate 30M -bufsize 1200000 "
       "-rc_init_occupancy 1200000 -flags +ildct+ilme -top 1 -c:a pcm_s16le -ac 4 -timecode "
       "00:00:10:00 -metadata material_package_name=Mat -metadata:s:v file_package_name=Src -f "
       "mxf_d10",
       "OP1a", "00:00:10:00", "Mat", "Src", "ps", 25, 1, 10},
  };
  for (const MxfCase& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path file = dir_ / (std::string(c.name) + ".mxf");
    ASSERT_TRUE(Shell(std::string("ffmpeg -v error -y ") + c.make + " " + vxtest::Quote(file)));
    auto probe = [&](const std::string& entries) {
      std::string v = Capture("ffprobe -v error -of default=nw=1:nk=1 -show_entries " + entries +
                              " " + vxtest::Quote(file));
      while (!v.empty() && (v.back() == '\n' || v.back() == '\r')) v.pop_back();
      return v;
    };
    fm::MediaReader r;
    ASSERT_EQ(r.Open(file.string()), fm::Status::kOk);
    const fm::MediaInfo& info = r.Info();
    EXPECT_EQ(info.operationalPattern, c.pattern);
    EXPECT_EQ(info.timecode, c.timecode);
    ASSERT_EQ(info.packages.size(), 2u);
    const fm::Package& m = info.packages[0];
    const fm::Package& src = info.packages[1];
    EXPECT_EQ(m.kind, fm::PackageKind::kMaterial);
    EXPECT_EQ(m.name, c.materialName);
    EXPECT_EQ(m.umid, probe("format_tags=material_package_umid"));
    EXPECT_EQ(m.umid.size(), 66u);
    EXPECT_EQ(m.timecode, c.timecode);
    std::string kinds;
    for (const fm::PackageTrack& t : m.tracks) kinds += t.kind[0];
    EXPECT_EQ(kinds, c.kinds);
    EXPECT_EQ(src.kind, fm::PackageKind::kSource);
    EXPECT_EQ(src.name, c.sourceName);
    EXPECT_EQ(src.umid, probe("stream_tags=file_package_umid -select_streams 0"));
    EXPECT_NE(src.umid, m.umid);
    EXPECT_EQ(src.tracks.size(), m.tracks.size());
    if (c.frames) {
      ASSERT_EQ(info.video.size(), 1u);
      EXPECT_EQ(info.video[0].rate, (fm::Rational{c.rateNum, c.rateDen}));
      EXPECT_EQ(info.video[0].frames, c.frames);
    } else {
      ASSERT_EQ(info.audio.size(), 1u);
      EXPECT_EQ(info.audio[0].samples, 48000);
    }
  }
}

// MOV files we write, read by FFmpeg's tools: codec, profile, time code, frames and sound.
TEST_F(FfmediaTest, WrittenMovReadsBackInFfmpeg) {
  struct WriteCase {
    fm::VideoCodec codec;
    const char* probeCodec;
    const char* profile;  // ffprobe's name, or "" when it has none
    fm::PixelLayout input;
    int tolerance;  // largest RGB code difference ffmpeg's decode may show
  };
  const WriteCase cases[] = {
      {fm::VideoCodec::kProRes422HQ, "prores", "HQ", fm::PixelLayout::kRGB24, 12},
      {fm::VideoCodec::kProRes4444, "prores", "4444", fm::PixelLayout::kRGBA8, 12},
      {fm::VideoCodec::kDNxHRHQ, "dnxhd", "DNXHR HQ", fm::PixelLayout::kBGRA8, 16},
      {fm::VideoCodec::kDNxHRHQX, "dnxhd", "DNXHR HQX", fm::PixelLayout::kRGBA16, 12},
      {fm::VideoCodec::kV210, "v210", "", fm::PixelLayout::kUYVY8, 0},
      {fm::VideoCodec::kRGB24, "rawvideo", "", fm::PixelLayout::kRGB24, 0},
      {fm::VideoCodec::kRGBA8, "rawvideo", "", fm::PixelLayout::kRGBAF32, 0},
  };
  const int w = 258, h = 144, frames = 5, channels = 2, rate = 48000;
  const std::int64_t samplesPerFrame = rate / 25;
  for (const WriteCase& wc : cases) {
    SCOPED_TRACE(wc.probeCodec + std::string(" ") + wc.profile);
    const fs::path file = dir_ / "out.mov";
    fm::VideoSettings vs;
    vs.codec = wc.codec;
    vs.width = w;
    vs.height = h;
    vs.rate = {25, 1};
    fm::MovWriter writer;
    ASSERT_EQ(writer.Open(file.string(), &vs, {{rate, channels, 24}}, "01:02:03:04"),
              fm::Status::kOk);
    const std::size_t row = fm::MinRowBytes(wc.input, w);
    std::vector<std::uint8_t> pic(row * h);
    std::vector<std::vector<std::uint8_t>> rgb(frames, std::vector<std::uint8_t>(3 * w * h));
    std::vector<std::uint8_t> pcm;
    for (int f = 0; f < frames; ++f) {
      // Smooth ramps that move each frame (lossy codecs keep them within a few codes); UYVY
      // input stays within video range so the 10-bit file holds it exactly.
      for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
          const int rv = x * 200 / (w - 1) + f * 10, gv = y * 255 / (h - 1), bv = 250 - rv;
          std::uint8_t* p = pic.data() + y * row;
          std::uint8_t* q = rgb[f].data() + (y * w + x) * 3;
          q[0] = static_cast<std::uint8_t>(rv), q[1] = static_cast<std::uint8_t>(gv),
          q[2] = static_cast<std::uint8_t>(bv);
          switch (wc.input) {
            case fm::PixelLayout::kRGB24:
              std::copy(q, q + 3, p + 3 * x);
              break;
            case fm::PixelLayout::kRGBA8:
              std::copy(q, q + 3, p + 4 * x), p[4 * x + 3] = 200;
              break;
            case fm::PixelLayout::kBGRA8:
              p[4 * x] = q[2], p[4 * x + 1] = q[1], p[4 * x + 2] = q[0], p[4 * x + 3] = 255;
              break;
            case fm::PixelLayout::kRGBA16:
              for (int ch = 0; ch < 4; ++ch) {
                const int v = ch < 3 ? q[ch] * 257 : 65535;
                p[8 * x + 2 * ch] = static_cast<std::uint8_t>(v), p[8 * x + 2 * ch + 1] = v >> 8;
              }
              break;
            case fm::PixelLayout::kRGBAF32:
              for (int ch = 0; ch < 4; ++ch) {
                const float v = ch < 3 ? q[ch] / 255.0f : 1.0f;
                std::memcpy(p + 16 * x + 4 * ch, &v, 4);
              }
              break;
            case fm::PixelLayout::kUYVY8: {
              // Y and chroma ramps, compared as UYVY below.
              const std::uint8_t yv = static_cast<std::uint8_t>(16 + (x + y + f) % 220);
              p[2 * x + 1] = yv;
              p[2 * x] = static_cast<std::uint8_t>(16 + ((x & ~1) + 3 * f) % 224);
              if (x & 1) p[2 * x] = static_cast<std::uint8_t>(16 + (y * 2 + f) % 224);
              break;
            }
            default:
              break;
          }
        }
      }
      if (wc.input == fm::PixelLayout::kUYVY8) rgb[f] = pic;
      ASSERT_EQ(writer.WriteFrame(pic.data(), static_cast<std::ptrdiff_t>(row), wc.input),
                fm::Status::kOk);
      std::vector<std::uint8_t> chunk(samplesPerFrame * channels * 3);
      for (std::size_t i = 0; i < chunk.size(); ++i)
        chunk[i] = static_cast<std::uint8_t>((pcm.size() + i) * 37 + f);
      ASSERT_EQ(writer.WriteAudio(0, chunk.data(), samplesPerFrame, fm::SampleLayout::kS24),
                fm::Status::kOk);
      pcm.insert(pcm.end(), chunk.begin(), chunk.end());
    }
    ASSERT_EQ(writer.Finish(), fm::Status::kOk);

    const std::string probe = Capture(
        "ffprobe -v error -count_frames -show_entries "
        "stream=codec_name,profile,nb_read_frames,width,height:stream_tags=timecode "
        "-of default=nw=1 " +
        vxtest::Quote(file));
    EXPECT_NE(probe.find("codec_name=" + std::string(wc.probeCodec)), std::string::npos) << probe;
    if (*wc.profile) {
      EXPECT_NE(probe.find("profile=" + std::string(wc.profile)), std::string::npos) << probe;
    }
    EXPECT_NE(probe.find("nb_read_frames=5"), std::string::npos) << probe;
    EXPECT_NE(probe.find("TAG:timecode=01:02:03:04"), std::string::npos) << probe;

    const bool yuv = wc.input == fm::PixelLayout::kUYVY8;
    const fs::path raw = dir_ / "back.raw";
    ASSERT_TRUE(Shell("ffmpeg -v error -y -i " + vxtest::Quote(file) + " -map 0:v:0 -pix_fmt " +
                      (yuv ? "uyvy422" : "rgb24") + " -f rawvideo " + vxtest::Quote(raw)));
    const std::vector<std::uint8_t> back = Slurp(raw);
    const std::size_t size = rgb[0].size();
    ASSERT_EQ(back.size(), size * frames);
    for (int f = 0; f < frames; ++f)
      EXPECT_LE(MaxDiff(back.data() + size * f, rgb[f].data(), size, 1, false), wc.tolerance)
          << "frame " << f;

    const fs::path snd = dir_ / "back.pcm";
    ASSERT_TRUE(Shell("ffmpeg -v error -y -i " + vxtest::Quote(file) +
                      " -map 0:a:0 -f s24le -c:a pcm_s24le " + vxtest::Quote(snd)));
    EXPECT_EQ(Slurp(snd), pcm);
  }
}

// Damaged and hostile files: every call returns a status, nothing crashes or hangs.
TEST_F(FfmediaTest, BadInputFailsCleanly) {
  const fs::path good = dir_ / "good.mov";
  ASSERT_TRUE(
      Shell("ffmpeg -v error -y -f lavfi -i testsrc2=size=64x48:rate=25 -f lavfi -i "
            "sine=sample_rate=48000 -frames:v 12 -shortest -c:v libx264 -g 4 -bf 2 -c:a "
            "aac " +
            vxtest::Quote(good)));
  const std::vector<std::uint8_t> bytes = Slurp(good);
  ASSERT_GT(bytes.size(), 1000u);
  std::vector<std::vector<std::uint8_t>> inputs;
  inputs.push_back({});
  inputs.emplace_back(4096, 0);
  std::mt19937 rng(3);
  std::vector<std::uint8_t> noise(8192);
  for (auto& b : noise) b = static_cast<std::uint8_t>(rng());
  inputs.push_back(noise);
  for (std::size_t cut : {bytes.size() / 4, bytes.size() / 2, bytes.size() - 100})
    inputs.emplace_back(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(cut));
  std::vector<std::uint8_t> flipped = bytes;
  for (std::size_t i = 64; i < flipped.size(); i += 97) flipped[i] ^= 0x5A;
  inputs.push_back(flipped);

  for (std::size_t i = 0; i < inputs.size(); ++i) {
    SCOPED_TRACE(i);
    const fs::path file = dir_ / "bad.mov";
    vxtest::WriteFile(file, inputs[i]);
    for (bool memory : {false, true}) {
      fm::MediaReader r;
      const fm::Status s =
          memory ? r.OpenMemory(inputs[i].data(), inputs[i].size()) : r.Open(file.string());
      if (i < 3) {
        EXPECT_NE(s, fm::Status::kOk);
      }
      if (s != fm::Status::kOk) {
        EXPECT_FALSE(r.IsOpen());
        continue;
      }
      for (std::size_t t = 0; t < r.Info().video.size(); ++t) {
        const fm::VideoTrack& v = r.Info().video[t];
        std::vector<std::uint8_t> buf(static_cast<std::size_t>(v.width) * v.height * 4);
        for (std::int64_t k = v.frames - 1; k >= 0; k -= 3)
          r.ReadFrame(static_cast<int>(t), k, fm::PixelLayout::kRGBA8, buf.data(), v.width * 4);
      }
      for (std::size_t t = 0; t < r.Info().audio.size(); ++t) {
        std::vector<std::uint8_t> buf(4096 * 4 * r.Info().audio[t].channels);
        r.ReadAudio(static_cast<int>(t), r.Info().audio[t].samples / 2, 4096,
                    fm::SampleLayout::kF32, buf.data());
      }
    }
  }
  fm::MediaReader none;
  EXPECT_EQ(none.Open((dir_ / "missing.mov").string()), fm::Status::kFail);
  // A writer that is never finished leaves nothing behind.
  const fs::path sub = dir_ / "w";
  fs::create_directory(sub);
  {
    fm::VideoSettings vs;
    vs.codec = fm::VideoCodec::kV210;
    vs.width = 48;
    vs.height = 8;
    fm::MovWriter w;
    ASSERT_EQ(w.Open((sub / "unfinished.mov").string(), &vs, {}), fm::Status::kOk);
    std::vector<std::uint8_t> frame(128 * 8);
    EXPECT_EQ(w.WriteFrame(frame.data(), 128, fm::PixelLayout::kV210), fm::Status::kOk);
  }
  EXPECT_TRUE(fs::is_empty(sub));
  fm::MovWriter w;
  fm::VideoSettings bad;
  bad.width = 0;
  EXPECT_EQ(w.Open((dir_ / "x.mov").string(), &bad, {}), fm::Status::kInvalidArg);
  EXPECT_EQ(w.Open((dir_ / "x.mov").string(), nullptr, {{48000, 2, 20}}), fm::Status::kInvalidArg);
}

// AVI and MXF files ffmpeg writes, damaged by hand at the fields a broken writer gets wrong.
// Whatever opens must read every listed frame with kOk or kFail, never crash or overrun.
TEST_F(FfmediaTest, DamagedAviAndMxf) {
  const fs::path avi = dir_ / "good.avi";
  const fs::path mxf = dir_ / "good.mxf";
  const std::string src =
      "-f lavfi -i testsrc2=size=32x16:rate=25 -f lavfi -i sine=sample_rate=48000 -t 0.48 ";
  ASSERT_TRUE(Shell("ffmpeg -v error -y " + src + "-c:v rawvideo -pix_fmt bgr24 -c:a pcm_s16le " +
                    vxtest::Quote(avi)));
  ASSERT_TRUE(Shell("ffmpeg -v error -y " + src + "-c:v mpeg2video -g 4 -bf 1 -pix_fmt " +
                    "yuv422p -c:a pcm_s16le " + vxtest::Quote(mxf)));
  using Bytes = std::vector<std::uint8_t>;
  auto at = [](const Bytes& b, const char* id, std::size_t from = 0) {
    const auto it = std::search(b.begin() + static_cast<std::ptrdiff_t>(from), b.end(), id, id + 4);
    return static_cast<std::size_t>(it - b.begin());
  };
  auto put32 = [](Bytes& b, std::size_t o, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b[o + i] = static_cast<std::uint8_t>(v >> (8 * i));
  };
  auto get32 = [](const Bytes& b, std::size_t o) {
    return static_cast<std::uint32_t>(b[o] | b[o + 1] << 8 | b[o + 2] << 16 | b[o + 3] << 24);
  };
  enum Expect { kReads, kNoVideo, kFrameFails, kAny };
  struct Damage {
    const char* name;
    bool isMxf;
    std::function<void(Bytes&)> patch;
    Expect expect;
    int frames;  // expected frame count, or -1
    int rateNum;
  };
  const Damage cases[] = {
      // A zero rate and scale (and no frame period): FFmpeg's 25 fps, no division by zero.
      {"zero_rate", false,
       [&](Bytes& b) {
         const std::size_t h = at(b, "strh") + 8;
         put32(b, h + 20, 0);
         put32(b, h + 24, 0);
         put32(b, at(b, "avih") + 8, 0);
       },
       kReads, 12, 25},
      // Headers claiming more frames than the index holds: the count is what can be read.
      {"inflated_length", false,
       [&](Bytes& b) {
         put32(b, at(b, "avih") + 8 + 16, 100000);
         put32(b, at(b, "strh") + 8 + 32, 100000);
       },
       kReads, 12, 25},
      // Index entries (idx1 and the OpenDML standard indexes) pointing past the end.
      {"index_past_end", false,
       [&](Bytes& b) {
         const std::size_t i = at(b, "idx1");
         for (std::size_t e = i + 8; e + 16 <= b.size(); e += 16)
           put32(b, e + 8, get32(b, e + 8) + 0x40000000u);
         for (std::size_t x = at(b, "ix00"); x < b.size(); x = at(b, "ix00", x + 4))
           put32(b, x + 8 + 16, get32(b, x + 8 + 16) + 0x40000000u);
       },
       kAny, -1, 0},
      {"huge_dimensions", false,
       [&](Bytes& b) {
         const std::size_t f = at(b, "strf") + 8;
         put32(b, f + 4, 100000);
         put32(b, f + 8, static_cast<std::uint32_t>(-100000));
       },
       kNoVideo, -1, 0},
      // Large pictures whose packets are far too small.
      {"packets_too_small", false,
       [&](Bytes& b) {
         const std::size_t f = at(b, "strf") + 8;
         put32(b, f + 4, 3000);
         put32(b, f + 8, static_cast<std::uint32_t>(-2000));
       },
       kFrameFails, 12, 25},
      {"avi_cut_in_half", false, [](Bytes& b) { b.resize(b.size() / 2); }, kAny, -1, 0},
      {"avi_cut_before_index", false, [&](Bytes& b) { b.resize(at(b, "idx1") - 100); }, kAny, -1,
       0},
      {"mxf_cut_in_half", true, [](Bytes& b) { b.resize(b.size() / 2); }, kAny, -1, 0},
      {"mxf_cut_after_header", true,
       [](Bytes& b) { b.resize(std::min<std::size_t>(b.size(), 3000)); }, kAny, -1, 0},
      {"mxf_scrambled", true,
       [](Bytes& b) {
         for (std::size_t i = 200; i < b.size(); i += 331) b[i] ^= 0xA5;
       },
       kAny, -1, 0},
  };
  const Bytes aviBytes = Slurp(avi);
  const Bytes mxfBytes = Slurp(mxf);
  ASSERT_GT(aviBytes.size(), 10000u);
  {
    // ffmpeg writes top-down rows (negative height); the same pictures stored bottom-up must
    // still arrive top row first.
    Bytes up = aviBytes;
    const std::size_t f = at(up, "strf") + 8;
    ASSERT_EQ(static_cast<std::int32_t>(get32(up, f + 8)), -16);
    put32(up, f + 8, 16);
    const std::size_t row = 32 * 3;
    int flipped = 0;
    for (std::size_t c = at(up, "00dc"); c + 8 + row * 16 <= up.size(); c = at(up, "00dc", c + 4)) {
      if (get32(up, c + 4) != row * 16) continue;
      for (std::size_t y = 0; y < 8; ++y)
        std::swap_ranges(up.begin() + static_cast<std::ptrdiff_t>(c + 8 + y * row),
                         up.begin() + static_cast<std::ptrdiff_t>(c + 8 + (y + 1) * row),
                         up.begin() + static_cast<std::ptrdiff_t>(c + 8 + (15 - y) * row));
      ++flipped;
    }
    ASSERT_EQ(flipped, 12);
    fm::MediaReader down, bottomUp;
    ASSERT_EQ(down.OpenMemory(aviBytes.data(), aviBytes.size()), fm::Status::kOk);
    ASSERT_EQ(bottomUp.OpenMemory(up.data(), up.size()), fm::Status::kOk);
    for (int k : {11, 0, 5}) {
      std::vector<std::uint8_t> a(row * 16), b(row * 16);
      ASSERT_EQ(down.ReadFrame(0, k, fm::PixelLayout::kRGB24, a.data(), row), fm::Status::kOk);
      ASSERT_EQ(bottomUp.ReadFrame(0, k, fm::PixelLayout::kRGB24, b.data(), row), fm::Status::kOk);
      EXPECT_EQ(a, b) << "frame " << k;
    }
  }
  for (const Damage& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes b = c.isMxf ? mxfBytes : aviBytes;
    c.patch(b);
    fm::MediaReader r;
    const fm::Status s = r.OpenMemory(b.data(), b.size());
    if (c.expect != kAny) {
      ASSERT_EQ(s, fm::Status::kOk);
    }
    if (s != fm::Status::kOk) continue;
    const fm::MediaInfo& info = r.Info();
    if (c.expect == kNoVideo) {
      EXPECT_TRUE(info.video.empty());
      EXPECT_EQ(info.audio.size(), 1u);
    }
    for (std::size_t t = 0; t < info.video.size(); ++t) {
      const fm::VideoTrack& v = info.video[t];
      if (c.frames >= 0) {
        EXPECT_EQ(v.frames, c.frames);
      }
      if (c.rateNum) {
        EXPECT_EQ(v.rate, (fm::Rational{c.rateNum, 1}));
      }
      const std::size_t row = fm::MinRowBytes(fm::PixelLayout::kRGB24, v.width);
      std::vector<std::uint8_t> buf(row * static_cast<std::size_t>(v.height));
      for (std::int64_t k = v.frames - 1; k >= 0; --k) {
        const fm::Status fs = r.ReadFrame(static_cast<int>(t), k, fm::PixelLayout::kRGB24,
                                          buf.data(), static_cast<std::ptrdiff_t>(row));
        if (c.expect == kReads) {
          EXPECT_EQ(fs, fm::Status::kOk) << k;
        }
        if (c.expect == kFrameFails) {
          EXPECT_EQ(fs, fm::Status::kFail) << k;
        }
        if (c.expect == kAny) {
          EXPECT_TRUE(fs == fm::Status::kOk || fs == fm::Status::kFail);
        }
      }
      EXPECT_EQ(r.ReadFrame(static_cast<int>(t), v.frames, fm::PixelLayout::kRGB24, buf.data(),
                            static_cast<std::ptrdiff_t>(row)),
                fm::Status::kInvalidArg);
    }
    for (std::size_t t = 0; t < info.audio.size(); ++t) {
      std::vector<std::uint8_t> buf(4 * 2048 * static_cast<std::size_t>(info.audio[t].channels));
      const fm::Status as =
          r.ReadAudio(static_cast<int>(t), std::max<std::int64_t>(0, info.audio[t].samples - 1000),
                      2048, fm::SampleLayout::kF32, buf.data());
      EXPECT_TRUE(as == fm::Status::kOk || as == fm::Status::kFail);
    }
  }
}

// OpenDML (AVI 2.0): past 1 GiB FFmpeg's muxer goes on in "AVIX" RIFF chunks with their own
// indexes. The frame count covers all of them and the far frames read exactly as ffmpeg's.
void CheckOpenDml(const fs::path& dir, int frames, std::uint64_t minBytes) {
  const fs::path file = dir / "big.avi";
  ASSERT_TRUE(Shell("ffmpeg -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 -frames:v " +
                    std::to_string(frames) + " -c:v rawvideo -pix_fmt uyvy422 " +
                    vxtest::Quote(file)));
  ASSERT_GT(fs::file_size(file), minBytes);
  fm::MediaReader r;
  ASSERT_EQ(r.Open(file.string()), fm::Status::kOk);
  ASSERT_EQ(r.Info().video.size(), 1u);
  EXPECT_EQ(r.Info().video[0].frames, frames);
  const std::size_t size = 1920 * 2 * 1080;
  std::vector<std::uint8_t> ours(size);
  for (int k : {frames - 1, 3, frames - 2, frames / 2, frames - 1}) {
    SCOPED_TRACE(k);
    const fs::path one = dir / "one.raw";
    char at[32];
    std::snprintf(at, sizeof at, "%.2f", k / 25.0);
    ASSERT_TRUE(Shell(std::string("ffmpeg -v error -y -ss ") + at + " -i " + vxtest::Quote(file) +
                      " -frames:v 1 -f rawvideo -pix_fmt uyvy422 " + vxtest::Quote(one)));
    const std::vector<std::uint8_t> theirs = Slurp(one);
    ASSERT_EQ(theirs.size(), size);
    for (fm::PixelLayout l : {fm::PixelLayout::kUYVY8, fm::PixelLayout::kBGRA8}) {
      std::vector<std::uint8_t> buf(fm::MinRowBytes(l, 1920) * 1080);
      ASSERT_EQ(r.ReadFrame(0, k, l, buf.data(), fm::MinRowBytes(l, 1920)), fm::Status::kOk);
      if (l == fm::PixelLayout::kUYVY8) {
        EXPECT_TRUE(buf == theirs);
      }
    }
  }
  fs::remove(file);
}

TEST_F(FfmediaTest, OpenDmlOver1GiB) {
  CheckOpenDml(dir_.path(), 270, std::uint64_t{1} << 30);
}

// ctest runs this one only when asked (label "long"): it writes 4.5 GB.
TEST_F(FfmediaTest, OpenDmlOver4GiBLong) {
  CheckOpenDml(dir_.path(), 1100, std::uint64_t{4} << 30);
}

}  // namespace
