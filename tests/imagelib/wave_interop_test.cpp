// RLA files of other writers read as OpenImageIO reads them, and ours read in OpenImageIO and
// ImageMagick with our values.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "imagelib/wave/qi_image_wave.h"
#include "test_util.h"

namespace {

using vxtest::TempDir;

std::unique_ptr<QI_ImageRGBA8> Read(const std::filesystem::path& p) {
  QI_ImageWAVE f;
  if (!f.open(vxtest::Wide(p).c_str(), VXT("rb")) || !f.readHeader()) return nullptr;
  auto img = std::make_unique<QI_ImageRGBA8>(f.getWidth(), f.getHeight());
  return f.read(img.get()) ? std::move(img) : nullptr;
}

bool Sh(const std::string& cmd) {
  return std::system((cmd + " 2>/dev/null").c_str()) == 0;
}

TEST(WaveInterop, CorpusReadsAsOpenImageIO) {
  const auto corpus = vxtest::CorpusDir();
  if (corpus.empty()) GTEST_SKIP() << "no corpus";
  std::ifstream oracle(corpus / "oracle-oiio.jsonl");
  const std::regex file(
      R"re("file":"(rla/[^"]*)","width":(\d+),"height":(\d+),"channels":(\d+))re"),
      sample(R"re("x":(\d+),"y_from_top":(\d+),"v":\[([^\]]*)\])re");
  int files = 0;
  for (std::string line; std::getline(oracle, line);) {
    std::smatch m;
    if (!std::regex_search(line, m, file)) continue;
    SCOPED_TRACE(m[1].str());
    ++files;
    const auto img = Read(corpus / m[1].str());
    if (m[1].str().starts_with("rla/crash")) continue;  // fails or reads, never crashes
    ASSERT_TRUE(img);
    ASSERT_EQ(img->getWidth(), std::stoi(m[2]));
    ASSERT_EQ(img->getHeight(), std::stoi(m[3]));
    for (auto it = std::sregex_iterator(line.begin(), line.end(), sample);
         it != std::sregex_iterator(); ++it) {
      const int x = std::stoi((*it)[1]), y = img->getHeight() - 1 - std::stoi((*it)[2]);
      std::uint8_t p[4];
      img->getPixel8(x, y, &p[0], &p[1], &p[2], &p[3]);
      std::istringstream v(std::regex_replace((*it)[3].str(), std::regex(","), " "));
      float want = 0;
      for (int c = 0; c < std::stoi(m[4]) && v >> want; ++c)
        EXPECT_LE(std::abs(p[c] - want * 255), 1.001f) << x << "," << y << " channel " << c;
    }
  }
  EXPECT_EQ(files, 15);
}

// A tool's 8-bit RGBA decode, top line first (grey repeated, alpha 255 when the file has none):
// oiiotool's --dumpdata or ImageMagick's raw dump. Empty when the tool failed.
std::vector<int> Decoded(const TempDir& dir, const std::string& name, bool oiio) {
  const std::string in = vxtest::Quote(dir / name), dump = vxtest::Quote(dir / "dump");
  std::vector<int> v;
  if (!oiio) {
    if (!Sh("convert " + in + " -depth 8 rgba:" + dump)) return v;
    for (std::uint8_t b : vxtest::ReadFile(dir / "dump")) v.push_back(b);
    return v;
  }
  if (!Sh("oiiotool --dumpdata " + in + " > " + dump)) return v;
  std::ifstream text(dir / "dump");
  std::string line;
  std::getline(text, line);
  while (std::getline(text, line)) {
    std::istringstream values(line.substr(line.find(':') + 1));
    std::vector<int> p;
    for (int n; values >> n;) p.push_back(n);
    if (p.size() == 1) p = {p[0], p[0], p[0]};
    if (p.size() == 3) p.push_back(255);
    v.insert(v.end(), p.begin(), p.end());
  }
  return v;
}

TEST(WaveInterop, OiiotoolAndImageMagickBothWays) {
  if (!Sh("convert -version >/dev/null && oiiotool --version >/dev/null"))
    GTEST_SKIP() << "ImageMagick or oiiotool missing";
  constexpr int kW = 300, kH = 4;  // runs past 128, literals past 128, short runs
  TempDir dir;
  const std::string png = vxtest::Quote(dir / "src.png");
  ASSERT_TRUE(
      Sh("convert -size 300x4 xc:black -alpha set -channel R -fx 'i<140?.6:(i%7)/7+j*.01'"
         " -channel G -fx 'floor(i/3)*.011' -channel B -fx 'i>150?.3:i*.0065' -channel A"
         " -fx 'i<250?1:(i%2)*.5' +channel -depth 8 " +
         png));
  const auto source = Decoded(dir, "src.png", false);
  ASSERT_EQ(source.size(), std::size_t{kW * kH * 4});
  const auto value = [&](int x, int y, int c) { return source[((kH - 1 - y) * kW + x) * 4 + c]; };
  QI_ImageRGBA8 src(kW, kH), line(kW, 1);
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x) {
      const auto v = [&](int c) { return static_cast<std::uint8_t>(value(x, y, c)); };
      src.setPixel8(x, y, v(0), v(1), v(2), v(3));
      if (y == kH - 1) line.setPixel8(x, 0, v(0), v(1), v(2), v(3));
    }
  const char* kChannels[] = {"", "R", "", "R,G,B", "R,G,B,A"};
  const int kPixelType[] = {0, QI_PIXEL_GRAY, 0, QI_PIXEL_RGB, QI_PIXEL_RGBA};
  for (int ch : {1, 3, 4}) {
    SCOPED_TRACE(std::to_string(ch) + " channels");
    // oiiotool's file reads in ours as oiiotool reads it.
    ASSERT_TRUE(Sh("oiiotool " + png + " --ch " + kChannels[ch] + " -d uint8 -o " +
                   vxtest::Quote(dir / "t.rla")));
    const auto theirs = Read(dir / "t.rla");
    const auto ref = Decoded(dir, "t.rla", true);
    ASSERT_TRUE(theirs);
    ASSERT_EQ(ref.size(), std::size_t{kW * kH * 4});
    for (int i = 0; i < kW * kH * 4; ++i) {
      std::uint8_t p[4];
      theirs->getPixel8(i / 4 % kW, kH - 1 - i / 4 / kW, &p[0], &p[1], &p[2], &p[3]);
      ASSERT_EQ(p[i % 4], ref[i]) << "oiiotool's file, sample " << i;
    }
    // Ours reads in oiiotool as the source, grey the red component; ImageMagick 6 keeps counting
    // columns from line to line, so it is shown a one-line file, and takes a grey file's one
    // channel as red, leaving green and blue unset.
    for (bool oiio : {true, false}) {
      QI_ImageWAVE f;
      QI_ImageMem& in = oiio ? static_cast<QI_ImageMem&>(src) : line;
      f.setWidth(kW), f.setHeight(in.getHeight()), f.setPixelType(kPixelType[ch]);
      const auto path = vxtest::Wide(dir / "o.rla");
      ASSERT_TRUE(f.open(path.c_str(), VXT("wb")) && f.writeHeader() && f.write(&in));
      f.close();
      const auto got = Decoded(dir, "o.rla", oiio);
      ASSERT_EQ(got.size(), std::size_t{kW * 4} * in.getHeight()) << oiio;
      for (std::size_t i = 0; i < got.size(); ++i) {
        const int x = i / 4 % kW, y = in.getHeight() - 1 - int(i / 4 / kW), c = i % 4;
        if (!oiio && ch == 1 && (c == 1 || c == 2)) continue;  // left as it was allocated
        const int want = c == 3 && ch < 4 ? 255 : value(x, oiio ? y : kH - 1, ch == 1 ? 0 : c);
        ASSERT_EQ(got[i], want) << (oiio ? "oiiotool" : "convert") << " sample " << i;
      }
    }
  }
}

}  // namespace
