// Whole files from the DPX writer: every depth, packing, layout and byte order read back through
// the reader's unpackers, and the header checked field by field at its offsets.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <regex>
#include <algorithm>
#include <string>
#include <thread>
#include <tuple>

#include "dpx_write_test_util.h"
#include "test_util.h"

using namespace vx;
using namespace vx::dpx;
using dpxtest::ElementSamples;
using dpxtest::ImagePtr;

namespace {

// Each layout's elements as the export dialog names them: descriptor and channel order.
const struct {
  DpxLayout layout;
  std::vector<std::pair<std::uint8_t, const char*>> elements;
} kLayouts[] = {{DpxLayout::PackedRGBA, {{51, "RGBA"}}},
                {DpxLayout::PlanarRGBA, {{1, "R"}, {2, "G"}, {3, "B"}, {4, "A"}}},
                {DpxLayout::PackedABGR, {{52, "ABGR"}}},
                {DpxLayout::RGBPlusAlpha, {{50, "RGB"}, {4, "A"}}},
                {DpxLayout::BGRPlusAlpha, {{53, "BGR"}, {4, "A"}}},
                {DpxLayout::PackedRGB, {{50, "RGB"}}},
                {DpxLayout::PlanarRGB, {{1, "R"}, {2, "G"}, {3, "B"}}},
                {DpxLayout::PackedBGR, {{53, "BGR"}}}};

std::vector<std::uint8_t> WriteAndLoad(const vxtest::TempDir& dir, IVxImage* image,
                                       const DpxExportSettings& settings,
                                       const DpxWriteInfo& info = {}) {
  const auto path = dir / "out.dpx";
  EXPECT_EQ(WriteDpxFile(vxtest::Wide(path).c_str(), image, settings, info), S_OK);
  return vxtest::ReadFile(path);
}

using RoundTripParam = std::tuple<int, int, int, bool>;  // bits, packing, layout index, big

class DpxWriteRoundTrip : public ::testing::TestWithParam<RoundTripParam> {};

TEST_P(DpxWriteRoundTrip, ReadsBackEverySample) {
  const auto [bits, packing, layoutIndex, big] = GetParam();
  const auto& layout = kLayouts[layoutIndex];
  vxtest::TempDir dir;
  for (std::uint32_t width : {1u, 2u, 3u, 5u, 7u}) {
    SCOPED_TRACE("width " + std::to_string(width));
    const std::uint32_t height = 3;
    auto image =
        ImagePtr::Adopt(dpxtest::MakeTestImage(width, height, static_cast<std::uint32_t>(bits)));
    ASSERT_TRUE(image.get());
    DpxExportSettings settings;
    settings.bitDepth = bits;
    settings.packing = packing;
    settings.layout = layout.layout;
    settings.bigEndian = big;
    const auto file = WriteAndLoad(dir, image.get(), settings);
    ASSERT_GE(file.size(), kHeaderSize);
    ASSERT_EQ(Load16(file.data() + 770, big), layout.elements.size());

    // The reader must take the file as we meant it.
    DpxHeaderState state;
    ASSERT_TRUE(ParseDpxHeader(file.data(), file.size(), &state));
    EXPECT_EQ(
        std::tuple(state.bigEndian, state.width, state.height, state.maxBits, state.hasAlpha != 0),
        std::tuple(big, width, height, std::uint32_t(bits), LayoutHasAlpha(layout.layout)));

    std::uint64_t end = 2048;
    for (std::uint32_t i = 0; i < layout.elements.size(); ++i) {
      SCOPED_TRACE("element " + std::to_string(i));
      const auto [descriptor, order] = layout.elements[i];
      const std::uint32_t components = static_cast<std::uint32_t>(std::strlen(order));
      ElementSamples el;
      ASSERT_TRUE(dpxtest::ReadElement(file, i, &el));
      EXPECT_EQ(std::tuple(el.descriptor, el.components, el.bits, el.packing),
                std::tuple(descriptor, components, std::uint32_t(bits), std::uint32_t(packing)));
      EXPECT_EQ(Load32(file.data() + 780 + 72 * i + 28, big), end);
      end += dpxtest::WrittenLine(bits, packing, std::uint64_t{width} * components) * height;
      int mismatches = 0;
      for (std::uint32_t y = 0; y < height; ++y)
        for (std::uint32_t x = 0; x < width; ++x)
          for (std::uint32_t k = 0; k < components; ++k) {
            const std::size_t at = (std::size_t{y} * width + x) * components + k;
            const auto ch = static_cast<std::uint32_t>(std::string("RGBA").find(order[k]));
            if (bits == 32) {
              if (el.floats[at] != dpxtest::TestFloat(x, y, ch) && ++mismatches < 5)
                ADD_FAILURE() << "x " << x << " y " << y << " channel " << ch;
            } else if (el.codes[at] != dpxtest::TestCode(x, y, ch, bits) && ++mismatches < 5) {
              ADD_FAILURE() << "x " << x << " y " << y << " channel " << ch << ": " << el.codes[at]
                            << " != " << dpxtest::TestCode(x, y, ch, bits);
            }
          }
    }
    EXPECT_EQ(file.size(), end);
    EXPECT_EQ(Load32(file.data() + 16, big), end);
  }
}

INSTANTIATE_TEST_SUITE_P(AllLayouts, DpxWriteRoundTrip,
                         ::testing::Combine(::testing::Values(8, 10, 12, 16, 32),
                                            ::testing::Values(0, 1, 2), ::testing::Range(0, 8),
                                            ::testing::Bool()));

TEST(DpxWrite, OneBitSourceKeepsOneBit) {
  vxtest::TempDir dir;
  ImagePtr image;
  ASSERT_EQ(VxCreateImage(9, 2, VX_PF_GRAY8, image.put()), S_OK);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 9; ++x)
      image->GetBuffer()[y * image->GetRowStride() + x] = (x + y) % 3 == 0 ? 255 : 0;
  DpxWriteInfo info;
  info.sourceBits = 1;
  info.sourceLayout = DpxLayout::PlanarRGB;
  const auto file = WriteAndLoad(dir, image.get(), DpxExportSettings{}, info);
  ElementSamples el;
  ASSERT_TRUE(dpxtest::ReadElement(file, 1, &el));
  EXPECT_EQ(el.bits, 1u);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 9; ++x) EXPECT_EQ(el.codes[y * 9 + x], (x + y) % 3 == 0 ? 1u : 0u);
}

