// DPX and Cineon header acceptance, slot rules, undefined fields and line sizes.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "dpx_read_test_util.h"
#include "still/dpx/dpx_header.h"

using namespace vx::dpx;
using dpxtest::DpxHeaderRecipe;
using dpxtest::Element;

namespace {

// A state no parse produces, to show that a failed parse leaves it alone.
DpxHeaderState Sentinel() {
  DpxHeaderState s;
  s.width = 777;
  s.height = 555;
  s.maxBits = 99;
  s.redSeen = 42;
  return s;
}

bool Parse(const dpxtest::Bytes& b, DpxHeaderState* out, std::size_t size = 2048) {
  return ParseDpxHeader(b.data.data(), size, out);
}

void ExpectUntouched(const DpxHeaderState& s) {
  EXPECT_EQ(s.width, 777u);
  EXPECT_EQ(s.height, 555u);
  EXPECT_EQ(s.maxBits, 99u);
  EXPECT_EQ(s.redSeen, 42);
}

Element El(std::uint8_t desc, std::uint8_t bits = 10, std::uint16_t packing = 1) {
  Element e;
  e.descriptor = desc;
  e.bits = bits;
  e.packing = packing;
  return e;
}

}  // namespace

TEST(DpxHeader, ReadsBothByteOrders) {
  for (bool big : {true, false}) {
    auto b = dpxtest::MakeDpxHeader({.big = big,
                                     .width = 0x01020304,
                                     .height = 0x0A0B,
                                     .elements = {{.offset = 0x12345, .eolPadding = 12}}});
    b.U32(1920, 0x01020304);
    DpxHeaderState s;
    ASSERT_TRUE(Parse(b, &s)) << big;
    const auto& e = s.elements[0];
    EXPECT_EQ(std::tuple(s.bigEndian, s.width, s.height, s.timeCode, s.maxBits),
              std::tuple(big, 0x01020304u, 0x0A0Bu, 0x01020304u, 10u));
    EXPECT_EQ(std::tuple(e.dataOffset, e.eolPadding, e.components, e.packing),
              std::tuple(0x12345u, 12u, 3u, 1u));
  }
}

TEST(DpxHeader, FaultsFailAndLeaveStateAlone) {
  using Tweak = std::function<void(DpxHeaderRecipe&)>;
  const Tweak none = [](DpxHeaderRecipe&) {};
  const struct {
    const char* what;
    Tweak tweak;
    std::size_t size = 2048;
    const char* magic = nullptr;
  } cases[] = {
      // clang-format off
      {"bad magic", none, 2048, "SDPx"},
      {"nine elements", [](auto& r) { r.elements = {El(50)}, r.elementCountOverride = 9; }},
      {"duplicated red", [](auto& r) { r.elements = {El(1), El(1), El(2), El(3)}; }},
      {"RGB plus a separate red", [](auto& r) { r.elements = {El(50), El(1)}; }},
      {"missing blue", [](auto& r) { r.elements = {El(1), El(2)}; }},
      {"two alphas", [](auto& r) { r.elements = {El(51), El(4)}; }},
      {"orientation 8", [](auto& r) { r.orientation = 8; }},
      {"no elements", [](auto& r) { r.elements = {}; }},
      {"red skipped (64 bits)", [](auto& r) { r.elements = {El(1, 64, 0), El(2), El(3)}; }},
      {"generic header cut", none, 1663}, {"film header cut", none, 1919},
      {"television header cut", none, 2047}
      // clang-format on
  };
  for (const auto& c : cases) {
    DpxHeaderRecipe recipe;
    c.tweak(recipe);
    auto b = dpxtest::MakeDpxHeader(recipe);
    if (c.magic) b.Text(0, c.magic);
    DpxHeaderState s = Sentinel();
    EXPECT_FALSE(Parse(b, &s, c.size)) << c.what;
    ExpectUntouched(s);
  }
  DpxHeaderState s = Sentinel();
  EXPECT_FALSE(ParseDpxHeader(nullptr, 2048, &s));
  ExpectUntouched(s);
}

