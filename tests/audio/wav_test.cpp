// WAV, BWF and RF64 headers laid out byte by byte, the file the writer leaves, and the "VXMD"
// chunk across a rewrite.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>

#include "audio/wav/wav_parser.h"
#include "audio_test_util.h"
#include "base/bytes.h"
#include "vx/com_ptr.h"

namespace {

using vxtest::Bytes;
using vxtest::Held;
using vxtest::Put;
using Wav = Held<CVxAudioParserWAV>;

Bytes Fmt16(std::uint16_t tag, std::uint16_t channels, std::uint16_t align, std::uint16_t bits) {
  Bytes b;
  Put{b}.u16(tag).u16(channels).u32(48000).u32(48000 * align).u16(align).u16(bits);
  return b;
}

// "RIFF" <size> "WAVE" and the chunks.
Bytes Riff(const Bytes& chunks, const char* outer = "RIFF") {
  Bytes b;
  Put{b}.text(outer).u32(chunks.size() + 4).text("WAVE").raw(chunks);
  return b;
}

Bytes Bext(std::uint32_t size, std::uint64_t timeReference) {
  Bytes b(size, 0);
  const std::string description = "Scene 12 take 3";
  std::copy(description.begin(), description.end(), b.begin());
  std::copy_n("2026-11-25", 10, b.begin() + 320);
  std::copy_n("10:00:00", 8, b.begin() + 330);
  for (int i = 0; i < 8; ++i) b[338 + i] = static_cast<std::uint8_t>(timeReference >> (8 * i));
  b[346] = 1;  // version
  return b;
}

struct HeaderCase {
  const char* name;
  Bytes file;
  HRESULT open;
  std::uint16_t bits = 0, align = 0;
  std::int64_t frames = 0;
  Bytes firstFrame = {};  // as the host gets it
  bool bext = false;
};

std::vector<HeaderCase> HeaderCases() {
  Bytes c;
  const Bytes pcm4{1, 2, 3, 4, 5, 6, 7, 8};
  std::vector<HeaderCase> v;
  // The stored width (99) is not read for PCM: the block align decides.
  c.clear();
  Put{c}.chunk("fmt ", Fmt16(1, 2, 4, 99)).chunk("data", pcm4);
  v.push_back({"pcm16-from-block-align", Riff(c), S_OK, 16, 4, 2, {1, 2, 3, 4}});
  // 8-bit data is unsigned and reaches the host untouched; odd data is padded, and the chunk
  // after the pad is still found.
  c.clear();
  Put{c}
      .chunk("fmt ", Fmt16(1, 1, 1, 8))
      .chunk("data", {0x80, 0x00, 0xFF})
      .chunk("bext", Bext(602, 7));
  v.push_back({"u8-odd-data-then-bext", Riff(c), S_OK, 8, 1, 3, {0x80}, true});
  c.clear();
  Put{c}.chunk("bext", Bext(601, 7)).chunk("fmt ", Fmt16(1, 1, 2, 16)).chunk("data", pcm4);
  v.push_back({"bext-601-is-no-record", Riff(c), S_OK, 16, 2, 4, {1, 2}, false});
  c.clear();
  Put{c}.chunk("bext", Bext(700, 172800000)).chunk("fmt ", Fmt16(1, 1, 3, 24)).chunk("data", pcm4);
  v.push_back({"bext-before-fmt", Riff(c), S_OK, 24, 3, 2, {1, 2, 3}, true});
  // RF64: the sizes come from "ds64"; the data chunk's own size is a placeholder.
  c.clear();
  Put{c}.text("ds64").u32(28).u64(0).u64(6).u64(3).u32(0);
  Put{c}.chunk("fmt ", Fmt16(1, 1, 2, 16)).text("data").u32(0xFFFFFFFF).raw(pcm4);
  v.push_back({"rf64", Riff(c, "RF64"), S_OK, 16, 2, 3, {1, 2}});
  c.clear();
  Put{c}.text("ds64").u32(20).u64(0).u64(6).u32(0);
  Put{c}.chunk("fmt ", Fmt16(1, 1, 2, 16)).chunk("data", pcm4);
  v.push_back({"rf64-ds64-of-20", Riff(c, "RF64"), E_FAIL});
  // Refused or malformed headers.
  v.push_back({"truncated", Bytes{'R', 'I', 'F', 'F', 0, 0}, E_FAIL});
  c.clear();
  Put{c}.chunk("fmt ", Fmt16(1, 1, 2, 16));
  v.push_back({"no-data", Riff(c), E_FAIL});
  c.clear();
  Put{c}.chunk("data", pcm4).chunk("fmt ", Fmt16(1, 1, 2, 16));
  v.push_back({"data-before-fmt", Riff(c), E_FAIL});
  c.clear();
  Put{c}.text("fmt ").u32(400).raw(Fmt16(1, 1, 2, 16));
  v.push_back({"fmt-past-the-end", Riff(c), E_FAIL});
  c.clear();
  const Bytes fmt16 = Fmt16(1, 1, 2, 16);
  Put{c}.chunk("fmt ", Bytes(fmt16.begin(), fmt16.end() - 3)).chunk("data", pcm4);
  v.push_back({"fmt-of-13", Riff(c), E_FAIL});
  c.clear();
  Put{c}.chunk("fmt ", Fmt16(1, 0, 2, 16)).chunk("data", pcm4);
  v.push_back({"zero-channels", Riff(c), E_FAIL});
  c.clear();
  Put{c}.chunk("fmt ", Fmt16(1, 1, 0, 16)).chunk("data", pcm4);
  v.push_back({"zero-block-align", Riff(c), E_FAIL});
  c.clear();
  Put{c}.chunk("fmt ", Fmt16(1, 1, 5, 40)).chunk("data", pcm4);
  v.push_back({"five-byte-samples", Riff(c), E_NOTIMPL});
  c.clear();
  Put{c}.chunk("fmt ", Fmt16(103, 1, 2, 16)).chunk("data", pcm4);
  v.push_back({"tag-103", Riff(c), E_NOTIMPL});
  Bytes notWave = Riff(c);
  std::copy_n("AVI ", 4, notWave.begin() + 8);
  v.push_back({"not-wave", notWave, E_FAIL});
  return v;
}

TEST(WavHeader, ReadsWhatTheBytesSay) {
  vxtest::TempDir dir;
  for (const HeaderCase& t : HeaderCases()) {
    SCOPED_TRACE(t.name);
    const auto file = dir / (std::string(t.name) + ".wav");
    vxtest::WriteFile(file, t.file);
    Wav w;
    ASSERT_EQ(w.Open(file), t.open);
    if (FAILED(t.open)) {
      EXPECT_EQ(w->Close(), S_FALSE) << "a failed open leaves the parser closed";
      continue;
    }
    const WAVEFORMATEX f = w.Format();
    EXPECT_EQ(f.wBitsPerSample, t.bits);
    EXPECT_EQ(f.nBlockAlign, t.align);
    LONG range[2];
    ASSERT_EQ(w->GetLength(range), S_OK);
    EXPECT_EQ(range[1], t.frames);
    EXPECT_EQ(w.Read(0, 1), t.firstFrame);
    EXPECT_EQ(w->BroadcastWave() != nullptr, t.bext);
  }
}

TEST(WavHeader, BroadcastWaveReachesTheRecord) {
  vxtest::TempDir dir;
  Bytes c;
  Put{c}
      .chunk("fmt ", Fmt16(1, 1, 2, 16))
      .chunk("bext", Bext(640, 172800000))
      .chunk("data", {0, 0});
  vxtest::WriteFile(dir / "a.wav", Riff(c));
  Wav w;
  ASSERT_EQ(w.Open(dir / "a.wav"), S_OK);
  vx::ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  ASSERT_EQ(w->GetMetadata(-1, md.get()), S_OK);
  const VxMetadataRecord r = vx::md::GetRecord(md.get());
  EXPECT_TRUE(r.present & VX_MD_TIMEREFERENCE);
  EXPECT_EQ(r.timeReference, 172800000u);  // 01:00:00 at 48 kHz
  EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kDescription), "Scene 12 take 3");
  EXPECT_EQ(vx::md::GetText(md.get(), vx::md::kDate), "2026-11-25T10:00:00");
}

