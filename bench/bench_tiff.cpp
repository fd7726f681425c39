// Reading a 4096 x 2160 16-bit RGB TIFF (Deflate with the horizontal predictor) written by
// OpenImageIO, through the parser into the host's RGBA16 image; against OpenImageIO reading the
// same file into 16-bit RGB, and against libtiff alone decoding every strip into one buffer
// (TIFFReadEncodedStrip, one thread), in the same run. The peers' cases run after ours and report
// "oiio_over_ours" and "ours_over_libtiff" in wall time, and the same in processor time of all
// threads ("_cpu").
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <cstdint>
#include <filesystem>
#include <random>
#include <vector>

#include "still/tiff/tiff_parser.h"
#include "vx/com_ptr.h"
#include "vx/sdk.h"

#ifdef VX_HAVE_OIIO
#include <OpenImageIO/imageio.h>
#endif
#ifdef VX_HAVE_LIBTIFF_PEER
#include <tiffio.h>
#endif

namespace {

constexpr int kWidth = 4096;
constexpr int kHeight = 2160;

// Smooth gradients (what the predictor is for) with a band of noise a quarter of the picture,
// so the decompressor meets both.
std::vector<std::uint16_t> Paint() {
  std::vector<std::uint16_t> px(std::size_t{kWidth} * kHeight * 3);
  std::mt19937 rng(11);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      std::uint16_t* p = &px[(std::size_t{kWidth} * y + x) * 3];
      const bool noise = (x / 512 + y / 540) % 4 == 0;
      const std::uint32_t r = rng();
      p[0] = noise ? static_cast<std::uint16_t>(r) : static_cast<std::uint16_t>(x * 16);
      p[1] = noise ? static_cast<std::uint16_t>(r >> 16) : static_cast<std::uint16_t>(y * 30);
      p[2] = static_cast<std::uint16_t>((x + y) * 8);
    }
  }
  return px;
}

std::filesystem::path MakeFile() {
  const auto path = std::filesystem::temp_directory_path() / "vx_bench_tiff_4k.tif";
  bool ok = false;
#ifdef VX_HAVE_OIIO
  const std::vector<std::uint16_t> pixels = Paint();
  auto out = OIIO::ImageOutput::create(path.string());
  OIIO::ImageSpec spec(kWidth, kHeight, 3, OIIO::TypeDesc::UINT16);
  spec.attribute("compression", "zip");
  spec.attribute("tiff:Predictor", 2);
  ok = out && out->open(path.string(), spec) &&
       out->write_image(OIIO::TypeDesc::UINT16, pixels.data()) && out->close();
#endif
  return ok ? path : std::filesystem::path{};
}

const std::filesystem::path& File() {
  static const std::filesystem::path path = MakeFile();
  return path;
}

double& OurTime() {
  static double ms = 0.0;
  return ms;
}

// Processor time of the whole process (every thread) per picture, as the machine may be shared:
// wall time then says more about the neighbours than about the code.
double& OurCpu() {
  static double ms = 0.0;
  return ms;
}

double CpuMilliseconds(std::clock_t c0, benchmark::State& state) {
  return 1000.0 * static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC /
         static_cast<double>(state.iterations());
}

double Milliseconds(std::chrono::steady_clock::time_point t0, benchmark::State& state) {
  const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - t0;
  return spent.count() / static_cast<double>(state.iterations());
}

// Open, then ReadImage into the host's RGBA16 image, as a host reads a frame.
void BM_TiffParserRead4K(benchmark::State& state) {
  const auto& path = File();
  vx::ComPtr<IVxImage> image;
  if (path.empty() || FAILED(VxCreateImage(kWidth, kHeight, VX_PF_RGBA16, image.put()))) {
    state.SkipWithError("no file or image");
    return;
  }
  const VxString wide = vx::FromUtf8(path.string());
  auto parser = vx::ComPtr<CVxTIFFFileParser>::Share(new CVxTIFFFileParser());
  const std::clock_t c0 = std::clock();
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) {
    IVxImage* target = image.get();
    if (FAILED(parser->Open(wide.c_str(), VX_OPEN_NO_PATTERN)) ||
        FAILED(parser->ReadImage(&target, 0))) {
      state.SkipWithError("read failed");
      break;
    }
    benchmark::DoNotOptimize(image->GetBuffer());
  }
  OurTime() = Milliseconds(t0, state);
  OurCpu() = CpuMilliseconds(c0, state);
  state.counters["process_cpu_ms"] = OurCpu();
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

#ifdef VX_HAVE_OIIO
void BM_TiffOiioRead4K(benchmark::State& state) {
  const auto& path = File();
  std::vector<std::uint16_t> pixels(std::size_t{kWidth} * kHeight * 3);
  const std::clock_t c0 = std::clock();
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) {
    auto in = OIIO::ImageInput::open(path.string());
    if (!in || in->spec().width != kWidth ||
        !in->read_image(0, 0, 0, 3, OIIO::TypeDesc::UINT16, pixels.data())) {
      state.SkipWithError("OpenImageIO read failed");
      break;
    }
    benchmark::DoNotOptimize(pixels.data());
  }
  const double ms = Milliseconds(t0, state);
  const double cpu = CpuMilliseconds(c0, state);
  state.counters["process_cpu_ms"] = cpu;
  if (OurTime() > 0.0) state.counters["oiio_over_ours"] = ms / OurTime();
  if (OurCpu() > 0.0) state.counters["oiio_over_ours_cpu"] = cpu / OurCpu();
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
#endif

#ifdef VX_HAVE_LIBTIFF_PEER
// libtiff's own decode: every strip into one buffer, nothing else.
void BM_TiffLibtiffStrips4K(benchmark::State& state) {
  const auto& path = File();
  std::vector<std::uint8_t> pixels(std::size_t{kWidth} * kHeight * 6);
  const std::clock_t c0 = std::clock();
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) {
    TIFF* tif = TIFFOpen(path.string().c_str(), "r");
    if (!tif) {
      state.SkipWithError("libtiff open failed");
      break;
    }
    const tmsize_t stripBytes = TIFFStripSize(tif);
    std::uint8_t* at = pixels.data();
    const std::uint8_t* end = pixels.data() + pixels.size();
    for (tstrip_t s = 0; s < TIFFNumberOfStrips(tif) && at < end; ++s) {
      const tmsize_t n = TIFFReadEncodedStrip(tif, s, at, std::min<tmsize_t>(stripBytes, end - at));
      if (n < 0) break;
      at += n;
    }
    TIFFClose(tif);
    benchmark::DoNotOptimize(pixels.data());
  }
  const double ms = Milliseconds(t0, state);
  const double cpu = CpuMilliseconds(c0, state);
  state.counters["process_cpu_ms"] = cpu;
  if (OurTime() > 0.0) state.counters["ours_over_libtiff"] = OurTime() / ms;
  if (OurCpu() > 0.0) state.counters["ours_over_libtiff_cpu"] = OurCpu() / cpu;
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
#endif

}  // namespace

// Ours first, so the peers' cases can read our time. With repetitions, compare the medians.
BENCHMARK(BM_TiffParserRead4K)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef VX_HAVE_OIIO
BENCHMARK(BM_TiffOiioRead4K)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
#ifdef VX_HAVE_LIBTIFF_PEER
BENCHMARK(BM_TiffLibtiffStrips4K)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!File().empty()) std::filesystem::remove(File());
  return 0;
}
