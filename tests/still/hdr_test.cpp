// Radiance HDR through the parser: hand-laid files for the header, run-length, flat and
// repeat-pixel scanlines and their faults; the writer's exact bytes; and files of OpenImageIO
// and ImageMagick both ways.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "still/hdr/hdr_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Parser {
  CVxHdrFileParser* p = new CVxHdrFileParser;
  Parser() { p->AddRef(); }
  ~Parser() { p->Release(); }
  CVxHdrFileParser* operator->() const { return p; }
  HRESULT Open(const std::filesystem::path& f, DWORD flags = 0) {
    return p->Open(vxtest::Wide(f).c_str(), flags | VX_OPEN_NO_PATTERN);
  }
  HRESULT Option(const char* text) {
    const VxString t = vx::FromUtf8(text);
    return p->SetOption(const_cast<VxChar*>(t.c_str()), VX_OPTION_TEXT);
  }
};

// Float RGBA pixels, top row first.
struct Picture {
  int width = 0, height = 0;
  std::vector<float> rgba;
  const float* At(int x, int y) const {
    return &rgba[(static_cast<std::size_t>(y) * width + x) * 4];
  }
};

HRESULT ReadPicture(const std::filesystem::path& file, Picture* out, const char* option = nullptr) {
  Parser parser;
  if (HRESULT hr = parser.Open(file); FAILED(hr)) return hr;
  if (option) parser.Option(option);
  vx::ComPtr<IVxImage> image;
  if (HRESULT hr = parser->ReadImage(image.put(), 0); FAILED(hr)) return hr;
  if (image->GetPixelFormat() != VX_PF_RGBAF32) return E_UNEXPECTED;
  out->width = image->GetWidth();
  out->height = image->GetHeight();
  out->rgba.resize(static_cast<std::size_t>(out->width) * out->height * 4);
  for (int y = 0; y < out->height; ++y)
    std::memcpy(&out->rgba[static_cast<std::size_t>(y) * out->width * 4],
                image->GetBuffer() + static_cast<std::size_t>(y) * image->GetRowStride(),
                static_cast<std::size_t>(out->width) * 16);
  return S_OK;
}

HRESULT WritePicture(const std::filesystem::path& file, const Picture& pic,
                     const char* option = "linear=1") {
  vx::ComPtr<IVxImage> image;
  if (HRESULT hr = VxCreateImage(pic.width, pic.height, VX_PF_RGBAF32, image.put()); FAILED(hr))
    return hr;
  for (int y = 0; y < pic.height; ++y)
    std::memcpy(image->GetBuffer() + static_cast<std::size_t>(y) * image->GetRowStride(),
                pic.At(0, y), static_cast<std::size_t>(pic.width) * 16);
  Parser parser;
  if (HRESULT hr = parser.Open(file, VX_OPEN_WRITE); FAILED(hr)) return hr;
  if (option) parser.Option(option);
  return parser->WriteImage(image.get(), 0);
}

// (m + 0.5) * 2^(e - 136): what an RGBE byte stands for, worked out here rather than taken from
// the decoder.
float Rgbe(int m, int e) {
  return e == 0 ? 0.0f : static_cast<float>((m + 0.5) * std::pow(2.0, e - 136));
}

Bytes Text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
// A run-length scanline of one colour: four component runs.
Bytes RleLine(int width, int r, int g, int b, int e) {
  Bytes line = {2, 2, static_cast<std::uint8_t>(width >> 8), static_cast<std::uint8_t>(width)};
  for (int v : {r, g, b, e}) {
    for (int left = width; left > 0; left -= 127) {
      line.push_back(static_cast<std::uint8_t>(128 + std::min(left, 127)));
      line.push_back(static_cast<std::uint8_t>(v));
    }
  }
  return line;
}
Bytes Repeat(const Bytes& b, int n) {
  Bytes all;
  for (int i = 0; i < n; ++i) all = all + b;
  return all;
}
const Bytes kHead = Text("#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n");

