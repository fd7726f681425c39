// The codec-family parser through its host interfaces: the format-code rows, the open and read
// contract, sequences with a damaged first file, and 16-bit SGI through DPX and back.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "imagelib/ceil/ceil_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"
#include "vx/sdk.h"

namespace {

vx::ComPtr<CVxMediaFileParserCEIL> Make(int code) {
  return vx::ComPtr<CVxMediaFileParserCEIL>::Share(new CVxMediaFileParserCEIL(code));
}

// A verbatim SGI file: 512-byte header, then each channel's lines bottom line first, big-endian.
std::vector<std::uint8_t> Sgi(int w, int h, int z, int bpc, const std::vector<unsigned>& samples) {
  std::vector<std::uint8_t> f(512, 0);
  const unsigned dim = z > 1 ? 3 : h > 1 ? 2 : 1;
  // magic, verbatim storage and bytes per sample, dimension, sizes, then pixmax
  const unsigned fields[] = {0x01DA, unsigned(bpc), dim, unsigned(w), unsigned(h), unsigned(z)};
  for (int i = 0; i < 6; ++i) {
    f[i * 2] = std::uint8_t(fields[i] >> 8);
    f[i * 2 + 1] = std::uint8_t(fields[i]);
  }
  f[18] = bpc == 2 ? 0xFF : 0;
  f[19] = 0xFF;
  for (unsigned v : samples) {
    if (bpc == 2) f.push_back(std::uint8_t(v >> 8));
    f.push_back(std::uint8_t(v));
  }
  return f;
}

bool HasSgi() {
  return Make(5)->Open(VXT("x.sgi"), VX_OPEN_NO_PATTERN) != E_POINTER;
}

TEST(CeilParser, RowsAnswerTheirCodesCapabilitiesAndRefuseCodesWithoutClass) {
  struct Row {
    int code;
    DWORD read, write;
  };
  // MAP, SGI, WAVEFRONT and PICT carry bit 1; the others 0x80, or 0xA0 when writing. 15 has no
  // class, so its code is never kept.
  const Row rows[] = {{5, 0x82, 0xA2},  {6, 0x82, 0xA2},  {7, 0x82, 0xA2},  {8, 0x80, 0xA0},
                      {9, 0x80, 0xA0},  {12, 0x80, 0xA0}, {13, 0x80, 0xA0}, {14, 0x80, 0xA0},
                      {19, 0x82, 0xA2}, {15, 0x80, 0xA0}, {4, 0x80, 0xA0},  {20, 0x80, 0xA0}};
  for (const Row& r : rows) {
    auto p = Make(r.code);
    DWORD caps = 0;
    ASSERT_EQ(p->GetStreamCapabilities(1, VX_STREAM_PICTURE, &caps), S_OK);
    EXPECT_EQ(caps, r.read) << r.code;
    ASSERT_EQ(p->GetStreamCapabilities(2, VX_STREAM_PICTURE, &caps), S_OK);
    EXPECT_EQ(caps, r.write) << r.code;
    ASSERT_EQ(p->GetStreamCapabilities(2, VX_STREAM_SOUND, &caps), S_OK);
    EXPECT_EQ(caps, 0u);
  }
  for (int code : {4, 15, 16, 17, 18, 20}) {
    auto p = Make(code);
    EXPECT_EQ(p->Open(VXT("a.sgi"), 0), E_POINTER) << code;
    EXPECT_EQ(p->SelectFormat(code), E_UNEXPECTED) << code;
  }
}

TEST(CeilParser, OpenAndReadContract) {
  if (!HasSgi()) GTEST_SKIP() << "no SGI class yet";
  vxtest::TempDir dir;
  vxtest::WriteFile(dir / "one.sgi", Sgi(2, 1, 1, 1, {10, 20}));
  const VxString one = vxtest::Wide(dir / "one.sgi");
  auto p = Make(5);
  BOOL has = TRUE;
  EXPECT_EQ(p->HasStream(VX_STREAM_PICTURE, &has), E_UNEXPECTED);
  EXPECT_EQ(has, FALSE);
  EXPECT_EQ(p->Open(one.c_str(), 3), E_INVALIDARG);
  ASSERT_EQ(p->Open(one.c_str(), VX_OPEN_NO_PATTERN), S_OK);
  EXPECT_EQ(p->HasStream(VX_STREAM_PICTURE, &has), S_OK);
  EXPECT_EQ(has, TRUE);
  IVxImage* image = nullptr;
  EXPECT_EQ(p->ReadImage(&image, 3), E_INVALIDARG);
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  EXPECT_EQ(p->SetStreamFormat(VX_STREAM_PICTURE, 1, &f), E_ACCESSDENIED);
  EXPECT_EQ(p->WriteImage(nullptr, 0), E_POINTER);
  ASSERT_EQ(p->Open(one.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN), S_OK);
  EXPECT_EQ(p->ReadImage(&image, 0), E_ACCESSDENIED);
  EXPECT_EQ(image, nullptr);
}

TEST(CeilParser, SequenceReportsTheFirstFileThatLoads) {
  if (!HasSgi()) GTEST_SKIP() << "no SGI class yet";
  vxtest::TempDir dir;
  std::vector<std::uint8_t> damaged = Sgi(3, 2, 3, 1, {});
  damaged[0] = 0x02;  // not the magic number
  vxtest::WriteFile(dir / "f.0001.sgi", damaged);
  // Red lines 1 2 3 (bottom) / 4 5 6 (top), green and blue likewise plus 10 and 20.
  vxtest::WriteFile(
      dir / "f.0002.sgi",
      Sgi(3, 2, 3, 1, {1, 2, 3, 4, 5, 6, 11, 12, 13, 14, 15, 16, 21, 22, 23, 24, 25, 26}));
  auto p = Make(5);
  ASSERT_EQ(p->Open(vxtest::Wide(dir / "f.####.sgi").c_str(), 0), S_OK);
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  ASSERT_EQ(p->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
  EXPECT_EQ(f.frameCount, 2u);
  EXPECT_EQ(f.width, 3u);
  EXPECT_EQ(f.height, 2u);
  EXPECT_EQ(f.channels, 3u);
  EXPECT_EQ(f.bitsPerPixel, 24u);
  EXPECT_EQ(f.hasAlpha, 0u);
  EXPECT_EQ(f.frameRate, -1.0);
  EXPECT_EQ(f.pixelFormat, VX_PF_RGB8);
  IVxImage* image = nullptr;
  EXPECT_NE(p->ReadImage(&image, 0), S_OK);
  ASSERT_EQ(p->ReadImage(&image, 1), S_OK);
  auto held = vx::ComPtr<IVxImage>::Adopt(image);
  ASSERT_EQ(image->GetPixelFormat(), VX_PF_RGB8);
  const BYTE* top = image->GetBuffer();
  const BYTE* bottom = top + image->GetRowStride();
  EXPECT_EQ(std::vector<int>(top, top + 9), (std::vector<int>{4, 14, 24, 5, 15, 25, 6, 16, 26}));
  EXPECT_EQ(std::vector<int>(bottom, bottom + 3), (std::vector<int>{1, 11, 21}));
}

// ImageMagick's 16-bit grey SGI to DPX and back through vxhost keeps every 16-bit value.
TEST(CeilParser, SixteenBitSgiSurvivesDpx) {
  if (!HasSgi() || std::system("convert -version >/dev/null 2>&1") != 0) GTEST_SKIP();
  vxtest::TempDir dir;
  const std::string d = vxtest::Quote(dir.path());
  ASSERT_EQ(std::system(("cd " + d + " && convert -size 64x32 gradient: -depth 16 in.sgi").c_str()),
            0);
  ASSERT_EQ(vxtest::RunHost(dir.path(), "convert in.sgi mid.dpx").code, 0);
  ASSERT_EQ(vxtest::RunHost(dir.path(), "convert mid.dpx out.sgi").code, 0);
  for (const char* f : {"in", "out"}) {
    const std::string cmd = "cd " + d + " && convert " + f + ".sgi -depth 16 gray:" + f + ".raw";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
  }
  const auto in = vxtest::ReadFile(dir / "in.raw");
  ASSERT_EQ(in.size(), 64u * 32 * 2);
  bool deep = false;  // some value an 8-bit path would have changed
  for (std::size_t i = 0; i < in.size(); i += 2) deep |= in[i] != in[i + 1];
  EXPECT_TRUE(deep);
  EXPECT_EQ(vxtest::ReadFile(dir / "out.raw"), in);
}

}  // namespace
