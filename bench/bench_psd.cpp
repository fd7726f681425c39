// Reading a 4096 x 2160 8-bit RGBA RLE Photoshop file written by ImageMagick through the parser
// into the host's RGBA8 image, against OpenImageIO reading the same file into 8-bit RGBA in the
// same run. The OpenImageIO case runs right after ours and reports "oiio_over_ours", its time per
// picture over ours.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include "still/psd/psd_parser.h"
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
  const auto dir = std::filesystem::temp_directory_path();
  const auto raw = dir / "vx_bench_psd_4k.rgba";
  const auto path = dir / "vx_bench_psd_4k.psd";
  {
    const std::vector<std::uint8_t> pixels = vxbench::PaintRunsAndNoise(kWidth, kHeight, 1);
    std::ofstream out(raw, std::ios::binary);
    out.write(reinterpret_cast<const char*>(pixels.data()),
              static_cast<std::streamsize>(pixels.size()));
  }
  const std::string cmd = "convert -size " + std::to_string(kWidth) + "x" +
                          std::to_string(kHeight) + " -depth 8 rgba:'" + raw.string() +
                          "' -compress RLE '" + path.string() + "' >/dev/null 2>&1";
  const bool ok = std::system(cmd.c_str()) == 0;
  std::filesystem::remove(raw);
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

// Open, then ReadImage into the host's RGBA8 image, as a host reads a frame.
void BM_PsdParserRead4K(benchmark::State& state) {
  const auto& path = File();
  vx::ComPtr<IVxImage> image;
  if (path.empty() || FAILED(VxCreateImage(kWidth, kHeight, VX_PF_RGBA8, image.put()))) {
    state.SkipWithError("no file (ImageMagick missing?) or image");
    return;
  }
  OurTime() = vxbench::TimeParserRead<CVxMediaFileParserPSD>(state, path, image.get()).wall;
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

#ifdef VX_HAVE_OIIO
// The same file as 8-bit RGBA into one buffer, its alpha left unassociated as ours is.
void BM_PsdOiioRead4K(benchmark::State& state) {
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
BENCHMARK(BM_PsdParserRead4K)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef VX_HAVE_OIIO
BENCHMARK(BM_PsdOiioRead4K)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

int main(int argc, char** argv) {
  return vxbench::RunAndRemove(argc, argv, &File);
}
