// The DPX/Cineon parser through its host interfaces: files of other writers (corpus, ImageMagick)
// against their decoded values, header faults, and the stream queries.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <tuple>
#include <nlohmann/json.hpp>

#include "base/bytes.h"
#include "vx/com_ptr.h"
#include "dpx_read_test_util.h"
#include "still/dpx/dpx_parser.h"
#include "test_util.h"

namespace {

// Parser with one reference, released with the holder.
struct Parser {
  CVxDPXFileParser* p;
  explicit Parser(bool dpx = true) : p(new CVxDPXFileParser(dpx ? 1 : 0)) { p->AddRef(); }
  ~Parser() { p->Release(); }
  CVxDPXFileParser* operator->() const { return p; }
  HRESULT Open(const std::filesystem::path& f) {
    return p->Open(vxtest::Wide(f).c_str(), VX_OPEN_NO_PATTERN);
  }
};

struct Image {
  IVxImage* p = nullptr;
  ~Image() {
    if (p) p->Release();
  }
  template <typename T = std::uint16_t>
  T At(int x, int y, int c) const {
    const int ch = VxPixelFormatChannels(p->GetPixelFormat());
    T v;
    std::memcpy(&v, p->GetBuffer() + y * p->GetRowStride() + (x * ch + c) * sizeof v, sizeof v);
    return v;
  }
};

tagVxImageStreamFormat Format(Parser& parser, HRESULT* hr) {
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  *hr = parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &f);
  return f;
}

// A whole file: header, then `data` at offset 2048.
std::filesystem::path WriteDpx(const std::filesystem::path& p, const dpxtest::Bytes& header,
                               const std::vector<std::uint8_t>& data) {
  std::vector<std::uint8_t> all = header.data;
  all.insert(all.end(), data.begin(), data.end());
  vxtest::WriteFile(p, all);
  return p;
}

bool HaveImageMagick() {
  return std::system("convert -version > /dev/null 2>&1") == 0;
}

// Reads `dpx` through the parser and compares every sample with want(x, y, channel), a 16-bit
// value, within `slack`.
void ExpectPixels(const std::filesystem::path& dpx, int width, int height, int channels,
                  const std::function<int(int, int, int)>& want, int slack = 0) {
  Parser parser;
  ASSERT_EQ(parser.Open(dpx), S_OK);
  Image img;
  ASSERT_EQ(parser->ReadImage(&img.p, 0), S_OK);
  ASSERT_EQ(img.p->GetWidth(), width);
  ASSERT_EQ(img.p->GetHeight(), height);
  ASSERT_EQ(VxPixelFormatChannels(img.p->GetPixelFormat()), channels);
  int bad = 0;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int k = 0; k < channels; ++k)
        if (std::abs(img.At(x, y, k) - want(x, y, k)) > slack && bad++ < 5)
          ADD_FAILURE() << "at " << x << "," << y << " channel " << k << ": " << img.At(x, y, k)
                        << " vs " << want(x, y, k);
  EXPECT_EQ(bad, 0);
}

}  // namespace

// ---- Files of other writers -----------------------------------------------------------------

