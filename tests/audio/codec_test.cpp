// Compressed WAV sound to 16-bit PCM: hand-checked blocks (through the system codec on Windows)
// and files of sox and FFmpeg at 1, 2 and 6 channels against sox's decode.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "audio/codec/sound_codec.h"
#include "test_util.h"

using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::int16_t>;

namespace {

// A WAVEFORMATEX at 22050 Hz with `extra` as its cbSize bytes.
Bytes Format(std::uint16_t tag, std::uint16_t ch, std::uint16_t align, std::uint16_t bits,
             Bytes extra = {}) {
  Bytes f;
  auto put = [&f](std::size_t v, int n) {
    for (int i = 0; i < n; ++i) f.push_back(std::uint8_t(v >> 8 * i));
  };
  put(tag, 2), put(ch, 2), put(22050, 4), put(22050 * align, 4), put(align, 2), put(bits, 2);
  put(extra.size(), 2);
  for (std::uint8_t b : extra) f.push_back(b);
  return f;
}
// WAVE_FORMAT_EXTENSIBLE's bytes: 8 valid bits, front centre, sub-format `tag`.
Bytes Extensible(std::uint8_t tag) {
  return {8, 0, 4, 0, 0, 0, tag, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
}
const Bytes kMsExtra = {4,   0, 7,  0, 0,   1, 0, 0, 0,   2, 0,  0xFF, 0,   0, 0,  0,
                        192, 0, 64, 0, 240, 0, 0, 0, 204, 1, 48, 0xFF, 136, 1, 24, 0xFF};

Samples Decode(const Bytes& format, const std::uint8_t* data, std::uint32_t blocks) {
  auto d = vx::audio::MakeSoundDecoder(format.data(), format.size());
  if (!d) return {};
  Samples out(std::size_t{blocks} * d->FramesPerBlock() * format[2]);
  return d->Decode(data, blocks, out.data()) ? out : Samples{};
}

}  // namespace

TEST(SoundCodec, HandCheckedBlocksDecode) {
  struct Case {
    const char* name;
    Bytes format, block;
    Samples want;
  } cases[] = {
      {"A-law", Format(6, 1, 1, 8), {0xD5, 0x55, 0x2A, 0xAA}, {8, -8, -32256, 32256}},
      {"mu-law", Format(7, 1, 1, 8), {0xFF, 0x7F, 0x00, 0x80}, {0, 0, -32124, 32124}},
      {"A-law extensible", Format(0xFFFE, 1, 1, 8, Extensible(6)), {0xD5}, {8}},
      // Headers 1000 and -1000 at step 7; nibbles 7 and 15 climb the step table both ways.
      {"IMA stereo",
       Format(0x11, 2, 16, 4, {9, 0}),
       {0xE8, 0x03, 0, 0, 0x18, 0xFC, 0, 0, 0x77, 0x77, 0x77, 0x77, 0xFF, 0xFF, 0xFF, 0xFF},
       {1000, -1000, 1011, -1011, 1041, -1041, 1104, -1104, 1240, -1240, 1533, -1533, 2164, -2164,
        3521, -3521, 6431, -6431}},
      // Predictor 3 (192, 64), delta 16, samples 100 and 52, nibbles +1 and -1.
      {"MS ADPCM",
       Format(2, 1, 8, 4, kMsExtra),
       {3, 16, 0, 100, 0, 52, 0, 0x1F},
       {52, 100, 104, 87}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const bool g711 = c.format[14] == 8;
    EXPECT_EQ(Decode(c.format, c.block.data(), g711 ? std::uint32_t(c.block.size()) : 1), c.want);
#ifdef _WIN32  // the audio compression manager must take the plain formats itself
    if (c.format[0] != 0xFE) {
      EXPECT_NE(vx::os::OpenSystemSoundDecoder(c.format.data(), c.format.size()), nullptr);
    }
#endif
  }
  // A step index past the table is its last step (32767): the left channel hits the top at once.
  Bytes bad = cases[3].block;
  bad[2] = 200;
  Samples top = cases[3].want;
  for (std::size_t i = 2; i < top.size(); i += 2) top[i] = 32767;
  EXPECT_EQ(Decode(cases[3].format, bad.data(), 1), top);
}

TEST(SoundCodec, InconsistentFormatsGiveNoDecoder) {
  const Bytes refused[] = {
      Format(6, 0, 0, 8),                         // no channels
      Format(6, 2, 1, 8),                         // block smaller than a frame
      Format(0x11, 1, 256, 4, {0xF8, 1}),         // 504 samples where the block holds 505
      Format(0x11, 2, 18, 4, {9, 0}),             // not whole words per channel
      Format(2, 2, 13, 4, kMsExtra),              // shorter than two headers
      Format(2, 1, 8, 4, {4, 0, 7, 0, 0, 1}),     // coefficients cut short
      Format(0x55, 2, 1, 0),                      // MPEG Layer 3
      Format(0xFFFE, 1, 1, 8, Extensible(0x11)),  // IMA is no sub-format
  };
  for (const Bytes& f : refused)
    EXPECT_EQ(vx::audio::MakeSoundDecoder(f.data(), f.size()), nullptr);
  Bytes cut = Format(0x11, 1, 256, 4, {0xF9, 1});
  EXPECT_EQ(vx::audio::MakeSoundDecoder(cut.data(), cut.size() - 1), nullptr);
  EXPECT_STREQ(vx::audio::CompressionName(7), "mu-law");
  EXPECT_STREQ(vx::audio::CompressionName(0xFFFE), "PCM (extensible)");
  EXPECT_EQ(vx::audio::CompressionName(0x1234), nullptr);
}

TEST(SoundCodec, SoxAndFfmpegFilesDecodeAsSoxDecodesThem) {
#ifdef _WIN32
  GTEST_SKIP() << "sox interop runs on Linux";
#else
  if (std::system("sox --version > /dev/null 2>&1") != 0) GTEST_SKIP() << "sox is not installed";
  const bool ffmpeg = std::system("ffmpeg -version > /dev/null 2>&1") == 0;
  vxtest::TempDir dir;
  const auto wav = dir / "t.wav", raw = dir / "t.raw";
  const char* codecs[][2] = {{"a-law", "pcm_alaw"},
                             {"u-law", "pcm_mulaw"},
                             {"ima-adpcm", "adpcm_ima_wav"},
                             {"ms-adpcm", "adpcm_ms"}};
  for (const auto& codec : codecs) {
    for (int ch : {1, 2, 6}) {
      for (bool byFfmpeg : {false, true}) {
        // FFmpeg writes ADPCM up to stereo only, and 6-channel G.711 as WAVE_FORMAT_EXTENSIBLE.
        if (byFfmpeg && (!ffmpeg || (ch > 2 && codec[1][0] == 'a'))) continue;
        SCOPED_TRACE(std::string(codec[0]) + " x" + std::to_string(ch) +
                     (byFfmpeg ? " ffmpeg" : " sox"));
        const std::string n = std::to_string(ch);
        const std::string make =
            byFfmpeg ? "ffmpeg -v error -y -f lavfi -i sine=f=440:d=0.5:r=22050 -ac " + n +
                           " -c:a " + codec[1] + " "
                     : "sox -n -r 22050 -c " + n + " -e " + codec[0] + " ";
        const std::string cmd =
            make + vxtest::Quote(wav) +
            (byFfmpeg ? "" : " synth 0.5 sine 300-3000 sine 440 tremolo 7 vol 0.9") + " && sox " +
            vxtest::Quote(wav) + " -t s16 " + vxtest::Quote(raw);
        ASSERT_EQ(std::system(cmd.c_str()), 0);
        const Bytes file = vxtest::ReadFile(wav), rawBytes = vxtest::ReadFile(raw);
        Samples want(rawBytes.size() / 2);
        std::memcpy(want.data(), rawBytes.data(), want.size() * 2);
        // The chunks: "fmt " then "data" (sox writes a "fact" between them for ADPCM).
        Bytes format;
        std::size_t pos = 12, dataAt = 0, dataBytes = 0;
        while (pos + 8 <= file.size() && !dataAt) {
          const std::size_t size = file[pos + 4] | file[pos + 5] << 8 | file[pos + 6] << 16;
          if (!std::memcmp(&file[pos], "fmt ", 4) && pos + 8 + size <= file.size())
            format.assign(file.begin() + pos + 8, file.begin() + pos + 8 + size);
          if (!std::memcmp(&file[pos], "data", 4)) dataAt = pos + 8, dataBytes = size;
          pos += 8 + size + (size & 1);
        }
        ASSERT_TRUE(dataAt && format.size() >= 18);
        const std::uint32_t align = format[12] | format[13] << 8,
                            blocks = std::uint32_t(dataBytes / align);
        const Samples all = Decode(format, &file[dataAt], blocks);
        ASSERT_GE(all.size(), want.size());
        ASSERT_LT(all.size() - want.size(),
                  all.size() / blocks);  // the last block is sox's padding
        EXPECT_TRUE(std::equal(want.begin(), want.end(), all.begin()));
        // Any block decodes on its own: two from the middle match the same stretch of the whole.
        const std::uint32_t mid = blocks / 2, perBlock = std::uint32_t(all.size() / blocks);
        const Samples part = Decode(format, &file[dataAt + std::size_t{mid} * align], 2);
        ASSERT_EQ(part.size(), 2u * perBlock);
        EXPECT_TRUE(
            std::equal(part.begin(), part.end(), all.begin() + std::size_t{mid} * perBlock));
      }
    }
  }
#endif
}
