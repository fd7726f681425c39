// Raw 4:2:2 frames against FFmpeg: its uyvy422 and yuv422p10le files read within one 8-bit code
// of its own conversion to RGB, and our files convert in FFmpeg to what we read from them. Also
// a vxhost round trip DPX -> YUV16 -> DPX judged by ImageMagick.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "still/yuv/yuv_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"

namespace {

using ImagePtr = vx::ComPtr<IVxImage>;
using vxtest::Quote;

#ifndef _WIN32
bool Shell(const std::string& cmd) {
  return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

bool HaveFfmpeg() {
  static const bool have = Shell("ffmpeg -version");
  return have;
}

struct Layout {
  int mode;
  const char* ext;
  const char* pixFmt;
};
constexpr Layout kLayouts[] = {{0, ".yuv", "uyvy422"}, {1, ".yuv16", "yuv422p10le"}};

// FFmpeg's RGB of a raw file: rgb24 bytes, or rgb48le samples when `deep`.
std::vector<int> FfmpegRgb(const std::filesystem::path& file, const Layout& l, int w, int h,
                           const char* matrix, bool deep) {
  const auto out = file.string() + (deep ? ".rgb48" : ".rgb24");
  const std::string cmd = "ffmpeg -v error -y -f rawvideo -pix_fmt " + std::string(l.pixFmt) +
                          " -s " + std::to_string(w) + "x" + std::to_string(h) + " -i " +
                          Quote(file) + " -vf scale=in_color_matrix=" + matrix +
                          ":in_range=tv -pix_fmt " + (deep ? "rgb48le" : "rgb24") +
                          " -f rawvideo " + Quote(out);
  if (!Shell(cmd)) return {};
  const auto bytes = vxtest::ReadFile(out);
  std::vector<int> v;
  if (deep) {
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) v.push_back(bytes[i] | bytes[i + 1] << 8);
  } else {
    v.assign(bytes.begin(), bytes.end());
  }
  return v;
}

// Our reading of a raw file into RGB8 or RGB16 (the size option unless the raster is standard).
ImagePtr ReadOurs(const std::filesystem::path& file, int mode, int w, int h, bool standard,
                  VxPixelFormat format) {
  auto* parser = new CVxYUVFileParser(mode);
  parser->AddRef();
  ImagePtr image;
  VxCreateImage(0, 0, format, image.put());
  const VxString size = vx::FromUtf8("size=" + std::to_string(w) + "x" + std::to_string(h));
  IVxImage* p = image.get();
  if (parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_NO_PATTERN) != S_OK ||
      (!standard && parser->SetOption(const_cast<VxChar*>(size.c_str()), VX_OPTION_TEXT) != S_OK) ||
      parser->ReadImage(&p, 0) != S_OK)
    image = ImagePtr();
  parser->Release();
  return image;
}

std::vector<int> Samples(IVxImage* image) {
  std::vector<int> v;
  const bool deep = image->GetPixelFormat() == VX_PF_RGB16;
  for (int y = 0; y < image->GetHeight(); ++y) {
    const BYTE* row = image->GetBuffer() + std::ptrdiff_t{image->GetRowStride()} * y;
    for (int i = 0; i < image->GetWidth() * 3; ++i)
      v.push_back(deep ? reinterpret_cast<const std::uint16_t*>(row)[i] : row[i]);
  }
  return v;
}

int PeakDifference(const std::vector<int>& a, const std::vector<int>& b) {
  if (a.size() != b.size() || a.empty()) return -1;
  int peak = 0;
  for (std::size_t i = 0; i < a.size(); ++i) peak = std::max(peak, std::abs(a[i] - b[i]));
  return peak;
}
#endif