TEST(DpxReadCorpus, MatchesOracle) {
  const auto corpus = vxtest::CorpusDir();
  if (corpus.empty()) GTEST_SKIP() << "no corpus folder";
  std::ifstream in(corpus / "oracle-oiio.jsonl");
  if (!in) GTEST_SKIP() << "no oracle";
  int checked = 0;
  std::string line;
  while (std::getline(in, line)) {
    const auto j = nlohmann::json::parse(line);
    const std::string file = j["file"];
    const bool dpx = file.starts_with("dpx/");
    if (!dpx && !file.starts_with("cineon/")) continue;
    SCOPED_TRACE(file);
    Parser parser(dpx);
    ASSERT_EQ(parser.Open(corpus / file), S_OK);
    HRESULT hr;
    const auto f = Format(parser, &hr);
    ASSERT_EQ(hr, S_OK);
    EXPECT_EQ(f.width, j["width"].get<DWORD>());
    EXPECT_EQ(f.height, j["height"].get<DWORD>());
    const int channels = j["channels"];
    EXPECT_EQ(f.channels, static_cast<DWORD>(channels));
    EXPECT_EQ(parser->HeaderState().maxBits, j["bits"].get<DWORD>());
    Image img;
    ASSERT_EQ(parser->ReadImage(&img.p, 0), S_OK);
    ASSERT_NE(img.p, nullptr);
    EXPECT_EQ(img.p->GetPixelFormat(), channels == 4 ? VX_PF_RGBA16 : VX_PF_RGB16);
    // The oracle scales 10-bit codes by 1/1023 as we do: half a code value of slack is
    // already a wrong code.
    for (const auto& s : j["samples"]) {
      const int x = s["x"], y = s["y_from_top"];
      for (int c = 0; c < channels; ++c) {
        const double want = s["v"][c];
        EXPECT_NEAR(img.At(x, y, c) / 65535.0, want, 0.5 / 1023) << x << "," << y << " c" << c;
      }
    }
    // The float path agrees.
    Image fl;
    ASSERT_EQ(VxCreateImage(0, 0, channels == 4 ? VX_PF_RGBAF32 : VX_PF_RGBF32, &fl.p), S_OK);
    ASSERT_EQ(parser->ReadImage(&fl.p, 0), S_OK);
    const auto& s0 = j["samples"][2];
    EXPECT_NEAR(fl.At<float>(s0["x"], s0["y_from_top"], 1), s0["v"][1].get<double>(), 0.5 / 1023);
    ++checked;
  }
  EXPECT_EQ(checked, 3);
}

TEST(DpxReadInterop, ImageMagickFiles) {
  if (!HaveImageMagick()) GTEST_SKIP() << "ImageMagick not installed";
  vxtest::TempDir dir;
  struct Case {
    const char* make;  // arguments that produce the picture
    int depth;
    const char* raw;  // ImageMagick's raw output kind
    int channels;
    // ImageMagick's own reading of 10-bit RGBA shifts codes up by 6 bits instead of scaling
    // them: compare within one code step there.
    int slack = 1;
    // ImageMagick fills 10-bit single-channel words first sample lowest; everyone else (and the
    // RGB elements of the same writer) put the first sample highest. The gray case is 6 wide so
    // that every word is whole.
    bool lumaWordsReversed = false;
  } cases[] = {{"-size 7x5 -seed 3 plasma:fractal", 8, "rgb", 3},
               {"-size 7x5 -seed 3 plasma:fractal", 10, "rgb", 3},
               {"-size 7x5 -seed 3 plasma:fractal", 12, "rgb", 3},
               {"-size 7x5 -seed 3 plasma:fractal", 16, "rgb", 3},
               {"-size 5x3 -seed 4 plasma:fractal -endian LSB", 10, "rgb", 3},
               {"-size 7x5 -seed 3 plasma:fractal ( -size 7x5 gradient: ) -alpha off -compose "
                "copy_opacity -composite",
                10, "rgba", 4, 65},
               {"-size 7x5 -seed 3 plasma:fractal ( -size 7x5 gradient: ) -alpha off -compose "
                "copy_opacity -composite",
                16, "rgba", 4},
               {"-size 6x5 -seed 3 plasma:fractal -colorspace gray", 10, "gray", 1, 1, true},
               {"-size 7x5 -seed 3 plasma:fractal -colorspace gray", 8, "gray", 1}};
  int n = 0;
  for (const Case& c : cases) {
    const auto dpx = dir / ("m" + std::to_string(n) + ".dpx");
    const auto raw = dir / ("m" + std::to_string(n) + ".raw");
    ++n;
    SCOPED_TRACE(std::string(c.make) + " depth " + std::to_string(c.depth));
    std::string make = std::string("convert ") + c.make + " -depth " + std::to_string(c.depth) +
                       " '" + dpx.string() + "'";
    // Shell parentheses need escaping.
    std::string cmd;
    for (char ch : make) {
      if (ch == '(' || ch == ')') cmd += '\\';
      cmd += ch;
    }
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    // ImageMagick takes DPX data as linear and would re-encode it on the way out; labelling it
    // sRGB hands back the stored code values.
    const std::string dump = "convert '" + dpx.string() +
                             "' -set colorspace sRGB -endian MSB -depth 16 " + c.raw + ":'" +
                             raw.string() + "'";
    ASSERT_EQ(std::system(dump.c_str()), 0);
    const auto want = vxtest::ReadFile(raw);
    const int w = std::stoi(c.make + 6), h = std::stoi(std::strchr(c.make, 'x') + 1);
    ASSERT_EQ(want.size(), static_cast<std::size_t>(w * h * c.channels * 2));
    ExpectPixels(
        dpx, w, h, c.channels,
        [&](int x, int y, int k) {
          const int ix = c.lumaWordsReversed ? x / 3 * 3 + 2 - x % 3 : x;
          const std::size_t i = (std::size_t(y) * w + ix) * c.channels + k;
          return want[2 * i] << 8 | want[2 * i + 1];
        },
        c.slack);
  }
}