TEST(WavRead, PositionsCountsAndTheEnd) {
  vxtest::TempDir dir;
  Bytes data;
  for (int i = 0; i < 10 * 6; ++i) data.push_back(static_cast<std::uint8_t>(i));
  Bytes c;
  Put{c}.chunk("fmt ", Fmt16(1, 2, 6, 24)).chunk("data", data);
  vxtest::WriteFile(dir / "a.wav", Riff(c));
  Wav w;
  ASSERT_EQ(w.Open(dir / "a.wav"), S_OK);
  LONG done = 0;
  HRESULT hr = E_FAIL;
  EXPECT_EQ(w.Read(3, 2, &done, &hr), Bytes(data.begin() + 18, data.begin() + 30));
  EXPECT_EQ(hr, S_OK);
  // A read that runs past the end delivers what there is and says so.
  EXPECT_EQ(w.Read(8, 5, &done, &hr), Bytes(data.begin() + 48, data.end()));
  EXPECT_EQ(done, 2);
  EXPECT_EQ(hr, S_FALSE);
  EXPECT_TRUE(w.Read(10, 1, &done, &hr).empty());
  EXPECT_EQ(hr, S_FALSE);
  VxSamplePosition before{-1};
  EXPECT_EQ(w->ReadSamples(&before, 1, data.data(), &done), E_INVALIDARG);
}

