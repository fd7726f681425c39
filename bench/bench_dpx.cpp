// Decoding a 4K 10-bit DPX frame through the parser, as a host does for each frame of a sequence:
// the file is in the page cache and the host image is reused.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <ctime>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_parser.h"
#include "base/worker_pool.h"
#include "still/dpx/dpx_unpack.h"

namespace {

constexpr std::uint32_t kWidth = 4096;
constexpr std::uint32_t kHeight = 2160;
constexpr std::uint64_t kDataBytes = std::uint64_t{kWidth} * kHeight * 4;  // one word a pixel

// 10-bit RGB, method A, big-endian, made once in /tmp.
std::filesystem::path TestFile() {
  const std::filesystem::path p = std::filesystem::temp_directory_path() / "vx_bench_4k_10bit.dpx";
  std::error_code ec;
  if (std::filesystem::file_size(p, ec) == vx::dpx::kHeaderSize + kDataBytes) return p;
  using namespace vx;
  using namespace vx::dpx;
  std::vector<std::uint8_t> h(kHeaderSize, 0);
  std::memcpy(h.data(), kMagicBig, 4);
  Store32(&h[kOffImageOffset], kHeaderSize, true);
  std::memcpy(&h[kOffVersion], kVersion, 8);
  Store32(&h[kOffFileSize], static_cast<std::uint32_t>(kHeaderSize + kDataBytes), true);
  Store16(&h[kOffElementCount], 1, true);
  Store32(&h[kOffPixelsPerLine], kWidth, true);
  Store32(&h[kOffLinesPerElement], kHeight, true);
  std::uint8_t* e = &h[ElementOffset(0)];
  e[kElDescriptor] = kDescRGB;
  e[kElTransfer] = kTransferPrintingDensity;
  e[kElBitSize] = 10;
  Store16(e + kElPacking, kPackFillA, true);
  Store32(e + kElDataOffset, kHeaderSize, true);
  std::memset(&h[kOffTv], 0xFF, kTvHeaderSize);
  StoreFloat(&h[kOffTvFrameRate], 24.0f, true);
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(h.data()), static_cast<std::streamsize>(h.size()));
  std::mt19937 rng(7);
  std::vector<std::uint32_t> line(kWidth);
  for (std::uint32_t y = 0; y < kHeight; ++y) {
    for (auto& w : line) w = rng() & 0xFFFFFFFCu;
    out.write(reinterpret_cast<const char*>(line.data()),
              static_cast<std::streamsize>(line.size() * 4));
  }
  return p;
}

void ReadFrame(benchmark::State& state, VxPixelFormat format) {
  const auto path = TestFile();
  auto* parser = new CVxDPXFileParser(1);
  parser->AddRef();
  const VxString name = vx::FromUtf8(path.string());
  parser->Open(name.c_str(), VX_OPEN_NO_PATTERN);
  IVxImage* image = nullptr;
  VxCreateImage(static_cast<int>(kWidth), static_cast<int>(kHeight), format, &image);
  if (parser->ReadImage(&image, 0) != S_OK) state.SkipWithError("read failed");  // warm-up
  // CPU of every thread of the process: on a busy machine the wall time says little.
  const std::clock_t cpu0 = std::clock();
  for (auto _ : state) {
    benchmark::DoNotOptimize(parser->ReadImage(&image, 0));
    benchmark::ClobberMemory();
  }
  const double cpuMs = 1000.0 * static_cast<double>(std::clock() - cpu0) / CLOCKS_PER_SEC;
  state.counters["all_threads_cpu_ms/frame"] = cpuMs / static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kDataBytes));
  state.counters["frames/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  image->Release();
  parser->Release();
}

void BM_Dpx4k10BitToRGBA16(benchmark::State& state) {
  ReadFrame(state, VX_PF_RGBA16);
}
void BM_Dpx4k10BitToRGBAF32(benchmark::State& state) {
  ReadFrame(state, VX_PF_RGBAF32);
}
void BM_Dpx4k10BitToRGB16(benchmark::State& state) {
  ReadFrame(state, VX_PF_RGB16);
}

// The unpacking alone, from memory, on one thread and on two.
void BM_Unpack4k10BitToRGBA16(benchmark::State& state) {
  std::vector<std::uint8_t> data(kDataBytes);
  std::mt19937 rng(3);
  for (auto& b : data) b = static_cast<std::uint8_t>(rng());
  std::vector<std::uint16_t> pixels(std::size_t{kWidth} * kHeight * 4);
  vx::dpx::DpxElementJob job;
  job.data = data.data();
  job.size = data.size();
  job.rowStride = kWidth * 4;
  job.layout = {10, vx::dpx::kPackFillA, 3, true};
  vx::dpx::DpxTarget target{
      reinterpret_cast<std::uint8_t*>(pixels.data()), kWidth * 8, kWidth, kHeight, 4, false};
  const int threads = static_cast<int>(state.range(0));
  const std::clock_t cpu0 = std::clock();
  for (auto _ : state) {
    vx::dpx::DpxDecode(&job, 1, target, 0, 3, threads > 1 ? &vx::WorkerPool::Shared() : nullptr);
    benchmark::ClobberMemory();
  }
  const double cpuMs = 1000.0 * static_cast<double>(std::clock() - cpu0) / CLOCKS_PER_SEC;
  state.counters["all_threads_cpu_ms/frame"] = cpuMs / static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kDataBytes));
}
BENCHMARK(BM_Unpack4k10BitToRGBA16)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK(BM_Dpx4k10BitToRGBA16)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Dpx4k10BitToRGBAF32)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Dpx4k10BitToRGB16)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
