// SGI and Alias file images: the byte-level rules no other reader shows, and bad files.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "imagelib/alias/qi_image_alias.h"
#include "imagelib/sgi/qi_image_sgi.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pixel = std::array<std::uint16_t, 4>;
using vxtest::TempDir;

Bytes SgiHeader(int storage, int bpc, int dim, int xs, int ys, int zs, Bytes data = {},
                bool big = true) {
  Bytes h(512 + data.size(), 0);
  std::copy(data.begin(), data.end(), h.begin() + 512);
  const auto put = [&](int at, int v) { vx::Store16(&h[at], static_cast<std::uint16_t>(v), big); };
  put(0, 474), put(4, dim), put(6, xs), put(8, ys), put(10, zs);
  h[2] = static_cast<std::uint8_t>(storage);
  h[3] = static_cast<std::uint8_t>(bpc);
  return h;
}

// A one-channel 8-bit run-length file whose first row starts at `start` and is `length` long.
Bytes SgiRle(int width, std::uint32_t start, std::uint32_t length, const Bytes& row,
             int height = 1) {
  Bytes f = SgiHeader(1, 1, 2, width, height, 1, Bytes(8 + row.size(), 0));
  vx::StoreBE32(&f[512], start);
  vx::StoreBE32(&f[516], length);
  std::copy(row.begin(), row.end(), f.begin() + 520);
  return f;
}

Bytes Alias(int w, int h, int bits, Bytes runs) {
  const auto hi = [](int v) { return static_cast<std::uint8_t>(v >> 8); };
  const auto lo = [](int v) { return static_cast<std::uint8_t>(v); };
  runs.insert(runs.begin(), {hi(w), lo(w), hi(h), lo(h), 0, 0, 0, 0, hi(bits), lo(bits)});
  return runs;
}

Pixel Px(QI_ImageMem& img, int x, int y) {
  Pixel p;
  img.getPixel16(x, y, &p[0], &p[1], &p[2], &p[3]);
  return p;
}

// Header and whole read of `bytes` through a fresh object of the class; -1 when the header fails.
template <class File>
int ReadAll(const TempDir& dir, const Bytes& bytes, std::unique_ptr<QI_ImageRGBA16>* out) {
  vxtest::WriteFile(dir / "in.img", bytes);
  File f;
  if (!f.open(vxtest::Wide(dir / "in.img").c_str(), VXT("rb")) || !f.readHeader()) return -1;
  *out = std::make_unique<QI_ImageRGBA16>(f.getWidth(), f.getHeight());
  return f.read(out->get());
}

TEST(SgiAlias, ReadsAndRefuses) {
  const Bytes le = SgiHeader(0, 1, 2, 1, 1, 1, {0x80}, false);
  const Bytes twoLines = Alias(1, 2, 24, {1, 0, 0, 200, 1, 0, 200, 0});
  const struct {
    const char* name;  // "alias ..." for an Alias file
    Bytes file;
    int result;  // -1 header refused, 0 read refused
    int y = 0;   // the row whose first pixel is `px`
    Pixel px = {};
  } kCases[] = {
      {"little-endian header, grey", le, 1, 0, {0x8080, 0x8080, 0x8080, 0xFFFF}},
      {"alias first line on top", twoLines, 1, 1, {51400, 0, 0, 0xFFFF}},
      {"alias second line below", twoLines, 1, 0, {0, 51400, 0, 0xFFFF}},
      {"two channels", SgiHeader(0, 1, 3, 1, 1, 2, {1, 2}), -1},
      {"five channels", SgiHeader(0, 1, 3, 1, 1, 5, Bytes(5, 0)), -1},
      {"one-dimensional", SgiHeader(0, 1, 1, 1, 1, 1, {1}), -1},
      {"bad magic", Bytes(600, 7), -1},
      {"short header", {0x01, 0xDA, 0, 1, 0, 2}, -1},
      {"65535 x 65535 run-length, 10 bytes", SgiRle(65535, 520, 1, Bytes(2, 0), 65535), -1},
      {"verbatim rows past the end", SgiHeader(0, 1, 2, 4, 2, 1, Bytes(7, 0)), -1},
      {"row past the end", SgiRle(2, 520, 100, {0x02, 7, 0}), -1},
      {"row inside the header", SgiRle(2, 100, 3, {0x02, 7, 0}), -1},
      {"repeat overshoots the line", SgiRle(2, 520, 3, {0x05, 7, 0}), 0},
      {"literal overshoots the line", SgiRle(2, 520, 5, {0x83, 1, 2, 3, 0}), 0},
      {"literal past the row end", SgiRle(2, 520, 2, {0x82, 1}), 0},
      {"alias depth 8", Alias(1, 1, 8, {1, 0, 0, 0}), -1},
      {"alias run overshoots", Alias(2, 1, 24, {3, 0, 0, 0}), 0},
      {"alias truncated", Alias(2, 2, 24, {2, 0, 0, 0, 1, 0, 0, 0}), 0},
      {"alias 65535 x 65535, 10 bytes", Alias(65535, 65535, 24, Bytes(10, 1)), -1},
  };
  TempDir dir;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<QI_ImageRGBA16> img;
    ASSERT_EQ(std::string(c.name).starts_with("alias") ? ReadAll<QI_ImageALIAS>(dir, c.file, &img)
                                                       : ReadAll<QI_ImageSGI>(dir, c.file, &img),
              c.result);
    if (c.result == 1) {
      EXPECT_EQ(Px(*img, 0, c.y), c.px);
    }
  }
}

