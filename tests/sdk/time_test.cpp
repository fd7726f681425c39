#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "vx/sdk.h"

namespace {

void ExpectRate(double rate, int num, int den) {
  const VxTimeFormat f = VxGetTimeFormatFromSampleRate(rate);
  EXPECT_EQ(std::pair(f.rateNum, f.rateDen), std::pair(num, den)) << rate;
}

TEST(Time, RatesSnapFramesAreExactTicksAndToFrameIsTheirFloor) {
  ExpectRate(23.976, 24000, 1001);
  ExpectRate(23.9759, 24000, 1001);
  ExpectRate(24000.0 / 1001.0, 24000, 1001);
  ExpectRate(29.97, 30000, 1001);
  ExpectRate(47.952, 48000, 1001);
  ExpectRate(59.94, 60000, 1001);
  ExpectRate(119.88, 120000, 1001);
  ExpectRate(23.974, 11987, 500);  // outside the snapping window
  ExpectRate(24.0, 24, 1);
  ExpectRate(25.0, 25, 1);
  ExpectRate(12.5, 25, 2);
  ExpectRate(48000.0, 48000, 1);
  ExpectRate(44100.0, 44100, 1);
  for (double bad : {0.0, -24.0, std::nan(""), std::numeric_limits<double>::infinity(), 1e12, 1e-5})
    ExpectRate(bad, 0, 1);

  // Frames at common rates are exact ticks; ToFrame is their floor.
  const VxTimeFormat f24 = VxGetTimeFormatFromSampleRate(24.0);
  const VxTimeFormat ntsc = VxGetTimeFormatFromSampleRate(29.97);
  EXPECT_EQ(CVxTime(1, f24).Ticks(), 29400000);
  EXPECT_EQ(CVxTime(24, f24).Ticks(), kVxTicksPerSecond);
  EXPECT_EQ(CVxTime(30000, ntsc).Ticks(), 1001 * kVxTicksPerSecond);
  EXPECT_EQ(CVxTime(1, ntsc).Ticks(), 23543520);
  EXPECT_EQ(CVxTime(-1, f24).Ticks(), -29400000);
  const VxTimeFormat audio = VxGetTimeFormatFromSampleRate(44100.0);
  EXPECT_EQ(CVxTime(44100, audio).Ticks(), kVxTicksPerSecond);
  EXPECT_DOUBLE_EQ(CVxTime(12, f24).Seconds(), 0.5);

  // ToFrame is the floor and inverts frame starts.
  EXPECT_EQ(CVxTime(29399999).ToFrame(f24), 0);
  EXPECT_EQ(CVxTime(29400000).ToFrame(f24), 1);
  EXPECT_EQ(CVxTime(-1).ToFrame(f24), -1);
  // A rate that does not divide the time base: frame starts still map back to their frame,
  // and the tick before a start belongs to the previous frame.
  const VxTimeFormat odd{7, 3};
  for (std::int64_t f : {-1000001LL, -7LL, -1LL, 0LL, 1LL, 2LL, 3LL, 1000003LL}) {
    const CVxTime t(f, odd);
    EXPECT_EQ(t.ToFrame(odd), f) << f;
    EXPECT_EQ(CVxTime(t.Ticks() - 1).ToFrame(odd), f - 1) << f;
  }
  // Long programmes do not overflow: ten days at 23.976.
  const VxTimeFormat film = VxGetTimeFormatFromSampleRate(23.976);
  const std::int64_t frames = 10LL * 24 * 3600 * 24;
  EXPECT_EQ(CVxTime(frames, film).ToFrame(film), frames);
}

TEST(Time, ExtremesSaturateAndInvalidFormatsGiveZero) {
  const VxTimeFormat slow{1, 1000};
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min(), kMax = -(kMin + 1);
  EXPECT_EQ(CVxTime(kMax, slow).Ticks(), kMax);
  EXPECT_EQ(CVxTime(kMin, slow).Ticks(), kMin);
  // 120 fps is 5,880,000 ticks a frame: floor division, not truncation, of the most negative time.
  const std::int64_t expected = kMin / 5880000 - (kMin % 5880000 != 0 ? 1 : 0);
  EXPECT_EQ(CVxTime(kMin).ToFrame(VxTimeFormat{120, 1}), expected);
  EXPECT_EQ(CVxTime(5, VxTimeFormat{0, 1}).Ticks(), 0);
  EXPECT_EQ(CVxTime(5, VxTimeFormat{24, 0}).Ticks(), 0);
  EXPECT_EQ(CVxTime(1000).ToFrame(VxTimeFormat{-24, 1}), 0);
}

TEST(TimeCode, BcdWordsRoundTrip) {
  EXPECT_EQ(VxConstructLTCInBCD(10, 59, 30, 23), 0x10593023u);
  EXPECT_EQ(VxConstructLTCInBCD(0, 0, 0, 0), 0u);
  EXPECT_EQ(VxConstructLTCInBCD(23, 59, 59, 29), 0x23595929u);
  int h, m, s, f;
  for (DWORD word : {0x10593023u, 0x00000001u, 0x99999999u}) {
    ASSERT_TRUE(VxParseLTCInBCD(word, &h, &m, &s, &f)) << std::hex << word;
    EXPECT_EQ(VxConstructLTCInBCD(h, m, s, f), word);
  }
  ASSERT_TRUE(VxParseLTCInBCD(0x01020304u, &h, &m, &s, &f));
  EXPECT_EQ((std::array{h, m, s, f}), (std::array{1, 2, 3, 4}));
  EXPECT_FALSE(VxParseLTCInBCD(0xFFFFFFFFu, &h, &m, &s, &f));
  EXPECT_FALSE(VxParseLTCInBCD(0x1000000Au, &h, &m, &s, &f));  // units nibble of frames
  EXPECT_FALSE(VxParseLTCInBCD(0xA0000000u, &h, &m, &s, &f));  // tens nibble of hours
  EXPECT_EQ(VxConstructLTCInBCD(100, 0, 0, 0), 0xFFFFFFFFu);
  EXPECT_EQ(VxConstructLTCInBCD(0, -1, 0, 0), 0xFFFFFFFFu);
}

// Film-header edge code texts: fixed-width fields padded with blanks, some empty or missing.
TEST(EdgeCodeText, ParsesWhatTheFilmHeaderBuilds) {
  struct Row {
    const char* text;
    const char *manufacturer, *type, *perf, *prefix, *count, *back;  // back: ToString
  };
  const Row rows[] = {
      {"KD 35 12-123456+7890", "KD", "35", "12", "123456", "7890", "KD 35 12-123456+7890"},
      {" 05 -A1B2  +0042", "", "05", "", "A1B2", "0042", " 05 -A1B2+0042"},
      {"K  35 2 -12    +0007", "K", "35", "2", "12", "0007", "K 35 2-12+0007"},
      {"KD 35 +99", "KD", "35", "", "", "99", "KD 35 -+99"},
      {"KD", "KD", "", "", "", "", "KD  -+"},
  };
  EdgeCode e;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    ASSERT_TRUE(e.InitFromString(r.text));
    using Six = std::array<std::string, 6>;
    EXPECT_EQ((Six{e.manufacturer, e.filmType, e.perfOffset, e.prefix, e.count, e.ToString()}),
              (Six{r.manufacturer, r.type, r.perf, r.prefix, r.count, r.back}));
  }
  // Nothing usable is invalid, with nothing left over from the earlier text.
  EXPECT_FALSE(e.InitFromString("  -+"));
  EXPECT_FALSE(e.IsValid());
  EXPECT_EQ(e.ToString(), "");
  EXPECT_EQ(e.prefix, "");
  EXPECT_FALSE(e.InitFromString(""));
  EXPECT_FALSE(e.InitFromString(nullptr));
}

}  // namespace
