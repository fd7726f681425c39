// Colour-map ("MAP") file images: hand-laid files and bad ones, the bytes we write, and
// ImageMagick's MAP files both ways.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "imagelib/mi/qi_image_mi.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pixel = std::array<std::uint16_t, 3>;
using vxtest::TempDir;

Bytes Cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Our trailer: "QIMI", width, height, entries, big-endian 32-bit.
Bytes Trailer(std::uint32_t w, std::uint32_t h, std::uint32_t n) {
  Bytes t{'Q', 'I', 'M', 'I'};
  for (std::uint32_t v : {w, h, n})
    for (int shift : {24, 16, 8, 0}) t.push_back(std::uint8_t(v >> shift));
  return t;
}

Pixel Px(QI_ImageMem& img, int x, int y) {
  Pixel p;
  img.getPixel16(x, y, &p[0], &p[1], &p[2], nullptr);
  return p;
}

// Header (after presetting the size when given) and whole read; -1 when the header fails.
int ReadAll(const std::filesystem::path& path, int w, int h, std::unique_ptr<QI_ImageRGBA16>* out) {
  QI_ImageMI f;
  f.setWidth(w), f.setHeight(h);
  if (!f.open(vxtest::Wide(path).c_str(), VXT("rb")) || !f.readHeader()) return -1;
  EXPECT_EQ(f.getPixelType(), QI_PIXEL_CMAP);
  *out = std::make_unique<QI_ImageRGBA16>(f.getWidth(), f.getHeight());
  return f.read(out->get());
}

TEST(Mi, ReadsAndRefuses) {
  Bytes map256(768, 0), map257(257 * 6, 0);
  map256[21] = 7, map256[22] = 8, map256[23] = 9;                  // entry 7
  map257[0] = map257[1] = 0xFF, map257[5] = 1;                     // entry 0
  for (int k = 0; k < 6; ++k) map257[1536 + k] = 0x12 + 0x22 * k;  // entry 256
  const struct {
    const char* name;
    Bytes file;
    int w, h;    // preset size (0: none)
    int result;  // -1 header refused, 0 read refused
    Pixel bottomLeft = {}, topRight = {};
  } kCases[] = {
      // clang-format off
      {"3 entries, no trailer, size given", {255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 1, 2, 2}, 2, 2, 1,
       {0, 0, 0xFFFF}, {0, 0xFFFF, 0}},
      {"trailer wins over a preset size", Cat({10, 20, 30, 40, 50, 60, 1, 0, 0}, Trailer(3, 1, 2)),
       9, 9, 1, {40 * 257, 50 * 257, 60 * 257}, {10 * 257, 20 * 257, 30 * 257}},
      {"square under 256 entries", Cat(map256, {0, 7, 7, 0}), 0, 0, 1, {7 * 257, 8 * 257, 9 * 257},
       {7 * 257, 8 * 257, 9 * 257}},
      {"257 16-bit entries, 16-bit indices", Cat(map257, {1, 0, 0, 0}), 1, 2, 1, {0xFFFF, 0, 1},
       {0x1234, 0x5678, 0x9ABC}},
      // clang-format on
      {"65535 x 65535, 10 bytes", Cat(Bytes(10, 0), Trailer(65535, 65535, 1)), 0, 0, -1},
      {"trailer with no entries", Cat({0, 0, 0, 0}, Trailer(1, 1, 0)), 0, 0, -1},
      {"one index short", {255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 1, 2}, 2, 2, -1},
      {"no size, not square", Cat(map256, {0, 0, 0}), 0, 0, -1},
      {"index past the map", {1, 2, 3, 0, 1}, 2, 1, 0},
      {"empty", {}, 0, 0, -1},
  };
  TempDir dir;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    vxtest::WriteFile(dir / "in.map", c.file);
    std::unique_ptr<QI_ImageRGBA16> img;
    ASSERT_EQ(ReadAll(dir / "in.map", c.w, c.h, &img), c.result);
    if (c.result == 1) {
      EXPECT_EQ(Px(*img, 0, 0), c.bottomLeft);
      EXPECT_EQ(Px(*img, img->getWidth() - 1, img->getHeight() - 1), c.topRight);
    }
  }
}

// Writes `src` through a fresh file image as `type`; the file's bytes.
Bytes Written(const TempDir& dir, QI_ImageMem& src, std::int32_t type) {
  QI_ImageMI f;
  f.setWidth(src.getWidth()), f.setHeight(src.getHeight()), f.setPixelType(type);
  const auto p = vxtest::Wide(dir / "out.map");
  EXPECT_TRUE(f.open(p.c_str(), VXT("wb")) && f.writeHeader() && f.write(&src));
  f.close();
  return vxtest::ReadFile(dir / "out.map");
}

