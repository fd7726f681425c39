// vxhost on sound files written byte by byte here: what info reports of a Broadcast Wave take,
// what a WAV conversion keeps, and what the waveform thumbnail draws.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Json = nlohmann::json;

void Put(Bytes& b, std::uint64_t v, int n) {
  for (int i = 0; i < n; ++i) b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Bytes Chunk(const char* id, const Bytes& body) {
  Bytes b(id, id + 4);
  Put(b, body.size(), 4);
  return b + body + Bytes(body.size() & 1, 0);
}
// "fmt " body; an extensible one holds PCM with 24 valid bits and channel mask 0x3F.
Bytes Fmt(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t bits) {
  Bytes f;
  const std::uint32_t align = channels * bits / 8;
  Put(f, tag, 2), Put(f, channels, 2), Put(f, rate, 4), Put(f, rate * align, 4), Put(f, align, 2);
  Put(f, bits, 2);
  if (tag == 0xFFFE) {
    Put(f, 22, 2), Put(f, 24, 2), Put(f, 0x3F, 4), Put(f, 1, 2);
    for (int v : {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}) f.push_back(v);
  }
  return f;
}
Bytes Wav(const Bytes& fmt, const Bytes& data, const Bytes& before = {}, const Bytes& after = {}) {
  const Bytes wave{'W', 'A', 'V', 'E'};
  return Chunk("RIFF", wave + before + Chunk("fmt ", fmt) + Chunk("data", data) + after);
}
// Body of chunk `id` of a RIFF file; empty when absent.
Bytes Find(const Bytes& f, const char* id) {
  for (std::size_t at = 12; at + 8 <= f.size();) {
    const std::size_t n = f[at + 4] | f[at + 5] << 8 | f[at + 6] << 16 | f[at + 7] << 24;
    if (std::equal(id, id + 4, f.begin() + at) && at + 8 + n <= f.size())
      return Bytes(f.begin() + at + 8, f.begin() + at + 8 + n);
    at += 8 + n + (n & 1);
  }
  return {};
}

class VxhostSound : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef _WIN32
    GTEST_SKIP() << "runs vxhost through a POSIX shell";
#endif
  }
  vxtest::HostRun Host(const std::string& args) {
    return vxtest::RunHost(dir.path(), args);
  }
  vxtest::TempDir dir;
};

TEST_F(VxhostSound, InfoReportsFormatLengthAndTheBroadcastWaveRecord) {
  Bytes bext(602, 0);  // description, originator, reference, date, time, time reference, version
  const std::string texts[] = {"Scene 12 take 3", "FieldRec", "REF0001", "2026-03-04", "05:06:07"};
  for (int i = 0, at[] = {0, 256, 288, 320, 330}; i < 5; ++i)
    std::copy(texts[i].begin(), texts[i].end(), bext.begin() + at[i]);
  for (int i = 0; i < 8; ++i) bext[338 + i] = static_cast<std::uint8_t>(172800000ull >> (8 * i));
  bext[346] = 1;
  vxtest::WriteFile(dir / "take.bwf",
                    Wav(Fmt(1, 1, 48000, 16), Bytes(144000, 0), Chunk("bext", bext)));
  vxtest::WriteFile(dir / "six.wav", Wav(Fmt(0xFFFE, 6, 48000, 24), Bytes(180, 0), {},
                                         Chunk("VXMD", {'h', 'o', 's', 't', '!'})));

  vxtest::HostRun r = Host("info --json take.bwf six.wav");
  ASSERT_EQ(r.code, 0) << r.err;
  Json all = Json::parse(r.out);
  r = Host("info --json --rate 29.97 take.bwf");
  ASSERT_EQ(r.code, 0) << r.err;
  all.push_back(Json::parse(r.out)[0]);
  // At 29.97 counted non-drop: 44 frames in 1.5 s, 107892 frames in the first hour.
  const Json want = Json::parse(R"j({"/0/sound/format": "PCM", "/0/sound/frames": 72000,
    "/0/sound/duration": "0:00:01.500", "/0/sound/duration time code": "00:00:01:12",
    "/0/sound/time code rate": "25 fps non-drop", "/0/sound/VXMD chunk/present": false,
    "/0/sound/broadcast wave/description": "Scene 12 take 3",
    "/0/sound/broadcast wave/originator": "FieldRec", "/0/sound/broadcast wave/reference": "REF0001",
    "/0/sound/broadcast wave/date": "2026-03-04", "/0/sound/broadcast wave/time": "05:06:07",
    "/0/sound/broadcast wave/time reference": 172800000,
    "/0/sound/broadcast wave/time of day": "01:00:00.000",
    "/0/sound/broadcast wave/start time code": "01:00:00:00",
    "/1/sound/format tag": 65534, "/1/sound/format": "extensible PCM",
    "/1/sound/channel mask": "0x3F (FL FR FC LFE BL BR)", "/1/sound/valid bits": 24,
    "/1/sound/frames": 10, "/1/sound/VXMD chunk/bytes": 5,
    "/2/sound/duration time code": "00:00:01:14",
    "/2/sound/broadcast wave/start time code": "00:59:56:12"})j");
  for (const auto& [pointer, value] : want.items()) {
    const Json::json_pointer at(pointer);
    EXPECT_EQ(all.contains(at) ? all[at] : Json(), value) << pointer << " in " << all;
  }
}