// Depths the writer has not got go to the next one that holds the values.
TEST(DpxWrite, KeepResolvesAgainstSourceAndImage) {
  const struct {
    int depth;  // settings; 0 keeps
    DpxLayout layout;
    std::uint32_t sourceBits;  // write info; 0 when the source gave none
    DpxLayout sourceLayout;
    int sourcePacking;
    VxPixelFormat format;
    std::uint32_t bits, packing;
    std::vector<std::uint8_t> descriptors;
  } cases[] = {
      // clang-format off
      {0, DpxLayout::Keep, 0, DpxLayout::Keep, -1, VX_PF_RGBA8, 8, 0, {51}},
      {0, DpxLayout::Keep, 0, DpxLayout::Keep, -1, VX_PF_RGBF32, 32, 0, {50}},
      {0, DpxLayout::Keep, 2, DpxLayout::Keep, -1, VX_PF_RGB8, 8, 0, {50}},
      {0, DpxLayout::Keep, 11, DpxLayout::Keep, -1, VX_PF_RGB8, 12, 0, {50}},
      {0, DpxLayout::Keep, 14, DpxLayout::Keep, -1, VX_PF_RGB8, 16, 0, {50}},
      {0, DpxLayout::Keep, 24, DpxLayout::Keep, -1, VX_PF_RGB8, 32, 0, {50}},
      {0, DpxLayout::Keep, 64, DpxLayout::Keep, -1, VX_PF_RGB8, 32, 0, {50}},
      {0, DpxLayout::Keep, 12, DpxLayout::PackedABGR, 2, VX_PF_RGBA16, 12, 2, {52}},
      {16, DpxLayout::RGBPlusAlpha, 12, DpxLayout::PackedABGR, 2, VX_PF_RGBA16, 16, 2, {50, 4}}
      // clang-format on
  };
  for (const auto& c : cases) {
    DpxExportSettings settings;
    settings.bitDepth = c.depth;
    settings.layout = c.layout;
    DpxWriteInfo info;
    info.sourceBits = c.sourceBits;
    info.sourceLayout = c.sourceLayout;
    info.sourcePacking = c.sourcePacking;
    const DpxOutputPlan plan = PlanDpxOutput(settings, info, c.format);
    EXPECT_EQ(std::tuple(plan.bits, plan.packing, plan.bigEndian),
              std::tuple(c.bits, c.packing, true))
        << c.sourceBits;
    ASSERT_EQ(plan.elementCount, c.descriptors.size()) << c.sourceBits;
    for (std::size_t i = 0; i < c.descriptors.size(); ++i)
      EXPECT_EQ(plan.elements[i].descriptor, c.descriptors[i]);
  }
}

