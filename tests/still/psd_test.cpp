// Hand-laid Photoshop documents for what the peers' files do not show: PSB counts, bitmap and
// indexed documents, CMYK, 16/32-bit samples, layer records and their names, and damaged files.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "psd_test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void Be(Bytes* b, std::uint64_t v, int n) {
  for (int i = n - 1; i >= 0; --i) b->push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void Add(Bytes* b, const Bytes& more) {
  b->insert(b->end(), more.begin(), more.end());
}
void Text(Bytes* b, const std::string& s) {
  b->insert(b->end(), s.begin(), s.end());
}

struct Doc {
  int version = 1;
  unsigned channels = 3, height = 1, width = 1, depth = 8, mode = 3;
  Bytes colourData, resources, layers, data;  // data: from the compression field on
};

Bytes Build(const Doc& d) {
  Bytes b;
  Text(&b, "8BPS");
  Be(&b, d.version, 2);
  Be(&b, 0, 6);
  Be(&b, d.channels, 2);
  Be(&b, d.height, 4);
  Be(&b, d.width, 4);
  Be(&b, d.depth, 2);
  Be(&b, d.mode, 2);
  Be(&b, d.colourData.size(), 4);
  Add(&b, d.colourData);
  Be(&b, d.resources.size(), 4);
  Add(&b, d.resources);
  Be(&b, d.layers.size(), d.version == 2 ? 8 : 4);
  Add(&b, d.layers);
  Add(&b, d.data);
  return b;
}

Bytes Resource(unsigned id, const Bytes& data) {
  Bytes b;
  Text(&b, "8BIM");
  Be(&b, id, 2);
  Be(&b, 0, 2);
  Be(&b, data.size(), 4);
  Add(&b, data);
  if (data.size() & 1) b.push_back(0);
  return b;
}

// A layer record of no channels named `name`, with a Unicode name when `unicode` is given.
Bytes Layer(const std::string& name, const std::u16string& unicode = {}) {
  Bytes extra;
  Be(&extra, 0, 4);
  Be(&extra, 0, 4);
  extra.push_back(static_cast<std::uint8_t>(name.size()));
  Text(&extra, name);
  while (extra.size() % 4) extra.push_back(0);
  if (!unicode.empty()) {
    Text(&extra, "8BIMluni");
    Be(&extra, 4 + 2 * unicode.size(), 4);
    Be(&extra, unicode.size(), 4);
    for (char16_t c : unicode) Be(&extra, c, 2);
  }
  Bytes b;
  b.insert(b.end(), 16, 0);  // rectangle
  Be(&b, 0, 2);              // channels
  Text(&b, "8BIMnorm");
  Be(&b, 0xFF000800, 4);
  Be(&b, extra.size(), 4);
  Add(&b, extra);
  return b;
}

Bytes LayerSection(int count, const std::vector<Bytes>& records) {
  Bytes info;
  Be(&info, static_cast<std::uint16_t>(count), 2);
  for (const Bytes& r : records) Add(&info, r);
  Bytes b;
  Be(&b, info.size(), 4);
  Add(&b, info);
  Be(&b, 0, 4);  // global mask
  return b;
}

struct Case {
  const char* name;
  Doc doc;
  HRESULT status;
  VxPixelFormat format = VX_PF_UNKNOWN;  // of the picture read
  std::vector<float> first = {};         // R, G, B, A of the leading pixels
  std::vector<std::pair<std::string, std::string>> texts = {};
  double aspect = 0.0;
};

