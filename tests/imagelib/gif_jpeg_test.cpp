// GIF and JPEG file images: hand-laid GIFs and damaged files, then both against their peers
// (the corpus' GIFs as OpenImageIO reads them; JPEGs as ImageMagick and oiiotool write and read).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "imagelib/gif/qi_image_gif.h"
#include "imagelib/jpeg/qi_image_jpeg.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using vxtest::TempDir;

// Opens `bytes` as a file of the class (null without its library) and reads image `image` into
// an 8-bit image; null when any step fails.
std::unique_ptr<QI_ImageRGBA8> Read(std::unique_ptr<QI_ImageFile> f, const std::filesystem::path& p,
                                    int image = 0, int* count = nullptr) {
  if (!f || !f->open(vxtest::Wide(p).c_str(), VXT("rb")) || !f->readHeader()) return nullptr;
  if (count) *count = f->getImageCount();
  if (!f->selectImage(image)) return nullptr;
  auto img = std::make_unique<QI_ImageRGBA8>(f->getWidth(), f->getHeight());
  return f->read(img.get()) ? std::move(img) : nullptr;
}

// RGBA of (x, y counted from the top).
std::array<int, 4> Top(QI_ImageMem& img, int x, int y) {
  std::uint8_t r, g, b, a;
  img.getPixel8(x, img.getHeight() - 1 - y, &r, &g, &b, &a);
  return {r, g, b, a};
}

// 3-bit LZW codes packed from the low bit; a clear code every two literals keeps the width at 3.
Bytes Lzw(const std::vector<int>& pixels) {
  std::vector<int> codes{4};
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    if (i && i % 2 == 0) codes.push_back(4);
    codes.push_back(pixels[i]);
  }
  codes.push_back(5);
  Bytes data((codes.size() * 3 + 7) / 8);
  for (std::size_t i = 0; i < codes.size() * 3; ++i)
    if (codes[i / 3] >> (i % 3) & 1) data[i / 8] |= static_cast<std::uint8_t>(1 << (i % 8));
  Bytes out{2, static_cast<std::uint8_t>(data.size())};
  out.insert(out.end(), data.begin(), data.end());
  out.push_back(0);
  return out;
}

// A w x h screen with a four-colour global map: (10,20,30) (200,0,100) (0,255,7) (1,2,3).
Bytes Gif(int w, int h, const std::vector<Bytes>& parts) {
  Bytes b{'G', 'I', 'F', '8', '9', 'a'};
  const Bytes screen{0x81, 0, 0, 10, 20, 30, 200, 0, 100, 0, 255, 7, 1, 2, 3};
  for (int v : {w, 0, h, 0}) b.push_back(static_cast<std::uint8_t>(v));
  b.insert(b.end(), screen.begin(), screen.end());
  for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
  b.push_back(';');
  return b;
}

Bytes Frame(int x, int w, int h, bool interlaced, const std::vector<int>& pixels) {
  Bytes b{',', static_cast<std::uint8_t>(x),
          0,   0,
          0,   static_cast<std::uint8_t>(w),
          0,   static_cast<std::uint8_t>(h),
          0,   static_cast<std::uint8_t>(interlaced ? 0x40 : 0)};
  const Bytes d = Lzw(pixels);
  b.insert(b.end(), d.begin(), d.end());
  return b;
}

const Bytes kTransparent3{0x21, 0xF9, 4, 1, 0, 0, 3, 0};  // control block: index 3 transparent

