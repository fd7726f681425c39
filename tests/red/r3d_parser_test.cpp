// The R3D parser end to end: clips written here, frames through the decoder pool and the real
// RedDecoder program beside the tests.
#include "red/r3d/r3d_parser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "r3d_test_clip.h"
#include "red/r3d/red_request.h"
#include "test_util.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"

namespace vx::red {
namespace {

#if defined(VX_TEST_OPENJP2) && !defined(_WIN32)

class R3DParser : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(vxtest::BinDir() / "RedDecoder")) GTEST_SKIP() << "no decoder";
    parser_ = ComPtr<IVxMediaFileParser>::Adopt(new CVxMediaFileParserR3D());
    parser_->AddRef();
  }
  void TearDown() override {
    parser_.reset();
    ReleaseOwnRedHelper();
    // The decoders see their terminate events within a quarter second.
    const std::string name =
        "Red_Event_StartFrame_" + std::to_string(os::CurrentProcessId()) + "_0";
    for (int tries = 0; tries < 500; ++tries) {
      os::EventHandle e = os::OpenEvent(FromUtf8(name).c_str());
      if (!e) break;
      os::CloseEvent(e);
      os::SleepMs(10);
    }
  }
  HRESULT Option(const char* text) {
    VxString t = FromUtf8(text);
    return parser_->SetOption(const_cast<VxChar*>(t.c_str()), VX_OPTION_TEXT);
  }
  CVxMediaFileParserR3D* Impl() { return static_cast<CVxMediaFileParserR3D*>(parser_.get()); }

  vxtest::TempDir dir_;
  ComPtr<IVxMediaFileParser> parser_;
};

TEST_F(R3DParser, StreamAtEveryDecodeModeAndFramesThroughThePool) {
  redtest::ClipPlan plan;
  plan.width = 128;
  plan.height = 64;
  plan.frames = 12;
  plan.rateNumerator = 25;
  plan.rateDenominator = 1;
  plan.metadata = "timecode=10:00:59:20\n";
  const auto path = redtest::WriteClip(dir_ / "C001.R3D", plan)[0];
  ASSERT_EQ(parser_->Open(vxtest::Wide(path).c_str(), 0), S_OK);
  auto clip = DefaultRedLibrary().OpenClip(vxtest::Wide(path).c_str());
  ASSERT_TRUE(clip);

  const struct {
    const char* decode;
    const char* format;
    DWORD w, h;
    int shift;
    VxPixelFormat pf;
  } cases[] = {
      {"decode=full", "format=rgb16", 128, 64, 0, VX_PF_RGB16},
      {"decode=half-premium", "format=bgra8", 64, 32, 1, VX_PF_BGRA8},
      {"decode=half", "format=rgb16", 64, 32, 1, VX_PF_RGB16},
      {"decode=quarter", "format=bgra8", 32, 16, 2, VX_PF_BGRA8},
      {"decode=eighth", "format=rgb16", 16, 8, 3, VX_PF_RGB16},
      {"decode=sixteenth", "format=bgra8", 8, 4, 4, VX_PF_BGRA8},
  };
  ComPtr<IVxImageStreamParser> stream;
  ASSERT_EQ(parser_->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser,
                               reinterpret_cast<void**>(stream.put())),
            S_OK);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.decode);
    ASSERT_EQ(Option(c.decode), S_OK);
    ASSERT_EQ(Option(c.format), S_OK);
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    ASSERT_EQ(parser_->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
    EXPECT_EQ(f.frameCount, 12u);
    EXPECT_EQ(f.width, c.w);
    EXPECT_EQ(f.height, c.h);
    EXPECT_EQ(f.pixelFormat, static_cast<DWORD>(c.pf));
    EXPECT_EQ(f.frameRate, 25.0);
    const RedPixels px = c.pf == VX_PF_BGRA8 ? RedPixels::kBgra8 : RedPixels::kRgb16;
    const std::size_t row = c.w * RedPixelBytes(px);
    std::vector<std::uint8_t> want(row * c.h);
    for (int frame : {0, 1, 2, 11}) {
      ASSERT_TRUE(clip->Decode(frame, c.shift, px, want.data(), want.size()));
      IVxImage* image = nullptr;
      ASSERT_EQ(stream->ReadImage(&image, frame), S_OK) << frame;
      ComPtr<IVxImage> owned = ComPtr<IVxImage>::Adopt(image);
      ASSERT_EQ(image->GetWidth(), static_cast<int>(c.w));
      ASSERT_EQ(image->GetPixelFormat(), c.pf);
      for (DWORD y = 0; y < c.h; ++y) {
        ASSERT_EQ(std::memcmp(image->GetBuffer() + y * image->GetRowStride(), &want[y * row], row),
                  0)
            << "frame " << frame << " row " << y;
      }
      if (c.shift == 0) {
        std::uint16_t v;
        std::memcpy(&v, image->GetBuffer() + 3 * image->GetRowStride() + 5 * 6, 2);
        EXPECT_EQ(v, redtest::PatternSample(frame, 5, 3, 0));
      }
    }
  }
  IVxImage* image = nullptr;
  EXPECT_EQ(stream->ReadImage(&image, 12), E_INVALIDARG);
  EXPECT_EQ(stream->ReadImage(&image, -1), E_INVALIDARG);

  // Time code: the first frame's, counted on (10:00:59:20 + 7 frames at 25 = 10:01:00:02).
  ComPtr<IVxParserSourceInfo> source;
  ASSERT_EQ(
      parser_->QueryInterface(IID_IVxParserSourceInfo, reinterpret_cast<void**>(source.put())),
      S_OK);
  DWORD bcd = 0;
  ASSERT_EQ(source->GetTimeCode(7, &bcd), S_OK);
  EXPECT_EQ(bcd, 0x10010002u);
  CVxTime start, end;
  ASSERT_EQ(parser_->GetTimeRange(VX_STREAM_PICTURE, &start, &end), S_OK);
  EXPECT_EQ(end.Ticks(), 12 * kVxTicksPerSecond / 25);
}

