// TIFF against peers: the libtiff depth set as OpenImageIO decodes it, files of ImageMagick,
// oiiotool and tiffcp read as those tools decode them, and our files read by the tools.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "still/tiff/tiff_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"

#ifndef VX_TEST_LIBTIFF
#define VX_TEST_LIBTIFF 0
#endif
#include "vx/metadata.h"

namespace {

using vxtest::Quote;

// A picture as 16-bit R, G, B, A, top line first.
struct Rgba16 {
  int width = 0, height = 0, frames = 0;
  std::vector<std::uint16_t> px;
};

struct Parser {
  CVxTIFFFileParser* p = new CVxTIFFFileParser;
  Parser() { p->AddRef(); }
  ~Parser() { p->Release(); }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;
  CVxTIFFFileParser* operator->() const { return p; }
};

HRESULT Read(const std::filesystem::path& file, Rgba16* out, int frame = 0) {
  Parser parser;
  if (HRESULT hr = parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_NO_PATTERN); FAILED(hr))
    return hr;
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  if (HRESULT hr = parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &f); FAILED(hr)) return hr;
  out->frames = static_cast<int>(f.frameCount);
  IVxImage* raw = nullptr;
  if (HRESULT hr = parser->ReadImage(&raw, frame); FAILED(hr)) return hr;
  auto native = vx::ComPtr<IVxImage>::Adopt(raw);
  vx::ComPtr<IVxImage> rgba;
  VxCreateImage(raw->GetWidth(), raw->GetHeight(), VX_PF_RGBA16, rgba.put());
  if (HRESULT hr = VxConvertImage(raw, rgba.get()); FAILED(hr)) return hr;
  out->width = rgba->GetWidth();
  out->height = rgba->GetHeight();
  out->px.resize(std::size_t{4} * out->width * out->height);
  for (int y = 0; y < out->height; ++y)
    std::memcpy(out->px.data() + std::size_t{4} * y * out->width,
                rgba->GetBuffer() + y * rgba->GetRowStride(), std::size_t{8} * out->width);
  return S_OK;
}

#ifndef _WIN32
bool Sh(const std::string& cmd) {
  return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

bool HaveTools() {
  static const bool have = Sh("command -v convert") && Sh("command -v oiiotool") &&
                           Sh("command -v tiffinfo") && Sh("command -v tiffcp");
  return have;
}

std::string Output(const std::string& cmd) {
  std::string text;
  std::FILE* p = popen(cmd.c_str(), "r");
  if (!p) return text;
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) text.append(buf, n);
  pclose(p);
  return text;
}

// ImageMagick's decode (page `page`) as 16-bit RGBA.
Rgba16 Decode(const std::filesystem::path& file, int page = 0) {
  Rgba16 out;
  const std::string in = Quote(file.string() + "[" + std::to_string(page) + "]");
  if (std::sscanf(Output("identify -format '%w %h' " + in + " 2>/dev/null").c_str(), "%d %d",
                  &out.width, &out.height) != 2)
    return {};
  const std::string bytes = Output("convert " + in + " -depth 16 -endian LSB rgba:- 2>/dev/null");
  if (bytes.size() != std::size_t{8} * out.width * out.height) return {};
  out.px.resize(bytes.size() / 2);
  std::memcpy(out.px.data(), bytes.data(), bytes.size());
  return out;
}

// OpenImageIO's decode, through a 16-bit PNG, alpha kept unassociated (else associating and
// dissociating again moves colours by a step).
Rgba16 DecodeOiio(const std::filesystem::path& file) {
  const auto png = file.string() + ".oiio.png";
  if (!Sh("oiiotool --iconfig oiio:UnassociatedAlpha 1 " + Quote(file) + " -d uint16 -o " +
          Quote(png)))
    return {};
  return Decode(png);
}

void ExpectNear(const Rgba16& got, const Rgba16& want, int tolerance) {
  ASSERT_EQ(got.width, want.width);
  ASSERT_EQ(got.height, want.height);
  ASSERT_EQ(got.px.size(), want.px.size());
  int bad = 0;
  for (std::size_t i = 0; i < got.px.size() && bad < 5; ++i) {
    if (std::abs(int{got.px[i]} - int{want.px[i]}) <= tolerance) continue;
    ++bad;
    ADD_FAILURE() << "pixel " << i / 4 << " channel " << i % 4 << ": " << got.px[i] << " vs "
                  << want.px[i];
  }
}
#endif

