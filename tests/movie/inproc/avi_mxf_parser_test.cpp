// The AVI and MXF parsers against FFmpeg's command line: files it makes read through the parsers
// equal its own decode (tracks, rates, frame counts, time codes, pictures, sound), files the
// parsers write decode in FFmpeg to what was written, and damaged files fail cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "movie/avi/avi_parser.h"
#include "movie/mxf/mxf_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"

namespace fs = std::filesystem;
using vx::ComPtr;

namespace {

bool Shell(const std::string& cmd) {
  return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

std::string Capture(const std::string& cmd) {
  std::string out;
  if (std::FILE* p = popen((cmd + " 2>/dev/null").c_str(), "r")) {
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
  }
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  return out;
}

bool HaveFfmpeg() {
  static const bool have = Shell("ffmpeg -version") && Shell("ffprobe -version");
  return have;
}

ComPtr<IVxMediaFileParser> MakeParser(bool mxf) {
  if (mxf) return ComPtr<IVxMediaFileParser>::Share(new CVxMediaFileParserMXF);
  return ComPtr<IVxMediaFileParser>::Share(new CVxMediaFileParserAVI);
}

int MaxDiff(const std::uint8_t* a, const std::uint8_t* b, std::size_t n, int bytes) {
  int worst = 0;
  for (std::size_t i = 0; i + bytes <= n; i += bytes) {
    const int x = bytes == 2 ? a[i] | a[i + 1] << 8 : a[i];
    const int y = bytes == 2 ? b[i] | b[i + 1] << 8 : b[i];
    worst = std::max(worst, std::abs(x - y));
  }
  return worst;
}

// Rows of a host image packed tightly.
std::vector<std::uint8_t> Packed(IVxImage* img) {
  const std::size_t row =
      static_cast<std::size_t>(img->GetWidth()) * VxPixelFormatBytesPerPixel(img->GetPixelFormat());
  std::vector<std::uint8_t> out(row * img->GetHeight());
  for (int y = 0; y < img->GetHeight(); ++y)
    std::memcpy(out.data() + row * y, img->GetBuffer() + std::ptrdiff_t{y} * img->GetRowStride(),
                row);
  return out;
}

DWORD TimeCodeAt(IVxMediaFileParser* p, std::int32_t frame) {
  ComPtr<IVxParserSourceInfo> info;
  if (p->QueryInterface(IID_IVxParserSourceInfo, info.put_void()) != S_OK) return 0;
  DWORD bcd = 0xFFFFFFFFu;
  return info->GetTimeCode(frame, &bcd) == S_OK ? bcd : 0xFFFFFFFFu;
}

class AviMxf : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
  }
  vxtest::TempDir dir_;
};

struct ReadCase {
  const char* name;
  bool mxf;
  const char* make;  // ffmpeg output options
  int frames;        // 0: no picture
  int width, height, rateNum, rateDen;
  int audioTracks, channels, sampleRate;
  const char* codec;  // what GetCompressionName names
  VxPixelFormat host;
  const char* ffPix;  // FFmpeg's name of the host format
  int tolerance;      // in the host format's sample units
  DWORD tcFrame;      // frame whose time code is checked
  DWORD tc;           // its BCD word; 0xFFFFFFFF when the file has none
};