// Lines that other writers end differently: oiiotool leaves 8-bit lines unpadded (31 x 3 bytes
// of RGB is not a whole number of 32-bit words), FFmpeg pads 16-bit ones. A picture defined here
// goes in as netpbm; our pixels must be what oiiotool itself reads back from its file (its own
// netpbm reading of 16-bit values is off by one in places), and the defined values for FFmpeg.
TEST(DpxReadInterop, OiiotoolAndFfmpegLineLengths) {
#ifdef _WIN32
  GTEST_SKIP() << "the oiiotool and FFmpeg interop runs on Linux";
#else
  vxtest::TempDir dir;
  struct Case {
    bool oiio;  // else FFmpeg
    int width, channels, bits;
  } cases[] = {
      {true, 31, 3, 8}, {true, 29, 1, 8}, {true, 31, 4, 8}, {true, 31, 3, 16}, {false, 31, 3, 16}};
  const bool haveOiio = std::system("oiiotool --version > /dev/null 2>&1") == 0;
  const bool haveFfmpeg = std::system("ffmpeg -version > /dev/null 2>&1") == 0;
  if (!haveOiio && !haveFfmpeg) GTEST_SKIP() << "neither oiiotool nor ffmpeg is installed";
  const int h = 5;
  auto value = [](int bits, int x, int y, int c) {
    return bits == 8 ? (x * 7 + y * 13 + c * 50) % 256 : (x * 2111 + y * 977 + c * 5003) % 65536;
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.oiio ? "oiiotool " : "ffmpeg ") + std::to_string(c.width) + "x" +
                 std::to_string(c.channels) + " " + std::to_string(c.bits) + " bit");
    if (!(c.oiio ? haveOiio : haveFfmpeg)) continue;
    // Colour (P6) and, for four channels, the alpha as a second grey file (P5).
    auto netpbm = [&](const std::filesystem::path& p, int first, int count) {
      const std::string head = (count == 1 ? "P5 " : "P6 ") + std::to_string(c.width) + " " +
                               std::to_string(h) + (c.bits == 8 ? " 255\n" : " 65535\n");
      std::vector<std::uint8_t> out(head.begin(), head.end());
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < c.width; ++x)
          for (int k = first; k < first + count; ++k) {
            const int v = value(c.bits, x, y, k);
            if (c.bits == 16) out.push_back(static_cast<std::uint8_t>(v >> 8));
            out.push_back(static_cast<std::uint8_t>(v));
          }
      vxtest::WriteFile(p, out);
    };
    const auto src = dir / "src.pnm", alpha = dir / "alpha.pgm", dpx = dir / "out.dpx";
    std::filesystem::remove(dpx);
    netpbm(src, 0, c.channels == 4 ? 3 : c.channels);
    std::string cmd;
    if (c.oiio) {
      cmd = "oiiotool " + vxtest::Quote(src);
      if (c.channels == 4) {
        netpbm(alpha, 3, 1);
        cmd += " " + vxtest::Quote(alpha) + " --chappend --chnames R,G,B,A";
      }
      cmd += std::string(" -d ") + (c.bits == 8 ? "uint8" : "uint16") + " -o " + vxtest::Quote(dpx);
    } else {
      cmd = "ffmpeg -loglevel error -y -i " + vxtest::Quote(src) + " -frames:v 1 -c:v dpx " +
            vxtest::Quote(dpx);
    }
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    // What oiiotool reads from the file it wrote: "    Pixel (x, y): v0 v1 ... (floats)".
    std::vector<int> peer(std::size_t(c.width) * h * c.channels, -1);
    if (c.oiio) {
      const std::string dump = "oiiotool --dumpdata " + vxtest::Quote(dpx);
      FILE* pipe = popen(dump.c_str(), "r");
      ASSERT_NE(pipe, nullptr);
      char line[512];
      while (std::fgets(line, sizeof line, pipe)) {
        int x, y, used = 0;
        if (std::sscanf(line, " Pixel (%d, %d):%n", &x, &y, &used) != 2 || x < 0 || y < 0 ||
            x >= c.width || y >= h)
          continue;
        const char* p = line + used;
        for (int k = 0; k < c.channels; ++k) {
          int n = 0;
          if (std::sscanf(p, "%d%n", &peer[(std::size_t(y) * c.width + x) * c.channels + k], &n) !=
              1)
            break;
          p += n;
        }
      }
      pclose(pipe);
    }

    ExpectPixels(dpx, c.width, h, c.channels, [&](int x, int y, int k) {
      const int v =
          c.oiio ? peer[(std::size_t(y) * c.width + x) * c.channels + k] : value(c.bits, x, y, k);
      return c.bits == 8 ? v * 257 : v;
    });
  }
