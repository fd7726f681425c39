// TIFF files laid out by hand (both byte orders, strips and tiles, planes, pages, orientations,
// extra samples) read through CVxTIFFFileParser, and what the writer keeps. Expected values are
// written out here; the peers' view is in tiff_interop_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "still/tiff/tiff_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"

#ifndef VX_TEST_LIBTIFF
#define VX_TEST_LIBTIFF 0
#endif
#include "vx/metadata.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// One directory entry: SHORT (3), LONG (4), RATIONAL (5, pairs) or ASCII (2, `text`).
struct Entry {
  std::uint16_t tag, type;
  std::vector<std::uint32_t> values;
  std::string text;
};

struct Page {
  std::vector<Entry> entries;  // in tag order; offsets of strips/tiles are filled in
  std::vector<Bytes> chunks;   // strip or tile data
  bool tiled = false;
};

// A classic TIFF of `pages` in either byte order.
class Builder {
 public:
  explicit Builder(bool big) : big_(big) {
    Put8(big ? 'M' : 'I');
    Put8(big ? 'M' : 'I');
    Put16(42);
    Put32(0);
  }
  Bytes Build(const std::vector<Page>& pages) {
    std::size_t link = 4;  // where the next directory's offset goes
    for (const Page& page : pages) {
      std::vector<std::uint32_t> offsets, counts;
      for (const Bytes& c : page.chunks) {
        offsets.push_back(static_cast<std::uint32_t>(out_.size()));
        counts.push_back(static_cast<std::uint32_t>(c.size()));
        out_.insert(out_.end(), c.begin(), c.end());
      }
      std::vector<Entry> entries = page.entries;
      entries.push_back({static_cast<std::uint16_t>(page.tiled ? 324 : 273), 4, offsets, {}});
      entries.push_back({static_cast<std::uint16_t>(page.tiled ? 325 : 279), 4, counts, {}});
      std::sort(entries.begin(), entries.end(),
                [](const Entry& a, const Entry& b) { return a.tag < b.tag; });
      if (out_.size() % 2) Put8(0);
      Patch32(link, static_cast<std::uint32_t>(out_.size()));
      const std::size_t dir = out_.size();
      const std::size_t extra = dir + 2 + 12 * entries.size() + 4;
      Bytes tail;
      Put16(static_cast<std::uint16_t>(entries.size()));
      for (const Entry& e : entries) {
        Put16(e.tag);
        Put16(e.type);
        Bytes value;
        std::uint32_t count = static_cast<std::uint32_t>(e.values.size());
        if (e.type == 2) {
          value.assign(e.text.begin(), e.text.end());
          value.push_back(0);
          count = static_cast<std::uint32_t>(value.size());
        } else {
          for (std::uint32_t v : e.values) Append(&value, v, e.type == 3 ? 2 : 4);
          if (e.type == 5) count /= 2;
        }
        Put32(count);
        if (value.size() <= 4) {
          value.resize(4, 0);
          out_.insert(out_.end(), value.begin(), value.end());
        } else {
          Put32(static_cast<std::uint32_t>(extra + tail.size()));
          tail.insert(tail.end(), value.begin(), value.end());
          if (tail.size() % 2) tail.push_back(0);
        }
      }
      link = out_.size();
      Put32(0);
      out_.insert(out_.end(), tail.begin(), tail.end());
    }
    return out_;
  }

 private:
  void Append(Bytes* b, std::uint32_t v, int n) {
    for (int i = 0; i < n; ++i)
      b->push_back(static_cast<std::uint8_t>(v >> (8 * (big_ ? n - 1 - i : i))));
  }
  void Put8(std::uint8_t v) { out_.push_back(v); }
  void Put16(std::uint16_t v) { Append(&out_, v, 2); }
  void Put32(std::uint32_t v) { Append(&out_, v, 4); }
  void Patch32(std::size_t at, std::uint32_t v) {
    Bytes b;
    Append(&b, v, 4);
    std::memcpy(out_.data() + at, b.data(), 4);
  }
  bool big_;
  Bytes out_;
};

