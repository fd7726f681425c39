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

TEST(DpxPack, TenBitPackedByHand) {
  const std::vector<float> s = {0x155, 0x2AA, 0x0F0, 0x30F, 0x001};
  EXPECT_EQ(Pack(s, 10, 0, false), (Bytes{0x55, 0xA9, 0x0A, 0xCF, 0xC3, 0x01, 0x00, 0x00}));
  // Big-endian files hold the same 32-bit words with their bytes reversed.
  EXPECT_EQ(Pack(s, 10, 0, true), (Bytes{0xCF, 0x0A, 0xA9, 0x55, 0x00, 0x00, 0x01, 0xC3}));
}

TEST(DpxPack, TenBitFilledMethodsByHand) {
  const std::vector<float> s = {0x155, 0x2AA, 0x0F0, 0x3FF};
  // Method A: two zero bits at the bottom; B: at the top. The fourth sample starts a new word.
  EXPECT_EQ(Pack(s, 10, 1, true), (Bytes{0x55, 0x6A, 0xA3, 0xC0, 0xFF, 0xC0, 0x00, 0x00}));
  EXPECT_EQ(Pack(s, 10, 1, false), (Bytes{0xC0, 0xA3, 0x6A, 0x55, 0x00, 0x00, 0xC0, 0xFF}));
  EXPECT_EQ(Pack(s, 10, 2, true), (Bytes{0x15, 0x5A, 0xA8, 0xF0, 0x3F, 0xF0, 0x00, 0x00}));
}

TEST(DpxPack, TwelveBitByHand) {
  const std::vector<float> s = {0xABC, 0x123, 0xFFF};
  // Packed: two samples in three bytes, lowest bits first; 36 bits take two words.
  EXPECT_EQ(Pack(s, 12, 0, false), (Bytes{0xBC, 0x3A, 0x12, 0xFF, 0x0F, 0x00, 0x00, 0x00}));
  EXPECT_EQ(Pack(s, 12, 0, true), (Bytes{0xFF, 0x12, 0x3A, 0xBC, 0x00, 0x00, 0x00, 0x0F}));
  // Filled: one sample per 16-bit word, at the top (A) or bottom (B).
  EXPECT_EQ(Pack(s, 12, 1, true), (Bytes{0xAB, 0xC0, 0x12, 0x30, 0xFF, 0xF0}));
  EXPECT_EQ(Pack(s, 12, 2, true), (Bytes{0x0A, 0xBC, 0x01, 0x23, 0x0F, 0xFF}));
  EXPECT_EQ(Pack(s, 12, 2, false), (Bytes{0xBC, 0x0A, 0x23, 0x01, 0xFF, 0x0F}));
}

TEST(DpxPack, WholeByteDepthsByHand) {
  EXPECT_EQ(Pack({0, 128, 255}, 8, 0, true), (Bytes{0, 128, 255}));
  EXPECT_EQ(Pack({0x1234, 0xFFFF}, 16, 0, true), (Bytes{0x12, 0x34, 0xFF, 0xFF}));
  EXPECT_EQ(Pack({0x1234, 0xFFFF}, 16, 0, false), (Bytes{0x34, 0x12, 0xFF, 0xFF}));
  // Floats are stored as they are, out-of-range values included.
  EXPECT_EQ(Pack({1.0f, -2.5f}, 32, 0, true),
            (Bytes{0x3F, 0x80, 0x00, 0x00, 0xC0, 0x20, 0x00, 0x00}));
  EXPECT_EQ(Pack({1.0f}, 32, 0, false), (Bytes{0x00, 0x00, 0x80, 0x3F}));
}

TEST(DpxPack, OneBitFirstSampleInLowestBit) {
  EXPECT_EQ(Pack({1, 0, 0, 1, 1, 0, 0, 0, 1}, 1, 0, true), (Bytes{0x19, 0x01}));
  EXPECT_EQ(Pack({0.49f, 0.5f, 7.0f}, 1, 0, false), (Bytes{0x06}));
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
  EXPECT_EQ(ApplyDpxOption(VXT("depth=11"), &ex, &im), E_INVALIDARG);
  EXPECT_EQ(ApplyDpxOption(VXT("depth=10x"), &ex, &im), E_INVALIDARG);
  EXPECT_EQ(ApplyDpxOption(VXT("layout=yuv"), &ex, &im), E_INVALIDARG);
  EXPECT_EQ(ApplyDpxOption(VXT("packing=c"), &ex, &im), E_INVALIDARG);
  EXPECT_EQ(ApplyDpxOption(VXT("endian=middle"), &ex, &im), E_INVALIDARG);
  EXPECT_EQ(ApplyDpxOption(VXT("transfer=-2"), &ex, &im), E_INVALIDARG);
  EXPECT_EQ(ApplyDpxOption(VXT("depth"), &ex, &im), E_INVALIDARG);
  EXPECT_EQ(ApplyDpxOption(nullptr, &ex, &im), E_POINTER);
  EXPECT_EQ(ApplyDpxOption(VXT("depth=8"), nullptr, &im), E_POINTER);
  EXPECT_EQ(ex.bitDepth, before.bitDepth);
  EXPECT_EQ(ex.layout, before.layout);
  EXPECT_EQ(ex.packing, before.packing);
  EXPECT_EQ(ex.bigEndian, before.bigEndian);
}