const ReadCase kReadCases[] = {
    {"avi_bgr24_bottom_up", false, "-c:v rawvideo -pix_fmt bgr24 -flipped_raw_rgb 1 -c:a pcm_s16le",
     10, 97, 33, 25, 1, 1, 2, 48000, "rawvideo", VX_PF_RGB8, "rgb24", 0, 0, 0xFFFFFFFFu},
    {"avi_bgr24_top_down", false, "-c:v rawvideo -pix_fmt bgr24", 10, 64, 35, 24000, 1001, 0, 0, 0,
     "rawvideo", VX_PF_BGRA8, "bgra", 0, 0, 0xFFFFFFFFu},
    {"avi_uyvy422", false, "-c:v rawvideo -pix_fmt uyvy422 -c:a pcm_s16le", 12, 66, 40, 30000, 1001,
     1, 1, 44100, "rawvideo", VX_PF_RGB8, "rgb24", 1, 0, 0xFFFFFFFFu},
    {"avi_yuyv422", false, "-c:v rawvideo -pix_fmt yuyv422", 10, 50, 30, 25, 1, 0, 0, 0, "rawvideo",
     VX_PF_RGB8, "rgb24", 1, 0, 0xFFFFFFFFu},
    {"avi_v210", false, "-c:v v210", 12, 94, 50, 60000, 1001, 0, 0, 0, "v210", VX_PF_RGB16,
     "rgb48le", 257, 0, 0xFFFFFFFFu},
    {"avi_mjpeg", false, "-c:v mjpeg -q:v 3 -pix_fmt yuvj422p -c:a pcm_s24le", 10, 160, 90, 25, 1,
     1, 6, 48000, "mjpeg", VX_PF_RGB8, "rgb24", 1, 0, 0xFFFFFFFFu},
    {"avi_dv", false, "-c:v dvvideo -pix_fmt yuv420p -c:a pcm_s16le", 6, 720, 576, 25, 1, 1, 2,
     48000, "dvvideo", VX_PF_RGB8, "rgb24", 1, 0, 0xFFFFFFFFu},
    {"avi_ffv1", false, "-c:v ffv1 -c:a pcm_s16le", 10, 101, 57, 50, 1, 1, 8, 48000, "ffv1",
     VX_PF_RGB8, "rgb24", 1, 0, 0xFFFFFFFFu},
    {"mxf_dnxhr_hq", true,
     "-c:v dnxhd -profile:v dnxhr_hq -pix_fmt yuv422p -c:a pcm_s24le -timecode 10:00:00:00", 10,
     320, 240, 50, 1, 1, 8, 48000, "dnxhd", VX_PF_RGB8, "rgb24", 1, 7, 0x10000007u},
    {"mxf_dnxhr_drop_frame", true,
     "-c:v dnxhd -profile:v dnxhr_hq -pix_fmt yuv422p -map 0:v -map 1:a -map 1:a -c:a pcm_s16le "
     "-timecode '00:00:59;28'",
     6, 320, 240, 30000, 1001, 2, 1, 48000, "dnxhd", VX_PF_RGB8, "rgb24", 1, 2, 0x00010002u},
    {"mxf_d10", true,
     "-f mxf_d10 -c:v mpeg2video -pix_fmt yuv422p -b:v 50M -minrate 50M -maxrate 50M "
     "-bufsize 2000000 -rc_init_occupancy 2000000 -g 1 -flags +ildct+low_delay -dc 10 "
     "-non_linear_quant 1 -intra_vlc 1 -qmax 12 -ps 1 -top 1 -c:a pcm_s16le "
     "-timecode 00:59:59:00",
     5, 720, 608, 25, 1, 1, 2, 48000, "mpeg2video", VX_PF_RGB8, "rgb24", 1, 3, 0x00595903u},
    {"mxf_h264_intra", true,
     "-c:v libx264 -profile:v high422 -pix_fmt yuv422p10 -x264-params keyint=1", 12, 320, 240,
     60000, 1001, 0, 0, 0, "h264", VX_PF_RGB16, "rgb48le", 257, 9, 0x00000009u},
    {"mxf_opatom_video", true,
     "-f mxf_opatom -c:v dnxhd -profile:v dnxhr_hq -pix_fmt yuv422p -timecode 01:00:00:00", 6, 320,
     240, 24000, 1001, 0, 0, 0, "dnxhd", VX_PF_RGB8, "rgb24", 1, 5, 0x01000005u},
    {"mxf_opatom_audio", true,
     "-f mxf_opatom -mxf_audio_edit_rate 25 -c:a pcm_s24le -timecode 02:00:00:00", 0, 0, 0, 0, 1, 1,
     1, 48000, "PCM", VX_PF_RGB8, "", 0, 0, 0x02000000u},
};

