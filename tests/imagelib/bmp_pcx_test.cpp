// BMP and PCX file images: hand-laid files and bad ones, the bytes we write, the corpus read as
// OpenImageIO reads it, and files of ImageMagick and oiiotool read both ways.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "imagelib/bmp/qi_image_bmp.h"
#include "imagelib/pcx/qi_image_pcx.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pixel = std::array<std::uint8_t, 4>;
using vxtest::TempDir;

// File and info header (`info` bytes: 12, 40 or 108), then `tail` (masks, palette, pixels);
// the pixels start `pixels` bytes into the tail.
Bytes Bmp(int info, int w, int h, int bits, int coding, Bytes tail, std::size_t pixels,
          Bytes masks = {}) {
  Bytes f(14 + info, 0);
  f[0] = 'B', f[1] = 'M';
  vx::StoreLE32(&f[10], static_cast<std::uint32_t>(14 + info + pixels));
  vx::StoreLE32(&f[14], static_cast<std::uint32_t>(info));
  if (info == 12) {
    vx::StoreLE16(&f[18], static_cast<std::uint16_t>(w)), vx::StoreLE16(&f[20], 1 * h);
    vx::StoreLE16(&f[22], 1), vx::StoreLE16(&f[24], static_cast<std::uint16_t>(bits));
  } else {
    vx::StoreLE32(&f[18], w), vx::StoreLE32(&f[22], static_cast<std::uint32_t>(h));
    vx::StoreLE16(&f[26], 1), vx::StoreLE16(&f[28], static_cast<std::uint16_t>(bits));
    vx::StoreLE32(&f[30], coding);
    std::copy(masks.begin(), masks.end(), f.begin() + 54);
  }
  f.insert(f.end(), tail.begin(), tail.end());
  return f;
}

// Palette of 2 (4-byte entries): black, then red 10, green 20, blue 30.
const Bytes kPal = {0, 0, 0, 0, 30, 20, 10, 0};
Bytes Pal(Bytes pixels) {
  pixels.insert(pixels.begin(), kPal.begin(), kPal.end());
  return pixels;
}

Bytes Pcx(int w, int h, int bits, int planes, int lineBytes, Bytes data, Bytes map = {}) {
  Bytes f(128, 0);
  f[0] = 0x0A, f[1] = 5, f[2] = 1, f[3] = static_cast<std::uint8_t>(bits);
  vx::StoreLE16(&f[8], static_cast<std::uint16_t>(w - 1)), vx::StoreLE16(&f[10], 1 * (h - 1));
  f[16 + 15] = 50, f[16 + 16] = 60, f[16 + 17] = 70;  // header map entry 5
  f[65] = static_cast<std::uint8_t>(planes), vx::StoreLE16(&f[66], 1 * lineBytes);
  f.insert(f.end(), data.begin(), data.end());
  if (!map.empty()) {
    f.push_back(0x0C);
    Bytes m(768, 0);
    std::copy(map.begin(), map.end(), m.begin());
    f.insert(f.end(), m.begin(), m.end());
  }
  return f;
}

template <class File>
std::unique_ptr<QI_ImageRGBA8> Read(const std::filesystem::path& p, int* result) {
  File f;
  *result = -1;
  if (!f.open(vxtest::Wide(p).c_str(), VXT("rb")) || !f.readHeader()) return nullptr;
  auto img = std::make_unique<QI_ImageRGBA8>(f.getWidth(), f.getHeight());
  *result = f.read(img.get());
  return img;
}

Pixel Px(QI_ImageMem& img, int x, int y) {
  Pixel p;
  img.getPixel8(x, y, &p[0], &p[1], &p[2], &p[3]);
  return p;
}

