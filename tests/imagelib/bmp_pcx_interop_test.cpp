// BMP and PCX against peers: the corpus as OpenImageIO decodes it, and files of ImageMagick and
// oiiotool read as the tools read them, ours read by both tools.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "imagelib/bmp/qi_image_bmp.h"
#include "imagelib/pcx/qi_image_pcx.h"
#include "test_util.h"

namespace {

using vxtest::TempDir;

template <class File>
std::unique_ptr<QI_ImageRGBA8> Read(const std::filesystem::path& p) {
  File f;
  if (!f.open(vxtest::Wide(p).c_str(), VXT("rb")) || !f.readHeader()) return nullptr;
  auto img = std::make_unique<QI_ImageRGBA8>(f.getWidth(), f.getHeight());
  return f.read(img.get()) ? std::move(img) : nullptr;
}

bool Sh(const std::string& cmd) {
  return std::system((cmd + " 2>/dev/null").c_str()) == 0;
}

TEST(BmpPcxInterop, CorpusReadsAsOpenImageIO) {
  const auto corpus = vxtest::CorpusDir();
  if (corpus.empty()) GTEST_SKIP() << "no corpus";
  std::ifstream oracle(corpus / "oracle-oiio.jsonl");
  const std::regex file(R"re("file":"(bmp[^"]*)","width":(\d+),"height":(\d+),"channels":(\d+))re"),
      sample(R"re("x":(\d+),"y_from_top":(\d+),"v":\[([^\]]*)\])re");
  int files = 0;
  for (std::string line; std::getline(oracle, line);) {
    std::smatch m;
    if (!std::regex_search(line, m, file)) continue;
    SCOPED_TRACE(m[1].str());
    ++files;
    const auto img = Read<QI_ImageBMP>(corpus / m[1].str());
    ASSERT_TRUE(img);
    ASSERT_EQ(img->getWidth(), std::stoi(m[2]));
    ASSERT_EQ(img->getHeight(), std::stoi(m[3]));
    const int channels = std::stoi(m[4]);
    for (auto it = std::sregex_iterator(line.begin(), line.end(), sample);
         it != std::sregex_iterator(); ++it) {
      const int x = std::stoi((*it)[1]), y = img->getHeight() - 1 - std::stoi((*it)[2]);
      std::uint8_t p[4];
      img->getPixel8(x, y, &p[0], &p[1], &p[2], &p[3]);
      std::istringstream v(std::regex_replace((*it)[3].str(), std::regex(","), " "));
      // One 8-bit step apart at most: the reference widens 5-bit fields its own way.
      // g32bf has no alpha mask: the reference takes the unused byte as alpha, we read opaque.
      const int compared = m[1] == "bmpsuite/g32bf.bmp" ? 3 : channels;
      float want = 0;
      for (int c = 0; c < compared && v >> want; ++c)
        EXPECT_LE(std::abs(p[c] - want * 255), 1.01f) << x << "," << y << " channel " << c;
    }
  }
  EXPECT_EQ(files, 29);
}

// A tool's 8-bit RGB decode, top line first: ImageMagick's raw dump or oiiotool's --dumpdata.
std::vector<int> Decoded(const TempDir& dir, const std::string& name, bool oiio) {
  const std::string in = vxtest::Quote(dir / name), dump = vxtest::Quote(dir / "dump");
  std::vector<int> v;
  if (!oiio) {
    if (!Sh("convert " + in + " -depth 8 rgb:" + dump)) return v;
    for (const std::uint8_t b : vxtest::ReadFile(dir / "dump")) v.push_back(b);
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
    v.insert(v.end(), p.begin(), p.begin() + 3);
  }
  return v;
}

TEST(BmpPcxInterop, ImageMagickAndOiiotoolBothWays) {
  if (!Sh("convert -version >/dev/null && oiiotool --version >/dev/null"))
    GTEST_SKIP() << "ImageMagick or oiiotool missing";
  constexpr int kW = 37, kH = 5;
  TempDir dir;
  const std::string png = vxtest::Quote(dir / "src.png");
  ASSERT_TRUE(
      Sh("convert -size 37x5 xc:black -channel R -fx 'i*.027' -channel G -fx 'j*.2+.01'"
         " -channel B -fx 'i<20?.7458:i*.0152' +channel -depth 8 " +
         png));
  const auto source = Decoded(dir, "src.png", false);
  ASSERT_EQ(source.size(), std::size_t{kW * kH * 3});
  QI_ImageRGBA8 src(kW, kH);
  for (int i = 0; i < kW * kH; ++i)
    src.setPixel8(i % kW, kH - 1 - i / kW, source[i * 3], source[i * 3 + 1], source[i * 3 + 2],
                  255);
  for (const char* ext : {"bmp", "pcx"})
    for (int tool = 0; tool < 3; ++tool) {  // written by ImageMagick, oiiotool, us
      SCOPED_TRACE(std::string(ext) + ", writer " + std::to_string(tool));
      const std::string name = "t" + std::to_string(tool) + "." + ext;
      const bool pcx = ext[0] == 'p';
      if (tool == 0) {
        ASSERT_TRUE(Sh("convert " + png + " " + vxtest::Quote(dir / name)));
      } else if (tool == 1) {
        if (!Sh("oiiotool " + png + " -o " + vxtest::Quote(dir / name))) continue;  // no writer
      } else {
        std::unique_ptr<QI_ImageFile> f;
        pcx ? f.reset(new QI_ImagePCX) : f.reset(new QI_ImageBMP);
        f->setWidth(kW), f->setHeight(kH);
        const auto path = vxtest::Wide(dir / name);
        ASSERT_TRUE(f->open(path.c_str(), VXT("wb")) && f->writeHeader() && f->write(&src));
        f->close();
      }
      const auto img = pcx ? Read<QI_ImagePCX>(dir / name) : Read<QI_ImageBMP>(dir / name);
      ASSERT_TRUE(img);
      for (bool oiio : {false, true}) {
        if ((tool < 2 && oiio != (tool == 1)) || (oiio && pcx)) continue;  // oiiotool: no PCX
        const auto ref = Decoded(dir, name, oiio);
        ASSERT_EQ(ref.size(), std::size_t{kW * kH * 3}) << (oiio ? "oiiotool" : "convert");
        for (int i = 0; i < kW * kH * 3; ++i) {
          std::uint8_t p[3];
          img->getPixel8(i / 3 % kW, kH - 1 - i / 3 / kW, &p[0], &p[1], &p[2], nullptr);
          ASSERT_EQ(p[i % 3], ref[i]) << "pixel " << i / 3;
          ASSERT_EQ(ref[i], source[i]) << "pixel " << i / 3;
        }
      }
    }
}

}  // namespace
