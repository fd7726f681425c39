// RLA file images: header variants, run-length chunking, the table written at close, two images;
// other writers' files read as OpenImageIO reads them, ours read in OpenImageIO and ImageMagick.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "imagelib/wave/qi_image_wave.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pixel = std::array<std::uint8_t, 4>;
using vxtest::TempDir;

// A 740-byte header (active window 0..w-1 x 0..h-1) and one offset a line, every line the same
// `line` bytes right after the table.
Bytes Rla(int w, int h, int colour, int matte, int storage, int revision, const Bytes& line,
          int bits = 0, const char* time = "") {
  const std::size_t data = 740 + 4 * static_cast<std::size_t>(h);
  Bytes f(data + line.size(), 0);
  const auto put = [&](int at, int v) { vx::StoreBE16(&f[at], static_cast<std::uint16_t>(v)); };
  put(10, w - 1), put(14, h - 1), put(18, storage), put(20, colour), put(22, matte);
  put(26, revision), put(658, bits), put(662, bits);
  std::copy(time, time + std::char_traits<char>::length(time), f.begin() + 614);
  for (int y = 0; y < h; ++y) vx::StoreBE32(&f[740 + 4 * y], static_cast<std::uint32_t>(data));
  std::copy(line.begin(), line.end(), f.begin() + static_cast<std::ptrdiff_t>(data));
  return f;
}

Pixel Px(QI_ImageMem& img, int x, int y) {
  Pixel p;
  img.getPixel8(x, y, &p[0], &p[1], &p[2], &p[3]);
  return p;
}

TEST(Wave, ReadsAndRefuses) {
  const Bytes rgb = {0, 2, 0, 10, 0, 2, 0, 20, 0, 2, 0, 30};  // one 1-pixel line a channel
  const auto grey = [](const Bytes& line, int w = 1) { return Rla(w, 1, 1, 0, 0, 0, line); };
  const char *pos1 = " out of bound pointer pos 1 by 1\n",
             *pos2 = " out of bound pointer pos 2 by 3\n",
             *lost = " channelReadMultiFormat Lost track of where we are\n";
  // 16-bit planes: 0x1234 is 18.1 of 255, the matte's 0x8000 127.5; 767 of 1023 is 191.2.
  const Bytes w16 = {0, 3, 0xFE, 0x12, 0x34, 0, 3, 0xFE, 0x80, 0}, w10 = {0, 3, 0xFE, 2, 0xFF};
  const struct {
    const char* name;
    Bytes file;
    int result;  // -1 header refused, 0 read refused
    int variant = 0;
    Pixel px = {};
    const char* error = "";
  } kCases[] = {
      {"classic", Rla(1, 1, 3, 0, 0, 0, rgb), 1, 1, {10, 20, 30, 255}},
      {":00:, 16-bit, matte", Rla(1, 1, 1, 1, 1, 0, w16, 0, "12:00:00"), 1, 2, {18, 18, 18, 128}},
      {"0xFFFE, 10-bit", Rla(1, 1, 1, 0, 0, 0xFFFE, w10, 10), 1, 3, {191, 191, 191, 255}},
      {"classic, storage type 2", Rla(1, 1, 3, 0, 2, 0, rgb), -1},
      {"two colour channels", Rla(1, 1, 2, 0, 0, 0xFFFE, rgb), -1},
      {"32767 wide, 4 bytes of lines", Rla(32767, 1, 3, 0, 0, 0, Bytes(4, 0)), -1},
      {"short header", Bytes(700, 0), -1},
      {"repeat overshoots", grey({0, 2, 4, 7}, 2), 1, 1, {7, 7, 7, 255}, pos2},
      {"literal overshoots", grey({0, 3, 0xFE, 9, 8}), 1, 1, {9, 9, 9, 255}, pos1},
      {"empty channel", grey({0, 0, 0, 0}), 1, 1, {0, 0, 0, 255}, lost},
      {"code past the end", grey({0, 9, 0, 1}), 0, 1, {}, "EOF / read error\n"},
  };
  TempDir dir;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    vxtest::WriteFile(dir / "in.rla", c.file);
    QI_ImageWAVE f;
    ASSERT_TRUE(f.open(vxtest::Wide(dir / "in.rla").c_str(), VXT("rb")));
    testing::internal::CaptureStderr();
    const bool header = f.readHeader();
    ASSERT_EQ(header, c.result >= 0);
    QI_ImageRGBA8 img(f.getWidth(), f.getHeight());
    if (header) {
      EXPECT_EQ(f.headerVariant(), c.variant);
      EXPECT_EQ(f.getBitsPerChannel(), 8);
      EXPECT_EQ(f.read(&img), c.result);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.error);
    if (c.result == 1) {
      EXPECT_EQ(Px(img, 0, 0), c.px);
    }
  }
}

