#include "red/r3d/red_process_helper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "fake_red_library.h"
#include "red/r3d/red_request.h"
#include "test_util.h"

namespace vx::red {
namespace {

using redtest::Card;
using redtest::FakeLibrary;

using vxtest::ScopedEnv;

std::vector<std::uint8_t> Request(const char* clip, std::int32_t frame, bool prefetch = true,
                                  std::uint32_t mode = kDecodeQuarterGood) {
  std::vector<std::uint8_t> r(688, 0);
  StoreLE32(r.data(), mode);
  EXPECT_TRUE(SetRequestClipPath(r.data(), FromUtf8(clip)));
  StoreLE32(r.data() + 524, static_cast<std::uint32_t>(frame));
  r[648] = prefetch ? 1 : 0;
  return r;
}

// Owns a pool built as the module builds it (one reference) and stops it at the end.
struct Pool {
  Pool() : helper(new CVxRedProcessHelper()) {}
  ~Pool() {
    helper->Stop();
    helper->Release();
  }
  std::int32_t Decode(const std::vector<std::uint8_t>& r, void** buffer) {
    helper->Lock();
    const std::int32_t f = helper->DecodeFrame(r.data(), buffer);
    helper->Unlock();
    return f;
  }
  CVxRedProcessHelper* helper;
};

TEST(RedProcessHelper, SettingsCrcMatchesHandComputedValues) {
  // The CRC-32/MPEG-2 check value of "123456789", and an all-ones word, which cancels the
  // initial value and leaves a zero register.
  const std::uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(RedSettingsCrc(digits, sizeof digits), 0x0376E6E7u);
  const std::uint8_t ones[] = {0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(RedSettingsCrc(ones, sizeof ones), 0u);
  EXPECT_EQ(RedSettingsCrc(nullptr, 0), 0xFFFFFFFFu);
  // One bit after the cancelled register: the polynomial itself.
  const std::uint8_t onesThenBit[] = {0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x01};
  EXPECT_EQ(RedSettingsCrc(onesThenBit, sizeof onesThenBit), 0x04C11DB7u);
}

TEST(RedProcessHelper, PoolSizeAndDecodeModes) {
  const std::uint32_t sizes[][2] = {{0, 1}, {1, 1},   {2, 1},   {3, 1},  {4, 2},
                                    {9, 4}, {64, 32}, {65, 32}, {80, 32}};
  for (const auto& s : sizes) EXPECT_EQ(RedPoolSize(s[0]), s[1]) << s[0];
  // Decoder threads {processors, slots, threads}: the frames in flight share the processors.
  const std::uint32_t threads[][3] = {{1, 1, 1}, {2, 1, 2}, {2, 2, 2},   {2, 4, 1},
                                      {4, 2, 4}, {8, 4, 3}, {64, 32, 3}, {80, 32, 3}};
  for (const auto& t : threads)
    EXPECT_EQ(RedDecodeThreads(t[0], t[1]), static_cast<int>(t[2])) << t[0] << " " << t[1];
  const struct {
    std::uint32_t mode;
    int shift;
  } modes[] = {{0x44465250, 0}, {0x44485250, 1}, {0x44485247, 1},  {0x44515247, 2},
               {0x44455247, 3}, {0x44535247, 4}, {0x44465247, -1}, {0, -1}};
  for (const auto& m : modes) EXPECT_EQ(DecodeModeShift(m.mode), m.shift) << std::hex << m.mode;
}

struct Box {
  std::vector<std::string> shown;
  static void Handler(const VxChar* caption, const VxChar* text, void* self) {
    static_cast<Box*>(self)->shown.push_back(ToUtf8(caption) + "|" + ToUtf8(text));
  }
};

TEST(RedProcessHelper, CardProbeOutcomes) {
  vxtest::TempDir empty;  // no decoder program: CPU slots simply never answer
  ScopedEnv dir("VX_RED_DECODER_DIR", empty.path().string());
  const std::string tooOld =
      "Red Rocket Error|Driver and/or firmware incorrect, versions installed:\n\n"
      "Driver version   : 1.2.3.4\nFirmware version : 5.6.7.8\n\n"
      "Minimum versions required:\n\n"
      "Driver version   : 9.10.11.12\nFirmware version : 13.14.15.16\n"
      "The R3D parser is passing to CPU Mode.";
  const struct {
    const char* name;
    Card card;
    bool enabled;
    bool rocket;
    std::uint32_t size;
    const char* box;
    int closes;
  } cases[] = {
      {"no card", Card::kNone, true, false, 3, nullptr, 0},
      {"usable and enabled", Card::kPassed, true, true, 8, nullptr, 0},
      {"usable, not enabled", Card::kPassed, false, false, 3, nullptr, 1},
      {"too old", Card::kTooOld, true, false, 3, tooOld.c_str(), 1},
      {"broken", Card::kBroken, true, false, 3,
       "Cannot open Red Rocket|Unexpected error, the R3D parser will use the CPU mode", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Box box;
    VxSetMessageBoxHandler(&Box::Handler, &box);
    SetRedRocketEnabled(c.enabled);
    FakeLibrary lib;
    lib.card = c.card;
    {
      Pool pool;
      pool.helper->SetLibrary(&lib);
      pool.helper->SetProcessorCount(7);
      ASSERT_EQ(pool.helper->Start(), S_OK);
      EXPECT_EQ(pool.helper->IsRocketMode(), c.rocket ? 1 : 0);
      EXPECT_EQ(pool.helper->PoolSize(), c.size);
      EXPECT_EQ(lib.closes, c.closes);
      for (std::uint32_t i = 0; i < pool.helper->PoolSize(); ++i) {
        const RedSlot& s = pool.helper->Slot(i);
        EXPECT_EQ(s.index, i);
        EXPECT_EQ(s.busy, 0u);
        EXPECT_EQ(s.frame, -1);
        EXPECT_EQ(s.ready, 0u);
      }
    }
    VxSetMessageBoxHandler(nullptr, nullptr);
    ASSERT_EQ(box.shown.size(), c.box ? 1u : 0u);
    if (c.box) {
      EXPECT_EQ(box.shown[0], c.box);
    }
  }
  SetRedRocketEnabled(false);
}

TEST(RedProcessHelper, CardJobsPrefetchAndFail) {
  SetRedRocketEnabled(true);
  FakeLibrary lib;
  lib.card = Card::kPassed;
  lib.failFrames = {13};
  Pool pool;
  pool.helper->SetLibrary(&lib);
  ASSERT_EQ(pool.helper->Start(), S_OK);
  ASSERT_EQ(pool.helper->IsRocketMode(), 1);

  // 40 frames of 64 × 32, decoded at a quarter: 16 × 8 pixels of 16-bit RGB.
  void* buffer = nullptr;
  EXPECT_EQ(pool.Decode(Request("/clips/f40_64x32.R3D", 2), &buffer), 2);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(static_cast<std::uint8_t*>(buffer)[16 * 8 * 6 - 1], 2);
  EXPECT_EQ(lib.decodes.load(), 8);  // frames 2..9 on all eight slots
  ASSERT_EQ(lib.jobs.size(), 8u);
  EXPECT_EQ(lib.jobs[7]->frame, 9);
  EXPECT_EQ(lib.jobs[0]->rowBytes, 16u * 6);
  EXPECT_EQ(lib.jobs[0]->bytes, 16u * 8 * 6);

  // Frame 3 is there already; releasing 2 lets its slot prefetch 10, in the second job array.
  EXPECT_EQ(pool.helper->ReleaseFrame(2), 0);
  EXPECT_EQ(pool.helper->ReleaseFrame(2), 1);
  EXPECT_EQ(pool.Decode(Request("/clips/f40_64x32.R3D", 3), &buffer), 3);
  EXPECT_EQ(static_cast<std::uint8_t*>(buffer)[0], 3);
  ASSERT_EQ(lib.jobs.size(), 9u);
  EXPECT_EQ(lib.jobs[8]->frame, 10);
  EXPECT_NE(lib.jobs[8], lib.jobs[0]);

  // 8-bit BGRA jobs carry four bytes a pixel; a failing job answers -1.
  auto bgra = Request("/clips/f40_64x32.R3D", 13, false);
  StoreLE32(bgra.data() + 644, 2);
  EXPECT_EQ(pool.Decode(bgra, &buffer), -1);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(lib.jobs.back()->rowBytes, 16u * 4);
  EXPECT_EQ(pool.Decode(Request("/clips/f40_64x32.R3D", 12, false), &buffer), 12);
  SetRedRocketEnabled(false);
}

TEST(RedProcessHelper, RefusesWhatItCannotDecode) {
  FakeLibrary lib;
  lib.card = Card::kPassed;
  SetRedRocketEnabled(true);
  Pool pool;
  pool.helper->SetLibrary(&lib);
  ASSERT_EQ(pool.helper->Start(), S_OK);
  void* buffer = reinterpret_cast<void*>(1);
  const struct {
    const char* name;
    std::vector<std::uint8_t> request;
  } cases[] = {
      {"bad mode", Request("/c/f10_64x32.R3D", 1, true, 0x44465247)},
      {"no clip", Request("/c/none.R3D", 1)},
      {"frame past the end", Request("/c/f10_64x32.R3D", 10)},
      {"negative frame", Request("/c/f10_64x32.R3D", -1)},
      // 8 bytes a pixel of 4096 × 3376 (plus 512) no longer fits a result block.
      {"too big", Request("/c/f10_4096x3376.R3D", 0, true, kDecodeFullPremium)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(pool.Decode(c.request, &buffer), -1) << c.name;
    EXPECT_EQ(buffer, nullptr) << c.name;
  }
  EXPECT_EQ(pool.helper->DecodeFrame(nullptr, &buffer), -1);
  SetRedRocketEnabled(false);
}

#if !defined(_WIN32)
// Real decoder processes (the stand-in program) behind the pool.
class RedPoolProcesses : public ::testing::Test {
 protected:
  void SetUp() override {
    decoderDir_ = vxtest::BinDir() / "redtest";
    if (!std::filesystem::exists(decoderDir_ / "RedDecoder")) GTEST_SKIP() << "no test decoder";
    dirEnv_.emplace("VX_RED_DECODER_DIR", decoderDir_.string());
    logEnv_.emplace("VX_RED_TEST_LOG", (tmp_ / "decodes.log").string());
    SetRedRocketEnabled(false);
    pool_.emplace();
    pool_->helper->SetLibrary(&lib_);
  }
  // Decodes logged so far, as "slot frame" lines.
  std::vector<int> Decoded() {
    std::vector<int> frames;
    std::ifstream in(tmp_ / "decodes.log");
    int slot, frame;
    while (in >> slot >> frame) frames.push_back(frame);
    return frames;
  }
  void StartWith(std::uint32_t slots) {
    pool_->helper->SetPoolSize(slots);
    ASSERT_EQ(pool_->helper->Start(), S_OK);
    ASSERT_EQ(pool_->helper->PoolSize(), slots);
  }

  std::filesystem::path decoderDir_;
  vxtest::TempDir tmp_;
  std::optional<ScopedEnv> dirEnv_, logEnv_;
  FakeLibrary lib_;
  std::optional<Pool> pool_;
};

std::int32_t Stamp(void* buffer) {
  return static_cast<std::int32_t>(LoadLE32(buffer));
}

TEST_F(RedPoolProcesses, PrefetchServesTheNextFrame) {
  StartWith(2);
  void* buffer = nullptr;
  const char* clip = "/c/f300_64x32.R3D";
  ASSERT_EQ(pool_->Decode(Request(clip, 5), &buffer), 5);
  EXPECT_EQ(Stamp(buffer), 5);
  EXPECT_EQ(Decoded().size(), 2u);  // 5, and 6 ahead of time
  EXPECT_EQ(pool_->helper->ReleaseFrame(5), 0);
  // 6 was decoded already; its answer needs no new decode (7 goes ahead on the freed slot).
  ASSERT_EQ(pool_->Decode(Request(clip, 6), &buffer), 6);
  EXPECT_EQ(Stamp(buffer), 6);
  EXPECT_EQ(pool_->helper->Slot(0).frame, 7);
  EXPECT_EQ(pool_->helper->Slot(0).busy, 1u);
  EXPECT_EQ(pool_->helper->ReleaseFrame(6), 0);
  ASSERT_EQ(pool_->Decode(Request(clip, 7), &buffer), 7);
  EXPECT_EQ(Stamp(buffer), 7);
  EXPECT_EQ(pool_->helper->Slot(1).frame, 8);
  // Each frame up to 7 decoded once (8 may still be on its way).
  std::vector<int> got;
  for (int f : Decoded()) {
    if (f < 8) got.push_back(f);
  }
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<int>{5, 6, 7}));
}

TEST_F(RedPoolProcesses, SettingOrClipChangesDrain) {
  StartWith(2);
  void* buffer = nullptr;
  ASSERT_EQ(pool_->Decode(Request("/c/f300_64x32.R3D", 0), &buffer), 0);
  // Another exposure: frame 1, decoded already, is decoded again.
  auto changed = Request("/c/f300_64x32.R3D", 1);
  StoreLE32(changed.data() + 532 + 4 * 2, 0x3F800000);
  ASSERT_EQ(pool_->Decode(changed, &buffer), 1);
  // Another clip with the same settings: decoded again too.
  auto other = Request("/c/f300_64x32b.R3D", 1);
  StoreLE32(other.data() + 532 + 4 * 2, 0x3F800000);
  ASSERT_EQ(pool_->Decode(other, &buffer), 1);
  EXPECT_EQ(lib_.opened, 2);
  auto got = Decoded();
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<int>{0, 1, 1, 1, 2, 2}));
}

TEST_F(RedPoolProcesses, NeverPastTheEndAndOneFrameWithoutPrefetch) {
  StartWith(4);
  void* buffer = nullptr;
  ASSERT_EQ(pool_->Decode(Request("/c/f3_64x32.R3D", 1), &buffer), 1);
  auto got = Decoded();
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<int>{1, 2}));
  // Without prefetch exactly the frame asked for is decoded, on slot 0.
  ASSERT_EQ(pool_->Decode(Request("/c/f3_64x32.R3D", 0, false), &buffer), 0);
  EXPECT_EQ(Stamp(buffer), 0);
  got = Decoded();
  EXPECT_EQ(got.size(), 3u);
  EXPECT_EQ(got.back(), 0);
  for (std::uint32_t i = 1; i < 4; ++i) EXPECT_EQ(pool_->helper->Slot(i).frame, -1);
}

