// PICT files written by ImageMagick read as ImageMagick reads them, and what we write reads in
// ImageMagick with our values.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "imagelib/pict/qi_image_pict.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using vxtest::TempDir;

bool Sh(const std::string& cmd) {
  return std::system((cmd + " 2>/dev/null").c_str()) == 0;
}

// ImageMagick's decode of `name` as RGB, top line first, the high bytes of its 16-bit values (its
// own 8-bit output rounds colour-table entries); empty when it failed.
Bytes Decoded(const TempDir& dir, const std::string& name) {
  if (!Sh("convert " + vxtest::Quote(dir / name) +
          " -depth 16 -endian MSB rgb:" + vxtest::Quote(dir / "dump")))
    return {};
  const Bytes b = vxtest::ReadFile(dir / "dump");
  Bytes high;
  for (std::size_t i = 0; i < b.size(); i += 2) high.push_back(b[i]);
  return high;
}

// Our decode as 8-bit RGB, top line first, through a 16-bit image (the high bytes).
Bytes Ours(const TempDir& dir, const std::string& name) {
  QI_ImagePICT f;
  if (!f.open(vxtest::Wide(dir / name).c_str(), VXT("rb")) || !f.readHeader()) return {};
  QI_ImageRGBA16 img(f.getWidth(), f.getHeight());
  if (!f.read(&img)) return {};
  Bytes v;
  for (int y = f.getHeight() - 1; y >= 0; --y)
    for (int x = 0; x < f.getWidth(); ++x) {
      std::uint16_t p[4];
      img.getPixel16(x, y, &p[0], &p[1], &p[2], &p[3]);
      for (int c = 0; c < 3; ++c) v.push_back(static_cast<std::uint8_t>(p[c] >> 8));
    }
  return v;
}

TEST(PictInterop, ImageMagickBothWays) {
  if (!Sh("convert -version >/dev/null")) GTEST_SKIP() << "ImageMagick missing";
  TempDir dir;
  // 260 pixels: 8-bit rows of one-byte counts, 32-bit rows of two-byte counts; 37: one-byte
  // counts throughout. Flat stretches give runs, the ramps literals.
  for (int w : {37, 260}) {
    const std::string size = std::to_string(w) + "x5", png = vxtest::Quote(dir / "src.png");
    ASSERT_TRUE(Sh("convert -size " + size +
                   " xc:black -alpha set -channel R -fx 'i<20?.5:i/w' -channel G -fx 'j*.2+.01'"
                   " -channel B -fx 'i%7/6' -channel A -fx '1-i/w' +channel " +
                   png));
    const char* kKinds[] = {"-alpha off", "-alpha on", "-alpha off -colors 40 -type Palette",
                            "-colors 40 -type PaletteAlpha"};
    for (const char* kind : kKinds) {
      SCOPED_TRACE(std::string(kind) + ", width " + std::to_string(w));
      ASSERT_TRUE(Sh("convert " + png + " " + kind + " " + vxtest::Quote(dir / "im.pict")));
      const Bytes theirs = Decoded(dir, "im.pict");
      ASSERT_EQ(theirs.size(), std::size_t(w) * 5 * 3);
      EXPECT_EQ(Ours(dir, "im.pict"), theirs);
    }
  }
  // Ours: one pixel a line (stored unpacked), one-byte and two-byte counts; with and without
  // alpha, which ImageMagick must not mistake for a colour.
  for (int w : {1, 37, 260})
    for (int channels : {3, 4}) {
      SCOPED_TRACE(std::to_string(channels) + " channels, width " + std::to_string(w));
      QI_ImageRGBA8 src(w, 3);
      Bytes want;
      for (int top = 0; top < 3; ++top)
        for (int x = 0; x < w; ++x) {
          const std::uint8_t v[] = {static_cast<std::uint8_t>(x < 9 ? 200 : x * 3 + top),
                                    static_cast<std::uint8_t>(top * 100 + 7),
                                    static_cast<std::uint8_t>(x % 5 * 60)};
          src.setPixel8(x, 2 - top, v[0], v[1], v[2], static_cast<std::uint8_t>(x));
          want.insert(want.end(), v, v + 3);
        }
      QI_ImagePICT f;
      f.setWidth(w), f.setHeight(3);
      ASSERT_TRUE(f.setPixelType(channels == 4 ? QI_PIXEL_RGBA : QI_PIXEL_RGB));
      const auto path = vxtest::Wide(dir / "ours.pict");
      ASSERT_TRUE(f.open(path.c_str(), VXT("wb")) && f.writeHeader() && f.write(&src));
      f.close();
      EXPECT_EQ(Decoded(dir, "ours.pict"), want);
      EXPECT_EQ(Ours(dir, "ours.pict"), want);
    }
}

}  // namespace