TEST(GifJpeg, HandLaidGifsAndDamagedFiles) {
  TempDir dir;
  using Px = std::array<int, 4>;
  const Px c0{10, 20, 30, 255}, c1{200, 0, 100, 255}, c2{0, 255, 7, 255}, clear{0, 0, 0, 0};
  struct Case {
    const char* name;
    Bytes file;
    int image, count;
    std::vector<Px> top;  // pixels from the top line down, left to right
  } cases[] = {
      {"alpha",
       Gif(3, 2, {kTransparent3, Frame(0, 3, 2, false, {0, 1, 2, 3, 0, 1})}),
       0,
       1,
       {c0, c1, c2, clear, c0, c1}},
      // Stored lines 0, 4, 2, 1, 3; no control block, so index 3 is opaque.
      {"interlaced",
       Gif(1, 5, {Frame(0, 1, 5, true, {0, 1, 2, 3, 0})}),
       0,
       1,
       {c0, {1, 2, 3, 255}, c2, c0, c1}},
      {"first of two",
       Gif(2, 1, {Frame(1, 1, 1, false, {2}), Frame(0, 2, 1, false, {1, 0})}),
       0,
       2,
       {clear, c2}},
      {"second of two",
       Gif(2, 1, {Frame(1, 1, 1, false, {2}), Frame(0, 2, 1, false, {1, 0})}),
       1,
       2,
       {c1, c0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    vxtest::WriteFile(dir / "t.gif", c.file);
    int count = 0;
    auto img = Read(MakeImageGIF(), dir / "t.gif", c.image, &count);
    if (!MakeImageGIF()) GTEST_SKIP() << "built without giflib";
    ASSERT_TRUE(img);
    EXPECT_EQ(count, c.count);
    for (std::size_t i = 0; i < c.top.size(); ++i)
      EXPECT_EQ(
          Top(*img, static_cast<int>(i) % img->getWidth(), static_cast<int>(i) / img->getWidth()),
          c.top[i])
          << i;
  }
  // Damaged files: every one refused, none crashing or allocating its claimed size.
  Bytes cut = Gif(3, 2, {Frame(0, 3, 2, false, {0, 1, 2, 3, 0, 1})});
  cut.resize(cut.size() - 6);
  Bytes huge = Gif(1, 1, {});
  huge[6] = huge[7] = huge[8] = huge[9] = 0xFF;
  Bytes jpeg = {0xFF, 0xD8, 0xFF, 0xC0, 0, 11, 8, 0xFF, 0xFF, 0xFF, 0xFF, 1, 1, 0x11, 0};
  for (const auto& [bytes, gif] : {std::pair{cut, true},
                                   {huge, true},
                                   {Bytes{'G', 'I', 'F'}, true},
                                   {jpeg, false},
                                   {Bytes{0xFF, 0xD8}, false},
                                   {Bytes{}, false}}) {
    vxtest::WriteFile(dir / "bad", bytes);
    EXPECT_FALSE(Read(gif ? MakeImageGIF() : MakeImageJPEG(), dir / "bad")) << bytes.size();
  }
}

bool Sh(const std::string& cmd) {
  return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

// ImageMagick's decode of `file` as 8-bit RGB, top line first (its JPEG codec is libjpeg-turbo).
Bytes MagickRgb(const TempDir& dir, const std::filesystem::path& file) {
  if (!Sh("convert " + vxtest::Quote(file) + " -depth 8 rgb:" + vxtest::Quote(dir / "dump")))
    return {};
  return vxtest::ReadFile(dir / "dump");
}

// Largest difference between our read and `rgb`; 999 when the sizes differ.
int MaxDiff(QI_ImageMem& img, const Bytes& rgb) {
  if (rgb.size() != std::size_t{3} * img.getWidth() * img.getHeight()) return 999;
  int worst = 0;
  for (int y = 0; y < img.getHeight(); ++y)
    for (int x = 0; x < img.getWidth(); ++x)
      for (int c = 0; c < 3; ++c)
        worst =
            std::max(worst, std::abs(Top(img, x, y)[c] - rgb[3 * (y * img.getWidth() + x) + c]));
  return worst;
}

TEST(GifJpeg, CorpusGifsReadAsOpenImageIo) {
  const auto corpus = vxtest::CorpusDir();
  if (corpus.empty() || !MakeImageGIF()) GTEST_SKIP() << "no corpus or no giflib";
  std::ifstream oracle(corpus / "oracle-oiio.jsonl");
  int files = 0;
  for (std::string line; std::getline(oracle, line);) {
    const auto j = nlohmann::json::parse(line);
    const std::string name = j["file"];
    if (name.rfind("gif/", 0) != 0) continue;
    SCOPED_TRACE(name);
    auto img = Read(MakeImageGIF(), corpus / name);
    ASSERT_TRUE(img);
    ++files;
    EXPECT_EQ(img->getWidth(), j["width"]);
    EXPECT_EQ(img->getHeight(), j["height"]);
    for (const auto& s : j["samples"]) {
      const auto px = Top(*img, s["x"], s["y_from_top"]);
      for (int c = 0; c < 4; ++c) EXPECT_NEAR(px[c], s["v"][c].get<double>() * 255, 0.51) << s;
    }
  }
  EXPECT_EQ(files, 8);
}

TEST(GifJpeg, JpegsOfImageMagickAndOiiotool) {
  if (!MakeImageJPEG() || !Sh("convert -version") || !Sh("oiiotool --help"))
    GTEST_SKIP() << "needs libjpeg, ImageMagick and oiiotool";
  TempDir dir;
  const std::string src = vxtest::Quote(dir / "src.png");
  ASSERT_TRUE(Sh("convert -size 40x24 gradient:'#ff2000-#0040ff' " + src));
  const std::pair<const char*, std::string> writers[] = {
      {"baseline.jpg", "convert " + src + " -quality 85 "},
      {"progressive.jpg", "convert " + src + " -interlace Plane "},
      {"grey.jpg", "convert " + src + " -colorspace Gray "},
      {"cmyk.jpg", "convert " + src + " -colorspace CMYK "},
      {"oiio.jpg", "oiiotool " + src + " -o "},
  };
  for (const auto& [name, cmd] : writers) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(Sh(cmd + vxtest::Quote(dir / name)));
    auto img = Read(MakeImageJPEG(), dir / name);
    ASSERT_TRUE(img);
    EXPECT_LE(MaxDiff(*img, MagickRgb(dir, dir / name)), 1);
  }
  // Ours, at the default quality, read back by both tools close to the source picture (the
  // chroma halving of a red-to-blue ramp costs up to ~11 code values).
  auto source = std::make_unique<QI_ImageRGBA8>(40, 24);
  ASSERT_TRUE(Sh("convert " + src + " -depth 8 rgba:" + vxtest::Quote(dir / "src.rgba")));
  const Bytes rgba = vxtest::ReadFile(dir / "src.rgba");
  Bytes rgb;
  for (int y = 0; y < 24; ++y)
    for (int x = 0; x < 40; ++x) {
      const std::uint8_t* p = &rgba[4 * (y * 40 + x)];
      source->setPixel8(x, 23 - y, p[0], p[1], p[2], 255);
      rgb.insert(rgb.end(), p, p + 3);
    }
  QI_ImageJPEG out;
  EXPECT_EQ(out.getQuality(), 90);
  out.setWidth(40), out.setHeight(24);
  ASSERT_TRUE(out.open(vxtest::Wide(dir / "ours.jpg").c_str(), VXT("wb")) && out.writeHeader() &&
              out.write(source.get()));
  out.close();
  EXPECT_LE(MaxDiff(*source, MagickRgb(dir, dir / "ours.jpg")), 16);
  ASSERT_TRUE(
      Sh("oiiotool " + vxtest::Quote(dir / "ours.jpg") + " -o " + vxtest::Quote(dir / "o.png")));
  EXPECT_LE(MaxDiff(*source, MagickRgb(dir, dir / "o.png")), 16);
  // An EXIF block (big-endian, orientation 6) after the start marker is reported, not applied;
  // the file cut in half is refused.
  Bytes ours = vxtest::ReadFile(dir / "ours.jpg");
  const Bytes exif{0xFF, 0xE1, 0,    34,   'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8,
                   0,    1,    0x01, 0x12, 0,   3,   0,   0,   0, 1, 0,   6,   0, 0,  0, 0, 0, 0};
  Bytes tagged = ours;
  tagged.insert(tagged.begin() + 2, exif.begin(), exif.end());
  vxtest::WriteFile(dir / "exif.jpg", tagged);
  QI_ImageJPEG in;
  ASSERT_TRUE(in.open(vxtest::Wide(dir / "exif.jpg").c_str(), VXT("rb")) && in.readHeader());
  EXPECT_EQ(in.getOrientation(), 6);
  EXPECT_EQ(in.getWidth(), 40);
  ours.resize(ours.size() / 2);
  vxtest::WriteFile(dir / "cut.jpg", ours);
  EXPECT_FALSE(Read(MakeImageJPEG(), dir / "cut.jpg"));
}

}  // namespace
