// CVxMediaFileParserQT and its streams over the channel test decoder.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "movie/qt/qt_parser.h"
#include "qt_test_util.h"
#include "vx/com_ptr.h"
#include <nlohmann/json.hpp>

namespace {

using namespace qttest;
using vx::ComPtr;

constexpr HRESULT kRefusedTwice = static_cast<HRESULT>(0x800707D0u);
constexpr HRESULT kSmallFormatBuffer = static_cast<HRESULT>(0x80044074u);

class QtParser : public DecoderFixture {
 protected:
  void SetUp() override {
    DecoderFixture::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    parser_ = ComPtr<IVxMediaFileParser>::Share(new CVxMediaFileParserQT);
  }
  void TearDown() override {
    parser_.reset();
    DecoderFixture::TearDown();
  }
  IVxMediaFileParser* parser() { return parser_.get(); }
  ComPtr<IVxImageStreamParser> Picture(DWORD index) {
    ComPtr<IVxImageStreamParser> s;
    EXPECT_EQ(parser_->GetStream(VX_STREAM_PICTURE, index, IID_IVxImageStreamParser, s.put_void()),
              S_OK);
    return s;
  }
  ComPtr<IVxAudioStreamParser> Sound(DWORD index) {
    ComPtr<IVxAudioStreamParser> s;
    EXPECT_EQ(parser_->GetStream(VX_STREAM_SOUND, index, IID_IVxAudioStreamParser, s.put_void()),
              S_OK);
    return s;
  }
  void ExpectPattern(IVxImage* image, int track, int frame, bool alpha) {
    ComPtr<IVxImage> rgba;
    ASSERT_EQ(VxCreateImage(image->GetWidth(), image->GetHeight(), VX_PF_RGBA8, rgba.put()), S_OK);
    ASSERT_EQ(VxConvertImage(image, rgba.get()), S_OK);
    int wrong = 0;
    for (int y = 0; y < image->GetHeight(); ++y)
      for (int x = 0; x < image->GetWidth(); ++x) {
        const BYTE* p = rgba->GetBuffer() + y * rgba->GetRowStride() + x * 4;
        const Rgba w = Pattern(track, frame, x, y, alpha);
        wrong += p[0] != w.r || p[1] != w.g || p[2] != w.b || p[3] != w.a;
      }
    EXPECT_EQ(wrong, 0) << "track " << track << " frame " << frame;
  }

 private:
  ComPtr<IVxMediaFileParser> parser_;
};

TEST_F(QtParser, ReadsTracksFramesTimingAndTimeCode) {
  const VxString path =
      WriteMovie("two.mov",
                 "video 64 48 25 10 tc=01:00:00:00\nvideo 8 6 30 3 alpha fields=2 codec=ap4h\n"
                 "audio 48000 2 16 4800 mask=3\n");
  // The host's bits 28 and 29 change nothing; no mode bits is a plain read.
  for (DWORD flags : {0x0u, 0x1u, 0x10000000u, 0x30000001u}) {
    ASSERT_EQ(parser()->Open(path.c_str(), flags), S_OK) << flags;
    BOOL has = FALSE;
    EXPECT_EQ(parser()->HasStream(VX_STREAM_SOUND, &has), S_OK);
    EXPECT_TRUE(has);
  }
  EXPECT_EQ(parser()->Open(path.c_str(), 4), E_INVALIDARG);
  ASSERT_EQ(parser()->Open(path.c_str(), 0), S_OK);

  struct Want {
    DWORD width, height, frames, channels, alpha;
    double rate;
    std::int32_t field;
  };
  const Want want[] = {{64, 48, 10, 3, 0, 25.0, VX_FIELD_PROGRESSIVE},
                       {8, 6, 3, 4, 1, 30.0, VX_FIELD_UPPER_FIRST}};
  for (DWORD i = 0; i < 2; ++i) {
    tagVxImageStreamFormat f{};
    f.cbSize = 56;
    ASSERT_EQ(parser()->GetStreamFormat(VX_STREAM_PICTURE, i, &f), S_OK);
    EXPECT_EQ(f.width, want[i].width);
    EXPECT_EQ(f.height, want[i].height);
    EXPECT_EQ(f.frameCount, want[i].frames);
    EXPECT_EQ(f.channels, want[i].channels);
    EXPECT_EQ(f.hasAlpha, want[i].alpha);
    EXPECT_EQ(f.frameRate, want[i].rate);
    EXPECT_EQ(f.fieldMode, want[i].field);
  }
  tagVxImageStreamFormat f{};
  f.cbSize = 56;
  EXPECT_EQ(parser()->GetStreamFormat(VX_STREAM_PICTURE, 2, &f), E_INVALIDARG);
  f.cbSize = 55;
  EXPECT_EQ(parser()->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), E_INVALIDARG);

