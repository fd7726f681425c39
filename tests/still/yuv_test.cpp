// Raw 4:2:2 frames: the raster a file's size stands for, the matrix by raster, video-range
// levels at both depths, the writer's chroma pairs, and bad input. Expected RGB values are worked
// out by hand from R = Y' + 2(1-Kr) Cr', G = Y' - 2(1-Kb)Kb/Kg Cb' - 2(1-Kr)Kr/Kg Cr',
// B = Y' + 2(1-Kb) Cb' with Y' = (Y-16)/219, C' = (C-128)/224 (x4 at 10 bits), rounded.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "still/chyron/chyron_parser.h"
#include "still/yuv/yuv_codec.h"
#include "still/yuv/yuv_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"

using namespace vx::yuv;

namespace {

using ImagePtr = vx::ComPtr<IVxImage>;

struct Parser {
  explicit Parser(int mode) : p(new CVxYUVFileParser(mode)) { p->AddRef(); }
  ~Parser() { p->Release(); }
  CVxYUVFileParser* operator->() const { return p; }
  HRESULT Option(const std::string& text) const {
    const VxString w = vx::FromUtf8(text);
    return p->SetOption(const_cast<VxChar*>(w.c_str()), VX_OPTION_TEXT);
  }
  CVxYUVFileParser* p;
};

// One frame of `width` x `height` whose every pair of pixels is (y0, y1, cb, cr).
std::vector<std::uint8_t> Frame(int mode, std::uint32_t width, std::uint32_t height, int y0, int y1,
                                int cb, int cr) {
  std::vector<std::uint8_t> f;
  const std::uint32_t pairs = width / 2 * height;
  if (mode == 0) {
    for (std::uint32_t i = 0; i < pairs; ++i)
      f.insert(f.end(), {std::uint8_t(cb), std::uint8_t(y0), std::uint8_t(cr), std::uint8_t(y1)});
    return f;
  }
  auto word = [&f](int v) { f.insert(f.end(), {std::uint8_t(v & 255), std::uint8_t(v >> 8)}); };
  for (std::uint32_t i = 0; i < pairs; ++i) word(y0), word(y1);
  for (std::uint32_t i = 0; i < pairs; ++i) word(cb);
  for (std::uint32_t i = 0; i < pairs; ++i) word(cr);
  return f;
}

// The first pixel of the frame read into `format`.
std::vector<int> FirstPixel(const Parser& parser, VxPixelFormat format, HRESULT* hr) {
  ImagePtr image;
  EXPECT_EQ(VxCreateImage(0, 0, format, image.put()), S_OK);
  IVxImage* p = image.get();
  *hr = parser->ReadImage(&p, 0);
  if (FAILED(*hr)) return {};
  const BYTE* b = image->GetBuffer();
  if (format == VX_PF_RGB8) return {b[0], b[1], b[2]};
  const auto* w = reinterpret_cast<const std::uint16_t*>(b);
  return {w[0], w[1], w[2]};
}

TEST(YuvRaster, FileSizeGivesStandardRastersOnly) {
  const struct {
    std::uint32_t w, h;
  } kStandard[] = {{720, 486},   {720, 576},   {1280, 720}, {1920, 1080},
                   {2048, 1080}, {3840, 2160}, {4096, 2160}};
  for (const auto& s : kStandard) {
    for (YuvLayout layout : {YuvLayout::Uyvy8, YuvLayout::Planar10}) {
      SCOPED_TRACE(std::to_string(s.w) + "x" + std::to_string(s.h));
      const std::uint64_t bytes = std::uint64_t{s.w} * s.h * (layout == YuvLayout::Uyvy8 ? 2 : 4);
      YuvRaster r;
      ASSERT_TRUE(RasterFromFileSize(layout, bytes, &r));
      EXPECT_EQ(r.width, s.w);
      EXPECT_EQ(r.height, s.h);
      EXPECT_FALSE(RasterFromFileSize(layout, bytes + 1, &r));
      EXPECT_FALSE(RasterFromFileSize(layout, bytes - 1, &r));
    }
  }
  YuvRaster r;
  EXPECT_TRUE(ParseRaster("64x2", &r));
  EXPECT_EQ(r.width, 64u);
  EXPECT_EQ(r.height, 2u);
  for (const char* bad : {"63x2", "0x4", "64x0", "64", "x4", "64x4x", "64 x4", "-64x4", "64x-4"})
    EXPECT_FALSE(ParseRaster(bad, &r)) << bad;
}

TEST(YuvParser, SizeOptionOverridesAndTruncatedFilesFail) {
  vxtest::TempDir dir;
  // 1280x720 by its size, or 640x1440 when told so; a byte short of either fails.
  const auto hd = Frame(0, 1280, 720, 16, 16, 128, 128);
  vxtest::WriteFile(dir / "hd.yuv", hd);
  auto shortened = hd;
  shortened.pop_back();
  vxtest::WriteFile(dir / "short.yuv", shortened);
  const struct {
    const char* file;
    const char* option;
    HRESULT optionResult;
    HRESULT read;
    std::uint32_t w, h;
  } kCases[] = {
      {"hd.yuv", nullptr, S_OK, S_OK, 1280, 720},
      {"hd.yuv", "size=640x1440", S_OK, S_OK, 640, 1440},
      {"hd.yuv", "size=64x4", S_OK, S_OK, 64, 4},  // the first frame of a longer file
      {"hd.yuv", "size=2000x1000", S_OK, E_FAIL, 0, 0},
      {"hd.yuv", "size=65536x65536", S_OK, E_FAIL, 0, 0},       // past 4 GiB: no frame at all
      {"hd.yuv", "size=641x4", E_INVALIDARG, S_OK, 1280, 720},  // 4:2:2 needs an even width
      {"hd.yuv", "size=", S_OK, S_OK, 1280, 720},
      {"hd.yuv", "depth=10", S_FALSE, S_OK, 1280, 720},
      {"short.yuv", nullptr, S_OK, E_FAIL, 0, 0},
      {"short.yuv", "size=1280x720", S_OK, E_FAIL, 0, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.file) + " " + (c.option ? c.option : ""));
    Parser parser(0);
    ASSERT_EQ(parser->Open(vxtest::Wide(dir / c.file).c_str(), VX_OPEN_NO_PATTERN), S_OK);
    if (c.option) {
      EXPECT_EQ(parser.Option(c.option), c.optionResult);
    }
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    EXPECT_EQ(parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), c.read);
    ImagePtr image;
    IVxImage* p = nullptr;
    EXPECT_EQ(parser->ReadImage(&p, 0), c.read);
    image = ImagePtr::Adopt(p);
    if (c.read != S_OK) continue;
    EXPECT_EQ(f.width, c.w);
    EXPECT_EQ(f.height, c.h);
    EXPECT_EQ(f.pixelFormat, VX_PF_RGB8);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->GetWidth(), static_cast<int>(c.w));
    EXPECT_EQ(image->GetHeight(), static_cast<int>(c.h));
  }
}

