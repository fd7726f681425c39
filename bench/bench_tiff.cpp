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
#include "bench_peer.h"
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
  OIIO::ParamValueList extra;
  extra.attribute("compression", "zip");
  extra.attribute("tiff:Predictor", 2);
  ok = vxbench::OiioWrite(path, kWidth, kHeight, 3, OIIO::TypeDesc::UINT16, pixels.data(), extra);
#endif
  return ok ? path : std::filesystem::path{};
}

const std::filesystem::path& File() {
  static const std::filesystem::path path = MakeFile();
  return path;
}

// Wall and processor time of every thread per picture, as the machine may be shared: wall time
// then says more about the neighbours than about the code.
vxbench::Times& OurTimes() {
  static vxbench::Times ms;
  return ms;
}

void Compare(benchmark::State& state, const vxbench::Times& peer, const char* wall, const char* cpu,
             bool oursFirst) {
  state.counters["process_cpu_ms"] = peer.cpu;
  if (oursFirst) {
    vxbench::Ratio(state, wall, OurTimes().wall, peer.wall);
    vxbench::Ratio(state, cpu, OurTimes().cpu, peer.cpu);
  } else {
    vxbench::Ratio(state, wall, peer.wall, OurTimes().wall);
    vxbench::Ratio(state, cpu, peer.cpu, OurTimes().cpu);
  }
}

// Open, then ReadImage into the host's RGBA16 image, as a host reads a frame.
void BM_TiffParserRead4K(benchmark::State& state) {
  const auto& path = File();
  vx::ComPtr<IVxImage> image;
  if (path.empty() || FAILED(VxCreateImage(kWidth, kHeight, VX_PF_RGBA16, image.put()))) {
    state.SkipWithError("no file or image");
    return;
  }
  OurTimes() = vxbench::TimeParserRead<CVxTIFFFileParser>(state, path, image.get());
  state.counters["process_cpu_ms"] = OurTimes().cpu;
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

#ifdef VX_HAVE_OIIO
void BM_TiffOiioRead4K(benchmark::State& state) {
  const auto& path = File();
  std::vector<std::uint16_t> pixels(std::size_t{kWidth} * kHeight * 3);
  const vxbench::Times peer =
      vxbench::TimeOiioRead(state, path, kWidth, kHeight, 3, OIIO::TypeDesc::UINT16, pixels.data());
  Compare(state, peer, "oiio_over_ours", "oiio_over_ours_cpu", false);
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
#endif

#ifdef VX_HAVE_LIBTIFF_PEER
// libtiff's own decode: every strip into one buffer, nothing else.
void BM_TiffLibtiffStrips4K(benchmark::State& state) {
  const auto& path = File();
  std::vector<std::uint8_t> pixels(std::size_t{kWidth} * kHeight * 6);
  const vxbench::Stopwatch watch;
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
  Compare(state, watch.PerIteration(state), "ours_over_libtiff", "ours_over_libtiff_cpu", true);
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
  return vxbench::RunAndRemove(argc, argv, &File);
}
