// Targa against peers: the reference set as OpenImageIO decodes it, files of ImageMagick and
// oiiotool read as those tools decode them, and our files read by both tools.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "targa_test_util.h"

namespace {

using targatest::Rgba;
using vxtest::Quote;

#ifndef _WIN32
bool Sh(const std::string& cmd) {
  return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

bool HaveTools() {
  static const bool have = Sh("command -v convert") && Sh("command -v oiiotool");
  return have;
}

// A picture file as 8-bit R, G, B, A through ImageMagick; `flags` go before the output.
Rgba Decode(const std::filesystem::path& file, const std::string& flags = "") {
  Rgba out;
  std::FILE* p = popen(("identify -format '%w %h' " + Quote(file) + " 2>/dev/null").c_str(), "r");
  if (!p || std::fscanf(p, "%d %d", &out.width, &out.height) != 2) out.width = 0;
  if (p) pclose(p);
  p = popen(("convert " + Quote(file) + " " + flags + " -depth 8 rgba:- 2>/dev/null").c_str(), "r");
  if (!p) return {};
  std::uint8_t buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
    out.px.insert(out.px.end(), buf, buf + n);
  if (pclose(p) != 0 || out.px.size() != std::size_t{4} * out.width * out.height) return {};
  return out;
}

// OpenImageIO's decode, alpha kept unassociated, through a PNG.
Rgba DecodeOiio(const std::filesystem::path& file) {
  const auto png = file.string() + ".oiio.png";
  if (!Sh("oiiotool --iconfig oiio:UnassociatedAlpha 1 " + Quote(file) + " -o " + Quote(png)))
    return {};
  return Decode(png);
}

// Channels `first`..`last` of every pixel equal.
void ExpectSame(const Rgba& got, const Rgba& want, int first = 0, int last = 3) {
  ASSERT_EQ(got.width, want.width);
  ASSERT_EQ(got.height, want.height);
  ASSERT_EQ(got.px.size(), want.px.size());
  int bad = 0;
  for (std::size_t i = 0; i < got.px.size() && bad < 5; ++i) {
    const int c = static_cast<int>(i % 4);
    if (c < first || c > last || got.px[i] == want.px[i]) continue;
    ++bad;
    ADD_FAILURE() << "pixel " << i / 4 << " channel " << c << ": " << int{got.px[i]} << " vs "
                  << int{want.px[i]};
  }
}
#endif

TEST(TargaInterop, ReferenceSetReadsAsOpenImageIO) {
  const auto corpus = vxtest::CorpusDir();
  if (corpus.empty()) GTEST_SKIP() << "no corpus";
  std::ifstream oracle(corpus / "oracle-oiio.jsonl");
  const std::regex file(
      R"re("file":"(targa/[^"]*)","width":(\d+),"height":(\d+),"channels":(\d+))re"),
      sample(R"re("x":(\d+),"y_from_top":(\d+),"v":\[([^\]]*)\])re");
  int files = 0;
  for (std::string line; std::getline(oracle, line);) {
    std::smatch m;
    if (!std::regex_search(line, m, file)) continue;
    SCOPED_TRACE(m[1].str());
    ++files;
    Rgba got;
    ASSERT_EQ(targatest::Read(corpus / m[1].str(), &got), S_OK);
    ASSERT_EQ(got.width, std::stoi(m[2]));
    ASSERT_EQ(got.height, std::stoi(m[3]));
    const int channels = std::stoi(m[4]);
    // UTC32 and CTC32 say (extension attributes 2) that their fourth bytes, all 0, are not alpha.
    // The oracle multiplies the colour by them anyway and gets black; the pictures are the
    // stripes of the 24-bit files, which they must read as, opaque.
    const bool undefinedAlpha = m[1] == "targa/UTC32.TGA" || m[1] == "targa/CTC32.TGA";
    Rgba same;
    if (undefinedAlpha) {
      ASSERT_EQ(
          targatest::Read(corpus / std::regex_replace(m[1].str(), std::regex("32"), "24"), &same),
          S_OK);
      for (std::size_t i = 0; i < got.px.size(); ++i)
        EXPECT_EQ(got.px[i], i % 4 == 3 ? 255 : same.px[i]);
      continue;
    }
    for (auto it = std::sregex_iterator(line.begin(), line.end(), sample);
         it != std::sregex_iterator(); ++it) {
      const int x = std::stoi((*it)[1]), y = std::stoi((*it)[2]);
      std::istringstream v(std::regex_replace((*it)[3].str(), std::regex(","), " "));
      float want = 0;
      for (int c = 0; c < channels && v >> want; ++c)
        EXPECT_EQ(got.At(x, y)[c], std::lround(want * 255)) << x << "," << y << " channel " << c;
    }
  }
  EXPECT_EQ(files, 11);
}

TEST(TargaInterop, PeerFilesReadAsThePeersDecodeThem) {
#ifdef _WIN32
  GTEST_SKIP() << "runs the peers through a POSIX shell";
#else
  if (!HaveTools()) GTEST_SKIP() << "ImageMagick or oiiotool is not installed";
  vxtest::TempDir dir;
  // A varied picture whose alpha never reaches 0, so no peer can lose colour under it.
  ASSERT_TRUE(
      Sh("convert -seed 7 -size 37x23 plasma: \\( -size 37x23 gradient:gray90-gray30 \\) "
         "-alpha off -compose copy_opacity -composite -depth 8 " +
         Quote(dir / "a.png")));
  ASSERT_TRUE(Sh("convert " + Quote(dir / "a.png") + " -alpha off " + Quote(dir / "c.png")));
  // ImageMagick 6.9 writes the lines in the order it holds them whatever origin it names, and
  // reads its files back the same way, keeping the origin as a tag; -auto-orient applies the tag,
  // giving the picture the file describes (OpenImageIO agrees). Its 16-bit files are checked
  // against OpenImageIO's colour, as ImageMagick widens 5-bit fields by truncation.
  struct Case {
    const char* name;
    const char* command;  // $IN source, $OUT target
    bool colourFromOiio;
  } cases[] = {
      {"im-rle-32", "convert a.png -compress RLE $OUT", false},
      {"im-raw-32", "convert a.png -compress None $OUT", false},
      {"im-rle-24", "convert c.png -compress RLE $OUT", false},
      {"im-raw-24", "convert c.png -compress None $OUT", false},
      {"im-top-left", "convert a.png -orient TopLeft -compress RLE $OUT", false},
      {"im-top-right", "convert a.png -orient TopRight $OUT", false},
      {"im-bottom-right", "convert a.png -orient BottomRight -compress RLE $OUT", false},
      {"im-16", "convert a.png -depth 5 $OUT", true},
      {"im-16-rle", "convert c.png -depth 5 -compress RLE $OUT", true},
      {"im-map", "convert c.png -colors 40 -type Palette -compress RLE $OUT", false},
      {"im-grey", "convert c.png -type Grayscale $OUT", false},
      {"oiio-rle-32", "oiiotool a.png --compression rle -o $OUT", false},
      {"oiio-raw-32", "oiiotool a.png -o $OUT", false},
      {"oiio-rle-24", "oiiotool c.png --compression rle -o $OUT", false},
      {"oiio-raw-24", "oiiotool c.png -o $OUT", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto out = dir / (std::string(c.name) + ".tga");
    const std::string cmd = std::regex_replace(c.command, std::regex("\\$OUT"), Quote(out));
    ASSERT_TRUE(Sh("cd " + Quote(dir.path()) + " && " + cmd)) << cmd;
    Rgba got;
    ASSERT_EQ(targatest::Read(out, &got), S_OK);
    const bool oiio = c.name[0] == 'o';
    const Rgba want = oiio ? DecodeOiio(out) : Decode(out, "-auto-orient");
    ExpectSame(got, want, c.colourFromOiio ? 3 : 0, 3);
    if (c.colourFromOiio) ExpectSame(got, DecodeOiio(out), 0, 2);
  }
#endif
}

TEST(TargaInterop, PeersReadOurFiles) {
#ifdef _WIN32
  GTEST_SKIP() << "runs the peers through a POSIX shell";
#else
  if (!HaveTools()) GTEST_SKIP() << "ImageMagick or oiiotool is not installed";
  vxtest::TempDir dir;
  ASSERT_TRUE(
      Sh("convert -seed 3 -size 41x19 plasma: \\( -size 41x19 gradient:gray95-gray20 \\) "
         "-alpha off -compose copy_opacity -composite -depth 8 " +
         Quote(dir / "a.png")));
  const Rgba alpha = Decode(dir / "a.png");
  Rgba opaque = alpha;
  for (std::size_t i = 3; i < opaque.px.size(); i += 4) opaque.px[i] = 255;
  for (const Rgba* pic : {&alpha, static_cast<const Rgba*>(&opaque)}) {
    for (const char* compression : {"compression=rle", "compression=none"}) {
      for (const char* origin : {"origin=bottom-left", "origin=top-left"}) {
        SCOPED_TRACE(std::string(compression) + " " + origin + (pic == &alpha ? " 32" : " 24"));
        const auto out = dir / "ours.tga";
        ASSERT_EQ(targatest::Write(out, *pic, {compression, origin}), S_OK);
        ExpectSame(Decode(out, "-auto-orient"), *pic);
        ExpectSame(DecodeOiio(out), *pic);
      }
    }
  }
#endif
}

}  // namespace

// vxhost's generic writer options reach the parser: PPM -> uncompressed top-first Targa -> PPM.
TEST(TargaInterop, VxhostOptionsChooseTheLayout) {
#ifdef _WIN32
  GTEST_SKIP() << "runs vxhost and ImageMagick through a POSIX shell";
#else
  if (!HaveTools()) GTEST_SKIP() << "ImageMagick or oiiotool is not installed";
  vxtest::TempDir dir;
  ASSERT_TRUE(Sh("convert -seed 5 -size 33x17 plasma: -depth 8 " + Quote(dir / "src.ppm")));
  auto r =
      vxtest::RunHost(dir.path(), "convert src.ppm t.tga -o compression=none -o origin=top-left");
  ASSERT_EQ(r.code, 0) << r.err;
  const auto file = vxtest::ReadFile(dir / "t.tga");
  ASSERT_GT(file.size(), 18u);
  EXPECT_EQ(file[2], 2);
  EXPECT_EQ(file[17], 0x20);
  ExpectSame(Decode(dir / "t.tga"), Decode(dir / "src.ppm"));
  r = vxtest::RunHost(dir.path(), "convert t.tga back.ppm");
  ASSERT_EQ(r.code, 0) << r.err;
  ExpectSame(Decode(dir / "back.ppm"), Decode(dir / "src.ppm"));
  r = vxtest::RunHost(dir.path(), "info t.tga");
  EXPECT_NE(r.out.find("targa:origin: top-left"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("targa:alpha: none"), std::string::npos) << r.out;
#endif
}