std::uint32_t Le32At(const Bytes& b, std::size_t at) {
  return vx::LoadLE32(&b[at]);
}
std::uint64_t Le64At(const Bytes& b, std::size_t at) {
  return vx::LoadLE64(&b[at]);
}

TEST(WavWrite, SizesPaddingAndTheBlobAcrossARewrite) {
  vxtest::TempDir dir;
  const auto file = dir / "out.wav";
  // 453 mono 16-bit frames: header of 94 bytes + 906 data bytes = a file of 1000 bytes.
  Bytes samples(906);
  for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<std::uint8_t>(i * 7);
  vx::ComPtr<IVxMetadata> md;
  ASSERT_EQ(VxCreateMetadata(md.put()), S_OK);
  vx::md::SetText(md.get(), vx::audio::kVxmdKey, "AQID");  // bytes 1 2 3
  ASSERT_EQ(vxtest::WriteThrough<CVxAudioParserWAV>(file, vxtest::WaveFormat(1, 1, 48000, 2, 16),
                                                    samples),
            S_OK);
  Bytes b = vxtest::ReadFile(file);
  ASSERT_EQ(b.size(), 1000u);
  EXPECT_EQ(std::string(b.begin(), b.begin() + 4), "RIFF");
  EXPECT_EQ(Le32At(b, 4), 1000u);   // the whole length, deliberately not length - 8
  EXPECT_EQ(Le64At(b, 20), 1000u);  // ds64: file, data, frames
  EXPECT_EQ(Le64At(b, 28), 906u);
  EXPECT_EQ(Le64At(b, 36), 453u);
  EXPECT_EQ(std::string(b.begin() + 48, b.begin() + 52), "JUNK");
  EXPECT_EQ(std::string(b.begin() + 60, b.begin() + 64), "fmt ");
  EXPECT_EQ(Le32At(b, 90), 906u);
  EXPECT_EQ(Bytes(b.begin() + 94, b.end()), samples);

  // Odd data gets its pad byte, then the blob; a rewrite without a record keeps the blob.
  ASSERT_EQ(vxtest::WriteThrough<CVxAudioParserWAV>(file, vxtest::WaveFormat(1, 1, 8000, 1, 8),
                                                    Bytes{1, 2, 3}, md.get()),
            S_OK);
  ASSERT_EQ(vxtest::WriteThrough<CVxAudioParserWAV>(file, vxtest::WaveFormat(1, 1, 8000, 1, 8),
                                                    Bytes{9, 8, 7, 6, 5}),
            S_OK);
  b = vxtest::ReadFile(file);
  ASSERT_EQ(b.size(), 94u + 5 + 1 + 8 + 3 + 1);
  EXPECT_EQ(b[99], 0) << "pad byte";
  EXPECT_EQ(std::string(b.begin() + 100, b.begin() + 104), "VXMD");
  EXPECT_EQ(Bytes(b.begin() + 108, b.begin() + 111), (Bytes{1, 2, 3}));
  Wav w;
  ASSERT_EQ(w.Open(file), S_OK);
  EXPECT_EQ(w.ReadAll(), (Bytes{9, 8, 7, 6, 5}));
  vx::ComPtr<IVxMetadata> back;
  ASSERT_EQ(VxCreateMetadata(back.put()), S_OK);
  ASSERT_EQ(w->GetMetadata(-1, back.get()), S_OK);
  EXPECT_EQ(vx::md::GetText(back.get(), vx::audio::kVxmdKey), "AQID");
  EXPECT_EQ(std::filesystem::directory_iterator(dir.path())->path(), file) << "no temporary left";
}