TEST(HdrRead, HeaderScanlinesAndFaultsByTable) {
  vxtest::TempDir dir;
  const Bytes pixelA = {200, 100, 50, 130};
  struct Case {
    const char* name;
    Bytes file;
    HRESULT read;
    int width, height;
    // Pixel (x, y) should hold RGBE (m..., e); -1 checks nothing.
    int x, y, mr, mg, mb, e;
    const char* option;
  } cases[] = {
      {"y-positive refused", kHead + Text("+Y 10 +X 20\n") + Repeat(RleLine(20, 1, 2, 3, 130), 10),
       E_FAIL, 0, 0, -1, 0, 0, 0, 0, 0, nullptr},
      {"x first refused", kHead + Text("+X 20 -Y 10\n") + Repeat(RleLine(20, 1, 2, 3, 130), 10),
       E_FAIL, 0, 0, -1, 0, 0, 0, 0, 0, nullptr},
      {"-Y 10 +X 20 is 20 x 10",
       kHead + Text("-Y 10 +X 20\n") + Repeat(RleLine(20, 9, 8, 7, 131), 10), S_OK, 20, 10, 19, 9,
       9, 8, 7, 131, nullptr},
      {"no magic", Text("#!RADIANCE\n\n-Y 1 +X 1\n") + pixelA, E_FAIL, 0, 0, -1, 0, 0, 0, 0, 0,
       nullptr},
      {"no resolution line", kHead, E_FAIL, 0, 0, -1, 0, 0, 0, 0, 0, nullptr},
      {"zero width", kHead + Text("-Y 1 +X 0\n") + pixelA, E_FAIL, 0, 0, -1, 0, 0, 0, 0, 0,
       nullptr},
      {"foreign format still reads",
       Text("#?RADIANCE\nFORMAT=32-bit_rle_xyze\n\n-Y 1 +X 1\n") + pixelA, S_OK, 1, 1, 0, 0, 200,
       100, 50, 130, nullptr},
      {"flat pixels",
       kHead + Text("-Y 2 +X 2\n") + pixelA + Bytes{1, 2, 3, 4, 5, 6, 7, 8} + pixelA + pixelA, S_OK,
       2, 2, 1, 0, 1, 2, 3, 4, nullptr},
      {"exponent 0 is black", kHead + Text("-Y 1 +X 1\n") + Bytes{200, 100, 50, 0}, S_OK, 1, 1, 0,
       0, 0, 0, 0, 0, nullptr},
      {"run-length line", kHead + Text("-Y 1 +X 8\n") + RleLine(8, 128, 64, 32, 129), S_OK, 8, 1, 7,
       0, 128, 64, 32, 129, nullptr},
      // Exposure 1 doubles: the exponent one up.
      {"exposure 1 doubles", kHead + Text("-Y 1 +X 8\n") + RleLine(8, 128, 64, 32, 129), S_OK, 8, 1,
       7, 0, 128, 64, 32, 130, "exposure=1"},
      // A run pixel repeats the one before 1 << 0, then 2 << 8 times: 1 + 1 + 512 pixels.
      {"repeat-pixel runs", kHead + Text("-Y 1 +X 514\n") + pixelA + Bytes{1, 1, 1, 1, 1, 1, 1, 2},
       S_OK, 514, 1, 513, 0, 200, 100, 50, 130, nullptr},
      {"repeat run overflows",
       kHead + Text("-Y 1 +X 513\n") + pixelA + Bytes{1, 1, 1, 1, 1, 1, 1, 2}, E_FAIL, 0, 0, -1, 0,
       0, 0, 0, 0, nullptr},
      {"repeat with nothing before", kHead + Text("-Y 1 +X 4\n") + Bytes{1, 1, 1, 4}, E_FAIL, 0, 0,
       -1, 0, 0, 0, 0, 0, nullptr},
      {"truncated flat", kHead + Text("-Y 2 +X 2\n") + pixelA + pixelA + pixelA, E_FAIL, 0, 0, -1,
       0, 0, 0, 0, 0, nullptr},
      {"truncated run-length", kHead + Text("-Y 1 +X 8\n") + Bytes{2, 2, 0, 8, 136, 1, 136, 2, 136},
       E_FAIL, 0, 0, -1, 0, 0, 0, 0, 0, nullptr},
      {"run past the line",
       kHead + Text("-Y 1 +X 8\n") + Bytes{2, 2, 0, 8, 137, 1} + Bytes{136, 2, 136, 3, 136, 4},
       E_FAIL, 0, 0, -1, 0, 0, 0, 0, 0, nullptr},
      {"literals past the line",
       kHead + Text("-Y 1 +X 8\n") + Bytes{2, 2, 0, 8, 9} + Bytes(9, 7) +
           Bytes{136, 2, 136, 3, 136, 4},
       E_FAIL, 0, 0, -1, 0, 0, 0, 0, 0, nullptr},
      {"huge picture on a tiny file", kHead + Text("-Y 65535 +X 65535\n") + pixelA, E_FAIL, 0, 0,
       -1, 0, 0, 0, 0, 0, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto file = dir / "t.hdr";
    vxtest::WriteFile(file, c.file);
    Parser parser;
    ASSERT_EQ(parser.Open(file), S_OK);
    if (c.option) {
      ASSERT_EQ(parser.Option(c.option), S_OK);
    }
    // A failed read leaves the caller's picture as it was.
    vx::ComPtr<IVxImage> image;
    ASSERT_EQ(VxCreateImage(2, 2, VX_PF_RGBAF32, image.put()), S_OK);
    std::memset(image->GetBuffer(), 0x55, static_cast<std::size_t>(image->GetRowStride()) * 2);
    IVxImage* dst = image.get();
    ASSERT_EQ(parser->ReadImage(&dst, 0), c.read);
    if (FAILED(c.read)) {
      EXPECT_EQ(image->GetWidth(), 2);
      EXPECT_EQ(image->GetBuffer()[0], 0x55);
      continue;
    }
    ASSERT_EQ(image->GetWidth(), c.width);
    ASSERT_EQ(image->GetHeight(), c.height);
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    ASSERT_EQ(parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
    EXPECT_EQ(f.width, static_cast<DWORD>(c.width));
    EXPECT_EQ(f.height, static_cast<DWORD>(c.height));
    if (c.x < 0) continue;
    float px[4];
    std::memcpy(px, image->GetBuffer() + c.y * image->GetRowStride() + c.x * 16, 16);
    EXPECT_EQ(px[0], Rgbe(c.mr, c.e));
    EXPECT_EQ(px[1], Rgbe(c.mg, c.e));
    EXPECT_EQ(px[2], Rgbe(c.mb, c.e));
    EXPECT_EQ(px[3], 1.0f);
  }
}

// Pixels whose green is the largest channel at exponent 130, so each mantissa encodes back to
// itself; the red mantissas lay out the run-length cases.
Picture Row(const std::vector<int>& red, int green = 200, int blue = 100) {
  Picture p;
  p.width = static_cast<int>(red.size());
  p.height = 1;
  for (int m : red) {
    for (float v : {Rgbe(m, 130), Rgbe(green, 130), Rgbe(blue, 130), 1.0f}) p.rgba.push_back(v);
  }
  return p;
}

TEST(HdrWrite, ExactBytes) {
  vxtest::TempDir dir;
  const auto file = dir / "w.hdr";
  const Bytes head = Text("#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n");
  struct Case {
    const char* name;
    Picture picture;
    Bytes lines;  // everything after the resolution line
  } cases[] = {
      // 30 30 and 70 70 70 are too short for runs; 5 5 stands just before a run.
      {"run-length rules", Row({10, 20, 30, 30, 40, 40, 40, 40, 40, 5, 5, 9, 9, 9, 9, 1}),
       Bytes{2, 2,   0, 16, 4, 10,  20,  30,  30,  133, 40, 130,
             5, 132, 9, 1,  1, 144, 200, 144, 100, 144, 130}},
      {"width 8 runs", Row({1, 1, 1, 1, 1, 1, 1, 1}),
       Bytes{2, 2, 0, 8, 136, 1, 136, 200, 136, 100, 136, 130}},
      {"width 7 flat", Row({1, 2, 3, 4, 5, 6, 7}),
       Bytes{1,   200, 100, 130, 2,   200, 100, 130, 3,   200, 100, 130, 4,   200,
             100, 130, 5,   200, 100, 130, 6,   200, 100, 130, 7,   200, 100, 130}},
      {"black, negative and tiny",
       [] {
         Picture p = Row({1, 1, 1, 1, 1, 1, 1});
         for (int x = 0; x < 7; ++x)
           p.rgba[x * 4 + 1] = p.rgba[x * 4 + 2] = p.rgba[x * 4] = x == 0   ? 0.0f
                                                                   : x == 1 ? -1.0f
                                                                            : 1e-33f;
         p.width = 3;
         p.rgba.resize(12);
         return p;
       }(),
       Bytes(12, 0)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(WritePicture(file, c.picture), S_OK);
    const std::string res = "-Y 1 +X " + std::to_string(c.picture.width) + "\n";
    EXPECT_EQ(vxtest::ReadFile(file), head + Text(res) + c.lines);
  }
  // Without the linear flag the display curve comes off first: 0.5 is sRGB for 0.214041.
  Picture grey = Row({0, 0, 0, 0, 0, 0, 0, 0});
  for (float& v : grey.rgba) v = v == 1.0f ? 1.0f : 0.5f;
  ASSERT_EQ(WritePicture(file, grey, nullptr), S_OK);
  Picture back;
  ASSERT_EQ(ReadPicture(file, &back), S_OK);
  EXPECT_NEAR(back.At(7, 0)[1], 0.214041, 0.214041 / 128);
  // A failed write leaves nothing behind.
  Parser parser;
  ASSERT_EQ(parser.Open(dir / "missing" / "x.hdr", VX_OPEN_WRITE), S_OK);
  vx::ComPtr<IVxImage> image;
  ASSERT_EQ(VxCreateImage(8, 1, VX_PF_RGBAF32, image.put()), S_OK);
  EXPECT_EQ(parser->WriteImage(image.get(), 0), E_FAIL);
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

TEST(HdrRead, HeaderLinesBecomeMetadata) {
  vxtest::TempDir dir;
  const auto file = dir / "m.hdr";
  vxtest::WriteFile(file, Text("#?RADIANCE\nEXPOSURE=2\nEXPOSURE=1.5\nPRIMARIES=0.64 0.33 0.3 "
                               "0.6 0.15 0.06 0.3127 0.329\nPIXASPECT=0.5\nFORMAT=32-bit_rle_rgbe\n"
                               "\n-Y 1 +X 1\n") +
                              Bytes{1, 2, 3, 130});
  Parser parser;
  ASSERT_EQ(parser.Open(file), S_OK);
  vx::ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  ASSERT_EQ(parser->GetMetadata(-1, md.get()), S_OK);
  EXPECT_EQ(vx::md::GetText(md.get(), "hdr:exposure"), "3");
  EXPECT_EQ(vx::md::GetText(md.get(), "hdr:format"), "32-bit_rle_rgbe");
  EXPECT_EQ(vx::md::GetText(md.get(), "hdr:primaries"), "0.64 0.33 0.3 0.6 0.15 0.06 0.3127 0.329");
  const VxMetadataRecord r = vx::md::GetRecord(md.get());
  ASSERT_TRUE(r.present & VX_MD_CHROMATICITIES);
  EXPECT_EQ(r.chromaticities[2], 0.3);
  EXPECT_EQ(r.chromaticities[7], 0.329);
  ASSERT_TRUE(r.present & VX_MD_ASPECT);
  EXPECT_EQ(r.pixelAspect, 2.0);  // the file says height over width
  EXPECT_EQ(r.transfer, static_cast<DWORD>(VX_TRANSFER_LINEAR));
  EXPECT_EQ(parser.Option("exposure=abc"), E_INVALIDARG);
  EXPECT_EQ(parser.Option("linear=2"), E_INVALIDARG);
  EXPECT_EQ(parser.Option("depth=10"), S_FALSE);
}

// ---- Other writers and readers ------------------------------------------------------------

bool Have(const char* tool) {
  return std::system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()) == 0;
}

bool Shell(const std::string& cmd) {
  return std::system((cmd + " 2>/dev/null").c_str()) == 0;
}

// A decoder of our own for the test: header skipped to the resolution line, then run-length or
// flat scanlines (neither tool writes repeat-pixel runs) into RGBE bytes.
bool TinyDecode(const Bytes& f, int* w, int* h, Bytes* rgbe) {
  std::size_t at = 0;
  auto line = [&] {
    std::string s;
    while (at < f.size() && f[at] != '\n') s += static_cast<char>(f[at++]);
    ++at;
    return s;
  };
  while (at < f.size() && !line().empty()) {
  }
  if (std::sscanf(line().c_str(), "-Y %d +X %d", h, w) != 2) return false;
  rgbe->assign(static_cast<std::size_t>(*w) * *h * 4, 0);
  for (int y = 0; y < *h; ++y) {
    std::uint8_t* row = rgbe->data() + static_cast<std::size_t>(y) * *w * 4;
    if (at + 4 > f.size()) return false;
    if (f[at] == 2 && f[at + 1] == 2 && (f[at + 2] << 8 | f[at + 3]) == *w) {
      at += 4;
      for (int c = 0; c < 4; ++c) {
        for (int x = 0; x < *w;) {
          if (at >= f.size()) return false;
          int n = f[at++];
          const bool run = n > 128;
          if (run) n -= 128;
          for (int i = 0; i < n && x < *w; ++i, ++x) row[x * 4 + c] = f[run ? at : at++];
          if (run) ++at;
        }
      }
    } else {
      if (at + static_cast<std::size_t>(*w) * 4 > f.size()) return false;
      std::memcpy(row, &f[at], static_cast<std::size_t>(*w) * 4);
      at += static_cast<std::size_t>(*w) * 4;
    }
  }
  return true;
}

// The floats a tool reads from `file`: oiiotool's pixel dump, or ImageMagick's PFM
// (little-endian, rows bottom first).
bool TheirPixels(const std::string& tool, const std::filesystem::path& file,
                 const std::filesystem::path& scratch, Picture* out) {
  if (tool == "oiiotool") {
    if (!Shell("oiiotool --dumpdata " + vxtest::Quote(file) + " > " + vxtest::Quote(scratch)))
      return false;
    std::FILE* f = std::fopen(scratch.string().c_str(), "r");
    if (!f) return false;
    char line[256];
    int w = 0, h = 0;
    if (!std::fgets(line, sizeof line, f) ||
        std::sscanf(std::strchr(line, ':') + 1, "%d x %d", &w, &h) != 2) {
      std::fclose(f);
      return false;
    }
    out->width = w;
    out->height = h;
    out->rgba.assign(static_cast<std::size_t>(w) * h * 4, 1.0f);
    int x, y, n = 0;
    float r, g, b;
    while (std::fgets(line, sizeof line, f)) {
      if (std::sscanf(line, " Pixel (%d, %d): %f %f %f", &x, &y, &r, &g, &b) != 5 || x >= w ||
          y >= h)
        continue;
      float* p = &out->rgba[(static_cast<std::size_t>(y) * w + x) * 4];
      p[0] = r, p[1] = g, p[2] = b;
      ++n;
    }
    std::fclose(f);
    return n == w * h;
  }
  if (!Shell("convert " + vxtest::Quote(file) + " -strip -endian LSB " + vxtest::Quote(scratch)))
    return false;
  const Bytes f = vxtest::ReadFile(scratch);
  int w = 0, h = 0, n = 0;
  double scale = 0;
  if (f.empty() ||
      std::sscanf(reinterpret_cast<const char*>(f.data()), "PF %d %d %lf%n", &w, &h, &scale, &n) !=
          3 ||
      scale >= 0)
    return false;
  const std::size_t start = static_cast<std::size_t>(n) + 1, row = static_cast<std::size_t>(w) * 3;
  if (f.size() < start + row * h * 4) return false;
  out->width = w;
  out->height = h;
  out->rgba.assign(static_cast<std::size_t>(w) * h * 4, 1.0f);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      std::memcpy(&out->rgba[(static_cast<std::size_t>(y) * w + x) * 4],
                  &f[start + ((static_cast<std::size_t>(h - 1 - y)) * row + x * 3) * 4], 12);
  return true;
}

TEST(HdrInterop, ToolFilesDecodeToTheirBytes) {
  vxtest::TempDir dir;
  struct Tool {
    const char* program;
    const char* make;  // %s: the output file
  } tools[] = {
      {"oiiotool",
       "oiiotool --pattern fill:topleft=0.02,0.5,3:topright=40,0.001,0.2:"
       "bottomleft=0.7,9,0:bottomright=0,0,0 %s 3 --addc 0.001,0,0 -o %s"},
      {"oiiotool", "oiiotool --pattern noise:type=uniform:min=0:max=5 %s 3 -o %s"},
      {"convert", "convert -size %s gradient:'rgb(250,20,3)-rgb(2,90,255)' %s"},
      {"convert", "convert -size %s plasma:fractal -seed 3 %s"},
  };
  int ran = 0;
  for (const Tool& t : tools) {
    if (!Have(t.program)) continue;
    // 70 wide runs length-coded, 5 wide flat.
    for (const char* size : {"70x9", "5x3"}) {
      SCOPED_TRACE(std::string(t.make) + " " + size);
      const auto file = dir / "tool.hdr";
      char cmd[512];
      std::snprintf(cmd, sizeof cmd, t.make, size, vxtest::Quote(file).c_str());
      ASSERT_TRUE(Shell(cmd)) << cmd;
      const Bytes bytes = vxtest::ReadFile(file);
      int w = 0, h = 0;
      Bytes rgbe;
      ASSERT_TRUE(TinyDecode(bytes, &w, &h, &rgbe));
      Picture ours;
      ASSERT_EQ(ReadPicture(file, &ours), S_OK);
      ASSERT_EQ(ours.width, w);
      ASSERT_EQ(ours.height, h);
      std::set<std::uint32_t> colours;
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const std::uint8_t* q = &rgbe[(static_cast<std::size_t>(y) * w + x) * 4];
          for (int c = 0; c < 3; ++c)
            ASSERT_EQ(ours.At(x, y)[c], Rgbe(q[c], q[3])) << x << "," << y;
          colours.insert(static_cast<std::uint32_t>(q[0] | q[1] << 8 | q[2] << 16 | q[3] << 24));
        }
      EXPECT_GE(colours.size(), 3u);  // a varied picture, not one colour
      ++ran;
    }
  }
  if (!ran) GTEST_SKIP() << "neither oiiotool nor ImageMagick is installed";
}

TEST(HdrInterop, OurFilesReadInBothTools) {
  vxtest::TempDir dir;
  // Values over many exponents, run-length (40 wide) and flat (6 wide).
  for (int width : {40, 6}) {
    SCOPED_TRACE(width);
    Picture pic;
    pic.width = width;
    pic.height = 5;
    for (int y = 0; y < pic.height; ++y)
      for (int x = 0; x < width; ++x)
        for (float v : {std::ldexp(1.0f + x * 0.037f, y * 3 - 6), 0.25f + x * 0.01f,
                        x % 7 == 0 ? 0.0f : 1000.0f / (x + 1), 1.0f})
          pic.rgba.push_back(v);
    const auto ours = dir / "ours.hdr";
    ASSERT_EQ(WritePicture(ours, pic), S_OK);
    Picture back;
    ASSERT_EQ(ReadPicture(ours, &back), S_OK);
    int ran = 0;
    for (const std::string program : {"oiiotool", "convert"}) {
      if (!Have(program.c_str())) continue;
      SCOPED_TRACE(program);
      Picture theirs;
      ASSERT_TRUE(TheirPixels(program, ours, dir / "out.pfm", &theirs));
      ASSERT_EQ(theirs.width, width);
      ASSERT_EQ(theirs.height, 5);
      for (int y = 0; y < 5; ++y)
        for (int x = 0; x < width; ++x) {
          const float* p = pic.At(x, y);
          const float largest = std::max(p[0], std::max(p[1], p[2]));
          for (int c = 0; c < 3; ++c) {
            // RGBE keeps 8 bits against the largest channel; tools may decode without the + 0.5.
            // ImageMagick here is Q16 without HDRI: it holds 0..1 in 16-bit steps.
            const bool q16 = program == "convert";
            EXPECT_NEAR(theirs.At(x, y)[c], q16 ? std::min(p[c], 1.0f) : p[c],
                        largest / 128 + (q16 ? 2.0f / 65535 : 0.0f))
                << x << "," << y << "," << c;
            EXPECT_NEAR(back.At(x, y)[c], p[c], largest / 256) << x << "," << y << "," << c;
          }
        }
      ++ran;
    }
    if (!ran) GTEST_SKIP() << "neither oiiotool nor ImageMagick is installed";
  }
}

}  // namespace

namespace {

TEST(HdrHost, InfoShowsHeaderLinesAndConvertTakesExposure) {
#ifdef _WIN32
  GTEST_SKIP() << "runs vxhost through a POSIX shell";
#else
  vxtest::TempDir dir;
  vxtest::WriteFile(dir / "in.hdr",
                    Text("#?RADIANCE\nEXPOSURE=0.5\nPRIMARIES=0.708 0.292 0.17 0.797 0.131 0.046 "
                         "0.3127 0.329\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 8\n") +
                        RleLine(8, 140, 70, 35, 131));
  vxtest::HostRun r = vxtest::RunHost(dir.path(), "info in.hdr");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("hdr:exposure: 0.5"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("hdr:primaries: 0.708 0.292 0.17 0.797"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("hdr:format: 32-bit_rle_rgbe"), std::string::npos) << r.out;
  // Two stops up on the way in, written as they come: the exponent byte two higher.
  r = vxtest::RunHost(dir.path(), "convert in.hdr out.hdr -i exposure=2 -o linear=1");
  ASSERT_EQ(r.code, 0) << r.err;
  const Bytes out = vxtest::ReadFile(dir / "out.hdr");
  const Bytes want =
      Text("#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 8\n") + RleLine(8, 140, 70, 35, 133);
  EXPECT_EQ(out, want);
#endif
}

}  // namespace