TEST(DpxHeader, ElementsToSlots) {
  Element alpha = El(4, 8, 0);
  alpha.offset = 9999;
  const struct {
    const char* what;
    std::vector<Element> elements;
    std::uint32_t accepted, maxBits, components0, slot1;  // slot1: descriptor in slot 1
    bool alpha, reversed, planar, separateAlpha;
  } cases[] = {
      // clang-format off
      {"eight, five of kinds that are skipped", {El(1), El(2), El(3), El(100), El(8), El(0), El(9), El(7)}, 3, 10, 1, 2, false, false, true, false},
      {"64-bit and packing-3 reds skipped", {El(1, 64, 0), El(50, 12, 0), El(1, 10, 3)}, 1, 12, 3, 0, false, false, false, false},
      {"luma counts all colours", {El(6, 16, 0)}, 1, 16, 1, 0, false, false, false, false},
      {"BGR, alpha follows in slot 1", {El(53), alpha}, 2, 10, 3, 4, true, true, false, true},
      {"planar keeps green in slot 1", {El(1), El(2), El(3), alpha}, 4, 10, 1, 2, true, false, true, true},
      {"ABGR", {El(52)}, 1, 10, 4, 0, true, true, false, false}
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    DpxHeaderRecipe recipe;
    recipe.orientation = 7;
    recipe.elements = c.elements;
    DpxHeaderState s;
    ASSERT_TRUE(Parse(dpxtest::MakeDpxHeader(recipe), &s));
    EXPECT_EQ(s.orientation, 7u);
    EXPECT_EQ(s.redSeen + s.greenOrLumaSeen + s.blueSeen, 3);
    EXPECT_EQ(std::tuple(s.elementCount, s.maxBits, s.elements[0].components,
                         std::uint32_t{s.elements[1].descriptor}),
              std::tuple(c.accepted, c.maxBits, c.components0, c.slot1));
    EXPECT_EQ(
        std::tuple(s.hasAlpha != 0, s.reversedOrder != 0, s.Planar(), s.SeparateAlpha() != nullptr),
        std::tuple(c.alpha, c.reversed, c.planar, c.separateAlpha));
    if (c.separateAlpha) {
      EXPECT_EQ(s.elements[3].dataOffset, 9999u);
    }
  }
}