TEST_F(VxhostSound, ConvertToWavKeepsSamplesAndVxmdAndLeavesNothingOnFailure) {
  Bytes samples, vxmd{'a', 'b', 'c', 'd', 'e', 'f', 'g'};
  for (int i = 0; i < 30; ++i) samples.push_back(static_cast<std::uint8_t>(7 * i + 1));
  vxtest::WriteFile(dir / "in.wav", Wav(Fmt(1, 2, 44100, 24), samples, {}, Chunk("VXMD", vxmd)));
  Bytes cut = Wav(Fmt(1, 2, 44100, 24), samples);
  cut.resize(30);  // ends inside "fmt "
  vxtest::WriteFile(dir / "cut.wav", cut);
  vxtest::HostRun r = Host("convert in.wav out.wav -q");
  ASSERT_EQ(r.code, 0) << r.err;
  const Bytes out = vxtest::ReadFile(dir / "out.wav");
  EXPECT_EQ(Find(out, "data"), samples);
  EXPECT_EQ(Find(out, "VXMD"), vxmd);
  // Refused in words and nothing written: BWF is read only (the words name the writer to use).
  for (auto [in, to, words] : {std::tuple{"in.wav", "x.bwf",
                                          "x.bwf: the BWF parser does not write "
                                          "files (write .WAV"},
                               std::tuple{"cut.wav", "x.wav", "cut.wav: "}}) {
    r = Host(std::string("convert -q ") + in + " " + to);
    EXPECT_EQ(r.code, 1) << in;
    EXPECT_EQ(r.err.rfind(words, 0), 0u) << r.err;
    EXPECT_FALSE(std::filesystem::exists(dir / to));
  }
}

TEST_F(VxhostSound, ThumbnailDrawsEachChannelsExtentInItsBand) {
  // Lit rows of column x of the 64-column thumbnail of `file`, 32 rows (the backgrounds are dark).
  auto lit = [&](const std::string& file, int x) {
    std::vector<int> rows;
    EXPECT_EQ(Host("thumbnail " + file + " t.ppm --size 64").code, 0);
    const Bytes p = vxtest::ReadFile(dir / "t.ppm");
    const std::size_t head = std::string("P6\n64 32\n255\n").size(), at = head + x * 3;
    for (int y = 0; y < 32 && p.size() == head + 64 * 32 * 3; ++y)
      if (std::max({p[at + y * 192], p[at + y * 192 + 1], p[at + y * 192 + 2]}) > 100)
        rows.push_back(y);
    return rows;
  };
  // Stereo 16-bit: left silent, right swinging between both full-scale ends.
  Bytes stereo;
  for (int i = 0; i < 1000; ++i) Put(stereo, 0, 2), Put(stereo, i & 1 ? 0x7FFF : 0x8000, 2);
  vxtest::WriteFile(dir / "lr.wav", Wav(Fmt(1, 2, 8000, 16), stereo));
  ASSERT_EQ(Host("thumbnail lr.wav t.png --size 64").code, 0);
  const Bytes png = vxtest::ReadFile(dir / "t.png");
  ASSERT_GT(png.size(), 24u);
  EXPECT_EQ(Bytes(png.begin() + 16, png.begin() + 24), Bytes({0, 0, 0, 64, 0, 0, 0, 32}));  // IHDR
  for (int x : {0, 31, 63}) {
    const std::vector<int> rows = lit("lr.wav", x);  // a line mid-left band, all 16 right rows
    ASSERT_EQ(rows.size(), 17u) << x;
    EXPECT_NEAR(rows[0], 8, 1);
  }
  // +0.5 of full scale in every sample layout: one line a quarter down a 32-row band.
  const std::pair<Bytes, Bytes> halves[] = {{Fmt(1, 1, 8000, 8), {0xC0}},
                                            {Fmt(1, 1, 8000, 16), {0, 0x40}},
                                            {Fmt(1, 1, 8000, 24), {0, 0, 0x40}},
                                            {Fmt(1, 1, 8000, 32), {0, 0, 0, 0x40}},
                                            {Fmt(3, 1, 8000, 32), {0, 0, 0, 0x3F}},
                                            {Fmt(3, 1, 8000, 64), {0, 0, 0, 0, 0, 0, 0xE0, 0x3F}},
                                            {Fmt(0xFFFE, 1, 8000, 24), {0, 0, 0x40}}};
  for (const auto& [fmt, sample] : halves) {
    Bytes data;
    for (int i = 0; i < 100; ++i) data.insert(data.end(), sample.begin(), sample.end());
    vxtest::WriteFile(dir / "half.wav", Wav(fmt, data));
    const std::vector<int> rows = lit("half.wav", 10);
    ASSERT_EQ(rows.size(), 1u) << int(fmt[14]) << " bits";
    EXPECT_NEAR(rows[0], 8, 1) << int(fmt[14]) << " bits";
  }
}

}  // namespace