// The usual tags of a w x h picture, uncompressed; `more` are added or replace them.
std::vector<Entry> Tags(std::uint32_t w, std::uint32_t h, std::vector<std::uint32_t> bits,
                        std::uint32_t photometric, std::uint32_t rowsPerStrip,
                        std::vector<Entry> more = {}) {
  std::vector<Entry> e = {
      {256, 4, {w}, {}},           {257, 4, {h}, {}},
      {258, 3, bits, {}},          {259, 3, {1}, {}},
      {262, 3, {photometric}, {}}, {277, 3, {static_cast<std::uint32_t>(bits.size())}, {}}};
  if (rowsPerStrip) e.push_back({278, 4, {rowsPerStrip}, {}});
  for (const Entry& m : more) {
    auto same = std::find_if(e.begin(), e.end(), [&](const Entry& x) { return x.tag == m.tag; });
    if (same != e.end()) {
      *same = m;
    } else {
      e.push_back(m);
    }
  }
  return e;
}

struct Picture {
  int width = 0, height = 0, frames = 0;
  HRESULT status = E_FAIL;
  std::vector<std::uint16_t> px;  // RGBA16, top line first
  std::uint16_t At(int x, int y, int c) const {
    return px[(std::size_t{4} * y * width + x * 4) + c];
  }
};

struct Parser {
  CVxTIFFFileParser* p = new CVxTIFFFileParser;
  Parser() { p->AddRef(); }
  ~Parser() { p->Release(); }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;
  CVxTIFFFileParser* operator->() const { return p; }
};

Picture Read(const std::filesystem::path& file, int frame = 0,
             VxPixelFormat format = VX_PF_RGBA16) {
  Picture pic;
  Parser parser;
  if ((pic.status = parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_NO_PATTERN)) != S_OK)
    return pic;
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  if ((pic.status = parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &f)) != S_OK) return pic;
  pic.frames = static_cast<int>(f.frameCount);
  vx::ComPtr<IVxImage> image;
  VxCreateImage(0, 0, format, image.put());
  IVxImage* raw = image.get();
  if ((pic.status = parser->ReadImage(&raw, frame)) != S_OK) return pic;
  vx::ComPtr<IVxImage> rgba;
  VxCreateImage(raw->GetWidth(), raw->GetHeight(), VX_PF_RGBA16, rgba.put());
  VxConvertImage(raw, rgba.get());
  pic.width = rgba->GetWidth();
  pic.height = rgba->GetHeight();
  pic.px.resize(std::size_t{4} * pic.width * pic.height);
  for (int y = 0; y < pic.height; ++y)
    std::memcpy(pic.px.data() + std::size_t{4} * y * pic.width,
                rgba->GetBuffer() + y * rgba->GetRowStride(), std::size_t{8} * pic.width);
  return pic;
}

// 3 x 2 RGB 8-bit, lines top first: red green blue / white black grey.
const Bytes kRgb = {255, 0, 0, 0, 255, 0, 0, 0, 255, 255, 255, 255, 0, 0, 0, 128, 128, 128};
constexpr std::uint16_t kE = 257;  // 8-bit step in 16 bits