TEST(DpxWrite, EightBitSourcesConvertExactly) {
  // 8-bit and BGRA pixels land on the same codes at 8 bits and scale up at 10.
  vxtest::TempDir dir;
  ImagePtr image;
  ASSERT_EQ(VxCreateImage(3, 1, VX_PF_BGRA8, image.put()), S_OK);
  const std::uint8_t px[12] = {10, 20, 30, 40, 0, 128, 255, 1, 255, 255, 255, 255};
  std::memcpy(image->GetBuffer(), px, 12);
  DpxExportSettings settings;
  settings.layout = DpxLayout::PackedRGBA;
  ElementSamples el;
  ASSERT_TRUE(dpxtest::ReadElement(WriteAndLoad(dir, image.get(), settings), 0, &el));
  EXPECT_EQ(el.codes,
            (std::vector<std::uint32_t>{30, 20, 10, 40, 255, 128, 0, 1, 255, 255, 255, 255}));
  settings.bitDepth = 10;
  settings.layout = DpxLayout::PackedRGB;
  el = {};
  ASSERT_TRUE(dpxtest::ReadElement(WriteAndLoad(dir, image.get(), settings), 0, &el));
  EXPECT_EQ(el.codes, (std::vector<std::uint32_t>{120, 80, 40, 1023, 514, 0, 1023, 1023, 1023}));
}

TEST(DpxWrite, RefusesBadArguments) {
  vxtest::TempDir dir;
  auto image = ImagePtr::Adopt(dpxtest::MakeTestImage(2, 2, 10));
  const VxString path = vxtest::Wide(dir / "x.dpx");
  EXPECT_EQ(WriteDpxFile(nullptr, image.get(), {}, {}), E_POINTER);
  EXPECT_EQ(WriteDpxFile(path.c_str(), nullptr, {}, {}), E_POINTER);
  ImagePtr empty;
  ASSERT_EQ(VxCreateImage(0, 0, VX_PF_RGB8, empty.put()), S_OK);
  EXPECT_EQ(WriteDpxFile(path.c_str(), empty.get(), {}, {}), E_INVALIDARG);
  EXPECT_FALSE(std::filesystem::exists(dir / "x.dpx"));
  // A folder that does not exist: failure, and nothing left behind anywhere.
  const VxString missing = vxtest::Wide(dir / "no" / "x.dpx");
  EXPECT_EQ(WriteDpxFile(missing.c_str(), image.get(), {}, {}), E_FAIL);
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST(DpxWrite, ReplacesAnOldFileWholeAndLeavesNoTemporary) {
  vxtest::TempDir dir;
  vxtest::WriteFile(dir / "out.dpx", std::vector<std::uint8_t>(100000, 0x5A));
  auto image = ImagePtr::Adopt(dpxtest::MakeTestImage(4, 4, 10));
  const auto file = WriteAndLoad(dir, image.get(), {});
  EXPECT_EQ(file.size(), Load32(file.data() + 16, true));
  // Writers on several threads of one process, to one name: each temporary is its own, so
  // every write succeeds and what is left is one whole file.
  auto big = ImagePtr::Adopt(dpxtest::MakeTestImage(300, 200, 16));
  const VxString path = vxtest::Wide(dir / "out.dpx");
  std::atomic<int> failures{0};
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i)
    writers.emplace_back([&] {
      for (int k = 0; k < 5; ++k)
        if (WriteDpxFile(path.c_str(), big.get(), {}, {}) != S_OK) ++failures;
    });
  for (auto& t : writers) t.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(std::filesystem::file_size(dir / "out.dpx"), 2048u + 300 * 200 * 8);
  int entries = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.path())) ++entries;
  EXPECT_EQ(entries, 1);
}