  DWORD caps = 0;
  const DWORD kinds[][2] = {{VX_STREAM_PICTURE, 387}, {VX_STREAM_SOUND, 3}, {3, 0}};
  for (const auto& k : kinds) {
    EXPECT_EQ(parser()->GetStreamCapabilities(0, k[0], &caps), S_OK);
    EXPECT_EQ(caps, k[1]) << k[0];
  }

  // Frame 3 of the first track into the caller's image; the timing is frame × 1/25 s.
  ComPtr<IVxImage> image;
  ASSERT_EQ(VxCreateImage(0, 0, VX_PF_RGBA8, image.put()), S_OK);
  IVxImage* raw = image.get();
  ASSERT_EQ(Picture(0)->ReadImage(&raw, 3), S_OK);
  ASSERT_EQ(raw, image.get());
  ExpectPattern(image.get(), 0, 3, false);
  CVxTime start, duration;
  image->GetTiming(&start, &duration);
  EXPECT_EQ(duration.Ticks(), 705600000 / 25);
  EXPECT_EQ(start.Ticks(), 3 * 705600000 / 25);
  // The second track into a new image of the native format.
  IVxImage* fresh = nullptr;
  ASSERT_EQ(Picture(1)->ReadImage(&fresh, 2), S_OK);
  ASSERT_NE(fresh, nullptr);
  ExpectPattern(fresh, 1, 2, true);
  fresh->GetTiming(&start, &duration);
  EXPECT_EQ(start.Ticks(), 2 * 705600000 / 30);
  fresh->Release();
  for (std::int32_t bad : {-1, 10}) {
    raw = image.get();
    EXPECT_EQ(Picture(0)->ReadImage(&raw, bad), E_INVALIDARG) << bad;
  }

  ComPtr<IVxParserSourceInfo> info;
  ASSERT_EQ(parser()->QueryInterface(IID_IVxParserSourceInfo, info.put_void()), S_OK);
  DWORD tc = 0;
  EXPECT_EQ(info->GetTimeCode(3, &tc), S_OK);
  EXPECT_EQ(tc, 0x01000003u);
  EXPECT_EQ(info->GetTimeCode(27, &tc), S_OK);
  EXPECT_EQ(tc, 0x01000102u);
  CVxTime end;
  EXPECT_EQ(parser()->GetTimeRange(VX_STREAM_PICTURE, &start, &end), S_OK);
  EXPECT_EQ(end.Ticks(), 10ll * 705600000 / 25);
  VxChar name[16];
  EXPECT_EQ(parser()->GetCompressionName(name, 16), S_OK);
  EXPECT_EQ(vx::ToUtf8(name), "apch");

  EXPECT_EQ(parser()->Close(), S_OK);
  BOOL has = TRUE;
  EXPECT_EQ(parser()->HasStream(VX_STREAM_PICTURE, &has), S_OK);
  EXPECT_FALSE(has);
}

