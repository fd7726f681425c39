// vxhost on R3D clips: info, and convert to DPX and TIFF sequences through the decoder pool.
#include <gtest/gtest.h>

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

#endif

}  // namespace