#endif
}

// ---- Header faults through the parser -------------------------------------------------------

TEST(DpxReadFaults, BadFilesFailAndKeepNothing) {
  vxtest::TempDir dir;
  const auto good = dir / "good.dpx";
  WriteDpx(good, dpxtest::MakeDpxHeader({}), std::vector<std::uint8_t>(32, 0));
  // One header fault of each kind (the header reader's tests have them all), then picture data
  // that is not there: the default picture is 4x2 10-bit RGB method A, 16 bytes a line.
  using Recipe = dpxtest::DpxHeaderRecipe;
  const struct {
    const char* name;
    std::function<void(Recipe&)> change;
    bool headerFails;
    std::size_t dataBytes = 32, cut = 0;
    const char* magic = nullptr;
  } cases[] = {
      // clang-format off
      {"magic", [](Recipe&) {}, true, 32, 0, "ABCD"},
      {"no blue", [](Recipe& r) { r.elements = {{1}, {2}}; }, true},
      {"film header cut", [](Recipe&) {}, true, 0, 1800},
      {"data a byte short", [](Recipe&) {}, false, 31},
      {"offset past the end", [](Recipe& r) { r.elements[0].offset = 0x7FFFFFF0; }, false},
      {"huge", [](Recipe& r) { r.width = r.height = 0x40000000; }, false},
      {"absent", nullptr, true}
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto bad = dir / (std::string(c.name) + ".dpx");
    if (c.change) {
      Recipe recipe;
      c.change(recipe);
      auto b = dpxtest::MakeDpxHeader(recipe);
      if (c.magic) b.Text(0, c.magic);
      if (c.cut) b.data.resize(c.cut);
      WriteDpx(bad, b, std::vector<std::uint8_t>(c.dataBytes, 0xFF));
    }
    Parser parser;
    // A good file first, so that a failure has something it must not mix in.
    ASSERT_EQ(parser.Open(good), S_OK);
    HRESULT hr;
    Format(parser, &hr);
    ASSERT_EQ(hr, S_OK);
    ASSERT_EQ(parser.Open(bad), S_OK);
    Format(parser, &hr);
    EXPECT_EQ(hr, c.headerFails ? E_FAIL : S_OK);
    EXPECT_EQ(parser->HeaderLoaded(), !c.headerFails);
    Image img;
    ASSERT_EQ(VxCreateImage(4, 2, VX_PF_RGB16, &img.p), S_OK);
    std::memset(img.p->GetBuffer(), 0x5A, img.p->GetRowStride() * 2);
    EXPECT_EQ(parser->ReadImage(&img.p, 0), E_FAIL);
    EXPECT_EQ(img.At(0, 0, 0), 0x5A5A);
    IVxImage* none = nullptr;
    EXPECT_EQ(parser->ReadImage(&none, 0), E_FAIL);
    EXPECT_EQ(none, nullptr);
  }
}