TEST_F(AviMxf, ReadsWhatFfmpegWrites) {
  std::mt19937 rng(16);
  for (const ReadCase& c : kReadCases) {
    SCOPED_TRACE(c.name);
    const fs::path file = dir_ / (std::string(c.name) + (c.mxf ? ".mxf" : ".avi"));
    std::string inputs, limit;
    std::string crop;
    if (c.frames) {
      // testsrc2 makes even sizes only: odd ones are cropped from the next even one.
      inputs += " -f lavfi -i testsrc2=s=" + std::to_string(c.width + c.width % 2) + "x" +
                std::to_string(c.height + c.height % 2) + ":r=" + std::to_string(c.rateNum) + "/" +
                std::to_string(c.rateDen);
      crop = " -vf format=rgb24,crop=" + std::to_string(c.width) + ":" + std::to_string(c.height) +
             ":0:0";
    }
    if (c.channels)
      inputs += " -f lavfi -i sine=r=" + std::to_string(c.sampleRate) + ":d=1:f=997 -ac " +
                std::to_string(c.channels);
    // MXF takes a duration: -frames:v cuts its muxer's sound short.
    if (!c.frames)
      limit = " -t 0.5";
    else if (c.mxf && c.channels)
      limit = " -t " + std::to_string((c.frames - 0.5) * c.rateDen / c.rateNum);
    else
      limit = " -frames:v " + std::to_string(c.frames);
    ASSERT_TRUE(Shell("ffmpeg -v error -y" + inputs + crop + " " + c.make + limit + " " +
                      vxtest::Quote(file)));
    ComPtr<IVxMediaFileParser> p = MakeParser(c.mxf);
    ASSERT_EQ(p->Open(vxtest::Wide(file).c_str(), 0), S_OK);
    BOOL has = FALSE;
    EXPECT_EQ(p->HasStream(VX_STREAM_PICTURE, &has), S_OK);
    EXPECT_EQ(has != FALSE, c.frames > 0);
    VxChar name[32];
    ASSERT_EQ(p->GetCompressionName(name, 32), S_OK);
    EXPECT_EQ(vx::ToUtf8(name), c.codec);
    EXPECT_EQ(TimeCodeAt(p.get(), static_cast<std::int32_t>(c.tcFrame)), c.tc);

    if (c.frames) {
      tagVxImageStreamFormat f{};
      f.cbSize = sizeof f;
      ASSERT_EQ(p->GetStreamFormat(VX_STREAM_PICTURE, 0, &f), S_OK);
      EXPECT_EQ(f.width, static_cast<DWORD>(c.width));
      EXPECT_EQ(f.height, static_cast<DWORD>(c.height));
      EXPECT_EQ(f.frameCount, static_cast<DWORD>(c.frames));
      EXPECT_DOUBLE_EQ(f.frameRate, static_cast<double>(c.rateNum) / c.rateDen);
      ComPtr<IVxImageStreamParser> s;
      ASSERT_EQ(p->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, s.put_void()), S_OK);
      const fs::path raw = dir_ / "frames.raw";
      ASSERT_TRUE(Shell("ffmpeg -v error -y -i " + vxtest::Quote(file) + " -map 0:v:0 -pix_fmt " +
                        c.ffPix + " -f rawvideo " + vxtest::Quote(raw)));
      const std::vector<std::uint8_t> theirs = vxtest::ReadFile(raw);
      const std::size_t size = std::size_t{static_cast<std::size_t>(c.width)} * c.height *
                               VxPixelFormatBytesPerPixel(c.host);
      ASSERT_EQ(theirs.size(), size * c.frames);
      // Random frames, then the last and the first.
      std::vector<int> order = {static_cast<int>(rng() % c.frames),
                                static_cast<int>(rng() % c.frames), c.frames - 1, 0};
      for (int k : order) {
        ComPtr<IVxImage> img;
        ASSERT_EQ(VxCreateImage(1, 1, c.host, img.put()), S_OK);
        IVxImage* raw_img = img.get();
        ASSERT_EQ(s->ReadImage(&raw_img, k), S_OK) << "frame " << k;
        ASSERT_EQ(img->GetWidth(), c.width);
        const std::vector<std::uint8_t> ours = Packed(img.get());
        const int bytes = c.host == VX_PF_RGB16 ? 2 : 1;
        EXPECT_LE(MaxDiff(ours.data(), theirs.data() + size * k, size, bytes), c.tolerance)
            << "frame " << k;
      }
      IVxImage* fresh = nullptr;
      ASSERT_EQ(s->ReadImage(&fresh, 0), S_OK);
      ASSERT_NE(fresh, nullptr);
      EXPECT_EQ(fresh->GetHeight(), c.height);
      fresh->Release();
      IVxImage* none = nullptr;
      EXPECT_EQ(s->ReadImage(&none, c.frames), E_INVALIDARG);
    }

    for (int t = 0; t < c.audioTracks; ++t) {
      ComPtr<IVxAudioStreamParser> a;
      ASSERT_EQ(p->GetStream(VX_STREAM_SOUND, t, IID_IVxAudioStreamParser, a.put_void()), S_OK);
      WAVEFORMATEX wf{};
      int size = sizeof wf;
      ASSERT_EQ(a->GetFormat(reinterpret_cast<BYTE*>(&wf), &size), S_OK);
      EXPECT_EQ(wf.nChannels, c.channels);
      EXPECT_EQ(wf.nSamplesPerSec, static_cast<DWORD>(c.sampleRate));
      const std::string fmt = "s" + std::to_string(wf.wBitsPerSample) + "le";
      const fs::path pcm = dir_ / "sound.pcm";
      ASSERT_TRUE(Shell("ffmpeg -v error -y -i " + vxtest::Quote(file) +
                        " -map 0:a:" + std::to_string(t) + " -c:a pcm_" + fmt + " -f " + fmt + " " +
                        vxtest::Quote(pcm)));
      const std::vector<std::uint8_t> theirs = vxtest::ReadFile(pcm);
      const LONG total = static_cast<LONG>(theirs.size() / wf.nBlockAlign);
      LONG range[2] = {};
      ASSERT_EQ(a->GetLength(range), S_OK);
      EXPECT_EQ(range[1], total);
      ASSERT_GT(total, 1000);
      // Backwards then forwards, and past the end.
      for (LONG start : {total / 2, LONG{0}, total - 100}) {
        const LONG count = std::min<LONG>(total - start, 4000);
        std::vector<std::uint8_t> ours(static_cast<std::size_t>(count) * wf.nBlockAlign);
        const VxSamplePosition pos{start};
        LONG done = 0;
        ASSERT_EQ(a->ReadSamples(&pos, count, ours.data(), &done), S_OK);
        ASSERT_EQ(done, count);
        EXPECT_EQ(0, std::memcmp(ours.data(),
                                 theirs.data() + static_cast<std::size_t>(start) * wf.nBlockAlign,
                                 ours.size()))
            << "samples from " << start;
      }
      std::vector<std::uint8_t> tail(400u * wf.nBlockAlign);
      const VxSamplePosition end{total - 10};
      LONG done = 0;
      EXPECT_EQ(a->ReadSamples(&end, 400, tail.data(), &done), S_FALSE);
      EXPECT_EQ(done, 10);
    }
    EXPECT_EQ(p->Close(), S_OK);
  }
}