TEST(TiffInterop, DepthSetReadsAsOpenImageIO) {
  if (!VX_TEST_LIBTIFF) GTEST_SKIP() << "built without libtiff";
  const auto corpus = vxtest::CorpusDir();
  if (corpus.empty()) GTEST_SKIP() << "no corpus";
  std::ifstream oracle(corpus / "oracle-oiio.jsonl");
  const std::regex file(
      R"re("file":"(libtiffpic/[^"]*)","width":(\d+),"height":(\d+),"channels":(\d+),"format":"(\w+)")re"),
      sample(R"re("x":(\d+),"y_from_top":(\d+),"v":\[([^\]]*)\])re");
  int files = 0;
  for (std::string line; std::getline(oracle, line);) {
    std::smatch m;
    if (!std::regex_search(line, m, file)) continue;
    SCOPED_TRACE(m[1].str());
    ++files;
    Rgba16 got;
    ASSERT_EQ(Read(corpus / m[1].str(), &got), S_OK);
    ASSERT_EQ(got.width, std::stoi(m[2]));
    ASSERT_EQ(got.height, std::stoi(m[3]));
    const int channels = std::stoi(m[4]);
    // A step of the oracle's own sample type: it truncates 2/4/6-bit codes to 8 bits
    // (6-bit 16 as 64, where round(16 * 255 / 63) is 65) and 24/32-bit integers come to us as
    // 16-bit.
    const double tolerance = m[5] == "uint8" ? 1.0 / 255 : 1.0 / 65535;
    for (auto it = std::sregex_iterator(line.begin(), line.end(), sample);
         it != std::sregex_iterator(); ++it) {
      const int x = std::stoi((*it)[1]), y = std::stoi((*it)[2]);
      std::istringstream v(std::regex_replace((*it)[3].str(), std::regex(","), " "));
      const std::uint16_t* p = got.px.data() + 4 * (std::size_t{1} * y * got.width + x);
      float want = 0;
      for (int c = 0; c < channels && v >> want; ++c)
        EXPECT_NEAR(p[c] / 65535.0, want, tolerance + 1e-6) << x << "," << y << " channel " << c;
    }
  }
  EXPECT_EQ(files, 36);
}

TEST(TiffInterop, PeerFilesReadAsThePeersDecodeThem) {
  if (!VX_TEST_LIBTIFF) GTEST_SKIP() << "built without libtiff";
#ifdef _WIN32
  GTEST_SKIP() << "runs the peers through a POSIX shell";
#else
  if (!HaveTools()) GTEST_SKIP() << "ImageMagick, oiiotool or libtiff's tools are not installed";
  vxtest::TempDir dir;
  // A varied 16-bit picture with an alpha that never reaches 0.
  ASSERT_TRUE(
      Sh("cd " + Quote(dir.path()) +
         " && convert -seed 7 -size 37x23 plasma: \\( -size 37x23 gradient:gray90-gray30 \\) "
         "-alpha off -compose copy_opacity -composite -depth 16 a.png"
         " && convert a.png -alpha off c.png && convert -seed 9 -size 37x23 plasma: -depth 16 "
         "b.png"));
  struct Case {
    const char* name;
    const char* command;  // $OUT target
    int tolerance;        // in 16-bit steps
  } cases[] = {
      {"im-8-none", "convert a.png -depth 8 -compress None $OUT", 0},
      {"im-16-lzw", "convert a.png -depth 16 -compress LZW $OUT", 0},
      {"im-16-zip-predictor", "convert c.png -depth 16 -compress Zip -define tiff:predictor=2 $OUT",
       0},
      {"im-8-packbits-big-endian", "convert c.png -depth 8 -compress RLE -endian MSB $OUT", 0},
      {"im-16-big-endian", "convert a.png -depth 16 -endian MSB $OUT", 0},
      {"im-planar", "convert a.png -depth 16 -interlace plane -compress LZW $OUT", 0},
      {"im-tiles", "convert c.png -depth 8 -define tiff:tile-geometry=16x16 $OUT", 0},
      {"im-grey-16", "convert c.png -colorspace gray -depth 16 -compress Zip $OUT", 0},
      {"im-grey-1", "convert c.png -colorspace gray -threshold 50% -type bilevel $OUT", 0},
      {"im-grey-4", "convert c.png -colorspace gray -depth 4 $OUT", 0},
      {"im-palette", "convert c.png -depth 8 -colors 50 -type Palette $OUT", 0},
      {"im-float", "convert c.png -depth 32 -define quantum:format=floating-point $OUT", 1},
      {"im-half",
       "convert c.png -depth 16 -define quantum:format=floating-point -compress Zip $OUT", 40},
      {"im-orient", "convert c.png -depth 8 -orient BottomRight $OUT", 0},
      {"im-cmyk", "convert c.png -depth 8 -colorspace CMYK $OUT", 257},
      {"oiio-8-lzw", "oiiotool c.png -d uint8 --compression lzw -o $OUT", 0},
      {"oiio-16-zip", "oiiotool c.png -d uint16 --compression zip -o $OUT", 0},
      {"oiio-float-zip", "oiiotool c.png -d float --compression zip -o $OUT", 1},
      {"oiio-half", "oiiotool c.png -d half -o $OUT", 40},
      {"oiio-16-tiles-planar",
       "oiiotool c.png -d uint16 --tile 16 16 --planarconfig separate --compression lzw -o $OUT",
       0},
      {"oiio-packbits", "oiiotool c.png -d uint8 --compression packbits -o $OUT", 0},
      {"tiffcp-jpeg-ycbcr",
       "convert c.png -depth 8 -compress None t.tif && tiffcp -c jpeg:r:95 -r 16 t.tif $OUT", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto out = dir / (std::string(c.name) + ".tif");
    const std::string cmd = std::regex_replace(c.command, std::regex("\\$OUT"), Quote(out));
    ASSERT_TRUE(Sh("cd " + Quote(dir.path()) + " && " + cmd)) << cmd;
    Rgba16 got;
    ASSERT_EQ(Read(out, &got), S_OK);
    // ImageMagick applies the orientation tag only when told to.
    const auto oriented = out.string() + ".png";
    if (std::strcmp(c.name, "im-orient") == 0) {
      ASSERT_TRUE(Sh("convert " + Quote(out) + " -auto-orient -depth 16 " + Quote(oriented)));
    }
    const Rgba16 want = c.name[0] == 'o'                        ? DecodeOiio(out)
                        : std::strcmp(c.name, "im-orient") == 0 ? Decode(oriented)
                                                                : Decode(out);
    ExpectNear(got, want, c.tolerance);
  }
  // Two pages: frame N is page N.
  const auto multi = dir / "multi.tif";
  ASSERT_TRUE(Sh("cd " + Quote(dir.path()) + " && convert c.png b.png -depth 16 -compress LZW " +
                 Quote(multi)));
  for (int page = 0; page < 2; ++page) {
    Rgba16 got;
    ASSERT_EQ(Read(multi, &got, page), S_OK);
    EXPECT_EQ(got.frames, 2);
    ExpectNear(got, Decode(multi, page), 0);
  }
#endif
}

TEST(TiffInterop, PeersReadOurFiles) {
  if (!VX_TEST_LIBTIFF) GTEST_SKIP() << "built without libtiff";
#ifdef _WIN32
  GTEST_SKIP() << "runs the peers through a POSIX shell";
#else
  if (!HaveTools()) GTEST_SKIP() << "ImageMagick, oiiotool or libtiff's tools are not installed";
  vxtest::TempDir dir;
  ASSERT_TRUE(
      Sh("cd " + Quote(dir.path()) +
         " && convert -seed 3 -size 41x19 plasma: \\( -size 41x19 gradient:gray95-gray20 \\) "
         "-alpha off -compose copy_opacity -composite -depth 16 a.png"
         " && convert a.png -alpha off c.png && convert c.png -colorspace gray g.png"));
  struct Case {
    const char* source;
    const char* depth;
    int tolerance;  // 8-bit files round to 257 steps, float ones to 1
  } sources[] = {{"a.png", "depth=16", 0},  {"c.png", "depth=8", 0},   {"g.png", "depth=16", 0},
                 {"a.png", "depth=32f", 1}, {"c.png", "depth=32f", 1}, {"g.png", "depth=8", 0}};
  for (const Case& s : sources) {
    // The source as we will write it: through our own reading of it by ImageMagick's decode.
    Rgba16 src = Decode(dir / s.source);
    if (std::strcmp(s.depth, "depth=8") == 0)
      for (auto& v : src.px) v = static_cast<std::uint16_t>((v + 128) / 257 * 257);
    for (const char* compression :
         {"compression=none", "compression=lzw", "compression=deflate", "compression=packbits"}) {
      SCOPED_TRACE(std::string(s.source) + " " + s.depth + " " + compression);
      const auto out = dir / "ours.tif";
      {
        Parser parser;
        ASSERT_EQ(parser->Open(vxtest::Wide(out).c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN),
                  S_OK);
        for (const char* o : {s.depth, compression})
          ASSERT_EQ(parser->SetOption(const_cast<VxChar*>(vx::FromUtf8(o).c_str()), VX_OPTION_TEXT),
                    S_OK);
        const bool grey = s.source[0] == 'g';
        vx::ComPtr<IVxImage> image;
        ASSERT_EQ(
            VxCreateImage(src.width, src.height, grey ? VX_PF_GRAY16 : VX_PF_RGBA16, image.put()),
            S_OK);
        for (int y = 0; y < src.height; ++y) {
          auto* row =
              reinterpret_cast<std::uint16_t*>(image->GetBuffer() + y * image->GetRowStride());
          for (int x = 0; x < src.width; ++x) {
            const std::uint16_t* p = src.px.data() + 4 * (std::size_t{1} * y * src.width + x);
            if (grey) {
              row[x] = p[0];
            } else {
              std::memcpy(row + 4 * x, p, 8);
            }
          }
        }
        ASSERT_EQ(parser->WriteImage(image.get(), 0), S_OK);
      }
      ExpectNear(Decode(out), src, s.tolerance);
      ExpectNear(DecodeOiio(out), src, s.tolerance);
      const std::string info = Output("tiffinfo " + Quote(out) + " 2>&1");
      EXPECT_NE(info.find("Software: vxprsr"), std::string::npos) << info;
      const std::string scheme = std::strstr(compression, "none")      ? "None"
                                 : std::strstr(compression, "lzw")     ? "LZW"
                                 : std::strstr(compression, "deflate") ? "AdobeDeflate"
                                                                       : "PackBits";
      EXPECT_NE(info.find("Compression Scheme: " + scheme), std::string::npos) << info;
      // tiffcp re-encodes our strips; tiffcmp finds the same samples in both.
      const auto copy = dir / "copy.tif";
      ASSERT_TRUE(Sh("tiffcp -c none " + Quote(out) + " " + Quote(copy)));
      EXPECT_TRUE(Sh("tiffcmp " + Quote(out) + " " + Quote(copy)));
    }
  }
#endif
}

// vxhost: options choose the compression, info shows the file's facts.
TEST(TiffInterop, VxhostWritesAndDescribes) {
  if (!VX_TEST_LIBTIFF) GTEST_SKIP() << "built without libtiff";
#ifdef _WIN32
  GTEST_SKIP() << "runs vxhost and ImageMagick through a POSIX shell";
#else
  if (!HaveTools()) GTEST_SKIP() << "ImageMagick, oiiotool or libtiff's tools are not installed";
  vxtest::TempDir dir;
  ASSERT_TRUE(Sh("convert -seed 5 -size 33x17 plasma: -depth 16 " + Quote(dir / "src.png") +
                 " && convert " + Quote(dir / "src.png") + " " + Quote(dir / "src.ppm")));
  auto r = vxtest::RunHost(dir.path(), "convert src.ppm t.tif --compression lzw --depth 16");
  ASSERT_EQ(r.code, 0) << r.err;
  ExpectNear(Decode(dir / "t.tif"), Decode(dir / "src.ppm"), 0);
  r = vxtest::RunHost(dir.path(), "info t.tif");
  EXPECT_NE(r.out.find("tiff:compression: lzw"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("tiff:predictor: horizontal"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("tiff:sample-format: uint"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("tiff:pages: 1"), std::string::npos) << r.out;
#endif
}

}  // namespace
