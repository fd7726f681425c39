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

// The packed 10-bit stream as plain bytes: four samples in five bytes, lowest bits first.
Bytes Reference10Packed(const std::vector<std::uint32_t>& s) {
  Bytes out((s.size() * 10 + 31) / 32 * 4, 0);
  for (std::size_t i = 0; i < s.size(); ++i) {
    const std::size_t g = i / 4 * 5;
    const std::uint32_t v = s[i];
    switch (i % 4) {
      case 0:
        out[g] |= v & 0xFF;
        out[g + 1] |= v >> 8;
        break;
      case 1:
        out[g + 1] |= (v << 2) & 0xFF;
        out[g + 2] |= v >> 6;
        break;
      case 2:
        out[g + 2] |= (v << 4) & 0xFF;
        out[g + 3] |= v >> 4;
        break;
      case 3:
        out[g + 3] |= (v << 6) & 0xFF;
        out[g + 4] |= v >> 2;
        break;
    }
  }
  return out;
}

Bytes SwapWords(Bytes b) {
  for (std::size_t i = 0; i + 4 <= b.size(); i += 4) {
    std::swap(b[i], b[i + 3]);
    std::swap(b[i + 1], b[i + 2]);
  }
  return b;
}

std::vector<float> AsFloats(const std::vector<std::uint32_t>& s) {
  return std::vector<float>(s.begin(), s.end());
}

}  // namespace

TEST(DpxPack, TenBitPackedByHand) {
  const std::vector<float> s = {0x155, 0x2AA, 0x0F0, 0x30F, 0x001};
  EXPECT_EQ(Pack(s, 10, 0, false), (Bytes{0x55, 0xA9, 0x0A, 0xCF, 0xC3, 0x01, 0x00, 0x00}));
  // Big-endian files hold the same 32-bit words with their bytes reversed.
  EXPECT_EQ(Pack(s, 10, 0, true), (Bytes{0xCF, 0x0A, 0xA9, 0x55, 0x00, 0x00, 0x01, 0xC3}));
}

TEST(DpxPack, TenBitPackedTailsMatchTheByteFormula) {
  for (std::size_t n = 1; n <= 13; ++n) {
    std::vector<std::uint32_t> codes;
    for (std::size_t i = 0; i < n; ++i) codes.push_back((i * 389 + 17) % 1024);
    const Bytes little = Reference10Packed(codes);
    EXPECT_EQ(Pack(AsFloats(codes), 10, 0, false), little) << n << " samples";
    EXPECT_EQ(Pack(AsFloats(codes), 10, 0, true), SwapWords(little)) << n << " samples";
  }
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
