// Files from the DPX writer read by ImageMagick: every depth, packing, layout and byte order it
// can read must give the values we wrote.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dpx_write_test_util.h"
#include "test_util.h"

using namespace vx::dpx;
using dpxtest::ImagePtr;

namespace {

#ifndef _WIN32
bool HaveConvert() {
  static const bool have = std::system("convert -version > /dev/null 2>&1") == 0;
  return have;
}

// `convert FILE -depth 16 rgba:-` as little-endian 16-bit samples; empty on failure.
std::vector<std::uint16_t> ReadWithImageMagick(const std::filesystem::path& file) {
  // The colour space is relabelled, not converted: a linear-transfer file must give its codes.
  const std::string cmd = "convert '" + file.string() +
                          "' -set colorspace sRGB -depth 16 -endian LSB rgba:- 2>/dev/null";
  std::vector<std::uint16_t> out;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return out;
  std::uint8_t buf[4096];
  std::vector<std::uint8_t> bytes;
  for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
    bytes.insert(bytes.end(), buf, buf + n);
  if (pclose(p) != 0) return {};
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
    out.push_back(static_cast<std::uint16_t>(bytes[i] | bytes[i + 1] << 8));
  return out;
}
#endif

// The code value ImageMagick's 16-bit sample stands for at `bits`.
[[maybe_unused]] std::int64_t CodeOf16(int v, std::uint32_t bits) {  // unused on Windows
  const double top = static_cast<double>((std::uint64_t{1} << bits) - 1);
  return static_cast<std::int64_t>(v * top / 65535.0 + 0.5);
}

struct Case {
  std::uint32_t bits;
  int packing;
  DpxLayout layout;
};

// What ImageMagick 6.9 reads. It does not take: descriptors 52 (ABGR) and 53 (BGR), which it
// reads in stored order or as grey; planar and separate-alpha layouts (it reads one element);
// method B (it reads it as method A); 10- and 12-bit packed RGBA and 12-bit filled RGBA (its
// four-channel path walks those bits differently from its three-channel path, which agrees with
// ours); 32-bit float elements.
const Case kReadable[] = {
    {8, 0, DpxLayout::PackedRGB},  {8, 0, DpxLayout::PackedRGBA},  {10, 0, DpxLayout::PackedRGB},
    {10, 1, DpxLayout::PackedRGB}, {10, 1, DpxLayout::PackedRGBA}, {12, 0, DpxLayout::PackedRGB},
    {12, 1, DpxLayout::PackedRGB}, {16, 0, DpxLayout::PackedRGB},  {16, 0, DpxLayout::PackedRGBA},
};

TEST(DpxWriteInterop, ImageMagickReadsOurFiles) {
#ifdef _WIN32
  GTEST_SKIP() << "ImageMagick interop runs on Linux";
#else
  if (!HaveConvert()) GTEST_SKIP() << "ImageMagick's convert is not installed";
  vxtest::TempDir dir;
  const std::uint32_t width = 7, height = 2;  // 7 pixels leave partial words in every packing
  for (const Case& c : kReadable) {
    auto image = ImagePtr::Adopt(dpxtest::MakeTestImage(width, height, c.bits));
    for (bool big : {true, false}) {
      DpxExportSettings settings;
      settings.bitDepth = static_cast<int>(c.bits);
      settings.packing = c.packing;
      settings.layout = c.layout;
      settings.bigEndian = big;
      const std::string name = std::to_string(c.bits) + "bit-pack" + std::to_string(c.packing) +
                               "-" + LayoutOptionName(c.layout) + (big ? "-big" : "-little");
      SCOPED_TRACE(name);
      const auto path = dir / (name + ".dpx");
      ASSERT_EQ(WriteDpxFile(vxtest::Wide(path).c_str(), image.get(), settings, {}), S_OK);
      const auto got = ReadWithImageMagick(path);
      ASSERT_EQ(got.size(), std::size_t{width} * height * 4);
      int mismatches = 0;
      for (std::uint32_t y = 0; y < height; ++y)
        for (std::uint32_t x = 0; x < width; ++x)
          for (std::uint32_t ch = 0; ch < 4; ++ch) {
            const int have = got[(std::size_t{y} * width + x) * 4 + ch];
            if (ch == 3 && !LayoutHasAlpha(c.layout)) {
              EXPECT_EQ(have, 65535);
              continue;
            }
            // ImageMagick scales some depths up by shifting: allow one code of difference.
            const std::int64_t want = dpxtest::TestCode(x, y, ch, c.bits);
            if (std::llabs(CodeOf16(have, c.bits) - want) > 1 && ++mismatches < 5)
              ADD_FAILURE() << "x " << x << " y " << y << " channel " << ch << ": " << have
                            << " for code " << want;
          }
    }
  }
#endif
}

}  // namespace
