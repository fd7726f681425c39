// What the picture-read benchmarks share. Each times our parser and its peers on the same file in
// the same run; a case keeps its time per picture so the cases after it can report ratios.
#pragma once
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <random>
#include <vector>

#include "vx/com_ptr.h"
#include "vx/sdk.h"

#ifdef VX_HAVE_OIIO
#include <OpenImageIO/imagebuf.h>
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

// Runs the cases the command line selects, then removes the file the benchmark made (`file`
// is the benchmark's own lazily made file; an empty path when it could not be made).
inline int RunAndRemove(int argc, char** argv, const std::filesystem::path& (*file)()) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!file().empty()) std::filesystem::remove(file());
  return 0;
}

// 8-bit RGBA: flat bands a run-length coder packs (steps of a gradient 32 pixels wide, the alpha a
// ramp by lines) beside blocks of noise it cannot, a third of the picture, so both kinds of run
// are timed. `alphaOr` is ORed into every alpha, for writers that drop the colour under alpha 0.
inline std::vector<std::uint8_t> PaintRunsAndNoise(int width, int height,
                                                   std::uint8_t alphaOr = 0) {
  std::vector<std::uint8_t> px(std::size_t(width) * height * 4);
  std::mt19937 rng(7);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = &px[(std::size_t(width) * y + x) * 4];
      const auto band = static_cast<std::uint8_t>(x / 32 * 255 / 127);
      const auto ramp = static_cast<std::uint8_t>(y * 255 / (height - 1));
      const bool noise = ((x / 256) + (y / 216)) % 3 == 0;
      const std::uint32_t r = rng();
      p[0] = noise ? static_cast<std::uint8_t>(r) : band;
      p[1] = noise ? static_cast<std::uint8_t>(r >> 8) : static_cast<std::uint8_t>(255 - band);
      p[2] = noise ? static_cast<std::uint8_t>(r >> 16) : ramp;
      p[3] =
          static_cast<std::uint8_t>((noise ? static_cast<std::uint8_t>(r >> 24) : ramp) | alphaOr);
    }
  }
  return px;
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

// What a file's header says, read once before a timed loop so the loop times the read alone.
struct OiioHeader {
  int width = 0;
  int height = 0;
  int channels = 0;
  OIIO::TypeDesc format;
};
inline OiioHeader ReadOiioHeader(const std::filesystem::path& path,
                                 const OIIO::ImageSpec* config = nullptr) {
  OIIO::ImageBuf buf(path.string(), 0, 0, nullptr, config);
  const OIIO::ROI area = buf.roi();  // reads the header only
  if (!area.defined()) return {};
  return {area.width(), area.height(), buf.nchannels(), buf.pixeltype()};
}

// Channels [0, channels) of the file as `type`, pixels `xstride` bytes apart; the caller has
// checked its size against the buffer with ReadOiioHeader.
inline bool OiioRead(const std::filesystem::path& path, int channels, OIIO::TypeDesc type,
                     void* pixels, OIIO::stride_t xstride = OIIO::AutoStride,
                     const OIIO::ImageSpec* config = nullptr) {
  auto in = OIIO::ImageInput::open(path.string(), config);
  return in && in->read_image(0, 0, 0, channels, type, pixels, xstride);
}

// Times OiioRead over the run; zero times when a read fails.
inline Times TimeOiioRead(benchmark::State& state, const std::filesystem::path& path, int width,
                          int height, int channels, OIIO::TypeDesc type, void* pixels,
                          OIIO::stride_t xstride = OIIO::AutoStride,
                          const OIIO::ImageSpec* config = nullptr) {
  const OiioHeader header = ReadOiioHeader(path, config);
  if (header.width != width || header.height != height) {
    state.SkipWithError("OpenImageIO sees another size");
    return {};
  }
  const Stopwatch watch;
  for (auto _ : state) {
    if (!OiioRead(path, channels, type, pixels, xstride, config)) {
      state.SkipWithError("OpenImageIO read failed");
      return {};
    }
    benchmark::DoNotOptimize(pixels);
  }
  return watch.PerIteration(state);
}
#endif

}  // namespace vxbench
