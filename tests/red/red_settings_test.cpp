#include "red/r3d/red_settings.h"

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

#if defined(VX_TEST_TINYXML2)
#include <tinyxml2.h>
#endif

namespace vx::red {
namespace {

std::string AsText(const std::vector<std::uint8_t>& b) {
  return std::string(b.begin(), b.end());
}

RedLook SampleLook() {
  RedLook look;
  for (int i = 0; i < 24; ++i) look.field[i] = 100.0f + i;  // index i holds 100 + i
  look.field[RedLook::kKelvin] = 5600.0f;
  look.field[RedLook::kTint] = -1.5f;
  look.field[RedLook::kExposure] = 0.25f;
  look.SetIso(800);
  return look;
}

// Every line written by hand: the order, "%f" and the three constants are the file format.
const char kExpected[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n"
    "\t<key>DRX</key>\n\t<real>110.000000</real>\n"
    "\t<key>blackLevel</key>\n\t<real>-0.125000</real>\n"
    "\t<key>blackX</key>\n\t<real>114.000000</real>\n"
    "\t<key>blackY</key>\n\t<real>115.000000</real>\n"
    "\t<key>blue</key>\n\t<real>106.000000</real>\n"
    "\t<key>brightness</key>\n\t<real>109.000000</real>\n"
    "\t<key>contrast</key>\n\t<real>108.000000</real>\n"
    "\t<key>curveActive</key>\n\t<true/>\n"
    "\t<key>exposure</key>\n\t<real>0.250000</real>\n"
    "\t<key>green</key>\n\t<real>105.000000</real>\n"
    "\t<key>inputBlackX</key>\n\t<real>0.0</real>\n"
    "\t<key>inputWhiteX</key>\n\t<real>1</real>\n"
    "\t<key>kelvin</key>\n\t<real>5600.000000</real>\n"
    "\t<key>kneeX</key>\n\t<real>120.000000</real>\n"
    "\t<key>kneeY</key>\n\t<real>121.000000</real>\n"
    "\t<key>midX</key>\n\t<real>118.000000</real>\n"
    "\t<key>midY</key>\n\t<real>119.000000</real>\n"
    "\t<key>red</key>\n\t<real>104.000000</real>\n"
    "\t<key>saturation</key>\n\t<real>107.000000</real>\n"
    "\t<key>tint</key>\n\t<real>-1.500000</real>\n"
    "\t<key>toeX</key>\n\t<real>116.000000</real>\n"
    "\t<key>toeY</key>\n\t<real>117.000000</real>\n"
    "\t<key>whiteX</key>\n\t<real>122.000000</real>\n"
    "\t<key>whiteY</key>\n\t<real>123.000000</real>\n"
    "</dict>\n"
    "</plist>\n";

TEST(RedSettings, WritesByteExactPlistForBothFormats) {
  vxtest::TempDir dir;
  for (const char* name : {"look.RLX", "look.rsx"}) {
    SCOPED_TRACE(name);
    auto prsr = RedSettingsPrsr::ForPath(vxtest::Wide(dir / name).c_str());
    ASSERT_TRUE(prsr);
    ASSERT_TRUE(prsr->Write(vxtest::Wide(dir / name).c_str(), SampleLook(), -0.125f));
    const std::string text = AsText(vxtest::ReadFile(dir / name));
    EXPECT_EQ(text, kExpected);
#if defined(VX_TEST_TINYXML2)
    // Well-formed, and the dictionary alternates key and value: 24 pairs.
    tinyxml2::XMLDocument doc;
    ASSERT_EQ(doc.Parse(text.c_str(), text.size()), tinyxml2::XML_SUCCESS);
    const auto* dict = doc.FirstChildElement("plist")->FirstChildElement("dict");
    ASSERT_NE(dict, nullptr);
    int n = 0;
    for (const auto* e = dict->FirstChildElement(); e; e = e->NextSiblingElement(), ++n) {
      EXPECT_EQ(std::string(e->Name()) == "key", n % 2 == 0) << n;
    }
    EXPECT_EQ(n, 48);
#endif
  }
  // No folder, no file: false, and nothing else happens.
  RedRLX rlx;
  EXPECT_FALSE(rlx.Write(vxtest::Wide(dir / "missing" / "a.rlx").c_str(), SampleLook(), 0));
}

TEST(RedSettings, PicksVariantByExtension) {
  struct Case {
    const VxChar* path;
    bool recognised;
    bool supported;
  } cases[] = {
      {VXT("/a/b.rlx"), true, true},  {VXT("/a/b.RSX"), true, true},
      {VXT("/a/b.Rmd"), true, false}, {VXT("/a/b.r3d"), false, false},
      {VXT("/a/rlx"), false, false},  {VXT("/a/b.rlxx"), false, false},
  };
  for (const Case& c : cases) {
    auto p = RedSettingsPrsr::ForPath(c.path);
    EXPECT_EQ(p != nullptr, c.recognised) << vx::ToUtf8(c.path);
    if (p) {
      EXPECT_EQ(p->Supported(), c.supported) << vx::ToUtf8(c.path);
    }
  }
  // RMD is answered as not supported both ways.
  vxtest::TempDir dir;
  RedRMD rmd;
  RedLook look;
  float black = 0;
  EXPECT_FALSE(rmd.Write(vxtest::Wide(dir / "x.rmd").c_str(), look, 0));
  EXPECT_FALSE(std::filesystem::exists(dir / "x.rmd"));
  EXPECT_FALSE(rmd.ReadText(kExpected, sizeof kExpected - 1, &look, &black));
}

#if defined(VX_TEST_TINYXML2)
TEST(RedSettings, ReadsKeysWithoutCaseAndSkipsTheRest) {
  struct Case {
    const char* name;
    const char* dict;  // the dictionary's entries
    bool ok;
    int field;  // -1: black level; -2: nothing changes
    float value;
  } cases[] = {
      {"exact", "<key>kelvin</key><real>3200.5</real>", true, RedLook::kKelvin, 3200.5f},
      {"upper", "<key>KELVIN</key><real>4000</real>", true, RedLook::kKelvin, 4000},
      {"drx lower", "<key>drx</key><real>0.7</real>", true, RedLook::kDrx, 0.7f},
      {"toe", "<key>ToeY</key><real>0.125</real>", true, RedLook::kToeY, 0.125f},
      {"knee", "<key>kneex</key><integer>3</integer>", true, RedLook::kKneeX, 3},
      {"black level", "<key>BLACKLEVEL</key><real>-2</real>", true, -1, -2},
      {"unknown", "<key>iso</key><real>5</real><key>foo</key><real>1</real>", true, -2, 0},
      {"constant", "<key>inputWhiteX</key><real>9</real>", true, -2, 0},
      {"not a number", "<key>red</key><real>abc</real>", true, -2, 0},
      {"key without value", "<key>red</key>", true, -2, 0},
      {"unknown then known",
       "<key>x</key><dict><key>red</key><real>1</real></dict><key>green</key><real>2.5</real>",
       true, RedLook::kGreen, 2.5f},
      {"broken xml", "<key>red</key><real>1</real", false, -2, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string text = std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>") +
                             c.dict + "</dict></plist>";
    RedLook look;
    look.field.fill(7.0f);
    float black = 7.0f;
    RedRSX rsx;
    EXPECT_EQ(rsx.ReadText(text.data(), text.size(), &look, &black), c.ok);
    for (int i = 0; i < 24; ++i) {
      EXPECT_EQ(look.field[i], i == c.field ? c.value : 7.0f) << i;
    }
    EXPECT_EQ(black, c.field == -1 ? c.value : 7.0f);
  }
}

TEST(RedSettings, RoundTripsThroughAFile) {
  vxtest::TempDir dir;
  const VxString path = vxtest::Wide(dir / "clip.RLX");
  RedLook written = SampleLook();
  RedRLX rlx;
  ASSERT_TRUE(rlx.Write(path.c_str(), written, 0.5f));
  RedLook read;
  float black = 0;
  ASSERT_TRUE(rlx.Read(path.c_str(), &read, &black));
  EXPECT_EQ(black, 0.5f);
  for (int i = 0; i < 24; ++i) {
    const bool stored = i != 0 && i != 11 && i != 12 && i != 13;
    EXPECT_EQ(read.field[i], stored ? written.field[i] : 0.0f) << i;
  }
  EXPECT_FALSE(rlx.Read(vxtest::Wide(dir / "none.rlx").c_str(), &read, &black));
}
#endif

}  // namespace
}  // namespace vx::red
