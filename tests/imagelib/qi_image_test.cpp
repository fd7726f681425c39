#include "imagelib/base/qi_image.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>

#include "test_util.h"

namespace {

// Records the rows the whole-image read and write visit; line `failAt` fails, `throwAt` throws.
class FakeFile : public QI_ImageFile {
 public:
  FakeFile(int h, int bottomUp, int failAt = -1, int throwAt = -1)
      : failAt_(failAt), throwAt_(throwAt) {
    setWidth(2);
    setHeight(h);
    setBottomUp(bottomUp);
  }
  std::int32_t open(const VxChar* p, const VxChar* m) override { return openStream(p, m); }
  std::int32_t attach(std::FILE*, std::int32_t) override { return 0; }
  std::int32_t close() override { return closeStream(); }
  std::int32_t readHeader() override { return 1; }
  std::int32_t writeHeader() override { return 1; }
  std::int32_t readLine(QI_ImageMem*, std::int32_t row) override { return Line(row); }
  std::int32_t writeLine(QI_ImageMem*, std::int32_t row) override { return Line(row); }
  std::string rows;
  std::int32_t Line(std::int32_t row) {
    rows += std::to_string(row);
    if (row == throwAt_) throw row;
    return row != failAt_;
  }
  int failAt_, throwAt_;
};

std::string Lines(FakeFile&& f, std::int32_t memH, bool write = false) {  // "result [rows] "
  QI_ImageRGBA8 mem(2, memH);
  const std::int32_t result = write ? f.write(&mem) : f.read(&mem);
  return std::to_string(result) + " [" + f.rows + "] ";
}
std::string Four(long long r, long long g, long long b, long long a) {
  return std::to_string(r) + " " + std::to_string(g) + " " + std::to_string(b) + " " +
         std::to_string(a);
}
std::string Pixel8(QI_ImageMem& m, std::int32_t x, std::int32_t y) {
  std::uint8_t c[4] = {9, 9, 9, 9};
  m.getPixel8(x, y, &c[0], &c[1], &c[2], &c[3]);
  return Four(c[0], c[1], c[2], c[3]);
}

// Each case prints what it observed; the expected texts are written by hand.
using Case = std::tuple<const char*, std::function<std::string()>, const char*>;
const Case kCases[] = {
    {"read and write: size mismatch, bottom-first, top-first, other, fail, throw; selectImage",
     [] {
       FakeFile f(1, 1);
       f.setImageCount(3);
       const int in = f.selectImage(3), past = f.selectImage(4);
       return Four(in, past, f.getCurrentImage(), f.getQuality()) + " / " +
              Lines(FakeFile(3, 1), 2) + Lines(FakeFile(3, 1), 3) + Lines(FakeFile(3, 0), 3) +
              Lines(FakeFile(3, 0), 3, true) + Lines(FakeFile(3, 7), 3) +
              Lines(FakeFile(3, 1, 1), 3) + Lines(FakeFile(3, 0, -1, 1), 3, true);
     },
     "1 0 3 1 / 0 [] 1 [012] 1 [210] 1 [210] 1 [] 0 [01] 0 [21] "},
    {"resize(0, 5) frees; an external buffer is forgotten, its size kept and never written",
     [] {
       QI_ImageRGBA8 own(4, 4);
       own.resize(0, 5);
       std::uint8_t px[2 * 2 * 8] = {7};
       QI_ImageRGBA16 ext(2, 2, px);
       ext.resize(8, 8);
       ext.setPixel8(0, 0, 1, 1, 1, 1);
       return Four(own.getBuffer() == nullptr, own.getWidth(), own.getHeight(), 0) + " / " +
              Four(ext.getBuffer() == nullptr, ext.getWidth(), ext.getHeight(), px[0]);
     },
     "1 0 5 0 / 1 2 2 7"},
    {"setPixel with null colours and alpha at depths 1, 2, 4",
     [] {
       QI_ImageRGBA16 m(3, 1);
       const std::uint8_t r8 = 0x80;
       m.setPixel(0, 0, &r8, nullptr, nullptr, nullptr, QI_DEPTH_8);
       m.setPixel(1, 0, nullptr, nullptr, nullptr, nullptr, QI_DEPTH_16);
       m.setPixel(2, 0, nullptr, nullptr, nullptr, nullptr, QI_DEPTH_FLOAT);
       auto* p = static_cast<std::uint16_t*>(m.getBuffer());
       return Four(p[0], p[1], p[3], p[7]) + " / " + Four(p[4], p[8], p[11], 0);
     },
     "32896 0 65535 65535 / 0 0 65535 0"},
    {"RGBA16 to and from 8 bits; float to 8 bits truncates and clamps into ABGR's byte order",
     [] {
       QI_ImageRGBA16 m(1, 1);
       m.setPixel16(0, 0, 0x1234, 0x00FF, 0xFF00, 0xFFFF);
       const std::string a = Pixel8(m, 0, 0);
       m.setPixel8(0, 0, 0x12, 0, 0xFF, 1);
       auto* p = static_cast<std::uint16_t*>(m.getBuffer());
       QI_ImageABGR abgr(1, 1);
       abgr.setPixelF(0, 0, 0.5f, 2.0f, -1.0f, 0.999f);
       auto* q = static_cast<std::uint8_t*>(abgr.getBuffer());
       return a + " / " + Four(p[0], p[1], p[2], p[3]) + " / " + Four(q[0], q[1], q[2], q[3]);
     },
     "18 0 255 255 / 4626 0 65535 257 / 254 0 255 127"},
    {"copyTo clipped at the right edge; pixels outside the image",
     [] {
       QI_ImageRGBA8 src(3, 1), dst(3, 1);
       for (std::uint8_t x = 0; x < 4; ++x) src.setPixel8(x, 0, x + 1, 0, 0, 255);
       const int cut = src.copyTo(1, 0, 5, 1, &dst, 0, 0), all = src.copyTo(0, 0, 3, 1, &src, 0, 0);
       return Four(cut, all, 0, 0) + " / " + Pixel8(dst, 0, 0) + " / " + Pixel8(dst, 2, 0) + " / " +
              Pixel8(src, -1, 0) + " / " + Pixel8(src, 0, 1);
     },
     "0 1 0 0 / 2 0 0 255 / 0 0 0 0 / 0 0 0 0 / 0 0 0 0"},
    {"colour map lookup",
     [] {
       QI_ImageCMAP m(4, 2, 1);
       m.setMapEntry(2, 10, 20, 30);
       m.setIndex(0, 0, 2);
       m.setIndex(1, 0, 9);            // past the map
       m.setPixel8(0, 0, 1, 1, 1, 1);  // colours are not stored
       return Pixel8(m, 0, 0) + " / " + Pixel8(m, 1, 0) + " / " +
              Four(m.getIndex(1, 0), m.getMapMaxIndex(), 0, 0);
     },
     "10 20 30 255 / 0 0 0 255 / 9 3 0 0"},
};

TEST(QiImage, EdgeCases) {
  for (const auto& [name, run, expected] : kCases) EXPECT_EQ(run(), expected) << name;
}

// The stream open of the file images and the byte-order helpers, on a real file.
TEST(QiImage, StreamAndByteOrder) {
  vxtest::TempDir dir;
  FakeFile f(1, 1);
  const VxString path = vxtest::Wide(dir / "b.bin");
  EXPECT_EQ(f.open(vxtest::Wide(dir / "no" / "x").c_str(), VXT("rb")), 0);
  ASSERT_EQ(f.open(path.c_str(), VXT("wb")), 1);
  std::FILE* s = f.getStream();
  EXPECT_TRUE(qi::WriteBE16(s, 0x1234) && qi::WriteBE32(s, 0x01020304) &&
              qi::WriteLE16(s, 0x1234) && qi::WriteLE32(s, 0x01020304) && f.close() == 1);
  EXPECT_EQ(vxtest::ReadFile(dir / "b.bin"),
            (std::vector<std::uint8_t>{0x12, 0x34, 1, 2, 3, 4, 0x34, 0x12, 4, 3, 2, 1}));
  ASSERT_EQ(f.open(path.c_str(), VXT("rb")), 1);
  std::uint16_t v16 = 0;
  std::uint32_t v32 = 0;
  EXPECT_TRUE(qi::ReadBE16(f.getStream(), &v16) && qi::ReadBE32(f.getStream(), &v32) &&
              v16 == 0x1234 && v32 == 0x01020304u);
  std::fseek(f.getStream(), -3, SEEK_END);
  EXPECT_FALSE(qi::ReadBE32(f.getStream(), &v32));  // three bytes left
}

}  // namespace
