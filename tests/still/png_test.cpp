// PNG files laid out chunk by chunk: what the peers cannot be made to write on purpose
// (palette and grey tRNS, hand-made Adam7, damaged chunks), 16-bit values kept whole, and the
// metadata record both ways.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "png_test_util.h"

#if VX_TEST_ZLIB
#include <zlib.h>

namespace {

using Bytes = std::vector<std::uint8_t>;
using pngtest::Rgba16;

void Be32(Bytes* b, std::uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b->push_back(static_cast<std::uint8_t>(v >> s));
}

void Chunk(Bytes* file, const char* type, const Bytes& data) {
  Be32(file, static_cast<std::uint32_t>(data.size()));
  const std::size_t start = file->size();
  file->insert(file->end(), type, type + 4);
  file->insert(file->end(), data.begin(), data.end());
  Be32(file, static_cast<std::uint32_t>(crc32(0, file->data() + start, file->size() - start)));
}

Bytes Text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

Bytes Deflate(const Bytes& raw) {
  uLongf n = compressBound(raw.size());
  Bytes out(n);
  compress(out.data(), &n, raw.data(), raw.size());
  out.resize(n);
  return out;
}

// A whole file: IHDR, `extra` chunks (type, data), IDAT of the filtered lines `raw`, IEND.
Bytes Png(std::uint32_t w, std::uint32_t h, int depth, int type, const Bytes& raw,
          const std::vector<std::pair<const char*, Bytes>>& extra = {}, int interlace = 0) {
  Bytes file = {137, 80, 78, 71, 13, 10, 26, 10}, ihdr;
  Be32(&ihdr, w);
  Be32(&ihdr, h);
  ihdr.insert(ihdr.end(), {static_cast<std::uint8_t>(depth), static_cast<std::uint8_t>(type), 0, 0,
                           static_cast<std::uint8_t>(interlace)});
  Chunk(&file, "IHDR", ihdr);
  for (const auto& [t, d] : extra) Chunk(&file, t, d);
  Chunk(&file, "IDAT", Deflate(raw));
  Chunk(&file, "IEND", {});
  return file;
}

std::string Md(IVxMetadata* md, const char* key) {
  return vx::md::GetText(md, key);
}

TEST(PngFile, DecodesEveryLayoutToItsValues) {
  vxtest::TempDir dir;
  struct Case {
    const char* name;
    Bytes file;
    VxPixelFormat format;
    std::vector<std::uint16_t> want;  // R, G, B, A of each pixel of the first line(s)
  };
  const Bytes plte = {255, 0, 0, 0, 255, 0, 0, 0, 255};
  const Case cases[] = {
      {"palette 2-bit, tRNS partial alpha",
       Png(3, 1, 2, 3, {0, 0b00011000}, {{"PLTE", plte}, {"tRNS", {0x00, 0x80}}}),
       VX_PF_RGBA8,
       {255, 0, 0, 0, 0, 255, 0, 128, 0, 0, 255, 255}},
      {"grey 8-bit tRNS key",
       Png(2, 1, 8, 0, {0, 0x40, 0x41}, {{"tRNS", {0, 0x40}}}),
       VX_PF_RGBA8,
       {64, 64, 64, 0, 65, 65, 65, 255}},
      {"grey 1-bit",
       Png(4, 1, 1, 0, {0, 0b10110000}),
       VX_PF_RGBA8,
       {255, 255, 255, 255, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 255, 255}},
      {"grey 16-bit kept exact",
       Png(1, 1, 16, 0, {0, 0x12, 0x34}),
       VX_PF_RGBA16,
       {0x1234, 0x1234, 0x1234, 0xFFFF}},
      {"grey + alpha 8-bit", Png(1, 1, 8, 4, {0, 0x10, 0x80}), VX_PF_RGBA8, {16, 16, 16, 128}},
      {"RGB 16-bit kept exact",
       Png(1, 1, 16, 2, {0, 0x12, 0x34, 0xAB, 0xCD, 0x00, 0x01}),
       VX_PF_RGBA16,
       {0x1234, 0xABCD, 0x0001, 0xFFFF}},
      {"RGBA 16-bit, Sub filter",
       Png(2, 1, 16, 6, {1, 0, 1, 0, 2, 0, 3, 0, 4, 0, 1, 0, 1, 0, 1, 0xFF, 0xFC}),
       VX_PF_RGBA16,
       {1, 2, 3, 4, 2, 3, 4, 0xFF00}},
      {"RGB 16-bit tRNS key",
       Png(2, 1, 16, 2, {0, 0, 1, 0, 2, 0, 3, 0, 1, 0, 2, 0, 4}, {{"tRNS", {0, 1, 0, 2, 0, 3}}}),
       VX_PF_RGBA16,
       {1, 2, 3, 0, 1, 2, 4, 0xFFFF}},
      // Adam7 on 2 x 2: pass 1 has (0,0), pass 6 (1,0), pass 7 the second line.
      {"grey interlaced",
       Png(2, 2, 8, 0, {0, 10, 0, 20, 0, 30, 40}, {}, 1),
       VX_PF_RGBA8,
       {10, 10, 10, 255, 20, 20, 20, 255, 30, 30, 30, 255, 40, 40, 40, 255}},
      {"grey plain",
       Png(2, 2, 8, 0, {0, 10, 20, 0, 30, 40}),
       VX_PF_RGBA8,
       {10, 10, 10, 255, 20, 20, 20, 255, 30, 30, 30, 255, 40, 40, 40, 255}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto path = dir / "case.png";
    vxtest::WriteFile(path, c.file);
    Rgba16 got;
    ASSERT_EQ(pngtest::Read(path, &got, c.format), S_OK);
    got.px.resize(c.want.size());
    EXPECT_EQ(got.px, c.want);
  }
}

TEST(PngFile, DamagedFilesFail) {
  vxtest::TempDir dir;
  const Bytes good = Png(4, 4, 8, 2, Bytes(4 * 13, 7));
  Bytes cut(good.begin(), good.begin() + 50), badCrc = good, shortData = good, noIend = good;
  badCrc[good.size() - 13] ^= 1;  // last byte of the IDAT CRC
  noIend.resize(good.size() - 12);
  // Complete chunks, but the deflate stream holds only two of the four lines.
  shortData = Png(4, 4, 8, 2, Bytes(2 * 13, 7));
  const std::pair<const char*, Bytes> cases[] = {
      {"truncated IDAT", cut},
      {"IDAT CRC", badCrc},
      {"no IEND", noIend},
      {"deflate stream short", shortData},
      {"palette without PLTE", Png(1, 1, 8, 3, {0, 0})},
      {"bad depth", Png(1, 1, 3, 0, {0, 0})},
      {"width 0", Png(0, 1, 8, 0, {0})},
      {"10 gigapixels from a few bytes", Png(100000, 100000, 8, 0, {0})},
      {"not a PNG", Text("GIF89a and then some bytes of no meaning at all")},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    const auto path = dir / "bad.png";
    vxtest::WriteFile(path, bytes);
    Rgba16 got;
    EXPECT_EQ(pngtest::Read(path, &got, VX_PF_RGBA8), E_FAIL);
  }
}

TEST(PngFile, TextsAndColourBothWays) {
  vxtest::TempDir dir;
  Bytes phys, chrm, ztxt = Text("Comment"), itxt = Text("Title");
  Be32(&phys, 1);
  Be32(&phys, 2);  // y twice x: a pixel twice as wide as tall
  phys.push_back(0);
  for (std::uint32_t v : {31270u, 32900u, 64000u, 33000u, 30000u, 60000u, 15000u, 6000u})
    Be32(&chrm, v);
  ztxt.insert(ztxt.end(), {0, 0});
  const Bytes z = Deflate(Text("packed words"));
  ztxt.insert(ztxt.end(), z.begin(), z.end());
  itxt.insert(itxt.end(), {0, 0, 0, 'f', 'r', 0, 0});
  for (char c : std::string("Caf\xC3\xA9")) itxt.push_back(static_cast<std::uint8_t>(c));
  Bytes latin = Text("Author");
  latin.insert(latin.end(), {0, 'R', 0xE9, 'a'});
  const Bytes file = Png(1, 1, 8, 0, {0, 0},
                         {{"gAMA", {0, 0, 0xB1, 0x8F}},
                          {"cHRM", chrm},
                          {"pHYs", phys},
                          {"tEXt", latin},
                          {"zTXt", ztxt},
                          {"iTXt", itxt},
                          {"tEXt", Text(std::string("Lens\0wide", 9))},
                          {"iCCP", Text(std::string("Studio RGB\0\0\x78\x9c", 14))}});
  const auto path = dir / "in.png";
  vxtest::WriteFile(path, file);
  vx::ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  Rgba16 got;
  ASSERT_EQ(pngtest::Read(path, &got, VX_PF_RGBA8, md.get()), S_OK);
  VxMetadataRecord r = vx::md::GetRecord(md.get());
  EXPECT_DOUBLE_EQ(r.pixelAspect, 2.0);
  EXPECT_EQ(Md(md.get(), "png:gamma"), "0.45455");
  EXPECT_EQ(Md(md.get(), "png:icc-name"), "Studio RGB");
  EXPECT_EQ(Md(md.get(), "png:color-type"), "grey");
  EXPECT_EQ(Md(md.get(), vx::md::kOriginator),
            "R\xC3\xA9"
            "a");
  EXPECT_EQ(Md(md.get(), vx::md::kComment), "packed words");
  EXPECT_EQ(Md(md.get(), vx::md::kDescription), "Caf\xC3\xA9");
  EXPECT_EQ(Md(md.get(), "png:Lens"), "wide");
  ASSERT_TRUE(r.present & VX_MD_CHROMATICITIES);
  EXPECT_DOUBLE_EQ(r.chromaticities[0], 0.64);    // red x
  EXPECT_DOUBLE_EQ(r.chromaticities[6], 0.3127);  // white x

  // Back out: a colour picture with one translucent pixel, gamma 2.2 and the texts.
  r.present |= VX_MD_TRANSFER | VX_MD_LEVELS;
  r.transfer = VX_TRANSFER_GAMMA;
  r.levels.gamma = 2.2;
  md->SetRecord(&r);
  vx::md::SetText(md.get(), vx::md::kDate, "2026-01-02T03:04:05");
  const Rgba16 pic{2, 1, {10, 20, 30, 255, 40, 50, 60, 7}};
  const auto out = dir / "out.png";
  ASSERT_EQ(pngtest::Write(out, pic, false, {"level=9"}, md.get()), S_OK);
  vx::ComPtr<IVxMetadata> back;
  VxCreateMetadata(back.put());
  ASSERT_EQ(pngtest::Read(out, &got, VX_PF_RGBA8, back.get()), S_OK);
  EXPECT_EQ(got.px, pic.px);
  EXPECT_EQ(Md(back.get(), "png:color-type"), "rgba");
  EXPECT_EQ(Md(back.get(), "png:gamma"), "0.45455");
  EXPECT_EQ(Md(back.get(), vx::md::kCreator), "vxprsr");
  for (const char* key :
       {vx::md::kOriginator, vx::md::kComment, vx::md::kDescription, "png:Lens", vx::md::kDate})
    EXPECT_EQ(Md(back.get(), key), Md(md.get(), key)) << key;
  EXPECT_DOUBLE_EQ(vx::md::GetRecord(back.get()).pixelAspect, 2.0);

  // Opaque grey pictures become grey files; 16-bit values stay whole.
  const Rgba16 grey{2, 1, {0x0102, 0x0102, 0x0102, 0xFFFF, 0xFEDC, 0xFEDC, 0xFEDC, 0xFFFF}};
  ASSERT_EQ(pngtest::Write(out, grey, true, {"level=0"}), S_OK);
  ASSERT_EQ(pngtest::Read(out, &got, VX_PF_RGBA16, back.get()), S_OK);
  EXPECT_EQ(got.px, grey.px);
  EXPECT_EQ(Md(back.get(), "png:color-type"), "grey");
  EXPECT_EQ(Md(back.get(), "png:bit-depth"), "16");
  EXPECT_EQ(pngtest::Write(out, grey, true, {"level=10"}), E_INVALIDARG);
}

}  // namespace
#endif