// ---- Stream queries and layouts -------------------------------------------------------------

TEST(DpxReadParser, StreamFormatAndQueries) {
  vxtest::TempDir dir;
  auto b = dpxtest::MakeDpxHeader({.big = false, .width = 3, .height = 1});
  b.F32(1940, 25.0f);
  b.U8(1928, 1);
  b.U8(1929, 1);
  b.U32(1628, 16);
  b.U32(1632, 15);
  b.U32(1920, 0x10203040);
  b.Text(1556, "Telecine 2");
  const auto p = WriteDpx(dir / "q.dpx", b,
                          dpxtest::EncodeFilled10({1023, 0, 512, 1, 2, 3, 4, 5, 6}, true, false));
  Parser parser;
  ASSERT_EQ(parser.Open(p), S_OK);
  HRESULT hr;
  auto f = Format(parser, &hr);
  ASSERT_EQ(hr, S_OK);
  // frame count, size, channels, bits a pixel, planes, alpha, field mode, format
  EXPECT_EQ(std::tuple(f.frameCount, f.width, f.height, f.channels, f.bitsPerPixel, f.planes,
                       f.hasAlpha, f.fieldMode, f.pixelFormat),
            std::tuple(1u, 3u, 1u, 3u, 30u, 1u, 0u, 1, VX_PF_RGB16));
  EXPECT_DOUBLE_EQ(f.frameRate, 25.0);
  EXPECT_DOUBLE_EQ(f.pixelAspect, 16.0 / 15.0);

  tagVxImageStreamFormat wrong{};
  wrong.cbSize = 55;
  EXPECT_EQ(parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &wrong), E_INVALIDARG);
  EXPECT_EQ(parser->GetStreamFormat(VX_STREAM_SOUND, 0, &f), E_INVALIDARG);

  DWORD caps = 1;
  EXPECT_EQ(parser->GetStreamCapabilities(0, VX_STREAM_PICTURE, &caps), S_OK);
  EXPECT_EQ(caps, 170u);
  EXPECT_EQ(parser->GetStreamCapabilities(0, VX_STREAM_SOUND, &caps), S_OK);
  EXPECT_EQ(caps, 0u);

  CVxTime start, end;
  EXPECT_EQ(parser->GetTimeRange(VX_STREAM_PICTURE, &start, &end), S_OK);
  EXPECT_EQ(end.Ticks(), kVxTicksPerSecond / 25);
  EXPECT_EQ(parser->GetTimeRange(VX_STREAM_SOUND, &start, &end), S_FALSE);

  DWORD bcd = 0;
  EXPECT_EQ(parser->GetTimeCode(0, &bcd), S_OK);
  EXPECT_EQ(bcd, 0x10203040u);
  EXPECT_EQ(parser->SetFlag(0, 1), S_OK);
  EXPECT_EQ(parser->GetTimeCode(0, &bcd), S_FALSE);
  EXPECT_EQ(parser->SetFlag(0, 0), S_OK);

  VxChar name[64];
  EXPECT_EQ(parser->GetCompressionName(name, 64), S_OK);
  EXPECT_EQ(vx::ToUtf8(name), "10 bit RGB, Fill Method A");
  EXPECT_EQ(parser->GetCompressionName(name, 4), S_OK);
  EXPECT_EQ(vx::ToUtf8(name), "10 ");
  EXPECT_EQ(parser->GetCompressionName(nullptr, 4), E_INVALIDARG);
  EXPECT_EQ(parser->GetInputDevice(name, 64), S_OK);
  EXPECT_EQ(vx::ToUtf8(name), "Telecine 2");

  VxLevelSet levels{};
  EXPECT_EQ(parser->GetLevels(&levels), S_OK);
  EXPECT_DOUBLE_EQ(levels.whiteLevel, 1023.0);
  DWORD transfer = 0;
  EXPECT_EQ(parser->GetTransferCharacteristic(&transfer), S_OK);
  EXPECT_EQ(transfer, 2u);

  // The host imposes rate and field mode.
  tagVxImageStreamFormat impose = f;
  impose.frameRate = 50.0;
  impose.fieldMode = VX_FIELD_PROGRESSIVE;
  impose.pixelAspect = 2.0;
  EXPECT_EQ(parser->SetStreamFormat(VX_STREAM_PICTURE, 0, &impose), S_OK);
  f = Format(parser, &hr);
  EXPECT_DOUBLE_EQ(f.frameRate, 50.0);
  EXPECT_EQ(f.fieldMode, VX_FIELD_PROGRESSIVE);

  Image img;
  ASSERT_EQ(parser->ReadImage(&img.p, 0), S_OK);
  EXPECT_EQ(img.At(0, 0, 0), 65535);
  EXPECT_EQ(img.At(1, 0, 0), 64);
  EXPECT_EQ(img.At(2, 0, 2), 384);  // code 6: 384.37
  EXPECT_DOUBLE_EQ(img.p->GetPixelAspect(), 2.0);
  EXPECT_EQ(img.p->GetFieldMode(), VX_FIELD_PROGRESSIVE);

  // The report refuses buffers below 768 characters; its text has its own tests.
  std::vector<VxChar> report(4096);
  EXPECT_EQ(parser->GetHeaderReport(report.data(), 767), E_INVALIDARG);
  ASSERT_EQ(parser->GetHeaderReport(report.data(), 4096), S_OK);
  EXPECT_NE(vx::ToUtf8(report.data()).find("input device name: Telecine 2\r\n"), std::string::npos);
  for (const IID* iid : {&IID_IVxParserSourceInfo, &IID_IVxColorManagedParser,
                         &IID_IVxParserLUTInfo, &IID_IVxImageStreamParser}) {
    vx::ComPtr<IUnknown> u;
    EXPECT_EQ(parser->QueryInterface(*iid, reinterpret_cast<void**>(u.put())), S_OK);
    EXPECT_TRUE(u);
  }
}