// FFmpeg's RGB is taken at 16 bits (rgb48le), which strays at most 253 from the exact formula
// here, and judged in 8-bit codes for our 8-bit reading. Its rgb24 path truncates: it runs 0 to 3
// codes below the exact values, never above, so our 8-bit reading of an 8-bit file is at most 3
// above it (from 10-bit files it dithers, so it is no judge there).
TEST(YuvInterop, FfmpegFilesAndOursAgreeWithFfmpegWithinOneCode) {
#ifdef _WIN32
  GTEST_SKIP() << "runs FFmpeg through a POSIX shell";
#else
  if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  vxtest::TempDir dir;
  const struct {
    int w, h;
    const char* matrix;
    bool standard;  // found from the file size
  } kRasters[] = {{64, 48, "bt601", false}, {66, 580, "bt709", false}, {1280, 720, "bt709", true}};
  // Our reading of `file` in 8 and 16 bits against FFmpeg's conversion of the same file.
  auto judge = [&](const std::filesystem::path& file, const Layout& l, int w, int h,
                   const char* matrix, bool standard) {
    const std::vector<int> deep = FfmpegRgb(file, l, w, h, matrix, true);
    ImagePtr image16 = ReadOurs(file, l.mode, w, h, standard, VX_PF_RGB16);
    ImagePtr image8 = ReadOurs(file, l.mode, w, h, standard, VX_PF_RGB8);
    ASSERT_TRUE(image16 && image8);
    const std::vector<int> ours8 = Samples(image8.get());
    std::vector<int> deepIn8(deep.size());
    for (std::size_t i = 0; i < deep.size(); ++i) deepIn8[i] = (deep[i] * 255 + 32767) / 65535;
    EXPECT_LE(PeakDifference(Samples(image16.get()), deep), 257) << "16-bit";
    EXPECT_LE(PeakDifference(ours8, deepIn8), 1) << "8-bit";
    if (l.mode != 0) return;
    const std::vector<int> rgb24 = FfmpegRgb(file, l, w, h, matrix, false);
    ASSERT_EQ(ours8.size(), rgb24.size());
    for (std::size_t i = 0; i < rgb24.size(); ++i) {
      ASSERT_GE(ours8[i] - rgb24[i], 0) << "rgb24, sample " << i;
      ASSERT_LE(ours8[i] - rgb24[i], 3) << "rgb24, sample " << i;
    }
  };
  for (const auto& r : kRasters) {
    for (const Layout& l : kLayouts) {
      const std::string tag = std::to_string(r.w) + "x" + std::to_string(r.h) + l.ext;
      SCOPED_TRACE(tag);
      const auto theirs = dir / ("ffmpeg" + tag), ours = dir / ("ours" + tag);
      ASSERT_TRUE(Shell("ffmpeg -v error -y -f lavfi -i testsrc2=size=" + std::to_string(r.w) +
                        "x" + std::to_string(r.h) +
                        " -frames:v 1 -vf scale=out_color_matrix=" + r.matrix +
                        ":out_range=tv -pix_fmt " + l.pixFmt + " -f rawvideo " + Quote(theirs)));
      {
        SCOPED_TRACE("their file");
        judge(theirs, l, r.w, r.h, r.matrix, r.standard);
      }
      // Our file, written from our 16-bit reading of theirs.
      ImagePtr source = ReadOurs(theirs, l.mode, r.w, r.h, r.standard, VX_PF_RGB16);
      ASSERT_TRUE(source);
      auto* writer = new CVxYUVFileParser(l.mode);
      writer->AddRef();
      EXPECT_EQ(writer->Open(vxtest::Wide(ours).c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN), S_OK);
      EXPECT_EQ(writer->WriteImage(source.get(), 0), S_OK);
      writer->Release();
      SCOPED_TRACE("our file");
      judge(ours, l, r.w, r.h, r.matrix, r.standard);
    }
  }
#endif
}

TEST(YuvInterop, VxhostConvertsDpxThroughYuv16AndBack) {
#ifdef _WIN32
  GTEST_SKIP() << "runs vxhost and ImageMagick through a POSIX shell";
#else
  if (!Shell("command -v compare")) GTEST_SKIP() << "ImageMagick is not installed";
  vxtest::TempDir dir;
  ASSERT_TRUE(
      Shell("convert -size 96x40 gradient:'#ff2010-#0347fe' -depth 16 " + Quote(dir / "src.dpx")));
  vxtest::HostRun run = vxtest::RunHost(dir.path(), "convert src.dpx out.yuv16");
  ASSERT_EQ(run.code, 0) << run.err;
  // No standard raster: without the size the file is refused, with it read.
  run = vxtest::RunHost(dir.path(), "info out.yuv16");
  EXPECT_NE(run.code, 0);
  EXPECT_NE(run.err.find("E_FAIL"), std::string::npos) << run.err;
  run = vxtest::RunHost(dir.path(), "info out.yuv16 --read-option size=96x40");
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_NE(run.out.find("yuv:layout: yuv422p10le"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("transfer: rec601-525"), std::string::npos) << run.out;
  run =
      vxtest::RunHost(dir.path(), "convert out.yuv16 back.dpx --depth 16 --read-option size=96x40");
  ASSERT_EQ(run.code, 0) << run.err;
  // 10-bit video range and chroma shared by pixel pairs of a colour ramp.
  const std::string cmd = "compare -metric PAE " + Quote(dir / "back.dpx") + " " +
                          Quote(dir / "src.dpx") + " null: 2>&1";
  std::FILE* p = popen(cmd.c_str(), "r");
  ASSERT_TRUE(p);
  char text[256] = {};
  const bool got = std::fgets(text, sizeof text, p) != nullptr;
  pclose(p);
  ASSERT_TRUE(got);
  const long peak = std::strtol(text, nullptr, 10);
  EXPECT_LE(peak, 128) << text;  // 84 here: 10-bit codes and the ramp's chroma over pairs
  run = vxtest::RunHost(dir.path(), "thumbnail out.yuv16 t.ppm --size 8 --read-option size=96x40");
  EXPECT_EQ(run.code, 0) << run.err;
  vxtest::WriteFile(dir / "x.chr", {1, 2, 3});
  run = vxtest::RunHost(dir.path(), "info x.chr");
  EXPECT_NE(run.code, 0);
  EXPECT_NE(run.err.find("no published description; not supported"), std::string::npos) << run.err;
#endif
}

}  // namespace
