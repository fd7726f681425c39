// vxhost convert between DPX and every codec-library format, judged by ImageMagick: what each
// target holds survives (16 bits in SGI and PPM, 8 in the others), and a file converted back to
// 16-bit DPX holds exactly what the target held.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using vxtest::Quote;

#ifndef _WIN32
// ImageMagick's peak absolute error between two files in 16-bit units; -1 when it cannot say.
long PeakError(const std::filesystem::path& a, const std::string& b) {
  const std::string cmd = "compare -metric PAE " + Quote(a) + " " + b + " null: 2>&1";
  std::FILE* p = popen(cmd.c_str(), "r");
  if (!p) return -1;
  char text[256] = {};
  const bool got = std::fgets(text, sizeof text, p) != nullptr;
  pclose(p);
  char* end = nullptr;
  const long v = got ? std::strtol(text, &end, 10) : -1;
  return end && end != text ? v : -1;
}
#endif

TEST(VxhostCodecConvert, EachFormatKeepsWhatItHoldsBothWays) {
#ifdef _WIN32
  GTEST_SKIP() << "runs vxhost and ImageMagick through a POSIX shell";
#else
  if (std::system("command -v compare >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "ImageMagick is not installed";
  vxtest::TempDir dir;
  // 16-bit colour with levels between 8-bit codes, so an 8-bit path cannot pass for 16.
  ASSERT_EQ(std::system(("convert -size 96x40 gradient:'#ff2010-#0347fe' -depth 16 " +
                         Quote(dir / "src.dpx") + " >/dev/null 2>&1")
                            .c_str()),
            0);
  struct Case {
    const char* ext;
    long tolerance;            // against the source, 16-bit units; -1: ImageMagick does not read it
    const char* against;       // what the target is compared with
    const char* options = "";  // for the writer
    long back = 0;             // tolerance of the way back, against the target
  } cases[] = {
      {"sgi", 0, "src.dpx"},
      {"ppm", 0, "src.dpx"},
      {"bmp", 128, "src.dpx"},
      {"pcx", 128, "src.dpx"},
      {"jpg", 2600, "src.dpx"},
      {"pgm", 128, "grey.pgm"},
      {"pct", 128, "src.dpx"},
      {"als", -1, ""},
      {"rla", -1, ""},  // ImageMagick 6 reads one-line RLA files only
      {"tga", -1, ""},  // ImageMagick 6.9 leaves bottom-first lines as stored (tags the origin)
      {"png", 0, "src.dpx"},  // 16-bit RGB, exact
      // Float RGBE, written as it comes; ImageMagick decodes without the + 0.5 of a mantissa,
      // half a step (256 at full scale) under ours.
      {"hdr", 512, "src.dpx", " -o linear=1", 256},
      {"tif", 0, "src.dpx", " -o compression=lzw"},
      {"psd", 0, "src.dpx"},  // 16-bit RGB, RLE
  };
  // Our grey is .30 R + .59 G + .11 B of the coded values.
  const std::string grey = "convert " + Quote(dir / "src.dpx") +
                           " -fx '0.30*r+0.59*g+0.11*b' -depth 16 " + Quote(dir / "grey.pgm");
  ASSERT_EQ(std::system(grey.c_str()), 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ext);
    const std::string out = std::string("out.") + c.ext;
    vxtest::HostRun r = vxtest::RunHost(dir.path(), "convert src.dpx " + out + c.options);
    ASSERT_EQ(r.code, 0) << r.err;
    if (c.tolerance >= 0) {
      const long err = PeakError(dir / out, Quote(dir / c.against));
      EXPECT_GE(err, 0);
      EXPECT_LE(err, c.tolerance);
    }
    // Back to 16-bit DPX: exactly what the target held (Alias: what it held of the source).
    r = vxtest::RunHost(dir.path(), "convert " + out + " back.dpx --depth 16 --force");
    ASSERT_EQ(r.code, 0) << r.err;
    const std::string held = c.tolerance >= 0 ? Quote(dir / out) : Quote(dir / "src.dpx");
    const long back = PeakError(dir / "back.dpx", held);
    EXPECT_GE(back, 0);
    EXPECT_LE(back, c.tolerance >= 0 ? c.back : 128);
    r = vxtest::RunHost(dir.path(), "thumbnail " + out + " thumb_" + c.ext + ".ppm --size 8");
    EXPECT_EQ(r.code, 0) << r.err;
  }
#endif
}

TEST(VxhostCodecConvert, DescriptiveTextsTravelBetweenFormats) {
#ifdef _WIN32
  GTEST_SKIP() << "runs ImageMagick through a POSIX shell";
#else
  if (std::system("command -v identify >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "ImageMagick is not installed";
  vxtest::TempDir dir;
  const std::string header = "P6\n# shot 12, take 3\n2 1\n255\n";
  std::vector<std::uint8_t> ppm(header.begin(), header.end());
  for (int v : {16, 32, 48, 64, 80, 96}) ppm.push_back(static_cast<std::uint8_t>(v));
  vxtest::WriteFile(dir / "c.ppm", ppm);
  // PPM comment -> JPEG COM marker (as ImageMagick reads it) -> RLA description -> PGM comment.
  for (const char* step : {"convert c.ppm c.jpg", "convert c.jpg c.rla", "convert c.rla c.pgm"})
    ASSERT_EQ(vxtest::RunHost(dir.path(), step).code, 0) << step;
  const std::string identify =
      "identify -format %c " + Quote(dir / "c.jpg") + " > " + Quote(dir / "comment.txt");
  ASSERT_EQ(std::system(identify.c_str()), 0);
  const auto said = vxtest::ReadFile(dir / "comment.txt");
  EXPECT_EQ(std::string(said.begin(), said.end()), "shot 12, take 3");
  const auto pgm = vxtest::ReadFile(dir / "c.pgm");
  EXPECT_EQ(std::string(pgm.begin(), pgm.begin() + 21), "P5\n# shot 12, take 3\n");
#endif
}

}  // namespace
