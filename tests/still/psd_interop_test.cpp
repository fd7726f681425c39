// Photoshop files against peers: the corpus as OpenImageIO decodes it, ImageMagick's files as it
// decodes them, and our files read by ImageMagick and OpenImageIO.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "psd_test_util.h"

namespace {

using psdtest::Pic;
using vxtest::Quote;

double Scale(const Pic& p) {
  return p.format == VX_PF_RGBA8 ? 255.0 : p.format == VX_PF_RGBA16 ? 65535.0 : 1.0;
}

TEST(PsdInterop, CorpusReadsAsOpenImageIO) {
  const auto corpus = vxtest::CorpusDir();
  if (corpus.empty()) GTEST_SKIP() << "no corpus";
  std::ifstream oracle(corpus / "oracle-oiio.jsonl");
  const std::regex file(
      R"re("file":"(psd/[^"]*)","width":(\d+),"height":(\d+),"channels":(\d+))re"),
      sample(R"re("x":(\d+),"y_from_top":(\d+),"v":\[([^\]]*)\])re");
  int files = 0;
  for (std::string line; std::getline(oracle, line);) {
    std::smatch m;
    if (!std::regex_search(line, m, file)) continue;
    SCOPED_TRACE(m[1].str());
    ++files;
    Pic got;
    // The oracle decodes this one; its third layer's rectangle is inverted (top 16777215,
    // bottom 27), so we refuse it.
    if (m[1] == "psd/corrupt_20260312a.psd") {
      EXPECT_EQ(psdtest::Read(corpus / m[1].str(), &got), E_FAIL);
      continue;
    }
    ASSERT_EQ(psdtest::Read(corpus / m[1].str(), &got), S_OK);
    ASSERT_EQ(got.width, std::stoi(m[2]));
    ASSERT_EQ(got.height, std::stoi(m[3]));
    const int channels = std::stoi(m[4]);
    const double scale = Scale(got);
    for (auto it = std::sregex_iterator(line.begin(), line.end(), sample);
         it != std::sregex_iterator(); ++it) {
      const int x = std::stoi((*it)[1]), y = std::stoi((*it)[2]);
      std::istringstream v(std::regex_replace((*it)[3].str(), std::regex(","), " "));
      const float* px = got.At(x, y);
      // The oracle multiplies colour by alpha (ours stays unassociated).
      const double alpha = channels == 4 ? px[3] / scale : 1.0;
      float want = 0;
      for (int c = 0; c < channels && v >> want; ++c) {
        const double ours = c < 3 ? px[c] / scale * alpha : px[c] / scale;
        EXPECT_NEAR(ours, want,
                    scale == 1.0 ? 1e-5 : 0.6 / scale + (c < 3 && alpha < 1 ? 1.0 / scale : 0))
            << x << "," << y << " channel " << c;
      }
      if (channels == 3) {
        EXPECT_EQ(px[3], scale) << "opaque";
      }
    }
  }
  EXPECT_EQ(files, 10);
}

#ifndef _WIN32
bool Sh(const std::string& cmd) {
  return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

// A picture file as 16-bit R, G, B, A through ImageMagick (its first image, the merged one).
std::vector<std::uint16_t> DecodeIm(const std::filesystem::path& file, int* w, int* h) {
  std::vector<std::uint16_t> out;
  std::FILE* p =
      popen(("identify -format '%w %h\\n' " + Quote(file) + "'[0]' 2>/dev/null").c_str(), "r");
  if (!p || std::fscanf(p, "%d %d", w, h) != 2) *w = 0;
  if (p) pclose(p);
  p = popen(("convert " + Quote(file) + "'[0]' -depth 16 -endian LSB rgba:- 2>/dev/null").c_str(),
            "r");
  if (!p) return {};
  std::uint8_t buf[4096];
  std::vector<std::uint8_t> bytes;
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
    bytes.insert(bytes.end(), buf, buf + n);
  if (pclose(p) != 0 || bytes.size() != std::size_t{8} * *w * *h) return {};
  for (std::size_t i = 0; i < bytes.size(); i += 2)
    out.push_back(static_cast<std::uint16_t>(bytes[i] | bytes[i + 1] << 8));
  return out;
}

// Our read of `file` as 16-bit samples (8-bit ones widened by 257).
std::vector<std::uint16_t> Ours(const std::filesystem::path& file, int* w, int* h) {
  Pic pic;
  if (psdtest::Read(file, &pic) != S_OK) return {};
  *w = pic.width;
  *h = pic.height;
  std::vector<std::uint16_t> out;
  const double k = pic.format == VX_PF_RGBA8 ? 257.0 : 1.0;
  for (float v : pic.px) out.push_back(static_cast<std::uint16_t>(std::lround(v * k)));
  return out;
}

// Every sample equal, except colour under a partial alpha: the merged picture holds it over
// white in `max` steps, so it comes back within `steps` divided by the alpha, plus half a step
// of rounding (half a step for us and ImageMagick; OpenImageIO goes through 8-bit associated
// colour and loses more).
void ExpectSame(const std::vector<std::uint16_t>& got, int gw, int gh,
                const std::vector<std::uint16_t>& want, int ww, int wh, double max,
                double steps = 0.5) {
  ASSERT_EQ(gw, ww);
  ASSERT_EQ(gh, wh);
  ASSERT_EQ(got.size(), want.size());
  ASSERT_FALSE(got.empty());
  int bad = 0;
  for (std::size_t i = 0; i < got.size() && bad < 5; ++i) {
    const double a = want[i / 4 * 4 + 3] / 65535.0;
    const double tolerance = i % 4 == 3 || a == 1.0 ? 0.0 : (steps / a + 0.5) * 65535.0 / max + 1.0;
    if (std::abs(got[i] - want[i]) <= tolerance) continue;
    ++bad;
    ADD_FAILURE() << "pixel " << i / 4 << " channel " << i % 4 << ": " << got[i] << " vs "
                  << want[i];
  }
}
#endif

TEST(PsdInterop, ImageMagickFilesReadAsItDecodesThem) {
#ifdef _WIN32
  GTEST_SKIP() << "runs the peers through a POSIX shell";
#else
  if (!Sh("command -v convert")) GTEST_SKIP() << "ImageMagick is not installed";
  vxtest::TempDir dir;
  // A varied picture whose colour never falls under 1 - alpha: ImageMagick writes colour as it
  // is but reads it as if over white, wrapping below.
  ASSERT_TRUE(
      Sh("convert -seed 7 -size 37x23 plasma: +level 50%,100% \\( -size 37x23 "
         "gradient:gray90-gray60 \\) "
         "-alpha off -compose copy_opacity -composite -depth 16 " +
         Quote(dir / "a.png")));
  // Grey is taken without alpha: ImageMagick neither mattes nor unmattes grey + alpha, where
  // Photoshop's merged grey is over white like its colour (and we read it so).
  const char* layouts[] = {"", "-alpha off", "-colorspace Gray -alpha off"};
  int n = 0;
  for (const char* layout : layouts) {
    for (const char* depth : {"8", "16"}) {
      for (const char* compress : {"RLE", "None"}) {
        const std::string name = "im" + std::to_string(n++) + ".psd";
        SCOPED_TRACE(std::string(layout) + " " + depth + " " + compress);
        ASSERT_TRUE(Sh("convert " + Quote(dir / "a.png") + " " + layout + " -depth " + depth +
                       " -compress " + compress + " " + Quote(dir / name)));
        int gw = 0, gh = 0, ww = 0, wh = 0;
        const auto got = Ours(dir / name, &gw, &gh);
        const auto want = DecodeIm(dir / name, &ww, &wh);
        ExpectSame(got, gw, gh, want, ww, wh, std::string(depth) == "8" ? 255.0 : 65535.0);
      }
    }
  }
#endif
}

TEST(PsdInterop, OurFilesReadInImageMagickAndOpenImageIO) {
#ifdef _WIN32
  GTEST_SKIP() << "runs the peers through a POSIX shell";
#else
  if (!Sh("command -v convert") || !Sh("command -v oiiotool"))
    GTEST_SKIP() << "ImageMagick or oiiotool is not installed";
  vxtest::TempDir dir;
  const int w = 53, h = 17;
  for (const bool deep : {false, true}) {
    for (const bool alpha : {false, true}) {
      SCOPED_TRACE(std::string(deep ? "16" : "8") + (alpha ? " RGBA" : " RGB"));
      std::vector<std::uint16_t> px;
      const int top = deep ? 65535 : 255;
      for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
          // Flat runs beside literal stretches, so both kinds of packet appear.
          px.push_back(static_cast<std::uint16_t>(x < 20 ? top / 3 : (x * 7919 + y * 31) % top));
          px.push_back(static_cast<std::uint16_t>(y * top / (h - 1)));
          px.push_back(static_cast<std::uint16_t>((x * y * 104729) % top));
          px.push_back(static_cast<std::uint16_t>(alpha ? top - (x * 131 + y) % (top / 2) : top));
        }
      }
      const auto file =
          dir / (std::string("ours") + (deep ? "16" : "8") + (alpha ? "a" : "") + ".psd");
      ASSERT_EQ(psdtest::Write(file, w, h, px, deep), S_OK);
      std::vector<std::uint16_t> want;
      for (std::uint16_t v : px) want.push_back(deep ? v : static_cast<std::uint16_t>(v * 257));
      int iw = 0, ih = 0;
      const auto im = DecodeIm(file, &iw, &ih);
      const double max = top;
      ExpectSame(im, iw, ih, want, w, h, max);
      // OpenImageIO's decode, through a 16-bit TIFF.
      ASSERT_TRUE(Sh("oiiotool " + Quote(file) + (alpha ? " --ch R,G,B,A" : " --ch R,G,B,A=1.0") +
                     " -d uint16 -o " + Quote(file.string() + ".tif")));
      int ow = 0, oh = 0;
      const auto oiio = DecodeIm(file.string() + ".tif", &ow, &oh);
      ExpectSame(oiio, ow, oh, want, w, h, max, 1.5);
      const auto ours = Ours(file, &ow, &oh);
      ExpectSame(ours, ow, oh, want, w, h, max);
    }
  }
#endif
}

}  // namespace