TEST(YuvDecode, LevelsAndMatrixByRaster) {
  vxtest::TempDir dir;
  // Height 2 is standard definition (Rec. 601), 578 high definition (Rec. 709).
  const struct {
    int mode;
    std::uint32_t height;
    int y, cb, cr;
    VxPixelFormat format;
    std::vector<int> rgb;
  } kCases[] = {
      {0, 2, 16, 128, 128, VX_PF_RGB8, {0, 0, 0}},
      {0, 2, 235, 128, 128, VX_PF_RGB8, {255, 255, 255}},
      {0, 2, 235, 128, 128, VX_PF_RGB16, {65535, 65535, 65535}},
      {0, 2, 1, 128, 128, VX_PF_RGB8, {0, 0, 0}},  // below the range clamps
      {0, 2, 254, 128, 128, VX_PF_RGB16, {65535, 65535, 65535}},
      {0, 2, 180, 128, 128, VX_PF_RGB8, {191, 191, 191}},  // 164/219
      {0, 2, 180, 128, 128, VX_PF_RGB16, {49076, 49076, 49076}},
      {0, 578, 63, 102, 240, VX_PF_RGB8, {255, 1, 0}},  // Rec. 709 red
      {0, 578, 63, 102, 240, VX_PF_RGB16, {65535, 150, 0}},
      {0, 2, 63, 102, 240, VX_PF_RGB8, {233, 0, 2}},  // the same codes through Rec. 601
      {0, 2, 63, 102, 240, VX_PF_RGB16, {60005, 0, 585}},
      {0, 578, 145, 54, 34, VX_PF_RGB16, {0, 55532, 0}},
      {1, 2, 64, 512, 512, VX_PF_RGB16, {0, 0, 0}},
      {1, 2, 940, 512, 512, VX_PF_RGB16, {65535, 65535, 65535}},
      {1, 2, 720, 512, 512, VX_PF_RGB16, {49076, 49076, 49076}},
      {1, 578, 250, 409, 960, VX_PF_RGB16, {65517, 0, 0}},
      {1, 2, 324, 362, 960, VX_PF_RGB16, {65391, 0, 10}},
      {1, 2, 324, 362, 960, VX_PF_RGB8, {254, 0, 0}},
      {1, 2, 0xFFFF, 512, 512, VX_PF_RGB16, {65535, 65535, 65535}},  // stray high bits
  };
  int n = 0;
  for (const auto& c : kCases) {
    SCOPED_TRACE(n);
    const std::string name = "f" + std::to_string(n++) + (c.mode ? ".yuv16" : ".yuv");
    vxtest::WriteFile(dir / name, Frame(c.mode, 4, c.height, c.y, c.y, c.cb, c.cr));
    Parser parser(c.mode);
    ASSERT_EQ(parser->Open(vxtest::Wide(dir / name).c_str(), VX_OPEN_NO_PATTERN), S_OK);
    ASSERT_EQ(parser.Option("size=4x" + std::to_string(c.height)), S_OK);
    HRESULT hr;
    EXPECT_EQ(FirstPixel(parser, c.format, &hr), c.rgb);
    EXPECT_EQ(hr, S_OK);
    vx::ComPtr<IVxMetadata> md;
    ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
    ASSERT_EQ(parser->GetMetadata(0, md.get()), S_OK);
    const VxMetadataRecord r = vx::md::GetRecord(md.get());
    EXPECT_EQ(r.transfer, c.height > 576 ? VX_TRANSFER_REC709 : VX_TRANSFER_REC601_525);
    EXPECT_EQ(r.levels.blackLevel, c.mode ? 64.0 : 16.0);
    EXPECT_EQ(r.levels.whiteLevel, c.mode ? 940.0 : 235.0);
    EXPECT_EQ(vx::md::GetText(md.get(), "yuv:layout"), c.mode ? "yuv422p10le" : "uyvy422");
  }
}

