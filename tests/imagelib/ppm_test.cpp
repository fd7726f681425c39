// PPM and PGM file images: hand-laid files and bad ones, the bytes we write, and files of
// ImageMagick and oiiotool both ways.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "imagelib/ppm/qi_image_ppm.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pixel = std::array<std::uint16_t, 4>;
using vxtest::TempDir;

Bytes B(const std::string& text, Bytes data = {}) {
  data.insert(data.begin(), text.begin(), text.end());
  return data;
}

Pixel Px(QI_ImageMem& img, int x, int y) {
  Pixel p;
  img.getPixel16(x, y, &p[0], &p[1], &p[2], &p[3]);
  return p;
}

// Header and whole read of `path`; -1 when the header fails.
template <class File>
int ReadAll(const std::filesystem::path& path, std::unique_ptr<QI_ImageRGBA16>* out) {
  File f;
  if (!f.open(vxtest::Wide(path).c_str(), VXT("rb")) || !f.readHeader()) return -1;
  *out = std::make_unique<QI_ImageRGBA16>(f.getWidth(), f.getHeight());
  return f.read(out->get());
}

TEST(Ppm, ReadsAndRefuses) {
  const struct {
    const char* name;  // "pgm ..." for a PGM file
    Bytes file;
    int result;     // -1 header refused, 0 read refused
    Pixel px = {};  // first pixel of row 0, the bottom line
  } kCases[] = {
      {"comments between every token, top line stored first",
       B("P6 # a\n2#b\n# c\n2 #d\n255\n", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}),
       1,
       {7 * 257, 8 * 257, 9 * 257, 0xFFFF}},
      {"text, maxval 15 scaled to 8 bits",
       B("P3\n1 2\n15\n15 0 7\n1 2 15\n"),
       1,
       {17 * 257, 34 * 257, 0xFFFF, 0xFFFF}},
      {"16-bit big-endian",
       B("P6 1 1 65535\n", {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}),
       1,
       {0x1234, 0x5678, 0x9ABC, 0xFFFF}},
      {"maxval 1000 scaled to 16 bits",
       B("P6 1 1 1000\n", {1, 0xF4, 3, 0xE8, 0, 1}),
       1,
       {32768, 65535, 66, 0xFFFF}},  // 500, 1000, 1 of 1000
      {"pgm binary 8-bit", B("P5\n2 1\n255\n", {0x10, 0x20}), 1, {0x1010, 0x1010, 0x1010, 0xFFFF}},
      {"pgm text 16-bit", B("P2\n1 1\n65535\n4660\n"), 1, {0x1234, 0x1234, 0x1234, 0xFFFF}},
      {"pgm text maxval 1 bottom line", B("P2 1 2 1 0\n1"), 1, {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}},
      {"65535 x 65535, 10 bytes", B("P6\n65535 65535\n255\n", Bytes(10, 0)), -1},
      {"binary data one byte short", B("P6 2 1 255\n", Bytes(5, 0)), -1},
      {"16-bit data one byte short", B("P6 1 1 256\n", Bytes(5, 0)), -1},
      {"sample above maxval", B("P3 1 1 7 1 8 1\n"), 0},
      {"text samples run out", B("P3 1 1 255\n1        \n"), 0},
      {"not a number", B("P3 1 1 255\n1 x 1\n"), 0},
      {"maxval 0", B("P6 1 1 0\n", Bytes(3, 0)), -1},
      {"maxval 65536", B("P6 1 1 65536\n", Bytes(6, 0)), -1},
      {"zero width", B("P6 0 1 255\n", Bytes(3, 0)), -1},
      {"PGM magic to PPM", B("P5 1 1 255\n", Bytes(3, 0)), -1},
      {"pgm PPM magic", B("P6 1 1 255\n", Bytes(3, 0)), -1},
      {"width glued to a letter", B("P6 1x 1 255\n", Bytes(3, 0)), -1},
      {"empty", {}, -1},
  };
  TempDir dir;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    vxtest::WriteFile(dir / "in.pnm", c.file);
    std::unique_ptr<QI_ImageRGBA16> img;
    ASSERT_EQ(std::string(c.name).starts_with("pgm") ? ReadAll<QI_ImagePGM>(dir / "in.pnm", &img)
                                                     : ReadAll<QI_ImagePPM>(dir / "in.pnm", &img),
              c.result);
    if (c.result == 1) {
      EXPECT_EQ(Px(*img, 0, 0), c.px);
    }
  }
}