// Optional fields as stored and as read: padding at or above 2^31 - 1 is none, an empty element
// offset falls back to the image offset, an aspect needs both parts, rates outside (0, 8000) are
// unknown (-1) and 23.976 is 24000/1001, interlace 0 is progressive (2) whatever the field.
TEST(DpxHeader, OptionalFields) {
  enum Field { Padding, Offset, Aspect, Rate, Fields };
  const struct {
    Field field;
    std::uint32_t a, b;  // stored value(s); a float's bits for Rate
    double want;
    bool known = true;  // Aspect only
  } cases[] = {
      // clang-format off
      {Padding, 0x7FFFFFFF, 0, 0}, {Padding, 0xFFFFFFFF, 0, 0}, {Padding, 0x7FFFFFFE, 0, 0x7FFFFFFE},
      {Offset, 0, 0, 8192}, {Offset, 0xFFFFFFFF, 0, 8192},
      {Aspect, 0xFFFFFFFF, 0xFFFFFFFF, 1.0, false}, {Aspect, 4, 0xFFFFFFFF, 1.0, false},
      {Aspect, 0xFFFFFFFF, 3, 1.0, false}, {Aspect, 0, 3, 1.0, false}, {Aspect, 4, 0, 1.0, false},
      {Aspect, 4, 3, 4.0 / 3.0}, {Aspect, 0x80000000u, 0x40000000u, 2.0},
      {Rate, 0, 0, -1.0}, {Rate, 0x45FA0000 /* 8000 */, 0, -1.0}, {Rate, 0xFFFFFFFF, 0, -1.0},
      {Rate, 0xC1C00000 /* -24 */, 0, -1.0}, {Rate, 0x41C00000, 0, 24.0}, {Rate, 0x41C80000, 0, 25.0},
      {Rate, 0x41BFCED9 /* 23.976 */, 0, 24000.0 / 1001.0}, {Rate, 0x45F9F800 /* 7999 */, 0, 7999.0},
      {Fields, 0, 0, 2}, {Fields, 0, 1, 2}, {Fields, 1, 1, 1}, {Fields, 1, 2, 0}, {Fields, 1, 0, 2},
      {Fields, 1, 3, 1}, {Fields, 255, 1, 3}
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.field) + ": " + std::to_string(c.a) + "/" + std::to_string(c.b));
    DpxHeaderRecipe recipe;
    if (c.field == Padding) recipe.elements[0].eolPadding = c.a;
    if (c.field == Offset) recipe.elements[0].offset = c.a;
    auto b = dpxtest::MakeDpxHeader(recipe);
    b.U32(4, 8192);
    if (c.field == Aspect) b.U32(1628, c.a), b.U32(1632, c.b);
    if (c.field == Rate) b.U32(1940, c.a);
    if (c.field == Fields)
      b.U8(1928, static_cast<std::uint8_t>(c.a)), b.U8(1929, static_cast<std::uint8_t>(c.b));
    DpxHeaderState s;
    ASSERT_TRUE(Parse(b, &s));
    const double got[] = {double(s.elements[0].eolPadding), double(s.elements[0].dataOffset),
                          s.pixelAspect, s.frameRate, double(s.fieldMode)};
    EXPECT_NEAR(got[c.field], c.want, 1e-9);
    EXPECT_EQ(s.aspectKnown, c.field == Aspect ? c.known : false);
  }
}

TEST(DpxHeader, LevelsDefaultByDepth) {
  DpxHeaderRecipe recipe;
  DpxHeaderState s;
  ASSERT_TRUE(Parse(dpxtest::MakeDpxHeader(recipe), &s));
  EXPECT_DOUBLE_EQ(s.whiteLevel, 1023.0);
  EXPECT_DOUBLE_EQ(s.blackLevel, 0.0);
  EXPECT_NEAR(s.gamma, 2.2222223, 1e-7);
  EXPECT_DOUBLE_EQ(s.blackGain, 4.5);
  EXPECT_DOUBLE_EQ(s.breakPoint, 0.018);

  recipe.elements = {El(50, 32, 0)};
  ASSERT_TRUE(Parse(dpxtest::MakeDpxHeader(recipe), &s));
  EXPECT_DOUBLE_EQ(s.whiteLevel, 1.0);

  // Planar with a 12-bit channel: the deepest element decides.
  recipe.elements = {El(1, 8, 0), El(2, 12, 1), El(3, 8, 0)};
  ASSERT_TRUE(Parse(dpxtest::MakeDpxHeader(recipe), &s));
  EXPECT_DOUBLE_EQ(s.whiteLevel, 4095.0);

  auto b = dpxtest::MakeDpxHeader({});
  b.F32(1964, 940.0f);
  b.F32(1952, 64.0f);
  b.F32(1948, 1.0f);
  ASSERT_TRUE(Parse(b, &s));
  EXPECT_DOUBLE_EQ(s.whiteLevel, 940.0);
  EXPECT_DOUBLE_EQ(s.blackLevel, 64.0);
  EXPECT_DOUBLE_EQ(s.gamma, 1.0);
}

