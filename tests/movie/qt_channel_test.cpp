// The QuickTime manager against real decoder processes: the channel test decoder built beside
// the tests (bin/qttest/QuickTimeDecoder). Movies are small text descriptions the tests write.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "movie/qt/qt_manager.h"
#include "qt_test_util.h"
#include "test_util.h"
#include "vx/platform.h"

namespace {

using namespace qttest;

// Hand-built answers decode into the host's terms.
TEST(QtAnswers, VideoAndAudioFormats) {
  struct Video {
    double rate;
    std::uint32_t alpha, width;
    std::int32_t num, den;
    std::uint32_t rowBytes;
  };
  const Video videos[] = {
      {29.97, 0, 1920, 30000, 1001, 5760},
      {25.0, 1, 1921, 25, 1, 7684},
      {23.976, 7, 3, 24000, 1001, 12},
  };
  for (const Video& v : videos) {
    std::vector<unsigned char> r(64, 0);
    vx::qt::PutF64(r.data(), 4, v.rate);
    vx::qt::PutF64(r.data(), 12, 1.0);
    vx::qt::Put32(r.data(), 20, 250);
    vx::qt::Put32(r.data(), 24, 0x61706368);
    vx::qt::Put32(r.data(), 28, 1080);
    vx::qt::Put32(r.data(), 32, v.alpha);
    vx::qt::Put32(r.data(), 36, 2);
    vx::qt::Put32(r.data(), 40, v.width);
    vx::qt::Put32(r.data(), 44, 10);
    VxQTVideoFormat f;
    vx::qt::VideoFormatFromAnswer(r.data(), &f);
    EXPECT_EQ(f.timeFormat.rateNum, v.num) << v.rate;
    EXPECT_EQ(f.timeFormat.rateDen, v.den) << v.rate;
    EXPECT_EQ(f.rowBytes, v.rowBytes) << v.rate;
    EXPECT_EQ(f.frameCount, 250u);
    EXPECT_EQ(f.codec, 0x61706368u);
    EXPECT_EQ(f.height, 1080u);
    EXPECT_EQ(f.fields, 2u);
    EXPECT_EQ(f.bitsPerComponent, 10u);
  }

  struct Audio {
    std::uint32_t rate, channels, bits, mask, low, high;
    WORD wantBits, wantAlign;
    DWORD wantAvg;
    std::uint64_t wantSamples;
  };
  const Audio audios[] = {
      {48000, 2, 24, 3, 4800, 0, 24, 6, 288000, 4800},
      {44100, 6, 0, 0x3F, 5, 1, 16, 12, 529200, 0x100000005ull},  // 0 bits read as 16
      {96000, 1, 32, 4, 0xFFFFFFFF, 0, 32, 4, 384000, 0xFFFFFFFFull},
  };
  for (const Audio& a : audios) {
    std::vector<unsigned char> r(64, 0xEE);
    vx::qt::Put32(r.data(), 4, a.rate);
    vx::qt::Put32(r.data(), 8, a.channels);
    vx::qt::Put32(r.data(), 12, a.bits);
    vx::qt::Put32(r.data(), 16, a.mask);
    vx::qt::Put32(r.data(), 20, a.low);
    vx::qt::Put32(r.data(), 24, a.high);
    VxQTWaveFormat w;
    std::uint64_t samples = 0;
    vx::qt::WaveFormatFromAnswer(r.data(), &w, &samples);
    const auto* b = reinterpret_cast<const unsigned char*>(&w);
    EXPECT_EQ(b[0] | b[1] << 8, 0xFFFE);
    EXPECT_EQ(w.format.nChannels, a.channels);
    EXPECT_EQ(w.format.nSamplesPerSec, a.rate);
    EXPECT_EQ(w.format.wBitsPerSample, a.wantBits);
    EXPECT_EQ(w.format.nBlockAlign, a.wantAlign);
    EXPECT_EQ(w.format.nAvgBytesPerSec, a.wantAvg);
    EXPECT_EQ(b[16] | b[17] << 8, 22);  // extension size
    EXPECT_EQ(w.validBits, a.wantBits);
    EXPECT_EQ(w.channelMask, a.mask);
    // Sub-format GUID bytes as a WAVEFORMATEXTENSIBLE holds them.
    const unsigned char pcm[16] = {1,    0, 0, 0,    0, 0,    0x10, 0,
                                   0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    EXPECT_EQ(std::memcmp(b + 24, pcm, 16), 0);
    EXPECT_EQ(samples, a.wantSamples);
  }
}

TEST(QtAnswers, PixelFormatCodes) {
  struct Row {
    std::uint32_t code, hint;
    VxPixelFormat format;
    bool videoRange, ycc, rec709;
  };
  const Row rows[] = {
      {24, 0, VX_PF_RGB8, false, false, false},
      {32, 1, VX_PF_RGBA8, false, false, false},
      {32, 0, VX_PF_RGBA8, true, false, false},
      {0x52474241, 1, VX_PF_RGBA8, false, false, false},      // "RGBA"
      {0x32344247, 0, VX_PF_RGB8, false, false, false},       // "24BG"
      {0x42475241, 2, VX_PF_BGRA8, true, false, false},       // "BGRA"
      {0x62343872, 0, VX_PF_RGBAF32, false, false, false},    // "b48r"
      {0x62363461, 0, VX_PF_RGBAF32, false, false, false},    // "b64a"
      {0x32767579, 1024, VX_PF_UNKNOWN, false, true, false},  // "2vuy"
      {0x76323130, 0, VX_PF_UNKNOWN, false, true, true},      // "v210"
      {0x79757632, 0, VX_PF_UNKNOWN, false, false, false},    // "yuv2": none
  };
  for (const Row& r : rows) {
    const vx::qt::HostPixelFormat f = vx::qt::HostFormatOf(r.code, r.hint);
    EXPECT_EQ(f.format, r.format) << std::hex << r.code;
    EXPECT_EQ(f.videoRange, r.videoRange) << std::hex << r.code;
    EXPECT_EQ(f.ycc, r.ycc) << std::hex << r.code;
    EXPECT_EQ(f.rec709, r.rec709) << std::hex << r.code;
  }
}

class QtManager : public DecoderFixture {};

// Path requests carry their fixed fields plus 2 × (length + 1) bytes; the decoder logs what
// arrived for the requests that create something.
TEST_F(QtManager, PayloadCountsOfPathRequests) {
  for (std::size_t n : {std::size_t{1}, std::size_t{9}, std::size_t{120}}) {
    const std::string name = dir().path().string() + "/" + std::string(n, 'a');
    const VxString path = vx::FromUtf8(name);
    const std::uint32_t len = static_cast<std::uint32_t>(path.size());
    DWORD movie = 0, v = 0, a = 0;

    EXPECT_EQ(manager()->Open(path.c_str(), &movie, &v, &a), E_FAIL);  // no such movie
    EXPECT_EQ(manager()->LastPayloadCount(), 2 * len + 2);

    ASSERT_EQ(manager()->Create(path.c_str(), 1, 1, 25.0, &movie), S_OK);
    EXPECT_EQ(manager()->LastPayloadCount(), 2 * len + 18);
    VxQTMediaReference media;
    ASSERT_EQ(manager()->AddMediaReference(movie, path.c_str(), &media), S_OK);
    EXPECT_EQ(manager()->LastPayloadCount(), 2 * len + 30);
    VxQTSoundReference sound;
    ASSERT_EQ(manager()->AddSoundReference(movie, path.c_str(), &sound), S_OK);
    EXPECT_EQ(manager()->LastPayloadCount(), 2 * len + 98);
    ASSERT_EQ(manager()->CloseMovie(movie), S_OK);
    const std::string log = ReadText(name + ".log");
    EXPECT_NE(log.find("count=" + std::to_string(2 * len + 18)), std::string::npos) << log;
    EXPECT_NE(log.find("count=" + std::to_string(2 * len + 30) + " path=" + name),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("count=" + std::to_string(2 * len + 98) + " path=" + name),
              std::string::npos)
        << log;

    ASSERT_EQ(manager()->CreateRefMovie(path.c_str(), 24.0, 8, 8, &movie), S_OK);
    EXPECT_EQ(manager()->LastPayloadCount(), 2 * len + 18);
    ASSERT_EQ(manager()->CloseMovie(movie), S_OK);
  }
  // A path the instruction page cannot hold is refused before anything is sent.
  const VxString huge(3000, VXT('x'));
  DWORD movie, v, a;
  EXPECT_EQ(manager()->Open(huge.c_str(), &movie, &v, &a), E_INVALIDARG);
}

TEST_F(QtManager, SecondStartStartsNoDecoder) {
  const std::uint32_t pid = manager()->DecoderProcessId();
  ASSERT_NE(pid, 0u);
  EXPECT_EQ(manager()->Start(), S_OK);
  EXPECT_EQ(manager()->DecoderProcessId(), pid);
  auto* other = new CVxQTManager;
  other->AddRef();
  EXPECT_EQ(other->Start(), S_OK);
  EXPECT_EQ(other->DecoderProcessId(), 0u);
  EXPECT_EQ(other->Stop(), S_OK);  // not the one that started: tears nothing down
  other->Release();
  DWORD movie = 0, v = 0, a = 0;
  const auto path = WriteMovie("one.mov", "video 8 8 25 2\n");
  EXPECT_EQ(manager()->Open(path.c_str(), &movie, &v, &a), S_OK);
  EXPECT_EQ(manager()->DecoderProcessId(), pid);
}

TEST_F(QtManager, DeathFailsTheRequestAndTheNextRelaunches) {
  const auto path = WriteMovie("crash.mov", "video 16 8 25 4\ncrash=258\n");
  DWORD movie = 0, v = 0, a = 0;
  ASSERT_EQ(manager()->Open(path.c_str(), &movie, &v, &a), S_OK);
  const std::uint32_t first = manager()->DecoderProcessId();
  IVxImage* image = nullptr;
  EXPECT_EQ(manager()->ReadFrame(movie, 0, 1, &image, FALSE, 1), E_FAIL);
  EXPECT_EQ(image, nullptr);
  EXPECT_EQ(manager()->DecoderProcessId(), 0u);
  EXPECT_TRUE(WaitGone(first));
  const auto good = WriteMovie("good.mov", "video 16 8 25 4\n");
  EXPECT_EQ(manager()->Open(good.c_str(), &movie, &v, &a), S_OK);
  EXPECT_EQ(v, 1u);
  EXPECT_NE(manager()->DecoderProcessId(), 0u);
  EXPECT_NE(manager()->DecoderProcessId(), first);
}

TEST_F(QtManager, HangAbortsAtTheLimitButCommandFourWaits) {
  vx::qt::SetTimeLimitMs(400);
  const auto path = WriteMovie("hang.mov", "video 16 8 25 4\nhang=256\ndelay4=1500\n");
  DWORD movie = 0, v = 0, a = 0;
  ASSERT_EQ(manager()->Open(path.c_str(), &movie, &v, &a), S_OK);
  // Command 4 waits without a limit: 1.5 s against a 0.4 s limit.
  VxQTCompression c;
  BYTE entries[64] = {};
  c.entries = entries;
  c.entryCapacity = sizeof entries;
  EXPECT_EQ(manager()->GetCompression(movie, VXT("codec=apch"), &c), S_OK);
  EXPECT_EQ(c.codec, 0x61706368u);
  EXPECT_EQ(c.entryCount, 10u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(entries), 10), "codec=apch");
  EXPECT_EQ(vx::ToUtf8(c.name), "ProRes 422 HQ");

  const std::uint32_t pid = manager()->DecoderProcessId();
  const auto t0 = std::chrono::steady_clock::now();
  VxQTVideoFormat f;
  EXPECT_EQ(manager()->GetVideoFormat(movie, 0, &f), E_ABORT);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0)
          .count();
  EXPECT_GE(ms, 380);
  EXPECT_LT(ms, 6000);
  EXPECT_TRUE(WaitGone(pid));  // terminated
  const auto good = WriteMovie("good.mov", "video 16 8 25 4\n");
  EXPECT_EQ(manager()->Open(good.c_str(), &movie, &v, &a), S_OK);
  EXPECT_EQ(manager()->GetVideoFormat(movie, 0, &f), S_OK);
  EXPECT_EQ(f.width, 16u);
}