TEST_F(R3DParser, LookFromMetadataThenSidecar) {
  redtest::ClipPlan plan;
  plan.frames = 2;
  plan.metadata =
      "white_balance_kelvin=5600\nwhite_balance_tint=-3.5\nexposure_compensation=0.25\n"
      "digital_gain_red=1.5\niso=640\nuser_curve_low_x=0.1\nuser_curve_high_y=0.9\n"
      "saturation=bad\nuser_timecode_preference=1\n";
  const auto path = redtest::WriteClip(dir_ / "D_001.R3D", plan)[0];
  ASSERT_EQ(parser_->Open(vxtest::Wide(path).c_str(), 0), S_OK);
  const RedLook& look = Impl()->Settings().look;
  EXPECT_EQ(look.field[RedLook::kKelvin], 5600.0f);
  EXPECT_EQ(look.field[RedLook::kTint], -3.5f);
  EXPECT_EQ(look.field[RedLook::kExposure], 0.25f);
  EXPECT_EQ(look.field[RedLook::kRed], 1.5f);
  EXPECT_EQ(look.field[RedLook::kToeX], 0.1f);
  EXPECT_EQ(look.field[RedLook::kKneeY], 0.9f);
  EXPECT_EQ(look.field[RedLook::kSaturation], 0.0f);  // not a number: unchanged
  EXPECT_EQ(look.Iso(), 640);
  EXPECT_EQ(Impl()->Settings().timeCodePreference, 1);
  EXPECT_TRUE(Impl()->SidecarPath().empty());

  // A settings file named after the clip (without the part number) wins over the metadata.
  const std::string rsx =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Kelvin</key><real>3200</real>"
      "<key>blackLevel</key><real>0.5</real></dict></plist>";
  vxtest::WriteFile(dir_ / "D.rsx", std::vector<std::uint8_t>(rsx.begin(), rsx.end()));
  ASSERT_EQ(parser_->Open(vxtest::Wide(path).c_str(), 0), S_OK);
  EXPECT_EQ(ToUtf8(Impl()->SidecarPath()), (dir_ / "D.rsx").string());
  EXPECT_EQ(Impl()->Settings().look.field[RedLook::kKelvin], 3200.0f);
  EXPECT_EQ(Impl()->Settings().look.field[RedLook::kTint], -3.5f);
  EXPECT_EQ(Impl()->Settings().blackLevel, 0.5f);
  ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  ComPtr<IVxParserSourceInfo> source;
  ASSERT_EQ(
      parser_->QueryInterface(IID_IVxParserSourceInfo, reinterpret_cast<void**>(source.put())),
      S_OK);
  ASSERT_EQ(source->GetMetadata(-1, md.get()), S_OK);
  EXPECT_EQ(md::GetText(md.get(), "red:kelvin"), "3200");
  EXPECT_EQ(md::GetText(md.get(), "red:sidecar"), (dir_ / "D.rsx").string());
  EXPECT_EQ(md::GetText(md.get(), "red:sidecar-extensions"), "rlx; rsx; rmd");
  EXPECT_EQ(ToUtf8(CVxMediaFileParserR3D::SidecarExtensions()), "rlx; rsx; rmd");

  // Look settings as options go into the request the pool decodes with.
  ASSERT_EQ(Option("exposure=1.75"), S_OK);
  std::uint8_t request[kRequestBytes];
  ASSERT_TRUE(FillRequest(Impl()->Settings(), vxtest::Wide(path), 1, request));
  float exposure;
  std::memcpy(&exposure, request + 532 + 4 * (RedLook::kExposure - 1), 4);
  EXPECT_EQ(exposure, 1.75f);
  EXPECT_EQ(LoadLE32(request + 524), 1u);
  EXPECT_EQ(ToUtf8(RequestClipPath(request)), path.string());
}

TEST_F(R3DParser, RefusesBadFilesAndOptions) {
  const auto junk = dir_ / "junk.R3D";
  vxtest::WriteFile(junk, std::vector<std::uint8_t>(1000, 0x42));
  EXPECT_EQ(parser_->Open(vxtest::Wide(junk).c_str(), 0), E_FAIL);
  EXPECT_EQ(parser_->Open(vxtest::Wide(dir_ / "none.R3D").c_str(), 0), E_FAIL);
  EXPECT_EQ(parser_->Open(vxtest::Wide(junk).c_str(), VX_OPEN_WRITE), E_NOTIMPL);
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  EXPECT_EQ(parser_->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), E_UNEXPECTED);
  const struct {
    const char* text;
    HRESULT hr;
  } options[] = {{"decode=double", E_INVALIDARG},  {"format=rgb8", E_INVALIDARG},
                 {"prefetch=2", E_INVALIDARG},     {"kelvin=warm", E_INVALIDARG},
                 {"nothing", E_INVALIDARG},        {"colour=red", S_FALSE},
                 {"sidecar=x.txt", E_INVALIDARG},  {"sidecar=x.rmd", E_NOTIMPL},
                 {"sidecar=/no/such.rlx", E_FAIL}, {"prefetch=0", S_OK}};
  for (const auto& o : options) EXPECT_EQ(Option(o.text), o.hr) << o.text;
}

#endif

}  // namespace
}  // namespace vx::red