// The sound of an OP-Atom file keeps the file's start time code as samples since midnight.
TEST_F(AviMxf, MxfSoundCarriesTimeReference) {
  const fs::path file = dir_ / "a.mxf";
  ASSERT_TRUE(
      Shell("ffmpeg -v error -y -f lavfi -i sine=r=48000:d=0.3 -f mxf_opatom "
            "-mxf_audio_edit_rate 25 -c:a pcm_s24le -timecode 02:00:00:10 " +
            vxtest::Quote(file)));
  ComPtr<IVxMediaFileParser> p = MakeParser(true);
  ASSERT_EQ(p->Open(vxtest::Wide(file).c_str(), 0), S_OK);
  ComPtr<IVxAudioStreamParser> a;
  ASSERT_EQ(p->GetStream(VX_STREAM_SOUND, 0, IID_IVxAudioStreamParser, a.put_void()), S_OK);
  ComPtr<IVxParserSourceInfo> info;
  ASSERT_EQ(a->QueryInterface(IID_IVxParserSourceInfo, info.put_void()), S_OK);
  ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  ASSERT_EQ(info->GetMetadata(0, md.get()), S_OK);
  const VxMetadataRecord r = vx::md::GetRecord(md.get());
  ASSERT_TRUE(r.present & VX_MD_TIMEREFERENCE);
  EXPECT_EQ(r.timeCode, 0x02000010u);
  EXPECT_EQ(r.timeReference, (7200ull * 25 + 10) * 48000 / 25);
}

struct WriteCase {
  const char* name;
  bool mxf;
  const char* option;  // "codec=..."; "" for the default
  const char* codec;   // what ffprobe names
  int width, height;
  VxPixelFormat host;
  double meanTolerance;  // mean absolute difference per 8-bit sample
  int maxTolerance;
};

