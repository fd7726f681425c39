// The codec-family parser through its host interfaces: the format-code rows, the open and read
// contract, sequences with a damaged first file, lines read straight into the host's image
// against a foreign memory image, and 16-bit SGI through DPX and back.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "base/bytes.h"
#include "imagelib/base/qi_image.h"
#include "imagelib/bmp/qi_image_bmp.h"
#include "imagelib/ceil/ceil_parser.h"
#include "imagelib/sgi/qi_image_sgi.h"
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

// A 3 x 2 RGBA 16-bit run-length SGI: rows (channel * 2 + line) of big-endian units, each a
// literal (0x80 | n) or repeat (n) code and its samples, ending with a 0 code.
std::vector<std::uint8_t> Sgi16(const std::vector<std::vector<std::uint16_t>>& rows) {
  std::vector<std::uint8_t> f = Sgi(3, 2, 4, {});
  f[2] = 1, f[3] = 2, f[18] = 0xFF, f[19] = 0xFF;  // run-length, 2 bytes, pixmax 65535
  f.resize(512 + 16 * rows.size());
  for (std::size_t r = 0; r < rows.size(); ++r) {
    vx::StoreBE32(&f[512 + 4 * r], static_cast<std::uint32_t>(f.size()));
    vx::StoreBE32(&f[512 + 4 * (rows.size() + r)], static_cast<std::uint32_t>(2 * rows[r].size()));
    for (std::uint16_t u : rows[r]) f.push_back(u >> 8), f.push_back(u & 0xFF);
  }
  return f;
}

// A memory image the library does not know: it must still be handed every pixel.
struct Foreign final : QI_ImageRGBA16 {
  using QI_ImageRGBA16::QI_ImageRGBA16;
  void setPixel16(std::int32_t x, std::int32_t y, std::uint16_t r, std::uint16_t g, std::uint16_t b,
                  std::uint16_t a) override {
    ++calls;
    QI_ImageRGBA16::setPixel16(x, y, r, g, b, a);
  }
  void setPixel8(std::int32_t x, std::int32_t y, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                 std::uint8_t a) override {
    ++calls;
    QI_ImageRGBA16::setPixel8(x, y, r, g, b, a);
  }
  int calls = 0;
};

// The parser's own path into the host's RGBA16 image and a foreign image's per-pixel path agree
// with the hand-decoded pixels; a line that fails leaves the host image black, not half read.
TEST(CeilParser, LinesGoStraightIntoTheHostImageAsIntoAForeignOne) {
  if (!HasSgi()) GTEST_SKIP() << "no SGI class yet";
  vxtest::TempDir dir;
  std::vector<std::vector<std::uint16_t>> runs = {{0x83, 0x0102, 0x0304, 0x0506, 0},
                                                  {3, 0xFFFE, 0},
                                                  {3, 0x1234, 0},
                                                  {0x83, 0x0001, 0x8000, 0xABCD, 0},
                                                  {2, 0x0A0B, 0x81, 0xC0DE, 0},
                                                  {3, 0, 0},
                                                  {3, 0xFFFF, 0},
                                                  {3, 0x7FFF, 0}};
  vxtest::WriteFile(dir / "a.sgi", Sgi16(runs));
  runs[7][0] = 4;  // the top line's last run overshoots it: the bottom line is stored by then
  vxtest::WriteFile(dir / "bad.sgi", Sgi16(runs));
  // 24-bit, bottom line first, blue-green-red, lines padded to 12 bytes.
  const std::uint8_t lines[] = {3,    2,    1,    6, 5, 4, 0,    0x80, 0xFF, 0, 0, 0,
                                0x30, 0x20, 0x10, 0, 0, 0, 0xFC, 0xFD, 0xFE, 0, 0, 0};
  std::vector<std::uint8_t> bmp(54 + sizeof lines, 0);
  bmp[0] = 'B', bmp[1] = 'M', bmp[10] = 54, bmp[14] = 40, bmp[18] = 3, bmp[22] = 2, bmp[26] = 1;
  bmp[28] = 24;
  std::copy(std::begin(lines), std::end(lines), bmp.begin() + 54);
  vxtest::WriteFile(dir / "a.bmp", bmp);
  using Rows = std::vector<std::uint16_t>;  // top line, then bottom line
  const Rows sgiRows = {0xFFFE, 0x0001, 0,      0x7FFF, 0xFFFE, 0x8000, 0,      0x7FFF,
                        0xFFFE, 0xABCD, 0,      0x7FFF, 0x0102, 0x1234, 0x0A0B, 0xFFFF,
                        0x0304, 0x1234, 0x0A0B, 0xFFFF, 0x0506, 0x1234, 0xC0DE, 0xFFFF};
  const Rows bmpRows = {0x1010, 0x2020, 0x3030, 0xFFFF, 0,      0,      0,      0xFFFF,
                        0xFEFE, 0xFDFD, 0xFCFC, 0xFFFF, 0x0101, 0x0202, 0x0303, 0xFFFF,
                        0x0404, 0x0505, 0x0606, 0xFFFF, 0xFFFF, 0x8080, 0,      0xFFFF};
  const auto check = [&](int code, const char* name, const Rows& want,
                         std::unique_ptr<QI_ImageFile> file) {
    vx::ComPtr<IVxImage> host;
    ASSERT_EQ(VxCreateImage(3, 2, VX_PF_RGBA16, host.put()), S_OK);
    auto p = Make(code);
    ASSERT_EQ(p->Open(vxtest::Wide(dir / name).c_str(), VX_OPEN_NO_PATTERN), S_OK);
    IVxImage* target = host.get();
    ASSERT_EQ(p->ReadImage(&target, 0), S_OK) << name;
    const auto* px = reinterpret_cast<const std::uint16_t*>(host->GetBuffer());
    EXPECT_EQ(Rows(px, px + 24), want) << name;
    Foreign foreign(3, 2);
    ASSERT_TRUE(file->open(vxtest::Wide(dir / name).c_str(), VXT("rb")) && file->readHeader());
    ASSERT_EQ(file->read(&foreign), 1);
    EXPECT_EQ(foreign.calls, 6) << name;
    for (int i = 0; i < 6; ++i) {  // foreign row 0 is the bottom line
      std::uint16_t c[4];
      foreign.getPixel16(i % 3, 1 - i / 3, &c[0], &c[1], &c[2], &c[3]);
      EXPECT_EQ(Rows(c, c + 4), Rows(&want[4 * i], &want[4 * i + 4])) << name << " pixel " << i;
    }
  };
  check(5, "a.sgi", sgiRows, std::make_unique<QI_ImageSGI>());
  check(9, "a.bmp", bmpRows, std::make_unique<QI_ImageBMP>());
  vx::ComPtr<IVxImage> host;
  ASSERT_EQ(VxCreateImage(3, 2, VX_PF_RGBA16, host.put()), S_OK);
  std::fill_n(host->GetBuffer(), 48, 0x55);
  auto p = Make(5);
  ASSERT_EQ(p->Open(vxtest::Wide(dir / "bad.sgi").c_str(), VX_OPEN_NO_PATTERN), S_OK);
  IVxImage* target = host.get();
  EXPECT_EQ(p->ReadImage(&target, 0), E_FAIL);
  EXPECT_EQ(std::vector<int>(host->GetBuffer(), host->GetBuffer() + 48), std::vector<int>(48, 0));
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