TEST_F(QtManager, RestartFailureDisablesUntilTheDecoderCanStart) {
  std::vector<std::string> boxes;
  VxSetMessageBoxHandler(
      [](const VxChar* caption, const VxChar* text, void* ctx) {
        static_cast<std::vector<std::string>*>(ctx)->push_back(vx::ToUtf8(caption) + "|" +
                                                               vx::ToUtf8(text));
      },
      &boxes);
  const auto path = WriteMovie("crash.mov", "video 16 8 25 4\ncrash=6\n");
  DWORD movie = 0, v = 0, a = 0;
  ASSERT_EQ(manager()->Open(path.c_str(), &movie, &v, &a), S_OK);
  VxQTMovieInfo info;
  EXPECT_EQ(manager()->GetMovieInfo(movie, &info), E_FAIL);
  vx::qt::SetDecoderProgramForTesting(Wide(dir() / "missing" / "QTDecoder"));
  EXPECT_EQ(manager()->Open(path.c_str(), &movie, &v, &a), E_ACCESSDENIED);
  EXPECT_EQ(manager()->Open(path.c_str(), &movie, &v, &a), E_ACCESSDENIED);
  VxSetMessageBoxHandler(nullptr, nullptr);
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0],
            "Quick Time parser ERROR|Quick Time parser is disabled. Unable to start QTDecoder "
            "process.");
  UseTestDecoder();
  EXPECT_EQ(manager()->Open(path.c_str(), &movie, &v, &a), S_OK);
}

