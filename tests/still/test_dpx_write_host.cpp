// vxhost report and convert on DPX files, through the built module as a host loads it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "dpx_write_test_util.h"
#include "test_util.h"

using namespace vx;
using namespace vx::dpx;
using dpxtest::ElementSamples;
using dpxtest::ImagePtr;

namespace {

struct HostRun {
  int code = -1;
  std::string out, err;
};

HostRun Vxhost(const vxtest::TempDir& dir, const std::string& args) {
  HostRun r;
  const auto host = vxtest::BinDir() / "vxhost";
  if (!std::filesystem::exists(host)) return r;
  const auto out = dir / "stdout.txt", err = dir / "stderr.txt", rc = dir / "rc.txt";
  // A registry of the test's own: tests run in parallel, and another process's first-run
  // registration, seen half done, would hide the DPX row.
  const std::string cmd = "VXHOST_REGISTRY='" + (dir / "registry.json").string() + "' '" +
                          host.string() + "' " + args + " > '" + out.string() + "' 2> '" +
                          err.string() + "'; echo $? > '" + rc.string() + "'";
  if (std::system(cmd.c_str()) != 0) return r;
  const auto code = vxtest::ReadFile(rc);
  r.code = std::atoi(std::string(code.begin(), code.end()).c_str());
  std::filesystem::remove(rc);
  const auto o = vxtest::ReadFile(out), e = vxtest::ReadFile(err);
  r.out.assign(o.begin(), o.end());
  r.err.assign(e.begin(), e.end());
  std::filesystem::remove(out);
  std::filesystem::remove(err);
  return r;
}

using vxtest::Quote;

void WriteSource(const std::filesystem::path& path, DpxLayout layout, int packing, bool big) {
  auto image = ImagePtr::Adopt(dpxtest::MakeTestImage(5, 3, 10));
  DpxExportSettings settings;
  settings.bitDepth = 10;
  settings.layout = layout;
  settings.packing = packing;
  settings.bigEndian = big;
  ASSERT_EQ(WriteDpxFile(vxtest::Wide(path).c_str(), image.get(), settings, {}), S_OK);
}

class VxhostDpx : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef _WIN32
    GTEST_SKIP() << "the vxhost tests drive it through a POSIX shell";
#endif
    if (!std::filesystem::exists(vxtest::BinDir() / "vxhost"))
      GTEST_SKIP() << "vxhost is not built in " << vxtest::BinDir();
  }
  vxtest::TempDir dir;
};

TEST_F(VxhostDpx, ReportPrintsTheHeaderText) {
  const auto file = dir / "shot.dpx";
  WriteSource(file, DpxLayout::PackedRGB, 1, true);
  const HostRun r = Vxhost(dir, "report " + Quote(file));
  ASSERT_EQ(r.code, 0) << r.err;
  // The text of the header report, one line a field, with plain newlines on a terminal.
  EXPECT_EQ(r.out.find('\r'), std::string::npos);
  for (const char* line :
       {"Endianness: big\n\n[ File information header ]\n\n  generic header size: 1664 bytes\n",
        "  size in pixels: 5x3\n  nb of elements: 1\n",
        "  bit depth: 10\n  packing: filled to 32-bit words, method A\n  encoding: none\n",
        "[ Television information header ]\n\n  interlace: progressive\n"})
    EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n---\n" << r.out;

  const HostRun missing = Vxhost(dir, "report " + Quote(dir / "none.dpx"));
  EXPECT_EQ(missing.code, 1);
  EXPECT_EQ(missing.err, (dir / "none.dpx").string() + ": cannot open: no such file\n");
}

TEST_F(VxhostDpx, ConvertKeepsDepthLayoutPackingAndSamples) {
  // Planar RGBA little-endian method A, and packed RGB method B: the copy has the same
  // elements, and its picture bytes are the source's.
  const struct {
    DpxLayout layout;
    int packing;
    bool big;
    std::uint32_t elements;
  } cases[] = {{DpxLayout::PlanarRGBA, 1, false, 4}, {DpxLayout::PackedRGB, 2, true, 1}};
  for (const auto& c : cases) {
    const auto in = dir / "in.dpx", out = dir / "out.dpx";
    std::filesystem::remove(out);
    WriteSource(in, c.layout, c.packing, c.big);
    const HostRun r = Vxhost(dir, "convert -q " + Quote(in) + " " + Quote(out));
    ASSERT_EQ(r.code, 0) << r.err;
    const auto src = vxtest::ReadFile(in), dst = vxtest::ReadFile(out);
    ASSERT_EQ(dst.size(), src.size());
    EXPECT_EQ(Load16(dst.data() + 770, dst[0] == 'S'), c.elements);
    for (std::uint32_t i = 0; i < c.elements; ++i) {
      ElementSamples a, b;
      ASSERT_TRUE(dpxtest::ReadElement(src, i, &a));
      ASSERT_TRUE(dpxtest::ReadElement(dst, i, &b));
      EXPECT_EQ(b.descriptor, a.descriptor);
      EXPECT_EQ(b.bits, 10u);
      EXPECT_EQ(b.packing, static_cast<std::uint32_t>(c.packing));
      EXPECT_EQ(b.codes, a.codes) << "element " << i;
    }
  }
}

