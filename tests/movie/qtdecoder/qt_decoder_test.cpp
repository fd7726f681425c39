// The QuickTime decoder program on FFmpeg, driven through CVxMediaFileParserQT: what it reports
// and delivers must be what ffmpeg itself reads from the same file.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "movie/qt/qt_parser.h"
#include "qt_test_util.h"
#include "vx/com_ptr.h"

namespace {

using qttest::ReadText;
using vx::ComPtr;
using vxtest::Wide;

#ifndef _WIN32
std::filesystem::path Decoder() {
  return vxtest::BinDir() / "QuickTimeDecoder" / "QTDecoder";
}

bool Shell(const std::string& cmd) {
  return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

std::string Output(const std::string& cmd) {
  std::string out;
  if (std::FILE* p = popen(cmd.c_str(), "r")) {
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
  }
  return out;
}

std::string Q(const std::filesystem::path& p) {
  return "'" + p.string() + "'";
}

// Frame `index` (presentation order) of `file` as ffmpeg decodes it to 8-bit RGBA.
std::string FfmpegFrame(const std::filesystem::path& file, int index) {
  return Output("ffmpeg -v error -i " + Q(file) + " -map 0:v:0 -vf 'select=eq(n\\," +
                std::to_string(index) +
                ")' -fps_mode passthrough -frames:v 1 -f rawvideo -pix_fmt rgba -");
}

class QtDecoder : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(Decoder())) GTEST_SKIP() << "QTDecoder not built";
    if (!Shell("ffmpeg -version")) GTEST_SKIP() << "ffmpeg is not installed";
    vx::qt::SetDecoderProgramForTesting(Wide(Decoder()));
    vx::qt::SetTimeLimitMs(0);
    manager_ = new CVxQTManager;
    manager_->AddRef();
    ASSERT_EQ(manager_->Start(), S_OK);
    parser_ = ComPtr<IVxMediaFileParser>::Share(new CVxMediaFileParserQT);
  }
  void TearDown() override {
    parser_.reset();
    if (manager_) {
      const std::uint32_t pid = manager_->DecoderProcessId();
      manager_->Stop();
      manager_->Release();
      if (pid) {
        EXPECT_TRUE(qttest::WaitGone(pid)) << "decoder left running";
      }
    }
    vx::qt::SetDecoderProgramForTesting({});
  }
  std::filesystem::path Make(const std::string& name, const std::string& args) {
    const auto p = dir_ / name;
    EXPECT_TRUE(Shell("ffmpeg -v error -y " + args + " " + Q(p))) << args;
    return p;
  }

  vxtest::TempDir dir_;
  CVxQTManager* manager_ = nullptr;
  ComPtr<IVxMediaFileParser> parser_;
};

// Largest difference of two RGBA byte strings.
int MaxDiff(const std::vector<unsigned char>& a, const std::string& b) {
  if (a.size() != b.size()) return 256;
  int worst = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    worst = std::max(worst, std::abs(a[i] - static_cast<unsigned char>(b[i])));
  return worst;
}

// Mean difference of two RGBA byte strings.
double MeanDiff(const std::string& a, const std::string& b) {
  if (a.size() != b.size() || a.empty()) return 256;
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    sum += std::abs(static_cast<unsigned char>(a[i]) - static_cast<unsigned char>(b[i]));
  return sum / static_cast<double>(a.size());
}

// A little-endian signed sample of `bytes` bytes.
long Sample(const unsigned char* p, int bytes) {
  long v = static_cast<signed char>(p[bytes - 1]);
  for (int k = bytes - 2; k >= 0; --k) v = v * 256 + p[k];
  return v;
}

std::vector<unsigned char> Rows(IVxImage* image) {
  std::vector<unsigned char> out;
  for (int y = 0; y < image->GetHeight(); ++y) {
    const BYTE* row = image->GetBuffer() + y * image->GetRowStride();
    out.insert(out.end(), row, row + image->GetWidth() * 4);
  }
  return out;
}

