// SGI files written by ImageMagick and oiiotool read as the tools read them, and what we write
// reads in both tools with our values.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "imagelib/sgi/qi_image_sgi.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pixel = std::array<std::uint16_t, 4>;
using vxtest::TempDir;

Pixel Px(QI_ImageMem& img, int x, int y) {
  Pixel p;
  img.getPixel16(x, y, &p[0], &p[1], &p[2], &p[3]);
  return p;
}

// Our read of an SGI file into a 16-bit image; null when the header or a line fails.
std::unique_ptr<QI_ImageRGBA16> ReadSgi(const std::filesystem::path& p) {
  QI_ImageSGI f;
  if (!f.open(vxtest::Wide(p).c_str(), VXT("rb")) || !f.readHeader()) return nullptr;
  auto img = std::make_unique<QI_ImageRGBA16>(f.getWidth(), f.getHeight());
  return f.read(img.get()) ? std::move(img) : nullptr;
}

bool Sh(const std::string& cmd) {
  return std::system((cmd + " 2>/dev/null").c_str()) == 0;
}

// A tool's own decode of `sgi` as 16-bit RGBA, top line first (grey repeated, alpha full when
// the file has none): ImageMagick's raw dump, or oiiotool's --dumpdata ("Pixel (x, y): v v v
// (...)" with the file's integer values). Empty when the tool failed.
std::vector<std::uint16_t> Decoded(const TempDir& dir, const std::string& sgi, bool oiio) {
  const std::string in = vxtest::Quote(dir / sgi), dump = vxtest::Quote(dir / "dump");
  std::vector<std::uint16_t> v;
  if (!oiio) {
    if (!Sh("convert " + in + " -depth 16 -endian MSB rgba:" + dump)) return v;
    const Bytes b = vxtest::ReadFile(dir / "dump");
    for (std::size_t i = 0; i + 1 < b.size(); i += 2) v.push_back(vx::LoadBE16(&b[i]));
    return v;
  }
  if (!Sh("oiiotool --dumpdata " + in + " > " + dump)) return v;
  std::ifstream text(dir / "dump");
  std::string line;
  std::getline(text, line);
  const int scale = line.find("uint8") != std::string::npos ? 257 : 1;
  while (std::getline(text, line)) {
    std::istringstream values(line.substr(line.find(':') + 1));
    std::vector<int> p;
    for (int n; values >> n;) p.push_back(n * scale);
    if (p.size() == 1) p = {p[0], p[0], p[0]};
    if (p.size() == 3) p.push_back(65535);
    v.insert(v.end(), p.begin(), p.end());
  }
  return v;
}

TEST(SgiInterop, ImageMagickAndOiiotoolBothWays) {
  if (!Sh("convert -version >/dev/null && oiiotool --version >/dev/null"))
    GTEST_SKIP() << "ImageMagick or oiiotool missing";
  constexpr int kW = 37, kH = 5;
  TempDir dir;
  // Runs of 4 in red, a long run in blue, literals elsewhere; every 16-bit value is distinct
  // from its byte swap. The source values are ImageMagick's own decode of it.
  const std::string png = vxtest::Quote(dir / "src.png");
  ASSERT_TRUE(
      Sh("convert -size 37x5 xc:black -alpha set -channel R -fx 'floor(i/4)*.0613+j*.0047'"
         " -channel G -fx 'i*.026+.0002' -channel B -fx 'i<20?.7458:i*.0152' -channel A"
         " -fx '1-i*.0153' +channel -depth 16 " +
         png));
  const auto source = Decoded(dir, "src.png", false);
  ASSERT_EQ(source.size(), std::size_t{kW * kH * 4});
  const auto value = [&](int x, int y, int c) { return source[((kH - 1 - y) * kW + x) * 4 + c]; };
  QI_ImageRGBA16 src(kW, kH);
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x)
      src.setPixel16(x, y, value(x, y, 0), value(x, y, 1), value(x, y, 2), value(x, y, 3));
  const char* kType[] = {"", "-alpha off -type Grayscale", "", "-alpha off", "-alpha on"};
  const char* kChannels[] = {"", "R", "", "R,G,B", "R,G,B,A"};
  const int kPixelType[] = {0, QI_PIXEL_GRAY, 0, QI_PIXEL_RGB, QI_PIXEL_RGBA};
  for (int ch : {1, 3, 4})
    for (int bits : {8, 16})
      for (int rle : {0, 1})
        for (int tool = 0; tool < 3; ++tool) {  // written by ImageMagick, oiiotool, us
          if (tool == 1 && rle) continue;       // oiiotool writes verbatim files only
          SCOPED_TRACE(std::to_string(ch) + " channels, " + std::to_string(bits) + " bits, rle " +
                       std::to_string(rle) + ", writer " + std::to_string(tool));
          const std::string d = std::to_string(bits), name = "t" + std::to_string(tool) + ".sgi";
          const auto out = vxtest::Quote(dir / name);
          const std::string make[] = {
              "convert " + png + " " + kType[ch] + " -depth " + d + " -compress " +
                  (rle ? "RLE " : "None ") + out,
              "oiiotool " + png + " --ch " + kChannels[ch] + " -d uint" + d + " -o " + out};
          if (tool < 2) {
            ASSERT_TRUE(Sh(make[tool]));
          } else {
            QI_ImageSGI sgi;
            sgi.setWidth(kW), sgi.setHeight(kH);
            ASSERT_TRUE(sgi.setPixelType(kPixelType[ch]) && sgi.setBitsPerChannel(bits) &&
                        sgi.setCompression(rle ? 2 : 1));
            const auto path = vxtest::Wide(dir / name);
            ASSERT_TRUE(sgi.open(path.c_str(), VXT("wb")) && sgi.writeHeader() && sgi.write(&src));
            sgi.close();
          }
          const auto img = ReadSgi(dir / name);
          ASSERT_TRUE(img);
          // Ours must read what the writing tool reads; what we wrote must read in both tools
          // as the source at the file's precision (grey is the red component).
          for (bool oiio : {false, true}) {
            if (tool < 2 && oiio != (tool == 1)) continue;
            const auto ref = Decoded(dir, name, oiio);
            ASSERT_EQ(ref.size(), std::size_t{kW * kH * 4}) << (oiio ? "oiiotool" : "convert");
            for (int i = 0; i < kW * kH; ++i) {
              const int x = i % kW, y = kH - 1 - i / kW;
              Pixel theirs, want;
              for (int c = 0; c < 4; ++c) {
                const std::uint16_t v = value(x, y, ch == 1 && c < 3 ? 0 : c);
                theirs[c] = ref[4 * i + c];
                want[c] = c == 3 && ch < 4 ? 0xFFFF : bits == 8 ? (v >> 8) * 257 : v;
              }
              ASSERT_EQ(Px(*img, x, y), theirs) << x << "," << y;
              if (tool == 2) {
                ASSERT_EQ(theirs, want) << x << "," << y;
              }
            }
          }
        }
}

}  // namespace
