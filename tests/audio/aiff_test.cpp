// AIFF and AIFC through CVxAudioParserAIFF: headers laid out byte by byte from a table, and files
// exchanged with sox, FFmpeg and libsndfile sample for sample.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio/aiff/aiff_parser.h"
#include "audio_test_util.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"

namespace {

using vxtest::Bytes;
using vxtest::Put;
using Aiff = vxtest::Held<CVxAudioParserAIFF>;

const Bytes k44100 = {0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0};
const Bytes k48000 = {0x40, 0x0E, 0xBB, 0x80, 0, 0, 0, 0, 0, 0};
const Bytes kNaN = {0x7F, 0xFF, 0xC0, 0, 0, 0, 0, 0, 0, 0};

struct Case {
  const char* what;
  const char* compression;  // null: AIFF; else AIFC with this type
  std::uint16_t channels;
  std::uint32_t commFrames;
  std::uint16_t sampleSize;
  const Bytes& rate;
  std::uint32_t ssndOffset;  // bytes between the SSND fields and the first sample
  Bytes stored;              // sample bytes as the file holds them
  HRESULT want;
  std::uint32_t rateHz = 0, avgBytes = 0;
  std::uint16_t bits = 0;
  Bytes host = {};      // what the host reads, all frames
  std::size_t cut = 0;  // file cut to this length
  bool ssnd = true;
};

Bytes Layout(const Case& c) {
  Bytes comm, ssnd, f;
  Put{comm, true}.u16(c.channels).u32(c.commFrames).u16(c.sampleSize).raw(c.rate);
  if (c.compression) Put{comm, true}.text(c.compression).u16(0);  // empty name, padded
  Put{ssnd, true}.u32(c.ssndOffset).u32(0).raw(Bytes(c.ssndOffset, 0xEE)).raw(c.stored);
  Put form{f, true};
  form.text("FORM").u32(0).text(c.compression ? "AIFC" : "AIFF");
  if (c.compression) form.chunk("FVER", {0xA2, 0x80, 0x51, 0x40});
  form.chunk("NAME", {'T', 'a', 'k', 'e', '1'});  // odd: the walk must step over its pad byte
  form.chunk("ANNO", {});                         // empty: the walk goes on
  form.chunk("COMM", comm);
  if (c.ssnd) form.chunk("SSND", ssnd);
  for (int i = 0; i < 4; ++i) f[4 + i] = static_cast<std::uint8_t>((f.size() - 8) >> (24 - 8 * i));
  if (c.cut) f.resize(c.cut);
  return f;
}

// clang-format off
const Case kCases[] = {
    // what, compression, channels, COMM frames, sample size, rate, SSND offset, stored, status,
    // rate, average bytes, bits, host bytes, cut, SSND present
    {"16-bit stereo", nullptr, 2, 2, 16, k44100, 0, {1, 2, 0xFF, 0xFE, 0x80, 0, 0x7F, 0xFF}, S_OK,
     44100, 176400, 16, {2, 1, 0xFE, 0xFF, 0, 0x80, 0xFF, 0x7F}},
    {"8-bit signed", nullptr, 1, 4, 8, k48000, 0, {0, 0x7F, 0x80, 0xFF}, S_OK,
     48000, 48000, 8, {0x80, 0xFF, 0, 0x7F}},
    {"in24", "in24", 1, 2, 24, k48000, 0, {0x12, 0x34, 0x56, 0x80, 0, 1}, S_OK,
     48000, 144000, 24, {0x56, 0x34, 0x12, 1, 0, 0x80}},
    {"20-bit as 24", nullptr, 2, 1, 20, k44100, 0, {0xAB, 0xCD, 0xE0, 0x12, 0x34, 0x50}, S_OK,
     44100, 264600, 24, {0xE0, 0xCD, 0xAB, 0x50, 0x34, 0x12}},
    {"32-bit NONE", "NONE", 1, 1, 32, k44100, 0, {1, 2, 3, 4}, S_OK, 44100, 176400, 32, {4, 3, 2, 1}},
    {"twos", "twos", 1, 1, 16, k44100, 0, {0x12, 0x34}, E_NOTIMPL},
    {"SSND offset 4", nullptr, 1, 2, 16, k44100, 4, {0, 1, 0, 2}, S_OK, 44100, 88200, 16, {1, 0, 2, 0}},
    {"COMM count below SSND", nullptr, 1, 1, 16, k44100, 0, {0, 1, 0, 2, 0, 3}, S_OK,
     44100, 88200, 16, {1, 0}},
    // (SSND size - offset) / block align counts the 8 bytes of SSND fields too: with COMM
    // promising more, the pad byte ends the second frame and the file ends in the third.
    {"SSND below COMM count", nullptr, 1, 3, 16, k44100, 0, {0, 5, 7}, S_OK, 44100, 88200, 16,
     {5, 0, 0, 7}},
    {"sowt", "sowt", 1, 1, 16, k44100, 0, {1, 2}, E_NOTIMPL},
    {"40-bit samples", nullptr, 1, 1, 40, k44100, 0, {1, 2, 3, 4, 5}, E_NOTIMPL},
    {"zero channels", nullptr, 0, 1, 16, k44100, 0, {1, 2}, E_UNEXPECTED},
    {"NaN rate", nullptr, 1, 1, 16, kNaN, 0, {1, 2}, E_UNEXPECTED},
    {"cut inside COMM", nullptr, 1, 1, 16, k44100, 0, {1, 2}, E_FAIL, 0, 0, 0, {}, 48},
    {"no SSND", nullptr, 1, 1, 16, k44100, 0, {1, 2}, E_FAIL, 0, 0, 0, {}, 0, false},
};
// clang-format on

TEST(Aiff, ReadsHandLaidHeaders) {
  vxtest::TempDir dir;
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    vxtest::WriteFile(dir / "t.aif", Layout(c));
    Aiff p;
    ASSERT_EQ(p.Open(dir / "t.aif"), c.want);
    if (c.want != S_OK) continue;
    const WAVEFORMATEX f = p.Format();
    EXPECT_EQ(std::tuple(f.wFormatTag, f.nChannels, f.nSamplesPerSec, f.nAvgBytesPerSec,
                         f.wBitsPerSample, f.nBlockAlign),
              std::tuple(WAVE_FORMAT_PCM, c.channels, c.rateHz, c.avgBytes, c.bits,
                         c.channels * c.bits / 8));
    LONG done = 0;  // one frame more than there is: the count must say so
    const auto frames = static_cast<LONG>(c.host.size() / f.nBlockAlign);
    EXPECT_EQ(p.Read(0, frames + 1, &done), c.host);
    EXPECT_EQ(done, frames);
    vx::ComPtr<IVxMetadata> md;
    ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
    ASSERT_EQ(p->GetMetadata(-1, md.get()), S_OK);
    EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kDescription), "Take1");
  }
}

