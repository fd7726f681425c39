// PICT opcode streams and pixel records laid out by hand: the rules no other reader shows, and
// bad files with their diagnostics.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "imagelib/pict/qi_image_pict.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pixel = std::array<std::uint16_t, 4>;
using vxtest::TempDir;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes W(std::initializer_list<int> words) {
  Bytes b;
  for (int v : words) b.push_back(static_cast<std::uint8_t>(v >> 8)), b.push_back(v & 0xFF);
  return b;
}

// Prefix, size, frame (0, 0, h, w), then `ops` (from the version opcode on when `v2` is false).
Bytes Pict(int w, int h, const Bytes& ops, bool v2 = true) {
  return Bytes(512, 0) + W({0, 0, 0, h, w}) + (v2 ? Bytes{0, 0x11, 2, 0xFF} : Bytes{}) + ops;
}

// A one-bit BitsRect, 8 x h, rows of `rowBytes` stored whole (below 8 bytes).
Bytes Bits(int h, int rowBytes, const Bytes& rows) {
  return W({0x0090, rowBytes, 0, 0, h, 8, 0, 0, h, 8, 0, 0, h, 8, 0}) + rows;
}

// A PackBitsRect of `bits`-bit indices into two entries: 0 is (1111, 2222, 3333), 1 (AAAA, ...).
Bytes Indexed(int w, int h, int rowBytes, int bits, const Bytes& rows) {
  // clang-format off
  return W({0x0098, 0x8000 | rowBytes, 0, 0, h, w, 0, 0, 0, 0, 0x48, 0, 0x48, 0, 0, bits, 1, bits,
            0, 0, 0, 0, 0, 0,  0, 0, 0, 1,  0, 0x1111, 0x2222, 0x3333,  1, 0xAAAA, 0xBBBB, 0xCCCC,
            0, 0, h, w,  0, 0, h, w,  0}) + rows;
  // clang-format on
}

constexpr Pixel kWhite = {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}, kBlack = {0, 0, 0, 0xFFFF};
constexpr Pixel kEntry0 = {0x1111, 0x2222, 0x3333, 0xFFFF},
                kEntry1 = {0xAAAA, 0xBBBB, 0xCCCC, 0xFFFF};

TEST(Pict, OpcodesRecordsAndBadFiles) {
  const Bytes bits = Bits(1, 2, {0xA5, 0});  // black, white, black, ...
  struct Check {
    int x, top;  // top: lines from the top of the picture
    Pixel px;
  };
  const struct {
    const char* name;
    Bytes file;
    int result;           // -1 header refused, 0 read refused
    const char* message;  // what stderr must hold
    std::vector<Check> checks;
  } kCases[] = {
      // clang-format off
      {"version 1 after zero bytes", Pict(8, 1, Bytes{0, 0, 0x11, 1, 0x90} + Bytes(bits.begin() + 2, bits.end()), false),
       1, "", {{0, 0, kBlack}, {1, 0, kWhite}}},
      {"0x0180 skips 3 bytes, then a pad byte", Pict(8, 1, W({0x0180}) + Bytes{1, 2, 3, 0} + bits), 1, "", {{2, 0, kBlack}}},
      {"odd LongComment, then a pad byte", Pict(8, 1, W({0x00A1, 100, 3}) + Bytes{9, 9, 9, 0} + bits), 1, "", {{0, 0, kBlack}}},
      {"0x0C00, 0x00A5 and 0x8100 lengths",
       Pict(8, 1, W({0x0C00}) + Bytes(24, 0xFF) + W({0xA5, 2, 0xFFFF, 0x8100, 0, 2, 0}) + bits), 1, "", {{3, 0, kWhite}}},
      {"empty picture", Pict(3, 2, W({0x001E, 0x00FF})), 1, "", {{0, 0, kWhite}, {2, 1, kWhite}}},
      {"empty 30000 x 30000 picture", Pict(30000, 30000, W({0x00FF})), -1, "", {}},
      {"line drawing", Pict(4, 3, W({0x0020, 0, 0, 2, 3, 0x00FF})), 1, "",
       {{0, 0, kBlack}, {1, 1, kBlack}, {2, 1, kBlack}, {3, 2, kBlack}, {1, 0, kWhite}, {2, 2, kWhite}}},
      {"a line before the pixels", Pict(8, 1, W({0x0022, 0, 0, 0x0300}) + bits), -1, "", {}},
      {"two-byte counts above 250", Pict(251, 1, Indexed(251, 1, 251, 8, W({4}) + Bytes{0x81, 1, 0x86, 0})), 1, "",
       {{127, 0, kEntry1}, {128, 0, kEntry0}}},
      {"2-bit indices", Pict(3, 1, Indexed(3, 1, 1, 2, {0x10})), 1, "", {{0, 0, kEntry0}, {1, 0, kEntry1}}},
      {"5-5-5 pixel", Pict(1, 1, W({0x009A, 0, 0xFF, 0x8002, 0, 0, 1, 1, 0, 0, 0, 0, 0x48, 0, 0x48, 0, 16, 16, 3, 5,
                                    0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 1, 1, 0, 0x7C1F})),
       1, "", {{0, 0, {0xF800, 0, 0xF800, 0xFFFF}}}},
      {"rows cut by the end carry on", Pict(8, 2, Bits(2, 1, {0x80})), 1, "EOF / read error\n", {{0, 0, kBlack}, {0, 1, kWhite}}},
      {"index past the colour table", Pict(1, 1, Indexed(1, 1, 1, 8, {5})), 0, "pixel value greater than colour table size\n", {}},
      {"24-bit pixels", Pict(1, 1, Indexed(1, 1, 4, 24, Bytes(4, 0))), -1, "bad bits per pixel in expand_buf\n", {}},
      {"30000 rows in a tiny file", Pict(300, 30000, Indexed(300, 30000, 300, 8, {})), -1, "", {}},
      {"no version", Pict(8, 1, {0x12}, false), -1, "No version number\n", {}},
      {"version 2 without 0xFF", Pict(8, 1, {0x11, 2, 0}, false), -1, "can only do version 2, subcode 0xff\n", {}},
      {"version 3", Pict(8, 1, {0x11, 3}, false), -1, "Unknown version\n", {}},
      {"pattern type 7", Pict(8, 1, W({0x0012, 7})), -1, "unknown pattern type in read_pattern\n", {}},
      {"skip past the end", Pict(8, 1, W({0x00A2, 5000})), -1, "EOF / read error while \n", {}},
      {"frame of no width", Pict(0, 1, W({0x00FF})), -1, "", {}},
      // clang-format on
  };
  TempDir dir;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    vxtest::WriteFile(dir / "in.pict", c.file);
    testing::internal::CaptureStderr();
    QI_ImagePICT f;
    int result = -1;
    std::unique_ptr<QI_ImageRGBA16> img;
    if (f.open(vxtest::Wide(dir / "in.pict").c_str(), VXT("rb")) && f.readHeader()) {
      img = std::make_unique<QI_ImageRGBA16>(f.getWidth(), f.getHeight());
      result = f.read(img.get());
    }
    EXPECT_NE(testing::internal::GetCapturedStderr().find(c.message), std::string::npos);
    ASSERT_EQ(result, c.result);
    for (const Check& k : c.checks) {
      Pixel p;
      img->getPixel16(k.x, f.getHeight() - 1 - k.top, &p[0], &p[1], &p[2], &p[3]);
      EXPECT_EQ(p, k.px) << k.x << "," << k.top;
    }
  }
}

}  // namespace