TEST(BmpPcx, ReadsAndRefuses) {
  const Bytes rle8 = Bmp(40, 4, 3, 8, 1, Pal({2, 1, 0, 0, 0, 2, 1, 1, 1, 1, 0, 1}), 8);
  const Bytes rgb565 =
      Bmp(40, 1, 1, 16, 3, {0, 0xF8, 0, 0, 0xE0, 7, 0, 0, 0x1F, 0, 0, 0, 0x1F, 0xF8, 0, 0}, 12);
  const Bytes v4 = Bmp(108, 1, 1, 32, 3, {0x80, 0x11, 0x22, 0x33}, 0,
                       {0, 0xFF, 0, 0, 0, 0, 0xFF, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0, 0});
  const Bytes pcx8 = Pcx(1, 2, 8, 1, 2, {0xC2, 1, 0xC2, 0xC5}, {0, 0, 0, 10, 20, 30});
  const struct {
    const char* name;  // "pcx ..." for a PCX file
    Bytes file;
    int result;  // -1 header refused, 0 read refused
    int x = 0, y = 0;
    Pixel px = {};
  } kCases[] = {
      {"1-bit, bits from the top",
       Bmp(40, 2, 1, 1, 0, Pal({0x40, 0, 0, 0}), 8),
       1,
       1,
       0,
       {10, 20, 30, 255}},
      {"8-bit, first line is the bottom",
       Bmp(40, 1, 2, 8, 0, Pal({1, 0, 0, 0, 0, 0, 0, 0}), 8),
       1,
       0,
       0,
       {10, 20, 30, 255}},
      {"8-bit, negative height: first line on top",
       Bmp(40, 1, -2, 8, 0, Pal({1, 0, 0, 0, 0, 0, 0, 0}), 8),
       1,
       0,
       1,
       {10, 20, 30, 255}},
      {"RLE8 run", rle8, 1, 1, 0, {10, 20, 30, 255}},
      {"RLE8 line skipped by a delta", rle8, 1, 1, 1, {0, 0, 0, 255}},
      {"RLE8 delta moves right", rle8, 1, 1, 2, {10, 20, 30, 255}},
      {"RLE4 literal nibbles",
       Bmp(40, 3, 1, 4, 2, Pal({0, 3, 0x01, 0x10, 0, 1}), 8),
       1,
       2,
       0,
       {10, 20, 30, 255}},
      {"16-bit 565 bit fields", rgb565, 1, 0, 0, {255, 0, 255, 255}},
      {"16-bit default 555",
       Bmp(40, 1, 1, 16, 0, {0x00, 0x02, 0, 0}, 0),
       1,
       0,
       0,
       {0, 132, 0, 255}},
      {"24-bit blue first", Bmp(40, 1, 1, 24, 0, {3, 2, 1, 0}, 0), 1, 0, 0, {1, 2, 3, 255}},
      {"V4 header masks with alpha", v4, 1, 0, 0, {0x11, 0x22, 0x33, 0x80}},
      {"OS/2 header, 3-byte palette",
       Bmp(12, 1, 1, 8, 0, {0, 0, 0, 30, 20, 10, 1, 0, 0, 0}, 6),
       1,
       0,
       0,
       {10, 20, 30, 255}},
      {"bad magic", Bytes(80, 7), -1},
      {"short header", {'B', 'M', 0, 0, 0}, -1},
      {"65535 x 65535, 10 bytes", Bmp(40, 65535, 65535, 24, 0, Bytes(10, 0), 0), -1},
      {"RLE 65535 x 65535, 10 bytes", Bmp(40, 65535, 65535, 8, 1, Pal(Bytes(2, 0)), 8), -1},
      {"verbatim lines missing", Bmp(40, 2, 2, 24, 0, Bytes(12, 0), 0), -1},
      {"bit fields at 24 bits", Bmp(40, 1, 1, 24, 3, Bytes(16, 0), 12), -1},
      {"top-down RLE", Bmp(40, 1, -1, 8, 1, Pal({0, 1}), 8), -1},
      {"mask with a hole",
       Bmp(40, 1, 1, 16, 3, {5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 12), -1},
      {"RLE run past the line end is cut",
       Bmp(40, 2, 1, 8, 1, Pal({3, 1, 0, 1}), 8),
       1,
       1,
       0,
       {10, 20, 30, 255}},
      {"RLE stream ends early", Bmp(40, 2, 2, 8, 1, Pal({2, 1, 0, 0}), 8), 0},
      {"pcx 24-bit planes",
       Pcx(2, 1, 8, 3, 2, {10, 11, 0xC2, 20, 30, 31}),
       1,
       1,
       0,
       {11, 20, 31, 255}},
      {"pcx 8-bit map after 0x0C, top line", pcx8, 1, 0, 1, {10, 20, 30, 255}},
      {"pcx 8-bit second line", pcx8, 1, 0, 0, {0, 0, 0, 255}},
      {"pcx run across lines",
       Pcx(2, 2, 8, 1, 2, {0xC4, 1}, {0, 0, 0, 10, 20, 30}),
       1,
       1,
       0,
       {10, 20, 30, 255}},
      {"pcx 1-bit, four planes",
       Pcx(1, 1, 1, 4, 2, {0x80, 0, 0, 0, 0x80, 0, 0, 0}),
       1,
       0,
       0,
       {50, 60, 70, 255}},
      {"pcx bad maker", Bytes(200, 5), -1},
      {"pcx two 8-bit planes", Pcx(1, 1, 8, 2, 2, Bytes(4, 0)), -1},
      {"pcx 65535 x 65535, 10 bytes", Pcx(65535, 65535, 8, 3, 65535, Bytes(10, 0)), -1},
      {"pcx line cut short", Pcx(4, 2, 8, 1, 4, {0xC4, 1, 0xC3, 2}), 0},
  };
  TempDir dir;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    vxtest::WriteFile(dir / "in", c.file);
    int result = 0;
    const auto img = std::string(c.name).starts_with("pcx")
                         ? Read<QI_ImagePCX>(dir / "in", &result)
                         : Read<QI_ImageBMP>(dir / "in", &result);
    ASSERT_EQ(result, c.result);
    if (result == 1) {
      EXPECT_EQ(Px(*img, c.x, c.y), c.px);
    }
  }
}

