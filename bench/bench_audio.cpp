// Sound reads as a host makes them: ten minutes of 48 kHz 24-bit stereo, read whole through
// ReadSamples in one-second blocks into one host buffer, from the page cache. Timed in the same
// run: memcpy of the same bytes in the same blocks between two one-second buffers (which stay in
// the processor's caches), the same copies from a source as large as the file (which come from
// memory, as the page cache's do), and libsndfile's sf_readf_int on the same AIFF.
//
// Both files are written by hand here, so the bench depends on no writer of ours, and read once
// before anything is timed. The AIFF read goes through CVxAudioParserAIFF when the component has
// it; without it, the WAV read plus the in-place 24-bit swap of every block stands in for it,
// which is what the AIFF read does after its header.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "audio/wav/wav_parser.h"
#include "base/bytes.h"
#include "vx/com_ptr.h"
#include "vx/platform.h"

#ifdef VX_HAVE_SNDFILE
#include <sndfile.h>
#endif

#ifdef VX_BENCH_AIFF_PARSER
#include "audio/aiff/aiff_parser.h"
#endif

namespace {

constexpr std::uint32_t kRate = 48000, kChannels = 2, kWidth = 3;
constexpr std::uint32_t kAlign = kChannels * kWidth;
constexpr std::uint64_t kFrames = std::uint64_t{kRate} * 600;
constexpr std::uint64_t kDataBytes = kFrames * kAlign;  // 172,800,000
constexpr std::uint32_t kBlockFrames = kRate;           // one second
constexpr std::uint32_t kBlockBytes = kBlockFrames * kAlign;
constexpr std::uint64_t kBlocks = kFrames / kBlockFrames;

std::filesystem::path& Folder() {
  static std::filesystem::path dir;
  return dir;
}
std::filesystem::path WavPath() {
  return Folder() / "tone.wav";
}
std::filesystem::path AiffPath() {
  return Folder() / "tone.aiff";
}

// Sample `i` of the interleaved stream: every bit pattern shows up, so a swap that confuses
// bytes cannot pass the check below by luck.
std::int32_t SampleAt(std::uint64_t i) {
  const std::uint64_t v = (i + 1) * 0x9E3779B97F4A7C15ull;
  return static_cast<std::int32_t>(v >> 40) - (1 << 23);
}

// Writes `header` and the samples in `big` or little-endian 24-bit order.
bool WriteFile(const std::filesystem::path& path, const std::vector<std::uint8_t>& header,
               bool big) {
  const VxString name = vx::FromUtf8(path.string());
  vx::os::UniqueFile f(vx::os::Create(name.c_str()));
  std::uint32_t done = 0;
  if (!f ||
      !vx::os::WriteAt(f.get(), 0, header.data(), static_cast<std::uint32_t>(header.size()), &done))
    return false;
  std::vector<std::uint8_t> block(kBlockBytes);
  std::uint64_t at = header.size(), sample = 0;
  for (std::uint64_t b = 0; b < kBlocks; ++b) {
    for (std::uint32_t i = 0; i < kBlockBytes; i += 3, ++sample) {
      const auto v = static_cast<std::uint32_t>(SampleAt(sample));
      const std::uint8_t lo = v & 0xFF, mid = (v >> 8) & 0xFF, hi = (v >> 16) & 0xFF;
      block[i] = big ? hi : lo;
      block[i + 1] = mid;
      block[i + 2] = big ? lo : hi;
    }
    if (!vx::os::WriteAt(f.get(), at, block.data(), kBlockBytes, &done) || done != kBlockBytes)
      return false;
    at += kBlockBytes;
  }
  return true;
}

bool WriteWav() {
  std::vector<std::uint8_t> h(44);
  std::memcpy(&h[0], "RIFF", 4);
  vx::StoreLE32(&h[4], static_cast<std::uint32_t>(36 + kDataBytes));
  std::memcpy(&h[8], "WAVEfmt ", 8);
  vx::StoreLE32(&h[16], 16);
  vx::StoreLE16(&h[20], 1);
  vx::StoreLE16(&h[22], kChannels);
  vx::StoreLE32(&h[24], kRate);
  vx::StoreLE32(&h[28], kRate * kAlign);
  vx::StoreLE16(&h[32], kAlign);
  vx::StoreLE16(&h[34], kWidth * 8);
  std::memcpy(&h[36], "data", 4);
  vx::StoreLE32(&h[40], static_cast<std::uint32_t>(kDataBytes));
  return WriteFile(WavPath(), h, false);
}

// A plain AIFF: FORM, COMM (18 bytes), SSND with offset and block size 0.
bool WriteAiff() {
  std::vector<std::uint8_t> h(54);
  std::memcpy(&h[0], "FORM", 4);
  vx::StoreBE32(&h[4], static_cast<std::uint32_t>(46 + kDataBytes));
  std::memcpy(&h[8], "AIFFCOMM", 8);
  vx::StoreBE32(&h[16], 18);
  vx::StoreBE16(&h[20], kChannels);
  vx::StoreBE32(&h[22], static_cast<std::uint32_t>(kFrames));
  vx::StoreBE16(&h[26], kWidth * 8);
  // 48000 as an 80-bit extended: exponent 16383 + 15, mantissa 0xBB80 at the top.
  vx::StoreBE16(&h[28], 16383 + 15);
  vx::StoreBE64(&h[30], 0xBB80ull << 48);
  std::memcpy(&h[38], "SSND", 4);
  vx::StoreBE32(&h[42], static_cast<std::uint32_t>(8 + kDataBytes));
  return WriteFile(AiffPath(), h, true);
}

// Reads a file through once, so every timed pass finds it in the page cache.
void WarmUp(const std::filesystem::path& path) {
  const VxString name = vx::FromUtf8(path.string());
  vx::os::UniqueFile f(vx::os::OpenRead(name.c_str()));
  std::vector<std::uint8_t> block(1u << 20);
  std::uint32_t done = 0;
  for (std::uint64_t at = 0;
       f && vx::os::ReadAt(f.get(), at, block.data(), 1u << 20, &done) && done > 0; at += done) {
  }
}

template <class Parser>
vx::ComPtr<Parser> OpenParser(const std::filesystem::path& path) {
  auto p = vx::ComPtr<Parser>::Adopt(new Parser());
  p->AddRef();  // the object starts at zero references
  const VxString name = vx::FromUtf8(path.string());
  if (FAILED(p->Open(name.c_str(), VX_OPEN_NO_PATTERN))) return {};
  return p;
}

// One whole pass in one-second blocks; false when a block comes back short.
template <class Parser>
bool ReadAll(Parser* parser, std::uint8_t* buffer, bool swap) {
  VxSamplePosition pos{};
  for (std::uint64_t b = 0; b < kBlocks; ++b) {
    pos.sample = static_cast<std::int64_t>(b * kBlockFrames);
    LONG done = 0;
    if (parser->ReadSamples(&pos, kBlockFrames, buffer, &done) != S_OK ||
        done != static_cast<LONG>(kBlockFrames))
      return false;
    if (swap) vx::SwapInPlace(buffer, kBlockBytes / 3, 3);
    benchmark::DoNotOptimize(buffer);
    benchmark::ClobberMemory();
  }
  return true;
}

// The last block of every read path must hold the samples that were written.
bool LastBlockRight(const std::uint8_t* block) {
  const std::uint64_t first = (kBlocks - 1) * kBlockFrames * kChannels;
  for (std::uint32_t i = 0; i < kBlockFrames * kChannels; ++i) {
    const std::uint32_t v = block[3 * i] | block[3 * i + 1] << 8 | block[3 * i + 2] << 16;
    if (v != (static_cast<std::uint32_t>(SampleAt(first + i)) & 0xFFFFFF)) return false;
  }
  return true;
}

void SetBytes(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kDataBytes));
}

