// Reading a 4096 x 2160 32-bit run-length Targa written by OpenImageIO through the parser into the
// host's BGRA8 image, against OpenImageIO reading the same file into 8-bit RGBA in the same run.
// The OpenImageIO case runs right after ours and reports "oiio_over_ours", its time per picture
// over ours.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <random>
#include <vector>

#include "still/targa/targa_parser.h"
#include "bench_peer.h"
#include "vx/com_ptr.h"
#include "vx/sdk.h"

#ifdef VX_HAVE_OIIO
#include <OpenImageIO/imageio.h>
#endif

namespace {

constexpr int kWidth = 4096;
constexpr int kHeight = 2160;

std::filesystem::path MakeFile() {
  const auto path = std::filesystem::temp_directory_path() / "vx_bench_targa_4k.tga";
  bool ok = false;
#ifdef VX_HAVE_OIIO
  const std::vector<std::uint8_t> pixels = vxbench::PaintRunsAndNoise(kWidth, kHeight);
  OIIO::ParamValueList extra;
  extra.attribute("compression", "rle");
  extra.attribute("oiio:UnassociatedAlpha", 1);
  ok = vxbench::OiioWrite(path, kWidth, kHeight, 4, OIIO::TypeDesc::UINT8, pixels.data(), extra);
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

// Open, then ReadImage into the host's BGRA8 image, as a host reads a frame.
void BM_TargaParserRead4K(benchmark::State& state) {
  const auto& path = File();
  vx::ComPtr<IVxImage> image;
  if (path.empty() || FAILED(VxCreateImage(kWidth, kHeight, VX_PF_BGRA8, image.put()))) {
    state.SkipWithError("no file or image");
    return;
  }
  OurTime() = vxbench::TimeParserRead<CVxTargaFileParser>(state, path, image.get()).wall;
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

#ifdef VX_HAVE_OIIO
// The same file as 8-bit RGBA into one buffer, its alpha left unassociated (OpenImageIO would
// otherwise also multiply the colour by it, which our reader does not do).
void BM_TargaOiioRead4K(benchmark::State& state) {
  const auto& path = File();
  std::vector<std::uint8_t> pixels(std::size_t{kWidth} * kHeight * 4);
  OIIO::ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  const double ms = vxbench::TimeOiioRead(state, path, kWidth, kHeight, 4, OIIO::TypeDesc::UINT8,
                                          pixels.data(), OIIO::AutoStride, &config)
                        .wall;
  vxbench::Ratio(state, "oiio_over_ours", ms, OurTime());
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
#endif

}  // namespace

// Ours first, so OpenImageIO's case can read our time. With repetitions, compare the medians.
BENCHMARK(BM_TargaParserRead4K)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef VX_HAVE_OIIO
BENCHMARK(BM_TargaOiioRead4K)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

int main(int argc, char** argv) {
  return vxbench::RunAndRemove(argc, argv, &File);
}