template <class File>
Bytes Written(const TempDir& dir, QI_ImageMem& src, int type) {
  File f;
  f.setWidth(src.getWidth()), f.setHeight(src.getHeight());
  const auto path = vxtest::Wide(dir / "out");
  EXPECT_TRUE(f.setPixelType(type) && f.open(path.c_str(), VXT("wb")) && f.writeHeader() &&
              f.write(&src));
  f.close();
  return vxtest::ReadFile(dir / "out");
}

TEST(BmpPcx, WrittenBytes) {
  TempDir dir;
  QI_ImageRGBA8 src(3, 1);
  src.setPixel8(0, 0, 5, 6, 7, 128), src.setPixel8(1, 0, 5, 6, 7, 128);
  src.setPixel8(2, 0, 200, 201, 202, 255);
  Bytes bmp = Written<QI_ImageBMP>(dir, src, QI_PIXEL_RGB);
  ASSERT_EQ(bmp.size(), 66u);  // 54 + one line of 9 bytes padded to 12
  EXPECT_EQ(vx::LoadLE32(&bmp[2]), 66u);
  EXPECT_EQ(vx::LoadLE32(&bmp[10]), 54u);
  EXPECT_EQ(vx::LoadLE16(&bmp[28]), 24u);
  EXPECT_EQ(Bytes(bmp.begin() + 54, bmp.end()), (Bytes{7, 6, 5, 7, 6, 5, 202, 201, 200, 0, 0, 0}));
  bmp = Written<QI_ImageBMP>(dir, src, QI_PIXEL_RGBA);
  ASSERT_EQ(bmp.size(), 66u);
  EXPECT_EQ(vx::LoadLE32(&bmp[30]), 0u) << "BI_RGB";
  EXPECT_EQ(Bytes(bmp.begin() + 54, bmp.end()),
            (Bytes{7, 6, 5, 128, 7, 6, 5, 128, 202, 201, 200, 255}));
  const Bytes pcx = Written<QI_ImagePCX>(dir, src, QI_PIXEL_GRAY);
  ASSERT_EQ(pcx.size(), 128u + 5 + 769);  // lines padded to an even length, the map at the end
  EXPECT_EQ(Bytes(pcx.begin(), pcx.begin() + 4), (Bytes{0x0A, 5, 1, 8}));
  EXPECT_EQ(pcx[65], 1);
  EXPECT_EQ(vx::LoadLE16(&pcx[66]), 4u);
  EXPECT_EQ(Bytes(pcx.begin() + 128, pcx.begin() + 134), (Bytes{0xC2, 5, 0xC1, 200, 0, 0x0C}));
  EXPECT_EQ(Bytes(pcx.end() - 3, pcx.end()), (Bytes{255, 255, 255}));
}

}  // namespace