// `src` written as `name`: the bytes before close (table still zero) and after.
std::pair<Bytes, Bytes> Write(const TempDir& dir, const char* name, QI_ImageMem& src, int type) {
  QI_ImageWAVE f;
  f.setWidth(src.getWidth()), f.setHeight(src.getHeight()), f.setPixelType(type);
  if (!f.open(vxtest::Wide(dir / name).c_str(), VXT("wb")) || !f.writeHeader() || !f.write(&src))
    return {};
  std::fflush(f.getStream());
  Bytes before = vxtest::ReadFile(dir / name);
  f.close();
  return {before, vxtest::ReadFile(dir / name)};
}

TEST(Wave, WrittenBytes) {
  // Grey lines, bottom first: 129 equal; 128 equal and one; 127 equal and two; all different.
  QI_ImageRGBA8 src(129, 4);
  for (int x = 0; x < 129; ++x) {
    const auto v = static_cast<std::uint8_t>(x);
    src.setPixel8(x, 0, 5, 0, 0, 0), src.setPixel8(x, 1, x < 128 ? 6 : 1, 0, 0, 0);
    src.setPixel8(x, 2, x < 127 ? 7 : v, 0, 0, 0), src.setPixel8(x, 3, v, 0, 0, 0);
  }
  TempDir dir;
  const auto [before, f] = Write(dir, "out.rla", src, QI_PIXEL_GRAY);
  Bytes want = {0, 4, 127, 5, 0xFF, 5, 0, 4, 127, 6, 0xFF, 1, 0, 5, 126, 7, 0xFE, 127, 128, 0, 131};
  for (int x = -1; x < 130; ++x) want.push_back(x < 0 ? 0x80 : x == 128 ? 0xFF : x - (x > 128));
  ASSERT_EQ(f.size(), 756 + want.size());
  EXPECT_EQ(Bytes(f.begin() + 756, f.end()), want);
  EXPECT_EQ(Bytes(before.begin() + 740, before.begin() + 756), Bytes(16, 0)) << "table at close";
  const std::uint32_t offsets[] = {756, 762, 768, 775};
  for (int y = 0; y < 4; ++y) EXPECT_EQ(vx::LoadBE32(&f[740 + 4 * y]), offsets[y]) << y;
  // Both windows, frame 1, one colour channel, no matte, revision 0xFFFE.
  EXPECT_EQ(Bytes(f.begin(), f.begin() + 28),
            (Bytes{0, 0, 0, 128, 0, 0, 0, 3, 0, 0, 0, 128, 0,    0,
                   0, 3, 0, 1,   0, 0, 0, 1, 0, 0, 0, 0,   0xFF, 0xFE}));
  EXPECT_STREQ(reinterpret_cast<const char*>(&f[144]), "out.rla");
}