TEST(DpxHeader, EdgeCodeInputDeviceAndPerforation) {
  auto b = dpxtest::MakeDpxHeader({});
  b.Text(1664, "KU");
  b.Text(1666, "34");
  b.Text(1668, "07");
  b.Text(1670, "123456");
  b.Text(1676, "7890");
  b.Text(1556, "Scanner 9");
  b.Text(1864, "ARRI01");
  b.U8(1883, '3');
  DpxHeaderState s;
  ASSERT_TRUE(Parse(b, &s));
  const auto& ec = s.edgeCode;
  EXPECT_TRUE(ec.IsValid());
  EXPECT_EQ(std::tuple(ec.manufacturer, ec.filmType, ec.prefix, ec.count, ec.perfOffset),
            std::tuple("KU", "34", "123456", "7890", "07"));
  EXPECT_EQ(ec.perfType, 4);
  EXPECT_STREQ(s.inputDevice, "Scanner 9");

  const struct {
    char digit;
    int perf;
  } perfs[] = {{'1', 1}, {'2', 3}, {'4', 5}, {'9', 0}};
  for (auto p : perfs) {
    b.U8(1883, static_cast<std::uint8_t>(p.digit));
    ASSERT_TRUE(Parse(b, &s));
    EXPECT_EQ(s.edgeCode.perfType, p.perf) << p.digit;
  }
  // No film type, no tag: no edge code.
  ASSERT_TRUE(Parse(dpxtest::MakeDpxHeader({}), &s));
  EXPECT_FALSE(s.edgeCode.IsValid());
  EXPECT_EQ(s.inputDevice[0], 0);
}

TEST(CineonHeader, ReadsBothByteOrdersAndLayouts) {
  for (bool big : {true, false}) {
    auto b = dpxtest::MakeCineonHeader(
        {.big = big, .width = 0x0102, .height = 0x0304, .dataOffset = 0x8000});
    b.U32(684, 8);
    DpxHeaderState s;
    ASSERT_TRUE(ParseCineonHeader(b.data.data(), b.data.size(), &s)) << big;
    const auto& e = s.elements[0];
    EXPECT_EQ(std::tuple(s.isDpx, s.bigEndian, s.width, s.height, s.fieldMode),
              std::tuple(false, big, 0x0102u, 0x0304u, 3));
    // Cineon packing 5 is method A.
    EXPECT_EQ(std::tuple(e.dataOffset, e.eolPadding, e.packing, std::uint32_t{e.descriptor},
                         std::uint32_t{e.transfer}),
              std::tuple(0x8000u, 8u, 1u, 50u, 3u));
    EXPECT_DOUBLE_EQ(s.frameRate, 24.0);
    EXPECT_DOUBLE_EQ(s.whiteLevel, 1023.0);
  }
  const struct {
    std::uint8_t channels, bits, packing;
    std::uint32_t desc, components, packingCode, transfer;
    bool alpha;
    double white;
  } ok[] = {
      // clang-format off
      {1, 10, 6, 6, 1, 2, 3, false, 1023.0}, {4, 10, 0, 51, 4, 0, 3, true, 1023.0},
      {3, 8, 0, 50, 3, 0, 2, false, 255.0}
      // clang-format on
  };
  for (auto c : ok) {
    auto b =
        dpxtest::MakeCineonHeader({.channels = c.channels, .bits = c.bits, .packing = c.packing});
    DpxHeaderState s;
    ASSERT_TRUE(ParseCineonHeader(b.data.data(), b.data.size(), &s));
    const auto& e = s.elements[0];
    EXPECT_EQ(std::tuple(std::uint32_t{e.descriptor}, e.components, e.packing,
                         std::uint32_t{e.transfer}, bool(s.hasAlpha)),
              std::tuple(c.desc, c.components, c.packingCode, c.transfer, c.alpha));
    EXPECT_DOUBLE_EQ(s.whiteLevel, c.white);
  }
}