TEST_F(QtDecoder, ReadsMoviesLikeFfmpeg) {
  struct Case {
    const char* name;
    const char* args;
    DWORD width, height, frames;  // 0 x 0: sound only
    double rate;
    bool alpha;          // read as 16-bit ARGB ("b64a") and converted to the caller's RGBA8
    int tolerance;       // codes: 0 for intra codecs
    DWORD timeCodeAt30;  // BCD time code of frame 30, 0 when the file has none
    DWORD soundRate, channels, bits;  // no sound when the rate is 0
    const char* pcm;                  // ffmpeg's name of the layout the samples come in
    int sampleTolerance;              // decoded (not stored) sound may round differently
  };
  // Compressed sound is counted as ffmpeg decodes it; stored PCM must match it exactly.
  const Case cases[] = {
      {"h264.mp4",
       "-f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 40 -c:v libx264 -g 12 -bf 2 "
       "-pix_fmt yuv420p",
       160, 120, 40, 25.0, false, 1, 0, 0, 0, 0, "", 0},
      {"prores.mov",
       "-f lavfi -i testsrc2=size=128x96:rate=24 -f lavfi -i sine=frequency=440:sample_rate=48000 "
       "-t 2 -c:v prores_ks -profile:v 3 -c:a pcm_s24le -ac 2 "
       "-timecode 01:00:00:00",
       128, 96, 48, 24.0, false, 0, 0x01000106, 48000, 2, 24, "s24le", 0},
      {"mpeg2.ts",
       "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 30 -c:v mpeg2video -g 10 -bf 2 "
       "-f mpegts",
       176, 144, 30, 25.0, false, 1, 0, 0, 0, 0, "", 0},
      {"alpha.mov",
       "-f lavfi -i \"testsrc2=size=96x80:rate=30,format=rgba,"
       "geq=r='r(X,Y)':g='g(X,Y)':b='b(X,Y)':a='2*X+Y'\" "
       "-frames:v 20 -c:v prores_ks -profile:v 4 -pix_fmt yuva444p10le",
       96, 80, 20, 30.0, true, 1, 0, 0, 0, 0, "", 0},
      {"hevc.mp4",
       "-f lavfi -i testsrc2=size=160x120:rate=25 -f lavfi -i sine=frequency=300:sample_rate=44100 "
       "-t 1.6 -c:v libx265 -x265-params log-level=error -g 12 -bf 2 -pix_fmt yuv420p "
       "-c:a aac -ac 2",
       160, 120, 40, 25.0, false, 1, 0, 44100, 2, 32, "s32le", 1 << 8},
      {"dnxhr.mov",
       "-f lavfi -i testsrc2=size=256x144:rate=25 -frames:v 32 -c:v dnxhd -profile:v dnxhr_hq "
       "-pix_fmt yuv422p",
       256, 144, 32, 25.0, false, 0, 0, 0, 0, 0, "", 0},
      {"mjpeg.mov",
       "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 32 -c:v mjpeg -q:v 3 "
       "-pix_fmt yuvj422p",
       176, 144, 32, 25.0, false, 0, 0, 0, 0, 0, "", 0},
      {"mpeg2ps.mpg",
       "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 36 -c:v mpeg2video -g 12 -bf 2 "
       "-f vob",
       176, 144, 36, 25.0, false, 1, 0, 0, 0, 0, "", 0},
      {"tone.mp3", "-f lavfi -i sine=frequency=1000:sample_rate=44100 -t 1.5 -c:a libmp3lame -ac 1",
       0, 0, 0, 0, false, 0, 0, 44100, 1, 32, "s32le", 1 << 8},
      {"tone.m4a", "-f lavfi -i sine=frequency=500:sample_rate=48000 -t 1.5 -c:a aac -ac 2", 0, 0,
       0, 0, false, 0, 0, 48000, 2, 32, "s32le", 1 << 8},
      // Odd sizes at 23.976: every row and column reaches the host image.
      {"odd.mov",
       "-f lavfi -i testsrc2=size=720x486:rate=24000/1001 -vf format=rgb24,crop=719:481:0:0 "
       "-frames:v 34 -c:v prores_ks -profile:v 4 -pix_fmt yuv444p10le -timecode 10:00:00:00",
       719, 481, 34, 24000 / 1001.0, false, 0, 0x10000106, 0, 0, 0, "", 0},
      // 29.97 drop-frame from 00:00:59;28: minute 1 has no frames 00 and 01, so frame 30 is
      // 00:01:01;00.
      {"ntsc.mov",
       "-f lavfi -i testsrc2=size=160x120:rate=30000/1001 -f lavfi -i "
       "sine=frequency=700:sample_rate=48000 -frames:v 36 -c:v libx264 -g 15 -bf 2 "
       "-pix_fmt yuv420p -c:a pcm_s16le -ac 1 -timecode 00:00:59\\;28 -shortest",
       160, 120, 36, 30000 / 1001.0, false, 1, 0x00010100, 48000, 1, 16, "s16le", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto file = Make(c.name, c.args);
    ASSERT_EQ(parser_->Open(Wide(file).c_str(), 0), S_OK);
    BOOL hasPicture = FALSE;
    parser_->HasStream(VX_STREAM_PICTURE, &hasPicture);
    EXPECT_EQ(hasPicture != FALSE, c.frames != 0);
    if (c.frames) {
      tagVxImageStreamFormat f{};
      f.cbSize = 56;
      ASSERT_EQ(parser_->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
      EXPECT_EQ(f.width, c.width);
      EXPECT_EQ(f.height, c.height);
      EXPECT_EQ(f.frameCount, c.frames);
      EXPECT_NEAR(f.frameRate, c.rate, 1e-9);
      EXPECT_EQ(f.hasAlpha != 0, c.alpha);

      ComPtr<IVxImageStreamParser> picture;
      ASSERT_EQ(
          parser_->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, picture.put_void()),
          S_OK);
      // Forwards, across a key frame, then backwards.
      for (int index : {0, 1, 13, static_cast<int>(c.frames) - 1, 5, 2}) {
        ComPtr<IVxImage> image;
        ASSERT_EQ(VxCreateImage(static_cast<int>(c.width), static_cast<int>(c.height), VX_PF_RGBA8,
                                image.put()),
                  S_OK);
        IVxImage* raw = image.get();
        ASSERT_EQ(picture->ReadImage(&raw, index), S_OK) << index;
        EXPECT_LE(MaxDiff(Rows(image.get()), FfmpegFrame(file, index)), c.tolerance) << index;
      }

      ComPtr<IVxParserSourceInfo> info;
      ASSERT_EQ(parser_->QueryInterface(IID_IVxParserSourceInfo, info.put_void()), S_OK);
      DWORD tc = 0;
      const HRESULT tcStatus = info->GetTimeCode(30, &tc);
      if (c.timeCodeAt30) {
        EXPECT_EQ(tcStatus, S_OK);
        EXPECT_EQ(tc, c.timeCodeAt30) << std::hex << tc;
      } else {
        EXPECT_TRUE(tcStatus != S_OK || tc == 0xFFFFFFFFu) << std::hex << tc;
      }
    }

    BOOL hasSound = FALSE;
    parser_->HasStream(VX_STREAM_SOUND, &hasSound);
    EXPECT_EQ(hasSound != FALSE, c.soundRate != 0);
    if (c.soundRate) {
      ComPtr<IVxAudioStreamParser> sound;
      ASSERT_EQ(parser_->GetStream(VX_STREAM_SOUND, 0, IID_IVxAudioStreamParser, sound.put_void()),
                S_OK);
      BYTE format[64] = {};
      int size = 64;
      ASSERT_EQ(sound->GetFormat(format, &size), S_OK);
      DWORD rate;
      std::memcpy(&rate, format + 4, 4);
      EXPECT_EQ(rate, c.soundRate);
      EXPECT_EQ(format[2], c.channels);
      EXPECT_EQ(format[14], c.bits);
      const int bytes = static_cast<int>(c.bits / 8 * c.channels);
      const std::string want =
          Output("ffmpeg -v error -i " + Q(file) + " -map 0:a:0 -f " + c.pcm + " -");
      ASSERT_GT(want.size(), 8192u * bytes);
      LONG range[2] = {};
      ASSERT_EQ(sound->GetLength(range), S_OK);
      EXPECT_EQ(static_cast<std::size_t>(range[1]) * bytes, want.size());
      // A stretch in the middle, then the start: the order a seek must not disturb.
      const LONG middle = static_cast<LONG>(want.size() / bytes / 2);
      for (LONG first : {middle, LONG{0}, LONG{1000}}) {
        std::vector<BYTE> got(4096 * bytes);
        VxSamplePosition pos{first};
        LONG done = 0;
        ASSERT_EQ(sound->ReadSamples(&pos, 4096, got.data(), &done), S_OK) << first;
        EXPECT_EQ(done, 4096);
        long worst = 0;
        const int each = static_cast<int>(c.bits / 8);
        for (std::size_t i = 0; i < got.size(); i += each)
          worst =
              std::max(worst, std::labs(Sample(got.data() + i, each) -
                                        Sample(reinterpret_cast<const unsigned char*>(want.data()) +
                                                   first * bytes + i,
                                               each)));
        EXPECT_LE(worst, c.sampleTolerance) << first;
      }
    }
    EXPECT_EQ(parser_->Close(), S_OK);
  }
}

// A movie written through the parser (ProRes 422 HQ and 16-bit PCM) is read back by ffmpeg with
// our frames and our sound.
TEST_F(QtDecoder, WrittenMovieReadsBackInFfmpeg) {
  const int w = 64, h = 48, frames = 5;
  const auto file = dir_ / "out.mov";
  tagVxImageStreamFormat f{};
  f.cbSize = 56;
  f.width = w;
  f.height = h;
  f.frameRate = 25.0;
  ASSERT_EQ(parser_->SetStreamFormat(VX_STREAM_PICTURE, 1, &f), S_OK);
  WAVEFORMATEX wf{1, 2, 48000, 48000 * 4, 4, 16, 0};
  VxAudioStreamFormat rec{8, &wf};
  ASSERT_EQ(parser_->SetStreamFormat(VX_STREAM_SOUND, 1, &rec), S_OK);
  ASSERT_EQ(parser_->Open(Wide(file).c_str(), VX_OPEN_WRITE), S_OK);

  ComPtr<IVxImageStreamParser> picture;
  ASSERT_EQ(parser_->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, picture.put_void()),
            S_OK);
  std::vector<std::vector<unsigned char>> written;
  for (int n = 0; n < frames; ++n) {
    ComPtr<IVxImage> img;
    ASSERT_EQ(VxCreateImage(w, h, VX_PF_RGBA8, img.put()), S_OK);
    // Smooth ramps, so ProRes keeps them within a few codes.
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        BYTE* p = img->GetBuffer() + y * img->GetRowStride() + x * 4;
        p[0] = static_cast<BYTE>(40 + 2 * x + 10 * n);
        p[1] = static_cast<BYTE>(60 + 3 * y);
        p[2] = static_cast<BYTE>(200 - x - y);
        p[3] = 255;
      }
    written.push_back(Rows(img.get()));
    ASSERT_EQ(picture->WriteImage(img.get(), n), S_OK) << n;
  }
  ComPtr<IVxAudioStreamParser> sound;
  ASSERT_EQ(parser_->GetStream(VX_STREAM_SOUND, 0, IID_IVxAudioStreamParser, sound.put_void()),
            S_OK);
  std::vector<std::int16_t> pcm(2 * 9600);
  for (std::size_t i = 0; i < pcm.size(); ++i)
    pcm[i] = static_cast<std::int16_t>((i % 2 ? -1 : 1) * static_cast<int>(i * 37 % 30000));
  ASSERT_EQ(sound->WriteSamples(pcm.data(), 9600), S_OK);
  ASSERT_EQ(parser_->Close(), S_OK);

  const std::string probe = Output(
      "ffprobe -v error -count_frames -show_entries stream=codec_name,codec_tag_string,"
      "width,height,nb_read_frames,sample_rate,channels -of default=nw=1 " +
      Q(file));
  for (const char* want :
       {"codec_name=prores", "codec_tag_string=apch", "width=64", "height=48", "nb_read_frames=5",
        "codec_name=pcm_s16le", "sample_rate=48000", "channels=2"})
    EXPECT_NE(probe.find(want), std::string::npos) << want << "\n" << probe;
  // ProRes 4:2:2 keeps these ramps within a few codes (5 seen); a swapped channel, a shifted row
  // or a frame out of order is off by tens.
  for (int n = 0; n < frames; ++n) EXPECT_LE(MaxDiff(written[n], FfmpegFrame(file, n)), 8) << n;
  const std::string samples = Output("ffmpeg -v error -i " + Q(file) + " -map 0:a:0 -f s16le -");
  ASSERT_EQ(samples.size(), pcm.size() * 2);
  EXPECT_EQ(std::memcmp(samples.data(), pcm.data(), samples.size()), 0);
}