TEST(SgiAlias, WrittenBytes) {
  TempDir dir;
  const auto path = vxtest::Wide(dir / "out.sgi");
  // Two lines: red 1,2,3,3,3 (literal then repeat), green all 7, blue 9,9,9,9,8.
  QI_ImageRGBA8 src(5, 2);
  const std::uint8_t red[] = {1, 2, 3, 3, 3}, blue[] = {9, 9, 9, 9, 8};
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 5; ++x) src.setPixel8(x, y, red[x], 7, blue[x], 255);
  QI_ImageSGI sgi;
  sgi.setWidth(5), sgi.setHeight(2);
  ASSERT_TRUE(sgi.open(path.c_str(), VXT("wb")) && sgi.writeHeader() && sgi.write(&src));
  std::fflush(sgi.getStream());
  Bytes f = vxtest::ReadFile(dir / "out.sgi");
  ASSERT_EQ(f.size(), 588u);  // 512 + 48 bytes of tables + 6 + 6 + 3 + 3 + 5 + 5
  EXPECT_EQ(Bytes(f.begin() + 512, f.begin() + 560), Bytes(48, 0)) << "tables before close";
  EXPECT_EQ(Bytes(f.begin(), f.begin() + 12), (Bytes{0x01, 0xDA, 1, 1, 0, 3, 0, 5, 0, 2, 0, 3}));
  EXPECT_EQ(vx::LoadBE32(&f[16]), 255u);
  // "/tmp/..." or "C:\..." alike: the first UTF-16 unit's low byte, then its zero high byte.
  EXPECT_EQ(f[24] * 256 + f[25], (path[0] & 0xFF) * 256)
      << "an ASCII path leaves its first character";
  EXPECT_EQ(Bytes(f.begin() + 560, f.end()),
            (Bytes{0x82, 1, 2, 3, 3, 0, 5, 7, 0, 4, 9, 0x81, 8, 0,     // line 0: red, green, blue
                   0x82, 1, 2, 3, 3, 0, 5, 7, 0, 4, 9, 0x81, 8, 0}));  // line 1
  sgi.close();
  f = vxtest::ReadFile(dir / "out.sgi");
  // Rows in channel order (red line 0, red line 1, green ...), the data in the order written.
  const std::uint32_t tables[] = {560, 574, 566, 580, 569, 583, 6, 6, 3, 3, 5, 5};
  for (int i = 0; i < 12; ++i) EXPECT_EQ(vx::LoadBE32(&f[512 + 4 * i]), tables[i]) << i;
  // Alias: a 600-pixel line of one colour is three runs.
  QI_ImageRGBA8 line(600, 1);
  for (int x = 0; x < 600; ++x) line.setPixel8(x, 0, 1, 2, 3, 255);
  QI_ImageALIAS alias;
  alias.setWidth(600), alias.setHeight(1);
  const auto apath = vxtest::Wide(dir / "out.pix");
  ASSERT_TRUE(alias.open(apath.c_str(), VXT("wb")) && alias.writeHeader() && alias.write(&line));
  alias.close();
  EXPECT_EQ(vxtest::ReadFile(dir / "out.pix"),
            (Bytes{2, 0x58, 0, 1, 0, 0, 0, 0, 0, 24, 255, 3, 2, 1, 255, 3, 2, 1, 90, 3, 2, 1}));
}

}  // namespace