// More than 4 GiB of samples through the writer: "RF64", 0xFFFFFFFF at offset 4, 64-bit sizes
// at offset 20, and the last frames read back exactly.
TEST(WavRf64, BeyondFourGiB) {
  if (!std::getenv("VX_SLOW_TESTS")) GTEST_SKIP() << "slow: run by the 'slow' ctest label";
  vxtest::TempDir dir;
  const auto file = dir / "big.wav";
  const std::uint64_t frames = (std::uint64_t{1} << 30) + 12345;  // 16-bit stereo: 4 GiB + 49 KB
  std::vector<std::uint8_t> block(4 * 48000);
  const auto put = [&](std::uint64_t frame) {
    for (std::size_t i = 0; i < block.size(); i += 4) {
      const std::uint64_t n = frame + i / 4;
      vx::StoreLE32(&block[i], static_cast<std::uint32_t>(n * 2654435761u));
    }
  };
  {
    Held<CVxAudioParserWAV> w;
    ASSERT_EQ(w.Open(file, VX_OPEN_WRITE | VX_OPEN_NO_PATTERN), S_OK);
    Bytes f = vxtest::WaveFormat(1, 2, 48000, 4, 16);
    VxAudioStreamFormat r{kVxAudioStreamFormatSize, reinterpret_cast<WAVEFORMATEX*>(f.data())};
    ASSERT_EQ(w->SetStreamFormat(VX_STREAM_SOUND, 1, &r), S_OK);
    for (std::uint64_t at = 0; at < frames; at += 48000) {
      put(at);
      const auto n = static_cast<LONG>(std::min<std::uint64_t>(48000, frames - at));
      ASSERT_EQ(w->WriteSamples(block.data(), n), S_OK) << at;
    }
    ASSERT_EQ(w->Close(), S_OK);
  }
  std::ifstream in(file, std::ios::binary);
  Bytes head(60);
  in.read(reinterpret_cast<char*>(head.data()), 60);
  EXPECT_EQ(std::string(head.begin(), head.begin() + 4), "RF64");
  EXPECT_EQ(Le32At(head, 4), 0xFFFFFFFFu);
  EXPECT_EQ(Le64At(head, 20), 94 + frames * 4);
  EXPECT_EQ(Le64At(head, 28), frames * 4);
  EXPECT_EQ(Le64At(head, 36), frames);
  Wav w;
  ASSERT_EQ(w.Open(file), S_OK);
  const std::uint64_t last = frames - 100;
  const Bytes got = w.Read(static_cast<std::int64_t>(last), 100);
  ASSERT_EQ(got.size(), 400u);
  for (std::size_t i = 0; i < 100; ++i)
    EXPECT_EQ(vx::LoadLE32(&got[i * 4]), static_cast<std::uint32_t>((last + i) * 2654435761u));
}

}  // namespace