TEST(DpxReadParser, CompressionNamesAndNativeFormats) {
  vxtest::TempDir dir;
  using dpxtest::Element;
  // Descriptor, depth, packing 0; all elements share the data.
  struct Case {
    std::vector<Element> elements;
    const char* name;
    VxPixelFormat native;
  } cases[] = {
      // clang-format off
      {{{51, 16, 0}}, "16 bit RGBA", VX_PF_RGBA16}, {{{52, 8, 0}}, "8 bit BGRA", VX_PF_RGBA16},
      {{{53, 8, 0}}, "8 bit BGR", VX_PF_RGB16},
      {{{50, 12, 0}, {4, 12, 0}}, "12 bit RGB+A, Packed", VX_PF_RGBA16},
      {{{53, 16, 0}, {4, 16, 0}}, "16 bit BGR+A", VX_PF_RGBA16},
      {{{1, 8, 0}, {2, 8, 0}, {3, 8, 0}}, "8 bit R+G+B", VX_PF_RGB16},
      {{{1, 32, 0}, {2, 32, 0}, {3, 32, 0}, {4, 32, 0}}, "32 bit R+G+B+A", VX_PF_RGBAF32},
      {{{6, 16, 0}}, "16 bit Y", VX_PF_GRAY16}, {{{50, 32, 0}}, "32 bit RGB", VX_PF_RGBF32}
      // clang-format on
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto p = WriteDpx(dir / ("c" + std::to_string(n++) + ".dpx"),
                            dpxtest::MakeDpxHeader({.elements = c.elements}),
                            std::vector<std::uint8_t>(4 * 2 * 4 * 4, 0));
    Parser parser;
    ASSERT_EQ(parser.Open(p), S_OK);
    VxChar name[64];
    ASSERT_EQ(parser->GetCompressionName(name, 64), S_OK);
    EXPECT_EQ(vx::ToUtf8(name), c.name);
    EXPECT_EQ(parser->NativeFormat(), c.native);
    Image img;
    ASSERT_EQ(parser->ReadImage(&img.p, 0), S_OK);
    EXPECT_EQ(img.p->GetPixelFormat(), c.native);
  }
}

