// What the picture-read benchmarks share. Each times our parser and its peers on the same file in
// the same run; a case keeps its time per picture so the cases after it can report ratios.
#pragma once
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <filesystem>

#include "vx/com_ptr.h"
#include "vx/sdk.h"

#ifdef VX_HAVE_OIIO
#include <OpenImageIO/imageio.h>
#endif

namespace vxbench {

// Milliseconds per picture: wall time, and processor time of every thread, which says more on a
// shared machine where the wall clock mostly measures the neighbours.
struct Times {
  double wall = 0.0;
  double cpu = 0.0;
};

class Stopwatch {
 public:
  Times PerIteration(const benchmark::State& state) const {
    const double n = static_cast<double>(state.iterations());
    const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - t0_;
    return {spent.count() / n,
            1000.0 * static_cast<double>(std::clock() - c0_) / CLOCKS_PER_SEC / n};
  }

 private:
  std::chrono::steady_clock::time_point t0_ = std::chrono::steady_clock::now();
  std::clock_t c0_ = std::clock();
};

// counters[name] = a / b when both are known.
inline void Ratio(benchmark::State& state, const char* name, double a, double b) {
  if (a > 0.0 && b > 0.0) state.counters[name] = a / b;
}

// Open, then ReadImage into `image`, as a host reads a frame; the parser is made once from
// `args`. Zero times when the read fails (the case is then skipped with an error).
template <class Parser, class... Args>
Times TimeParserRead(benchmark::State& state, const std::filesystem::path& path, IVxImage* image,
                     Args... args) {
  const VxString wide = vx::FromUtf8(path.string());
  auto parser = vx::ComPtr<Parser>::Share(new Parser(args...));
  const Stopwatch watch;
  for (auto _ : state) {
    IVxImage* target = image;
    if (FAILED(parser->Open(wide.c_str(), VX_OPEN_NO_PATTERN)) ||
        FAILED(parser->ReadImage(&target, 0))) {
      state.SkipWithError("read failed");
      return {};
    }
    benchmark::DoNotOptimize(image->GetBuffer());
  }
  return watch.PerIteration(state);
}

#ifdef VX_HAVE_OIIO
// One picture written by OpenImageIO, the format's settings in `extra`.
inline bool OiioWrite(const std::filesystem::path& path, int width, int height, int channels,
                      OIIO::TypeDesc type, const void* pixels,
                      const OIIO::ParamValueList& extra = {}) {
  auto out = OIIO::ImageOutput::create(path.string());
  OIIO::ImageSpec layout(width, height, channels, type);
  layout.extra_attribs = extra;
  return out && out->open(path.string(), layout) && out->write_image(type, pixels) && out->close();
}

// Channels [0, channels) of a width x height file as `type`, pixels `xstride` bytes apart.
inline bool OiioRead(const std::filesystem::path& path, int width, int height, int channels,
                     OIIO::TypeDesc type, void* pixels, OIIO::stride_t xstride = OIIO::AutoStride,
                     const OIIO::ImageSpec* config = nullptr) {
  auto in = OIIO::ImageInput::open(path.string(), config);
  if (!in) return false;
  // The size only: the attribute list of the picture is not needed.
  const OIIO::ImageSpec file = in->spec_dimensions(0);
  return file.width == width && file.height == height &&
         in->read_image(0, 0, 0, channels, type, pixels, xstride);
}

// Times OiioRead over the run; zero times when a read fails.
inline Times TimeOiioRead(benchmark::State& state, const std::filesystem::path& path, int width,
                          int height, int channels, OIIO::TypeDesc type, void* pixels,
                          OIIO::stride_t xstride = OIIO::AutoStride,
                          const OIIO::ImageSpec* config = nullptr) {
  const Stopwatch watch;
  for (auto _ : state) {
    if (!OiioRead(path, width, height, channels, type, pixels, xstride, config)) {
      state.SkipWithError("OpenImageIO read failed");
      return {};
    }
    benchmark::DoNotOptimize(pixels);
  }
  return watch.PerIteration(state);
}
#endif

}  // namespace vxbench
