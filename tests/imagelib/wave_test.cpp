// RLA file images: header variants, run-length chunking, the table written at close, two images.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
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
  const struct {
    const char* name;
    Bytes file;
    int result;  // -1 header refused, 0 read refused
    int variant = 0;
    Pixel px = {};
    const char* error = "";
  } kCases[] = {
      {"classic", Rla(1, 1, 3, 0, 0, 0, rgb), 1, 1, {10, 20, 30, 255}},
      // 16-bit planes: 0x1234 is 18.1 of 255, the matte's 0x8000 127.5.
      {"':00:' time, 16-bit grey and matte",
       Rla(1, 1, 1, 1, 1, 0, {0, 3, 0xFE, 0x12, 0x34, 0, 3, 0xFE, 0x80, 0}, 0, "12:00:00"),
       1,
       2,
       {18, 18, 18, 128}},
      // 767 of 1023 is 191.2 of 255.
      {"revision 0xFFFE, 10-bit",
       Rla(1, 1, 1, 0, 0, 0xFFFE, {0, 3, 0xFE, 2, 0xFF}, 10),
       1,
       3,
       {191, 191, 191, 255}},
      {"classic, storage type 2", Rla(1, 1, 3, 0, 2, 0, rgb), -1},
      {"two colour channels", Rla(1, 1, 2, 0, 0, 0xFFFE, rgb), -1},
      {"32767 wide, 4 bytes of lines", Rla(32767, 1, 3, 0, 0, 0, Bytes(4, 0)), -1},
      {"short header", Bytes(700, 0), -1},
      {"repeat overshoots",
       Rla(2, 1, 1, 0, 0, 0, {0, 2, 4, 7}),
       1,
       1,
       {7, 7, 7, 255},
       " out of bound pointer pos 2 by 3\n"},
      {"literal overshoots",
       Rla(1, 1, 1, 0, 0, 0, {0, 3, 0xFE, 9, 8}),
       1,
       1,
       {9, 9, 9, 255},
       " out of bound pointer pos 1 by 1\n"},
      {"empty channel",
       Rla(1, 1, 1, 0, 0, 0, {0, 0, 0, 0}),
       1,
       1,
       {0, 0, 0, 255},
       " channelReadMultiFormat Lost track of where we are\n"},
      {"code past the end", Rla(1, 1, 1, 0, 0, 0, {0, 9, 0, 1}), 0, 1, {}, "EOF / read error\n"},
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

// Writes `src` to `name`; the file's bytes before close, the table still zero.
Bytes Write(const TempDir& dir, const char* name, QI_ImageMem& src, int type, Bytes* closed) {
  QI_ImageWAVE f;
  f.setWidth(src.getWidth()), f.setHeight(src.getHeight()), f.setPixelType(type);
  const auto path = vxtest::Wide(dir / name);
  if (!f.open(path.c_str(), VXT("wb")) || !f.writeHeader() || !f.write(&src)) return {};
  std::fflush(f.getStream());
  Bytes open = vxtest::ReadFile(dir / name);
  f.close();
  *closed = vxtest::ReadFile(dir / name);
  return open;
}

TEST(Wave, WrittenBytes) {
  // Grey lines of 129 bytes, bottom first: 129 equal; 128 equal and one; 127 equal and two; no
  // two neighbours equal.
  QI_ImageRGBA8 src(129, 4);
  for (int x = 0; x < 129; ++x) {
    const auto v = static_cast<std::uint8_t>(x);
    src.setPixel8(x, 0, 5, 0, 0, 0);
    src.setPixel8(x, 1, x < 128 ? 6 : 1, 0, 0, 0);
    src.setPixel8(x, 2, x < 127 ? 7 : v, 0, 0, 0);
    src.setPixel8(x, 3, v, 0, 0, 0);
  }
  TempDir dir;
  Bytes f;
  const Bytes before = Write(dir, "out.rla", src, QI_PIXEL_GRAY, &f);
  Bytes want = {0, 4, 127, 5, 0xFF, 5, 0, 4, 127, 6, 0xFF, 1, 0, 5, 126, 7, 0xFE, 127, 128};
  want.insert(want.end(), {0, 131, 0x80});
  for (int x = 0; x < 128; ++x) want.push_back(static_cast<std::uint8_t>(x));
  want.insert(want.end(), {0xFF, 128});
  ASSERT_EQ(f.size(), 756 + want.size());
  EXPECT_EQ(Bytes(f.begin() + 756, f.end()), want);
  EXPECT_EQ(Bytes(before.begin() + 740, before.begin() + 756), Bytes(16, 0)) << "table at close";
  const std::uint32_t offsets[] = {756, 762, 768, 775};
  for (int y = 0; y < 4; ++y) EXPECT_EQ(vx::LoadBE32(&f[740 + 4 * y]), offsets[y]) << y;
  // Window, frame, 1 colour and no matte channel, revision 0xFFFE, 8 bits; the texts.
  EXPECT_EQ(Bytes(f.begin(), f.begin() + 28),
            (Bytes{0, 0, 0, 128, 0, 0, 0, 3, 0, 0, 0, 128, 0,    0,
                   0, 3, 0, 1,   0, 0, 0, 1, 0, 0, 0, 0,   0xFF, 0xFE}));
  EXPECT_EQ(vx::LoadBE16(&f[658]), 8);
  EXPECT_STREQ(reinterpret_cast<const char*>(&f[144]), "out.rla");
  EXPECT_STREQ(reinterpret_cast<const char*>(&f[400]), "vxprsr");
  EXPECT_STREQ(reinterpret_cast<const char*>(&f[44]), "0.670 0.330");
}

TEST(Wave, SelectsTheSecondImage) {
  // Two files of ours, the second appended to the first, chained through the first's next
  // offset and its line offsets moved by the first file's length.
  QI_ImageRGBA8 a(3, 2), b(2, 1);
  for (int x = 0; x < 3; ++x) a.setPixel8(x, 0, 1, 2, 3, 255), a.setPixel8(x, 1, 4, 5, 6, 255);
  b.setPixel8(0, 0, 200, 100, 50, 25), b.setPixel8(1, 0, 9, 8, 7, 6);
  TempDir dir;
  Bytes first, second;
  Write(dir, "a.rla", a, QI_PIXEL_RGB, &first);
  Write(dir, "b.rla", b, QI_PIXEL_RGBA, &second);
  const auto shift = static_cast<std::uint32_t>(first.size());
  vx::StoreBE32(&first[736], shift);
  vx::StoreBE32(&second[740], vx::LoadBE32(&second[740]) + shift);
  first.insert(first.end(), second.begin(), second.end());
  vxtest::WriteFile(dir / "two.rla", first);
  QI_ImageWAVE f;
  ASSERT_TRUE(f.open(vxtest::Wide(dir / "two.rla").c_str(), VXT("rb")) && f.readHeader());
  EXPECT_EQ(f.getImageCount(), 2);
  EXPECT_EQ(f.getWidth(), 3);
  ASSERT_TRUE(f.selectImage(1) && f.readHeader());
  ASSERT_EQ(f.getWidth() * 10 + f.getHeight(), 21);
  EXPECT_EQ(f.getPixelType(), QI_PIXEL_RGBA);
  QI_ImageRGBA8 img(2, 1);
  ASSERT_TRUE(f.read(&img));
  EXPECT_EQ(Px(img, 0, 0), (Pixel{200, 100, 50, 25}));
  EXPECT_EQ(Px(img, 1, 0), (Pixel{9, 8, 7, 6}));
  EXPECT_TRUE(f.selectImage(2));
  EXPECT_FALSE(f.readHeader()) << "no third image";
}

}  // namespace