const WriteCase kWriteCases[] = {
    {"avi_default_rgb", false, "", "rawvideo", 67, 41, VX_PF_RGB8, 0, 0},
    {"avi_bgra", false, "codec=bgra", "rawvideo", 64, 40, VX_PF_RGBA8, 0, 0},
    {"avi_v210", false, "codec=v210", "v210", 96, 40, VX_PF_RGB16, 1.0, 4},
    {"avi_mjpeg", false, "codec=mjpeg", "mjpeg", 96, 64, VX_PF_RGB8, 3.0, 255},
    {"mxf_default_dnxhr", true, "", "dnxhd", 320, 240, VX_PF_RGB8, 3.0, 255},
    {"mxf_prores", true, "codec=prores", "prores", 320, 240, VX_PF_RGB16, 3.0, 255},
};

// A picture every row and column of which differs, so flips and shifts show.
void Paint(IVxImage* img, int n) {
  const int w = img->GetWidth(), h = img->GetHeight();
  const int ch = VxPixelFormatChannels(img->GetPixelFormat());
  const bool deep = img->GetPixelFormat() == VX_PF_RGB16;
  for (int y = 0; y < h; ++y) {
    BYTE* row = img->GetBuffer() + std::ptrdiff_t{y} * img->GetRowStride();
    for (int x = 0; x < w; ++x) {
      const int v[4] = {(x * 255) / w, (y * 255) / h, (x + y + n * 20) % 256, 255};
      for (int c = 0; c < ch; ++c) {
        if (deep)
          reinterpret_cast<std::uint16_t*>(row)[x * ch + c] =
              static_cast<std::uint16_t>(v[c] * 257);
        else
          row[x * ch + c] = static_cast<BYTE>(v[c]);
      }
    }
  }
}

TEST_F(AviMxf, FfmpegReadsWhatWeWrite) {
  constexpr int kFrames = 4;
  constexpr int kSamples = 48000 * kFrames / 25;
  std::vector<std::int16_t> sound(std::size_t{kSamples} * 2);
  for (std::size_t i = 0; i < sound.size(); ++i)
    sound[i] = static_cast<std::int16_t>((i * 7919) % 65536 - 32768);
  for (const WriteCase& c : kWriteCases) {
    SCOPED_TRACE(c.name);
    const fs::path file = dir_ / (std::string(c.name) + (c.mxf ? ".mxf" : ".avi"));
    ComPtr<IVxMediaFileParser> p = MakeParser(c.mxf);
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    f.width = c.width;
    f.height = c.height;
    f.frameRate = 25;
    f.hasAlpha = c.host == VX_PF_RGBA8;
    f.fieldMode = VX_FIELD_PROGRESSIVE;
    ASSERT_EQ(p->SetStreamFormat(VX_STREAM_PICTURE, 1, &f), S_OK);
    WAVEFORMATEX wf{1, 2, 48000, 192000, 4, 16, 0};
    VxAudioStreamFormat af{kVxAudioStreamFormatSize, &wf};
    ASSERT_EQ(p->SetStreamFormat(VX_STREAM_SOUND, 1, &af), S_OK);
    if (*c.option) {
      ASSERT_EQ(p->SetOption(vx::FromUtf8(c.option).data(), VX_OPTION_TEXT), S_OK);
    }
    ComPtr<IVxMetadata> md;
    ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
    VxMetadataRecord r = vx::md::EmptyRecord();
    r.present = VX_MD_TIMECODE;
    r.timeCode = 0x01020304u;
    ASSERT_EQ(md->SetRecord(&r), S_OK);
    ASSERT_EQ(p->SetOption(md.get(), VX_OPTION_METADATA), S_OK);
    ASSERT_EQ(p->Open(vxtest::Wide(file).c_str(), VX_OPEN_WRITE), S_OK);
    DWORD caps = 0;
    EXPECT_EQ(p->GetStreamCapabilities(2, VX_STREAM_PICTURE, &caps), S_OK);
    EXPECT_EQ(caps, 163u);
    ComPtr<IVxImageStreamParser> s;
    ASSERT_EQ(p->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, s.put_void()), S_OK);
    ComPtr<IVxAudioStreamParser> a;
    ASSERT_EQ(p->GetStream(VX_STREAM_SOUND, 0, IID_IVxAudioStreamParser, a.put_void()), S_OK);
    std::vector<std::vector<std::uint8_t>> written;
    for (int n = 0; n < kFrames; ++n) {
      ComPtr<IVxImage> img;
      ASSERT_EQ(VxCreateImage(c.width, c.height, c.host, img.put()), S_OK);
      Paint(img.get(), n);
      ASSERT_EQ(s->WriteImage(img.get(), n), S_OK);
      ComPtr<IVxImage> rgb;
      ASSERT_EQ(VxCreateImage(c.width, c.height, VX_PF_RGB8, rgb.put()), S_OK);
      ASSERT_EQ(VxConvertImage(img.get(), rgb.get()), S_OK);
      written.push_back(Packed(rgb.get()));
    }
    ASSERT_EQ(a->WriteSamples(sound.data(), kSamples), S_OK);
    ASSERT_FALSE(fs::exists(file)) << "visible before Close";
    ASSERT_EQ(p->Close(), S_OK);

    const std::string q = vxtest::Quote(file);
    EXPECT_EQ(Capture("ffprobe -v error -select_streams v:0 -show_entries stream=codec_name -of "
                      "csv=p=0 " +
                      q),
              c.codec);
    if (c.mxf) {
      EXPECT_EQ(Capture("ffprobe -v error -show_entries format_tags=timecode -of csv=p=0 " + q),
                "01:02:03:04");
    }
    const fs::path raw = dir_ / "back.raw";
    ASSERT_TRUE(Shell("ffmpeg -v error -y -i " + q + " -map 0:v:0 -pix_fmt rgb24 -f rawvideo " +
                      vxtest::Quote(raw)));
    const std::vector<std::uint8_t> theirs = vxtest::ReadFile(raw);
    const std::size_t size = std::size_t{static_cast<std::size_t>(c.width)} * c.height * 3;
    ASSERT_EQ(theirs.size(), size * kFrames);
    for (int n = 0; n < kFrames; ++n) {
      double sum = 0;
      const std::uint8_t* t = theirs.data() + size * n;
      for (std::size_t i = 0; i < size; ++i) sum += std::abs(int{t[i]} - written[n][i]);
      EXPECT_LE(sum / size, c.meanTolerance) << "frame " << n;
      EXPECT_LE(MaxDiff(t, written[n].data(), size, 1), c.maxTolerance) << "frame " << n;
    }
    const fs::path pcm = dir_ / "back.pcm";
    ASSERT_TRUE(Shell("ffmpeg -v error -y -i " + q + " -map 0:a:0 -f s16le " + vxtest::Quote(pcm)));
    const std::vector<std::uint8_t> back = vxtest::ReadFile(pcm);
    ASSERT_GE(back.size(), sound.size() * 2);
    EXPECT_EQ(0, std::memcmp(back.data(), sound.data(), sound.size() * 2));
    if (!c.mxf && c.host != VX_PF_RGB16 && !std::strstr(c.option, "mjpeg")) {
      // DIBs are stored bottom-up: the bitmap header's height is positive.
      const std::vector<std::uint8_t> bytes = vxtest::ReadFile(file);
      const auto at = std::search(bytes.begin(), bytes.end(), "strf", "strf" + 4);
      ASSERT_NE(at, bytes.end());
      std::int32_t h = 0;
      std::memcpy(&h, &*(at + 16), 4);
      EXPECT_EQ(h, c.height);
    }
  }
}