// The manager's other questions, and a reference movie assembled from another file's frames and
// one handed-over frame. A scaled frame is the 4 x 4 box mean of ffmpeg's full frame.
TEST_F(QtDecoder, QueriesScaledFramesAndReferenceMovies) {
  const auto src = Make("ntsc.mov",
                        "-f lavfi -i testsrc2=size=160x120:rate=30000/1001 -frames:v 8 "
                        "-c:v prores_ks -timecode 00:00:59\\;28");
  DWORD movie = 0, video = 0, audio = 0;
  ASSERT_EQ(manager_->Open(Wide(src).c_str(), &movie, &video, &audio), S_OK);
  EXPECT_EQ(video, 1u);
  EXPECT_EQ(audio, 0u);
  VxQTMovieInfo mi;
  ASSERT_EQ(manager_->GetMovieInfo(movie, &mi), S_OK);
  EXPECT_NEAR(mi.rate, 29.97003, 1e-4);
  EXPECT_EQ(mi.timeCode, 0x00005928u);
  EXPECT_NEAR(static_cast<double>(mi.duration) / mi.timeScale, 8 * 1001 / 30000.0, 0.01);
  VxChar name[300];
  ASSERT_EQ(manager_->GetFormatName(movie, name, 300), S_OK);
  EXPECT_NE(vx::ToUtf8(name).find("prores"), std::string::npos) << vx::ToUtf8(name);
  // Drop-frame counting: minute 1 has no frames 00 and 01.
  const std::pair<DWORD, DWORD> codes[] = {{0, 0x00005928u}, {1, 0x00005929u}, {2, 0x00010002u}};
  for (const auto& [frame, want] : codes) {
    VxQTFrameInfo fi;
    ASSERT_EQ(manager_->GetFrameInfo(movie, 0, frame, &fi), S_OK);
    EXPECT_EQ(fi.timeCode, want) << frame;
    EXPECT_EQ(fi.timeCodeRate, 30u);
    EXPECT_EQ(fi.dropFrame, 1u);
    EXPECT_EQ(fi.keyFrame, 1u);
    EXPECT_EQ(fi.pictureType, static_cast<DWORD>('I'));
  }
  // At most 40 x 40 keeps 4:3: 40 x 30, each pixel the mean of a 4 x 4 block.
  IVxImage* small = nullptr;
  ASSERT_EQ(manager_->ReadScaledFrame(movie, 0, 3, 40, 40, &small), S_OK);
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(small->GetWidth(), 40);
  EXPECT_EQ(small->GetHeight(), 30);
  const std::string full = FfmpegFrame(src, 3);
  ASSERT_EQ(full.size(), 160u * 120 * 4);
  std::string box(40 * 30 * 4, '\0');
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 40; ++x)
      for (int c = 0; c < 4; ++c) {
        int sum = 0;
        for (int dy = 0; dy < 4; ++dy)
          for (int dx = 0; dx < 4; ++dx)
            sum += static_cast<unsigned char>(full[((4 * y + dy) * 160 + 4 * x + dx) * 4 + c]);
        box[(y * 40 + x) * 4 + c] = static_cast<char>((sum + 8) / 16);
      }
  EXPECT_LE(MaxDiff(Rows(small), box), 1);
  small->Release();
  EXPECT_EQ(manager_->CloseMovie(movie), S_OK);

  const auto ref = dir_ / "ref.mov";
  ASSERT_EQ(manager_->CreateRefMovie(Wide(ref).c_str(), 30000 / 1001.0, 160, 120, &movie), S_OK);
  EXPECT_EQ(manager_->SetCompression(movie, vx::qt::FourCC('a', 'p', 'c', 'h'), 100, 0), S_OK);
  VxQTMediaReference media;
  media.first = 2;
  media.length = 4;
  media.start = 0;
  ASSERT_EQ(manager_->AddMediaReference(movie, Wide(src).c_str(), &media), S_OK);
  std::vector<unsigned char> grey(160 * 120 * 4, 128);
  for (std::size_t i = 3; i < grey.size(); i += 4) grey[i] = 255;
  ASSERT_EQ(manager_->AddFrame(movie, 0, 4, grey.data(), 160, 120), S_OK);
  ASSERT_EQ(manager_->FinishRefMovie(movie, 1), S_OK);
  EXPECT_EQ(manager_->CloseMovie(movie), S_OK);
  EXPECT_NE(Output("ffprobe -v error -count_frames -show_entries stream=nb_read_frames " + Q(ref))
                .find("nb_read_frames=5"),
            std::string::npos);
  // Re-encoding moves testsrc2's sharp colour edges by tens of codes, but each frame stays
  // nearest the source frame it came from.
  for (int n = 0; n < 4; ++n) {
    const std::string got = FfmpegFrame(ref, n);
    const double same = MeanDiff(got, FfmpegFrame(src, n + 2));
    EXPECT_LT(same, 2.0) << n;
    EXPECT_LT(same, MeanDiff(got, FfmpegFrame(src, n + 1))) << n;
    EXPECT_LT(same, MeanDiff(got, FfmpegFrame(src, n + 3))) << n;
  }
  EXPECT_LE(MaxDiff(grey, FfmpegFrame(ref, 4)), 2);
}