TEST_F(QtParser, SoundFormatsAndSamples) {
  const VxString path = WriteMovie("snd.mov", "audio 48000 2 16 4800 mask=3\n");
  ASSERT_EQ(parser()->Open(path.c_str(), 0), S_OK);
  auto sound = Sound(0);
  // The 40-byte extensible format; a short buffer gets its first bytes.
  BYTE full[64] = {};
  int size = 64;
  ASSERT_EQ(sound->GetFormat(full, &size), S_OK);
  EXPECT_EQ(size, 40);
  const BYTE head[18] = {0xFE, 0xFF, 2, 0, 0x80, 0xBB, 0, 0, 0, 0xEE, 2, 0, 4, 0, 16, 0, 22, 0};
  EXPECT_EQ(std::memcmp(full, head, 18), 0);
  BYTE part[16];
  std::memset(part, 0xAB, sizeof part);
  size = 16;
  EXPECT_EQ(sound->GetFormat(part, &size), kSmallFormatBuffer);
  EXPECT_EQ(size, 40);
  EXPECT_EQ(std::memcmp(part, full, 16), 0);
  EXPECT_EQ(sound->GetFormat(part, nullptr), E_POINTER);

  // The 8-byte record: no room for the extension gives plain PCM.
  struct Room {
    WORD cbSize, wantTag, wantExtra;
  };
  for (const Room& r : {Room{0, 1, 0}, Room{22, 0xFFFE, 22}, Room{100, 0xFFFE, 22}}) {
    BYTE buffer[160];
    std::memset(buffer, 0xCD, sizeof buffer);
    auto* wf = reinterpret_cast<WAVEFORMATEX*>(buffer);
    wf->cbSize = r.cbSize;
    VxAudioStreamFormat rec{8, wf};
    ASSERT_EQ(parser()->GetStreamFormat(VX_STREAM_SOUND, 0, &rec), S_OK);
    EXPECT_EQ(wf->wFormatTag, r.wantTag) << r.cbSize;
    EXPECT_EQ(wf->cbSize, r.wantExtra) << r.cbSize;
    EXPECT_EQ(wf->nBlockAlign, 4);
    EXPECT_EQ(buffer[18 + r.wantExtra], 0xCD) << "wrote past the format";
  }

  LONG range[2] = {-1, -1};
  EXPECT_EQ(sound->GetLength(range), S_OK);
  EXPECT_EQ(range[0], 0);
  EXPECT_EQ(range[1], 4800);
  // A read across the end delivers what there is.
  std::vector<std::int16_t> samples(40, 0x5555);
  VxSamplePosition pos{4790};
  LONG done = -1;
  EXPECT_EQ(sound->ReadSamples(&pos, 20, samples.data(), &done), S_FALSE);
  EXPECT_EQ(done, 10);
  for (int s = 0; s < 10; ++s) {
    EXPECT_EQ(samples[2 * s], static_cast<std::int16_t>((4790 + s) * 64)) << s;
    EXPECT_EQ(samples[2 * s + 1], static_cast<std::int16_t>((4790 + s) * 64 + 1000)) << s;
  }
  EXPECT_EQ(samples[20], 0x5555);
  pos.sample = 0;
  EXPECT_EQ(sound->ReadSamples(&pos, 3, samples.data(), &done), S_OK);
  EXPECT_EQ(samples[2], 64);
  pos.sample = -1;
  EXPECT_EQ(sound->ReadSamples(&pos, 3, samples.data(), &done), E_INVALIDARG);
  // Streams handed out outlive the parser's Close without reaching into it.
  ASSERT_EQ(parser()->Close(), S_OK);
  pos.sample = 0;
  EXPECT_EQ(sound->ReadSamples(&pos, 3, samples.data(), &done), E_UNEXPECTED);
}