std::vector<Case> Cases() {
  std::vector<Case> cases;
  {
    // PSB: 4-byte row counts; a run of 3 then a literal 2 in red, literals in green and blue.
    Doc d;
    d.version = 2;
    d.width = 5;
    Be(&d.data, 1, 2);
    for (unsigned n : {5u, 6u, 6u}) Be(&d.data, n, 4);
    Add(&d.data, {0xFE, 0x11, 0x01, 0x22, 0x33});
    Add(&d.data, {0x04, 1, 2, 3, 4, 5});
    Add(&d.data, {0x04, 9, 8, 7, 6, 5});
    cases.push_back({"psb-rle",
                     d,
                     S_OK,
                     VX_PF_RGBA8,
                     {0x11, 1, 9, 255, 0x11, 2, 8, 255, 0x11, 3, 7, 255, 0x22, 4, 6, 255},
                     {{"psd:format", "PSB"}, {"psd:compression", "RLE"}}});
  }
  {
    // Bitmap, raw: 1 is black; ten pixels take two bytes a row.
    Doc d;
    d.mode = 0;
    d.depth = 1;
    d.channels = 1;
    d.width = 10;
    Be(&d.data, 0, 2);
    Add(&d.data, {0xA0, 0xC0});
    cases.push_back({"bitmap",
                     d,
                     S_OK,
                     VX_PF_RGBA8,
                     {0, 0, 0, 255, 255, 255, 255, 255, 0, 0, 0, 255, 255, 255, 255, 255},
                     {{"psd:mode", "bitmap"}, {"psd:depth", "1"}}});
  }
  {
    // Indexed: the table is all reds, then all greens, then all blues; index 2 transparent.
    Doc d;
    d.mode = 2;
    d.channels = 1;
    d.width = 3;
    d.colourData.resize(768);
    for (int i = 0; i < 256; ++i) {
      d.colourData[i] = static_cast<std::uint8_t>(i);
      d.colourData[256 + i] = static_cast<std::uint8_t>(255 - i);
      d.colourData[512 + i] = static_cast<std::uint8_t>(i / 2);
    }
    d.resources = Resource(0x0417, {0, 2});
    Be(&d.data, 0, 2);
    Add(&d.data, {7, 200, 2});
    cases.push_back({"indexed",
                     d,
                     S_OK,
                     VX_PF_RGBA8,
                     {7, 248, 3, 255, 200, 55, 100, 255, 2, 253, 1, 0},
                     {{"psd:mode", "indexed"}}});
  }
  {
    // CMYK as stored (255 is no ink): colour = stored C x stored K / 255.
    Doc d;
    d.mode = 4;
    d.channels = 4;
    d.width = 2;
    Be(&d.data, 0, 2);
    Add(&d.data, {255, 128, 0, 255, 255, 255, 255, 128});
    cases.push_back({"cmyk", d, S_OK, VX_PF_RGBA8, {255, 0, 255, 255, 64, 128, 128, 255}});
  }
  {
    // 16-bit grey with the transparency named in the alpha names; big-endian samples.
    Doc d;
    d.mode = 1;
    d.channels = 2;
    d.depth = 16;
    d.width = 2;
    Bytes names = {12};
    Text(&names, "Transparency");
    d.resources = Resource(0x03EE, names);
    Add(&d.resources, Resource(0x03ED, {0, 0x48, 0, 0, 0, 1, 0, 1, 0, 0x90, 0, 0, 0, 1, 0, 1}));
    Be(&d.data, 0, 2);
    Add(&d.data, {0xC0, 0x00, 0xFF, 0xFE, 0x80, 0x00, 0xFF, 0xFF});
    // Stored over white: (0xC000 - (65535 - 0x8000)) x 65535 / 0x8000 = 32769.49.
    cases.push_back({"grey16",
                     d,
                     S_OK,
                     VX_PF_RGBA16,
                     {32769, 32769, 32769, 0x8000, 0xFFFE, 0xFFFE, 0xFFFE, 0xFFFF},
                     {{"psd:resolution", "72"}},
                     2.0});
  }
  {
    // 32-bit RGB: big-endian floats, unclamped.
    Doc d;
    d.depth = 32;
    Be(&d.data, 0, 2);
    Add(&d.data, {0x3F, 0x80, 0, 0, 0x40, 0, 0, 0, 0xBF, 0, 0, 0});  // 1, 2, -0.5
    cases.push_back({"float", d, S_OK, VX_PF_RGBAF32, {1.0f, 2.0f, -0.5f, 1.0f}});
  }
  {
    // Layers: the count negative (the merged picture's fourth channel is its alpha), Pascal
    // names, one replaced by its Unicode name.
    Doc d;
    d.channels = 4;
    d.layers = LayerSection(-2, {Layer("Back"), Layer("x", u"\u00DCber \u263A")});
    Be(&d.data, 0, 2);
    Add(&d.data, {200, 150, 255, 128});
    // Stored over white: (200 - 127) x 255 / 128 = 145.4, (150 - 127) x 255 / 128 = 45.8.
    cases.push_back({"layers",
                     d,
                     S_OK,
                     VX_PF_RGBA8,
                     {145, 46, 255, 128},
                     {{"psd:layers", "2"},
                      {"psd:layer-names",
                       "Back; \xC3\x9C"
                       "ber \xE2\x98\xBA"}}});
  }
  {
    Doc d;  // a run of 4 into a row of 1 byte
    Be(&d.data, 1, 2);
    for (int i = 0; i < 3; ++i) Be(&d.data, 2, 2);
    Add(&d.data, {0xFD, 1, 0xFD, 1, 0xFD, 1});
    cases.push_back({"run past the line", d, E_FAIL});
    d.width = 4;
    d.data.back() = 0;
    d.data.resize(d.data.size() - 2);
    Add(&d.data, {0x03, 1});  // a literal of 4 whose bytes end with the row's count
    cases.push_back({"literal past its count", d, E_FAIL});
  }
  {
    Doc d;  // counts that claim more than the file holds
    d.height = 2;
    Be(&d.data, 1, 2);
    for (int i = 0; i < 6; ++i) Be(&d.data, 200, 2);
    Add(&d.data, Bytes(20, 0));
    cases.push_back({"rows past the file", d, E_FAIL});
    d.data.resize(2 + 4);
    cases.push_back({"count table past the file", d, E_FAIL});
  }
  {
    Doc d;  // 30000 x 30000 RGB in a few bytes
    d.width = d.height = 30000;
    Be(&d.data, 1, 2);
    Add(&d.data, Bytes(64, 0));
    cases.push_back({"huge header, tiny file", d, E_FAIL});
  }
  {
    Doc d;  // a layer section whose record runs past it
    Bytes record = Layer("Back");
    d.layers = LayerSection(1, {record});
    d.layers[4 + 2 + 16 + 2 + 8 + 4 + 3] = 0x7F;
    Be(&d.data, 0, 2);
    Add(&d.data, {1, 2, 3});
    cases.push_back({"layer record past its section", d, E_FAIL});
  }
  {
    Doc d;  // a resource longer than its section
    d.resources = Resource(0x03ED, Bytes(16, 0));
    d.resources[11] = 40;
    Be(&d.data, 0, 2);
    Add(&d.data, {1, 2, 3});
    cases.push_back({"resource past its section", d, E_FAIL});
  }
  {
    Doc d;  // Lab has no RGB meaning here; ZIP pictures are not read
    d.mode = 9;
    Be(&d.data, 0, 2);
    Add(&d.data, {1, 2, 3});
    cases.push_back({"Lab", d, E_FAIL});
    d.mode = 3;
    d.data[1] = 2;
    cases.push_back({"zip", d, E_FAIL});
  }
  return cases;
}

