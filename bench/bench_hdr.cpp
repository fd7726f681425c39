// Reading a 4096 x 2160 run-length Radiance HDR through CVxHdrFileParser into the host's float
// RGBA image, against OpenImageIO reading the same file into the same layout in the same run.
// The OpenImageIO case runs right after ours and reports "oiio_over_ours", its time per picture
// over ours.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include "still/hdr/hdr_parser.h"
#include "bench_peer.h"
#include "vx/com_ptr.h"
#include "vx/sdk.h"

#ifdef VX_HAVE_OIIO
#include <OpenImageIO/imageio.h>
#endif

namespace {

constexpr int kWidth = 4096;
constexpr int kHeight = 2160;

// Smooth light (a sky-like ramp over four decades with steps a run-length coder packs) beside
// blocks of noise it cannot, a third of the picture. Written once with our writer.
std::filesystem::path MakeFile() {
  const auto path = std::filesystem::temp_directory_path() / "vx_bench_hdr_4k.hdr";
  vx::ComPtr<IVxImage> image;
  if (FAILED(VxCreateImage(kWidth, kHeight, VX_PF_RGBAF32, image.put()))) return {};
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> noise(0.0f, 4.0f);
  for (int y = 0; y < kHeight; ++y) {
    float* row = reinterpret_cast<float*>(image->GetBuffer() +
                                          static_cast<std::size_t>(y) * image->GetRowStride());
    for (int x = 0; x < kWidth; ++x) {
      float* p = row + static_cast<std::size_t>(x) * 4;
      if (((x / 256) + (y / 216)) % 3 == 0) {
        p[0] = noise(rng), p[1] = noise(rng), p[2] = noise(rng);
      } else {
        const float light = std::pow(10.0f, static_cast<float>(x / 16) / 64.0f - 2.0f);
        const float shade = 0.2f + 0.8f * static_cast<float>(y) / kHeight;
        p[0] = light * shade, p[1] = light * 0.8f, p[2] = light * (1.0f - 0.5f * shade);
      }
      p[3] = 1.0f;
    }
  }
  const VxString wide = vx::FromUtf8(path.string());
  auto writer = vx::ComPtr<CVxHdrFileParser>::Share(new CVxHdrFileParser());
  const VxString linear = vx::FromUtf8("linear=1");
  if (FAILED(writer->Open(wide.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN)) ||
      FAILED(writer->SetOption(const_cast<VxChar*>(linear.c_str()), VX_OPTION_TEXT)) ||
      FAILED(writer->WriteImage(image.get(), 0)))
    return {};
  return path;
}

const std::filesystem::path& File() {
  static const std::filesystem::path path = MakeFile();
  return path;
}

double& OurTime() {
  static double ms = 0.0;
  return ms;
}

// Open, then ReadImage into the host's float RGBA image, as a host reads a frame.
void BM_HdrParserRead4K(benchmark::State& state) {
  const auto& path = File();
  vx::ComPtr<IVxImage> image;
  if (path.empty() || FAILED(VxCreateImage(kWidth, kHeight, VX_PF_RGBAF32, image.put()))) {
    state.SkipWithError("no file or image");
    return;
  }
  state.counters["file_MB"] = static_cast<double>(std::filesystem::file_size(path)) / 1e6;
  OurTime() = vxbench::TimeParserRead<CVxHdrFileParser>(state, path, image.get()).wall;
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

#ifdef VX_HAVE_OIIO
// The same file as float RGB into the same 16-byte RGBA pixels (an x stride of 16); the alpha is
// set once before the loop, so OpenImageIO is not charged for filling it.
void BM_OiioHdrRead4K(benchmark::State& state) {
  const auto& path = File();
  std::vector<float> pixels(std::size_t{kWidth} * kHeight * 4, 1.0f);
  const double ms = vxbench::TimeOiioRead(state, path, kWidth, kHeight, 3, OIIO::TypeDesc::FLOAT,
                                          pixels.data(), 16)
                        .wall;
  vxbench::Ratio(state, "oiio_over_ours", ms, OurTime());
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
#endif

void Register() {
  // Ours first, so OpenImageIO's run reads our time. With repetitions, compare the medians.
  benchmark::RegisterBenchmark("BM_HdrParserRead4K", BM_HdrParserRead4K)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
#ifdef VX_HAVE_OIIO
  benchmark::RegisterBenchmark("BM_OiioHdrRead4K", BM_OiioHdrRead4K)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
#endif
}

}  // namespace

int main(int argc, char** argv) {
  Register();
  return vxbench::RunAndRemove(argc, argv, &File);
}