// Status 2000: the preferred pixel format cannot come. The stream falls back to 8-bit RGBA and
// stays there; a refusal of that too is 0x800707D0.
TEST_F(QtParser, FallbackOnStatus2000StaysSet) {
  struct Case {
    const char* movie;
    HRESULT first, second;
    bool fallback;
  };
  const Case cases[] = {
      {"video 4 4 25 2 alpha\nrefuse=b64a\n", S_OK, S_OK, true},
      {"video 4 4 25 2 alpha\n", S_OK, S_OK, false},
      {"video 4 4 25 2 alpha\nrefuse=b64a\nrefuse=32\n", kRefusedTwice, kRefusedTwice, true},
      {"video 4 4 25 2\nrefuse=32\n", kRefusedTwice, kRefusedTwice, true},
  };
  for (const Case& c : cases) {
    const VxString path = WriteMovie("fb.mov", c.movie);
    ASSERT_EQ(parser()->Open(path.c_str(), 0), S_OK) << c.movie;
    auto stream = Picture(0);
    ComPtr<IVxImage> image;
    ASSERT_EQ(VxCreateImage(4, 4, VX_PF_RGBA16, image.put()), S_OK);
    IVxImage* raw = image.get();
    EXPECT_EQ(stream->ReadImage(&raw, 1), c.first) << c.movie;
    EXPECT_EQ(static_cast<CVxImageStreamParserQT*>(stream.get())->Fallback(), c.fallback)
        << c.movie;
    EXPECT_EQ(stream->ReadImage(&raw, 0), c.second) << c.movie;
    if (c.second == S_OK) ExpectPattern(image.get(), 0, 0, true);
    EXPECT_EQ(parser()->Close(), S_OK);
  }
}

