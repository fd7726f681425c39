// Host image conversion and 3D LUT application on an HD frame (1920 x 1080), in pixels per
// second. The source holds a ramp so no conversion sees only zeros.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "vx/sdk.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

IVxImage* Ramp(VxPixelFormat f) {
  IVxImage* img = nullptr;
  VxCreateImage(kWidth, kHeight, f, &img);
  BYTE* p = img->GetBuffer();
  const int row = kWidth * VxPixelFormatBytesPerPixel(f);
  for (int y = 0; y < kHeight; ++y)
    for (int i = 0; i < row; ++i)
      p[static_cast<std::size_t>(y) * img->GetRowStride() + i] = static_cast<BYTE>(i + y);
  // Float sources get values in [0, 1] instead of the byte pattern.
  if (f == VX_PF_RGBAF32 || f == VX_PF_RGBF32 || f == VX_PF_GRAYF32) {
    const int n = kWidth * VxPixelFormatChannels(f);
    for (int y = 0; y < kHeight; ++y) {
      auto* fp = reinterpret_cast<float*>(p + static_cast<std::size_t>(y) * img->GetRowStride());
      for (int i = 0; i < n; ++i) fp[i] = static_cast<float>((i + y) % 1000) / 999.0f;
    }
  }
  return img;
}

void Convert(benchmark::State& state, VxPixelFormat from, VxPixelFormat to) {
  IVxImage* src = Ramp(from);
  IVxImage* dst = nullptr;
  VxCreateImage(kWidth, kHeight, to, &dst);
  for (auto _ : state) {
    VxConvertImage(src, dst);
    benchmark::DoNotOptimize(dst->GetBuffer());
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  src->Release();
  dst->Release();
}

BENCHMARK_CAPTURE(Convert, RGBA16_to_RGBAF32, VX_PF_RGBA16, VX_PF_RGBAF32)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Convert, RGBAF32_to_RGBA8, VX_PF_RGBAF32, VX_PF_RGBA8)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Convert, RGB8_to_BGRA8, VX_PF_RGB8, VX_PF_BGRA8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Convert, RGBA16_to_RGBA8, VX_PF_RGBA16, VX_PF_RGBA8)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Convert, RGB16_to_GRAY8, VX_PF_RGB16, VX_PF_GRAY8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Convert, RGBA8_to_RGBA8, VX_PF_RGBA8, VX_PF_RGBA8)->Unit(benchmark::kMillisecond);

void ApplyLut(benchmark::State& state) {
  const auto path = std::filesystem::temp_directory_path() / "vx_bench_33.cube";
  {
    std::ofstream f(path);
    f << "LUT_3D_SIZE 33\n";
    char line[64];
    for (int b = 0; b < 33; ++b)
      for (int g = 0; g < 33; ++g)
        for (int r = 0; r < 33; ++r) {
          std::snprintf(line, sizeof line, "%g %g %g\n", g / 32.0, b / 32.0, r / 32.0);
          f << line;
        }
  }
  VxLUT3D* lut = nullptr;
  const VxString wide = vx::FromUtf8(path.string());
  if (FAILED(VxGetPresetLUT(wide.c_str(), &lut))) {
    state.SkipWithError("cannot load the LUT");
    return;
  }
  std::vector<float> pixels(static_cast<std::size_t>(kWidth) * kHeight * 4);
  for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<float>(i % 997) / 996.0f;
  for (auto _ : state) {
    VxLUTHelperApply3DLut(lut, pixels.data(), static_cast<std::size_t>(kWidth) * kHeight, 4);
    benchmark::DoNotOptimize(pixels.data());
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  VxFreeLUT(lut);
  std::filesystem::remove(path);
}
BENCHMARK(ApplyLut)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