TEST(Wave, SelectsTheSecondImage) {
  // A file of ours appended to another, chained through the first's next-image offset, its line
  // offset moved by the first file's length.
  QI_ImageRGBA8 a(3, 2), b(2, 1);
  b.setPixel8(0, 0, 200, 100, 50, 25), b.setPixel8(1, 0, 9, 8, 7, 6);
  TempDir dir;
  Bytes first = Write(dir, "a.rla", a, QI_PIXEL_RGB).second;
  Bytes second = Write(dir, "b.rla", b, QI_PIXEL_RGBA).second;
  const auto shift = static_cast<std::uint32_t>(first.size());
  vx::StoreBE32(&first[736], shift);
  vx::StoreBE32(&second[740], vx::LoadBE32(&second[740]) + shift);
  first.insert(first.end(), second.begin(), second.end());
  vxtest::WriteFile(dir / "two.rla", first);
  QI_ImageWAVE f;
  ASSERT_TRUE(f.open(vxtest::Wide(dir / "two.rla").c_str(), VXT("rb")) && f.readHeader());
  EXPECT_EQ(f.getImageCount() * 10 + f.getWidth(), 23);
  ASSERT_TRUE(f.selectImage(1) && f.readHeader());
  ASSERT_EQ(f.getWidth() * 10 + f.getHeight(), 21);
  QI_ImageRGBA8 img(2, 1);
  ASSERT_TRUE(f.read(&img));
  EXPECT_EQ(Px(img, 0, 0), (Pixel{200, 100, 50, 25}));
  EXPECT_EQ(Px(img, 1, 0), (Pixel{9, 8, 7, 6}));
  EXPECT_TRUE(f.selectImage(2));
  EXPECT_FALSE(f.readHeader()) << "no third image";
}

// Our decode as 8-bit RGBA, top line first; empty when the header or a line fails.
std::vector<int> Ours(const std::filesystem::path& p, int* w = nullptr, int* h = nullptr) {
  QI_ImageWAVE f;
  if (!f.open(vxtest::Wide(p).c_str(), VXT("rb")) || !f.readHeader()) return {};
  QI_ImageRGBA8 img(f.getWidth(), f.getHeight());
  if (!f.read(&img)) return {};
  std::vector<int> v;
  for (int y = f.getHeight() - 1; y >= 0; --y)
    for (int x = 0; x < f.getWidth(); ++x)
      for (std::uint8_t c : Px(img, x, y)) v.push_back(c);
  if (w) *w = f.getWidth(), *h = f.getHeight();
  return v;
}

bool Sh(const std::string& cmd) {
  return std::system((cmd + " 2>/dev/null").c_str()) == 0;
}