TEST_F(VxhostDpx, ConvertAppliesOptions) {
  const auto in = dir / "in.dpx", out = dir / "out.dpx";
  WriteSource(in, DpxLayout::PackedRGBA, 0, true);
  const HostRun r =
      Vxhost(dir, "convert " + Quote(in) + " " + Quote(out) +
                      " --depth 16 --layout rgb+alpha --endian little -o transfer=4 -q");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "");
  const auto f = vxtest::ReadFile(out);
  ASSERT_GE(f.size(), kHeaderSize);
  EXPECT_EQ(std::string(f.begin(), f.begin() + 4), "XPDS");
  EXPECT_EQ(Load16(f.data() + kOffElementCount, false), 2);
  EXPECT_EQ(f[ElementOffset(0) + kElDescriptor], kDescRGB);
  EXPECT_EQ(f[ElementOffset(1) + kElDescriptor], kDescAlpha);
  EXPECT_EQ(f[ElementOffset(0) + kElBitSize], 16);
  EXPECT_EQ(f[ElementOffset(0) + kElTransfer], kTransferPrintingDensity);
  ElementSamples rgb;
  ASSERT_TRUE(dpxtest::ReadElement(f, 0, &rgb));
  EXPECT_EQ(rgb.codes[1], CodeTo16(dpxtest::TestCode(0, 0, 1, 10), 10));
}

TEST_F(VxhostDpx, ConvertRefusesBadOptionsAndLeavesNoFile) {
  const auto in = dir / "in.dpx", out = dir / "out.dpx";
  WriteSource(in, DpxLayout::PackedRGB, 0, true);
  HostRun r = Vxhost(dir, "convert " + Quote(in) + " " + Quote(out) + " --depth 11");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("depth=11"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(out));
  // An option the writer does not have is only a warning.
  r = Vxhost(dir, "convert " + Quote(in) + " " + Quote(out) + " -o sharpen=2");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("sharpen=2"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(out));
  r = Vxhost(dir, "convert " + Quote(dir / "none.dpx") + " " + Quote(dir / "x.dpx"));
  EXPECT_EQ(r.code, 1);
}

TEST_F(VxhostDpx, ConvertsNumberedSequences) {
  for (int i = 7; i <= 9; ++i)
    WriteSource(dir / ("in." + std::to_string(1000 + i) + ".dpx"), DpxLayout::PackedRGB, 1, true);
  HostRun r = Vxhost(dir, "convert " + Quote(dir / "in.####.dpx") + " " +
                              Quote(dir / "out.####.dpx") + " --depth 8");
  ASSERT_EQ(r.code, 0) << r.err;
  for (int i = 7; i <= 9; ++i) {
    const auto f = vxtest::ReadFile(dir / ("out." + std::to_string(1000 + i) + ".dpx"));
    ASSERT_GE(f.size(), kHeaderSize) << i;
    EXPECT_EQ(f[ElementOffset(0) + kElBitSize], 8);
  }
  // Three frames cannot go to one name.
  r = Vxhost(dir, "convert " + Quote(dir / "in.####.dpx") + " " + Quote(dir / "one.dpx"));
  EXPECT_EQ(r.code, 1);
  EXPECT_FALSE(std::filesystem::exists(dir / "one.dpx"));
}

TEST_F(VxhostDpx, ThumbnailAveragesAreasIntoPpm) {
  // 8x4 picture: left half code 1023 in red only, right half 0; a 2x1 thumbnail keeps that.
  ImagePtr image;
  ASSERT_EQ(VxCreateImage(8, 4, VX_PF_RGBA16, image.put()), S_OK);
  for (int y = 0; y < 4; ++y) {
    auto* row = reinterpret_cast<std::uint16_t*>(image->GetBuffer() + y * image->GetRowStride());
    for (int x = 0; x < 8; ++x) {
      row[x * 4 + 0] = x < 4 ? 0xFFFF : 0;
      row[x * 4 + 1] = 0;
      row[x * 4 + 2] = x < 4 ? 0 : 0x8080;
      row[x * 4 + 3] = 0xFFFF;
    }
  }
  const auto in = dir / "t.dpx", out = dir / "t.ppm";
  DpxExportSettings settings;
  settings.bitDepth = 16;
  ASSERT_EQ(WriteDpxFile(vxtest::Wide(in).c_str(), image.get(), settings, {}), S_OK);
  const HostRun r = Vxhost(dir, "thumbnail --size 2 " + Quote(in) + " " + Quote(out));
  ASSERT_EQ(r.code, 0) << r.err;
  const auto ppm = vxtest::ReadFile(out);
  const std::string head = "P6\n2 1\n255\n";
  ASSERT_EQ(ppm.size(), head.size() + 6);
  EXPECT_EQ(std::string(ppm.begin(), ppm.begin() + head.size()), head);
  const std::vector<std::uint8_t> px(ppm.begin() + head.size(), ppm.end());
  EXPECT_EQ(px, (std::vector<std::uint8_t>{255, 0, 0, 0, 0, 128}));

  EXPECT_EQ(Vxhost(dir, "thumbnail " + Quote(in) + " " + Quote(dir / "t.bmp")).code, 1);
}

}  // namespace