// Damaged files fail to open and leave the decoder serving: garbage, a movie cut in half, a
// transport stream with its tail cut off (opens with what it holds).
TEST_F(QtDecoder, DamagedMoviesFailAndTheDecoderLivesOn) {
  const auto good =
      Make("good.mov", "-f lavfi -i testsrc2=size=64x48:rate=25 -t 0.4 -c:v prores_ks");
  const auto ts =
      Make("cut.ts", "-f lavfi -i testsrc2=size=64x48:rate=25 -t 2 -c:v mpeg2video -f mpegts");
  const std::string whole = ReadText(good);
  std::ofstream(dir_ / "half.mov", std::ios::binary) << whole.substr(0, whole.size() / 2);
  std::ofstream(dir_ / "junk.mov", std::ios::binary) << std::string(5000, '\x5A');
  std::filesystem::resize_file(ts, std::filesystem::file_size(ts) / 2 / 188 * 188 + 100);
  for (const char* name : {"junk.mov", "half.mov", "missing.mov"})
    EXPECT_TRUE(FAILED(parser_->Open(Wide(dir_ / name).c_str(), 0))) << name;
  const std::uint32_t pid = manager_->DecoderProcessId();
  ASSERT_EQ(parser_->Open(Wide(ts).c_str(), 0), S_OK);
  tagVxImageStreamFormat f{};
  f.cbSize = 56;
  ASSERT_EQ(parser_->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
  EXPECT_GT(f.frameCount, 10u);
  EXPECT_LT(f.frameCount, 50u);
  ComPtr<IVxImageStreamParser> picture;
  ASSERT_EQ(parser_->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, picture.put_void()),
            S_OK);
  IVxImage* last = nullptr;
  EXPECT_EQ(picture->ReadImage(&last, static_cast<std::int32_t>(f.frameCount) - 1), S_OK);
  if (last) last->Release();
  EXPECT_EQ(parser_->Close(), S_OK);
  ASSERT_EQ(parser_->Open(Wide(good).c_str(), 0), S_OK);
  EXPECT_EQ(manager_->DecoderProcessId(), pid) << "the decoder was restarted";
}