// ---- Header fields at their offsets ---------------------------------------------------------

struct HeaderFixture : ::testing::Test {
  vxtest::TempDir dir;
  ImagePtr image = ImagePtr::Adopt(dpxtest::MakeTestImage(4, 2, 10));
  DpxExportSettings settings;
  DpxWriteInfo info;

  std::vector<std::uint8_t> Write() {
    settings.bitDepth = 10;
    settings.layout = DpxLayout::PackedRGB;
    return WriteAndLoad(dir, image.get(), settings, info);
  }
};

float F32(const std::vector<std::uint8_t>& f, std::uint32_t off, bool big = true) {
  return LoadFloat(f.data() + off, big);
}
std::uint32_t U32(const std::vector<std::uint8_t>& f, std::uint32_t off, bool big = true) {
  return Load32(f.data() + off, big);
}

TEST_F(HeaderFixture, EveryFieldAtItsOffsetInBothOrders) {
  info.inputDevice = "Scanner 7";
  info.frameRate = 24.0;
  info.timeCode = 0x01020304;
  // File information; element 0 (10-bit RGB, linear, reference codes 0 and 1023, the others
  // clear); image source (positions undefined, texts, border, aspect and scanned size
  // undefined); film (only the numeric fields, undefined); television, progressive at 24 fps
  // (24.0f is 0x41C00000) with the levels undefined.
  enum Kind { Byte, Word, Long, Zeros, Ones, Text };
  const struct {
    std::uint32_t off;
    Kind kind;
    std::uint32_t value;  // the end of a Zeros or Ones range
    const char* text = nullptr;
  } fields[] = {
      // clang-format off
      {4, Long, 2048}, {20, Long, 0}, {24, Long, 1664}, {28, Long, 384}, {32, Long, 0},
      {36, Zeros, 136}, {160, Text, 0, "Halden Vx"}, {169, Zeros, 660}, {660, Long, 0xFFFFFFFF},
      {768, Word, 0}, {770, Word, 1}, {772, Long, 4}, {776, Long, 2}, {780, Long, 0},
      {784, Long, 0}, {788, Long, 0xFFFFFFFF}, {792, Long, 1023}, {796, Long, 0xFFFFFFFF},
      {800, Byte, 50}, {801, Byte, 2}, {802, Byte, 2}, {803, Byte, 10}, {804, Word, 0},
      {806, Word, 0}, {808, Long, 2048}, {812, Long, 0}, {816, Long, 0}, {820, Zeros, 1408},
      {1408, Ones, 1432}, {1432, Zeros, 1556}, {1556, Text, 0, "Scanner 7"}, {1565, Zeros, 1620},
      {1620, Ones, 1644}, {1644, Zeros, 1664}, {1664, Zeros, 1712}, {1712, Ones, 1732},
      {1732, Zeros, 1920}, {1920, Long, 0x01020304}, {1924, Long, 0xFFFFFFFF}, {1928, Byte, 0},
      {1929, Byte, 0}, {1930, Byte, 0}, {1932, Long, 0xFFFFFFFF}, {1936, Long, 0x41C00000},
      {1940, Long, 0x41C00000}, {1944, Ones, 1972}, {1972, Zeros, 2048}
      // clang-format on
  };
  for (bool big : {true, false}) {
    SCOPED_TRACE(big ? "big-endian" : "little-endian");
    settings.bigEndian = big;
    const auto f = Write();
    ASSERT_GE(f.size(), kHeaderSize);
    EXPECT_EQ(std::string(f.begin(), f.begin() + 4), big ? "SDPX" : "XPDS");
    EXPECT_EQ(std::string(f.begin() + 8, f.begin() + 16), std::string("V2.0\0\0\0\0", 8));
    EXPECT_EQ(U32(f, 16, big), f.size());
    for (const auto& field : fields) {
      SCOPED_TRACE(field.off);
      if (field.kind == Text) {
        EXPECT_STREQ(reinterpret_cast<const char*>(f.data() + field.off), field.text);
      } else if (field.kind == Zeros || field.kind == Ones) {
        const std::uint8_t fill = field.kind == Ones ? 0xFF : 0;
        EXPECT_TRUE(std::all_of(f.begin() + field.off, f.begin() + field.value,
                                [&](std::uint8_t b) { return b == fill; }));
      } else {
        EXPECT_EQ(field.kind == Byte   ? f[field.off]
                  : field.kind == Word ? Load16(f.data() + field.off, big)
                                       : U32(f, field.off, big),
                  field.value);
      }
    }
    const std::string created(reinterpret_cast<const char*>(f.data() + 136));
    EXPECT_TRUE(std::regex_match(created, std::regex(R"(\d{4}(:\d\d){5}Z)"))) << created;
  }
}