// The stream operations a reading AVI parser refuses, and its capability words.
TEST_F(AviMxf, AviReadContract) {
  const fs::path file = dir_ / "c.avi";
  ASSERT_TRUE(
      Shell("ffmpeg -v error -y -f lavfi -i testsrc2=s=32x24:r=25 -f lavfi -i "
            "sine=r=48000 -t 0.2 -c:v rawvideo -pix_fmt bgr24 -c:a pcm_s16le " +
            vxtest::Quote(file)));
  ComPtr<IVxMediaFileParser> p = MakeParser(false);
  ASSERT_EQ(p->Open(vxtest::Wide(file).c_str(), 0), S_OK);
  DWORD caps = 0;
  for (DWORD mode : {0u, 1u, 3u}) {
    EXPECT_EQ(p->GetStreamCapabilities(mode, VX_STREAM_PICTURE, &caps), S_OK);
    EXPECT_EQ(caps, 131u);
  }
  EXPECT_EQ(p->GetStreamCapabilities(1, VX_STREAM_SOUND, &caps), S_OK);
  EXPECT_EQ(caps, 3u);
  ComPtr<IVxImageStreamParser> s;
  ASSERT_EQ(p->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, s.put_void()), S_OK);
  ComPtr<IVxImage> img;
  ASSERT_EQ(VxCreateImage(32, 24, VX_PF_RGB8, img.put()), S_OK);
  EXPECT_EQ(s->WriteImage(img.get(), 0), E_ACCESSDENIED);
  ComPtr<IVxAudioStreamParser> a;
  ASSERT_EQ(p->GetStream(VX_STREAM_SOUND, 0, IID_IVxAudioStreamParser, a.put_void()), S_OK);
  std::int16_t buf[4] = {};
  EXPECT_EQ(a->WriteSamples(buf, 1), E_UNEXPECTED);
  EXPECT_EQ(a->WriteSamples(nullptr, 1), E_POINTER);
  EXPECT_EQ(p->Close(), S_OK);
  EXPECT_EQ(p->GetStreamCapabilities(0, VX_STREAM_SOUND, &caps), S_OK);
  EXPECT_EQ(caps, 1u);
}