TEST(DpxReadParser, PlanarAndConversion) {
  vxtest::TempDir dir;
  // Planar 16-bit big-endian red, green, blue, alpha: 2x1 pixels, four-byte lines.
  dpxtest::DpxHeaderRecipe recipe{.width = 2, .height = 1, .elements = {}};
  const std::uint32_t values[4][2] = {{1, 2}, {300, 400}, {65535, 0}, {32768, 16384}};
  for (std::uint8_t c = 0; c < 4; ++c)
    recipe.elements.push_back(
        {.descriptor = std::uint8_t(c + 1), .bits = 16, .packing = 0, .offset = 2048 + 4u * c});
  const auto p = WriteDpx(dir / "planar.dpx", dpxtest::MakeDpxHeader(recipe),
                          dpxtest::Encode16({1, 2, 300, 400, 65535, 0, 32768, 16384}, true));
  Parser parser;
  ASSERT_EQ(parser.Open(p), S_OK);
  Image img;
  ASSERT_EQ(parser->ReadImage(&img.p, 0), S_OK);
  for (int c = 0; c < 4; ++c) {
    EXPECT_EQ(img.At(0, 0, c), values[c][0]) << c;
    EXPECT_EQ(img.At(1, 0, c), values[c][1]) << c;
  }
  // An 8-bit caller image goes through the host's conversion.
  Image small;
  ASSERT_EQ(VxCreateImage(0, 0, VX_PF_RGBA8, &small.p), S_OK);
  ASSERT_EQ(parser->ReadImage(&small.p, 0), S_OK);
  EXPECT_EQ(small.p->GetWidth(), 2);
  EXPECT_EQ(small.p->GetBuffer()[2], 255);  // blue of pixel 0
  // Into an RGB16 image the alpha element is dropped.
  Image rgb;
  ASSERT_EQ(VxCreateImage(2, 1, VX_PF_RGB16, &rgb.p), S_OK);
  ASSERT_EQ(parser->ReadImage(&rgb.p, 0), S_OK);
  EXPECT_EQ(rgb.At(1, 0, 1), 400);
}

TEST(DpxReadParser, SequenceReadsEachFileOnce) {
  vxtest::TempDir dir;
  for (int i = 1; i <= 3; ++i) {
    char n[32];
    std::snprintf(n, sizeof n, "shot.%04d.dpx", i);
    WriteDpx(
        dir / n,
        dpxtest::MakeDpxHeader({.width = std::uint32_t(i), .height = 1, .elements = {{50, 8, 0}}}),
        std::vector<std::uint8_t>(12, static_cast<std::uint8_t>(i * 10)));
  }
  Parser parser;
  ASSERT_EQ(parser->Open(vxtest::Wide(dir / "shot.####.dpx").c_str(), 0), S_OK);
  HRESULT hr;
  const auto f = Format(parser, &hr);
  ASSERT_EQ(hr, S_OK);
  EXPECT_EQ(f.frameCount, 3u);
  CVxTime start, end;
  ASSERT_EQ(parser->GetTimeRange(VX_STREAM_PICTURE, &start, &end), S_OK);
  EXPECT_EQ(end.Ticks(), 3 * kVxTicksPerSecond / 24);  // no rate in the files: 24 fps
  for (int frame = 0; frame < 3; ++frame) {
    Image img;
    ASSERT_EQ(parser->ReadImage(&img.p, frame), S_OK);
    EXPECT_EQ(img.p->GetWidth(), frame + 1);
    EXPECT_EQ(img.At(0, 0, 0), (frame + 1) * 10 * 257);
  }
  Image img;
  EXPECT_EQ(parser->ReadImage(&img.p, 3), E_INVALIDARG);
}