// vxhost on a real movie: info lists its tracks, convert writes a DPX per frame, thumbnail draws.
TEST_F(QtDecoder, HostInfoConvertAndThumbnail) {
  const auto file = Make("clip.mov",
                         "-f lavfi -i testsrc2=size=96x64:rate=25 -f lavfi -i "
                         "sine=sample_rate=48000 -t 0.24 -c:v prores_ks -c:a pcm_s16le "
                         "-timecode 10:00:00:00");
  ::setenv("VX_QTDECODER", Decoder().string().c_str(), 1);
  const vxtest::HostRun info = vxtest::RunHost(dir_.path(), "info --json clip.mov");
  const vxtest::HostRun convert = vxtest::RunHost(dir_.path(), "convert clip.mov frame.####.dpx");
  const vxtest::HostRun wav = vxtest::RunHost(dir_.path(), "convert clip.mov clip.wav");
  const vxtest::HostRun thumb = vxtest::RunHost(dir_.path(), "thumbnail clip.mov thumb.png");
  ::unsetenv("VX_QTDECODER");
  ASSERT_EQ(info.code, 0) << info.err;
  for (const char* want : {"\"96x64\"", "\"10:00:00:00\"", "\"audio\"", "48000"})
    EXPECT_NE(info.out.find(want), std::string::npos) << want << "\n" << info.out;
  EXPECT_EQ(convert.code, 0) << convert.err;
  int dpx = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir_.path()))
    dpx += e.path().extension() == ".dpx";
  EXPECT_EQ(dpx, 6);
  ASSERT_EQ(wav.code, 0) << wav.err;
  const std::string pcm = Output("ffmpeg -v error -i " + Q(dir_ / "clip.wav") + " -f s16le -");
  EXPECT_EQ(pcm.size(), 11520u * 2);  // 0.24 s of 48 kHz mono
  EXPECT_TRUE(pcm == Output("ffmpeg -v error -i " + Q(file) + " -map 0:a:0 -f s16le -"));
  EXPECT_EQ(thumb.code, 0) << thumb.err;
  EXPECT_TRUE(std::filesystem::exists(dir_ / "thumb.png"));
}
// vxhost convert of a DPX sequence and a WAV into a MOV: ffmpeg reads back every frame (within
// ProRes's few codes of the DPX it wrote) and every sample exactly; a missing sound file leaves
// no movie behind.
TEST_F(QtDecoder, HostMakesMovieFromSequenceAndSound) {
  ASSERT_TRUE(
      Shell("ffmpeg -v error -f lavfi -i \"gradients=size=64x48:rate=25:speed=0.05:seed=7\" "
            "-frames:v 6 -pix_fmt rgb24 -start_number 11 " +
            Q(dir_ / "seq.%04d.dpx")));
  Make("tone.wav", "-f lavfi -i sine=frequency=440:sample_rate=48000 -t 0.3 -ac 2 -c:a pcm_s16le");
  ::setenv("VX_QTDECODER", Decoder().string().c_str(), 1);
  const vxtest::HostRun run = vxtest::RunHost(
      dir_.path(), "convert seq.####.dpx movie.mov --sound tone.wav --rate 25 --json");
  const vxtest::HostRun missing =
      vxtest::RunHost(dir_.path(), "convert seq.####.dpx gone.mov --sound nothing.wav");
  ::unsetenv("VX_QTDECODER");
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_NE(run.out.find("\"frames\": 6"), std::string::npos) << run.out;
  EXPECT_NE(missing.code, 0);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "gone.mov"));

  const auto movie = dir_ / "movie.mov";
  const std::string probe = Output(
      "ffprobe -v error -count_frames -show_entries stream=codec_name,width,height,"
      "nb_read_frames,r_frame_rate,sample_rate,channels -of default=nw=1 " +
      Q(movie));
  for (const char* want :
       {"codec_name=prores", "width=64", "height=48", "nb_read_frames=6", "r_frame_rate=25/1",
        "codec_name=pcm_s16le", "sample_rate=48000", "channels=2"})
    EXPECT_NE(probe.find(want), std::string::npos) << want << "\n" << probe;
  for (int n = 0; n < 6; ++n) {
    const std::string source =
        Output("ffmpeg -v error -i " + Q(dir_ / ("seq.00" + std::to_string(11 + n) + ".dpx")) +
               " -f rawvideo -pix_fmt rgba -");
    EXPECT_LE(
        MaxDiff(std::vector<unsigned char>(source.begin(), source.end()), FfmpegFrame(movie, n)), 8)
        << n;
  }
  const std::string pcm = Output("ffmpeg -v error -i " + Q(dir_ / "tone.wav") + " -f s16le -");
  EXPECT_EQ(pcm.size(), 14400u * 4);  // 0.3 s of 48 kHz stereo
  EXPECT_TRUE(pcm == Output("ffmpeg -v error -i " + Q(movie) + " -map 0:a:0 -f s16le -"));
}
#endif

}  // namespace