TEST_F(QtManager, AddFrameSendsPixelsOnlyWithASize) {
  const std::string name = (dir() / "out.mov").string();
  const VxString path = vx::FromUtf8(name);
  DWORD movie = 0;
  ASSERT_EQ(manager()->CreateRefMovie(path.c_str(), 25.0, 3, 2, &movie), S_OK);
  std::vector<unsigned char> pixels(3 * 2 * 4);
  for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(7 * i + 1);
  EXPECT_EQ(manager()->AddFrame(movie, 0, 0, pixels.data(), 3, 2), S_OK);
  EXPECT_EQ(manager()->AddFrame(movie, 0, 1, pixels.data(), 0, 2), S_OK);
  EXPECT_EQ(manager()->AddFrame(movie, 0, 2, pixels.data(), 3, 0), S_OK);
  EXPECT_EQ(manager()->AddFrame(movie, 0, 3, pixels.data(), 40000, 40000), E_INVALIDARG);
  EXPECT_EQ(manager()->SetTimeCode(movie, 0, 0x01000000, 25, 0), S_OK);
  EXPECT_EQ(manager()->FinishRefMovie(movie, 1), S_OK);
  EXPECT_EQ(manager()->CloseMovie(movie), S_OK);
  const std::string log = ReadText(name + ".log");
  char line[96];
  std::snprintf(line, sizeof line, "frame track=0 index=0 size=3x2 sum=%08X first=1,8,15,22",
                Fnv1a(pixels.data(), pixels.size()));
  EXPECT_NE(log.find(line), std::string::npos) << log;
  EXPECT_NE(log.find("frame track=0 index=1 size=0x2 nopixels"), std::string::npos) << log;
  EXPECT_NE(log.find("frame track=0 index=2 size=3x0 nopixels"), std::string::npos) << log;
  EXPECT_NE(log.find("timecode track=0 tc=01000000 rate=25 drop=0"), std::string::npos) << log;
  EXPECT_NE(log.find("reffinish selfcontained=1"), std::string::npos) << log;
}

