// Whole WAV, BWF and RF64 files through CVxAudioParserWAV as a host drives it: open, format,
// metadata, sample reads at the start, the middle, the end and past it, close. The input is the
// file itself. Bad input must end in a status, never a crash or a read out of bounds.
//
// Seeds: run with an empty (or missing) corpus folder as the first argument and the target
// writes a few small files there first: PCM, 8-bit, extensible float, RF64, BWF with a coding
// history and a "VXMD" chunk after odd-sized data, A-law with "fact".
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "audio/wav/wav_parser.h"
#include "base/bytes.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/platform.h"
#include "fuzz_input.h"
#include "fuzz_seeds.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void Put16(Bytes& b, std::uint16_t v) {
  b.resize(b.size() + 2);
  vx::StoreLE16(&b[b.size() - 2], v);
}
void Put32(Bytes& b, std::uint32_t v) {
  b.resize(b.size() + 4);
  vx::StoreLE32(&b[b.size() - 4], v);
}
void Put64(Bytes& b, std::uint64_t v) {
  b.resize(b.size() + 8);
  vx::StoreLE64(&b[b.size() - 8], v);
}

// A chunk with its pad byte; `size` overrides the stored size (RF64's 0xFFFFFFFF).
void Chunk(Bytes& b, const char* id, const Bytes& body, std::uint32_t size = 0) {
  b.insert(b.end(), id, id + 4);
  Put32(b, size ? size : static_cast<std::uint32_t>(body.size()));
  b.insert(b.end(), body.begin(), body.end());
  if (body.size() & 1) b.push_back(0);
}

Bytes Fmt(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t align,
          std::uint16_t bits, const Bytes& extra = {}) {
  Bytes f;
  Put16(f, tag);
  Put16(f, channels);
  Put32(f, rate);
  Put32(f, rate * align);
  Put16(f, align);
  Put16(f, bits);
  if (tag != 1) {
    Put16(f, static_cast<std::uint16_t>(extra.size()));
    f.insert(f.end(), extra.begin(), extra.end());
  }
  return f;
}

Bytes Ramp(std::size_t n) {
  Bytes d(n);
  for (std::size_t i = 0; i < n; ++i) d[i] = static_cast<std::uint8_t>(i * 37 + 11);
  return d;
}

Bytes Riff(const Bytes& chunks, const char* outer = "RIFF") {
  Bytes b(outer, outer + 4);
  Put32(b, std::string_view(outer) == "RF64" ? 0xFFFFFFFFu
                                             : static_cast<std::uint32_t>(chunks.size() + 4));
  b.insert(b.end(), {'W', 'A', 'V', 'E'});
  b.insert(b.end(), chunks.begin(), chunks.end());
  return b;
}

