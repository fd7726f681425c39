// QuillPic files laid out byte by byte from the format's tables (no other program here reads or
// writes them), read through the parser; our writer's bytes checked by hand and read back; and a
// DPX -> PIC -> DPX conversion through vxhost.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "still/quillpic/quillpic_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using ParserPtr = vx::ComPtr<CVxQuillPicFileParser>;

ParserPtr NewParser() {
  auto p = ParserPtr::Adopt(new CVxQuillPicFileParser());
  p->AddRef();  // objects start at zero references
  return p;
}

// Header with offsets written out: magic, version 3.71, comment, "PICT", size, ratio, fields.
Bytes Header(std::uint16_t w, std::uint16_t h, std::uint32_t ratioBits = 0x3F800000,
             std::uint16_t fields = 0, const char* comment = "hand laid") {
  Bytes b(104, 0);
  const std::uint8_t head[] = {0x53, 0x80, 0xF6, 0x34, 0x40, 0x6D, 0x70, 0xA4};
  std::memcpy(b.data(), head, sizeof head);
  std::memcpy(b.data() + 8, comment, std::strlen(comment));
  std::memcpy(b.data() + 88, "PICT", 4);
  b[92] = static_cast<std::uint8_t>(w >> 8), b[93] = static_cast<std::uint8_t>(w);
  b[94] = static_cast<std::uint8_t>(h >> 8), b[95] = static_cast<std::uint8_t>(h);
  for (int i = 0; i < 4; ++i) b[96 + i] = static_cast<std::uint8_t>(ratioBits >> (24 - 8 * i));
  b[100] = static_cast<std::uint8_t>(fields >> 8), b[101] = static_cast<std::uint8_t>(fields);
  return b;
}

Bytes Cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes Repeat(std::size_t n, const Bytes& pixel) {
  Bytes out;
  for (std::size_t i = 0; i < n; ++i) out.insert(out.end(), pixel.begin(), pixel.end());
  return out;
}

struct Read {
  HRESULT hr = E_FAIL;
  Bytes rgba;  // RGBA8 pixels, top line first
  int width = 0, height = 0;
};

Read ReadFile(const std::filesystem::path& path, VxPixelFormat format = VX_PF_RGBA8) {
  Read r;
  ParserPtr parser = NewParser();
  r.hr = parser->Open(vxtest::Wide(path).c_str(), VX_OPEN_NO_PATTERN);
  if (FAILED(r.hr)) return r;
  vx::ComPtr<IVxImage> image;
  if (format != VX_PF_UNKNOWN) VxCreateImage(0, 0, format, image.put());
  IVxImage* p = image.detach();
  r.hr = parser->ReadImage(&p, 0);
  image = vx::ComPtr<IVxImage>::Adopt(p);
  if (FAILED(r.hr) || !image) return r;
  r.width = image->GetWidth();
  r.height = image->GetHeight();
  const int bpp = VxPixelFormatBytesPerPixel(image->GetPixelFormat());
  for (int y = 0; y < r.height; ++y) {
    const std::uint8_t* row = image->GetBuffer() + std::ptrdiff_t{y} * image->GetRowStride();
    for (int x = 0; x < r.width; ++x) {
      for (int c = 0; c < 4; ++c) r.rgba.push_back(c < bpp ? row[x * bpp + c] : 255);
    }
  }
  return r;
}

