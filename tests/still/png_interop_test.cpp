// PNG against peers: the corpus as OpenImageIO decodes it, files of ImageMagick and oiiotool at
// every colour type, depth and interlace read as ImageMagick decodes them, and our files passing
// pngcheck and reading in both tools.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "png_test_util.h"

namespace {

using pngtest::Rgba16;
using vxtest::Quote;

#ifndef _WIN32
bool Sh(const std::string& cmd) {
  return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

bool HaveTools() {
  static const bool have =
      Sh("command -v convert") && Sh("command -v oiiotool") && Sh("command -v pngcheck");
  return have;
}

// A picture file as 16-bit R, G, B, A through ImageMagick.
Rgba16 Decode(const std::filesystem::path& file) {
  Rgba16 out;
  std::FILE* p = popen(("identify -format '%w %h' " + Quote(file) + " 2>/dev/null").c_str(), "r");
  if (!p || std::fscanf(p, "%d %d", &out.width, &out.height) != 2) out.width = 0;
  if (p) pclose(p);
  p = popen(("convert " + Quote(file) + " -depth 16 -endian MSB rgba:- 2>/dev/null").c_str(), "r");
  if (!p) return {};
  for (int hi, lo; (hi = std::fgetc(p)) != EOF && (lo = std::fgetc(p)) != EOF;)
    out.px.push_back(static_cast<std::uint16_t>(hi << 8 | lo));
  if (pclose(p) != 0 || out.px.size() != std::size_t{4} * out.width * out.height) return {};
  return out;
}

// Our read at the file's depth, 8-bit values widened as ImageMagick widens them (x 257).
Rgba16 Ours(const std::filesystem::path& file, bool deep) {
  Rgba16 got;
  if (pngtest::Read(file, &got, deep ? VX_PF_RGBA16 : VX_PF_RGBA8) != S_OK) return {};
  if (!deep)
    for (auto& v : got.px) v = static_cast<std::uint16_t>(v * 257);
  return got;
}

void ExpectSame(const Rgba16& got, const Rgba16& want) {
  ASSERT_EQ(got.width, want.width);
  ASSERT_EQ(got.height, want.height);
  ASSERT_EQ(got.px.size(), want.px.size());
  int bad = 0;
  for (std::size_t i = 0; i < got.px.size() && bad < 5; ++i) {
    if (got.px[i] == want.px[i]) continue;
    ++bad;
    ADD_FAILURE() << "pixel " << i / 4 << " channel " << i % 4 << ": " << got.px[i] << " vs "
                  << want.px[i];
  }
}

// Varied sources: a.png RGBA whose alpha never reaches 0, c.png opaque, 8 and 16 bits.
void MakeSources(const std::filesystem::path& dir) {
  const std::string a =
      "convert -seed 7 -size 37x23 plasma: \\( -size 37x23 "
      "gradient:gray90-gray30 \\) -alpha off -compose copy_opacity -composite ";
  ASSERT_TRUE(Sh(a + "-depth 8 PNG32:" + Quote(dir / "a.png")));
  ASSERT_TRUE(Sh(a + "-depth 16 PNG64:" + Quote(dir / "a16.png")));
  ASSERT_TRUE(Sh("convert " + Quote(dir / "a.png") + " -alpha off PNG24:" + Quote(dir / "c.png")));
  ASSERT_TRUE(
      Sh("convert " + Quote(dir / "a16.png") + " -alpha off PNG48:" + Quote(dir / "c16.png")));
}
#endif

TEST(PngInterop, CorpusReadsAsOpenImageIO) {
#if !VX_TEST_ZLIB
  GTEST_SKIP() << "built without libpng";
#endif
  const auto corpus = vxtest::CorpusDir();
  if (corpus.empty()) GTEST_SKIP() << "no corpus";
  std::ifstream oracle(corpus / "oracle-oiio.jsonl");
  const std::regex file(
      R"re("file":"(png/[^"]*)","width":(\d+),"height":(\d+),"channels":(\d+))re"),
      sample(R"re("x":(\d+),"y_from_top":(\d+),"v":\[([^\]]*)\])re");
  int files = 0;
  for (std::string line; std::getline(oracle, line);) {
    std::smatch m;
    if (!std::regex_search(line, m, file)) continue;
    SCOPED_TRACE(m[1].str());
    ++files;
    Rgba16 got;
    ASSERT_EQ(pngtest::Read(corpus / m[1].str(), &got, VX_PF_RGBA8), S_OK);
    ASSERT_EQ(got.width, std::stoi(m[2]));
    ASSERT_EQ(got.height, std::stoi(m[3]));
    for (auto it = std::sregex_iterator(line.begin(), line.end(), sample);
         it != std::sregex_iterator(); ++it) {
      const int x = std::stoi((*it)[1]), y = std::stoi((*it)[2]);
      std::istringstream v(std::regex_replace((*it)[3].str(), std::regex(","), " "));
      // The oracle's colour is multiplied by alpha (OpenImageIO associates it); ours is not.
      const std::uint16_t* px = got.At(x, y);
      float want = 0;
      for (int c = 0; c < std::stoi(m[4]) && v >> want; ++c) {
        const double ours = c < 3 ? px[c] * px[3] / 255.0 : px[c];
        EXPECT_NEAR(ours, want * 255, c < 3 ? 0.5 : 0) << x << "," << y << " channel " << c;
      }
    }
  }
  EXPECT_EQ(files, 2);
  // Cut short after an invalid sBIT (no IDAT): the oracle lists no decode of it.
  Rgba16 got;
  EXPECT_EQ(pngtest::Read(corpus / "png/broken/invalid_gray_alpha_sbit.png", &got, VX_PF_RGBA8),
            E_FAIL);
}

TEST(PngInterop, PeerFilesReadAsImageMagickDecodesThem) {
#ifdef _WIN32
  GTEST_SKIP() << "runs the peers through a POSIX shell";
#else
  if (!HaveTools()) GTEST_SKIP() << "ImageMagick, oiiotool or pngcheck is not installed";
  vxtest::TempDir dir;
  MakeSources(dir.path());
  struct Case {
    const char* name;
    const char* command;  // $OUT target
    bool deep;
  } cases[] = {
      {"PNG8", "convert a.png PNG8:$OUT", false},
      {"PNG24", "convert c.png PNG24:$OUT", false},
      {"PNG32", "convert a.png PNG32:$OUT", false},
      {"PNG48", "convert c16.png PNG48:$OUT", true},
      {"PNG64", "convert a16.png PNG64:$OUT", true},
      {"PNG32 interlaced", "convert a.png -interlace PNG PNG32:$OUT", false},
      {"PNG64 interlaced", "convert a16.png -interlace PNG PNG64:$OUT", true},
      {"grey 1",
       "convert c.png -colorspace Gray -threshold 50% -define png:bit-depth=1 "
       "-define png:color-type=0 $OUT",
       false},
      {"grey 2",
       "convert c.png -colorspace Gray -depth 2 -define png:bit-depth=2 "
       "-define png:color-type=0 $OUT",
       false},
      {"grey 4",
       "convert c.png -colorspace Gray -depth 4 -define png:bit-depth=4 "
       "-define png:color-type=0 $OUT",
       false},
      {"grey 8", "convert c.png -colorspace Gray -define png:color-type=0 $OUT", false},
      {"grey 16", "convert c16.png -colorspace Gray -depth 16 -define png:color-type=0 $OUT", true},
      {"grey alpha 8", "convert a.png -colorspace Gray -define png:color-type=4 $OUT", false},
      {"oiio RGBA 8", "oiiotool a.png -o $OUT", false},
      {"oiio RGB 16", "oiiotool c16.png -d uint16 -o $OUT", true},
      {"oiio grey 16", "oiiotool c16.png --ch R -d uint16 -o $OUT", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto out = dir / "peer.png";
    const std::string cmd = std::regex_replace(c.command, std::regex("\\$OUT"), Quote(out));
    ASSERT_TRUE(Sh("cd " + Quote(dir.path()) + " && " + cmd)) << cmd;
    ExpectSame(Ours(out, c.deep), Decode(out));
  }
#endif
}

TEST(PngInterop, PeersReadOurFiles) {
#ifdef _WIN32
  GTEST_SKIP() << "runs the peers through a POSIX shell";
#else
  if (!HaveTools()) GTEST_SKIP() << "ImageMagick, oiiotool or pngcheck is not installed";
  vxtest::TempDir dir;
  MakeSources(dir.path());
  const Rgba16 a8 = Decode(dir / "a.png"), a16 = Decode(dir / "a16.png");
  auto narrow = [](Rgba16 p) {
    for (auto& v : p.px) v = static_cast<std::uint16_t>(v / 257);
    return p;
  };
  auto opaque = [](Rgba16 p, std::uint16_t max) {
    for (std::size_t i = 3; i < p.px.size(); i += 4) p.px[i] = max;
    return p;
  };
  auto grey = [](Rgba16 p) {
    for (std::size_t i = 0; i < p.px.size(); i += 4) p.px[i + 1] = p.px[i + 2] = p.px[i];
    return p;
  };
  struct Case {
    const char* name;
    Rgba16 pic;  // at the depth written
    bool deep;
  } cases[] = {
      {"rgba 8", narrow(a8), false},
      {"rgb 8", opaque(narrow(a8), 255), false},
      {"grey 8", grey(opaque(narrow(a8), 255)), false},
      {"grey alpha 8", grey(narrow(a8)), false},
      {"rgba 16", a16, true},
      {"rgb 16", opaque(a16, 65535), true},
      {"grey alpha 16", grey(a16), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto out = dir / "ours.png";
    ASSERT_EQ(pngtest::Write(out, c.pic, c.deep, {"level=6"}), S_OK);
    EXPECT_TRUE(Sh("pngcheck -q " + Quote(out)));
    Rgba16 want = c.pic;
    if (!c.deep)
      for (auto& v : want.px) v = static_cast<std::uint16_t>(v * 257);
    ExpectSame(Decode(out), want);
    const auto tif = dir / "oiio.tif";
    ASSERT_TRUE(Sh("oiiotool --iconfig oiio:UnassociatedAlpha 1 " + Quote(out) + " -d uint16 -o " +
                   Quote(tif)));
    ExpectSame(Decode(tif), want);
  }
#endif
}

}  // namespace