TEST(TiffRead, HandLaidFilesReadAsLaidOut) {
  if (!VX_TEST_LIBTIFF) GTEST_SKIP() << "built without libtiff";
  struct Case {
    const char* name;
    bool big;
    std::vector<Page> pages;
    int frame;
    int width, height;
    // (x, y, R, G, B, A) in 16-bit values
    std::vector<std::array<int, 6>> expect;
  };
  const auto rgb = [](std::vector<Entry> more = {}) {
    return Page{Tags(3, 2, {8, 8, 8}, 2, 2, more), {kRgb}};
  };
  // 16-bit grey, 2 x 2: values 0x1234, 0xFFFF / 0, 0x8000, in the file's byte order.
  const auto grey16 = [](bool big) {
    Bytes d;
    for (std::uint16_t v : {0x1234, 0xFFFF, 0x0000, 0x8000}) {
      d.push_back(static_cast<std::uint8_t>(big ? v >> 8 : v));
      d.push_back(static_cast<std::uint8_t>(big ? v : v >> 8));
    }
    return Page{Tags(2, 2, {16}, 1, 1),
                {Bytes(d.begin(), d.begin() + 4), Bytes(d.begin() + 4, d.end())}};
  };
  // 4-bit grey of 3 pixels a line: nibbles packed across bytes, lines start on a byte.
  const Page grey4{Tags(3, 2, {4}, 1, 2), {{0x0F, 0x50, 0x8A, 0x70}}};
  // Min-is-white 1-bit.
  const Page white1{Tags(3, 1, {1}, 0, 1), {{0b10100000}}};
  // Palette of 2 bits: entries 0..3.
  const Page palette{
      Tags(2, 1, {2}, 3, 1,
           {{320, 3, {65535, 0, 0, 0x1000, 0, 65535, 0, 0x2000, 0, 0, 65535, 0x3000}, {}}}),
      {{0b00110100}}};
  // RGB planar: three strips of 3 x 2 planes.
  const Page planar{Tags(3, 2, {8, 8, 8}, 2, 2, {{284, 3, {2}, {}}}),
                    {{255, 0, 0, 255, 0, 128}, {0, 255, 0, 255, 0, 128}, {0, 0, 255, 255, 0, 128}}};
  // RGBA tiles of 16 x 16 over a 17 x 2 picture, planar: 2 tiles per plane.
  Page tiles{Tags(17, 2, {8, 8, 8, 8}, 2, 0,
                  {{284, 3, {2}, {}}, {322, 3, {16}, {}}, {323, 3, {16}, {}}, {338, 3, {2}, {}}}),
             {}};
  tiles.tiled = true;
  for (int plane = 0; plane < 4; ++plane) {
    for (int tile = 0; tile < 2; ++tile) {
      Bytes t(256, 0);
      // Pixel (16, 1) lives in tile 1 at (0, 1).
      for (int i = 0; i < 256; ++i) t[i] = static_cast<std::uint8_t>(tile * 100 + plane * 10 + 1);
      tiles.chunks.push_back(t);
    }
  }
  // Associated alpha as the fourth sample, contiguous.
  const Page assoc{Tags(1, 1, {8, 8, 8, 8}, 2, 1, {{338, 3, {1}, {}}}), {{10, 20, 30, 40}}};
  // CMYK 8-bit: 50 % cyan, 50 % black.
  const Page cmyk{Tags(1, 1, {8, 8, 8, 8}, 5, 1), {{128, 0, 0, 128}}};
  // 32-bit float grey.
  Page floatGrey{Tags(2, 1, {32}, 1, 1, {{339, 3, {3}, {}}}), {}};
  {
    Bytes d(8);
    const float v[2] = {0.25f, 1.0f};
    std::memcpy(d.data(), v, 8);
    floatGrey.chunks.push_back(d);
  }
  const std::vector<Case> cases = {
      {"rgb little-endian",
       false,
       {rgb()},
       0,
       3,
       2,
       {{0, 0, 65535, 0, 0, 65535},
        {2, 0, 0, 0, 65535, 65535},
        {2, 1, 128 * kE, 128 * kE, 128 * kE, 65535}}},
      {"rgb big-endian", true, {rgb()}, 0, 3, 2, {{1, 0, 0, 65535, 0, 65535}}},
      {"16-bit grey little-endian",
       false,
       {grey16(false)},
       0,
       2,
       2,
       {{0, 0, 0x1234, 0x1234, 0x1234, 65535}, {1, 1, 0x8000, 0x8000, 0x8000, 65535}}},
      {"16-bit grey big-endian",
       true,
       {grey16(true)},
       0,
       2,
       2,
       {{0, 0, 0x1234, 0x1234, 0x1234, 65535}, {1, 0, 65535, 65535, 65535, 65535}}},
      {"4-bit grey",
       false,
       {grey4},
       0,
       3,
       2,
       {{0, 0, 0, 0, 0, 65535},
        {1, 0, 65535, 65535, 65535, 65535},
        {2, 0, 5 * 4369, 5 * 4369, 5 * 4369, 65535},
        {0, 1, 8 * 4369, 8 * 4369, 8 * 4369, 65535},
        {2, 1, 7 * 4369, 7 * 4369, 7 * 4369, 65535}}},
      {"1-bit min-is-white",
       false,
       {white1},
       0,
       3,
       1,
       {{0, 0, 0, 0, 0, 65535}, {1, 0, 65535, 65535, 65535, 65535}, {2, 0, 0, 0, 0, 65535}}},
      // Indices 0, 3: entry 0 red, entry 3 (0x1000, 0x2000, 0x3000) at the map's 16 bits.
      {"2-bit palette",
       false,
       {palette},
       0,
       2,
       1,
       {{0, 0, 65535, 0, 0, 65535}, {1, 0, 0x1000, 0x2000, 0x3000, 65535}}},
      {"planar rgb",
       false,
       {planar},
       0,
       3,
       2,
       {{0, 0, 65535, 0, 0, 65535}, {2, 1, 128 * kE, 128 * kE, 128 * kE, 65535}}},
      {"planar tiles with alpha, edge tile clipped",
       true,
       {tiles},
       0,
       17,
       2,
       {{0, 0, 1 * kE, 11 * kE, 21 * kE, 31 * kE},
        {16, 1, 101 * kE, 111 * kE, 121 * kE, 131 * kE}}},
      {"associated alpha kept as stored",
       false,
       {assoc},
       0,
       1,
       1,
       {{0, 0, 10 * kE, 20 * kE, 30 * kE, 40 * kE}}},
      // (255 - 128) * (255 - 128) / 255 = 63.25 -> 63; (255 - 0) * 127 / 255 = 127.
      {"cmyk converted", false, {cmyk}, 0, 1, 1, {{0, 0, 63 * kE, 127 * kE, 127 * kE, 65535}}},
      {"float grey",
       false,
       {floatGrey},
       0,
       2,
       1,
       {{0, 0, 16384, 16384, 16384, 65535}, {1, 0, 65535, 65535, 65535, 65535}}},
      // Orientations: 2 mirrors the lines, 3 turns by 180, 4 flips; 6 (right-top) rotates a
      // 3 x 2 picture to 2 x 3 with the first file line as the right column; 8 the other way.
      {"orientation 2", false, {rgb({{274, 3, {2}, {}}})}, 0, 3, 2, {{0, 0, 0, 0, 65535, 65535}}},
      {"orientation 3",
       false,
       {rgb({{274, 3, {3}, {}}})},
       0,
       3,
       2,
       {{0, 0, 128 * kE, 128 * kE, 128 * kE, 65535}, {2, 1, 65535, 0, 0, 65535}}},
      {"orientation 4",
       false,
       {rgb({{274, 3, {4}, {}}})},
       0,
       3,
       2,
       {{0, 0, 65535, 65535, 65535, 65535}}},
      {"orientation 6",
       false,
       {rgb({{274, 3, {6}, {}}})},
       0,
       2,
       3,
       {{1, 0, 65535, 0, 0, 65535},
        {1, 2, 0, 0, 65535, 65535},
        {0, 0, 65535, 65535, 65535, 65535}}},
      {"orientation 8",
       false,
       {rgb({{274, 3, {8}, {}}})},
       0,
       2,
       3,
       {{0, 2, 65535, 0, 0, 65535},
        {0, 0, 0, 0, 65535, 65535},
        {1, 2, 65535, 65535, 65535, 65535}}},
      {"second page of three",
       false,
       {rgb(), grey16(false), cmyk},
       1,
       2,
       2,
       {{0, 0, 0x1234, 0x1234, 0x1234, 65535}}},
      {"third page of three",
       true,
       {rgb(), grey16(true), cmyk},
       2,
       1,
       1,
       {{0, 0, 63 * kE, 127 * kE, 127 * kE, 65535}}},
  };
  vxtest::TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto file = dir / "case.tif";
    vxtest::WriteFile(file, Builder(c.big).Build(c.pages));
    const Picture pic = Read(file, c.frame);
    ASSERT_EQ(pic.status, S_OK);
    EXPECT_EQ(pic.frames, static_cast<int>(c.pages.size()));
    ASSERT_EQ(pic.width, c.width);
    ASSERT_EQ(pic.height, c.height);
    for (const auto& e : c.expect)
      for (int ch = 0; ch < 4; ++ch)
        EXPECT_EQ(pic.At(e[0], e[1], ch), e[2 + ch]) << e[0] << "," << e[1] << " channel " << ch;
  }
}