// A decoder's answer that points outside the result block, or names an impossible frame, is
// refused; the answer of the test decoder itself stays in bounds at every pixel format.
TEST_F(QtManager, FramesInEveryDeliveredFormat) {
  const auto path = WriteMovie("pix.mov", "video 5 3 25 4 alpha\n");
  DWORD movie = 0, v = 0, a = 0;
  ASSERT_EQ(manager()->Open(path.c_str(), &movie, &v, &a), S_OK);
  struct Case {
    VxPixelFormat target;
    DWORD mode;
  };
  for (const Case& c : {Case{VX_PF_RGBA8, 1}, Case{VX_PF_RGBAF32, 4096}, Case{VX_PF_RGBA16, 4096},
                        Case{VX_PF_BGRA8, 1}}) {
    IVxImage* image = nullptr;
    ASSERT_EQ(VxCreateImage(0, 0, c.target, &image), S_OK);
    ASSERT_EQ(manager()->ReadFrame(movie, 0, 2, &image, FALSE, c.mode), S_OK);
    ASSERT_EQ(image->GetWidth(), 5);
    ASSERT_EQ(image->GetPixelFormat(), c.target);
    IVxImage* rgba = nullptr;
    ASSERT_EQ(VxCreateImage(5, 3, VX_PF_RGBA8, &rgba), S_OK);
    ASSERT_EQ(VxConvertImage(image, rgba), S_OK);
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 5; ++x) {
        const BYTE* p = rgba->GetBuffer() + y * rgba->GetRowStride() + x * 4;
        const Rgba want = Pattern(0, 2, x, y, true);
        EXPECT_EQ(p[0], want.r) << c.target << " " << x << "," << y;
        EXPECT_EQ(p[1], want.g);
        EXPECT_EQ(p[2], want.b);
        EXPECT_EQ(p[3], want.a);
      }
    rgba->Release();
    image->Release();
  }
}

}  // namespace