// Damaged files: every one fails with E_FAIL or opens and reads without crashing.
TEST_F(AviMxf, DamagedFilesFailCleanly) {
  const fs::path avi = dir_ / "good.avi", mxf = dir_ / "good.mxf";
  ASSERT_TRUE(
      Shell("ffmpeg -v error -y -f lavfi -i testsrc2=s=64x48:r=25 -f lavfi -i "
            "sine=r=48000 -t 0.4 -c:v rawvideo -pix_fmt bgr24 -c:a pcm_s16le " +
            vxtest::Quote(avi)));
  ASSERT_TRUE(
      Shell("ffmpeg -v error -y -f lavfi -i testsrc2=s=320x240:r=25 -f lavfi -i "
            "sine=r=48000 -t 0.4 -c:v dnxhd -profile:v dnxhr_hq -pix_fmt yuv422p "
            "-c:a pcm_s16le " +
            vxtest::Quote(mxf)));
  const std::vector<std::uint8_t> a = vxtest::ReadFile(avi), m = vxtest::ReadFile(mxf);
  auto patched = [](std::vector<std::uint8_t> b, const char* tag, std::size_t at, std::uint32_t v) {
    const auto it = std::search(b.begin(), b.end(), tag, tag + 4);
    if (it != b.end()) std::memcpy(&*(it + at), &v, 4);
    return b;
  };
  std::vector<std::uint8_t> garbage(5000);
  std::mt19937 rng(7);
  for (auto& g : garbage) g = static_cast<std::uint8_t>(rng());
  struct Bad {
    const char* name;
    bool mxf;
    std::vector<std::uint8_t> bytes;
    bool mustFail;
  };
  const Bad cases[] = {
      {"empty", false, {}, true},
      {"garbage_avi", false, garbage, true},
      {"garbage_mxf", true, garbage, true},
      {"avi_header_only", false, {a.begin(), a.begin() + 200}, true},
      {"avi_truncated", false, {a.begin(), a.begin() + a.size() / 2}, false},
      {"mxf_truncated", true, {m.begin(), m.begin() + m.size() / 3}, false},
      // FFmpeg's demuxer substitutes a rate, and leaves out a picture track it cannot size:
      // these open as what is left, or fail.
      {"avi_zero_rate", false, patched(patched(a, "strh", 28, 0), "avih", 8, 0), false},
      {"avi_huge", false, patched(patched(a, "strf", 12, 1000000), "strf", 16, 1000000), false},
  };
  for (const Bad& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path f = dir_ / (std::string(c.name) + (c.mxf ? ".mxf" : ".avi"));
    vxtest::WriteFile(f, c.bytes);
    ComPtr<IVxMediaFileParser> p = MakeParser(c.mxf);
    const HRESULT hr = p->Open(vxtest::Wide(f).c_str(), 0);
    if (c.mustFail) {
      EXPECT_EQ(hr, E_FAIL);
    }
    if (hr != S_OK) {
      EXPECT_EQ(hr, E_FAIL);
      continue;
    }
    tagVxImageStreamFormat fmt{};
    fmt.cbSize = sizeof fmt;
    ComPtr<IVxImageStreamParser> s;
    if (p->GetStreamFormat(VX_STREAM_PICTURE, 0, &fmt) == S_OK &&
        p->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, s.put_void()) == S_OK) {
      for (DWORD k = 0; k < fmt.frameCount; ++k) {
        IVxImage* img = nullptr;
        const HRESULT r = s->ReadImage(&img, static_cast<std::int32_t>(k));
        EXPECT_TRUE(r == S_OK || r == E_FAIL) << "frame " << k;
        if (img) img->Release();
      }
    }
  }
}

}  // namespace
