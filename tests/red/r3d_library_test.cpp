// The clip reader and frame decoder of Linux builds against clips written here and against
// FFmpeg (libavformat's r3d demuxer and its JPEG 2000 decoder) as the peer.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "r3d_test_clip.h"
#include "red/r3d/r3d_container.h"
#include "red/r3d/red_library.h"
#include "test_util.h"

namespace vx::red {
namespace {

#if defined(VX_TEST_OPENJP2) && !defined(_WIN32)

bool HaveFfmpeg() {
  return std::system("ffmpeg -version > /dev/null 2>&1") == 0;
}

std::string Capture(const std::string& cmd) {
  std::string out;
  if (std::FILE* p = popen(cmd.c_str(), "r")) {
    char buf[256];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
  }
  return out;
}

// 16- and 12-bit samples, each decoded on one thread and on three.
class R3DClipDecode : public ::testing::TestWithParam<std::tuple<int, int>> {
 protected:
  void TearDown() override { DefaultRedLibrary().SetDecodeThreads(1); }
};

TEST_P(R3DClipDecode, EveryModeLikeFfmpeg) {
  if (!HaveFfmpeg()) GTEST_SKIP() << "no ffmpeg";
  const auto [precision, threads] = GetParam();
  DefaultRedLibrary().SetDecodeThreads(threads);
  vxtest::TempDir dir;
  redtest::ClipPlan plan;
  plan.width = 128;
  plan.height = 64;
  plan.frames = 5;
  plan.precision = precision;
  plan.metadata = "timecode=01:02:03:04\niso=800\n";
  const auto path = redtest::WriteClip(dir / "A001.R3D", plan)[0];
  const unsigned max = (1u << precision) - 1;

  // The peer agrees about the container.
  const std::string probe = Capture(
      "ffprobe -v error -select_streams v:0 -count_packets -show_entries "
      "stream=codec_name,width,height,r_frame_rate,nb_read_packets "
      "-of csv=p=0 " +
      vxtest::Quote(path));
  EXPECT_EQ(probe, "jpeg2000,128,64,24000/1001,5\n");

  auto clip = DefaultRedLibrary().OpenClip(vxtest::Wide(path).c_str());
  ASSERT_TRUE(clip);
  const RedClipInfo& info = clip->Info();
  EXPECT_EQ(info.width, 128u);
  EXPECT_EQ(info.height, 64u);
  EXPECT_EQ(info.frameCount, 5);
  EXPECT_EQ(info.rateNumerator, 24000u);
  EXPECT_EQ(info.rateDenominator, 1001u);
  EXPECT_EQ(info.timeCode, "01:02:03:04");
  std::string iso;
  EXPECT_TRUE(clip->Metadata("iso", &iso));
  EXPECT_EQ(iso, "800");
  EXPECT_FALSE(clip->Metadata("kelvin", &iso));

  for (int shift = 0; shift <= 4; ++shift) {
    SCOPED_TRACE(shift);
    const std::uint32_t w = 128 >> shift, h = 64 >> shift;
    // Frame 3 as FFmpeg decodes it at the same reduction.
    const auto raw = dir / ("peer" + std::to_string(shift) + ".raw");
    const std::string cmd = "ffmpeg -v error -y -lowres " + std::to_string(shift) + " -i " +
                            vxtest::Quote(path) +
                            " -vf 'select=eq(n\\,3)' -frames:v 1 -f rawvideo -pix_fmt rgb48le " +
                            vxtest::Quote(raw) + " 2>/dev/null";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    const std::vector<std::uint8_t> peer = vxtest::ReadFile(raw);
    ASSERT_EQ(peer.size(), std::size_t{w} * h * 6);

    std::vector<std::uint8_t> rgb(std::size_t{w} * h * 6), bgra(std::size_t{w} * h * 4);
    ASSERT_TRUE(clip->Decode(3, shift, RedPixels::kRgb16, rgb.data(), rgb.size()));
    ASSERT_TRUE(clip->Decode(3, shift, RedPixels::kBgra8, bgra.data(), bgra.size()));
    int bad = 0;
    for (std::size_t i = 0; i < std::size_t{w} * h && bad < 5; ++i) {
      for (int c = 0; c < 3; ++c) {
        // FFmpeg puts narrower samples in the top bits; ours span the full 16-bit range.
        const unsigned sample =
            (peer[i * 6 + 2 * c] | peer[i * 6 + 2 * c + 1] << 8) >> (16 - precision);
        const unsigned want = (sample * 65535 + max / 2) / max;
        const unsigned want8 = (sample * 255 + max / 2) / max;
        std::uint16_t got;
        std::memcpy(&got, &rgb[i * 6 + 2 * c], 2);
        if (got != want || bgra[i * 4 + 2 - c] != want8) {
          ADD_FAILURE() << "pixel " << i << " component " << c << ": " << got << " / "
                        << int(bgra[i * 4 + 2 - c]) << ", peer " << want;
          ++bad;
        }
      }
      if (bgra[i * 4 + 3] != 255) ++bad;
    }
    if (shift == 0) {
      // Lossless at full size: the very picture written.
      std::uint16_t v;
      std::memcpy(&v, &rgb[(5 * 128 + 7) * 6 + 2], 2);
      EXPECT_EQ(v, (redtest::PatternSample(3, 7, 5, 1) & max) * 65535 / max);
    }
  }
  std::vector<std::uint8_t> small(10);
  EXPECT_FALSE(clip->Decode(0, 0, RedPixels::kRgb16, small.data(), small.size()));
  std::vector<std::uint8_t> any(128 * 64 * 6);
  EXPECT_FALSE(clip->Decode(5, 0, RedPixels::kRgb16, any.data(), any.size()));
  EXPECT_FALSE(clip->Decode(-1, 0, RedPixels::kRgb16, any.data(), any.size()));
}
INSTANTIATE_TEST_SUITE_P(PrecisionAndThreads, R3DClipDecode,
                         ::testing::Values(std::make_tuple(16, 1), std::make_tuple(12, 1),
                                           std::make_tuple(16, 3), std::make_tuple(12, 3)));

TEST(R3DClip, SpannedClipIsOneClip) {
  vxtest::TempDir dir;
  redtest::ClipPlan plan;
  plan.frames = 7;
  plan.framesPerPart = 3;
  const auto parts = redtest::WriteClip(dir / "B002", plan);
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(parts[2].filename(), "B002_003.R3D");
  auto clip = DefaultRedLibrary().OpenClip(vxtest::Wide(parts[0]).c_str());
  ASSERT_TRUE(clip);
  EXPECT_EQ(clip->Info().frameCount, 7);
  std::vector<std::uint8_t> rgb(64 * 32 * 6);
  for (int f : {0, 2, 3, 6}) {
    ASSERT_TRUE(clip->Decode(f, 0, RedPixels::kRgb16, rgb.data(), rgb.size())) << f;
    std::uint16_t v;
    std::memcpy(&v, &rgb[(9 * 64 + 30) * 6 + 4], 2);
    EXPECT_EQ(v, redtest::PatternSample(f, 30, 9, 2)) << f;
  }
  // A later part of another size ends the clip's opening.
  redtest::ClipPlan other;
  other.width = 32;
  redtest::WriteClip(dir / "tmp.R3D", other);
  std::filesystem::rename(dir / "tmp.R3D", parts[1]);
  EXPECT_FALSE(DefaultRedLibrary().OpenClip(vxtest::Wide(parts[0]).c_str()));
  EXPECT_EQ(ToUtf8(NextR3DPart(VXT("/x/C_009.r3d"))), "/x/C_010.r3d");
  EXPECT_EQ(ToUtf8(NextR3DPart(VXT("/x/C009.r3d"))), "");
  EXPECT_EQ(ToUtf8(NextR3DPart(VXT("/x/C_999.r3d"))), "");
}

TEST(R3DClip, DamagedClipsFailOrEndEarly) {
  vxtest::TempDir dir;
  redtest::ClipPlan plan;
  plan.frames = 3;
  const auto good = vxtest::ReadFile(redtest::WriteClip(dir / "good.R3D", plan)[0]);
  const std::size_t frameAtom = 324;  // the first frame's atom follows the header
  struct Case {
    const char* name;
    std::size_t at;  // where to patch (or cut, when `cut`)
    std::vector<std::uint8_t> bytes;
    bool cut;
    int frames;  // -1: does not open
    bool firstDecodes;
  } cases[] = {
      {"intact", 0, {}, false, 3, true},
      {"cut in the header", 100, {}, true, -1, false},
      {"cut in the last frame", good.size() - 10, {}, true, 2, true},
      {"no RED1", 4, {'R', 'E', 'D', '2'}, false, -1, false},
      {"zero width", 52, {0, 0, 0, 0}, false, -1, false},
      {"absurd width", 52, {0x7F, 0xFF, 0xFF, 0xFF}, false, -1, false},
      {"zero rate", 62, {0, 0}, false, -1, false},
      {"frames of another size", 52, {0, 0, 0, 48}, false, 3, false},
      {"header longer than file", 0, {0x7F, 0, 0, 0}, false, -1, false},
      {"atom shorter than its header", frameAtom, {0, 0, 0, 4}, false, -1, false},
      {"atom past the end", frameAtom, {0x7F, 0, 0, 0}, false, -1, false},
      {"codestream garbage", frameAtom + 20, std::vector<std::uint8_t>(64, 0xA5), false, 3, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::uint8_t> bytes = good;
    if (c.cut) {
      bytes.resize(c.at);
    } else {
      std::copy(c.bytes.begin(), c.bytes.end(), bytes.begin() + static_cast<long>(c.at));
    }
    const auto p = dir / "bad.R3D";
    vxtest::WriteFile(p, bytes);
    auto clip = DefaultRedLibrary().OpenClip(vxtest::Wide(p).c_str());
    ASSERT_EQ(clip != nullptr, c.frames >= 0);
    if (!clip) continue;
    EXPECT_EQ(clip->Info().frameCount, c.frames);
    std::vector<std::uint8_t> rgb(64 * 32 * 6);
    EXPECT_EQ(clip->Decode(0, 1, RedPixels::kRgb16, rgb.data(), rgb.size()), c.firstDecodes);
  }
}

#endif

}  // namespace
}  // namespace vx::red
