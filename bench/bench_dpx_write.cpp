// Writing a 4K frame as DPX the way an export does (the host image is 16-bit RGBA), and the line
// packers on their own.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <vector>

#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_header.h"
#include "still/dpx/dpx_pack.h"
#include "still/dpx/dpx_writer.h"
#include "vx/sdk.h"

namespace {

constexpr int kWidth = 4096;
constexpr int kHeight = 2160;

IVxImage* MakeImage() {
  IVxImage* image = nullptr;
  if (FAILED(VxCreateImage(kWidth, kHeight, VX_PF_RGBA16, &image))) return nullptr;
  std::mt19937 rng(11);
  for (int y = 0; y < kHeight; ++y) {
    auto* row = reinterpret_cast<std::uint16_t*>(image->GetBuffer() +
                                                 std::ptrdiff_t{image->GetRowStride()} * y);
    for (int x = 0; x < kWidth * 4; ++x) row[x] = static_cast<std::uint16_t>(rng());
  }
  return image;
}

// args: bit depth, packing, layout
void BM_WriteDpx4K(benchmark::State& state) {
  static IVxImage* image = MakeImage();
  if (!image) {
    state.SkipWithError("no image");
    return;
  }
  vx::dpx::DpxExportSettings settings;
  settings.bitDepth = static_cast<int>(state.range(0));
  settings.packing = static_cast<int>(state.range(1));
  settings.layout = static_cast<vx::dpx::DpxLayout>(state.range(2));
  const auto path = std::filesystem::temp_directory_path() / "vx_bench_write_4k.dpx";
  const VxString wide = vx::FromUtf8(path.string());
  for (auto _ : state) {
    if (FAILED(vx::dpx::WriteDpxFile(wide.c_str(), image, settings, {}))) {
      state.SkipWithError("write failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  state.counters["fps"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  std::filesystem::remove(path);
}
BENCHMARK(BM_WriteDpx4K)
    ->ArgNames({"bits", "packing", "layout"})
    ->Args({10, 1, static_cast<int>(vx::dpx::DpxLayout::PackedRGB)})
    ->Args({10, 0, static_cast<int>(vx::dpx::DpxLayout::PackedRGB)})
    ->Args({12, 0, static_cast<int>(vx::dpx::DpxLayout::PackedRGBA)})
    ->Args({16, 0, static_cast<int>(vx::dpx::DpxLayout::PlanarRGBA)})
    ->Args({32, 0, static_cast<int>(vx::dpx::DpxLayout::PackedRGBA)})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// One 4K line of RGB samples. args: bit depth, packing
void BM_PackLine(benchmark::State& state) {
  const auto bits = static_cast<std::uint32_t>(state.range(0));
  const auto packing = static_cast<std::uint32_t>(state.range(1));
  const std::size_t n = kWidth * 3;
  std::vector<float> samples(n);
  std::mt19937 rng(3);
  const auto top = static_cast<float>(vx::dpx::MaxCode(bits));
  for (float& s : samples) s = static_cast<float>(rng() % 65536) / 65535.0f * top;
  std::vector<std::uint8_t> out(vx::dpx::DpxLineBytes(bits, packing, kWidth, 3, false) + 8);
  for (auto _ : state) {
    vx::dpx::PackSamples(samples.data(), n, bits, packing, true, out.data());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}
BENCHMARK(BM_PackLine)
    ->ArgNames({"bits", "packing"})
    ->Args({8, 0})
    ->Args({10, 0})
    ->Args({10, 1})
    ->Args({12, 0})
    ->Args({12, 1})
    ->Args({16, 0});

}  // namespace

BENCHMARK_MAIN();