TEST(Ppm, WrittenBytes) {
  TempDir dir;
  QI_ImageRGBA16 src(2, 2);  // row 0 is the bottom line, stored last
  src.setPixel8(0, 0, 1, 2, 3, 255), src.setPixel8(1, 0, 4, 5, 6, 255);
  src.setPixel8(0, 1, 7, 8, 9, 255), src.setPixel8(1, 1, 10, 11, 12, 255);
  QI_ImagePPM ppm;
  ppm.setWidth(2), ppm.setHeight(2);
  const auto p = vxtest::Wide(dir / "a.ppm");
  ASSERT_TRUE(ppm.open(p.c_str(), VXT("wb")) && ppm.writeHeader() && ppm.write(&src));
  ppm.close();
  EXPECT_EQ(vxtest::ReadFile(dir / "a.ppm"),
            B("P6\n2 2\n255\n", {7, 8, 9, 10, 11, 12, 1, 2, 3, 4, 5, 6}));
  QI_ImageRGBA16 grey(1, 2);
  grey.setPixel16(0, 0, 0x0102, 0x0102, 0x0102, 0xFFFF);
  grey.setPixel16(0, 1, 0xA0B0, 0xA0B0, 0xA0B0, 0xFFFF);
  QI_ImagePGM pgm;
  pgm.setWidth(1), pgm.setHeight(2);
  ASSERT_TRUE(pgm.setBitsPerChannel(16));
  const auto g = vxtest::Wide(dir / "b.pgm");
  ASSERT_TRUE(pgm.open(g.c_str(), VXT("wb")) && pgm.writeHeader() && pgm.write(&grey));
  pgm.close();
  EXPECT_EQ(vxtest::ReadFile(dir / "b.pgm"), B("P5\n1 2\n65535\n", {0xA0, 0xB0, 0x01, 0x02}));
}

bool Sh(const std::string& cmd) {
  return std::system((cmd + " 2>/dev/null").c_str()) == 0;
}

// ImageMagick's decode of `file` as 16-bit RGB, bottom line first like our rows.
std::vector<std::uint16_t> Decoded(const TempDir& dir, const std::string& file, int w, int h) {
  std::vector<std::uint16_t> v;
  if (!Sh("convert " + vxtest::Quote(dir / file) +
          " -depth 16 -endian MSB rgb:" + vxtest::Quote(dir / "dump")))
    return v;
  const Bytes b = vxtest::ReadFile(dir / "dump");
  if (b.size() != std::size_t(w * h * 6)) return v;
  for (int y = h - 1; y >= 0; --y)
    for (int i = 0; i < w * 3; ++i) v.push_back(vx::LoadBE16(&b[(y * w * 3 + i) * 2]));
  return v;
}

// oiiotool's decode of `file`: its integer values, bottom line first, grey repeated.
std::vector<std::uint16_t> OiioDecoded(const TempDir& dir, const std::string& file, int w, int h) {
  std::vector<std::uint16_t> v;
  if (!Sh("oiiotool --dumpdata " + vxtest::Quote(dir / file) + " > " + vxtest::Quote(dir / "d")))
    return v;
  std::ifstream text(dir / "d");
  std::string line;
  std::getline(text, line);
  const int scale = line.find("uint8") != std::string::npos ? 257 : 1;
  std::vector<std::vector<std::uint16_t>> lines(h);
  for (int i = 0; std::getline(text, line) && i < w * h; ++i) {
    std::istringstream values(line.substr(line.find(':') + 1));
    std::vector<std::uint16_t> p;
    for (int n; values >> n;) p.push_back(static_cast<std::uint16_t>(n * scale));
    if (p.size() == 1) p = {p[0], p[0], p[0]};
    lines[i / w].insert(lines[i / w].end(), p.begin(), p.end());
  }
  for (int y = h - 1; y >= 0; --y) v.insert(v.end(), lines[y].begin(), lines[y].end());
  return v;
}