TEST(QuillPicRead, HandLaidFiles) {
  const Bytes rgb2{0x00, 0x08, 0x02, 0xE0}, rgb2chained{0x01, 0x08, 0x02, 0xE0};
  const Bytes alpha2{0x00, 0x08, 0x02, 0x10}, alpha1{0x00, 0x08, 0x01, 0x10};
  const Bytes rgb1{0x00, 0x08, 0x01, 0xE0}, rgb0chained{0x01, 0x08, 0x00, 0xE0};
  struct Case {
    const char* what;
    std::uint16_t w, h;
    Bytes packets, data;
    HRESULT hr;
    Bytes rgba;  // expected when hr is S_OK
  } cases[] = {
      {"rgb literals",
       3,
       1,
       rgb2,
       {0x02, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80, 0x90},
       S_OK,
       {0x10, 0x20, 0x30, 255, 0x40, 0x50, 0x60, 255, 0x70, 0x80, 0x90, 255}},
      {"rgb chained to alpha, short runs",
       4,
       2,
       Cat(rgb2chained, alpha2),
       {0x83, 1,    2,    3,    0x00, 0xAA, 0x82, 0xBB,  // line 0: rgb, then alpha
        0x01, 0x11, 0x12, 0x13, 0x21, 0x22, 0x23, 0x81, 0x31, 0x32, 0x33, 0x83, 0xFF},
       S_OK,
       {1,    2,    3,    0xAA, 1,    2,    3,    0xBB, 1,    2,    3,
        0xBB, 1,    2,    3,    0xBB, 0x11, 0x12, 0x13, 0xFF, 0x21, 0x22,
        0x23, 0xFF, 0x31, 0x32, 0x33, 0xFF, 0x31, 0x32, 0x33, 0xFF}},
      {"alpha alone", 2, 1, alpha2, {0x81, 0x7F}, S_OK, {0, 0, 0, 0x7F, 0, 0, 0, 0x7F}},
      {"uncompressed rgb, run-length alpha",
       2,
       1,
       Cat(rgb0chained, alpha1),
       {1, 2, 3, 4, 5, 6, 0x02, 0xCC},
       S_OK,
       {1, 2, 3, 0xCC, 4, 5, 6, 0xCC}},
      {"run-length rgb",
       3,
       1,
       rgb1,
       {0x01, 0xA, 0xB, 0xC, 0x02, 0xD, 0xE, 0xF},
       S_OK,
       {0xA, 0xB, 0xC, 255, 0xD, 0xE, 0xF, 255, 0xD, 0xE, 0xF, 255}},
      {"run-length count 0", 1, 1, rgb1, {0x00, 1, 2, 3}, E_FAIL, {}},
      {"run-length past the line", 2, 1, rgb1, {0x03, 1, 2, 3}, E_FAIL, {}},
      {"count 0 is one literal", 1, 1, rgb2, {0x00, 7, 8, 9}, S_OK, {7, 8, 9, 255}},
      {"128 + 01 00 repeats 256",
       256,
       1,
       rgb2,
       {0x80, 0x01, 0x00, 5, 6, 7},
       S_OK,
       Repeat(256, {5, 6, 7, 255})},
      {"128 + 01 00 on a narrower line", 255, 1, rgb2, {0x80, 0x01, 0x00, 5, 6, 7}, E_FAIL, {}},
      {"128 + 00 00 repeats nothing", 1, 1, rgb2, {0x80, 0x00, 0x00, 5, 6, 7}, E_FAIL, {}},
      {"128 with its count cut off", 4, 1, rgb2, {0x80, 0x00}, E_FAIL, {}},
      {"255 repeats 128", 128, 1, rgb2, {0xFF, 1, 2, 3}, S_OK, Repeat(128, {1, 2, 3, 255})},
      {"255 on 127 pixels", 127, 1, rgb2, {0xFF, 1, 2, 3}, E_FAIL, {}},
      {"literal past the line", 2, 1, rgb2, {0x02, 1, 2, 3, 4, 5, 6, 7, 8, 9}, E_FAIL, {}},
      {"literal past the data", 3, 1, rgb2, {0x02, 1, 2, 3, 4, 5}, E_FAIL, {}},
      {"run pixel past the data", 3, 1, rgb2, {0x82, 1, 2}, E_FAIL, {}},
      {"second line missing", 1, 2, rgb2, {0x00, 1, 2, 3}, E_FAIL, {}},
      {"uncompressed line cut short", 2, 1, Cat(rgb0chained, alpha1), {1, 2, 3, 4, 5}, E_FAIL, {}},
      {"unknown type 3", 1, 1, {0x00, 0x08, 0x03, 0xE0}, {0x00, 1, 2, 3}, E_FAIL, {}},
      {"16-bit channels", 1, 1, {0x00, 0x10, 0x02, 0xE0}, {0x00, 1, 0, 2, 0, 3, 0}, E_NOTIMPL, {}},
      {"packet naming no channel", 1, 1, {0x00, 0x08, 0x02, 0x00}, {0x00}, E_FAIL, {}},
      {"chain without an end", 1, 1, rgb2chained, {}, E_FAIL, {}},
      {"65535 x 65535 in a few bytes", 65535, 65535, rgb2, {0x80, 0xFF, 0xFF, 1, 2, 3}, E_FAIL, {}},
  };
  vxtest::TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto path = dir / "case.pic";
    vxtest::WriteFile(path, Cat(Cat(Header(c.w, c.h), c.packets), c.data));
    const Read r = ReadFile(path);
    EXPECT_EQ(r.hr, c.hr);
    if (c.hr == S_OK) {
      EXPECT_EQ(r.width, c.w);
      EXPECT_EQ(r.height, c.h);
      EXPECT_EQ(r.rgba, c.rgba);
    }
  }
  // The header itself: a short file fails, another magic is refused as an argument.
  Bytes file = Cat(Cat(Header(1, 1), rgb2), {0x00, 7, 8, 9});
  vxtest::WriteFile(dir / "short.pic", Bytes(file.begin(), file.begin() + 103));
  EXPECT_EQ(ReadFile(dir / "short.pic").hr, E_FAIL);
  file[3] = 0x35;
  vxtest::WriteFile(dir / "magic.pic", file);
  EXPECT_EQ(ReadFile(dir / "magic.pic").hr, E_INVALIDARG);
}