namespace {

// Frame answers from a broken or hostile decoder: refused unless every pixel they name lies in
// the block (4096 bytes here).
TEST(QtAnswers, FrameAnswersStayInsideTheBlock) {
  struct Case {
    std::uint32_t offset, width, height, rowBytes, code;
    HRESULT want;
  };
  const std::uint32_t rgba = 32, b64a = 0x62363461;
  const Case cases[] = {
      {4096 - 16, 4, 1, 16, rgba, S_OK},          // ends exactly at the block's end
      {4096 - 15, 4, 1, 16, rgba, E_FAIL},        // one byte past it
      {64, 4, 2, 16, rgba, S_OK},                 // rows back to back
      {64, 4, 2, 15, rgba, E_FAIL},               // rows shorter than their pixels
      {64, 2, 0xFFFF, 0xFFFFFFFF, rgba, E_FAIL},  // huge rows
      {0xFFFFFFF0, 1, 1, 4, rgba, E_FAIL},        // offset far outside
      {64, 0, 4, 16, rgba, E_FAIL},               // empty frame
      {64, 4, 4, 64, 0x32767579, E_FAIL},         // 2vuy: no host image for it
      {64, 4, 4, 64, 0x41424344, E_FAIL},         // unknown code
      {4096 - 32, 4, 1, 32, b64a, S_OK},
      {4096 - 31, 4, 1, 32, b64a, E_FAIL},
  };
  for (const Case& c : cases) {
    std::vector<unsigned char> block(4096, 0x80);
    vx::qt::Put32(block.data(), 4, c.offset);
    vx::qt::Put32(block.data(), 8, c.width);
    vx::qt::Put32(block.data(), 12, c.height);
    vx::qt::Put32(block.data(), 16, c.rowBytes);
    vx::qt::Put32(block.data(), 20, c.code);
    vx::qt::Put32(block.data(), 24, 1);
    IVxImage* image = nullptr;
    EXPECT_EQ(vx::qt::DeliverFrame(block.data(), block.size(), &image), c.want)
        << c.offset << " " << c.width << "x" << c.height << " " << c.rowBytes;
    if (c.want == S_OK) {
      ASSERT_NE(image, nullptr);
      EXPECT_EQ(image->GetWidth(), static_cast<int>(c.width));
      EXPECT_EQ(image->GetPixelFormat(), c.code == rgba ? VX_PF_RGBA8 : VX_PF_RGBAF32);
      image->Release();
    } else {
      EXPECT_EQ(image, nullptr);
    }
  }
}

}  // namespace

namespace {

// A decoder that cannot be started: Start says so, requests are refused with the message, and
// once the program is there the next request starts it.
TEST(QtManagerStart, LaunchFailureThenRecovery) {
  if (!std::filesystem::exists(TestDecoder())) GTEST_SKIP() << "no test decoder built";
  vxtest::TempDir dir;
  int boxes = 0;
  VxSetMessageBoxHandler([](const VxChar*, const VxChar*, void* n) { ++*static_cast<int*>(n); },
                         &boxes);
  vx::qt::SetDecoderProgramForTesting(Wide(dir / "QTDecoder"));
  auto* m = new CVxQTManager;
  m->AddRef();
  EXPECT_TRUE(FAILED(m->Start()));
  const VxString path = Wide(dir / "m.mov");
  std::ofstream(dir / "m.mov") << "video 4 4 25 1\n";
  DWORD movie = 0, v = 0, a = 0;
  EXPECT_EQ(m->Open(path.c_str(), &movie, &v, &a), E_ACCESSDENIED);
  EXPECT_EQ(boxes, 1);
  UseTestDecoder();
  EXPECT_EQ(m->Open(path.c_str(), &movie, &v, &a), S_OK);
  const std::uint32_t pid = m->DecoderProcessId();
  EXPECT_EQ(m->Stop(), S_OK);
  m->Release();
  EXPECT_TRUE(WaitGone(pid));
  VxSetMessageBoxHandler(nullptr, nullptr);
  vx::qt::SetDecoderProgramForTesting({});
}

}  // namespace