TEST(YuvParser, StandardDefinitionFieldOrder) {
  vxtest::TempDir dir;
  const struct {
    std::uint32_t height;
    std::int32_t field;
    DWORD transfer;
  } kCases[] = {{486, VX_FIELD_LOWER_FIRST, VX_TRANSFER_REC601_525},
                {576, VX_FIELD_UPPER_FIRST, VX_TRANSFER_REC601_625}};
  for (const auto& c : kCases) {
    const auto file = dir / ("sd" + std::to_string(c.height) + ".yuv");
    vxtest::WriteFile(file, Frame(0, 720, c.height, 16, 16, 128, 128));
    Parser parser(0);
    ASSERT_EQ(parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_NO_PATTERN), S_OK);
    vx::ComPtr<IVxMetadata> md;
    ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
    ASSERT_EQ(parser->GetMetadata(-1, md.get()), S_OK);
    const VxMetadataRecord r = vx::md::GetRecord(md.get());
    EXPECT_EQ(r.fieldMode, c.field);
    EXPECT_EQ(r.transfer, c.transfer);
    EXPECT_TRUE(r.present & VX_MD_FRAMERATE);
  }
}

// RGB16 pixel pairs written as one pair of each layout: luma per pixel, chroma of the pair's
// average, rounded and clamped to the video range.
TEST(YuvEncode, VideoRangeAndPairAverage) {
  constexpr int kMax = 65535;
  const struct {
    int mode;
    std::uint32_t height;
    int rgb[6];
    int y0, y1, cb, cr;
  } kCases[] = {
      {0, 2, {0, 0, 0, 0, 0, 0}, 16, 16, 128, 128},
      {0, 2, {kMax, kMax, kMax, kMax, kMax, kMax}, 235, 235, 128, 128},
      {1, 2, {kMax, kMax, kMax, 0, 0, 0}, 940, 64, 512, 512},
      {0, 578, {kMax, 0, 0, kMax, 0, 0}, 63, 63, 102, 240},  // Rec. 709 red
      {0, 2, {kMax, 0, 0, kMax, 0, 0}, 81, 81, 90, 240},     // Rec. 601 red
      {1, 578, {kMax, 0, 0, kMax, 0, 0}, 250, 250, 409, 960},
      {0, 578, {kMax, 0, 0, 0, kMax, 0}, 63, 173, 72, 133},  // red beside green: their mean
  };
  for (const auto& c : kCases) {
    const YuvLayout layout = c.mode ? YuvLayout::Planar10 : YuvLayout::Uyvy8;
    const YuvRaster raster{2, c.height};
    std::vector<std::uint16_t> rgb;
    for (std::uint32_t i = 0; i < c.height; ++i) rgb.insert(rgb.end(), c.rgb, c.rgb + 6);
    RgbPicture in;
    in.pixels = reinterpret_cast<std::uint8_t*>(rgb.data());
    in.rowStride = 12;
    in.deep = true;
    std::vector<std::uint8_t> out(FrameBytes(layout, raster));
    EncodeFrame(layout, in, raster, out.data(), nullptr);
    EXPECT_EQ(out, Frame(c.mode, 2, c.height, c.y0, c.y1, c.cb, c.cr)) << c.rgb[0] << c.height;
  }
}

TEST(YuvParser, WriteRefusesWhatHasNoFrameAndChyronReadsNothing) {
  vxtest::TempDir dir;
  ImagePtr odd;
  ASSERT_EQ(VxCreateImage(3, 2, VX_PF_RGB16, odd.put()), S_OK);
  Parser parser(1);
  const VxString out = vxtest::Wide(dir / "odd.yuv16");
  ASSERT_EQ(parser->Open(out.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN), S_OK);
  EXPECT_EQ(parser->WriteImage(odd.get(), 0), E_INVALIDARG);
  EXPECT_FALSE(std::filesystem::exists(dir / "odd.yuv16"));
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));

  auto* chyron = new CVxChyronFileParser;
  chyron->AddRef();
  vxtest::WriteFile(dir / "x.chr", {0, 1, 2, 3});
  EXPECT_EQ(chyron->Open(vxtest::Wide(dir / "x.chr").c_str(), 0), E_NOTIMPL);
  EXPECT_EQ(chyron->OpenEx(vxtest::Wide(dir / "x.chr").c_str(), VX_OPEN_WRITE, 0), E_NOTIMPL);
  chyron->Release();
}

}  // namespace