TEST(PsdRead, HandLaidDocuments) {
  vxtest::TempDir dir;
  for (const Case& c : Cases()) {
    SCOPED_TRACE(c.name);
    const auto file = dir / "d.psd";
    vxtest::WriteFile(file, Build(c.doc));
    psdtest::Pic pic;
    vx::ComPtr<IVxMetadata> md;
    ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
    ASSERT_EQ(psdtest::Read(file, &pic, VX_PF_UNKNOWN, md.get()), c.status);
    if (c.status != S_OK) continue;
    EXPECT_EQ(pic.format, c.format);
    ASSERT_GE(pic.px.size(), c.first.size());
    for (std::size_t i = 0; i < c.first.size(); ++i) EXPECT_EQ(pic.px[i], c.first[i]) << i;
    for (const auto& [key, value] : c.texts) EXPECT_EQ(vx::md::GetText(md.get(), key), value);
    if (c.aspect > 0) {
      EXPECT_DOUBLE_EQ(vx::md::GetRecord(md.get()).pixelAspect, c.aspect);
    }
  }
}

TEST(PsdWrite, RoundTripsAndDropsAnOpaqueAlpha) {
  vxtest::TempDir dir;
  const int w = 300, h = 3;  // rows longer than one packet
  for (const bool deep : {false, true}) {
    for (const bool alpha : {false, true}) {
      SCOPED_TRACE(std::to_string(deep) + std::to_string(alpha));
      std::vector<std::uint16_t> px;
      const int top = deep ? 65535 : 255;
      for (int i = 0; i < w * h; ++i) {
        px.push_back(static_cast<std::uint16_t>(i < 200 ? 17 : i * 7 % top));
        px.push_back(static_cast<std::uint16_t>(i % 3 ? 0x1234 % top : top));
        px.push_back(static_cast<std::uint16_t>(i * 13 % top));
        // Colour under a partial alpha is stored over white: alphas of at least half keep it
        // within one step.
        px.push_back(static_cast<std::uint16_t>(alpha ? top - i % (top / 2) : top));
      }
      const auto file = dir / "w.psd";
      ASSERT_EQ(psdtest::Write(file, w, h, px, deep, {"compression=rle"}), S_OK);
      psdtest::Pic pic;
      vx::ComPtr<IVxMetadata> md;
      ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
      ASSERT_EQ(psdtest::Read(file, &pic, VX_PF_UNKNOWN, md.get()), S_OK);
      EXPECT_EQ(pic.format, deep ? VX_PF_RGBA16 : VX_PF_RGBA8);
      ASSERT_EQ(pic.px.size(), px.size());
      for (std::size_t i = 0; i < px.size(); ++i)
        ASSERT_NEAR(pic.px[i], px[i], alpha && i % 4 < 3 ? 1 : 0) << i;
      EXPECT_EQ(vx::md::GetText(md.get(), "psd:channels"), alpha ? "4" : "3");
      EXPECT_EQ(vx::md::GetText(md.get(), "psd:compression"), "RLE");
    }
  }
  EXPECT_EQ(psdtest::Write(dir / "x.psd", 1, 1, {1, 2, 3, 4}, false, {"compression=zip"}),
            E_INVALIDARG);
}

}  // namespace
