// WAV files of other programs (sox, FFmpeg, libsndfile) in every PCM width, float and the
// common compressed formats read sample-exactly; what we write read back identically by each.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>

#include "audio/wav/wav_parser.h"
#include "audio_test_util.h"

namespace {

using vxtest::Bytes;
using vxtest::HaveTool;
using vxtest::Shell;

struct Encoding {
  const char* name;
  const char* sox;      // sox output options
  const char* ffmpeg;   // FFmpeg codec
  const char* sndfile;  // sndfile-convert encoding
  const char* raw;      // FFmpeg raw format of the samples the host gets
  bool compressed;
};

constexpr Encoding kEncodings[] = {
    {"u8", "-e unsigned-integer -b 8", "pcm_u8", "-pcmu8", "u8", false},
    {"s16", "-e signed-integer -b 16", "pcm_s16le", "-pcm16", "s16le", false},
    {"s24", "-e signed-integer -b 24", "pcm_s24le", "-pcm24", "s24le", false},
    {"s32", "-e signed-integer -b 32", "pcm_s32le", "-pcm32", "s32le", false},
    {"f32", "-e floating-point -b 32", "pcm_f32le", "-float32", "f32le", false},
    {"f64", "-e floating-point -b 64", "pcm_f64le", "-float64", "f64le", false},
    {"alaw", "-e a-law", "pcm_alaw", "-alaw", "s16le", true},
    {"ulaw", "-e u-law", "pcm_mulaw", "-ulaw", "s16le", true},
    {"ima", "-e ima-adpcm", "adpcm_ima_wav", "-ima-adpcm", "s16le", true},
    {"msadpcm", "-e ms-adpcm", "adpcm_ms", "-ms-adpcm", "s16le", true},
};

std::string Q(const std::filesystem::path& p) {
  return vxtest::Quote(p);
}

// Raw samples of `file` as FFmpeg decodes them.
Bytes Decode(const std::filesystem::path& file, const char* raw, const std::filesystem::path& out) {
  if (!Shell("ffmpeg -v error -y -i " + Q(file) + " -f " + raw + " " + Q(out))) return {};
  return vxtest::ReadFile(out);
}

Bytes SoxDecode16(const std::filesystem::path& file, const std::filesystem::path& out) {
  if (!Shell("sox " + Q(file) + " -t raw -e signed-integer -b 16 " + Q(out))) return {};
  return vxtest::ReadFile(out);
}

TEST(WavInterop, OtherWritersAndReaders) {
  if (!HaveTool("sox") || !HaveTool("ffmpeg") || !HaveTool("sndfile-convert"))
    GTEST_SKIP() << "needs sox, ffmpeg and sndfile-convert";
  vxtest::TempDir dir;
  // A source with something in every bit: two tones and noise, 6 channels.
  const auto source = dir / "source.wav";
  ASSERT_TRUE(
      Shell("sox -n -r 48000 -c 6 -b 24 " + Q(source) +
            " synth 0.25 sine 440 sine 660 whitenoise sine 50 sine 1000 pinknoise gain -3"));
  vx::ComPtr<IVxMetadata> blob;
  ASSERT_EQ(VxCreateMetadata(blob.put()), S_OK);
  vx::md::SetText(blob.get(), vx::audio::kVxmdKey, "dGhlIGhvc3QncyBvd24gYmxvYg");
  int index = 0;
  for (const Encoding& e : kEncodings) {
    for (const char* writer : {"sox", "ffmpeg", "sndfile"}) {
      // libsndfile writes ADPCM in mono and stereo only.
      const int channels = std::array{1, 2, e.compressed && writer[1] == 'n' ? 2 : 6}[index++ % 3];
      const std::string tag = std::string(e.name) + "-" + writer + "-" + std::to_string(channels);
      SCOPED_TRACE(tag);
      const auto file = dir / (tag + ".wav");
      const auto mix = dir / (tag + "-src.wav");
      const char* remix = channels == 1 ? " remix 1" : channels == 2 ? " remix 1 2" : "";
      ASSERT_TRUE(Shell("sox " + Q(source) + " " + Q(mix) + remix));
      std::string cmd;
      if (writer == std::string("sox")) cmd = "sox " + Q(mix) + " " + e.sox + " " + Q(file);
      if (writer == std::string("ffmpeg"))
        cmd = "ffmpeg -v error -y -i " + Q(mix) + " -c:a " + e.ffmpeg + " " + Q(file);
      if (writer == std::string("sndfile"))
        cmd = std::string("sndfile-convert ") + e.sndfile + " " + Q(mix) + " " + Q(file);
      if (!Shell(cmd)) {
        ADD_FAILURE() << "the peer could not write: " << cmd;
        continue;
      }
      // Compressed files against sox's decode: it keeps the "fact" length, and its ADPCM
      // rounding is the audio compression manager's and libsndfile's (FFmpeg's IMA differs).
      const Bytes expected = e.compressed ? SoxDecode16(file, dir / (tag + ".raw"))
                                          : Decode(file, e.raw, dir / (tag + ".raw"));
      ASSERT_FALSE(expected.empty());
      vxtest::Held<CVxAudioParserWAV> w;
      if (w.Open(file) != S_OK) {
        ADD_FAILURE() << "cannot open";
        continue;
      }
      const WAVEFORMATEX f = w.Format();
      EXPECT_EQ(f.nChannels, channels);
      const Bytes got = w.ReadAll();
      if (e.compressed) {
        // Peers decode the last block whole; we stop at the "fact" count sox writes (12000).
        if (writer[1] == 'o') {
          EXPECT_EQ(got.size(), 12000u * 2 * channels);
        }
        ASSERT_GE(expected.size(), got.size());
        EXPECT_TRUE(std::equal(got.begin(), got.end(), expected.begin())) << "samples differ";
        continue;
      }
      ASSERT_EQ(got.size(), expected.size());
      EXPECT_TRUE(got == expected) << "samples differ";

      // Ours, as the host's samples came: every peer must read the same.
      const auto ours = dir / (tag + "-ours.wav");
      Bytes format(18 + f.cbSize);
      VxAudioStreamFormat r{kVxAudioStreamFormatSize,
                            reinterpret_cast<WAVEFORMATEX*>(format.data())};
      ASSERT_EQ(w->GetStreamFormat(VX_STREAM_SOUND, 0, &r), S_OK);
      // With a "VXMD" chunk after the samples, as a host's export has: peers must skip it.
      // Not for floats: sndfile-convert scales floats by a signal maximum that libsndfile scans
      // past the samples into any chunk that follows (its own files included).
      const bool isFloat = e.raw[0] == 'f';
      ASSERT_EQ(vxtest::WriteThrough<CVxAudioParserWAV>(ours, format, got,
                                                        isFloat ? nullptr : blob.get()),
                S_OK);
      // Each peer reads ours as it reads the original (sox clips full-scale floats alike).
      for (const char* reader : {"ffmpeg", "sox", "sndfile"}) {
        Bytes raws[2];
        int k = 0;
        for (const auto& in : {file, ours}) {
          const auto out = dir / (tag + "-" + reader + std::to_string(k) + ".raw");
          std::string cmd = "ffmpeg -v error -y -i " + Q(in) + " -f " + e.raw + " " + Q(out);
          if (reader == std::string("sox")) cmd = "sox " + Q(in) + " -t raw " + Q(out);
          if (reader == std::string("sndfile"))
            cmd = std::string("sndfile-convert ") + e.sndfile + " " + Q(in) + " " + Q(out);
          EXPECT_TRUE(Shell(cmd)) << cmd;
          raws[k++] = vxtest::ReadFile(out);
        }
        EXPECT_FALSE(raws[0].empty());
        EXPECT_TRUE(raws[0] == raws[1]) << reader << " reads ours differently";
      }
    }
  }
}

// FFmpeg's RF64 and its Broadcast Wave chunk with the fields a recorder fills.
TEST(WavInterop, FfmpegRf64AndBroadcastWave) {
  if (!HaveTool("ffmpeg")) GTEST_SKIP() << "needs ffmpeg";
  vxtest::TempDir dir;
  const auto file = dir / "bwf.wav";
  ASSERT_TRUE(
      Shell("ffmpeg -v error -f lavfi -i sine=f=440:d=1:r=48000 -ac 2 -c:a pcm_s24le -rf64 always "
            "-write_bext 1 -metadata description=Interview -metadata originator=Recorder7 "
            "-metadata originator_reference=REF42 -metadata origination_date=2026-11-25 "
            "-metadata origination_time=09:30:00 -metadata time_reference=1641600000 " +
            Q(file)));
  const Bytes head = vxtest::ReadFile(file);
  EXPECT_EQ(std::string(head.begin(), head.begin() + 4), "RF64");
  vxtest::Held<CVxAudioParserWAV> w;
  ASSERT_EQ(w.Open(file), S_OK);
  EXPECT_EQ(w.ReadAll(), Decode(file, "s24le", dir / "ref.raw"));
  vx::ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  ASSERT_EQ(w->GetMetadata(-1, md.get()), S_OK);
  EXPECT_EQ(vx::md::GetRecord(md.get()).timeReference, 1641600000u);  // 09:30:00 at 48 kHz
  EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kDescription), "Interview");
  EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kOriginator), "Recorder7");
  EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kOriginatorReference), "REF42");
  EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kDate), "2026-11-25T09:30:00");
}

}  // namespace
