// The codec-family parser through its host interfaces: the format-code rows, the open and read
// contract, sequences with a damaged first file, and 16-bit SGI through DPX and back.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "imagelib/ceil/ceil_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"
#include "vx/sdk.h"

namespace {

vx::ComPtr<CVxMediaFileParserCEIL> Make(int code) {
  return vx::ComPtr<CVxMediaFileParserCEIL>::Share(new CVxMediaFileParserCEIL(code));
}

// An 8-bit verbatim SGI file: 512-byte header, then each channel's lines, bottom line first.
std::vector<std::uint8_t> Sgi(int w, int h, int z, const std::vector<std::uint8_t>& samples) {
  std::vector<std::uint8_t> f(512, 0);
  // magic, verbatim storage, 1 byte per sample, dimension, sizes, pixmax 255
  const int fields[] = {0x01DA, 1, z > 1 ? 3 : 2, w, h, z, 0, 0, 0, 0xFF};
  for (int i = 0; i < 10; ++i) {
    f[i * 2] = std::uint8_t(fields[i] >> 8);
    f[i * 2 + 1] = std::uint8_t(fields[i]);
  }
  f.insert(f.end(), samples.begin(), samples.end());
  return f;
}

bool HasSgi() {
  return Make(5)->Open(VXT("x"), VX_OPEN_NO_PATTERN) != E_POINTER;
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
  }
  for (int code : {4, 15, 16, 17, 18, 20}) {
    auto p = Make(code);
    EXPECT_EQ(p->Open(VXT("a.sgi"), 0), E_POINTER) << code;
    EXPECT_EQ(p->SelectFormat(code), E_UNEXPECTED) << code;
  }
}

TEST(CeilParser, OpenAndReadContract) {
  if (!HasSgi()) GTEST_SKIP() << "no SGI class yet";
  const VxString one = VXT("one.sgi");  // opening reads nothing yet
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
  ASSERT_EQ(p->Open(one.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN), S_OK);
  EXPECT_EQ(p->ReadImage(&image, 0), E_ACCESSDENIED);
  EXPECT_EQ(image, nullptr);
}

TEST(CeilParser, SequenceReportsTheFirstFileThatLoads) {
  if (!HasSgi()) GTEST_SKIP() << "no SGI class yet";
  vxtest::TempDir dir;
  std::vector<std::uint8_t> damaged = Sgi(3, 2, 3, {});
  damaged[0] = 0x02;  // not the magic number
  vxtest::WriteFile(dir / "f.0001.sgi", damaged);
  // Red lines 1 2 3 (bottom) / 4 5 6 (top), green and blue likewise plus 10 and 20.
  vxtest::WriteFile(
      dir / "f.0002.sgi",
      Sgi(3, 2, 3, {1, 2, 3, 4, 5, 6, 11, 12, 13, 14, 15, 16, 21, 22, 23, 24, 25, 26}));
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

// The first sample of every pixel as oiiotool decodes `file` (ImageMagick misreads its own
// verbatim 16-bit SGI, so it only writes here).
std::vector<long> PeerSamples(const std::filesystem::path& file) {
  const std::filesystem::path dump = file.string() + ".txt";
  const std::string cmd =
      "oiiotool --dumpdata:C=d " + vxtest::Quote(file) + " >" + vxtest::Quote(dump);
  std::vector<long> out;
  if (std::system(cmd.c_str()) != 0) return out;
  std::ifstream in(dump);
  for (std::string line; std::getline(in, line);) {
    const std::size_t at = line.find("*/ { ");
    if (at != std::string::npos) out.push_back(std::stol(line.substr(at + 5)));
  }
  return out;
}

// ImageMagick's 16-bit grey SGI to DPX and back through vxhost keeps every 16-bit value.
TEST(CeilParser, SixteenBitSgiSurvivesDpx) {
  if (!HasSgi() ||
      std::system("convert -version >/dev/null 2>&1 && oiiotool --help >/dev/null 2>&1"))
    GTEST_SKIP() << "needs ImageMagick and oiiotool";
  vxtest::TempDir dir;
  const std::string make =
      "cd " + vxtest::Quote(dir.path()) + " && convert -size 64x32 gradient: -depth 16 in.sgi";
  ASSERT_EQ(std::system(make.c_str()), 0);
  ASSERT_EQ(vxtest::RunHost(dir.path(), "convert in.sgi mid.dpx").code, 0);
  ASSERT_EQ(vxtest::RunHost(dir.path(), "convert mid.dpx out.sgi").code, 0);
  const std::vector<long> in = PeerSamples(dir / "in.sgi");
  ASSERT_EQ(in.size(), 64u * 32);
  EXPECT_EQ(in[64], 63421);  // 65535 * 30 / 31: no 8-bit value
  EXPECT_EQ(PeerSamples(dir / "out.sgi"), in);
}

}  // namespace
