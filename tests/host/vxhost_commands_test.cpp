// vxhost's rules common to every command: what a name stands for, what convert keeps and
// refuses, exit codes, and text from files made safe. The pictures come from ImageMagick, so
// nothing here rests on our own writer.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "test_util.h"

namespace {

using Json = nlohmann::json;
using vxtest::Quote;

class VxhostCommands : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef _WIN32
    GTEST_SKIP() << "runs vxhost and ImageMagick through a POSIX shell";
#else
    if (std::system("command -v convert >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "ImageMagick's convert is not installed";
    // shot.0001..0003.dpx: 16x8, red 60/120/180 of 255, time code 01:00:00:0N.
    for (int i = 1; i <= 3; ++i) {
      const std::string cmd = "convert -size 16x8 'xc:rgb(" + std::to_string(60 * i) +
                              ",10,10)' -depth 10 -define dpx:television.time.code=01:00:00:0" +
                              std::to_string(i) + " " + Quote(dir / Shot(i));
      ASSERT_EQ(std::system(cmd.c_str()), 0);
    }
#endif
  }

  static std::string Shot(int i) {
    return "shot.000" + std::to_string(i) + ".dpx";
  }

  vxtest::HostRun Host(const std::string& args) {
    return vxtest::RunHost(dir.path(), args);
  }

  Json HostJson(const std::string& args) {
    const vxtest::HostRun r = Host(args);
    EXPECT_EQ(r.code, 0) << args << ": " << r.err;
    return Json::parse(r.out, nullptr, false);
  }

  vxtest::TempDir dir;
};

TEST_F(VxhostCommands, AFileNameIsThatFileAndAPatternIsTheSequence) {
  struct Case {
    std::string args;
    int frames;
    std::string timeCode;
  };
  const Case cases[] = {
      {"info shot.0002.dpx --json", 1, "01:00:00:02"},
      {"info --sequence shot.0002.dpx --json", 3, "01:00:00:01"},
      {"info 'shot.####.dpx' --json", 3, "01:00:00:01"},
      {"info 'shot.%04d.dpx' --json", 3, "01:00:00:01"},
  };
  for (const Case& c : cases) {
    const Json j = HostJson(c.args);
    ASSERT_TRUE(j.is_array()) << c.args;
    EXPECT_EQ(j[0]["picture"]["frames"], c.frames) << c.args;
    EXPECT_EQ(j[0]["source"]["time code"], c.timeCode) << c.args;
  }
  // The thumbnail of a named frame draws that frame (red 120 of 255), not the sequence's first.
  ASSERT_EQ(Host("thumbnail shot.0002.dpx t.ppm --size 4").code, 0);
  const auto ppm = vxtest::ReadFile(dir / "t.ppm");
  ASSERT_GT(ppm.size(), 3u);
  EXPECT_NEAR(ppm[ppm.size() - 3], 120, 1);
}

TEST_F(VxhostCommands, ConvertKeepsTimeCodesHonoursRangesAndNeverOverwrites) {
  // A range of a sequence: frames 2 and 3 keep their numbers and their own time codes.
  vxtest::HostRun r = Host("convert 'shot.####.dpx' 'out.####.dpx' --frames 2-3");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_FALSE(std::filesystem::exists(dir / "out.0001.dpx"));
  for (int i = 2; i <= 3; ++i) {
    const Json j = HostJson("info out.000" + std::to_string(i) + ".dpx --json");
    EXPECT_EQ(j[0]["source"]["time code"], "01:00:00:0" + std::to_string(i));
  }
  // Not a terminal: progress comes as lines.
  EXPECT_NE(r.err.find("out.####.dpx: 2/2 (100%)\n"), std::string::npos) << r.err;

  // Nothing is replaced without --force, and nothing at all is written then.
  const auto before = vxtest::ReadFile(dir / "out.0002.dpx");
  r = Host("convert 'shot.####.dpx' 'out.####.dpx' -q");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("exists; --force replaces it"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(dir / "out.0001.dpx"));
  r = Host("convert 'shot.####.dpx' 'out.####.dpx' -q --force");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(std::filesystem::exists(dir / "out.0001.dpx"));
  EXPECT_EQ(vxtest::ReadFile(dir / "out.0002.dpx").size(), before.size());

  // One frame of a sequence to a pattern is a numbered file, not a name with "####".
  r = Host("convert 'shot.####.dpx' 'one.####.dpx' --frames 3 -q");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(std::filesystem::exists(dir / "one.0003.dpx"));
  EXPECT_FALSE(std::filesystem::exists(dir / "one.####.dpx"));

  // Refusals in words, before any file appears.
  struct Refusal {
    std::string args, words;
  };
  const Refusal refusals[] = {
      {"convert shot.0001.dpx bad.dpx --transfer sepia", "unknown transfer 'sepia'"},
      {"convert 'shot.####.dpx' bad.dpx", "needs a frame field"},
      {"convert 'shot.####.dpx' 'bad.####.dpx' --frames 7-9", "no frame in the range"},
      {"convert 'shot.####.dpx' 'bad.####.dpx' --frames x", "--frames takes"},
      {"convert shot.0001.dpx bad.xyz", "no parser registered for .XYZ"},
      {"convert none.dpx bad.dpx", "cannot open: no such file"},
  };
  for (const Refusal& x : refusals) {
    r = Host(x.args);
    EXPECT_EQ(r.code, 1) << x.args;
    EXPECT_NE(r.err.find(x.words), std::string::npos) << x.args << ": " << r.err;
  }
  for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
    EXPECT_EQ(entry.path().filename().string().rfind("bad", 0), std::string::npos);
}

TEST_F(VxhostCommands, TextFromFilesIsCleanedAndFailuresExitNonZero) {
  // Bytes that are not UTF-8 in the input device name (orientation header, offset 1556).
  auto bytes = vxtest::ReadFile(dir / Shot(1));
  ASSERT_GT(bytes.size(), 1600u);
  const unsigned char device[] = {0xFF, 0xFE, 'C', 'a', 'm', 0x01, 0};
  std::copy(std::begin(device), std::end(device), bytes.begin() + 1556);
  vxtest::WriteFile(dir / "odd.dpx", bytes);

  const Json info = HostJson("info odd.dpx --json");
  ASSERT_FALSE(info.is_discarded());
  const std::string text = info[0]["source"].value("input-device", "");
  EXPECT_NE(text.find("Cam"), std::string::npos) << info.dump();
  EXPECT_EQ(text.find('\x01'), std::string::npos);
  const vxtest::HostRun plain = Host("info odd.dpx");
  EXPECT_EQ(plain.code, 0);
  EXPECT_EQ(plain.out.find('\xFF'), std::string::npos);

  const Json report = HostJson("report odd.dpx --json");
  ASSERT_FALSE(report.is_discarded());
  EXPECT_EQ(report[0]["Image element 0"]["bit depth"], "10") << report.dump();

  // A broken file: the report still describes it, and the exit code says it does not read.
  vxtest::WriteFile(dir / "junk.dpx", std::vector<std::uint8_t>(3000, 0x55));
  const vxtest::HostRun junk = Host("report junk.dpx");
  EXPECT_EQ(junk.code, 1);
  EXPECT_NE(junk.out.find("not a DPX file"), std::string::npos) << junk.out;
  EXPECT_NE(junk.err.find("junk.dpx: not a readable DPX file"), std::string::npos) << junk.err;
}

}  // namespace