TEST(TiffRead, BrokenFilesFailWithoutTouchingTheImage) {
  if (!VX_TEST_LIBTIFF) GTEST_SKIP() << "built without libtiff";
  vxtest::TempDir dir;
  Page whole{Tags(3, 2, {8, 8, 8}, 2, 2), {kRgb}};
  const Bytes good = Builder(false).Build({whole});
  struct Case {
    const char* name;
    Bytes bytes;
  };
  // PackBits: one literal run of 18 bytes announced, 9 there.
  Page shortStrip{Tags(3, 2, {8, 8, 8}, 2, 2, {{259, 3, {32773}, {}}}),
                  {{17, 1, 2, 3, 4, 5, 6, 7, 8, 9}}};
  Bytes pastEnd = good;
  pastEnd.resize(good.size() - 4);  // the directory's tail cut
  const Case cases[] = {
      {"empty", {}},
      {"header only", Bytes(good.begin(), good.begin() + 8)},
      {"short strip", Builder(false).Build({shortStrip})},
      {"cut directory", pastEnd},
      {"strip beyond the file", Bytes(good.begin(), good.begin() + 16)},
      {"not a tiff", Bytes(64, 'x')},
      {"huge size, few bytes",
       Builder(false).Build(
           {Page{Tags(60000, 60000, {8, 8, 8}, 2, 60000, {{259, 3, {8}, {}}}), {Bytes(16, 1)}}})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto file = dir / "bad.tif";
    vxtest::WriteFile(file, c.bytes);
    Parser parser;
    const HRESULT open = parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_NO_PATTERN);
    if (FAILED(open)) continue;
    vx::ComPtr<IVxImage> image;
    ASSERT_EQ(VxCreateImage(3, 2, VX_PF_RGBA16, image.put()), S_OK);
    std::memset(image->GetBuffer(), 0x5A, static_cast<std::size_t>(image->GetRowStride()) * 2);
    IVxImage* raw = image.get();
    EXPECT_EQ(parser->ReadImage(&raw, 0), E_FAIL);
    EXPECT_EQ(image->GetBuffer()[0], 0x5A);
  }
}