TEST_F(QtParser, WritesThroughTheChannel) {
  struct Case {
    bool video, audio, alpha;
    const char* codecOption;
    const char* wantCreate;
    const char* wantSetup;  // the video set-up line, if any
  };
  const Case cases[] = {
      {true, true, false, nullptr, "create video=1 audio=1 rate=24 ",
       "vsetup track=0 rate=24 aspect=1 size=6x4 codec=apch"},
      {true, false, true, nullptr, "create video=1 audio=0 rate=24 ",
       "vsetup track=0 rate=24 aspect=1 size=6x4 codec=ap4h"},
      {true, false, false, "codec=dnxhr", "create video=1 audio=0 rate=24 ",
       "vsetup track=0 rate=24 aspect=1 size=6x4 codec=AVdh"},
      {false, true, false, nullptr, "create video=0 audio=1 rate=44100 ", nullptr},
  };
  int n = 0;
  for (const Case& c : cases) {
    const auto file = dir() / ("w" + std::to_string(n++) + ".mov");
    const VxString path = Wide(file);
    ComPtr<IVxMediaFileParser> p = ComPtr<IVxMediaFileParser>::Share(new CVxMediaFileParserQT);
    if (c.video) {
      tagVxImageStreamFormat f{};
      f.cbSize = 56;
      f.width = 6;
      f.height = 4;
      f.frameRate = 24.0;
      f.hasAlpha = c.alpha;
      // Defined streams count from 1: 0 and a gap are refused.
      EXPECT_EQ(p->SetStreamFormat(VX_STREAM_PICTURE, 0, &f), E_INVALIDARG);
      ASSERT_EQ(p->SetStreamFormat(VX_STREAM_PICTURE, 1, &f), S_OK);
      EXPECT_EQ(p->SetStreamFormat(VX_STREAM_PICTURE, 3, &f), E_INVALIDARG);
    }
    WAVEFORMATEX wf{1, 2, c.video ? 48000u : 44100u, 0, 4, 16, 0};
    wf.nAvgBytesPerSec = wf.nSamplesPerSec * 4;
    if (c.audio) {
      VxAudioStreamFormat rec{8, &wf};
      ASSERT_EQ(p->SetStreamFormat(VX_STREAM_SOUND, 1, &rec), S_OK);
    }
    if (c.codecOption) {
      const VxString opt = vx::FromUtf8(c.codecOption);
      EXPECT_EQ(p->SetOption(const_cast<VxChar*>(opt.c_str()), VX_OPTION_TEXT), S_OK);
    }
    ASSERT_EQ(p->Open(path.c_str(), VX_OPEN_WRITE | 0x10000000), S_OK);
    DWORD caps = 0;
    p->GetStreamCapabilities(0, VX_STREAM_PICTURE, &caps);
    EXPECT_EQ(caps, 419u);
    p->GetStreamCapabilities(0, VX_STREAM_SOUND, &caps);
    EXPECT_EQ(caps, 1u);

    std::string want = std::string(c.wantCreate);
    std::vector<std::string> frames;
    if (c.video) {
      ComPtr<IVxImageStreamParser> s;
      ASSERT_EQ(p->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, s.put_void()), S_OK);
      for (int frame = 0; frame < 2; ++frame) {
        ComPtr<IVxImage> img;
        ASSERT_EQ(VxCreateImage(6, 4, VX_PF_RGB8, img.put()), S_OK);
        std::vector<unsigned char> rgba;  // what the channel must carry: RGB plus opaque alpha
        for (int y = 0; y < 4; ++y)
          for (int x = 0; x < 6; ++x) {
            BYTE* q = img->GetBuffer() + y * img->GetRowStride() + x * 3;
            q[0] = static_cast<BYTE>(10 * x + frame);
            q[1] = static_cast<BYTE>(20 * y);
            q[2] = static_cast<BYTE>(x * y + 100);
            rgba.insert(rgba.end(), {q[0], q[1], q[2], 255});
          }
        ASSERT_EQ(s->WriteImage(img.get(), frame), S_OK);
        char line[96];
        std::snprintf(line, sizeof line,
                      "frame track=0 index=%d size=6x4 sum=%08X first=%d,0,100,255", frame,
                      Fnv1a(rgba.data(), rgba.size()), frame);
        frames.push_back(line);
      }
    }
    std::string audioLine;
    if (c.audio) {
      ComPtr<IVxAudioStreamParser> s;
      ASSERT_EQ(p->GetStream(VX_STREAM_SOUND, 0, IID_IVxAudioStreamParser, s.put_void()), S_OK);
      std::vector<std::int16_t> pcm(200);
      for (std::size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<std::int16_t>(i * 300 - 7);
      ASSERT_EQ(s->WriteSamples(pcm.data(), 100), S_OK);
      char line[64];
      std::snprintf(line, sizeof line, "audio track=0 frames=100 sum=%08X",
                    Fnv1a(reinterpret_cast<const unsigned char*>(pcm.data()), 400));
      audioLine = line;
      LONG range[2];
      EXPECT_EQ(s->GetLength(range), S_OK);
      EXPECT_EQ(range[1], 100);
    }
    ASSERT_EQ(p->Close(), S_OK);
    const std::string log = ReadText(file.string() + ".log");
    EXPECT_EQ(log.rfind(c.wantCreate, 0), 0u) << log;
    if (c.wantSetup) {
      EXPECT_NE(log.find(c.wantSetup), std::string::npos) << log;
    }
    if (c.audio) {
      EXPECT_NE(log.find(std::string("asetup track=0 rate=") + (c.video ? "48000" : "44100") +
                         " channels=2 bits=16 tag=1"),
                std::string::npos)
          << log;
      EXPECT_NE(log.find(audioLine), std::string::npos) << log;
    }
    EXPECT_NE(log.find("setup text=\n"), std::string::npos) << log;
    for (const std::string& f : frames) EXPECT_NE(log.find(f), std::string::npos) << f << log;
    char finish[96];
    std::snprintf(finish, sizeof finish,
                  "finish vframes=%d aframes=%d vtracks=%d atracks=%d tc=FFFFFFFF", c.video ? 2 : 0,
                  c.audio ? 100 : 0, c.video ? 1 : 0, c.audio ? 1 : 0);
    EXPECT_NE(log.find(finish), std::string::npos) << log;
    EXPECT_GT(log.find("close"), log.find("finish")) << log;
  }

  // What was written opens again.
  const VxString first = Wide(dir() / "w0.mov");
  ASSERT_EQ(parser()->Open(first.c_str(), 0), S_OK);
  tagVxImageStreamFormat f{};
  f.cbSize = 56;
  ASSERT_EQ(parser()->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
  EXPECT_EQ(f.frameCount, 2u);
  EXPECT_EQ(f.width, 6u);
  ASSERT_EQ(parser()->Close(), S_OK);
}

TEST_F(QtParser, WritingNeedsStreamsAndFinishesOnlyWhatWasWritten) {
  const auto file = dir() / "empty.mov";
  const VxString path = Wide(file);
  EXPECT_EQ(parser()->Open(path.c_str(), VX_OPEN_WRITE), E_UNEXPECTED);
  BOOL has = TRUE;
  parser()->HasStream(VX_STREAM_PICTURE, &has);
  EXPECT_FALSE(has);
  DWORD caps = 0;
  parser()->GetStreamCapabilities(0, VX_STREAM_PICTURE, &caps);
  EXPECT_EQ(caps, 387u);  // still closed

  tagVxImageStreamFormat f{};
  f.cbSize = 56;
  f.width = 2;
  f.height = 2;
  f.frameRate = 25;
  ASSERT_EQ(parser()->SetStreamFormat(VX_STREAM_PICTURE, 1, &f), S_OK);
  ASSERT_EQ(parser()->Open(path.c_str(), VX_OPEN_WRITE), S_OK);
  EXPECT_EQ(parser()->SetStreamFormat(VX_STREAM_PICTURE, 1, &f), E_ACCESSDENIED);
  ASSERT_EQ(parser()->Close(), S_OK);
  const std::string log = ReadText(file.string() + ".log");
  EXPECT_EQ(log.find("finish"), std::string::npos) << log;
  EXPECT_NE(log.find("close"), std::string::npos) << log;
}

}  // namespace