TEST(CineonHeader, FaultsFail) {
  const struct Case {
    const char* what;
    dpxtest::CineonRecipe recipe;
    std::size_t at = 0;  // a byte set to `value`
    std::uint8_t value = 0;
    std::size_t size = 2048;
  } cases[] = {
      // clang-format off
      {"packing 1", {.packing = 1}}, {"two channels", {.channels = 2}}, {"twelve bits", {.bits = 12}},
      {"sixteen bits", {.bits = 16}}, {"orientation 8", {.orientation = 8}},
      {"interleave", {}, 680, 1}, {"signed", {}, 682, 1}, {"negative sense", {}, 683, 1},
      {"bad magic", {}, 3, 0xD6}, {"cut short", {}, 0, 0, 2047}, {"first read cut", {}, 0, 0, 191}
      // clang-format on
  };
  for (const Case& c : cases) {
    auto b = dpxtest::MakeCineonHeader(c.recipe);
    if (c.at) b.U8(c.at, c.value);
    DpxHeaderState s = Sentinel();
    EXPECT_FALSE(ParseCineonHeader(b.data.data(), c.size, &s)) << c.what;
    ExpectUntouched(s);
  }
}

TEST(CineonHeader, HeaderLengthRule) {
  dpxtest::CineonRecipe recipe;
  recipe.genericLength = 100;  // below the first read: 832 more bytes, then the industry header
  auto b = dpxtest::MakeCineonHeader(recipe);
  EXPECT_EQ(CineonHeaderBytes(b.data.data(), b.data.size()), 2048u);
  recipe.genericLength = 1500;
  b = dpxtest::MakeCineonHeader(recipe);
  EXPECT_EQ(CineonHeaderBytes(b.data.data(), b.data.size()), 2524u);
  DpxHeaderState s;
  EXPECT_FALSE(ParseCineonHeader(b.data.data(), b.data.size(), &s));
  b.data.resize(2524);
  EXPECT_TRUE(ParseCineonHeader(b.data.data(), b.data.size(), &s));
  // A length far past the 1024-byte generic header is a broken field: it does not size a read.
  recipe.genericLength = 0x7FFFFFFF;
  b = dpxtest::MakeCineonHeader(recipe);
  EXPECT_EQ(CineonHeaderBytes(b.data.data(), b.data.size()), 0u);
  EXPECT_FALSE(ParseCineonHeader(b.data.data(), b.data.size(), &s));
}

TEST(DpxLineSize, DepthsAndPackings) {
  const struct {
    std::uint32_t bits, packing, width, components;
    bool flag;
    std::uint64_t bytes;
  } cases[] = {{1, 0, 7, 1, false, 1},    {1, 0, 17, 1, false, 3},        {1, 0, 17, 1, true, 4},
               {8, 0, 7, 3, false, 24},   {8, 0, 7, 3, true, 21},         {8, 0, 4, 1, false, 4},
               {10, 1, 16, 1, false, 24}, {10, 0, 16, 1, false, 20},      {10, 2, 7, 3, false, 28},
               {10, 0, 1, 1, false, 4},   {10, 1, 4096, 3, false, 16384}, {12, 1, 3, 1, false, 6},
               {12, 1, 3, 1, true, 8},    {12, 0, 3, 1, false, 8},        {12, 0, 8, 1, false, 12},
               {16, 0, 7, 3, false, 42},  {16, 0, 7, 3, true, 44},        {32, 0, 5, 4, false, 80},
               {64, 0, 2, 3, false, 48},  {11, 0, 5, 3, false, 0}};
  for (auto c : cases) {
    EXPECT_EQ(DpxLineBytes(c.bits, c.packing, c.width, c.components, c.flag), c.bytes)
        << c.bits << " bits, packing " << c.packing << ", " << c.width << "x" << c.components;
  }
}

TEST(CineonLineSize, Depths) {
  EXPECT_EQ(CineonLineBytes(10, 5, 3), 20u);
  EXPECT_EQ(CineonLineBytes(8, 5, 3), 15u);
  EXPECT_EQ(CineonLineBytes(8, 5, 1), 5u);
  EXPECT_EQ(CineonLineBytes(10, 3, 4), 16u);  // 16/3 bytes a pixel
  EXPECT_EQ(CineonLineBytes(10, 4, 4), 21u);  // 21.33 rounded
  EXPECT_EQ(CineonLineBytes(10, 5, 4), 27u);  // 26.67 rounded
}