TEST_F(HeaderFixture, PixelAspectFractions) {
  const struct {
    double aspect;
    std::uint32_t h, v;
  } cases[] = {{0.9, 9, 10}, {1.0, 1, 1}, {1.5, 15, 10}, {2.0, 2, 1}, {1.2, 6, 5}, {0.5, 5, 10}};
  for (const auto& c : cases) {
    info.aspectKnown = true;
    info.pixelAspect = c.aspect;
    const auto f = Write();
    EXPECT_EQ(std::pair(U32(f, 1628), U32(f, 1632)), std::pair(c.h, c.v)) << c.aspect;
  }
  std::uint32_t h = 0, v = 0;
  for (double bad : {0.0, -1.0, std::nan(""), 1e12}) EXPECT_FALSE(AspectFraction(bad, &h, &v));
  EXPECT_TRUE(AspectFraction(10.0, &h, &v));
  EXPECT_EQ(std::pair(h, v), std::pair(10u, 1u));
}

TEST_F(HeaderFixture, TelevisionFieldsAndRates) {
  const struct {
    std::int32_t fieldMode;
    double rate;
    std::uint8_t interlace, field;
    std::uint32_t vertical, temporal;                    // float bits; 0xFFFFFFFF undefined
  } cases[] = {{1, 25.0, 1, 1, 0x42480000, 0x41C80000},  // 50 and 25: a field a line pair
               {0, 25.0, 1, 2, 0x42480000, 0x41C80000},
               {2, 24.0, 0, 0, 0x41C00000, 0x41C00000},
               {VX_FIELD_UNKNOWN, -1.0, 0, 0, 0xFFFFFFFF, 0xFFFFFFFF}};
  for (const auto& c : cases) {
    info.fieldMode = c.fieldMode;
    info.frameRate = c.rate;
    const auto f = Write();
    EXPECT_EQ(std::tuple(f[1928], f[1929], U32(f, 1936), U32(f, 1940)),
              std::tuple(c.interlace, c.field, c.vertical, c.temporal))
        << c.fieldMode;
  }
}

TEST_F(HeaderFixture, ProjectFrameRateWins) {
  info.frameRate = 24.0;
  VxSetProjectProperty(VXT("Project Frame Rate"), 29.97);
  const auto f = Write();
  VxSetProjectProperty(VXT("Project Frame Rate"), 0.0);  // not positive: ignored again
  EXPECT_FLOAT_EQ(F32(f, 1940), 29.97f);
  EXPECT_EQ(F32(Write(), 1940), 24.0f);
}

// Choice -1 keeps the one of the write info.
TEST_F(HeaderFixture, LevelsOnlyForChoicesOneAndThree) {
  info.levels = {2.5, 64.0, 4.0, 0.02, 940.0};
  info.transferChoice = 3;
  for (int kept : {-1, 0, 1, 2, 3, 4, 5}) {
    SCOPED_TRACE("choice " + std::to_string(kept));
    settings.transferChoice = kept;
    const auto f = Write();
    const int choice = kept < 0 ? info.transferChoice : kept;
    const std::uint8_t code = choice == 0 ? 2 : choice == 3 ? 6 : choice == 4 ? 1 : 0;
    EXPECT_EQ(f[801], code);
    EXPECT_EQ(f[802], code);
    if (choice == 1 || choice == 3) {
      EXPECT_EQ(std::tuple(F32(f, 1948), F32(f, 1952), F32(f, 1956), F32(f, 1960), F32(f, 1964)),
                std::tuple(2.5f, 64.0f, 4.0f, 0.02f, 940.0f));
    } else {
      for (std::uint32_t off = 1948; off <= 1964; off += 4) EXPECT_EQ(U32(f, off), 0xFFFFFFFFu);
    }
    if (choice == 4) {  // printing density carries its reference quantities
      EXPECT_EQ(F32(f, 788), 0.0f);
      EXPECT_EQ(F32(f, 796), 2.048f);
    } else {
      EXPECT_EQ(U32(f, 788), 0xFFFFFFFFu);
      EXPECT_EQ(U32(f, 796), 0xFFFFFFFFu);
    }
  }
  // The default white level is the output depth's top code.
  info.levels.whiteLevel = -1.0;
  settings.transferChoice = 1;
  EXPECT_EQ(F32(Write(), 1964), 1023.0f);
}