namespace {

// vxhost loads the module, which starts its own manager through the host's generic objects
// and finds the decoder through VX_QTDECODER.
TEST(QtHost, InfoListsTheTracks) {
#ifdef _WIN32
  GTEST_SKIP() << "vxhost runs through a POSIX shell";
#else
  if (!std::filesystem::exists(qttest::TestDecoder())) GTEST_SKIP() << "no test decoder built";
  vxtest::TempDir dir;
  std::ofstream(dir / "clip.mov") << "video 64 48 25 10 tc=01:00:00:00 codec=ap4h alpha\n"
                                     "audio 48000 6 24 4800 mask=63\n";
  ::setenv("VX_QTDECODER", qttest::TestDecoder().string().c_str(), 1);
  const vxtest::HostRun r = vxtest::RunHost(dir.path(), "info --json clip.mov");
  ::unsetenv("VX_QTDECODER");
  ASSERT_EQ(r.code, 0) << r.err;
  const auto j = nlohmann::json::parse(r.out);
  const auto& tracks = j.is_array() ? j[0]["tracks"] : j["tracks"];
  ASSERT_EQ(tracks.size(), 2u) << r.out;
  EXPECT_EQ(tracks[0]["kind"], "video");
  EXPECT_EQ(tracks[0]["codec"], "ap4h");
  EXPECT_EQ(tracks[0]["size"], "64x48");
  EXPECT_EQ(tracks[0]["frames"], 10);
  EXPECT_EQ(tracks[0]["frame rate"], 25.0);
  EXPECT_EQ(tracks[0]["alpha"], true);
  EXPECT_EQ(tracks[0]["time code"], "01:00:00:00");
  EXPECT_EQ(tracks[1]["kind"], "audio");
  EXPECT_EQ(tracks[1]["sample rate"], 48000);
  EXPECT_EQ(tracks[1]["channels"], 6);
  EXPECT_EQ(tracks[1]["bits"], 24);
  EXPECT_EQ(tracks[1]["samples"], 4800);
#endif
}

}  // namespace