void BM_Memcpy(benchmark::State& state) {
  std::vector<std::uint8_t> src(kBlockBytes, 0x5A), dst(kBlockBytes);
  for (auto _ : state) {
    for (std::uint64_t b = 0; b < kBlocks; ++b) {
      std::memcpy(dst.data(), src.data(), kBlockBytes);
      benchmark::DoNotOptimize(dst.data());
      benchmark::ClobberMemory();
    }
  }
  SetBytes(state);
}

// For proportion: the same copies with the source walking the whole 173 MB in memory, as the
// file reads walk the page cache.
void BM_MemcpyStreaming(benchmark::State& state) {
  std::unique_ptr<std::uint8_t[]> src(new std::uint8_t[kDataBytes]);
  std::memset(src.get(), 0x5A, kDataBytes);
  std::vector<std::uint8_t> dst(kBlockBytes);
  for (auto _ : state) {
    for (std::uint64_t b = 0; b < kBlocks; ++b) {
      std::memcpy(dst.data(), src.get() + b * kBlockBytes, kBlockBytes);
      benchmark::DoNotOptimize(dst.data());
      benchmark::ClobberMemory();
    }
  }
  SetBytes(state);
}

void BM_ReadWav(benchmark::State& state) {
  auto parser = OpenParser<CVxAudioParserWAV>(WavPath());
  std::vector<std::uint8_t> buffer(kBlockBytes);
  if (!parser || !ReadAll(parser.get(), buffer.data(), false) || !LastBlockRight(buffer.data())) {
    state.SkipWithError("the WAV does not read back");
    return;
  }
  for (auto _ : state) ReadAll(parser.get(), buffer.data(), false);
  SetBytes(state);
}