TEST(Mi, WrittenBytes) {
  TempDir dir;
  QI_ImageRGBA8 rgb(2, 2);  // row 1 is the top line, stored first
  rgb.setPixel8(0, 1, 9, 8, 7, 255), rgb.setPixel8(1, 1, 1, 2, 3, 0);
  rgb.setPixel8(0, 0, 1, 2, 3, 255), rgb.setPixel8(1, 0, 200, 0, 100, 255);
  Bytes map(768, 0);
  for (int i = 0; i < 9; ++i) map[i] = Bytes{9, 8, 7, 1, 2, 3, 200, 0, 100}[i];
  EXPECT_EQ(Written(dir, rgb, QI_PIXEL_RGB), Cat(Cat(map, {0, 1, 1, 2}), Trailer(2, 2, 256)));
  QI_ImageMI f;  // read back into a colour-mapped image: indices and map as stored
  QI_ImageCMAP cmap(256, 2, 2);
  std::uint8_t c[3] = {};
  ASSERT_TRUE(f.open(vxtest::Wide(dir / "out.map").c_str(), VXT("rb")) && f.readHeader());
  ASSERT_TRUE(f.read(&cmap) && f.getMapSize() == 256 && f.getMapMaxIndex() == 255);
  cmap.getMapEntry(2, &c[0], &c[1], &c[2]);
  EXPECT_EQ(Bytes(c, c + 3), (Bytes{200, 0, 100}));
  EXPECT_EQ(cmap.getIndex(0, 0), 1);
  // Grey through the ramp: green 255 is grey 150.
  QI_ImageRGBA8 grey(1, 2);
  grey.setPixel8(0, 0, 100, 100, 100, 255), grey.setPixel8(0, 1, 0, 255, 0, 255);
  const Bytes g = Written(dir, grey, QI_PIXEL_GRAY);
  ASSERT_EQ(g.size(), 768u + 2 + 16);
  EXPECT_EQ(Bytes(g.begin() + 450, g.begin() + 453), (Bytes{150, 150, 150}));
  EXPECT_EQ(Bytes(g.begin() + 768, g.begin() + 770), (Bytes{150, 100}));
  // 289 colours: the 3-3-2 palette; white is its last entry, level 1/1/1 is (36, 36, 85).
  QI_ImageRGBA8 many(17, 17);
  for (int i = 0; i < 289; ++i) many.setPixel8(i % 17, i / 17, i % 17 * 15, i / 17 * 15, 40, 255);
  many.setPixel8(0, 16, 255, 255, 255, 255), many.setPixel8(1, 16, 40, 30, 80, 255);
  const Bytes m = Written(dir, many, QI_PIXEL_RGB);
  ASSERT_EQ(m.size(), 768u + 289 + 16);
  EXPECT_EQ(Bytes(m.begin() + 3 * 0x25, m.begin() + 3 * 0x26), (Bytes{36, 36, 85}));
  EXPECT_EQ(Bytes(m.begin() + 768, m.begin() + 770), (Bytes{0xFF, 0x25}));
}

bool Sh(const std::string& cmd) {
  return std::system((cmd + " 2>/dev/null").c_str()) == 0;
}

// ImageMagick's 8-bit RGB decode of `input` (options first), top line first.
Bytes Decoded(const TempDir& dir, const std::string& input) {
  return Sh("convert " + input + " -depth 8 rgb:" + vxtest::Quote(dir / "dump"))
             ? vxtest::ReadFile(dir / "dump")
             : Bytes{};
}

TEST(MiInterop, ImageMagickBothWays) {
  if (!Sh("convert -version >/dev/null")) GTEST_SKIP() << "ImageMagick missing";
  TempDir dir;
  const std::string png = vxtest::Quote(dir / "src.png"), few = vxtest::Quote(dir / "few.png");
  ASSERT_TRUE(
      Sh("convert -size 32x16 xc:black -channel R -fx i/31 -channel G -fx j/15 -channel B "
         "-fx '(i+j)/46' +channel -depth 8 " +
         png + " && convert " + png + " -colors 20 " + few + " && convert " + few +
         " MAP:" + vxtest::Quote(dir / "im.map")));
  const Bytes src = Decoded(dir, png), ref = Decoded(dir, few);
  ASSERT_TRUE(src.size() == 512 * 3 && ref.size() == 512 * 3);
  std::unique_ptr<QI_ImageRGBA16> img;
  ASSERT_EQ(ReadAll(dir / "im.map", 32, 16, &img), 1);  // ImageMagick writes no size
  QI_ImageRGBA8 full(32, 16);                           // all 512 colours
  for (int k = 0; k < 512; ++k) {  // pixels top line first, as the files store them
    const int x = k % 32, y = 15 - k / 32;
    for (int c = 0; c < 3; ++c) ASSERT_EQ(Px(*img, x, y)[c], ref[3 * k + c] * 257) << k;
    full.setPixel8(x, y, src[3 * k], src[3 * k + 1], src[3 * k + 2], 255);
  }
  // Ours back: 20 colours exactly, 512 within half a 3-3-2 step. ImageMagick's MAP reader here
  // keeps only one pixel of each line, so it reads our file as one column of 512 lines.
  QI_ImageMem* const pictures[] = {img.get(), &full};
  for (QI_ImageMem* picture : pictures) {
    Written(dir, *picture, QI_PIXEL_RGB);
    const Bytes back = Decoded(dir, "-depth 8 -size 1x512 MAP:" + vxtest::Quote(dir / "out.map"));
    const Bytes& want = picture == &full ? src : ref;
    ASSERT_EQ(back.size(), 512u * 3);
    for (int i = 0; i < 512 * 3; ++i)
      ASSERT_LE(std::abs(back[i] - want[i]), picture == &full ? (i % 3 < 2 ? 18 : 42) : 0) << i;
  }
}

}  // namespace