TEST(CineonReadParser, ReadsAndRefusesWrites) {
  vxtest::TempDir dir;
  const auto p =
      WriteDpx(dir / "a.cin", dpxtest::MakeCineonHeader({.width = 2, .height = 2}),
               dpxtest::EncodeFilled10({1023, 512, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, true, true));
  Parser parser(false);
  ASSERT_EQ(parser.Open(p), S_OK);
  HRESULT hr;
  const auto f = Format(parser, &hr);
  ASSERT_EQ(hr, S_OK);
  EXPECT_EQ(f.fieldMode, 3);
  EXPECT_DOUBLE_EQ(f.frameRate, 24.0);
  EXPECT_DOUBLE_EQ(f.pixelAspect, -1.0);
  Image img;
  ASSERT_EQ(parser->ReadImage(&img.p, 0), S_OK);
  EXPECT_EQ(img.At(0, 0, 0), 65535);
  EXPECT_EQ(img.At(0, 0, 1), 32800);
  EXPECT_EQ(img.At(1, 1, 2), 577);  // code 9: 576.55
  EXPECT_EQ(parser->WriteImage(img.p, 0), E_NOTIMPL);
  DWORD transfer = 0;
  EXPECT_EQ(parser->GetTransferCharacteristic(&transfer), S_OK);
  EXPECT_EQ(transfer, 3u);
  // A DPX file is not a Cineon file.
  Parser wrong(false);
  ASSERT_EQ(wrong.Open(WriteDpx(dir / "x.dpx", dpxtest::MakeDpxHeader({}), {})), S_OK);
  Format(wrong, &hr);
  EXPECT_EQ(hr, E_FAIL);
}

TEST(DpxReadParser, WriterTakesNothingFromTheLastReadHeader) {
  // A parser that read a file with a time code, a rate and a 12-bit depth writes a frame: the
  // written file carries none of them, only what the host set (here: nothing but the pixels).
  vxtest::TempDir dir;
  auto header = dpxtest::MakeDpxHeader({.width = 2, .height = 1, .elements = {{50, 12, 1}}});
  header.U32(1920, 0x01020304);
  header.F32(1940, 25.0f);
  const auto in = dir / "in.dpx", out = dir / "out.dpx";
  WriteDpx(in, header, std::vector<std::uint8_t>(12, 0x11));
  Parser parser;
  ASSERT_EQ(parser.Open(in), S_OK);
  Image img;
  ASSERT_EQ(parser->ReadImage(&img.p, 0), S_OK);
  ASSERT_EQ(parser->Open(vxtest::Wide(out).c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN), S_OK);
  ASSERT_EQ(parser->WriteImage(img.p, 0), S_OK);
  const auto f = vxtest::ReadFile(out);
  ASSERT_GE(f.size(), 2048u);
  EXPECT_EQ(f[803], 16);  // the image's depth, not the file's 12 bits
  EXPECT_EQ(vx::Load32(f.data() + 1920, true), 0xFFFFFFFFu);  // no time code
  EXPECT_EQ(vx::Load32(f.data() + 1940, true), 0xFFFFFFFFu);  // no rate
  Parser cineon(false);
  EXPECT_EQ(cineon->WriteImage(nullptr, 0), E_POINTER);
}

// An imposed alpha gives an opaque channel; column orientation turns the reported size.
TEST(DpxReadParser, ImposedAlphaAndColumnOrientation) {
  vxtest::TempDir dir;
  for (const bool turned : {false, true}) {
    SCOPED_TRACE(turned ? "turned" : "alpha");
    // Turned: 3 samples a line, the picture's height.
    const auto header =
        turned ? dpxtest::MakeDpxHeader(
                     {.width = 3, .height = 2, .orientation = 5, .elements = {{6, 16, 0}}})
               : dpxtest::MakeDpxHeader({.width = 2, .height = 1, .elements = {{50, 16, 0}}});
    Parser parser;
    ASSERT_EQ(
        parser.Open(WriteDpx(dir / "x.dpx", header, dpxtest::Encode16({1, 2, 3, 4, 5, 6}, true))),
        S_OK);
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    f.hasAlpha = 1;
    ASSERT_EQ(turned ? S_OK : parser->SetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
    HRESULT hr;
    f = Format(parser, &hr);
    ASSERT_EQ(hr, S_OK);
    EXPECT_EQ(f.width, 2u);
    EXPECT_EQ(f.height, turned ? 3u : 1u);
    Image img;
    ASSERT_EQ(parser->ReadImage(&img.p, 0), S_OK);
    if (turned) {
      // Lines right to left, each top to bottom: the first line is the right column.
      EXPECT_EQ(img.At(1, 0, 0), 1);
      EXPECT_EQ(img.At(0, 2, 0), 6);
    } else {
      ASSERT_EQ(img.p->GetPixelFormat(), VX_PF_RGBA16);
      EXPECT_EQ(img.At(1, 0, 0), 4);
      EXPECT_EQ(img.At(1, 0, 3), 65535);
    }
  }
}
