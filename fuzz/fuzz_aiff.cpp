// Whole AIFF and AIFC files through CVxAudioParserAIFF as a host drives it: header walk, format,
// reads at several positions, metadata; and, for inputs that open, the samples written back as
// AIFC and read again. Odd first bytes take the input as the whole file; even ones put a
// plausible FORM, COMM and SSND in front of it (so most inputs get past the header) and take
// the rest as sample bytes and further chunks. Bad input must end in a status, never a crash.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "audio/aiff/aiff_parser.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/platform.h"
#include "fuzz_input.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::size_t kHead = 8;  // input bytes that describe the header

void PutBE(Bytes& b, std::uint32_t v, int bytes) {
  for (int s = 8 * (bytes - 1); s >= 0; s -= 8) b.push_back(static_cast<std::uint8_t>(v >> s));
}
void PutId(Bytes& b, const char* id) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(id[i]));
}

Bytes MakeFile(const std::uint8_t* in, std::size_t size) {
  static const char* const kTypes[] = {"NONE", "in24", "twos", "sowt", "fl32", "    "};
  static const std::uint8_t kRates[][2] = {{0x40, 0x0E}, {0x40, 0x0F}, {0x3F, 0xFF}, {0x7F, 0xFF},
                                           {0x00, 0x00}, {0x40, 0x1F}, {0xC0, 0x0E}, {0x40, 0x00}};
  const bool aifc = in[0] & 1;
  const std::uint16_t channels = in[1] % 9;
  const std::uint16_t sampleSize = in[2] % 40;
  const std::uint32_t offset = in[3] % 8;
  const std::uint32_t frames = in[4] < 240 ? in[4] * 4u : 0xFFFFFFF0u;
  Bytes comm, f;
  PutBE(comm, channels, 2);
  PutBE(comm, frames, 4);
  PutBE(comm, sampleSize, 2);
  comm.insert(comm.end(), kRates[in[5] % 8], kRates[in[5] % 8] + 2);
  comm.insert(comm.end(), {0xAC, 0x44, in[6], 0, 0, 0, 0, 0});
  if (aifc) {
    PutId(comm, kTypes[in[7] % 6]);
    comm.insert(comm.end(), {0, 0});
  }
  PutId(f, "FORM");
  PutBE(f, 0, 4);
  PutId(f, aifc ? "AIFC" : "AIFF");
  PutId(f, "COMM");
  PutBE(f, static_cast<std::uint32_t>(comm.size()), 4);
  f.insert(f.end(), comm.begin(), comm.end());
  // SSND holds half the rest, the other half follows as whatever chunks it makes.
  const std::size_t data = (size - kHead) / 2;
  PutId(f, "SSND");
  PutBE(f, static_cast<std::uint32_t>(8 + offset + data), 4);
  PutBE(f, offset, 4);
  PutBE(f, 0, 4);
  f.resize(f.size() + offset);
  f.insert(f.end(), in + kHead, in + size);
  const std::uint32_t form = in[7] & 0x80 ? static_cast<std::uint32_t>(f.size() - 8) : in[7] * 97u;
  for (int i = 0; i < 4; ++i) f[4 + i] = static_cast<std::uint8_t>(form >> (24 - 8 * i));
  return f;
}

// Reads some frames at a few positions; returns the first block read.
Bytes ReadSome(CVxAudioParserAIFF* p, const WAVEFORMATEX& format, LONG frames) {
  Bytes first;
  const std::int64_t n = frames;
  for (std::int64_t at : {std::int64_t{0}, n / 2, n - 1, n, n + 5}) {
    Bytes buffer(std::size_t{format.nBlockAlign} * 64);
    VxSamplePosition pos{at};
    LONG done = 0;
    if (FAILED(p->ReadSamples(&pos, 64, buffer.data(), &done))) done = 0;
    if (at == 0) first.assign(buffer.begin(), buffer.begin() + done * format.nBlockAlign);
  }
  return first;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kHead + 1) return 0;
  const bool raw = data[0] & 1;
  const Bytes file = raw ? Bytes(data + 1, data + size) : MakeFile(data + 1, size - 1);
  // One file per fuzzing process, rewritten for every input.
  static const VxString path = fuzz::ProcessFile("fuzz_aiff", ".aif"),
                        copy = fuzz::ProcessFile("fuzz_aiff", ".aifc");
  if (!fuzz::Store(path, file.data(), file.size())) return 0;
  auto parser = fuzz::NewParser<CVxAudioParserAIFF>();
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return 0;
  WAVEFORMATEX format{};
  int bytes = sizeof format;
  LONG range[2] = {};
  if (parser->GetFormat(reinterpret_cast<BYTE*>(&format), &bytes) != S_OK ||
      parser->GetLength(range) != S_OK)
    __builtin_trap();  // an opened file always has a format and a length
  const Bytes samples = ReadSome(parser.get(), format, range[1]);
  vx::ComPtr<IVxMetadata> md;
  if (FAILED(VxCreateMetadata(md.put()))) return 0;
  parser->GetMetadata(-1, md.get());
  parser->Close();

  // What was read, written back with the file's texts, must read back the same.
  auto writer = fuzz::NewParser<CVxAudioParserAIFF>();
  VxAudioStreamFormat record{kVxAudioStreamFormatSize, &format};
  const auto frames = static_cast<LONG>(samples.size() / format.nBlockAlign);
  if (FAILED(writer->Open(copy.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN)) ||
      FAILED(writer->SetStreamFormat(VX_STREAM_SOUND, 1, &record)) ||
      FAILED(writer->SetOption(md.get(), VX_OPTION_METADATA)) ||
      FAILED(writer->WriteSamples(samples.data(), frames)) || FAILED(writer->Close()))
    __builtin_trap();
  auto again = fuzz::NewParser<CVxAudioParserAIFF>();
  if (FAILED(again->Open(copy.c_str(), VX_OPEN_NO_PATTERN))) __builtin_trap();
  if (ReadSome(again.get(), format, frames) != samples) __builtin_trap();
  return 0;
}