std::vector<Bytes> Seeds() {
  std::vector<Bytes> seeds;
  {  // 16-bit stereo
    Bytes c;
    Chunk(c, "fmt ", Fmt(1, 2, 48000, 4, 16));
    Chunk(c, "data", Ramp(32));
    seeds.push_back(Riff(c));
  }
  {  // 8-bit mono, odd data
    Bytes c;
    Chunk(c, "fmt ", Fmt(1, 1, 8000, 1, 8));
    Chunk(c, "data", Ramp(7));
    seeds.push_back(Riff(c));
  }
  {  // extensible 32-bit float, 3 channels with a mask
    Bytes x;
    Put16(x, 32);
    Put32(x, 0x7);
    Put16(x, 3);  // IEEE float subtype
    const std::uint8_t tail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                   0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    x.insert(x.end(), tail, tail + 14);
    Bytes c;
    Chunk(c, "fmt ", Fmt(0xFFFE, 3, 44100, 12, 32, x));
    Chunk(c, "data", Ramp(48));
    seeds.push_back(Riff(c));
  }
  {  // RF64 24-bit stereo, sizes in ds64
    Bytes ds;
    Put64(ds, 0);
    Put64(ds, 36);
    Put64(ds, 6);
    Put32(ds, 0);
    Bytes c;
    Chunk(c, "ds64", ds);
    Chunk(c, "fmt ", Fmt(1, 2, 96000, 6, 24));
    Chunk(c, "data", Ramp(36), 0xFFFFFFFFu);
    seeds.push_back(Riff(c, "RF64"));
  }
  {  // BWF version 2, 24-bit mono with odd data, "VXMD" after the samples
    Bytes bext(602, 0);
    std::memcpy(&bext[0], "Scene 4 take 2", 14);
    std::memcpy(&bext[256], "Recorder", 8);
    std::memcpy(&bext[320], "2026-01-02", 10);
    std::memcpy(&bext[330], "12:34:56", 8);
    vx::StoreLE64(&bext[338], 48000ull * 3600);
    vx::StoreLE16(&bext[346], 2);
    vx::StoreLE16(&bext[412], 0xFFE8);
    const char history[] = "A=PCM,F=48000,W=24,M=mono\r\n";
    bext.insert(bext.end(), history, history + sizeof history - 1);
    Bytes c;
    Chunk(c, "bext", bext);
    Chunk(c, "fmt ", Fmt(1, 1, 48000, 3, 24));
    Chunk(c, "data", Ramp(9));
    Chunk(c, "VXMD", Bytes{'{', '"', 'a', '"', ':', '1', '}'});
    seeds.push_back(Riff(c));
  }
  {  // A-law with a "fact" count
    Bytes fact;
    Put32(fact, 10);
    Bytes c;
    Chunk(c, "fmt ", Fmt(6, 1, 8000, 1, 8));
    Chunk(c, "fact", fact);
    Chunk(c, "data", Ramp(10));
    seeds.push_back(Riff(c));
  }
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), ".wav");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const VxString path = fuzz::ProcessFile("fuzz_wav", ".wav");
  if (!fuzz::Store(path, data, size)) return 0;
  auto parser = fuzz::NewParser<CVxAudioParserWAV>();
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return 0;

  std::uint8_t format[64] = {};
  VxAudioStreamFormat record{kVxAudioStreamFormatSize, reinterpret_cast<WAVEFORMATEX*>(format)};
  parser->GetStreamFormat(VX_STREAM_SOUND, 0, &record);
  int formatSize = sizeof format;
  if (FAILED(parser->GetFormat(format, &formatSize))) return 0;
  const std::uint32_t align = vx::LoadLE16(format + 12);
  LONG range[2] = {};
  parser->GetLength(range);
  CVxTime start, end;
  parser->GetTimeRange(VX_STREAM_SOUND, &start, &end);
  VxChar name[32];
  parser->GetCompressionName(name, 32);
  vx::ComPtr<IVxMetadata> md;
  if (SUCCEEDED(VxCreateMetadata(md.put()))) parser->GetMetadata(-1, md.get());

  // Reads into buffers of exactly the size asked for, so a write past them is caught.
  const std::int64_t frames = static_cast<std::int64_t>(parser->FrameCount());
  const auto most = static_cast<LONG>(std::max<std::uint32_t>(1, (1u << 20) / std::max(1u, align)));
  const struct {
    std::int64_t at;
    LONG count;
  } reads[] = {{0, 1},
               {0, std::min<LONG>(most, 4096)},
               {frames / 2, 7},
               {frames > 0 ? frames - 1 : 0, 3},
               {frames, 1},
               {frames + 1000, 5},
               {INT64_C(0x7FFFFFFF00000000), 1}};
  for (const auto& r : reads) {
    std::vector<std::uint8_t> buffer(std::size_t{align} * static_cast<std::size_t>(r.count));
    VxSamplePosition pos{r.at};
    LONG done = 0;
    parser->ReadSamples(&pos, r.count, buffer.data(), &done);
    if (done < 0 || done > r.count) __builtin_trap();
  }
  // Now and then the host lets go of an open parser without closing it.
  if (size % 3 != 0) parser->Close();
  return 0;
}
