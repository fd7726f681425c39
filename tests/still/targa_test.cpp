// Targa files laid out byte by byte: every image type, map entry size, origin and alpha rule the
// peers cannot be made to write, runs across line ends, and the damage that must fail a frame.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "targa_test_util.h"

namespace {

using targatest::Rgba;
using Bytes = std::vector<std::uint8_t>;

Bytes Header(std::uint8_t type, std::uint16_t w, std::uint16_t h, std::uint8_t bits,
             std::uint8_t descriptor, std::uint16_t mapFirst = 0, std::uint16_t mapLength = 0,
             std::uint8_t entryBits = 0) {
  return {0,
          static_cast<std::uint8_t>(mapLength ? 1 : 0),
          type,
          static_cast<std::uint8_t>(mapFirst),
          static_cast<std::uint8_t>(mapFirst >> 8),
          static_cast<std::uint8_t>(mapLength),
          static_cast<std::uint8_t>(mapLength >> 8),
          entryBits,
          0,
          0,
          0,
          0,
          static_cast<std::uint8_t>(w),
          static_cast<std::uint8_t>(w >> 8),
          static_cast<std::uint8_t>(h),
          static_cast<std::uint8_t>(h >> 8),
          bits,
          descriptor};
}

Bytes Cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// An extension area (size 495) with the given attributes type, and the footer pointing at it.
Bytes WithExtension(Bytes file, std::uint8_t attributes) {
  Bytes e(495, 0);
  e[0] = 495 & 255;
  e[1] = 495 >> 8;
  std::memcpy(&e[2], "Ann Author", 10);
  std::memcpy(&e[43], "first line", 10);
  std::memcpy(&e[43 + 2 * 81], "third line", 10);
  const std::uint8_t date[12] = {7,  0, 14, 0, 0xE9, 0x07,
                                 13, 0, 5,  0, 9,    0};  // 2025-07-14 13:05:09
  std::memcpy(&e[367], date, 12);
  std::memcpy(&e[379], "Job 7", 5);
  const std::uint8_t jobTime[6] = {2, 0, 30, 0, 0, 0};
  std::memcpy(&e[420], jobTime, 6);
  std::memcpy(&e[426], "Painter", 7);
  e[467] = 0x5A;  // 90 -> 0.90
  e[469] = 'b';
  const std::uint8_t key[4] = {0x30, 0x20, 0x10, 0xFF};  // B, G, R, A
  std::memcpy(&e[470], key, 4);
  const std::uint8_t aspectGamma[8] = {10, 0, 11, 0, 22, 0, 10, 0};  // 10/11, 2.2
  std::memcpy(&e[474], aspectGamma, 8);
  e[494] = attributes;
  const auto offset = static_cast<std::uint32_t>(file.size());
  file = Cat(file, e);
  Bytes footer(26, 0);
  std::memcpy(footer.data(), &offset, 4);  // little-endian hosts only run this
  std::memcpy(footer.data() + 8, "TRUEVISION-XFILE.", 18);
  return Cat(file, footer);
}

// Expected pixels as 0xRRGGBBAA, top line first, left to right.
using Pixels = std::vector<std::uint32_t>;

struct Case {
  const char* name;
  Bytes file;
  int width, height;
  Pixels want;  // empty: the read must fail with E_FAIL
};

const std::uint32_t kRed = 0xFF0000FF, kGreen = 0x00FF00FF, kBlue = 0x0000FFFF;

std::vector<Case> Cases() {
  std::vector<Case> c;
  // Grey, bottom line first.
  c.push_back({"grey",
               Cat(Header(3, 2, 2, 8, 0), {10, 20, 30, 40}),
               2,
               2,
               {0x1E1E1EFF, 0x282828FF, 0x0A0A0AFF, 0x141414FF}});
  // 8-bit indices into a 24-bit map whose first entry is index 2.
  c.push_back({"map 24-bit, first entry 2",
               Cat(Header(1, 2, 1, 8, 0x20, 2, 2, 24), {0, 0, 255, 255, 0, 0, 2, 3}),
               2,
               1,
               {kRed, kBlue}});
  // 16-bit indices (little-endian) into 15-bit entries.
  c.push_back({"map 15-bit, 16-bit index",
               Cat(Header(1, 2, 1, 16, 0x20, 0, 258, 15),
                   [] {
                     Bytes m(258 * 2, 0);
                     m[0] = 0x00, m[1] = 0x7C;      // entry 0: red
                     m[514] = 0xE0, m[515] = 0x03;  // entry 257: green
                     return Cat(m, {1, 1, 0, 0});   // indices 257, 0
                   }()),
               2,
               1,
               {kGreen, kRed}});
  // 32-bit entries carry alpha.
  c.push_back(
      {"map 32-bit", Cat(Header(1, 1, 1, 8, 0x28, 0, 1, 32), {1, 2, 3, 4, 0}), 1, 1, {0x03020104}});
  // 16-bit entries: the attribute bit is alpha when the descriptor claims a bit.
  c.push_back({"map 16-bit attribute",
               Cat(Header(1, 2, 1, 8, 0x21, 0, 2, 16), {0xE0, 0x03, 0x1F, 0x80, 0, 1}),
               2,
               1,
               {0x00FF0000, kBlue}});
  // 5-5-5 fields widen as (v << 3) | (v >> 2): 16 -> 132; the top bit is alpha.
  c.push_back({"16-bit 5-5-5 + attribute",
               Cat(Header(2, 2, 1, 16, 0x21), {0x10, 0x42, 0x1F, 0x80}),
               2,
               1,
               {0x84848400, kBlue}});
  // 15-bit: the top bit means nothing.
  c.push_back({"15-bit", Cat(Header(2, 1, 1, 15, 0x20), {0xFF, 0x7F}), 1, 1, {0xFFFFFFFF}});
  c.push_back(
      {"16-bit, no alpha bits", Cat(Header(2, 1, 1, 16, 0x20), {0xFF, 0x7F}), 1, 1, {0xFFFFFFFF}});
  // Right to left, bottom first.
  c.push_back({"24-bit bottom-right",
               Cat(Header(2, 2, 2, 24, 0x10), {0, 0, 255, 0, 255, 0, 255, 0, 0, 1, 2, 3}),
               2,
               2,
               {0x030201FF, kBlue, kGreen, kRed}});
  c.push_back({"32-bit top-right",
               Cat(Header(2, 2, 1, 32, 0x38), {1, 2, 3, 4, 5, 6, 7, 8}),
               2,
               1,
               {0x07060508, 0x03020104}});
  c.push_back({"32-bit bottom-left",
               Cat(Header(2, 1, 2, 32, 0x08), {1, 2, 3, 4, 5, 6, 7, 8}),
               1,
               2,
               {0x07060508, 0x03020104}});
  // A run of three across the end of the first line, then a literal packet.
  c.push_back({"run across a line end",
               Cat(Header(10, 2, 2, 24, 0x20), {0x82, 0, 0, 255, 0x00, 255, 0, 0}),
               2,
               2,
               {kRed, kRed, kRed, kBlue}});
  c.push_back(
      {"literal across a line end",
       Cat(Header(10, 2, 2, 24, 0x20), {0x02, 0, 0, 255, 0, 255, 0, 255, 0, 0, 0x80, 9, 9, 9}),
       2,
       2,
       {kRed, kGreen, kBlue, 0x090909FF}});
  c.push_back({"grey run-length",
               Cat(Header(11, 3, 1, 8, 0x20), {0x81, 7, 0x00, 9}),
               3,
               1,
               {0x070707FF, 0x070707FF, 0x090909FF}});
  c.push_back({"map run-length",
               Cat(Header(9, 3, 1, 8, 0x20, 0, 2, 24), {0, 0, 255, 0, 255, 0, 0x82, 1}),
               3,
               1,
               {kGreen, kGreen, kGreen}});
  // Damage.
  c.push_back({"truncated literal", Cat(Header(10, 4, 1, 24, 0), {0x03, 1, 2, 3}), 4, 1, {}});
  c.push_back({"truncated run",
               Cat(Header(10, 200, 1, 24, 0), {0xFF, 1, 2, 3, 0x81, 1, 2, 3}),
               200,
               1,
               {}});
  c.push_back({"run past the last pixel", Cat(Header(10, 2, 1, 24, 0), {0x82, 1, 2, 3}), 2, 1, {}});
  c.push_back({"literal past the last pixel",
               Cat(Header(10, 2, 1, 24, 0), {0x02, 1, 2, 3, 1, 2, 3, 1, 2, 3}),
               2,
               1,
               {}});
  c.push_back({"index above the map",
               Cat(Header(1, 2, 1, 8, 0, 2, 2, 24), {0, 0, 255, 255, 0, 0, 2, 4}),
               2,
               1,
               {}});
  c.push_back({"index below the first entry",
               Cat(Header(9, 2, 1, 8, 0, 2, 2, 24), {0, 0, 255, 255, 0, 0, 0x81, 1}),
               2,
               1,
               {}});
  c.push_back({"short uncompressed lines", Cat(Header(2, 2, 2, 24, 0), Bytes(11, 0)), 2, 2, {}});
  c.push_back(
      {"65535 x 65535 on 100 bytes", Cat(Header(10, 65535, 65535, 32, 0), Bytes(82, 0)), 0, 0, {}});
  c.push_back({"unknown type", Cat(Header(4, 1, 1, 24, 0), {1, 2, 3}), 0, 0, {}});
  c.push_back({"12-bit pixels", Cat(Header(2, 1, 1, 12, 0), {1, 2}), 0, 0, {}});
  c.push_back({"mapped without a map", Cat(Header(1, 1, 1, 8, 0), {0}), 0, 0, {}});
  c.push_back({"map past the end", Cat(Header(1, 1, 1, 8, 0, 0, 300, 24), {0, 0, 0, 0}), 0, 0, {}});
  c.push_back({"zero width", Cat(Header(2, 0, 1, 24, 0), {}), 0, 0, {}});
  // Extension attributes 2: undefined alpha, ignored (read opaque); 4: premultiplied, kept.
  c.push_back({"32-bit, alpha undefined",
               WithExtension(Cat(Header(2, 1, 1, 32, 0x28), {1, 2, 3, 0}), 2),
               1,
               1,
               {0x030201FF}});
  c.push_back({"32-bit, premultiplied",
               WithExtension(Cat(Header(2, 1, 1, 32, 0x28), {1, 2, 3, 9}), 4),
               1,
               1,
               {0x03020109}});
  // Attributes 0 with a 16-bit attribute bit: not alpha.
  c.push_back({"16-bit, attributes none",
               WithExtension(Cat(Header(2, 1, 1, 16, 0x21), {0x1F, 0x00}), 0),
               1,
               1,
               {kBlue}});
  return c;
}

TEST(Targa, HandLaidFilesReadAsLaidOrFail) {
  vxtest::TempDir dir;
  for (const Case& c : Cases()) {
    SCOPED_TRACE(c.name);
    vxtest::WriteFile(dir / "t.tga", c.file);
    for (VxPixelFormat format : {VX_PF_RGBA8, VX_PF_BGRA8, VX_PF_RGBA16}) {
      Rgba got;
      const HRESULT hr = targatest::Read(dir / "t.tga", &got, format);
      if (c.want.empty()) {
        EXPECT_EQ(hr, E_FAIL);
        continue;
      }
      ASSERT_EQ(hr, S_OK);
      ASSERT_EQ(got.width, c.width);
      ASSERT_EQ(got.height, c.height);
      for (int i = 0; i < c.width * c.height; ++i) {
        const std::uint8_t* p = got.px.data() + 4 * i;
        const std::uint32_t v = std::uint32_t{p[0]} << 24 | p[1] << 16 | p[2] << 8 | p[3];
        EXPECT_EQ(v, c.want[i]) << "pixel " << i << " as " << VxPixelFormatName(format);
      }
    }
  }
}

TEST(Targa, ExtensionAreaBecomesTheMetadataRecord) {
  vxtest::TempDir dir;
  Bytes file = Cat(Header(2, 1, 1, 32, 0x28), {1, 2, 3, 9});
  file[0] = 5;
  file.insert(file.begin() + 18, {'s', 'h', 'o', 't', ' '});
  vxtest::WriteFile(dir / "x.tga", WithExtension(file, 4));
  targatest::Parser parser;
  ASSERT_EQ(parser->Open(vxtest::Wide(dir / "x.tga").c_str(), VX_OPEN_NO_PATTERN), S_OK);
  vx::ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  ASSERT_EQ(parser->GetMetadata(0, md.get()), S_OK);
  const VxMetadataRecord r = vx::md::GetRecord(md.get());
  ASSERT_TRUE(r.present & VX_MD_ASPECT);
  EXPECT_DOUBLE_EQ(r.pixelAspect, 10.0 / 11.0);
  const std::pair<const char*, const char*> texts[] = {
      {"description", "shot"},
      {"originator", "Ann Author"},
      {"comment", "first line\nthird line"},
      {"date", "2025-07-14T13:05:09"},
      {"creator", "Painter"},
      {"targa:software-version", "0.90b"},
      {"targa:job", "Job 7"},
      {"targa:job-time", "2:30:00"},
      {"targa:gamma", "2.2"},
      {"targa:key-color", "16,32,48,255"},
      {"targa:origin", "top-left"},
      {"targa:alpha", "premultiplied"},
  };
  for (const auto& [key, value] : texts) EXPECT_EQ(vx::md::GetText(md.get(), key), value) << key;
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  ASSERT_EQ(parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
  EXPECT_EQ(f.hasAlpha, 1u);
  EXPECT_EQ(f.pixelFormat, VX_PF_BGRA8);
}

// Our files: header, data order, extension and footer as laid down, and back to the same pixels.
TEST(Targa, WriterLaysOutWhatItSaysAndReadsBack) {
  vxtest::TempDir dir;
  Rgba pic{3, 2, {}};
  for (int i = 0; i < 6; ++i) {
    const std::uint8_t a = i == 4 ? 128 : 255;
    pic.px.insert(pic.px.end(), {static_cast<std::uint8_t>(10 * i), 7, 7, a});
  }
  pic.px[4 * 1] = pic.px[4 * 0];  // two equal pixels make a run
  vx::ComPtr<IVxMetadata> md;
  VxCreateMetadata(md.put());
  vx::md::SetText(md.get(), "description", "plate 4");
  vx::md::SetText(md.get(), "originator", "Ann");
  vx::md::SetText(md.get(), "comment", "one\ntwo");
  VxMetadataRecord r = vx::md::EmptyRecord();
  r.present = VX_MD_ASPECT;
  r.pixelAspect = 2.0;
  md->SetRecord(&r);
  struct Variant {
    std::vector<std::string> options;
    std::uint8_t type, descriptor;
    Bytes data;  // pixel data after the 7-byte image id
  } variants[] = {
      {{}, 10, 0x08, {0x02, 7,    7, 30, 255, 7,   7,    40, 128, 7,  7,  50,
                      255,  0x81, 7, 7,  0,   255, 0x00, 7,  7,   20, 255}},
      {{"compression=none", "origin=top-left"}, 2, 0x28, {7, 7, 0,  255, 7, 7, 0,  255,
                                                          7, 7, 20, 255, 7, 7, 30, 255,
                                                          7, 7, 40, 128, 7, 7, 50, 255}},
  };
  for (const Variant& v : variants) {
    ASSERT_EQ(targatest::Write(dir / "w.tga", pic, v.options, md.get()), S_OK);
    const Bytes file = vxtest::ReadFile(dir / "w.tga");
    ASSERT_EQ(file.size(), 18 + 7 + v.data.size() + 495 + 26);
    EXPECT_EQ(file[0], 7);
    EXPECT_EQ(file[2], v.type);
    EXPECT_EQ(file[16], 32);
    EXPECT_EQ(file[17], v.descriptor);
    EXPECT_EQ(std::string(file.begin() + 18, file.begin() + 25), "plate 4");
    EXPECT_EQ(Bytes(file.begin() + 25, file.begin() + 25 + v.data.size()), v.data);
    const std::size_t e = 25 + v.data.size();
    EXPECT_EQ(file[e] | file[e + 1] << 8, 495);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&file[e + 2])), "Ann");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&file[e + 43])), "one");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&file[e + 124])), "two");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&file[e + 426])), "vxprsr");
    EXPECT_EQ(Bytes(file.begin() + e + 474, file.begin() + e + 478), (Bytes{2, 0, 1, 0}));
    EXPECT_EQ(file[e + 494], 3);  // straight alpha
    EXPECT_EQ(file[e + 495] | file[e + 496] << 8, static_cast<int>(e));
    EXPECT_EQ(std::string(file.end() - 18, file.end() - 1), "TRUEVISION-XFILE.");
    Rgba back;
    ASSERT_EQ(targatest::Read(dir / "w.tga", &back), S_OK);
    EXPECT_EQ(back.px, pic.px);
  }
  // Opaque pictures are 24-bit; a bad option value is refused; a failed write leaves nothing.
  for (int i = 0; i < 6; ++i) pic.px[4 * i + 3] = 255;
  ASSERT_EQ(targatest::Write(dir / "o.tga", pic, {}), S_OK);
  EXPECT_EQ(vxtest::ReadFile(dir / "o.tga")[16], 24);
  EXPECT_EQ(targatest::Write(dir / "b.tga", pic, {"compression=lzw"}), E_INVALIDARG);
  EXPECT_EQ(targatest::Write(dir / "missing" / "m.tga", pic, {}), E_FAIL);
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

}  // namespace