// ---- 3D LUT on export -----------------------------------------------------------------------

struct Messages {
  std::vector<std::pair<std::string, std::string>> seen;
  static void Handler(const VxChar* caption, const VxChar* text, void* ctx) {
    static_cast<Messages*>(ctx)->seen.emplace_back(vx::ToUtf8(caption), vx::ToUtf8(text));
  }
  Messages() { VxSetMessageBoxHandler(&Handler, this); }
  ~Messages() { VxSetMessageBoxHandler(nullptr, nullptr); }
};

TEST(DpxWriteLut, UnreadableLutIsReportedAndSkipped) {
  vxtest::TempDir dir;
  Messages messages;
  auto image = ImagePtr::Adopt(dpxtest::MakeTestImage(3, 2, 10));
  DpxExportSettings settings;
  settings.bitDepth = 10;
  vxtest::WriteFile(dir / "grade.3dl", {'x'});
  settings.lutPath = vxtest::Wide(dir / "grade.3dl");
  const auto file = WriteAndLoad(dir, image.get(), settings);
  ASSERT_EQ(messages.seen.size(), 1u);
  EXPECT_EQ(messages.seen[0].first, "Error Message");
  EXPECT_EQ(messages.seen[0].second,
            "Dpx Parser Write error: Cannot create the 3D LUT unsupported format!");
  ElementSamples el;
  ASSERT_TRUE(dpxtest::ReadElement(file, 0, &el));
  EXPECT_EQ(el.codes[0], dpxtest::TestCode(0, 0, 0, 10));  // written without the LUT
  // A malformed cube file is refused the same way.
  vxtest::WriteFile(dir / "bad.cube", {'L', 'U', 'T', '_', '3', 'D', '_', 'S', 'I', 'Z', 'E'});
  settings.lutPath = vxtest::Wide(dir / "bad.cube");
  WriteAndLoad(dir, image.get(), settings);
  EXPECT_EQ(messages.seen.size(), 2u);
}

TEST(DpxWriteLut, InvertingCubeIsApplied) {
  vxtest::TempDir dir;
  Messages messages;
  std::string cube = "LUT_3D_SIZE 2\n";
  for (int b = 0; b < 2; ++b)
    for (int g = 0; g < 2; ++g)
      for (int r = 0; r < 2; ++r)
        cube += std::to_string(1 - r) + " " + std::to_string(1 - g) + " " + std::to_string(1 - b) +
                "\n";
  vxtest::WriteFile(dir / "invert.cube", std::vector<std::uint8_t>(cube.begin(), cube.end()));
  ImagePtr image;
  ASSERT_EQ(VxCreateImage(2, 1, VX_PF_RGBA8, image.put()), S_OK);
  const std::uint8_t px[8] = {0, 100, 255, 7, 30, 60, 90, 200};
  std::memcpy(image->GetBuffer(), px, 8);
  DpxExportSettings settings;
  settings.bitDepth = 8;
  settings.layout = DpxLayout::PackedRGBA;
  settings.lutPath = vxtest::Wide(dir / "invert.cube");
  ElementSamples el;
  ASSERT_TRUE(dpxtest::ReadElement(WriteAndLoad(dir, image.get(), settings), 0, &el));
  EXPECT_TRUE(messages.seen.empty());
  // Colour inverted, alpha kept.
  EXPECT_EQ(el.codes, (std::vector<std::uint32_t>{255, 155, 0, 7, 225, 195, 165, 200}));
}

}  // namespace