TEST(QuillPicRead, HeaderFieldsReachTheImageAndTheRecord) {
  vxtest::TempDir dir;
  // Ratio 0.9 (0x3F666666), fields 2 (the even field).
  const Bytes file = Cat(Header(1, 1, 0x3F666666, 2, "shot 12\nlit by hand"),
                         {0x00, 0x08, 0x02, 0xE0, 0x00, 7, 8, 9});
  vxtest::WriteFile(dir / "h.pic", file);
  ParserPtr parser = NewParser();
  ASSERT_EQ(parser->Open(vxtest::Wide(dir / "h.pic").c_str(), VX_OPEN_NO_PATTERN), S_OK);
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  ASSERT_EQ(parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
  EXPECT_EQ(f.pixelFormat, static_cast<DWORD>(VX_PF_RGB8));
  EXPECT_EQ(f.hasAlpha, 0u);
  EXPECT_NEAR(f.pixelAspect, 0.9, 1e-6);
  EXPECT_EQ(f.fieldMode, VX_FIELD_LOWER_FIRST);
  IVxImage* image = nullptr;
  ASSERT_EQ(parser->ReadImage(&image, 0), S_OK);
  auto owned = vx::ComPtr<IVxImage>::Adopt(image);
  EXPECT_EQ(image->GetPixelFormat(), VX_PF_RGB8);
  EXPECT_NEAR(image->GetPixelAspect(), 0.9, 1e-6);
  EXPECT_EQ(image->GetFieldMode(), VX_FIELD_LOWER_FIRST);
  vx::ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  ASSERT_EQ(parser->GetMetadata(-1, md.get()), S_OK);
  EXPECT_EQ(vx::md::GetText(md.get(), "comment"), "shot 12\nlit by hand");
  EXPECT_EQ(vx::md::GetText(md.get(), "quillpic:fields"), "2 (even field)");
  EXPECT_EQ(vx::md::GetText(md.get(), "quillpic:identifier"), "PICT");
  EXPECT_EQ(vx::md::GetText(md.get(), "quillpic:version"), "3.71");
  const VxMetadataRecord r = vx::md::GetRecord(md.get());
  EXPECT_TRUE(r.present & VX_MD_ASPECT);
  EXPECT_EQ(r.fieldMode, VX_FIELD_LOWER_FIRST);
}

// An image whose lines hold every coding the writer chooses from: a long run, short runs,
// literal stretches longer than 128, and alpha of its own.
vx::ComPtr<IVxImage> TestImage(int w, int h, VxPixelFormat format) {
  vx::ComPtr<IVxImage> image;
  EXPECT_EQ(VxCreateImage(w, h, format, image.put()), S_OK);
  const int bpp = VxPixelFormatBytesPerPixel(format);
  for (int y = 0; y < h; ++y) {
    std::uint8_t* row = image->GetBuffer() + std::ptrdiff_t{y} * image->GetRowStride();
    for (int x = 0; x < w; ++x) {
      std::uint8_t* p = row + x * bpp;
      const bool flat = x < 200;
      p[0] = flat ? 40 : static_cast<std::uint8_t>(x * 7 + y);
      p[1] = flat ? 50 : static_cast<std::uint8_t>(x / 3);
      p[2] = flat ? 60 : static_cast<std::uint8_t>(y);
      if (bpp == 4) p[3] = static_cast<std::uint8_t>(x < 150 ? 255 : x);
    }
  }
  return image;
}

HRESULT Write(const std::filesystem::path& path, IVxImage* image, IVxMetadata* md) {
  ParserPtr parser = NewParser();
  HRESULT hr = parser->Open(vxtest::Wide(path).c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN);
  if (FAILED(hr)) return hr;
  if (md && FAILED(hr = parser->SetOption(md, VX_OPTION_METADATA))) return hr;
  hr = parser->WriteImage(image, 0);
  parser->Close();
  return hr;
}

TEST(QuillPicWrite, OurFilesReadBackWithTheirHeader) {
  vxtest::TempDir dir;
  for (VxPixelFormat format : {VX_PF_RGBA8, VX_PF_RGB8}) {
    SCOPED_TRACE(format);
    auto image = TestImage(420, 9, format);
    vx::ComPtr<IVxMetadata> md;
    ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
    VxMetadataRecord r = vx::md::EmptyRecord();
    r.present = VX_MD_ASPECT | VX_MD_FIELDMODE;
    r.pixelAspect = 1.5;
    r.fieldMode = VX_FIELD_UPPER_FIRST;
    md->SetRecord(&r);
    ASSERT_EQ(Write(dir / "rt.pic", image.get(), md.get()), S_OK);
    const Bytes file = vxtest::ReadFile(dir / "rt.pic");
    ASSERT_GT(file.size(), 112u);
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 8),
              (Bytes{0x53, 0x80, 0xF6, 0x34, 0x40, 0x6D, 0x70, 0xA4}));
    const std::string comment(reinterpret_cast<const char*>(&file[8]));
    EXPECT_EQ(comment.rfind("Written by Halden Vx\n", 0), 0u) << comment;
    EXPECT_NE(comment.find(" UTC\nrt.pic"), std::string::npos) << comment;
    // "PICT", 420 x 9, ratio 1.5, fields 3 (both, odd first), then the packets.
    const bool alpha = format == VX_PF_RGBA8;
    Bytes expect{'P', 'I', 'C', 'T', 0x01, 0xA4, 0x00, 0x09, 0x3F, 0xC0, 0, 0, 0, 3, 0, 0};
    expect.insert(expect.end(), {static_cast<std::uint8_t>(alpha ? 1 : 0), 8, 2, 0xE0});
    if (alpha) expect.insert(expect.end(), {0, 8, 2, 0x10});
    EXPECT_EQ(Bytes(file.begin() + 88, file.begin() + 104 + (alpha ? 8 : 4)), expect);
    // Line 0 opens with its 200 flat pixels as one long run.
    const std::size_t data = 104 + (alpha ? 8 : 4);
    EXPECT_EQ(Bytes(file.begin() + data, file.begin() + data + 6),
              (Bytes{0x80, 0x00, 0xC8, 40, 50, 60}));
    const Read back = ReadFile(dir / "rt.pic", format);
    ASSERT_EQ(back.hr, S_OK);
    const Read want = [&] {
      Read w;
      for (int y = 0; y < 9; ++y) {
        for (int x = 0; x < 420; ++x) {
          const std::uint8_t* p =
              image->GetBuffer() + std::ptrdiff_t{y} * image->GetRowStride() + x * (alpha ? 4 : 3);
          w.rgba.insert(w.rgba.end(), {p[0], p[1], p[2], alpha ? p[3] : std::uint8_t{255}});
        }
      }
      return w;
    }();
    EXPECT_EQ(back.rgba, want.rgba);
  }
  // The coding of a small line, by hand: A A A B C with opaque alpha.
  vx::ComPtr<IVxImage> small;
  ASSERT_EQ(VxCreateImage(5, 1, VX_PF_RGBA8, small.put()), S_OK);
  const std::uint8_t px[] = {9, 9, 9, 255, 9, 9, 9, 255, 9, 9, 9, 255, 1, 2, 3, 255, 4, 5, 6, 255};
  std::memcpy(small->GetBuffer(), px, sizeof px);
  ASSERT_EQ(Write(dir / "small.pic", small.get(), nullptr), S_OK);
  const Bytes file = vxtest::ReadFile(dir / "small.pic");
  EXPECT_EQ(Bytes(file.begin() + 112, file.end()),
            (Bytes{0x82, 9, 9, 9, 0x01, 1, 2, 3, 4, 5, 6, 0x84, 255}));
}

