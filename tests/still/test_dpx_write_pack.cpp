// Packers against bytes worked out by hand, and the option text of the export settings.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "still/dpx/dpx_pack.h"
#include "still/dpx/dpx_header.h"
#include "still/dpx/dpx_settings.h"
#include "still/dpx/dpx_unpack.h"

using namespace vx::dpx;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Pack(const std::vector<float>& s, std::uint32_t bits, std::uint32_t packing, bool big) {
  Bytes out(DpxLineBytes(bits, packing, s.size(), 1, bits == 8) + 8, 0xEE);
  EXPECT_TRUE(PackSamples(s.data(), s.size(), bits, packing, big, out.data()));
  out.resize(DpxLineBytes(bits, packing, s.size(), 1, bits == 8));
  return out;
}

}  // namespace

// Bytes worked out by hand. 10-bit packed: samples back to back through 32-bit words, lowest
// bits first, and a big-endian file holds the same words with their bytes reversed; filled
// method A leaves two zero bits at the bottom, B at the top, and a fourth sample starts a new
// word; 12-bit packed takes two samples in three bytes, filled one in a 16-bit word, at the top
// (A) or bottom (B); 1 bit puts the first sample in the lowest bit; floats are stored as they are.
TEST(DpxPack, ByHand) {
  const struct {
    std::vector<float> s;
    std::uint32_t bits, packing;
    bool big;
    Bytes want;
  } cases[] = {
      // clang-format off
      {{0x155, 0x2AA, 0x0F0, 0x30F, 0x001}, 10, 0, false, {0x55, 0xA9, 0x0A, 0xCF, 0xC3, 0x01, 0, 0}},
      {{0x155, 0x2AA, 0x0F0, 0x30F, 0x001}, 10, 0, true, {0xCF, 0x0A, 0xA9, 0x55, 0, 0, 0x01, 0xC3}},
      {{0x155, 0x2AA, 0x0F0, 0x3FF}, 10, 1, true, {0x55, 0x6A, 0xA3, 0xC0, 0xFF, 0xC0, 0, 0}},
      {{0x155, 0x2AA, 0x0F0, 0x3FF}, 10, 1, false, {0xC0, 0xA3, 0x6A, 0x55, 0, 0, 0xC0, 0xFF}},
      {{0x155, 0x2AA, 0x0F0, 0x3FF}, 10, 2, true, {0x15, 0x5A, 0xA8, 0xF0, 0x3F, 0xF0, 0, 0}},
      {{0xABC, 0x123, 0xFFF}, 12, 0, false, {0xBC, 0x3A, 0x12, 0xFF, 0x0F, 0, 0, 0}},
      {{0xABC, 0x123, 0xFFF}, 12, 0, true, {0xFF, 0x12, 0x3A, 0xBC, 0, 0, 0, 0x0F}},
      {{0xABC, 0x123, 0xFFF}, 12, 1, true, {0xAB, 0xC0, 0x12, 0x30, 0xFF, 0xF0}},
      {{0xABC, 0x123, 0xFFF}, 12, 2, true, {0x0A, 0xBC, 0x01, 0x23, 0x0F, 0xFF}},
      {{0xABC, 0x123, 0xFFF}, 12, 2, false, {0xBC, 0x0A, 0x23, 0x01, 0xFF, 0x0F}},
      {{0, 128, 255}, 8, 0, true, {0, 128, 255}},
      {{0x1234, 0xFFFF}, 16, 0, true, {0x12, 0x34, 0xFF, 0xFF}},
      {{0x1234, 0xFFFF}, 16, 0, false, {0x34, 0x12, 0xFF, 0xFF}},
      {{1.0f, -2.5f}, 32, 0, true, {0x3F, 0x80, 0, 0, 0xC0, 0x20, 0, 0}},
      {{1.0f}, 32, 0, false, {0, 0, 0x80, 0x3F}},
      {{1, 0, 0, 1, 1, 0, 0, 0, 1}, 1, 0, true, {0x19, 0x01}},
      {{0.49f, 0.5f, 7.0f}, 1, 0, false, {0x06}},
      // clang-format on
  };
  for (const auto& c : cases)
    EXPECT_EQ(Pack(c.s, c.bits, c.packing, c.big), c.want)
        << c.bits << " bits, packing " << c.packing << (c.big ? " BE" : " LE");
}