#ifndef _WIN32
// Host samples (little-endian, 8-bit unsigned) from full scale down to full scale up.
Bytes HostSamples(int bytes, int channels, int frames) {
  Bytes out;
  std::uint32_t x = 0x1234567u;
  for (int i = 0; i < frames * channels; ++i) {
    x = x * 1664525u + 1013904223u;
    const std::uint32_t v = i == 0 ? 0u : i == 1 ? 0xFFFFFFFFu : x;  // both extremes first
    for (int b = 0; b < bytes; ++b) out.push_back(static_cast<std::uint8_t>(v >> (8 * b)));
  }
  return out;
}

// The same samples as a plain PCM WAV file, for a tool that wants a header to read.
Bytes Wav(const Bytes& samples, int bytes, int channels) {
  const auto size = static_cast<std::uint32_t>(samples.size());
  const auto align = static_cast<std::uint16_t>(bytes * channels);
  Bytes w;
  Put{w}.text("RIFF").u32(4 + 26 + 8 + size + (size & 1)).text("WAVE");
  Put{w}
      .chunk("fmt ", vxtest::WaveFormat(1, channels, 48000, align, 8 * bytes))
      .chunk("data", samples);
  return w;
}

TEST(AiffInterop, SoxFfmpegAndLibsndfileAgreeSampleForSample) {
  for (const char* tool : {"sox", "ffmpeg", "sndfile-convert"})
    if (!vxtest::HaveTool(tool)) GTEST_SKIP() << tool << " is not installed";
  vxtest::TempDir dir;
  const int kFrames = 1001;  // odd: 8-bit mono data needs its pad byte
  // Texts and a "VXMD" blob after the samples: the tools must step over them.
  vx::ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  vx::md::SetText(md.get(), vx::md::kDescription, "Take 21");
  vx::md::SetText(md.get(), vx::md::kCopyright, "(c) nobody");
  vx::md::SetText(md.get(), vx::audio::kVxmdKey, "AAECAw==");
  for (int bytes : {1, 2, 3, 4}) {
    for (int channels : {1, 2, 6}) {
      SCOPED_TRACE(std::to_string(8 * bytes) + "-bit, " + std::to_string(channels) + " channels");
      const Bytes host = HostSamples(bytes, channels, kFrames);
      const auto align = static_cast<std::uint16_t>(bytes * channels);
      const std::string bits = std::to_string(8 * bytes);
      const std::string ff = bytes == 1 ? "u8" : "s" + bits + "le";
      const std::string sndEnc = bytes == 1 ? "-pcmu8" : "-pcm" + bits;
      const std::string soxEnc = (bytes == 1 ? "-e unsigned" : "-e signed") + (" -b " + bits);
      const auto ours = dir / "ours.aifc", raw = dir / "out.raw", wav = dir / "in.wav";

      // Ours, read by each tool.
      ASSERT_EQ(vxtest::WriteThrough<CVxAudioParserAIFF>(
                    ours, vxtest::WaveFormat(1, channels, 48000, align, 8 * bytes), host, md.get()),
                S_OK);
      const std::string in = vxtest::Quote(ours), out = vxtest::Quote(raw);
      for (const std::string& cmd :
           {"sox " + in + " -t raw " + soxEnc + " -L " + out,
            "ffmpeg -v error -y -i " + in + " -f " + ff + " " + out,
            "sndfile-convert " + sndEnc + " -endian=little " + in + " " + out}) {
        SCOPED_TRACE(cmd);
        ASSERT_TRUE(vxtest::Shell(cmd));
        EXPECT_TRUE(vxtest::ReadFile(raw) == host);
      }

      // Each tool's AIFF, read by us. An even count: libsndfile counts the pad byte of odd 8-bit
      // mono data as one more frame (and so does every reader of its file).
      const Bytes even(host.begin(), host.end() - align);
      vxtest::WriteFile(wav, Wav(even, bytes, channels));
      const std::string src = vxtest::Quote(wav), t = vxtest::Quote(dir / "theirs.aiff");
      const std::string codec = bytes == 1 ? "pcm_s8" : "pcm_s" + bits + "be";
      const std::string aiffEnc = bytes == 1 ? "-pcms8" : sndEnc;  // -pcmu8 makes AIFC "raw "
      for (const std::string& cmd :
           {"sox " + src + " " + t, "ffmpeg -v error -y -i " + src + " -c:a " + codec + " " + t,
            "sndfile-convert " + aiffEnc + " " + src + " " + t}) {
        SCOPED_TRACE(cmd);
        ASSERT_TRUE(vxtest::Shell(cmd));
        Aiff p;
        ASSERT_EQ(p.Open(dir / "theirs.aiff"), S_OK);
        const WAVEFORMATEX g = p.Format();
        EXPECT_EQ(std::tuple(g.nChannels, g.nSamplesPerSec, g.wBitsPerSample),
                  std::tuple(channels, 48000u, 8 * bytes));
        EXPECT_TRUE(p.ReadAll() == even);
      }
    }
  }
}
#endif

}  // namespace
