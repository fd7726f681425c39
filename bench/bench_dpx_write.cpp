// Writing a 4K frame as DPX the way an export does (the host image is 16-bit RGBA), against
// OpenImageIO writing the same pixels at the same depth in the same run. Each OpenImageIO case
// runs right after ours and reports "oiio_over_ours", its time per frame over ours.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_header.h"
#include "still/dpx/dpx_pack.h"
#include "still/dpx/dpx_writer.h"
#include "vx/sdk.h"

#ifdef VX_HAVE_OIIO
#include <OpenImageIO/imageio.h>
#endif

namespace {

constexpr int kWidth = 4096;
constexpr int kHeight = 2160;

IVxImage* SharedImage() {
  static IVxImage* image = [] {
    IVxImage* img = nullptr;
    if (FAILED(VxCreateImage(kWidth, kHeight, VX_PF_RGBA16, &img))) return img;
    std::mt19937 rng(11);
    for (int y = 0; y < kHeight; ++y) {
      auto* row = reinterpret_cast<std::uint16_t*>(img->GetBuffer() +
                                                   std::ptrdiff_t{img->GetRowStride()} * y);
      for (int x = 0; x < kWidth * 4; ++x) row[x] = static_cast<std::uint16_t>(rng());
    }
    return img;
  }();
  return image;
}

std::filesystem::path Target(const char* who) {
  return std::filesystem::temp_directory_path() /
         (std::string("vx_bench_write_4k_") + who + ".dpx");
}

std::string CaseKey(const benchmark::State& s) {
  return std::to_string(s.range(0)) + "/" + std::to_string(s.range(1)) + "/" +
         std::to_string(s.range(2));
}

// Milliseconds per frame of our writer, by case, for the OpenImageIO run that follows.
std::map<std::string, double>& OurTimes() {
  static std::map<std::string, double> times;
  return times;
}

// args: bit depth, packing, layout
void BM_WriteDpx4K(benchmark::State& state) {
  IVxImage* image = SharedImage();
  if (!image) {
    state.SkipWithError("no image");
    return;
  }
  vx::dpx::DpxExportSettings settings;
  settings.bitDepth = static_cast<int>(state.range(0));
  settings.packing = static_cast<int>(state.range(1));
  settings.layout = static_cast<vx::dpx::DpxLayout>(state.range(2));
  const auto path = Target("vx");
  const VxString wide = vx::FromUtf8(path.string());
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) {
    if (FAILED(vx::dpx::WriteDpxFile(wide.c_str(), image, settings, {}))) {
      state.SkipWithError("write failed");
      break;
    }
  }
  const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - t0;
  OurTimes()[CaseKey(state)] = spent.count() / static_cast<double>(state.iterations());
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  std::filesystem::remove(path);
}

#ifdef VX_HAVE_OIIO
// The same case through OpenImageIO: the RGB (or RGBA) channels of the 16-bit image handed over
// with their strides, as an application would.
void BM_OiioWriteDpx4K(benchmark::State& state) {
  IVxImage* image = SharedImage();
  const int bits = static_cast<int>(state.range(0));
  const auto layout = static_cast<vx::dpx::DpxLayout>(state.range(2));
  const int channels = vx::dpx::LayoutHasAlpha(layout) ? 4 : 3;
  const OIIO::TypeDesc type = bits == 8    ? OIIO::TypeDesc::UINT8
                              : bits == 32 ? OIIO::TypeDesc::FLOAT
                                           : OIIO::TypeDesc::UINT16;
  OIIO::ImageSpec format(kWidth, kHeight, channels, type);
  format.attribute("oiio:BitsPerSample", bits);
  static const char* const kPacking[] = {"Packed", "Filled, method A", "Filled, method B"};
  format.attribute("dpx:Packing", kPacking[state.range(1)]);
  const auto path = Target("oiio");
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) {
    auto out = OIIO::ImageOutput::create(path.string());
    if (!out || !out->open(path.string(), format) ||
        !out->write_image(OIIO::TypeDesc::UINT16, image->GetBuffer(), 8, image->GetRowStride()) ||
        !out->close()) {
      state.SkipWithError("OpenImageIO write failed");
      break;
    }
  }
  const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - t0;
  const double ms = spent.count() / static_cast<double>(state.iterations());
  const auto ours = OurTimes().find(CaseKey(state));
  if (ours != OurTimes().end() && ours->second > 0.0)
    state.counters["oiio_over_ours"] = ms / ours->second;
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  std::filesystem::remove(path);
}
#endif

// Ours, then OpenImageIO, case by case: 10-bit method A is what film scans and most exports use;
// the other depths for proportion.
void Cases(benchmark::internal::Benchmark* b) {
  using vx::dpx::DpxLayout;
  b->ArgNames({"bits", "packing", "layout"});
  b->Args({10, 1, static_cast<int>(DpxLayout::PackedRGB)});
  b->Args({8, 0, static_cast<int>(DpxLayout::PackedRGB)});
  b->Args({12, 1, static_cast<int>(DpxLayout::PackedRGB)});
  b->Args({16, 0, static_cast<int>(DpxLayout::PackedRGB)});
  b->Args({32, 0, static_cast<int>(DpxLayout::PackedRGB)});
  b->Args({10, 1, static_cast<int>(DpxLayout::PackedRGBA)});
  b->Unit(benchmark::kMillisecond)->UseRealTime();
}
void Register() {
  // Interleaved registration would not help: Google Benchmark runs a family's cases in a row, so
  // our family comes first and OpenImageIO's reads our times.
  Cases(benchmark::RegisterBenchmark("BM_WriteDpx4K", BM_WriteDpx4K));
#ifdef VX_HAVE_OIIO
  Cases(benchmark::RegisterBenchmark("BM_OiioWriteDpx4K", BM_OiioWriteDpx4K));
#endif
}

// Our own layouts OpenImageIO does not write: 10-bit packed and planar.
void BM_WriteDpx4KOwnLayouts(benchmark::State& state) {
  BM_WriteDpx4K(state);
}
BENCHMARK(BM_WriteDpx4KOwnLayouts)
    ->ArgNames({"bits", "packing", "layout"})
    ->Args({10, 0, static_cast<int>(vx::dpx::DpxLayout::PackedRGB)})
    ->Args({16, 0, static_cast<int>(vx::dpx::DpxLayout::PlanarRGBA)})
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
BENCHMARK(BM_PackLine)->ArgNames({"bits", "packing"})->Args({10, 0})->Args({10, 1})->Args({12, 0});

}  // namespace

int main(int argc, char** argv) {
  Register();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