TEST(DpxPack, RoundsHalfUpAndClamps) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(Pack({0.49f, 0.5f, 254.5f, -3.0f, 5000.0f, nan}, 8, 0, true),
            (Bytes{0, 1, 255, 0, 255, 0}));
  EXPECT_EQ(Pack({1022.5f, 1022.49f, 1e9f}, 10, 1, true),
            (Bytes{0xFF, 0xFF, 0xEF, 0xFC}));  // 1023 | 1022 | 1023, method A
  EXPECT_EQ(ToCode(65534.6f, 65535.0f), 65535u);
  EXPECT_EQ(ToCode(-0.0f, 1023.0f), 0u);
}

TEST(DpxPack, RefusesUnsupportedDepthsAndPackings) {
  float s[3] = {1, 2, 3};
  std::uint8_t out[16];
  EXPECT_FALSE(PackSamples(s, 3, 11, 0, true, out));
  EXPECT_FALSE(PackSamples(s, 3, 10, 3, true, out));
}

TEST(DpxSettings, OptionsSetTheirFields) {
  DpxExportSettings ex;
  DpxImportSettings im;
  EXPECT_EQ(ex.bitDepth, 0);
  EXPECT_EQ(ex.layout, DpxLayout::Keep);
  EXPECT_TRUE(ex.bigEndian);
  EXPECT_EQ(ApplyDpxOption(VXT("depth=10"), &ex, &im), S_OK);
  EXPECT_EQ(ex.bitDepth, 10);
  EXPECT_EQ(ApplyDpxOption(VXT(" Layout = Planar-RGB "), &ex, &im), S_OK);
  EXPECT_EQ(ex.layout, DpxLayout::PlanarRGB);
  EXPECT_EQ(ApplyDpxOption(VXT("layout=bgr+alpha"), &ex, &im), S_OK);
  EXPECT_EQ(ex.layout, DpxLayout::BGRPlusAlpha);
  EXPECT_EQ(ApplyDpxOption(VXT("packing=a"), &ex, &im), S_OK);
  EXPECT_EQ(ex.packing, 1);
  EXPECT_EQ(ApplyDpxOption(VXT("packing=2"), &ex, &im), S_OK);
  EXPECT_EQ(ex.packing, 2);
  EXPECT_EQ(ApplyDpxOption(VXT("transfer=4"), &ex, &im), S_OK);
  EXPECT_EQ(ex.transferChoice, 4);
  EXPECT_EQ(ApplyDpxOption(VXT("endian=little"), &ex, &im), S_OK);
  EXPECT_FALSE(ex.bigEndian);
  EXPECT_EQ(ApplyDpxOption(VXT("lut=/tmp/My LUT.cube"), &ex, &im), S_OK);
  EXPECT_EQ(ex.lutPath, VxString(VXT("/tmp/My LUT.cube")));
  EXPECT_EQ(ApplyDpxOption(VXT("input-lut=/x/In.cube"), &ex, &im), S_OK);
  EXPECT_EQ(im.inputLutPath, VxString(VXT("/x/In.cube")));
  EXPECT_EQ(ApplyDpxOption(VXT("depth=keep"), &ex, &im), S_OK);
  EXPECT_EQ(ex.bitDepth, 0);
}

TEST(DpxSettings, BadAndUnknownOptions) {
  DpxExportSettings ex;
  DpxImportSettings im;
  const DpxExportSettings before = ex;
  EXPECT_EQ(ApplyDpxOption(VXT("quality=3"), &ex, &im), S_FALSE);
  for (const VxChar* bad : {VXT("depth=11"), VXT("depth=10x"), VXT("layout=yuv"), VXT("packing=c"),
                            VXT("endian=middle"), VXT("transfer=-2"), VXT("depth")})
    EXPECT_EQ(ApplyDpxOption(bad, &ex, &im), E_INVALIDARG) << vx::ToUtf8(bad);
  EXPECT_EQ(ApplyDpxOption(nullptr, &ex, &im), E_POINTER);
  EXPECT_EQ(ApplyDpxOption(VXT("depth=8"), nullptr, &im), E_POINTER);
  EXPECT_EQ(ex.bitDepth, before.bitDepth);
  EXPECT_EQ(ex.layout, before.layout);
  EXPECT_EQ(ex.packing, before.packing);
  EXPECT_EQ(ex.bigEndian, before.bigEndian);
}