void BM_ReadAiff(benchmark::State& state) {
  std::vector<std::uint8_t> buffer(kBlockBytes);
#ifdef VX_BENCH_AIFF_PARSER
  auto parser = OpenParser<CVxAudioParserAIFF>(AiffPath());
  const bool swap = false;
#else
  // Stand-in: the WAV's bytes, swapped in place per block as the AIFF read swaps them.
  auto parser = OpenParser<CVxAudioParserWAV>(WavPath());
  const bool swap = true;
  state.SetLabel("stand-in: WAV read + 24-bit swap");
#endif
  bool ok = parser && ReadAll(parser.get(), buffer.data(), swap);
  // The stand-in's swap turned the little-endian samples around; turning them back checks it.
  if (ok && swap) vx::SwapInPlace(buffer.data(), kBlockBytes / 3, 3);
  if (!ok || !LastBlockRight(buffer.data())) {
    state.SkipWithError("the AIFF does not read back");
    return;
  }
  for (auto _ : state) ReadAll(parser.get(), buffer.data(), swap);
  SetBytes(state);
}

#ifdef VX_HAVE_SNDFILE
void BM_SndfileReadInt(benchmark::State& state) {
  SF_INFO info{};
  SNDFILE* sf = sf_open(AiffPath().string().c_str(), SFM_READ, &info);
  if (!sf || info.frames != static_cast<sf_count_t>(kFrames)) {
    if (sf) sf_close(sf);
    state.SkipWithError("libsndfile cannot open the AIFF");
    return;
  }
  std::vector<int> buffer(std::size_t{kBlockFrames} * kChannels);
  for (auto _ : state) {
    sf_seek(sf, 0, SEEK_SET);
    for (std::uint64_t b = 0; b < kBlocks; ++b) {
      if (sf_readf_int(sf, buffer.data(), kBlockFrames) != kBlockFrames) {
        state.SkipWithError("short read");
        break;
      }
      benchmark::DoNotOptimize(buffer.data());
      benchmark::ClobberMemory();
    }
  }
  sf_close(sf);
  SetBytes(state);
}
#endif

BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MemcpyStreaming)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadWav)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadAiff)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef VX_HAVE_SNDFILE
BENCHMARK(BM_SndfileReadInt)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// The console report, then the goals: each case's median pass (its only pass without
// repetitions) as bytes per second and the ratios between cases of the same run, by wall-clock
// time and, as other work shares the machine, by the thread's processor time (kernel included).
class GoalReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.error_occurred || r.real_accumulated_time <= 0 || r.cpu_accumulated_time <= 0) continue;
      const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
      if (r.run_type == Run::RT_Aggregate && !median) continue;
      const auto n = static_cast<double>(r.iterations), bytes = static_cast<double>(kDataBytes);
      Entry& e = rates_[r.run_name.function_name];
      if (median || !e.median)
        e = {bytes * n / r.real_accumulated_time, bytes * n / r.cpu_accumulated_time, median};
    }
  }
  void Finalize() override {
    std::printf("\n%-20s %12s %12s\n", "", "wall GB/s", "cpu GB/s");
    for (const auto& [name, e] : rates_)
      std::printf("%-20s %12.3f %12.3f%s\n", name.c_str(), e.real / 1e9, e.cpu / 1e9,
                  e.median ? "  (median)" : "");
    // The machine's memcpy bandwidth for 173 MB is the streaming copy's: the file's bytes come
    // from memory, never from the processor's caches. The cached copy is shown beside it.
    Ratio("BM_ReadWav", "BM_MemcpyStreaming", "WAV read / streaming memcpy", 0.6);
    Ratio("BM_ReadAiff", "BM_SndfileReadInt", "AIFF read / sf_readf_int", 2.0);
    Ratio("BM_ReadWav", "BM_Memcpy", "WAV read / cached memcpy", 0);
  }

 private:
  struct Entry {
    double real = 0, cpu = 0;
    bool median = false;
  };
  void Ratio(const char* a, const char* b, const char* what, double goal) {
    const auto x = rates_.find(a), y = rates_.find(b);
    if (x == rates_.end() || y == rates_.end()) return;
    const double wall = x->second.real / y->second.real, cpu = x->second.cpu / y->second.cpu;
    std::printf("%-28s wall %5.2f  cpu %5.2f", what, wall, cpu);
    if (goal > 0) std::printf("  (goal >= %.2f: %s)", goal, wall >= goal ? "met" : "missed");
    std::printf("\n");
  }
  std::map<std::string, Entry> rates_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Folder() = std::filesystem::temp_directory_path() /
             ("vx_bench_audio." + std::to_string(vx::os::CurrentProcessId()));
  std::error_code ec;
  std::filesystem::create_directories(Folder(), ec);
  int rc = 0;
  if (ec || !WriteWav() || !WriteAiff()) {
    std::fprintf(stderr, "cannot write the sound files under %s\n", Folder().string().c_str());
    rc = 1;
  } else {
    WarmUp(WavPath());
    WarmUp(AiffPath());
    GoalReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
  }
  benchmark::Shutdown();
  std::filesystem::remove_all(Folder(), ec);
  return rc;
}