TEST(WaveInterop, CorpusReadsAsOpenImageIO) {
  const auto corpus = vxtest::CorpusDir();
  if (corpus.empty()) GTEST_SKIP() << "no corpus";
  std::ifstream oracle(corpus / "oracle-oiio.jsonl");
  const std::regex file(
      R"re("file":"(rla/[^"]*)","width":(\d+),"height":(\d+),"channels":(\d+))re"),
      sample(R"re("x":(\d+),"y_from_top":(\d+),"v":\[([^\]]*)\])re");
  int files = 0;
  for (std::string line; std::getline(oracle, line);) {
    std::smatch m;
    if (!std::regex_search(line, m, file)) continue;
    SCOPED_TRACE(m[1].str());
    ++files;
    int w = 0, h = 0;
    const auto img = Ours(corpus / m[1].str(), &w, &h);
    if (m[1].str().starts_with("rla/crash")) continue;  // fails or reads, never crashes
    ASSERT_EQ(std::to_string(w) + "x" + std::to_string(h), m[2].str() + "x" + m[3].str());
    for (auto it = std::sregex_iterator(line.begin(), line.end(), sample);
         it != std::sregex_iterator(); ++it) {
      const int at = (std::stoi((*it)[2]) * w + std::stoi((*it)[1])) * 4;
      std::istringstream v(std::regex_replace((*it)[3].str(), std::regex(","), " "));
      float want = 0;
      for (int c = 0; c < std::stoi(m[4]) && v >> want; ++c)
        EXPECT_LE(std::abs(img[at + c] - want * 255), 1.001f) << (*it)[0] << " channel " << c;
    }
  }
  EXPECT_EQ(files, 15);
}

// A tool's 8-bit RGBA decode, top line first (grey repeated, alpha 255 when the file has none):
// oiiotool's --dumpdata or ImageMagick's raw dump. Empty when the tool failed.
std::vector<int> Decoded(const TempDir& dir, const std::string& name, bool oiio) {
  const std::string in = vxtest::Quote(dir / name), dump = vxtest::Quote(dir / "dump");
  std::vector<int> v;
  if (!oiio && Sh("convert " + in + " -depth 8 rgba:" + dump)) {
    const Bytes b = vxtest::ReadFile(dir / "dump");
    v.assign(b.begin(), b.end());
  }
  if (!oiio || !Sh("oiiotool --dumpdata " + in + " > " + dump)) return v;
  std::ifstream text(dir / "dump");
  std::string line;
  std::getline(text, line);
  while (std::getline(text, line)) {
    std::istringstream values(line.substr(line.find(':') + 1));
    std::vector<int> p;
    for (int n; values >> n;) p.push_back(n);
    if (p.size() == 1) p = {p[0], p[0], p[0]};
    if (p.size() == 3) p.push_back(255);
    v.insert(v.end(), p.begin(), p.end());
  }
  return v;
}

TEST(WaveInterop, OiiotoolAndImageMagickBothWays) {
  if (!Sh("convert -version >/dev/null && oiiotool --version >/dev/null"))
    GTEST_SKIP() << "ImageMagick or oiiotool missing";
  constexpr int kW = 300;  // runs and literals past 128, short runs
  const auto value = [](int x, int y, int c) {
    const int v[] = {x < 140 ? 153 : x % 7 * 36 + y, x / 3, x > 150 ? 77 : x,
                     x < 250 ? 255 : x % 2};
    return v[c];
  };
  const char* kChannels[] = {"", "R", "", "R,G,B", "R,G,B,A"};
  const int kPixelType[] = {0, QI_PIXEL_GRAY, 0, QI_PIXEL_RGB, QI_PIXEL_RGBA};
  TempDir dir;
  for (int ch : {1, 3, 4})
    for (int h : {4, 1}) {  // ImageMagick 6 counts columns on from line to line: one line for it
      SCOPED_TRACE(std::to_string(ch) + " channels, height " + std::to_string(h));
      QI_ImageRGBA8 src(kW, h);
      for (int i = 0; i < kW * h; ++i) {
        const auto v = [&](int c) { return static_cast<std::uint8_t>(value(i % kW, i / kW, c)); };
        src.setPixel8(i % kW, i / kW, v(0), v(1), v(2), v(3));
      }
      QI_ImageWAVE f;
      f.setWidth(kW), f.setHeight(h), f.setPixelType(kPixelType[ch]);
      const auto path = vxtest::Wide(dir / "o.rla");
      ASSERT_TRUE(f.open(path.c_str(), VXT("wb")) && f.writeHeader() && f.write(&src));
      f.close();
      // Ours as the source at 8 bits, grey the red component (ImageMagick takes a grey file's
      // one channel as red and leaves green and blue as allocated).
      const bool oiio = h > 1;
      const auto got = Decoded(dir, "o.rla", oiio);
      ASSERT_EQ(got.size(), std::size_t{kW * 4} * h);
      for (int i = 0; i < kW * h * 4; ++i) {
        const int x = i / 4 % kW, y = h - 1 - i / 4 / kW, c = i % 4;
        if (!oiio && ch == 1 && c % 3) continue;
        ASSERT_EQ(got[i], c == 3 && ch < 4 ? 255 : value(x, y, ch == 1 ? 0 : c)) << i;
      }
      if (!oiio) continue;
      // oiiotool's own file of that picture reads in ours as oiiotool reads it.
      ASSERT_TRUE(Sh("oiiotool " + vxtest::Quote(dir / "o.rla") + " --ch " + kChannels[ch] +
                     " -d uint8 -o " + vxtest::Quote(dir / "t.rla")));
      EXPECT_EQ(Ours(dir / "t.rla"), Decoded(dir, "t.rla", true));
    }
}

}  // namespace