// A pool started again at once takes the names the ending decoders still hold: the new
// decoders, not the old ones, must serve it, into the new result blocks.
TEST_F(RedPoolProcesses, RestartIsServedByTheNewDecoders) {
  StartWith(2);
  void* buffer = nullptr;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    const std::int32_t f = 2 + 3 * round;
    ASSERT_EQ(pool_->Decode(Request("/c/f20_64x32.R3D", f), &buffer), f);
    EXPECT_EQ(Stamp(buffer), f);
    ASSERT_EQ(pool_->helper->Start(), S_OK);
  }
  ASSERT_EQ(pool_->Decode(Request("/c/f20_64x32.R3D", 11), &buffer), 11);
  EXPECT_EQ(Stamp(buffer), 11);
}

TEST_F(RedPoolProcesses, DeadDecoderTimesOut) {
  ScopedEnv hang("VX_RED_TEST_HANG_FRAME", "4");
  pool_->helper->SetWaitMs(300);
  StartWith(1);
  void* buffer = nullptr;
  ASSERT_EQ(pool_->Decode(Request("/c/f10_64x32.R3D", 3), &buffer), 3);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(pool_->Decode(Request("/c/f10_64x32.R3D", 4), &buffer), -1);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
}
#endif

}  // namespace
}  // namespace vx::red
