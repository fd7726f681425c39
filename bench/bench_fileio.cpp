// Throughput of cached chunk-file reads against plain memcpy of the same sizes.
//
// The 1 GiB file (created once under the temp dir) is read once before timing so it sits in
// the OS page cache; it is far larger than the 16 MiB block pool, so every cached sequential
// read misses and pays the kernel copy into the block plus the copy out of it. The random 4 KiB
// reads stay within 16 MiB, which the pool holds whole after the first pass.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <vector>

#include "fileio/chunk_file.h"
#include "vx/platform.h"

namespace {

using vx::fileio::CChunkFile;

constexpr std::uint64_t kFileSize = 1ull << 30;
constexpr std::uint32_t kLarge = 1u << 20;
constexpr std::uint32_t kSmall = 4096;
constexpr std::uint64_t kWorkingSet = 16ull << 20;

VxString BenchFile() {
  static const VxString path =
      vx::FromUtf8((std::filesystem::temp_directory_path() / "vx_bench_fileio_1g.bin").string());
  return path;
}

// Creates the file when missing or short, then reads it through once so it is in memory.
bool PrepareFile() {
  static const bool ok = [] {
    const VxString path = BenchFile();
    std::vector<std::uint8_t> chunk(kLarge);
    vx::os::FileHandle h = vx::os::OpenRead(path.c_str());
    std::uint64_t size = 0;
    if (h != vx::os::kNoFile) vx::os::Size(h, &size);
    if (size < kFileSize) {
      if (h != vx::os::kNoFile) vx::os::Close(h);
      h = vx::os::Create(path.c_str());
      if (h == vx::os::kNoFile) return false;
      for (std::uint64_t at = 0; at < kFileSize; at += kLarge) {
        for (std::uint32_t i = 0; i < kLarge; i += 8) {
          std::uint64_t v = (at + i) * 0x9E3779B97F4A7C15ull;
          std::memcpy(chunk.data() + i, &v, 8);
        }
        std::uint32_t done = 0;
        if (!vx::os::WriteAt(h, at, chunk.data(), kLarge, &done) || done != kLarge) {
          vx::os::Close(h);
          return false;
        }
      }
    }
    for (std::uint64_t at = 0; at < kFileSize; at += kLarge) {
      std::uint32_t done = 0;
      vx::os::ReadAt(h, at, chunk.data(), kLarge, &done);
    }
    vx::os::Close(h);
    return true;
  }();
  return ok;
}

std::unique_ptr<CChunkFile> OpenBenchFile(bool cached) {
  vx::os::FileHandle h = vx::os::OpenRead(BenchFile().c_str());
  if (h == vx::os::kNoFile) return nullptr;
  return std::make_unique<CChunkFile>(h, cached ? TRUE : FALSE);
}

void SequentialRead(benchmark::State& state, bool cached) {
  if (!PrepareFile()) {
    state.SkipWithError("cannot create the 1 GiB file");
    return;
  }
  auto f = OpenBenchFile(cached);
  if (!f) {
    state.SkipWithError("cannot open the 1 GiB file");
    return;
  }
  std::vector<std::uint8_t> buf(kLarge);
  for (auto _ : state) {
    std::uint32_t done = 0;
    f->Read(buf.data(), kLarge, &done);
    if (done != kLarge) {
      state.SkipWithError("short read");
      break;
    }
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
    f->position = (f->position + kLarge) % kFileSize;
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kLarge);
}

void BM_CachedSequentialRead1MiB(benchmark::State& state) {
  SequentialRead(state, true);
}
void BM_DirectSequentialRead1MiB(benchmark::State& state) {
  SequentialRead(state, false);
}

void BM_CachedRandomRead4KiB(benchmark::State& state) {
  if (!PrepareFile()) {
    state.SkipWithError("cannot create the 1 GiB file");
    return;
  }
  auto f = OpenBenchFile(true);
  if (!f) {
    state.SkipWithError("cannot open the 1 GiB file");
    return;
  }
  std::vector<std::uint8_t> buf(kSmall);
  std::mt19937_64 rng(7);
  // One pass fills the pool with the working set; the timed reads then hit.
  for (std::uint64_t at = 0; at < kWorkingSet; at += kLarge) {
    std::vector<std::uint8_t> big(kLarge);
    std::uint32_t done = 0;
    f->position = at;
    f->Read(big.data(), kLarge, &done);
  }
  for (auto _ : state) {
    f->position = rng() % (kWorkingSet - kSmall);
    std::uint32_t done = 0;
    f->Read(buf.data(), kSmall, &done);
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kSmall);
}

// The same copy sizes with no file in the way. The streaming variant walks a 1 GiB source as
// the sequential read walks the file, so both pull their bytes from main memory.
void BM_MemcpyStreaming1MiB(benchmark::State& state) {
  std::unique_ptr<std::uint8_t[]> src(new std::uint8_t[kFileSize]);
  for (std::uint64_t i = 0; i < kFileSize; i += 4096) src[i] = static_cast<std::uint8_t>(i >> 12);
  std::vector<std::uint8_t> dst(kLarge);
  std::uint64_t at = 0;
  for (auto _ : state) {
    std::memcpy(dst.data(), src.get() + at, kLarge);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
    at = (at + kLarge) % kFileSize;
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kLarge);
}

void BM_MemcpyHot1MiB(benchmark::State& state) {
  std::vector<std::uint8_t> src(kLarge, 1), dst(kLarge);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), kLarge);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kLarge);
}

void BM_MemcpyRandom4KiB(benchmark::State& state) {
  std::vector<std::uint8_t> src(kWorkingSet, 1), dst(kSmall);
  std::mt19937_64 rng(7);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data() + rng() % (kWorkingSet - kSmall), kSmall);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kSmall);
}

BENCHMARK(BM_CachedSequentialRead1MiB)->MinTime(2.0);
BENCHMARK(BM_DirectSequentialRead1MiB)->MinTime(2.0);
BENCHMARK(BM_MemcpyStreaming1MiB)->MinTime(2.0);
BENCHMARK(BM_MemcpyHot1MiB);
BENCHMARK(BM_CachedRandomRead4KiB);
BENCHMARK(BM_MemcpyRandom4KiB);

}  // namespace

BENCHMARK_MAIN();