TEST(PpmInterop, ImageMagickAndOiiotoolBothWays) {
  if (!Sh("convert -version >/dev/null && oiiotool --version >/dev/null"))
    GTEST_SKIP() << "ImageMagick or oiiotool missing";
  constexpr int kW = 23, kH = 4;
  TempDir dir;
  const std::string png = vxtest::Quote(dir / "src.png");
  ASSERT_TRUE(
      Sh("convert -size 23x4 xc:black -channel R -fx 'i*.0431+j*.0047' -channel G -fx "
         "'1-i*.037' -channel B -fx 'j*.31+.0002' +channel -depth 16 " +
         png));
  for (bool grey : {false, true})
    for (int bits : {8, 16})
      for (int writer = 0; writer < 4; ++writer) {  // convert text, convert binary, oiiotool, us
        const std::string name =
            std::string("t") + std::to_string(writer) + (grey ? ".pgm" : ".ppm");
        SCOPED_TRACE(name + " " + std::to_string(bits));
        const std::string out = vxtest::Quote(dir / name), d = std::to_string(bits);
        const std::string gray = grey ? " -colorspace gray" : "";
        if (writer < 2) {
          ASSERT_TRUE(Sh("convert " + png + gray + " -depth " + d +
                         (writer == 0 ? " -compress none " : " ") + out));
        } else if (writer == 2) {
          ASSERT_TRUE(
              Sh("oiiotool " + png + (grey ? " --ch R" : "") + " -d uint" + d + " -o " + out));
        }
        std::unique_ptr<QI_ImageRGBA16> img;
        if (writer == 3) {
          // Ours, from the binary file ImageMagick wrote: both tools must read our copy the same.
          ASSERT_EQ(grey ? ReadAll<QI_ImagePGM>(dir / ("t1" + name.substr(2)), &img)
                         : ReadAll<QI_ImagePPM>(dir / ("t1" + name.substr(2)), &img),
                    1);
          std::unique_ptr<QI_ImagePNM> f(grey ? static_cast<QI_ImagePNM*>(new QI_ImagePGM)
                                              : new QI_ImagePPM);
          f->setWidth(kW), f->setHeight(kH), f->setBitsPerChannel(bits);
          const auto p = vxtest::Wide(dir / name);
          ASSERT_TRUE(f->open(p.c_str(), VXT("wb")) && f->writeHeader() && f->write(img.get()));
          f->close();
        }
        ASSERT_EQ(
            grey ? ReadAll<QI_ImagePGM>(dir / name, &img) : ReadAll<QI_ImagePPM>(dir / name, &img),
            1);
        for (bool oiio : {false, true}) {
          if (writer < 3 && oiio) continue;
          const auto ref = oiio ? OiioDecoded(dir, name, kW, kH) : Decoded(dir, name, kW, kH);
          ASSERT_EQ(ref.size(), std::size_t{kW * kH * 3}) << (oiio ? "oiiotool" : "convert");
          // oiiotool goes through float for 16-bit PNM and truncates: 65535 reads as 65534.
          const int slack = oiio && bits == 16 ? 1 : 0;
          for (int i = 0; i < kW * kH; ++i)
            for (int c = 0; c < 3; ++c)
              ASSERT_LE(std::abs(Px(*img, i % kW, i / kW)[c] - ref[3 * i + c]), slack) << i;
        }
      }
}

}  // namespace