TEST(TiffWrite, WrittenFilesReadBackWithTheirRecord) {
  if (!VX_TEST_LIBTIFF) GTEST_SKIP() << "built without libtiff";
  vxtest::TempDir dir;
  // A 5 x 3 RGBA16 ramp with a real alpha.
  vx::ComPtr<IVxImage> src;
  ASSERT_EQ(VxCreateImage(5, 3, VX_PF_RGBA16, src.put()), S_OK);
  for (int y = 0; y < 3; ++y) {
    auto* row = reinterpret_cast<std::uint16_t*>(src->GetBuffer() + y * src->GetRowStride());
    for (int x = 0; x < 5; ++x) {
      const std::uint16_t v[4] = {
          static_cast<std::uint16_t>(x * 13107), static_cast<std::uint16_t>(y * 30000),
          static_cast<std::uint16_t>(0x1234 + x), static_cast<std::uint16_t>(65535 - x * 1000)};
      std::memcpy(row + 4 * x, v, 8);
    }
  }
  struct Case {
    const char* options[2];
    std::uint16_t tolerance;  // 8-bit files round to 257 steps
  } cases[] = {{{"compression=none", "depth=16"}, 0},
               {{"compression=lzw", "depth=16"}, 0},
               {{"compression=deflate", "depth=32f"}, 1},
               {{"compression=packbits", "depth=8"}, 128},
               {{"compression=lzw", "depth=8"}, 128}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.options[0]) + " " + c.options[1]);
    const auto file = dir / "out.tif";
    {
      Parser parser;
      ASSERT_EQ(parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN), S_OK);
      for (const char* o : c.options)
        ASSERT_EQ(parser->SetOption(const_cast<VxChar*>(vx::FromUtf8(o).c_str()), VX_OPTION_TEXT),
                  S_OK);
      vx::ComPtr<IVxMetadata> md;
      ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
      VxMetadataRecord r = vx::md::EmptyRecord();
      r.present |= VX_MD_ASPECT;
      r.pixelAspect = 2.0;
      md->SetRecord(&r);
      vx::md::SetText(md.get(), vx::md::kDescription, "a ramp");
      vx::md::SetText(md.get(), vx::md::kOriginator, "someone");
      vx::md::SetText(md.get(), vx::md::kCopyright, "(c) nobody");
      vx::md::SetText(md.get(), vx::md::kDate, "2024-02-29T13:14:15");
      ASSERT_EQ(parser->SetOption(md.get(), VX_OPTION_METADATA), S_OK);
      ASSERT_EQ(parser->WriteImage(src.get(), 0), S_OK);
    }
    const Picture pic = Read(file);
    ASSERT_EQ(pic.status, S_OK);
    ASSERT_EQ(pic.width, 5);
    ASSERT_EQ(pic.height, 3);
    for (int y = 0; y < 3; ++y) {
      const auto* row =
          reinterpret_cast<const std::uint16_t*>(src->GetBuffer() + y * src->GetRowStride());
      for (int i = 0; i < 20; ++i)
        EXPECT_NEAR(pic.px[static_cast<std::size_t>(y * 20 + i)], row[i], c.tolerance)
            << y << " " << i;
    }
    Parser parser;
    ASSERT_EQ(parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_NO_PATTERN), S_OK);
    vx::ComPtr<IVxMetadata> md;
    ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
    ASSERT_EQ(parser->GetMetadata(0, md.get()), S_OK);
    const VxMetadataRecord r = vx::md::GetRecord(md.get());
    EXPECT_TRUE(r.present & VX_MD_ASPECT);
    EXPECT_DOUBLE_EQ(r.pixelAspect, 2.0);
    EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kDescription), "a ramp");
    EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kOriginator), "someone");
    EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kCopyright), "(c) nobody");
    EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kDate), "2024-02-29T13:14:15");
    EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kCreator), "vxprsr");
    EXPECT_EQ(vx::md::GetText(md.get(), "tiff:alpha"), "unassociated");
    const std::string opt = c.options[0];
    EXPECT_EQ(vx::md::GetText(md.get(), "tiff:compression"), opt.substr(opt.find('=') + 1));
    EXPECT_EQ(vx::md::GetText(md.get(), "tiff:predictor"), opt == "compression=deflate"
                                                               ? "floating-point"
                                                           : opt == "compression=lzw" ? "horizontal"
                                                                                      : "none");
  }
}

}  // namespace