TEST(QuillPicWrite, VxhostConvertsDpxToPicAndBack) {
#ifdef _WIN32
  GTEST_SKIP() << "runs vxhost and ImageMagick through a POSIX shell";
#else
  if (std::system("command -v compare >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "ImageMagick is not installed";
  vxtest::TempDir dir;
  ASSERT_EQ(std::system(("convert -size 96x40 gradient:'#ff2010-#0347fe' -depth 16 " +
                         vxtest::Quote(dir / "src.dpx") + " >/dev/null 2>&1")
                            .c_str()),
            0);
  vxtest::HostRun r = vxtest::RunHost(dir.path(), "convert src.dpx out.pic");
  ASSERT_EQ(r.code, 0) << r.err;
  r = vxtest::RunHost(dir.path(), "convert out.pic back.dpx --depth 16");
  ASSERT_EQ(r.code, 0) << r.err;
  // 8 bits kept: within half an 8-bit step (128 in 16-bit units) of the source.
  const std::string cmd = "compare -metric PAE " + vxtest::Quote(dir / "back.dpx") + " " +
                          vxtest::Quote(dir / "src.dpx") + " null: 2>&1";
  std::FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  char text[256] = {};
  ASSERT_NE(std::fgets(text, sizeof text, p), nullptr);
  pclose(p);
  EXPECT_LE(std::strtol(text, nullptr, 10), 128) << text;
  r = vxtest::RunHost(dir.path(), "info out.pic");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("Written by Halden Vx"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("quillpic:fields"), std::string::npos) << r.out;
#endif
}

}  // namespace
