// vxhost on R3D clips: info, and convert to DPX and TIFF sequences through the decoder pool.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "r3d_test_clip.h"
#include "test_util.h"

namespace {

#if defined(VX_TEST_OPENJP2) && !defined(_WIN32)

TEST(R3DHost, InfoAndConvertAtADecodeMode) {
  if (!std::filesystem::exists(vxtest::BinDir() / "vxhost")) GTEST_SKIP() << "no vxhost";
  vxtest::TempDir dir;
  redtest::ClipPlan plan;
  plan.width = 128;
  plan.height = 64;
  plan.frames = 6;
  plan.rateNumerator = 24;
  plan.rateDenominator = 1;
  plan.metadata = "timecode=01:00:00:00\nwhite_balance_kelvin=4300\niso=320\n";
  redtest::WriteClip(dir / "E001.R3D", plan);
  const std::string rlx =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>exposure</key><real>1.5</real>"
      "</dict></plist>";
  vxtest::WriteFile(dir / "E001.RLX", std::vector<std::uint8_t>(rlx.begin(), rlx.end()));

  vxtest::HostRun r = vxtest::RunHost(dir.path(), "info --json E001.R3D");
  ASSERT_EQ(r.code, 0) << r.err;
  for (const char* want : {"\"size\": \"128x64\"", "\"frames\": 6",
                           "\"time code\": \"01:00:00:00\"", "\"red:kelvin\": \"4300\"",
                           "\"red:exposure\": \"1.5\"", "\"red:iso\": \"320\"", "E001.RLX"}) {
    EXPECT_NE(r.out.find(want), std::string::npos) << want << "\n" << r.out;
  }

  r = vxtest::RunHost(dir.path(), "convert E001.R3D q.####.dpx -i decode=quarter --frames 1-4");
  ASSERT_EQ(r.code, 0) << r.err;
  r = vxtest::RunHost(dir.path(), "info --json q.0003.dpx");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("\"size\": \"32x16\""), std::string::npos) << r.out;
  EXPECT_FALSE(std::filesystem::exists(dir / "q.0005.dpx"));
  r = vxtest::RunHost(dir.path(), "convert E001.R3D h.####.tif -i decode=half -i format=bgra8");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(std::filesystem::exists(dir / "h.0005.tif"));
}

// Frames written by convert, read back by ffmpeg, equal ffmpeg's own decode of the clip's JPEG 2000
// frame at the same reduction: 16-bit exactly, 8-bit rounded from it.
TEST(R3DHost, ConvertedFramesEqualTheDecodedCodestreams) {
  if (!std::filesystem::exists(vxtest::BinDir() / "vxhost")) GTEST_SKIP() << "no vxhost";
  if (std::system("ffmpeg -version > /dev/null 2>&1") != 0) GTEST_SKIP() << "no ffmpeg";
  vxtest::TempDir dir;
  redtest::ClipPlan plan;
  plan.width = 96;
  plan.height = 40;
  plan.frames = 4;
  redtest::WriteClip(dir / "P001.R3D", plan);
  auto raw = [](const std::string& cmd) {
    std::string out;
    if (std::FILE* p = popen((cmd + " 2>/dev/null").c_str(), "r")) {
      char buf[4096];
      std::size_t n;
      while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
      pclose(p);
    }
    return out;
  };
  struct Case {
    const char* output;  // frame 3 of the clip is file 0003
    const char* options;
    int shift;
    bool eightBit;
  };
  const Case cases[] = {{"full.####.dpx", "", 0, false},
                        {"full.####.tif", "", 0, false},
                        {"half.####.dpx", "-i decode=half", 1, false},
                        {"half.####.tif", "-i decode=half -i format=bgra8", 1, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.output);
    const vxtest::HostRun r = vxtest::RunHost(
        dir.path(), std::string("convert P001.R3D ") + c.output + " " + c.options + " -q");
    ASSERT_EQ(r.code, 0) << r.err;
    const std::string peer = raw("ffmpeg -v error -lowres " + std::to_string(c.shift) + " -i " +
                                 vxtest::Quote(dir / "P001.R3D") +
                                 " -vf 'select=eq(n\\,2)' -frames:v 1 -f rawvideo "
                                 "-pix_fmt rgb48le -");
    std::string name = c.output;
    name.replace(name.find("####"), 4, "0003");
    const std::string got =
        raw("ffmpeg -v error -i " + vxtest::Quote(dir / name) + " -f rawvideo -pix_fmt " +
            (c.eightBit ? "rgb24" : "rgb48le") + " -");
    const std::size_t pixels = std::size_t{96u >> c.shift} * (40u >> c.shift);
    ASSERT_EQ(peer.size(), pixels * 6);
    ASSERT_EQ(got.size(), pixels * (c.eightBit ? 3 : 6));
    int bad = 0;
    for (std::size_t i = 0; i < pixels * 3; ++i) {
      const unsigned want = static_cast<unsigned char>(peer[2 * i]) |
                            static_cast<unsigned char>(peer[2 * i + 1]) << 8;
      const unsigned have = c.eightBit ? static_cast<unsigned char>(got[i])
                                       : static_cast<unsigned char>(got[2 * i]) |
                                             static_cast<unsigned char>(got[2 * i + 1]) << 8;
      bad += have != (c.eightBit ? (want * 255 + 32767) / 65535 : want);
    }
    EXPECT_EQ(bad, 0);
  }
}

#endif

}  // namespace