namespace {

// Two threads, each with its own parser on its own movie, interleave requests on the one
// manager and each gets its own frames.
TEST_F(QtParser, TwoThreadsGetTheirOwnAnswers) {
  const VxString paths[2] = {WriteMovie("a.mov", "video 32 16 25 40\n"),
                             WriteMovie("b.mov", "video 16 32 30 40 alpha\n")};
  int wrong[2] = {0, 0};
  auto work = [&](int which) {
    ComPtr<IVxMediaFileParser> p = ComPtr<IVxMediaFileParser>::Share(new CVxMediaFileParserQT);
    if (p->Open(paths[which].c_str(), 0) != S_OK) {
      wrong[which] = 1000;
      return;
    }
    ComPtr<IVxImageStreamParser> s;
    p->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, s.put_void());
    for (int frame = 0; frame < 40; ++frame) {
      ComPtr<IVxImage> image;
      VxCreateImage(0, 0, VX_PF_RGBA8, image.put());
      IVxImage* raw = image.get();
      if (s->ReadImage(&raw, frame) != S_OK || image->GetWidth() != (which ? 16 : 32)) {
        ++wrong[which];
        continue;
      }
      for (int y = 0; y < image->GetHeight(); ++y)
        for (int x = 0; x < image->GetWidth(); ++x) {
          const BYTE* q = image->GetBuffer() + y * image->GetRowStride() + x * 4;
          const Rgba w = Pattern(0, frame, x, y, which == 1);
          wrong[which] += q[0] != w.r || q[1] != w.g || q[2] != w.b || q[3] != w.a;
        }
    }
    p->Close();
  };
  std::thread other(work, 1);
  work(0);
  other.join();
  EXPECT_EQ(wrong[0], 0);
  EXPECT_EQ(wrong[1], 0);
}

// A decoder whose host dies ends by itself: its host here is a process we start and kill.
TEST_F(QtParser, DecoderEndsWhenItsHostDies) {
#ifdef _WIN32
  GTEST_SKIP() << "uses /bin/sleep as a stand-in host";
#else
  vx::os::ProcessHandle host = vx::os::LaunchProcess(VXT("/bin"), VXT("sleep"), VXT("30"));
  ASSERT_NE(host, nullptr);
  const std::uint32_t hostPid = vx::os::ProcessIdOf(host);
  // The channel's objects, named for that host.
  const std::string id = std::to_string(hostPid);
  const VxString names[5] = {vx::FromUtf8("QT_InstructionMapName_" + id),
                             vx::FromUtf8("QT_ResultMapName_" + id),
                             vx::FromUtf8("QTDecoderStartDecodeEventName_" + id),
                             vx::FromUtf8("QTDecoderEndDecodeEventName_" + id),
                             vx::FromUtf8("QTDecoderTerminateEventName_" + id)};
  vx::os::SharedMemory ins{}, res{};
  ASSERT_TRUE(vx::os::CreateSharedMemory(names[0].c_str(), 4096, &ins));
  ASSERT_TRUE(vx::os::CreateSharedMemory(names[1].c_str(), vx::qt::kResultBytes, &res));
  vx::os::EventHandle events[3];
  for (int i = 0; i < 3; ++i) events[i] = vx::os::CreateEvent(names[2 + i].c_str(), false);
  VxString line;
  for (const VxString& n : names) line += n + VXT(" ");
  line += vx::FromUtf8(id);
  const VxString program = Wide(TestDecoder());
  const VxString folder = program.substr(0, program.find_last_of(VXT("/")));
  vx::os::ProcessHandle decoder =
      vx::os::LaunchProcess(folder.c_str(), VXT("QTDecoder"), line.c_str());
  ASSERT_NE(decoder, nullptr);
  // It serves while its host lives ...
  vx::qt::Put32(ins.view, 0, 7);
  vx::qt::Put32(ins.view, 8, 99);  // no such movie
  vx::qt::Put32(ins.view, 12, 0);
  vx::os::SetEvent(events[0]);
  EXPECT_EQ(vx::os::WaitEvent(events[1], 5000), vx::os::Wait::Signaled);
  EXPECT_EQ(vx::qt::Get32(res.view, 0), 0x80070057u);
  EXPECT_EQ(vx::os::WaitProcess(decoder, 300), vx::os::Wait::Timeout);
  // ... and goes with it.
  vx::os::TerminateProcess(host, 9);
  EXPECT_EQ(vx::os::WaitProcess(host, 5000), vx::os::Wait::Signaled);
  EXPECT_EQ(vx::os::WaitProcess(decoder, 5000), vx::os::Wait::Signaled);
  vx::os::TerminateProcess(decoder, 9);
  vx::os::CloseProcess(decoder);
  vx::os::CloseProcess(host);
  for (auto e : events) vx::os::CloseEvent(e);
  vx::os::CloseSharedMemory(&ins);
  vx::os::CloseSharedMemory(&res);
#endif
}

}  // namespace
